/*
 * The typed parsers: what each accepts, what it says, and the debug message that it leaves.
 */
#include "tavrix_jrpc_utils.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/json.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"

using support::Buffer;
using support::Json;
using support::LogCapture;
using support::Params;
using Lines = std::vector<std::string>;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

// --- The four JSON types -------------------------------------------------------------------------------------------

/** What a parser did: its status and whether its output was written. */
struct Outcome {
    int rc;
    bool written;
};

Outcome parse_bool(json_t *params, json_t **debug, const char *key) {
    json_t *const untouched = json_null();
    json_t *out = untouched;
    const int rc = tavrix_jrpc_utils_parse_input_bool(params, debug, key, &out);
    return {rc, out != untouched};
}

Outcome parse_array(json_t *params, json_t **debug, const char *key) {
    json_t *const untouched = json_null();
    json_t *out = untouched;
    const int rc = tavrix_jrpc_utils_parse_input_array(params, debug, key, &out);
    return {rc, out != untouched};
}

Outcome parse_string(json_t *params, json_t **debug, const char *key) {
    Buffer out(16);
    const int rc = tavrix_jrpc_utils_parse_input_string(params, debug, key, out.get(), out.size());
    return {rc, !out.untouched()};
}

Outcome parse_integer(json_t *params, json_t **debug, const char *key) {
    int out = -77;
    const int rc = tavrix_jrpc_utils_parse_input_integer(params, debug, key, &out);
    return {rc, out != -77};
}

Outcome parse_uint64(json_t *params, json_t **debug, const char *key) {
    uint64_t out = 77;
    const int rc = tavrix_jrpc_utils_parse_input_uint64_t(params, debug, key, &out);
    return {rc, out != 77};
}

Outcome parse_float(json_t *params, json_t **debug, const char *key) {
    float out = 77.0F;
    const int rc = tavrix_jrpc_utils_parse_input_float(params, debug, key, &out);
    return {rc, out != 77.0F};
}

struct Parser {
    const char *name;
    Outcome (*parse)(json_t *params, json_t **debug, const char *key);
    const char *type_name;
    const char *announcement;
    support::Level absent_level;
    const char *absent;
    const char *wrong_type;
    std::vector<std::string> accepted; ///< members that are taken
    bool stores_before_testing;
};

// The level of a missing member differs between the types, and so does the wording.
const std::vector<Parser> &parsers() {
    static const char string_announcement[] = "Parsing input string for parameter: member\n";
    static const char string_absent[] = "No parameter by the name <member> found\n";
    static const char string_wrong[] = "Given parameter <member> is not a string\n";
    static const std::vector<Parser> rows = {
        {"Bool",
         parse_bool,
         "bool",
         "Parsing input bool for parameter: member\n",
         support::warning,
         "No parameter <member> found\n",
         "parameter <member> is not a bool\n",
         {"true", "false"},
         true},
        {"String",
         parse_string,
         "string",
         string_announcement,
         support::warning,
         string_absent,
         string_wrong,
         {R"("s")", R"("")", R"("17")"},
         false},
        {"Integer",
         parse_integer,
         "integer",
         "Parsing input integer for parameter: member\n",
         support::error,
         "No parameter by the name <member> found\n",
         "Given parameter <member> is not an integer\n",
         {"0", "-1", "17"},
         false},
        {"Array",
         parse_array,
         "array",
         "Parsing input array for parameter: member\n",
         support::error,
         "No parameter by the name <member> found\n",
         "The given parameter <member> is supposed to be an array.\n",
         {"[]", "[1]"},
         true},
        {"Uint64",
         parse_uint64,
         "string",
         string_announcement,
         support::warning,
         string_absent,
         string_wrong,
         {R"("s")", R"("")", R"("17")"},
         false},
        {"Float",
         parse_float,
         "string",
         string_announcement,
         support::warning,
         string_absent,
         string_wrong,
         {R"("s")", R"("")", R"("17")"},
         false},
    };
    return rows;
}

const std::vector<std::string> every_kind_of_member = {
    "null", "true", "false", "0", "-1", "17", "3.0", "1e2", R"("s")", R"("")", R"("17")", "[]", "[1]", "{}",
};

class Parsers : public testing::TestWithParam<Parser> {
  protected:
    bool accepts(const std::string &member) const {
        for (const std::string &accepted : GetParam().accepted) {
            if (accepted == member) {
                return true;
            }
        }
        return false;
    }
    std::string wrong_type_message() const {
        return std::string("Parameter 'member' is not of type '") + GetParam().type_name + "'.";
    }
};

INSTANTIATE_TEST_SUITE_P(Type, Parsers, testing::ValuesIn(parsers()), [](const auto &row) { return row.param.name; });

