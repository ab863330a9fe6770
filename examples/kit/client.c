/*
 * A client with a session: leaves a note at a port, and ends when it has heard of it as everybody else does.
 * usage: client PORT_ID TEXT
 */
#include <stdio.h>

#include <tavrix_service.h>

/* The answer and the notification come in either order. */
struct progress {
    int told;
    bool failed;
};

static void tell(tavrix_service *service, struct progress *progress) {
    if (++progress->told == 2) {
        tavrix_service_stop(service);
    }
}

static void on_added(tavrix_service *service, const char *method, json_t *params, void *user) {
    printf("%s %s: %s\n", method, json_string_value(json_object_get(params, "port_id")),
           json_string_value(json_object_get(params, "text")));
    tell(service, user);
}

static void on_answer(tavrix_service *service, const tavrix_answer *answer, void *user) {
    struct progress *progress = user;
    if (answer->outcome == TAVRIX_OUTCOME_RESULT) {
        puts("left");
        tell(service, progress);
        return;
    }
    const char *why = json_string_value(json_object_get(answer->data, "message"));
    printf("refused: %s\n", why != NULL ? why : answer->message);
    progress->failed = true;
    tavrix_service_stop(service);
}

int main(int argc, char **argv) {
    const tavrix_service_options options = {.name = "client", .flags = TAVRIX_SERVICE_NEED_ROUTER};
    tavrix_service *service = NULL;
    struct progress progress = {0};
    if (argc != 3 || tavrix_service_open(&options, &service) != TAVRIX_OK) {
        return 2;
    }
    tavrix_service_subscribe(service, "notes.Added", on_added, &progress);
    tavrix_service_request(service, "notes.Add", json_pack("{s:s, s:s}", "port_id", argv[1], "text", argv[2]), 5000,
                           on_answer, &progress);
    int rc = tavrix_service_run(service);
    tavrix_service_close(service);
    return rc == TAVRIX_OK && !progress.failed ? 0 : 1;
}
