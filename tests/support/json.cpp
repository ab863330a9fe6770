#include "support/json.h"

namespace support {

Json parsed(const std::string &text) {
    Json value(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
    EXPECT_NE(value, nullptr) << text;
    return value;
}

std::string rendered(const json_t *value, size_t flags) {
    return taken(value != nullptr ? json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY | flags) : nullptr);
}

std::string taken(char *text) {
    const Text owner(text);
    return text != nullptr ? text : "(null)";
}

std::string taken(json_t *value) { return rendered(Json(value).get()); }

std::string array_of(size_t count, const std::string &element) {
    return array_of(count, [&element](size_t) { return element; });
}

std::string array_of(size_t count, const std::function<std::string(size_t)> &element) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += (i > 0 ? "," : "") + element(i);
    }
    return "[" + text + "]";
}

std::string request(const std::string &method, const std::string &id, const std::string &more) {
    return R"({"jsonrpc":"2.0","method":")" + method + R"(","id":)" + id + more + "}";
}

std::string notification(const std::string &method, const std::string &params) {
    return R"({"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + "}";
}

std::string subscription(const std::string &verb, const std::string &patterns) {
    return request("router." + verb, "\"" + verb + "\"", R"(,"params":{"methods":)" + patterns + "}");
}

json_error_t parse_error(const std::string &text) {
    json_error_t error{};
    const Json value(
        json_loads(text.c_str(), JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY, &error));
    EXPECT_EQ(value, nullptr) << text;
    return error;
}

std::string member(const std::string &text, const char *key) {
    const Json object(json_loads(text.c_str(), JSON_DISABLE_EOF_CHECK, nullptr));
    const json_t *value = json_object_get(object.get(), key);
    return value != nullptr ? rendered(value) : "(none)";
}

std::string members_of(const std::string &text, const std::vector<const char *> &keys) {
    std::string values;
    for (const char *key : keys) {
        values += (values.empty() ? "" : " ") + member(text, key);
    }
    return values;
}

std::string id_of(const std::string &response) { return member(response, "id"); }

std::string result_of(const std::string &response) { return member(response, "result"); }

std::string result_of(const std::string &response, const char *key) { return member(result_of(response), key); }

std::string service_reply(const std::string &request, const std::string &result) {
    return R"({"jsonrpc":"2.0","id":)" + member(request, "method") + ",\"result\":" + result +
           ",\"transaction_id\":" + member(request, "transaction_id") + "}";
}

std::string error_of(const std::string &response) {
    const std::string words = message_of(response);
    return code_of(response) + (words == "(none)" ? "" : " " + std::string(json_string_value(parsed(words).get())));
}

std::string code_of(const std::string &response) { return member(member(response, "error"), "code"); }

std::string data_of(const std::string &response) { return member(member(response, "error"), "data"); }

std::string message_of(const std::string &response) { return member(data_of(response), "message"); }

testing::AssertionResult holds(const std::string &text, const std::string &part) {
    const bool found = text.find(part) != std::string::npos;
    return (found ? testing::AssertionSuccess() : testing::AssertionFailure())
           << (found ? "there is " : "there is no ") << part << " in:\n"
           << text;
}

std::set<std::string> keys_of(const json_t *object) {
    std::set<std::string> keys;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(object), key, value) { keys.insert(key); }
    return keys;
}

} // namespace support
