/*
 * The typed parsers: what each accepts, what it says, and the debug message that it leaves.
 */
#include "tavrix_jrpc_utils.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/json.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

// --- The four JSON types -------------------------------------------------------------------------------------------

/** What a parser did: its status and whether its output was written. */
struct Outcome {
    int rc;
    bool written;
};

template <class Value>
Value untouched() {
    if constexpr (std::is_pointer_v<Value>) {
        return json_null();
    } else {
        return 77;
    }
}

template <class Value, int (*parser)(json_t *, json_t **, const char *, Value *)>
Outcome parse_into(json_t *params, json_t **debug, const char *key) {
    Value out = untouched<Value>();
    const int rc = parser(params, debug, key, &out);
    return {rc, out != untouched<Value>()};
}

Outcome parse_string(json_t *params, json_t **debug, const char *key) {
    Buffer out(16);
    const int rc = tavrix_jrpc_utils_parse_input_string(params, debug, key, out.get(), out.size());
    return {rc, !out.untouched()};
}

using Parse = Outcome (*)(json_t *params, json_t **debug, const char *key);

struct Parser {
    const char *name;
    Parse parse;
    std::string type;
    bool (*accepts)(const json_t *member);
    Lines absent; ///< what is said of a member that is not there
    Lines wrong;  ///< and of one that has another type
    bool stores_before_testing;
};

// The level of a missing member differs between the types, and so does the wording.
Parser parser(const char *name, Parse parse, const std::string &type, bool (*accepts)(const json_t *member),
              const std::string &absent, const std::string &wrong, bool stores_before_testing = false) {
    const std::string announcement = "VERB |Parsing input " + type + " for parameter: member";
    const std::string message = "DEBUG|Sending debug message: ";
    return {name,
            parse,
            type,
            accepts,
            {announcement, absent, message + "Missing expected parameter: 'member'"},
            {announcement, "ERROR|" + wrong, message + "Parameter 'member' is not of type '" + type + "'."},
            stores_before_testing};
}
Parser text_parser(const char *name, Parse parse) {
    return parser(
        name, parse, "string", [](const json_t *member) { return json_is_string(member); },
        "WARN |No parameter by the name <member> found", "Given parameter <member> is not a string");
}

const std::vector<Parser> &parsers() {
    static const std::vector<Parser> rows = {
        parser(
            "Bool", parse_into<json_t *, tavrix_jrpc_utils_parse_input_bool>, "bool",
            [](const json_t *member) { return json_is_boolean(member); }, "WARN |No parameter <member> found",
            "parameter <member> is not a bool", true),
        parser(
            "Integer", parse_into<int, tavrix_jrpc_utils_parse_input_integer>, "integer",
            [](const json_t *member) { return json_is_integer(member); },
            "ERROR|No parameter by the name <member> found", "Given parameter <member> is not an integer"),
        parser(
            "Array", parse_into<json_t *, tavrix_jrpc_utils_parse_input_array>, "array",
            [](const json_t *member) { return json_is_array(member); }, "ERROR|No parameter by the name <member> found",
            "The given parameter <member> is supposed to be an array.", true),
        text_parser("String", parse_string),
        text_parser("Uint64", parse_into<uint64_t, tavrix_jrpc_utils_parse_input_uint64_t>),
        text_parser("Float", parse_into<float, tavrix_jrpc_utils_parse_input_float>),
    };
    return rows;
}

class Parsers : public testing::TestWithParam<Parser> {
  protected:
    const Parser &row = GetParam();
    const std::string missing_message = "Missing expected parameter: 'member'";
    const std::string wrong_message = "Parameter 'member' is not of type '" + row.type + "'.";

    int parse(Params &params, const char *key) const { return row.parse(params.get(), params.debug(), key).rc; }
};

INSTANTIATE_TEST_SUITE_P(Type, Parsers, testing::ValuesIn(parsers()), [](const auto &row) { return row.param.name; });

