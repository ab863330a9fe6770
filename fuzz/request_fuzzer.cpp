/*
 * A client's request: evaluated by a service, and routed.
 */
#include "input.h"

#include "internal/tavrix_jrpc_seam.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_jrpc_utils.h"

namespace {

int get(json_t *params, json_t **result, json_t **error_data) {
    char port_id[16];
    const int rc = tavrix_jrpc_utils_retrieve_input_port_id(params, error_data, "port_id", port_id, sizeof port_id,
                                                            true, true, true, true);
    *result = rc == 0 ? json_string(port_id) : nullptr;
    return rc;
}

int ping(json_t *, json_t **, json_t **) { return 0; }

const tavrix_jrpc_method table[] = {{"ports.Get", get}, {"p", ping}, {nullptr, nullptr}};

void evaluate(const char *request) {
    fuzz::Text response;
    const int rc = tavrix_jrpc_eval_request(request, table, into(response));
    EXPECT(rc == 0 || rc == TAVRIX_ERR_GENERAL);
    EXPECT(response == nullptr || (rc == 0 && fuzz::is_object(response.get())));
}

void route(const char *request) {
    fuzz::Text text;
    fuzz::Text channel;
    const int rc = tavrix_jrpc_router_process_msg(request, into(text), into(channel));
    EXPECT((rc == 0) == (text != nullptr));
    if (text != nullptr) {
        EXPECT(tavrix_jrpc_parse_channel(text.get(), into(channel)) == 0);
        EXPECT(std::string(channel.get()) == TAVRIX_ROUTER_REPLY_CHANNEL);
    }
}

void notify(const char *text) {
    const fuzz::Json value(json_loads(text, 0, nullptr));
    if (value) {
        static_cast<void>(tavrix_jrpc_router_eval_notification(value.get(), table));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const fuzz::Text text = fuzz::text_of(data, size);
    evaluate(text.get());
    route(text.get());
    notify(text.get());
    return 0;
}
