/**
 * A request's parameters as people type them.
 *
 * Each word is `key=text`, `key:=json`, `@FILE` or `-` with a JSON object in the file or in standard input, or the JSON
 * object itself. Later words win over earlier ones.
 */
#ifndef TAVRIX_TOOLS_PARAMS_H
#define TAVRIX_TOOLS_PARAMS_H

#include "support.h"

namespace tavrixctl {

/** The words' object, null for none. On bad input complains and sets `*valid` to false. */
Json parse_params(const std::vector<std::string> &words, bool *valid);

/** One member that a word gives or asks for. */
struct Member {
    std::string key;
    Json value;
    bool is_text; ///< from key=text: matches that text, and a number or word that is written so
};

/** `key=text` or `key:=json`; nothing, without a complaint, when the word is neither. */
std::optional<Member> parse_member(const std::string &word, bool *valid);

/** Whether the object has all of the members. */
bool has_members(const json_t *object, const std::vector<Member> &members);

} // namespace tavrixctl

#endif