TEST_P(Parsers, TakeTheirOwnTypeAndNoOther) {
    for (const std::string member :
         {"null", "true", "false", "0", "-1", "17", "3.0", "1e2", R"("s")", R"("")", R"("17")", "[]", "[1]", "{}"}) {
        Params params(R"({"member": )" + member + "}");
        const Outcome outcome = row.parse(params.get(), params.debug(), "member");
        if (row.accepts(json_object_get(params.get(), "member"))) {
            EXPECT_EQ(outcome.rc, 0) << member;
            EXPECT_TRUE(outcome.written) << member;
            EXPECT_EQ(params.message(), "(none)") << member;
        } else {
            EXPECT_EQ(outcome.rc, TAVRIX_ERR_INVALID_PARAMETER) << member;
            // A null member is the very value that marks an untouched output here.
            EXPECT_EQ(outcome.written, row.stores_before_testing && member != "null") << member;
            EXPECT_EQ(params.message(), wrong_message) << member;
        }
    }
}

TEST_P(Parsers, SayWhenTheMemberIsAbsentOrHasAnotherType) {
    const std::tuple<const char *, int, std::string, Lines> cases[] = {
        {R"({"Member": 1, "other": "s"})", TAVRIX_ERR_PARAMETER_NOT_FOUND, missing_message, row.absent},
        {R"({"member": {}})", TAVRIX_ERR_INVALID_PARAMETER, wrong_message, row.wrong}};
    for (const auto &[json, rc, message, lines] : cases) {
        LogCapture log("verbose");
        Params params(json);
        const Outcome outcome = row.parse(params.get(), params.debug(), "member");
        EXPECT_EQ(outcome.rc, rc);
        EXPECT_EQ(outcome.written, row.stores_before_testing);
        EXPECT_EQ(params.message(), message);
        EXPECT_TRUE(log.said(lines));
        EXPECT_EQ(log.lines().front().file, unit);
        EXPECT_EQ(log.lines().back().file, unit);
        log.begin("info");
        EXPECT_EQ(parse(params, "member"), rc);
        EXPECT_TRUE(log.said({lines[1]})) << "even below the guarded levels";
    }
}

TEST_P(Parsers, FindNothingWithoutAnObject) {
    for (const char *json : {"", "null", "[]", R"("member")", "1", "{}"}) {
        Params params(json);
        EXPECT_EQ(parse(params, "member"), TAVRIX_ERR_PARAMETER_NOT_FOUND) << json;
        EXPECT_EQ(params.message(), missing_message) << json;
    }
}

TEST_P(Parsers, RefuseANullKeyInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"member": 1})");
    const Outcome outcome = row.parse(params.get(), params.debug(), nullptr);
    EXPECT_EQ(outcome.rc, TAVRIX_ERR_PARAMETER);
    EXPECT_FALSE(outcome.written);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.silent());
}

