/* The smallest service: hello.Say greets whoever is named. */
#include <tavrix_service.h>

static int say(tavrix_call *call) {
    return tavrix_call_reply(call, json_pack("{s:s}", "hello", tavrix_call_text(call, "name")));
}

static const tavrix_service_param say_params[] = {
    TAVRIX_PARAM_RANGE("name", TAVRIX_KIND_TEXT, "whom to greet", 0, 1, 40),
    TAVRIX_PARAM_END,
};
static const tavrix_service_param say_result[] = {
    TAVRIX_PARAM("hello", TAVRIX_KIND_TEXT, "who was greeted", 0),
    TAVRIX_PARAM_END,
};
static const tavrix_service_method methods[] = {
    TAVRIX_METHOD("hello.Say", say, "Greets somebody.", say_params, say_result, TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};

int main(int argc, char **argv) {
    const tavrix_service_options options = {.name = "hello", .methods = methods};
    return tavrix_service_main(&options, argc, argv);
}