constexpr char missing_message[] = "Missing expected parameter: 'member'";

} // namespace

TEST_P(Parsers, TakeTheirOwnTypeAndNoOther) {
    for (const std::string &member : every_kind_of_member) {
        Params params(R"({"member": )" + member + "}");
        const Outcome outcome = GetParam().parse(params.get(), params.debug(), "member");
        if (accepts(member)) {
            EXPECT_EQ(outcome.rc, 0) << member;
            EXPECT_TRUE(outcome.written) << member;
            EXPECT_EQ(params.message(), "(none)") << member;
        } else {
            EXPECT_EQ(outcome.rc, TAVRIX_ERR_INVALID_PARAMETER) << member;
            // A null member is the very value that marks an untouched output here.
            EXPECT_EQ(outcome.written, GetParam().stores_before_testing && member != "null") << member;
            EXPECT_EQ(params.message(), wrong_type_message()) << member;
        }
    }
}

TEST_P(Parsers, SayWhenTheMemberHasAnotherType) {
    const LogCapture log("verbose");
    Params params(R"({"member": {}})");
    EXPECT_EQ(GetParam().parse(params.get(), params.debug(), "member").rc, TAVRIX_ERR_INVALID_PARAMETER);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].tag + lines[0].message, std::string("VERB ") + GetParam().announcement);
    EXPECT_EQ(lines[1].tag + lines[1].message, std::string("ERROR") + GetParam().wrong_type);
    EXPECT_EQ(lines[2].tag + lines[2].message, "DEBUGSending debug message: " + wrong_type_message() + "\n");
    for (const auto &line : lines) {
        EXPECT_EQ(line.file, unit);
    }
}

TEST_P(Parsers, SayWhenTheMemberIsAbsent) {
    const LogCapture log("verbose");
    Params params(R"({"Member": 1, "other": "s"})");
    const Outcome outcome = GetParam().parse(params.get(), params.debug(), "member");
    EXPECT_EQ(outcome.rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(outcome.written, GetParam().stores_before_testing);
    EXPECT_EQ(params.message(), missing_message);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].tag + lines[0].message, std::string("VERB ") + GetParam().announcement);
    EXPECT_EQ(lines[1].tag + lines[1].message, support::tag_of(GetParam().absent_level) + GetParam().absent);
    EXPECT_EQ(lines[2].tag + lines[2].message, std::string("DEBUGSending debug message: ") + missing_message + "\n");
}

TEST_P(Parsers, LogFailuresEvenBelowTheGuardedLevels) {
    const LogCapture log("info");
    Params params(R"({"member": {}})");
    GetParam().parse(params.get(), params.debug(), "absent");
    GetParam().parse(params.get(), params.debug(), "member");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].tag, support::tag_of(GetParam().absent_level));
    EXPECT_EQ(lines[1].tag + lines[1].message, std::string("ERROR") + GetParam().wrong_type);
}

TEST_P(Parsers, FindNothingWithoutAnObject) {
    for (const char *json : {"", "null", "[]", R"("member")", "1", "{}"}) {
        Params params(json);
        EXPECT_EQ(GetParam().parse(params.get(), params.debug(), "member").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND) << json;
        EXPECT_EQ(params.message(), missing_message) << json;
    }
}

TEST_P(Parsers, RefuseANullKeyInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"member": 1})");
    const Outcome outcome = GetParam().parse(params.get(), params.debug(), nullptr);
    EXPECT_EQ(outcome.rc, TAVRIX_ERR_PARAMETER);
    EXPECT_FALSE(outcome.written);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.silent());
}

TEST_P(Parsers, WorkWithoutAPlaceForTheMessage) {
    const Params params(R"({"member": {}})");
    EXPECT_EQ(GetParam().parse(params.get(), nullptr, "absent").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(GetParam().parse(params.get(), nullptr, "member").rc, TAVRIX_ERR_INVALID_PARAMETER);
}

TEST_P(Parsers, KeepTheFirstMessage) {
    Params params(R"({"member": {}})");
    EXPECT_EQ(GetParam().parse(params.get(), params.debug(), "first").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(GetParam().parse(params.get(), params.debug(), "member").rc, TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(params.message(), "Missing expected parameter: 'first'");

    Params other(R"({"member": {}})");
    EXPECT_EQ(GetParam().parse(other.get(), other.debug(), "member").rc, TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(GetParam().parse(other.get(), other.debug(), "second").rc, TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(other.message(), wrong_type_message());
}

TEST_P(Parsers, LeaveTheParametersAlone) {
    Params params(R"({"member": {}, "more": [1, "s", true]})");
    const Json copy(json_deep_copy(params.get()));
    GetParam().parse(params.get(), params.debug(), "member");
    GetParam().parse(params.get(), params.debug(), "more");
    EXPECT_TRUE(json_equal(params.get(), copy.get()));
    EXPECT_EQ(params.get()->refcount, 1U);
    EXPECT_EQ(json_object_get(params.get(), "member")->refcount, 1U);
    EXPECT_EQ(json_object_get(params.get(), "more")->refcount, 1U);
}

// --- Null outputs --------------------------------------------------------------------------------------------------

TEST(Parsers, RefuseANullOutputInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"member": "1", "number": 1, "flag": true, "list": []})");
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "flag", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_array(params.get(), params.debug(), "list", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "member", nullptr, 8),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), "number", nullptr),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_uint64_t(params.get(), params.debug(), "member", nullptr),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_float(params.get(), params.debug(), "member", nullptr),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.silent());
}

