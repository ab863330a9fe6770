/* A whole service in C, which the tests kill while it waits and is waited for. */
#include <signal.h>
#include <stdlib.h>

#include <tavrix_service.h>

static void on_answer(tavrix_service *service, const tavrix_answer *answer, void *user) {
    (void)service, (void)answer, (void)user;
}

static int never(tavrix_call *call) {
    tavrix_call_defer(call, NULL, NULL);
    return 0;
}

static int ask(tavrix_call *call) {
    tavrix_service_request(tavrix_call_service(call), "t.Never", NULL, 60000, on_answer, NULL);
    return never(call);
}

static int echo(tavrix_call *call) { return tavrix_call_reply(call, json_integer(3)); }

static const tavrix_service_method methods[] = {
    TAVRIX_METHOD("x.Never", never, "Never answers.", NULL, NULL, 0),
    TAVRIX_METHOD("x.Ask", ask, "Asks t.Never, and never answers.", NULL, NULL, 0),
    TAVRIX_METHOD("x.Echo", echo, "Answers.", NULL, NULL, 0),
    TAVRIX_METHOD_END,
};

/* Its addresses are bound already, and it does not serve yet. */
static int start(tavrix_service *service, void *user) {
    (void)service, (void)user;
    return getenv("PEER_ENDS_EARLY") != NULL ? raise(SIGTERM) : TAVRIX_OK;
}

int main(int argc, char **argv) {
    const tavrix_service_options options = {.name = "peer", .methods = methods, .version = "1.2", .start = start};
    return tavrix_service_main(&options, argc, argv);
}
