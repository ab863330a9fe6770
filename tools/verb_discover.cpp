/*
 * list, describe, docs: the methods that can be called, as the services describe them.
 */
#include <algorithm>

#include "common/text.h"
#include "router.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr size_t deepest = 8; // of values within values
constexpr char plain_characters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=:.,/@%";

std::string shown(const json_t *object, const char *key) { return printable(text_of(object, key)); }

std::string tags_of(const json_t *method) {
    std::string tags;
    for (const json_t *tag : elements_of(method, "tags")) {
        tags += (tags.empty() ? "" : ", ") + shown(tag, "name");
    }
    return tags;
}

std::string value_text(const json_t *value) {
    return json_is_string(value) ? printable(json_string_value(value)) : render(value, JsonStyle::single_line);
}

std::string range_text(const json_t *schema, const char *least_key, const char *most_key) {
    const json_t *least = json_object_get(schema, least_key);
    const json_t *most = json_object_get(schema, most_key);
    if (least == nullptr) {
        return most != nullptr ? "up to " + value_text(most) : "";
    }
    return value_text(least) + (most != nullptr ? " to " + value_text(most) : " or more");
}

/** What a value of this schema looks like, in a few words. */
std::string words_of_schema(const json_t *schema, size_t depth = 0) {
    const std::string type = shown(schema, "type");
    if (const json_t *words = json_object_get(schema, "enum"); words != nullptr) {
        std::string text = json_array_size(words) == 1 ? "" : "one of ";
        for (const json_t *word : elements_of(schema, "enum")) {
            text += (word == json_array_get(words, 0) ? "" : ", ") + value_text(word);
        }
        return text;
    }
    if (type == "array" && depth < deepest) {
        const std::string count = range_text(schema, "minItems", "maxItems");
        return "array" + (count.empty() ? "" : " of " + count) + ": " +
               words_of_schema(json_object_get(schema, "items"), depth + 1);
    }
    const std::string range = range_text(schema, "minimum", "maximum");
    const std::string length = range_text(schema, "minLength", "maxLength");
    return (type.empty() ? "any value" : type) + (range.empty() ? "" : ", " + range) +
           (length.empty() ? "" : ", " + length + " characters");
}

/** A parameter, a member of a result, or a member of one of those. */
struct Field {
    std::string name;
    bool required;
    std::string looks;
    std::string summary;
};

void add_members(const std::string &path, const json_t *schema, size_t depth, std::vector<Field> *fields) {
    if (depth > deepest) {
        return;
    }
    if (const json_t *items = json_object_get(schema, "items"); items != nullptr) {
        add_members(path + "[]", items, depth + 1, fields);
        return;
    }
    const std::vector<const json_t *> required = elements_of(schema, "required");
    for (const auto &[key, member] : members_of(schema, "properties")) {
        const bool is_required = std::any_of(required.begin(), required.end(), [&key = key](const json_t *name) {
            return json_is_string(name) && json_string_value(name) == key;
        });
        const std::string name = (path.empty() ? "" : path + ".") + printable(key);
        fields->push_back({name, is_required, words_of_schema(member), shown(member, "description")});
        add_members(name, member, depth + 1, fields);
    }
}

std::vector<Field> params_of(const json_t *method) {
    std::vector<Field> fields;
    for (const json_t *param : elements_of(method, "params")) {
        const json_t *schema = json_object_get(param, "schema");
        const std::string detail = shown(schema, "description");
        std::string summary = shown(param, "summary");
        if (!summary.empty() && !detail.empty()) {
            summary += ": ";
        }
        summary += detail;
        fields.push_back(
            {shown(param, "name"), json_is_true(json_object_get(param, "required")), words_of_schema(schema), summary});
        add_members(shown(param, "name"), schema, 1, &fields);
    }
    return fields;
}

std::vector<Field> result_of(const json_t *method) {
    const json_t *schema = json_object_get(json_object_get(method, "result"), "schema");
    std::vector<Field> fields;
    add_members("", schema, 0, &fields);
    if (fields.empty()) {
        fields.push_back({"result", true, words_of_schema(schema), shown(schema, "description")});
    }
    return fields;
}

/** A word for a shell. */
std::string quoted(const std::string &word) {
    if (!word.empty() && word.find_first_not_of(plain_characters) == std::string::npos) {
        return word;
    }
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return text + "'";
}

std::string example_call(const json_t *method) {
    std::string call = "tavrixctl call " + quoted(shown(method, "name"));
    for (const json_t *param : elements_of(json_array_get(json_object_get(method, "examples"), 0), "params")) {
        const json_t *value = json_object_get(param, "value");
        call += " " + quoted(shown(param, "name") + (json_is_string(value) ? "=" : ":=") + value_text(value));
    }
    return call;
}