TEST_P(Parsers, WorkWithoutAPlaceForTheMessage) {
    const Params params(R"({"member": {}})");
    EXPECT_EQ(row.parse(params.get(), nullptr, "absent").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(row.parse(params.get(), nullptr, "member").rc, TAVRIX_ERR_INVALID_PARAMETER);
}

TEST_P(Parsers, KeepTheFirstMessage) {
    Params params(R"({"member": {}})");
    EXPECT_EQ(parse(params, "first"), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(parse(params, "member"), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(params.message(), "Missing expected parameter: 'first'");

    Params other(R"({"member": {}})");
    EXPECT_EQ(parse(other, "member"), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(parse(other, "second"), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(other.message(), wrong_message);
}

TEST_P(Parsers, LeaveTheParametersAlone) {
    Params params(R"({"member": {}, "more": [1, "s", true]})");
    const Json copy(json_deep_copy(params.get()));
    parse(params, "member");
    parse(params, "more");
    EXPECT_TRUE(json_equal(params.get(), copy.get()));
    EXPECT_EQ(params.get()->refcount, 1U);
    EXPECT_EQ(json_object_get(params.get(), "member")->refcount, 1U);
    EXPECT_EQ(json_object_get(params.get(), "more")->refcount, 1U);
}

TEST(Parsers, RefuseANullOutputInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"member": "1", "number": 1, "flag": true, "list": []})");
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_bool, "flag", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_array, "list", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_string, "member", nullptr, 8U), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_integer, "number", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_uint64_t, "member", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_float, "member", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.silent());
}

// --- Bool and array ------------------------------------------------------------------------------------------------

TEST(BorrowingParsers, HandBackTheMemberItselfAndSayNothingMore) {
    Params params(R"({"on": true, "off": false, "list": [1, 2, 3]})");
    const struct {
        int (*parse)(json_t *, json_t **, const char *, json_t **);
        const char *key;
        const char *announcement;
    } rows[] = {{tavrix_jrpc_utils_parse_input_bool, "on", "VERB |Parsing input bool for parameter: on"},
                {tavrix_jrpc_utils_parse_input_bool, "off", "VERB |Parsing input bool for parameter: off"},
                {tavrix_jrpc_utils_parse_input_array, "list", "VERB |Parsing input array for parameter: list"}};
    for (const auto &row : rows) {
        const LogCapture log("verbose");
        json_t *out = nullptr;
        EXPECT_EQ(params.read(row.parse, row.key, &out), 0);
        EXPECT_EQ(out, json_object_get(params.get(), row.key));
        EXPECT_TRUE(log.said({row.announcement}));
    }
    EXPECT_EQ(json_object_get(params.get(), "list")->refcount, 1U) << "borrowed";
}

TEST(BorrowingParsers, StoreTheMemberBeforeItsTypeIsTested) {
    for (const auto parse : {tavrix_jrpc_utils_parse_input_bool, tavrix_jrpc_utils_parse_input_array}) {
        Params params(R"({"text": "true"})");
        json_t *out = params.get();
        EXPECT_EQ(params.read(parse, "absent", &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(params.read(parse, "text", &out), TAVRIX_ERR_INVALID_PARAMETER);
        EXPECT_EQ(out, json_object_get(params.get(), "text"));
    }
}

// --- String --------------------------------------------------------------------------------------------------------

int read_text(Params &params, const char *key, Buffer &out) {
    return params.read(tavrix_jrpc_utils_parse_input_string, key, out.get(), out.size());
}

TEST(ParseString, CutsWhatDoesNotFitAndClearsTheRest) {
    const std::string digits = "0123456789";
    Params params(R"({"name": ")" + digits + R"(", "empty": ""})");
    for (size_t size = 1; size <= 14; ++size) {
        Buffer out(size);
        EXPECT_EQ(read_text(params, "name", out), 0);
        EXPECT_EQ(out.text(), digits.substr(0, size - 1)) << size;
        EXPECT_TRUE(out.cleared_behind_text()) << size;
    }
    Buffer out(8);
    EXPECT_EQ(read_text(params, "empty", out), 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(out.cleared_behind_text());
    Buffer none(0);
    EXPECT_EQ(read_text(params, "name", none), 0);
    EXPECT_EQ(read_text(params, "absent", none), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_TRUE(none.untouched());
}

TEST(ParseString, LogsWhatItStored) {
    Params params(R"({"name": "0123456789"})");
    Buffer out(5);
    LogCapture log("verbose");
    EXPECT_EQ(read_text(params, "name", out), 0);
    EXPECT_TRUE(log.said({"VERB |Parsing input string for parameter: name", "VERB |Parsed name: 0123"}));
    log.begin("debug");
    EXPECT_EQ(read_text(params, "name", out), 0);
    EXPECT_TRUE(log.silent());
}

TEST(ParseString, TakesFormatCharactersAndUtf8AsTheyAre) {
    Params params(R"({"%s%n": "%s%n 100% Z\u00fcrich"})");
    Buffer out(64);
    const LogCapture log("verbose");
    EXPECT_EQ(read_text(params, "%s%n", out), 0);
    EXPECT_EQ(out.text(), "%s%n 100% Z\xc3\xbcrich");
    EXPECT_EQ(log.sequence().back(), "VERB |Parsed %s%n: %s%n 100% Z\xc3\xbcrich");
    EXPECT_EQ(read_text(params, "%d", out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "Missing expected parameter: '%d'");
}

// --- Numbers, also in strings --------------------------------------------------------------------------------------

template <class Number>
struct Reading {
    std::string value; ///< what the text holds, or the number itself
    Number expected;
};

/** Each row's member is read as the number that it says. */
template <class Number, size_t Count>
void expect_readings(int (*parser)(json_t *, json_t **, const char *, Number *), const std::string &quote,
                     const Reading<Number> (&rows)[Count]) {
    for (const auto &row : rows) {
        Params params(R"({"n": )" + quote + row.value + quote + "}");
        Number out = 77;
        EXPECT_EQ(params.read(parser, "n", &out), 0) << row.value;
        EXPECT_EQ(out, row.expected) << row.value;
    }
}

TEST(ParseInteger, KeepsTheLow32Bits) {
    expect_readings<int>(tavrix_jrpc_utils_parse_input_integer, "",
                         {{"0", 0},
                          {"-1", -1},
                          {"2147483647", INT_MAX},
                          {"-2147483648", INT_MIN},
                          {"2147483648", INT_MIN},
                          {"-2147483649", INT_MAX},
                          {"4294967295", -1},
                          {"4294967296", 0},
                          {"4294967297", 1},
                          {"9223372036854775807", -1},
                          {"-9223372036854775808", 0}});
}

TEST(ParseInteger, LogsWhatItStored) {
    Params params(R"({"n": 4294967254})");
    int out = 0;
    LogCapture log("verbose");
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_integer, "n", &out), 0);
    EXPECT_TRUE(log.said({"VERB |Parsing input integer for parameter: n", "VERB |Parsed n: -42"}));
    log.begin("debug");
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_integer, "n", &out), 0);
    EXPECT_TRUE(log.silent());
}

TEST(ParseUint64, ReadsTheTextWithItsBase) {
    expect_readings<uint64_t>(tavrix_jrpc_utils_parse_input_uint64_t, "\"",
                              {{"0", 0},
                               {"16", 16},
                               {"0x10", 16},
                               {"0X1f", 31},
                               {"010", 8},
                               {"08", 0},
                               {"18446744073709551615", UINT64_MAX},
                               {"18446744073709551616", UINT64_MAX},
                               {"0xffffffffffffffff", UINT64_MAX},
                               {"-1", UINT64_MAX},
                               {" 7", 7},
                               {"7 apples", 7},
                               {"apples", 0},
                               {"", 0},
                               {std::string(99, '0') + "7", 0}, // the hundredth character does not fit the buffer
                               {std::string(98, '0') + "7", 7}});
}

TEST(ParseUint64, HasNoLinesOfItsOwn) {
    const LogCapture log("verbose");
    Params params(R"({"n": "0x10"})");
    uint64_t out = 0;
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_uint64_t, "n", &out), 0);
    EXPECT_TRUE(log.said({"VERB |Parsing input string for parameter: n", "VERB |Parsed n: 0x10"}));
}

