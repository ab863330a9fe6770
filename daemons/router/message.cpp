#include "message.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

#include "tavrix_jrpc.h"

namespace router {

namespace {

constexpr size_t max_shown = 200;
constexpr size_t max_kept_memory = size_t{1024} * 1024;

} // namespace

std::string text_member(const json_t *object, const char *key) {
    const json_t *member = json_object_get(object, key);
    const char *text = json_string_value(member);
    return text != nullptr ? std::string(text, json_string_length(member)) : "";
}

std::string printable(std::string_view text) {
    char shown[max_shown + tavrix::printable_margin];
    return {shown, tavrix::make_printable(text.data(), text.size(), shown, sizeof shown)};
}

bool is_notification(const json_t *message) {
    return json_is_string(json_object_get(message, "method")) && json_object_get(message, "id") == nullptr;
}

void put(json_t *object, const char *key, Json value) {
    if (json_object_set_new(object, key, value.release()) != 0) {
        throw std::bad_alloc();
    }
}

void append(json_t *array, Json value) {
    if (json_array_append_new(array, value.release()) != 0) {
        throw std::bad_alloc();
    }
}

Json message_data(const std::string &message) {
    return Json(json_pack("{s:o}", "message", json_stringn(message.data(), message.size())));
}

namespace {

Json with_transaction_id(Json message, json_t *transaction_id) {
    const bool is_wanted = json_is_number(transaction_id);
    if (is_wanted && json_object_set(message.get(), "transaction_id", transaction_id) != 0) {
        return nullptr;
    }
    return message;
}

} // namespace

Json make_result(Json id, Json transaction_id, Json result) {
    Json message(json_pack("{s:s, s:o, s:o}", "jsonrpc", tavrix::protocol_version, "id", id.release(), "result",
                           result.release()));
    return with_transaction_id(std::move(message), transaction_id.get());
}

Json make_error(int jrpc_code, const Json &id, const Json &transaction_id, Json data) {
    Json message(json_pack("{s:s, s:O, s:{s:i, s:s, s:o}}", "jsonrpc", tavrix::protocol_version, "id",
                           tavrix::is_text_or_number(id.get()) ? id.get() : json_null(), "error", "code", jrpc_code,
                           "message", tavrix_jrpc_error_message(jrpc_code), "data",
                           data ? data.release() : json_null()));
    return with_transaction_id(std::move(message), transaction_id.get());
}

Json make_error(int jrpc_code, const json_t *request, Json data) {
    return make_error(jrpc_code, share(json_object_get(request, "id")),
                      share(json_object_get(request, "transaction_id")), std::move(data));
}

bool matches_any(const Patterns &patterns, std::string_view method) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [method](const std::string &pattern) { return matches(pattern, method); });
}

// --- A message with some of its members changed ---------------------------------------------------------------------

namespace {

bool is_a_line_of_ascii(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/** Walks through an object's text that the parser has accepted. */
class Members {
  public:
    explicit Members(std::string_view object) : text_(object), at_(object.find('{') + 1) {}

    /** The next member, as it stands, and its key between the quotes; false at the end. */
    bool next(std::string_view *key, std::string_view *member) {
        at_ = std::min(text_.find_first_not_of(" ,", at_), text_.size());
        if (at_ == text_.size() || text_[at_] == '}') {
            return false;
        }
        const size_t begin = at_;
        const size_t quote = text_.find('"', begin + 1);
        *key = text_.substr(begin + 1, quote - begin - 1);
        at_ = end_of_value(quote);
        *member = text_.substr(begin, at_ - begin);
        return true;
    }

  private:
    size_t end_of_value(size_t quote) const {
        bool in_text = false;
        int depth = 0;
        size_t at = quote + 1;
        for (; at < text_.size(); ++at) {
            const char c = text_[at];
            if (in_text) {
                at += c == '\\' ? 1 : 0;
                in_text = c != '"';
            } else if (c == '"') {
                in_text = true;
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if (depth == 0 && (c == ',' || c == '}')) {
                break;
            } else if (c == '}' || c == ']') {
                --depth;
            }
        }
        return std::min(at, text_.size());
    }

    std::string_view text_;
    size_t at_;
};

void add_member(std::string *object, std::initializer_list<std::string_view> parts) {
    *object += object->size() > 1 ? "," : "";
    for (const std::string_view part : parts) {
        *object += part;
    }
}

/** False when the text is none that can be edited: an escape in a key may spell one of those that are looked for. */
bool edit(std::string_view object, const Edits &edits, std::string *out) {
    if (!is_a_line_of_ascii(object)) {
        return false;
    }
    *out = "{";
    Members members(object);
    std::string_view key;
    std::string_view member;
    unsigned placed = 0; // a bit for each
    while (members.next(&key, &member)) {
        if (key.find('\\') != std::string_view::npos) {
            return false;
        }
        const auto found = std::find_if(edits.begin(), edits.end(), [key](const Edit &one) { return one.key == key; });
        if (found == edits.end()) {
            add_member(out, {member});
        } else if (!found->at_end && !found->value.empty()) {
            add_member(out, {"\"", key, "\":", found->value});
            placed |= 1U << (found - edits.begin());
        }
    }
    for (size_t i = 0; i < edits.size(); ++i) {
        if ((placed & 1U << i) == 0 && !edits[i].value.empty()) {
            add_member(out, {"\"", edits[i].key, "\":", edits[i].value});
        }
    }
    *out += '}';
    return true;
}

} // namespace

void apply_edits(const Edits &edits, json_t *object) {
    for (const Edit &edit : edits) {
        const std::string key(edit.key);
        if (edit.at_end || edit.value.empty()) {
            json_object_del(object, key.c_str());
        }
        if (!edit.value.empty()) {
            put(object, key.c_str(), Json(json_loadb(edit.value.data(), edit.value.size(), JSON_DECODE_ANY, nullptr)));
        }
    }
}

std::string_view Renderer::rewrite(const Message &message, const Edits &edits) {
    if (edited_.capacity() > max_kept_memory) {
        edited_ = std::string();
    }
    if (edit(message.text, edits, &edited_)) {
        return edited_;
    }
    apply_edits(edits, message.value.get());
    return render(message.value.get());
}

std::string_view Renderer::render(const json_t *value) {
    constexpr size_t flags = tavrix::wire_flags | JSON_ENCODE_ANY;
    if (memory_.size() > max_kept_memory) {
        memory_ = std::string(max_kept_memory, '\0'); // one large message must not be paid for ever after
    }
    size_t length = json_dumpb(value, memory_.data(), memory_.size(), flags);
    if (length > memory_.size()) {
        memory_.resize(length);
        length = json_dumpb(value, memory_.data(), memory_.size(), flags);
    }
    return std::string_view(memory_).substr(0, length);
}

bool ObjectScanner::is_complete_with(std::string_view bytes) {
    constexpr std::string_view of_words_and_numbers = "truefalsn0123456789+-.E";
    for (const char c : bytes) {
        ++seen_;
        if (escaped_) {
            escaped_ = false;
        } else if (in_text_) {
            escaped_ = c == '\\';
            in_text_ = c != '"';
        } else if (c == '"') {
            in_text_ = true;
        } else if (c == '{' || c == '[') {
            ++depth_;
        } else if ((c == '}' || c == ']') && --depth_ <= 0) {
            return true;
        }
        if (depth_ == 0 && c != ' ' && c != '\t' && c != '\r' && c != '\n') {
            return true; // it begins as no object does
        }
        if (!in_text_ && of_words_and_numbers.find(c) == std::string_view::npos) {
            settled_ = seen_;
        }
    }
    return false;
}

} // namespace router