void add_fields(const char *title, const std::vector<Field> &fields, std::vector<std::string> *lines) {
    lines->push_back("");
    Table table({title, "", "", ""});
    for (const Field &field : fields) {
        table.add({"  " + field.name, field.required ? "" : "optional", field.looks, field.summary});
    }
    const std::vector<std::string> rows = table.lines();
    lines->insert(lines->end(), rows.begin(), rows.end());
}

std::vector<std::string> lines_of(const json_t *method) {
    std::vector<std::string> lines = {coloured(shown(method, "name"), Colour::bold) + "  " + tags_of(method),
                                      shown(method, "summary")};
    const std::vector<Field> params = params_of(method);
    if (!params.empty()) {
        add_fields("PARAMETERS", params, &lines);
    }
    add_fields("RESULT", result_of(method), &lines);
    std::vector<Field> errors;
    for (const json_t *error : elements_of(method, "errors")) {
        errors.push_back({value_text(json_object_get(error, "code")), true, shown(error, "message"), ""});
    }
    add_fields("ERRORS, AMONG OTHERS", errors, &lines);
    lines.insert(lines.end(), {"", "EXAMPLE", "  " + example_call(method)});
    return lines;
}

int complain_of_unknown(const std::string &name, const std::vector<const json_t *> &methods) {
    std::vector<std::string> names;
    names.reserve(methods.size());
    for (const json_t *method : methods) {
        names.push_back(text_of(method, "name"));
    }
    const std::string near = nearest(name, names);
    return fail(exit_error_response, "no service describes %s%s%s%s", printable(name).c_str(),
                near.empty() ? "" : "; did you mean ", printable(near).c_str(), near.empty() ? "" : "?");
}

/** What others said, without what Markdown would take for its own. */
std::string markdown(const std::string &text) {
    std::string safe;
    for (const char c : text) {
        safe += std::string("\\`*_[]<>|#").find(c) != std::string::npos ? std::string("\\") + c : std::string(1, c);
    }
    return safe;
}

void add_markdown_fields(const char *title, const std::vector<Field> &fields, std::vector<std::string> *lines) {
    lines->insert(lines->end(), {"", std::string("| ") + title + " | | value | |", "|---|---|---|---|"});
    for (const Field &field : fields) {
        lines->push_back("| " + markdown(field.name) + " | " + (field.required ? "" : "optional") + " | " +
                         markdown(field.looks) + " | " + markdown(field.summary) + " |");
    }
}

std::vector<std::string> markdown_of(const json_t *document) {
    std::vector<std::string> lines = {"# Methods"};
    for (const json_t *method : methods_of(document)) {
        const std::string tags = tags_of(method);
        lines.insert(lines.end(), {"", "## " + markdown(shown(method, "name")), "",
                                   markdown(shown(method, "summary")) + (tags.empty() ? "" : " (" + tags + ")")});
        const std::vector<Field> params = params_of(method);
        if (!params.empty()) {
            add_markdown_fields("parameter", params, &lines);
        }
        add_markdown_fields("result", result_of(method), &lines);
        lines.insert(lines.end(), {"", "    " + example_call(method)});
    }
    lines.insert(lines.end(), {"", "# Errors", "", "| code | message |", "|---|---|"});
    for (const auto &[code, error] : members_of(json_object_get(document, "components"), "errors")) {
        lines.push_back("| " + markdown(printable(code)) + " | " + markdown(shown(error, "message")) + " |");
    }
    return lines;
}

} // namespace

int list_methods(const DiscoverOptions &options) {
    return with_result(options, names::discover, [&options](const json_t *document) {
        const std::vector<const json_t *> methods = methods_of(document);
        Table table({"METHOD", "DOES", "SUMMARY"});
        bool is_empty = true;
        for (const json_t *method : methods) {
            const std::string name = text_of(method, "name");
            if (options.word.empty() ||
                tavrix::matches(options.word.data(), options.word.size(), name.data(), name.size())) {
                table.add({printable(name), tags_of(method), shown(method, "summary")});
                is_empty = false;
            }
        }
        return is_empty ? complain_of_unknown(options.word, methods) : printed(print_lines(table.lines()));
    });
}

int describe(const DiscoverOptions &options) {
    return with_result(options, names::discover, [&options](const json_t *document) {
        const std::vector<const json_t *> methods = methods_of(document);
        const json_t *method = find_method(methods, options.word);
        return method == nullptr ? complain_of_unknown(options.word, methods) : printed(print_lines(lines_of(method)));
    });
}

int docs(const DiscoverOptions &options) {
    return with_result(options, names::discover, [&options](const json_t *document) {
        return printed(options.word == "json" ? print_line(render(document, JsonStyle::pretty))
                                              : print_lines(markdown_of(document)));
    });
}

} // namespace tavrixctl