TEST(ParseFloat, ReadsTheText) {
    expect_readings<float>(tavrix_jrpc_utils_parse_input_float, "\"",
                           {{"0", 0.0F},
                            {"1.5", 1.5F},
                            {"-2.25", -2.25F},
                            {"1e3", 1000.0F},
                            {"3", 3.0F},
                            {"2.5 dBm", 2.5F},
                            {"none", 0.0F},
                            {"", 0.0F},
                            {" 4.5", 4.5F},
                            {"1e300", HUGE_VALF},
                            {".5", 0.5F},
                            {"0x10", 16.0F},
                            {"16777217", 16777216.0F},          // not every integer has a float
                            {std::string(99, '0') + "7", 0.0F}, // the hundredth character does not fit the buffer
                            {std::string(98, '0') + "7", 7.0F}});
}

// --- The debug message's length ------------------------------------------------------------------------------------

TEST(DebugMessage, IsCutTo99Characters) {
    for (size_t length = 60; length <= 130; ++length) {
        const std::string key(length, 'k');
        int out = 77;
        Params absent("{}");
        EXPECT_EQ(absent.read(tavrix_jrpc_utils_parse_input_integer, key.c_str(), &out),
                  TAVRIX_ERR_PARAMETER_NOT_FOUND);
        EXPECT_EQ(absent.message(), ("Missing expected parameter: '" + key + "'").substr(0, 99)) << length;
        Params text("{\"" + key + "\": \"1\"}");
        EXPECT_EQ(text.read(tavrix_jrpc_utils_parse_input_integer, key.c_str(), &out), TAVRIX_ERR_INVALID_PARAMETER);
        EXPECT_EQ(text.message(), ("Parameter '" + key + "' is not of type 'integer'.").substr(0, 99)) << length;
    }
}

TEST(DebugMessage, StaysAwayWhenTheCutTextIsNoJsonString) {
    // The cut falls between the two bytes of the last letter.
    const std::string key = std::string(69, 'k') + "\xc3\xbc";
    Params params("{}");
    int out = 77;
    EXPECT_EQ(params.read(tavrix_jrpc_utils_parse_input_integer, key.c_str(), &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "(none)");
}

} // namespace
