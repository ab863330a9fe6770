/*
 * The smallest service with the kit: NAME.Empty answers 0, NAME.Say answers its own parameters, each directly over the
 * session, as all services of the system do unless they ask for the bus.
 *
 *     kit_service NAME [OPTION...]     --session PATH, and what every service of the kit has
 */
#include <stdio.h>
#include <string.h>

#include <tavrix_service.h>

enum { name_size = TAVRIX_SERVICE_MAX_NAME + 8 };

static int empty(tavrix_call *call) {
    (void)call;
    return TAVRIX_OK;
}

static int say(tavrix_call *call) { return tavrix_call_reply(call, json_incref(tavrix_call_params(call))); }

static const tavrix_service_param any_result[] = {
    TAVRIX_PARAM("", TAVRIX_KIND_JSON, "the parameters", 0),
    TAVRIX_PARAM_END,
};

int main(int argc, char **argv) {
    static char names[2][name_size];
    const tavrix_service_method methods[] = {
        TAVRIX_METHOD(names[0], empty, "Does nothing.", NULL, NULL, TAVRIX_METHOD_READS),
        TAVRIX_METHOD(names[1], say, "Answers its parameters.", NULL, any_result, TAVRIX_METHOD_READS),
        TAVRIX_METHOD_END,
    };
    if (argc < 2 || strlen(argv[1]) > TAVRIX_SERVICE_MAX_NAME) {
        fprintf(stderr, "usage: kit_service NAME [OPTION...]\n");
        return 2;
    }
    snprintf(names[0], name_size, "%s.Empty", argv[1]);
    snprintf(names[1], name_size, "%s.Say", argv[1]);
    const tavrix_service_options options = {.name = argv[1], .methods = methods, .summary = "A service to measure."};
    return tavrix_service_main(&options, argc - 1, argv + 1);
}
