/*
 * A bus frame: split, its reply channel read, and matched by the waits.
 */
#include "input.h"

#include "tavrix_jrpc.h"

namespace {

void split(const char *frame, int length) {
    fuzz::Text json;
    const int rc = tavrix_jrpc_parse_msg(frame, length, into(json));
    EXPECT((rc == 0) == (json != nullptr));
    if (json == nullptr) {
        return;
    }
    fuzz::Text channel;
    static_cast<void>(tavrix_jrpc_parse_channel(json.get(), into(channel)));
    if (channel != nullptr) {
        const fuzz::Text whole(tavrix_api_router_json_add_channel(channel.get(), json.get()));
        EXPECT(whole != nullptr);
    }
}

void match(const char *text) {
    fuzz::Json found;
    int rc = tavrix_jrpc_eval_method("ports.Get", text, into(found));
    EXPECT((rc == 0) == (found != nullptr));
    rc = tavrix_jrpc_eval_notification("events.X", text, into(found));
    EXPECT((rc == 0) == (found != nullptr));
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
