/*
 * A bus frame: split, its reply channel read, and matched by the waits.
 */
#include "input.h"

#include "tavrix_jrpc.h"

namespace {

void split(const char *frame, int length) {
    char *json = nullptr;
    const int rc = tavrix_jrpc_parse_msg(frame, length, &json);
    const fuzz::Text owner(json);
    EXPECT((rc == 0) == (json != nullptr));
    if (json == nullptr) {
        return;
    }
    char *channel = nullptr;
    static_cast<void>(tavrix_jrpc_parse_channel(json, &channel));
    const fuzz::Text channel_owner(channel);
    if (channel != nullptr) {
        const fuzz::Text whole(tavrix_api_router_json_add_channel(channel, json));
        EXPECT(whole != nullptr);
    }
}

void match(const char *text) {
    json_t *reply = nullptr;
    EXPECT((tavrix_jrpc_eval_method("ports.Get", text, &reply) == 0) == (reply != nullptr));
    json_decref(reply);
    json_t *notification = nullptr;
    EXPECT((tavrix_jrpc_eval_notification("events.X", text, &notification) == 0) == (notification != nullptr));
    json_decref(notification);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const fuzz::Text text = fuzz::text_of(data, size);
    split(text.get(), static_cast<int>(size));
    match(text.get());
    const fuzz::Text channel(tavrix_api_router_json_parse_channel(text.get()));
    EXPECT(channel != nullptr && std::string(channel.get()).size() == 36);
    return 0;
}
