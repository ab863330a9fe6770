/*
 * A client with a session: leaves a note at a port, and ends when it has heard of it as everybody else does.
 * usage: client PORT_ID TEXT
 */
#include <iostream>
#include <memory>

#include <tavrix_service.h>

namespace {

struct CloseService {
    void operator()(tavrix_service *service) const { tavrix_service_close(service); }
};
using Service = std::unique_ptr<tavrix_service, CloseService>;

/** The answer and the notification come in either order. */
struct Progress {
    int told = 0;
    bool failed = false;

    void tell(tavrix_service *service) {
        if (++told == 2) {
            tavrix_service_stop(service);
        }
    }
};

const char *text_of(const json_t *object, const char *name) {
    const char *text = json_string_value(json_object_get(object, name));
    return text != nullptr ? text : "";
}

void on_added(tavrix_service *service, const char *method, json_t *params, void *user) {
    std::cout << method << ' ' << text_of(params, "port_id") << ": " << text_of(params, "text") << '\n';
    static_cast<Progress *>(user)->tell(service);
}

void on_answer(tavrix_service *service, const tavrix_answer *answer, void *user) {
    auto *progress = static_cast<Progress *>(user);
    if (answer->outcome == TAVRIX_OUTCOME_RESULT) {
        std::cout << "left\n";
        progress->tell(service);
        return;
    }
    std::cout << "refused: " << (answer->data != nullptr ? text_of(answer->data, "message") : answer->message) << '\n';
    progress->failed = true;
    tavrix_service_stop(service);
}

} // namespace

int main(int argc, char **argv) {
    tavrix_service_options options{};
    options.name = "client";
    options.flags = TAVRIX_SERVICE_NEED_ROUTER;
    tavrix_service *opened = nullptr;
    if (argc != 3 || tavrix_service_open(&options, &opened) != TAVRIX_OK) {
        return 2;
    }
    const Service service(opened);
    Progress progress;
    tavrix_service_subscribe(opened, "notes.Added", on_added, &progress);
    json_t *params = json_pack("{s:s, s:s}", "port_id", argv[1], "text", argv[2]);
    tavrix_service_request(opened, "notes.Add", params, 5000, on_answer, &progress);
    return tavrix_service_run(opened) == TAVRIX_OK && !progress.failed ? 0 : 1;
}
