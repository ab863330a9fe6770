/**
 * JSON texts in the tests: made and looked into.
 */
#ifndef TAVRIX_TESTS_SUPPORT_JSON_H
#define TAVRIX_TESTS_SUPPORT_JSON_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

#include "common/handles.h"

namespace support {

using tavrix::Json;
using tavrix::Text;

/** The value that a JSON text stands for. */
Json parsed(const std::string &text);

/** A value's text, compact unless `flags` say otherwise; "(null)" for none. */
std::string rendered(const json_t *value, size_t flags = 0);

/** What has been handed over, as a text, and released; "(null)" for nothing. */
std::string taken(char *text);
std::string taken(json_t *value);

/** A status, and the text that came with it; "(null)" for none. */
struct Answer {
    int rc;
    std::string text;
};
/** What a call gives that stores a text at a place. */
template <class Call>
Answer answer_of(Call call) {
    char *text = nullptr;
    const int rc = call(&text);
    return {rc, taken(text)};
}

/** Whether the part stands anywhere in the text; a failed expectation shows both. */
testing::AssertionResult holds(const std::string &text, const std::string &part);

/** The names of an object's members. */
std::set<std::string> keys_of(const json_t *object);

/** A JSON array of this many copies of the element, or of element(0), element(1), ... */
std::string array_of(size_t count, const std::string &element);
std::string array_of(size_t count, const std::function<std::string(size_t)> &element);

/** A JSON-RPC request; `id` and `more` stand as they are, `more` with its leading comma. */
std::string request(const std::string &method, const std::string &id, const std::string &more = "");

std::string notification(const std::string &method, const std::string &params = "{}");
/** The request router.Subscribe, router.Unsubscribe or router.Monitor; its id is that verb. */
std::string subscription(const std::string &verb, const std::string &patterns);

/** What the parser says of a text that is not JSON: its line and its words. */
json_error_t parse_error(const std::string &text);

/** A member of a JSON object's text, rendered compactly; "(none)" when it is absent. */
std::string member(const std::string &text, const char *key);

/** Several members of it, a blank between any two. */
std::string members_of(const std::string &text, const std::vector<const char *> &keys);

/** A response's id, and its result, or a member of that; "(none)" when it is absent. */
std::string id_of(const std::string &response);
std::string result_of(const std::string &response);
std::string result_of(const std::string &response, const char *key);

/** A service's reply to a request as it came to it. */
std::string service_reply(const std::string &request, const std::string &result);

/** What an error response says: its code and the words in its data, as in "-32601 no service offers x"; "(none)". */
std::string error_of(const std::string &response);
/** Of an error response: the code, the data, the data's message. */
std::string code_of(const std::string &response);
std::string data_of(const std::string &response);
std::string message_of(const std::string &response);

} // namespace support

#endif