// --- Bool and array ------------------------------------------------------------------------------------------------

TEST(ParseBool, HandsBackTheMemberItself) {
    Params params(R"({"on": true, "off": false})");
    json_t *out = nullptr;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "on", &out), 0);
    EXPECT_TRUE(json_is_true(out));
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "off", &out), 0);
    EXPECT_TRUE(json_is_false(out));
}

TEST(ParseBool, SaysNothingMoreOnSuccess) {
    const LogCapture log("verbose");
    Params params(R"({"on": true})");
    json_t *out = nullptr;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "on", &out), 0);
    EXPECT_EQ(log.sequence(), Lines{"VERB |Parsing input bool for parameter: on"});
}

TEST(ParseBool, StoresTheMemberBeforeItsTypeIsTested) {
    Params params(R"({"text": "true"})");
    json_t *out = params.get();
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "absent", &out),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_bool(params.get(), params.debug(), "text", &out),
              TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(out, json_object_get(params.get(), "text"));
}

TEST(ParseArray, HandsBackTheMemberItselfAndBorrowed) {
    const LogCapture log("verbose");
    Params params(R"({"list": [1, 2, 3]})");
    json_t *out = nullptr;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_array(params.get(), params.debug(), "list", &out), 0);
    EXPECT_EQ(out, json_object_get(params.get(), "list"));
    EXPECT_EQ(out->refcount, 1U);
    EXPECT_EQ(log.sequence(), Lines{"VERB |Parsing input array for parameter: list"});
}

TEST(ParseArray, StoresTheMemberBeforeItsTypeIsTested) {
    Params params(R"({"object": {}})");
    json_t *out = params.get();
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_array(params.get(), params.debug(), "absent", &out),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_array(params.get(), params.debug(), "object", &out),
              TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(out, json_object_get(params.get(), "object"));
}

// --- String --------------------------------------------------------------------------------------------------------

TEST(ParseString, CutsWhatDoesNotFitAndClearsTheRest) {
    Params params(R"({"name": "0123456789", "empty": ""})");
    for (size_t size = 1; size <= 14; ++size) {
        Buffer out(size);
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "name", out.get(), size), 0);
        EXPECT_EQ(out.text(), std::string("0123456789").substr(0, size - 1)) << size;
        EXPECT_TRUE(out.cleared_behind_text()) << size;
    }
    Buffer out(8);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "empty", out.get(), 8), 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(out.cleared_behind_text());
}

TEST(ParseString, WritesNothingIntoABufferOfNoBytes) {
    const LogCapture log("verbose");
    Params params(R"({"name": "0123456789"})");
    Buffer out(0);
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "name", out.get(), 0), 0);
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "absent", out.get(), 0),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_TRUE(out.untouched());
}

TEST(ParseString, LogsWhatItStored) {
    Params params(R"({"name": "0123456789"})");
    Buffer out(5);
    {
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "name", out.get(), 5), 0);
        EXPECT_EQ(log.sequence(), (Lines{"VERB |Parsing input string for parameter: name", "VERB |Parsed name: 0123"}));
    }
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "name", out.get(), 5), 0);
    EXPECT_TRUE(log.silent());
}

TEST(ParseString, TakesFormatCharactersAndUtf8AsTheyAre) {
    Params params(R"({"%s%n": "%s%n 100% Z\u00fcrich"})");
    Buffer out(64);
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "%s%n", out.get(), out.size()), 0);
    EXPECT_EQ(out.text(), "%s%n 100% Z\xc3\xbcrich");
    EXPECT_EQ(log.sequence().back(), "VERB |Parsed %s%n: %s%n 100% Z\xc3\xbcrich");
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(params.get(), params.debug(), "%d", out.get(), out.size()),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "Missing expected parameter: '%d'");
}

// --- Integer -------------------------------------------------------------------------------------------------------

