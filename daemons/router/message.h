/**
 * JSON-RPC messages as the router makes and judges them, and how it shows the words of others.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_MESSAGE_H
#define TAVRIX_DAEMONS_ROUTER_MESSAGE_H

#include <string>
#include <string_view>
#include <vector>

#include <jansson.h>

#include "common/message.h"
#include "common/names.h"
#include "common/text.h"

namespace router {

using tavrix::Json;
namespace names = tavrix::names;

/** Another reference to the value. */
inline Json share(json_t *value) { return Json(json_incref(value)); }
inline Json share(const Json &value) { return share(value.get()); }

/** The member's text; empty when it is absent or of another type. */
std::string text_member(const json_t *object, const char *key);

/** Foreign text for a log line: escaped, and cut after 200 bytes. */
std::string printable(std::string_view text);

/** Whether the library's log lines may show the text: no control characters. */
inline bool is_plain(std::string_view text) { return !tavrix::has_control_characters(text.data(), text.size()); }

bool is_notification(const json_t *message);

/** Add a value or throw std::bad_alloc, also for a null value: no message goes out with a part missing. */
void put(json_t *object, const char *key, Json value);
void append(json_t *array, Json value);

/** {"message": ...} */
Json message_data(const std::string &message);

/** A null transaction id is left out; null data, and an error's null id, become JSON's null. */
Json make_result(Json id, Json transaction_id, Json result);
Json make_error(int jrpc_code, const Json &id, const Json &transaction_id, Json data);
/** The same for a request; null for one that is not known. */
Json make_error(int jrpc_code, const json_t *request, Json data);

/** Null, too, when there was no memory for the parameters. */
inline Json make_notification(const char *method, Json params) {
    return params ? tavrix::make_notification(method, params.release()) : nullptr;
}

/** A method's name, or the beginning of one and `*`. */
inline bool matches(std::string_view pattern, std::string_view method) {
    return tavrix::matches(pattern.data(), pattern.size(), method.data(), method.size());
}
using Patterns = std::vector<std::string>;
bool matches_any(const Patterns &patterns, std::string_view method);

/** Whether the method is one that the router answers itself, or JSON-RPC reserves: `rpc.discover` is the router's. */
inline bool is_reserved(std::string_view method) { return matches("router.*", method) || matches("rpc.*", method); }

/** A message that has come: its values, and what was written; without text where only the values are at hand. */
struct Message {
    Message(Json values, std::string_view written = {}) : value(std::move(values)), text(written) {}
    Json value;
    std::string_view text;
};

/** What a member of a message is to be, as JSON text; an empty text takes the member out. */
struct Edit {
    std::string_view key;
    std::string_view value;
    bool at_end = false; ///< moves the member there
};
using Edits = std::vector<Edit>;

void apply_edits(const Edits &edits, json_t *object);

/** Turns messages into compact ASCII, in memory that is used again. What a call returns is valid until the next one. */
class Renderer {
  public:
    /** Empty when there is no memory. */
    std::string_view render(const json_t *value);
    /**
     * The message with the edits. What it says beside them goes on as it was written, numbers with all their digits;
     * a text that is not in one line of ASCII is rendered.
     */
    std::string_view rewrite(const Message &message, const Edits &edits);

  private:
    std::string memory_ = std::string(4096, '\0');
    std::string edited_;
};

/** Follows a JSON object as it arrives, without reading it, to tell where its last brace is. */
class ObjectScanner {
  public:
    /** The next bytes; true once the object has ended or the text cannot be one. */
    bool is_complete_with(std::string_view bytes);
    /** How many of the bytes no later one can change: a text, word or number at the end may go on. */
    size_t settled() const { return settled_; }

  private:
    size_t seen_ = 0;
    size_t settled_ = 0;
    int depth_ = 0;
    bool in_text_ = false;
    bool escaped_ = false;
};

} // namespace router

#endif
