#include "params.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tavrixctl {

namespace {

constexpr char blanks[] = " \t\r\n";

/** The object of a JSON text that came from `origin`; null, complained about, when it is none. */
Json parse_object(const std::string &text, const std::string &origin) {
    json_error_t error;
    Json object(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, &error));
    if (!object) {
        complain("%s is not JSON: line %d, column %d: %s; members are given as key=text or key:=json", origin.c_str(),
                 error.line, error.column, printable(error.text).c_str());
    } else if (!json_is_object(object.get())) {
        complain("%s has to be a JSON object", origin.c_str());
        object.reset();
    }
    return object;
}

Json read_object(const std::string &word) {
    if (word == "-") {
        return parse_object(text_or_stdin(word), "standard input");
    }
    if (word[0] != '@') {
        return parse_object(word, "PARAMS");
    }
    const std::string name = word.substr(1);
    std::string text;
    if (!read_file(name, &text)) {
        complain("%s: %s", printable(name).c_str(), std::strerror(errno));
        return nullptr;
    }
    return parse_object(text, printable(name));
}

} // namespace

std::optional<Member> parse_member(const std::string &word, bool *valid) {
    const size_t equals_sign = word.find('=');
    const size_t begin = word.find_first_not_of(blanks);
    if (equals_sign == std::string::npos || equals_sign == 0 || std::strchr("{[\"@", word[begin]) != nullptr) {
        return std::nullopt;
    }
    const bool is_json = word[equals_sign - 1] == ':';
    const std::string key = word.substr(0, equals_sign - (is_json ? 1 : 0));
    const std::string text = word.substr(equals_sign + 1);
    json_error_t error;
    Json value(is_json ? json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, &error)
                       : json_stringn(text.data(), text.size()));
    if (!value) {
        complain("%s: %s", printable(key).c_str(), is_json ? printable(error.text).c_str() : "no valid UTF-8 text");
        *valid = false;
    }
    return Member{key, std::move(value), !is_json};
}

Json parse_params(const std::vector<std::string> &words, bool *valid) {
    *valid = true;
    Json params;
    for (const std::string &word : words) {
        if (word.empty()) {
            continue;
        }
        if (!params) {
            params.reset(json_object());
        }
        const std::optional<Member> member = parse_member(word, valid);
        if (member) {
            *valid = *valid && json_object_set(params.get(), member->key.c_str(), member->value.get()) == 0;
        } else {
            const Json object = read_object(word);
            *valid = object && json_object_update(params.get(), object.get()) == 0;
        }
        if (!*valid) {
            return nullptr;
        }
    }
    return params;
}

bool has_members(const json_t *object, const std::vector<Member> &members) {
    return std::all_of(members.begin(), members.end(), [object](const Member &member) {
        const json_t *value = json_object_get(object, member.key.c_str());
        if (value == nullptr || json_equal(value, member.value.get()) != 0) {
            return value != nullptr;
        }
        return member.is_text && !json_is_string(value) &&
               render(value, JsonStyle::single_line) == json_string_value(member.value.get());
    });
}

} // namespace tavrixctl