TEST(ParseInteger, KeepsTheLow32Bits) {
    const struct {
        const char *json;
        int expected;
    } rows[] = {
        {"0", 0},
        {"-1", -1},
        {"2147483647", INT_MAX},
        {"-2147483648", INT_MIN},
        {"2147483648", INT_MIN},
        {"-2147483649", INT_MAX},
        {"4294967295", -1},
        {"4294967296", 0},
        {"4294967297", 1},
        {"9223372036854775807", -1},
        {"-9223372036854775808", 0},
    };
    for (const auto &row : rows) {
        Params params(std::string(R"({"n": )") + row.json + "}");
        int out = 77;
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), "n", &out), 0) << row.json;
        EXPECT_EQ(out, row.expected) << row.json;
    }
}

TEST(ParseInteger, LogsWhatItStored) {
    Params params(R"({"n": 4294967254})");
    int out = 0;
    {
        const LogCapture log("verbose");
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), "n", &out), 0);
        EXPECT_EQ(log.sequence(), (Lines{"VERB |Parsing input integer for parameter: n", "VERB |Parsed n: -42"}));
    }
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), "n", &out), 0);
    EXPECT_TRUE(log.silent());
}

// --- Numbers in strings --------------------------------------------------------------------------------------------

TEST(ParseUint64, ReadsTheTextWithItsBase) {
    const struct {
        std::string text;
        uint64_t expected;
    } rows[] = {
        {"0", 0},
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
        {std::string(98, '0') + "7", 7},
    };
    for (const auto &row : rows) {
        Params params(R"({"n": ")" + row.text + R"("})");
        uint64_t out = 77;
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_uint64_t(params.get(), params.debug(), "n", &out), 0) << row.text;
        EXPECT_EQ(out, row.expected) << row.text;
    }
}

TEST(ParseUint64, ReportsANumberAsNotAString) {
    const LogCapture log("info");
    Params params(R"({"n": 16})");
    uint64_t out = 77;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_uint64_t(params.get(), params.debug(), "n", &out),
              TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(out, 77U);
    EXPECT_EQ(params.message(), "Parameter 'n' is not of type 'string'.");
    EXPECT_EQ(log.sequence(), Lines{"ERROR|Given parameter <n> is not a string"});
}

TEST(ParseUint64, HasNoLinesOfItsOwn) {
    const LogCapture log("verbose");
    Params params(R"({"n": "0x10"})");
    uint64_t out = 0;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_uint64_t(params.get(), params.debug(), "n", &out), 0);
    EXPECT_EQ(log.sequence(), (Lines{"VERB |Parsing input string for parameter: n", "VERB |Parsed n: 0x10"}));
}

TEST(ParseFloat, ReadsTheText) {
    const struct {
        std::string text;
        float expected;
    } rows[] = {
        {"0", 0.0F},
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
        {std::string(98, '0') + "7", 7.0F},
    };
    for (const auto &row : rows) {
        Params params(R"({"n": ")" + row.text + R"("})");
        float out = 77.0F;
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_float(params.get(), params.debug(), "n", &out), 0) << row.text;
        EXPECT_EQ(out, row.expected) << row.text;
    }
}

TEST(ParseFloat, ReportsANumberAsNotAString) {
    Params params(R"({"n": 1.5})");
    float out = 77.0F;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_float(params.get(), params.debug(), "n", &out),
              TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(out, 77.0F);
    EXPECT_EQ(params.message(), "Parameter 'n' is not of type 'string'.");
}

// --- The debug message's length ------------------------------------------------------------------------------------

TEST(DebugMessage, IsCutTo99Characters) {
    const std::string missing = "Missing expected parameter: '";
    const std::string wrong = "Parameter '";
    for (size_t length = 60; length <= 130; ++length) {
        const std::string key(length, 'k');
        Buffer out(4);
        Params absent("{}");
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(absent.get(), absent.debug(), key.c_str(), out.get(), 4),
                  TAVRIX_ERR_PARAMETER_NOT_FOUND);
        EXPECT_EQ(absent.message(), (missing + key + "'").substr(0, 99)) << length;
        Params number("{\"" + key + "\": 1}");
        EXPECT_EQ(tavrix_jrpc_utils_parse_input_string(number.get(), number.debug(), key.c_str(), out.get(), 4),
                  TAVRIX_ERR_INVALID_PARAMETER);
        EXPECT_EQ(number.message(), (wrong + key + "' is not of type 'string'.").substr(0, 99)) << length;
    }
}

TEST(DebugMessage, StaysAwayWhenTheCutTextIsNoJsonString) {
    // The cut falls between the two bytes of the last letter.
    const std::string key = std::string(69, 'k') + "\xc3\xbc";
    Params params("{}");
    int out = 77;
    EXPECT_EQ(tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), key.c_str(), &out),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "(none)");
}
