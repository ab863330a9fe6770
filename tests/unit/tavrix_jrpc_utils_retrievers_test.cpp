/*
 * The field retrievers: one row for each plain one, then the port id, the switch unit's id and the VLAN ids.
 */
#include "tavrix_jrpc_utils.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"

using support::Buffer;
using support::LogCapture;
using support::Params;
using Lines = std::vector<std::string>;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

/** The last line, or "(none)". */
std::string last(const LogCapture &log) {
    const Lines lines = log.sequence();
    return lines.empty() ? "(none)" : lines.back();
}

// --- Text fields ---------------------------------------------------------------------------------------------------

struct TextRow {
    const char *field;
    int (*retrieve)(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
    const char *announcement;
    const char *success;   ///< before the value
    const char *validator; ///< the first word of the validator's log; null when nothing is validated
    std::string good;      ///< as the request holds it
    std::string good_out;  ///< as it comes back
    std::string bad;       ///< refused; empty when nothing is refused
    std::string bad_out;   ///< what stands in the buffer after the refusal
};

#define FIELD(name) #name, tavrix_jrpc_utils_retrieve_input_##name

const std::vector<TextRow> &text_rows() {
    static const std::vector<TextRow> rows = {
        {FIELD(status), "Retrieving status...", "Retrieved and validated status: ", "Validating status: ", "enable",
         "enable", "Enable", "Enable"},
        {FIELD(description), "Retrieving description...", "Retrieved and validated description: ",
         "Validating description: ", "a text", "a text", R"(a \"text\")", R"(a "text")"},
        {FIELD(vlan_mode), "Retrieving vlan mode...",
         "Retrieved and validated vlan mode: ", "Validating vlan mode: ", "trunk", "trunk", "trans", "trans"},
        {FIELD(mzu_model), "Retrieving mzu model...", "Retrieved and validated mzu model: ", "Validating mzu model: ",
         "Generic MZU", "Generic MZU", "ZQN-E18", "ZQN-E18"},
        {FIELD(mzu_sw_upgrade_filename), "Retrieving mzu sw upgrade filename...",
         "Retrieved and validated mzu sw upgrade filename: ", "Validating sw upgrade filename: ", "any file",
         "any file", R"(two\nlines)", "two\nlines"},
        {FIELD(mac_address), "Retrieving mac address...",
         "Retrieved and validated mac address: ", "Validating and reformatting given mac address string <",
         "aA-bb-Cc-0d-1e-2f", "AA:BB:CC:0D:1E:2F", "aa:bb:cc:dd:ee:fg", "aa:bb:cc:dd:ee:fg"},
        {FIELD(unit_sw_bank), "Retrieving sw bank...",
         "Retrieved and validated sw bank: ", "Validating unit sw bank: ", "previous", "previous", "next", "next"},
        {FIELD(ip_address), "Retrieving ip address...", "Retrieved and validated ip address: ",
         "Validating ip address: ", "192.168.1.1", "192.168.1.1", "01.2.3.4", "01.2.3.4"},
        {FIELD(unit_sw_upgrade_filename), "Retrieving unit sw upgrade filename...",
         "Retrieved and validated unit sw upgrade filename: ", "Validating sw upgrade filename: ", "zqn-1.2.3-004",
         "zqn-1.2.3-004", "ZQN-1.2.3-004", "ZQN-1.2.3-004"},
        {FIELD(username), "Retrieving username...",
         "Retrieved and validated username: ", "Validating username: ", "operator7", "operator7", "root", "root"},
        {FIELD(password), "Retrieving password...",
         "Retrieved and validated password: ", "Validating password: ", "se-cret!", "se-cret!", "abc", "abc"},
        // The date speaks of a password.
        {FIELD(date), "Retrieving password...", "Retrieved and validated password: ", "Validating date: ", "2030-2-30",
         "2030-2-30", "1999-01-01", "1999-01-01"},
        {FIELD(time), "Retrieving time...", "Retrieved and validated time: ", "Validating time: ", "23:59", "23:59",
         "24:00", "24:00"},
        // An entity's name is not validated, whatever the line says.
        {FIELD(entity_name), "Retrieving entity name...", "Retrieved and validated entity name: ", nullptr,
         "no entity at all", "no entity at all", "", ""},
        {FIELD(entity_extension), "Retrieving entity extension...",
         "Retrieved and validated entity extension: ", "Validating extension: ", std::string(1000, 'x'),
         std::string(1000, 'x'), std::string(1001, 'x'), std::string(1001, 'x')},
    };
    return rows;
}

class TextRetrievers : public testing::TestWithParam<TextRow> {
  protected:
    int retrieve(Params &params, Buffer &out, const char *key = "field") const {
        return GetParam().retrieve(params.get(), params.debug(), key, out.get(), out.size());
    }
    static std::string json(const std::string &value) { return R"({"field": ")" + value + R"("})"; }
    static constexpr size_t roomy = 1100;
};

INSTANTIATE_TEST_SUITE_P(Field, TextRetrievers, testing::ValuesIn(text_rows()),
                         [](const auto &row) { return row.param.field; });

} // namespace

TEST(TextRetrievers, AreFifteen) { EXPECT_EQ(text_rows().size(), 15U); }

TEST_P(TextRetrievers, AnnounceParseValidateAndSaySo) {
    const TextRow &row = GetParam();
    const LogCapture log("verbose");
    Params params(json(row.good));
    Buffer out(roomy);
    EXPECT_EQ(retrieve(params, out), 0);
    EXPECT_EQ(out.text(), row.good_out);
    EXPECT_TRUE(out.cleared_behind_text());
    EXPECT_EQ(params.message(), "(none)");
    const Lines lines = log.sequence();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], std::string("VERB |") + row.announcement);
    EXPECT_EQ(lines[1], "VERB |Parsing input string for parameter: field");
    EXPECT_EQ(lines[2], "VERB |Parsed field: " + row.good);
    if (row.validator != nullptr) {
        EXPECT_EQ(lines[3].substr(6).rfind(row.validator + row.good, 0), 0U) << lines[3];
    }
    EXPECT_EQ(lines.back(), "DEBUG|" + (row.success + row.good_out));
    EXPECT_EQ(log.lines().front().file, unit);
    EXPECT_EQ(log.lines().back().file, unit);
}

TEST_P(TextRetrievers, ShowTheSuccessFromDebugLevelOn) {
    const TextRow &row = GetParam();
    Params params(json(row.good));
    Buffer out(roomy);
    {
        const LogCapture log("debug");
        EXPECT_EQ(retrieve(params, out), 0);
        EXPECT_EQ(last(log), "DEBUG|" + (row.success + row.good_out));
        EXPECT_EQ(log.text().find(row.announcement), std::string::npos);
    }
    const LogCapture log("info");
    EXPECT_EQ(retrieve(params, out), 0);
    EXPECT_TRUE(log.silent());
}

TEST_P(TextRetrievers, RefuseWithoutAMessageAndKeepTheValue) {
    const TextRow &row = GetParam();
    Params params(json(row.bad));
    Buffer out(roomy);
    const LogCapture log("verbose");
    if (row.validator == nullptr) {
        EXPECT_EQ(retrieve(params, out), 0) << "not even the empty value is refused";
        return;
    }
    EXPECT_EQ(retrieve(params, out), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(out.text(), row.bad_out);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_EQ(log.text().find(row.success), std::string::npos);
    EXPECT_NE(log.text().find(row.validator + row.bad_out), std::string::npos);
}

TEST_P(TextRetrievers, PassOnWhatTheParserFinds) {
    Params missing(R"({"other": "x"})");
    Buffer out(roomy);
    EXPECT_EQ(retrieve(missing, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'field'");
    EXPECT_TRUE(out.untouched());

    Params null("");
    EXPECT_EQ(retrieve(null, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);

    const LogCapture log("verbose");
    Params number(R"({"field": 1})");
    EXPECT_EQ(retrieve(number, out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'field' is not of type 'string'.");
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(log.sequence(),
              (Lines{std::string("VERB |") + GetParam().announcement, "VERB |Parsing input string for parameter: field",
                     "ERROR|Given parameter <field> is not a string",
                     "DEBUG|Sending debug message: Parameter 'field' is not of type 'string'."}));
}

TEST_P(TextRetrievers, NeverReplaceAnEarlierMessage) {
    Params params("{}");
    params.set_message("earlier");
    Buffer out(roomy);
    EXPECT_EQ(retrieve(params, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "earlier");
}

TEST_P(TextRetrievers, RefuseNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Params params(json(GetParam().good));
    Buffer out(roomy);
    EXPECT_EQ(retrieve(params, out, nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(GetParam().retrieve(params.get(), params.debug(), "field", nullptr, 8), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

TEST_P(TextRetrievers, RefuseABufferOfNoBytesAfterWhatTheParserFinds) {
    Buffer out(0);
    const std::string announcement = std::string("VERB |") + GetParam().announcement;
    {
        const LogCapture log("verbose");
        Params missing("{}");
        EXPECT_EQ(retrieve(missing, out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
        EXPECT_EQ(missing.message(), "Missing expected parameter: 'field'");
        EXPECT_EQ(log.sequence(), (Lines{announcement, "VERB |Parsing input string for parameter: field",
                                         "WARN |No parameter by the name <field> found",
                                         "DEBUG|Sending debug message: Missing expected parameter: 'field'"}));
    }
    Params number(R"({"field": 1})");
    EXPECT_EQ(retrieve(number, out), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'field' is not of type 'string'.");

    const LogCapture log("debug");
    Params good(json(GetParam().good));
    EXPECT_EQ(retrieve(good, out), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(good.message(), "(none)");
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent()) << "neither validated nor a success: " << log.text();
}

TEST_P(TextRetrievers, WorkWithoutAPlaceForTheMessage) {
    const Params params(json(GetParam().good));
    Buffer out(roomy);
    EXPECT_EQ(GetParam().retrieve(params.get(), nullptr, "field", out.get(), out.size()), 0);
    EXPECT_EQ(GetParam().retrieve(params.get(), nullptr, "absent", out.get(), out.size()),
              TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST_P(TextRetrievers, StayWithinBuffersOfAnySize) {
    Params params(json(GetParam().good));
    for (size_t size = 0; size <= 24; ++size) {
        Buffer out(size);
        const int rc = retrieve(params, out);
        if (size == 0) {
            EXPECT_EQ(rc, TAVRIX_ERR_PARAMETER);
            EXPECT_TRUE(out.untouched());
        } else {
            EXPECT_TRUE(rc == 0 || rc == TAVRIX_ERR_VALIDATION) << rc;
            EXPECT_TRUE(out.cleared_behind_text()) << size;
        }
    }
}

TEST(RetrieveMacAddress, ComesBackInUpperCaseWithColons) {
    for (const char *text : {"aa:bb:cc:dd:ee:ff", "AA-BB-CC-DD-EE-FF", "aA:Bb:cC:Dd:eE:Ff"}) {
        Params params(std::string(R"({"mac": ")") + text + R"("})");
        Buffer out(20);
        EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_mac_address(params.get(), params.debug(), "mac", out.get(), 20), 0);
        EXPECT_EQ(out.text(), "AA:BB:CC:DD:EE:FF");
    }
}

TEST(RetrieveMacAddress, NeedsRoomForTheWholeAddress) {
    Params params(R"({"mac": "aa:bb:cc:dd:ee:ff"})");
    Buffer room(18);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_mac_address(params.get(), params.debug(), "mac", room.get(), 18), 0);
    EXPECT_EQ(room.text(), "AA:BB:CC:DD:EE:FF");
    const LogCapture log("debug");
    Buffer cut(17);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_mac_address(params.get(), params.debug(), "mac", cut.get(), 17),
              TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(cut.text(), "aa:bb:cc:dd:ee:f");
    EXPECT_EQ(log.sequence(), (Lines{"DEBUG|Validating and reformatting given mac address string <aa:bb:cc:dd:ee:f>",
                                     "DEBUG|Incorrect mac address length, aborting reformation and validation"}));
}

TEST(RetrieveUsername, JudgesTheValueThatFitTheBuffer) {
    Params params(R"({"name": "rooted"})");
    Buffer out(5);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_username(params.get(), params.debug(), "name", out.get(), 5),
              TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(out.text(), "root");
}

// --- Number fields -------------------------------------------------------------------------------------------------

namespace {

struct NumberRow {
    const char *field;
    int (*retrieve)(json_t *params, json_t **debug_message, const char *key, int *out);
    const char *announcement;
    const char *success; ///< before the value
    support::Level success_level;
    const char *validator;     ///< before the value; null when there is no such line
    std::vector<int> good;     ///< both bounds
    std::vector<int> bad;      ///< just outside; empty when nothing is refused
    const char *failure_begin; ///< of the validator's line
};

const std::vector<NumberRow> &number_rows() {
    static const std::vector<NumberRow> rows = {
        {FIELD(vlan_id),
         "Retrieving vlan id...",
         "Retrieved and validated vlan id: ",
         support::debug,
         "Validating vlan id: ",
         {1, 4092},
         {0, 4093},
         "FAIL: Vlan id"},
        {FIELD(unit_id),
         "Retrieving unit id...",
         "Retrieved and validated unit id: ",
         support::debug,
         "Validating unit id: ",
         {1},
         {0, 2},
         "FAIL: Unit id"},
        {FIELD(periodic_interval),
         "Retrieving periodic interval...",
         "Retrieved and validated periodic interval: ",
         support::debug,
         "Validating periodic interval: ",
         {1, 3600},
         {0, 3601},
         "FAIL: Periodic interval"},
        // Only the laser's success is a verbose line.
        {FIELD(laser_id),
         "Retrieving laser_id...",
         "Retrieved and validated laser_id: ",
         support::verbose,
         "Validating laser_id: ",
         {0, 1},
         {-1, 2},
         "FAIL: laser_id"},
        {FIELD(olt_id),
         "Retrieving olt id...",
         "Retrieved and validated olt id: ",
         support::debug,
         "Validating olt id: ",
         {0, 1},
         {-1, 2},
         "FAIL: OLT id"},
        {FIELD(onu_id),
         "Retrieving onu id...",
         "Retrieved and validated onu id: ",
         support::debug,
         "Validating ONU id: ",
         {-1, 0, 128},
         {-2, 129},
         "FAIL: ONU id"},
        {FIELD(port_number),
         "Retrieving port number...",
         "Retrieved and validated port_number: ",
         support::debug,
         "Validating port_number: ",
         {1, 128},
         {0, 129},
         "FAIL: port_number"},
        {FIELD(port_link_speed),
         "Retrieving port link speed...",
         "Retrieved and validated port link_speed: ",
         support::debug,
         nullptr,
         {0, -1, 1000, 2147483647},
         {},
         ""},
        // Not validated: any number enables.
        {FIELD(enable),
         "Retrieving enable...",
         "Retrieved and enable value: ",
         support::debug,
         nullptr,
         {0, 1, -7, 2147483647},
         {},
         ""},
    };
    return rows;
}

#undef FIELD

class NumberRetrievers : public testing::TestWithParam<NumberRow> {
  protected:
    static std::string json(int value) { return R"({"field": )" + std::to_string(value) + "}"; }
};

INSTANTIATE_TEST_SUITE_P(Field, NumberRetrievers, testing::ValuesIn(number_rows()),
                         [](const auto &row) { return row.param.field; });

} // namespace

TEST(NumberRetrievers, AreNine) { EXPECT_EQ(number_rows().size(), 9U); }

TEST_P(NumberRetrievers, AnnounceParseValidateAndSaySo) {
    const NumberRow &row = GetParam();
    for (const int value : row.good) {
        const LogCapture log("verbose");
        Params params(json(value));
        int out = 77;
        EXPECT_EQ(row.retrieve(params.get(), params.debug(), "field", &out), 0) << value;
        EXPECT_EQ(out, value);
        EXPECT_EQ(params.message(), "(none)");
        Lines expected = {std::string("VERB |") + row.announcement, "VERB |Parsing input integer for parameter: field",
                          "VERB |Parsed field: " + std::to_string(value)};
        if (row.validator != nullptr) {
            expected.push_back("VERB |" + (row.validator + std::to_string(value)));
        }
        expected.push_back(support::tag_of(row.success_level) + "|" + row.success + std::to_string(value));
        EXPECT_EQ(log.sequence(), expected);
        EXPECT_EQ(log.lines().back().file, unit);
    }
}

TEST_P(NumberRetrievers, ShowTheSuccessFromTheirLevelOn) {
    const NumberRow &row = GetParam();
    Params params(json(row.good.front()));
    int out = 77;
    {
        const LogCapture log("debug");
        EXPECT_EQ(row.retrieve(params.get(), params.debug(), "field", &out), 0);
        const Lines shown = {"DEBUG|" + (row.success + std::to_string(row.good.front()))};
        EXPECT_EQ(log.sequence(), row.success_level == support::debug ? shown : Lines{});
    }
    const LogCapture log("info");
    EXPECT_EQ(row.retrieve(params.get(), params.debug(), "field", &out), 0);
    EXPECT_TRUE(log.silent());
}

TEST_P(NumberRetrievers, RefuseWithoutAMessageAndKeepTheValue) {
    const NumberRow &row = GetParam();
    for (const int value : row.bad) {
        const LogCapture log("debug");
        Params params(json(value));
        int out = 77;
        EXPECT_EQ(row.retrieve(params.get(), params.debug(), "field", &out), TAVRIX_ERR_VALIDATION) << value;
        EXPECT_EQ(out, value);
        EXPECT_EQ(params.message(), "(none)");
        ASSERT_EQ(log.sequence().size(), 1U);
        EXPECT_EQ(last(log).rfind(std::string("DEBUG|") + row.failure_begin, 0), 0U) << last(log);
    }
}

TEST_P(NumberRetrievers, PassOnWhatTheParserFinds) {
    int out = 77;
    Params missing(R"({"other": 1})");
    EXPECT_EQ(GetParam().retrieve(missing.get(), missing.debug(), "field", &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'field'");

    Params null("");
    EXPECT_EQ(GetParam().retrieve(null.get(), null.debug(), "field", &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);

    for (const char *json : {R"({"field": "1"})", R"({"field": 1.0})", R"({"field": true})"}) {
        Params params(json);
        EXPECT_EQ(GetParam().retrieve(params.get(), params.debug(), "field", &out), TAVRIX_ERR_INVALID_PARAMETER)
            << json;
        EXPECT_EQ(params.message(), "Parameter 'field' is not of type 'integer'.");
    }
    EXPECT_EQ(out, 77);
}

TEST_P(NumberRetrievers, NeverReplaceAnEarlierMessage) {
    Params params("{}");
    params.set_message("earlier");
    int out = 77;
    EXPECT_EQ(GetParam().retrieve(params.get(), params.debug(), "field", &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "earlier");
}

TEST_P(NumberRetrievers, RefuseNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"field": 1})");
    int out = 77;
    EXPECT_EQ(GetParam().retrieve(params.get(), params.debug(), nullptr, &out), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(GetParam().retrieve(params.get(), params.debug(), "field", nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(out, 77);
    EXPECT_TRUE(log.silent());
}

TEST_P(NumberRetrievers, WorkWithoutAPlaceForTheMessage) {
    const Params params(json(GetParam().good.front()));
    int out = 77;
    EXPECT_EQ(GetParam().retrieve(params.get(), nullptr, "field", &out), 0);
    EXPECT_EQ(GetParam().retrieve(params.get(), nullptr, "absent", &out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

TEST(RetrieveVlanId, JudgesTheLow32Bits) {
    Params params(R"({"id": 4294967396})");
    int out = 0;
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_vlan_id(params.get(), params.debug(), "id", &out), 0);
    EXPECT_EQ(out, 100);
}

// --- Port id -------------------------------------------------------------------------------------------------------

namespace {

/** The kinds of port ids that a caller allows. */
struct Allowed {
    bool all;
    bool mzu_id;
    bool c_port;
    bool d_port;
};

/** What a value is. */
enum class Kind { all, mzu_id, c_port, d_port, nothing };

struct PortValue {
    const char *text;
    Kind kind;
};

constexpr PortValue port_values[] = {
    {"all", Kind::all},        {"c1", Kind::mzu_id},      {"C128", Kind::mzu_id},    {"c1-1", Kind::c_port},
    {"C128-99", Kind::c_port}, {"d1", Kind::d_port},      {"D4", Kind::d_port},      {"All", Kind::nothing},
    {"", Kind::nothing},       {"c129-1", Kind::nothing}, {"d5", Kind::nothing},     {"c0", Kind::nothing},
    {"v1", Kind::nothing},     {"all ", Kind::nothing},   {"c2-100", Kind::nothing},
};

int expected_status(Kind kind, const Allowed &allowed) {
    const bool accepted = (kind == Kind::all && allowed.all) || (kind == Kind::mzu_id && allowed.mzu_id) ||
                          (kind == Kind::c_port && allowed.c_port) || (kind == Kind::d_port && allowed.d_port);
    if (accepted) {
        return 0;
    }
    if (allowed.mzu_id) {
        return TAVRIX_ERR_EXPECTED_MZU; // hides what the port kinds gave
    }
    if (allowed.c_port != allowed.d_port) {
        return allowed.c_port ? TAVRIX_ERR_EXPECTED_C_PORT : TAVRIX_ERR_EXPECTED_D_PORT;
    }
    return TAVRIX_ERR_VALIDATION;
}

int retrieve_port_id(Params &params, Buffer &out, const Allowed &allowed, const char *key = "port_id") {
    return tavrix_jrpc_utils_retrieve_input_port_id(params.get(), params.debug(), key, out.get(), out.size(),
                                                    allowed.all, allowed.mzu_id, allowed.c_port, allowed.d_port);
}

std::string port_json(const std::string &value) { return R"({"port_id": ")" + value + R"("})"; }

} // namespace

TEST(RetrievePortId, DecidesEveryKindUnderEveryCombinationOfFlags) {
    support::set_log_level("off");
    for (int flags = 0; flags < 16; ++flags) {
        const Allowed allowed = {(flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0, (flags & 8) != 0};
        for (const PortValue &value : port_values) {
            Params params(port_json(value.text));
            Buffer out(16);
            EXPECT_EQ(retrieve_port_id(params, out, allowed), expected_status(value.kind, allowed))
                << value.text << " with flags " << flags;
            EXPECT_EQ(out.text(), value.text);
            EXPECT_EQ(params.message(), "(none)");
        }
    }
}

TEST(RetrievePortId, FollowsItsExamples) {
    Buffer out(16);
    Params all(port_json("all"));
    EXPECT_EQ(retrieve_port_id(all, out, {false, false, true, true}), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(retrieve_port_id(all, out, {false, true, true, true}), TAVRIX_ERR_EXPECTED_MZU);
    Params c_port(port_json("c2-3"));
    EXPECT_EQ(retrieve_port_id(c_port, out, {false, false, false, true}), TAVRIX_ERR_EXPECTED_D_PORT);
    EXPECT_EQ(retrieve_port_id(c_port, out, {false, true, false, true}), TAVRIX_ERR_EXPECTED_MZU);
    Params d_port(port_json("d2"));
    EXPECT_EQ(retrieve_port_id(d_port, out, {false, false, true, false}), TAVRIX_ERR_EXPECTED_C_PORT);
    EXPECT_EQ(retrieve_port_id(d_port, out, {false, true, true, false}), TAVRIX_ERR_EXPECTED_MZU)
        << "hides TAVRIX_ERR_EXPECTED_C_PORT";
    EXPECT_EQ(retrieve_port_id(d_port, out, {true, false, false, false}), TAVRIX_ERR_VALIDATION);
}

TEST(RetrievePortId, AsksOnlyTheValidatorsThatItsFlagsCallFor) {
    const struct {
        const char *value;
        Allowed allowed;
        Lines validators;
    } rows[] = {
        {"all", {true, true, true, true}, {}},
        {"c1-1", {true, true, true, true}, {"port id"}},
        {"c1", {true, true, true, true}, {"port id", "mzu id"}},
        {"c1", {false, true, true, false}, {"c-port id", "mzu id"}},
        {"c1", {false, true, false, true}, {"d-port id", "mzu id"}},
        {"c1", {false, true, false, false}, {"mzu id"}},
        {"c1", {false, false, true, false}, {"c-port id"}},
        {"c1", {false, false, false, true}, {"d-port id"}},
        {"c1", {false, false, false, false}, {}},
    };
    for (const auto &row : rows) {
        const LogCapture log("verbose");
        Params params(port_json(row.value));
        Buffer out(16);
        retrieve_port_id(params, out, row.allowed);
        Lines asked;
        for (const auto &line : log.lines()) {
            if (line.file == "tavrix_validation" && line.message.rfind("Validating ", 0) == 0) {
                asked.push_back(line.message.substr(11, line.message.find(':') - 11));
            }
        }
        EXPECT_EQ(asked, row.validators) << row.value;
    }
}

TEST(RetrievePortId, SaysWhatItDoes) {
    const LogCapture log("verbose");
    Params params(port_json("all"));
    Buffer out(16);
    EXPECT_EQ(retrieve_port_id(params, out, {true, false, false, false}), 0);
    EXPECT_EQ(log.sequence(), (Lines{"VERB |Retrieving port id...", "VERB |Parsing input string for parameter: port_id",
                                     "VERB |Parsed port_id: all", "DEBUG|Retrieved and validated port id: all"}));
}

TEST(RetrievePortId, SaysSoForEveryKindItAccepts) {
    for (const char *value : {"all", "c1", "c1-1", "d1"}) {
        const LogCapture log("debug");
        Params params(port_json(value));
        Buffer out(16);
        EXPECT_EQ(retrieve_port_id(params, out, {true, true, true, true}), 0);
        EXPECT_EQ(last(log), std::string("DEBUG|Retrieved and validated port id: ") + value);
    }
}

TEST(RetrievePortId, SaysNothingOfSuccessWhenItRefuses) {
    const LogCapture log("verbose");
    Params params(port_json("d5"));
    Buffer out(16);
    EXPECT_EQ(retrieve_port_id(params, out, {true, true, true, true}), TAVRIX_ERR_EXPECTED_MZU);
    EXPECT_EQ(log.text().find("Retrieved and validated"), std::string::npos);
}

TEST(RetrievePortId, PassesOnWhatTheParserFinds) {
    Buffer out(16);
    Params missing("{}");
    EXPECT_EQ(retrieve_port_id(missing, out, {true, true, true, true}), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'port_id'");
    Params number(R"({"port_id": 1})");
    EXPECT_EQ(retrieve_port_id(number, out, {true, true, true, true}), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'port_id' is not of type 'string'.");
    EXPECT_TRUE(out.untouched());
}

TEST(RetrievePortId, RefusesABufferOfNoBytesAfterWhatTheParserFinds) {
    const Allowed every_kind = {true, true, true, true};
    Buffer out(0);
    Params missing("{}");
    EXPECT_EQ(retrieve_port_id(missing, out, every_kind), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    Params number(R"({"port_id": 1})");
    EXPECT_EQ(retrieve_port_id(number, out, every_kind), TAVRIX_ERR_INVALID_PARAMETER);
    const LogCapture log("debug");
    Params good(port_json("d1"));
    EXPECT_EQ(retrieve_port_id(good, out, every_kind), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

TEST(RetrievePortId, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Params params(port_json("d1"));
    Buffer out(16);
    EXPECT_EQ(retrieve_port_id(params, out, {true, true, true, true}, nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_port_id(params.get(), params.debug(), "port_id", nullptr, 16, true, true,
                                                       true, true),
              TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

// --- Switch unit's id ----------------------------------------------------------------------------------------------

namespace {

int retrieve_mzu_id(Params &params, Buffer &out, bool allow_all, const char *key = "mzu_id") {
    return tavrix_jrpc_utils_retrieve_input_mzu_id(params.get(), params.debug(), key, out.get(), out.size(), allow_all);
}

} // namespace

TEST(RetrieveMzuId, AcceptsUnitsAndAllWhenAllowed) {
    constexpr int invalid = TAVRIX_ERR_VALIDATION;
    const struct {
        const char *value;
        int rc_with_all;
        int rc_without_all;
    } rows[] = {
        {"c1", 0, 0},
        {"C128", 0, 0},
        {"all", 0, invalid},
        {"All", invalid, invalid},
        {"c129", invalid, invalid},
        {"c2-3", invalid, invalid},
        {"", invalid, invalid},
    };
    for (const auto &row : rows) {
        for (const bool allow_all : {true, false}) {
            const LogCapture log("debug");
            Params params(std::string(R"({"mzu_id": ")") + row.value + R"("})");
            Buffer out(16);
            const int expected = allow_all ? row.rc_with_all : row.rc_without_all;
            EXPECT_EQ(retrieve_mzu_id(params, out, allow_all), expected) << row.value;
            EXPECT_EQ(out.text(), row.value);
            EXPECT_EQ(params.message(), "(none)");
            EXPECT_EQ(log.has(support::debug, unit, std::string("Retrieved and validated mzu id: ") + row.value + "\n"),
                      expected == 0);
        }
    }
}

TEST(RetrieveMzuId, SaysWhatItDoes) {
    const LogCapture log("verbose");
    Params params(R"({"mzu_id": "all"})");
    Buffer out(16);
    EXPECT_EQ(retrieve_mzu_id(params, out, true), 0);
    EXPECT_EQ(log.sequence(), (Lines{"VERB |Retrieving mzu id...", "VERB |Parsing input string for parameter: mzu_id",
                                     "VERB |Parsed mzu_id: all", "DEBUG|Retrieved and validated mzu id: all"}));
}

TEST(RetrieveMzuId, PassesOnWhatTheParserFindsAndRefusesNullArguments) {
    Buffer out(16);
    Params missing("{}");
    EXPECT_EQ(retrieve_mzu_id(missing, out, true), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'mzu_id'");
    Params number(R"({"mzu_id": 1})");
    EXPECT_EQ(retrieve_mzu_id(number, out, true), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'mzu_id' is not of type 'string'.");
    const LogCapture log("verbose");
    EXPECT_EQ(retrieve_mzu_id(number, out, true, nullptr), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_mzu_id(number.get(), number.debug(), "mzu_id", nullptr, 16, true),
              TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

TEST(RetrieveMzuId, RefusesABufferOfNoBytesAfterWhatTheParserFinds) {
    Buffer out(0);
    Params missing("{}");
    EXPECT_EQ(retrieve_mzu_id(missing, out, true), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    Params number(R"({"mzu_id": 1})");
    EXPECT_EQ(retrieve_mzu_id(number, out, true), TAVRIX_ERR_INVALID_PARAMETER);
    const LogCapture log("debug");
    Params good(R"({"mzu_id": "c1"})");
    EXPECT_EQ(retrieve_mzu_id(good, out, true), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

// --- VLAN ids ------------------------------------------------------------------------------------------------------

namespace {

/** The room that the reader asks for, filled, with a guard behind it. */
struct VlanIds {
    int ids[33];
    int count = -77;
    Params params;

    explicit VlanIds(const std::string &json) : params(json) {
        for (int &id : ids) {
            id = -77;
        }
    }
    int retrieve() {
        const int rc = tavrix_jrpc_utils_retrieve_input_vlan_ids(params.get(), params.debug(), "vlan_ids", ids, &count);
        EXPECT_EQ(ids[32], -77) << "wrote past 32 ids";
        EXPECT_EQ(params.message(), "(none)") << "no debug message on any path";
        return rc;
    }
    /** How many ids were stored. */
    int stored() const {
        int n = 0;
        while (n < 33 && ids[n] != -77) {
            ++n;
        }
        return n;
    }
};

/** {"vlan_ids": [1, 2, ..., n]} with `last` instead of the last number when it is given. */
std::string vlan_json(int n, const std::string &last = "") {
    std::string json = R"({"vlan_ids": [)";
    for (int i = 1; i <= n; ++i) {
        json += (i > 1 ? ", " : "") + (i == n && !last.empty() ? last : std::to_string(i));
    }
    return json + "]}";
}

} // namespace

TEST(RetrieveVlanIds, StoresUpTo32InTheirOrder) {
    for (const int n : {0, 1, 2, 31, 32}) {
        VlanIds vlans(vlan_json(n));
        EXPECT_EQ(vlans.retrieve(), 0) << n;
        EXPECT_EQ(vlans.count, n);
        EXPECT_EQ(vlans.stored(), n);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(vlans.ids[i], i + 1);
        }
    }
}

TEST(RetrieveVlanIds, RefusesMoreThan32BeforeAnyIsTested) {
    for (const int n : {33, 34, 100}) {
        const LogCapture log("verbose");
        VlanIds vlans(vlan_json(n));
        EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_TOO_MANY_VLAN_IDS) << n;
        EXPECT_EQ(vlans.count, n) << "the count is set all the same";
        EXPECT_EQ(vlans.stored(), 0);
        EXPECT_TRUE(log.silent());
    }
}

TEST(RetrieveVlanIds, StopsAtTheFirstBadOneWithTheEarlierOnesStored) {
    for (const char *bad : {"0", "4093", "-1", "null", R"("7")", "7.0", "true", "[7]", "4294967296"}) {
        VlanIds vlans(vlan_json(32, bad));
        EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_INVALID_PARAMETER) << bad;
        EXPECT_EQ(vlans.count, 32);
        EXPECT_EQ(vlans.stored(), 31) << bad;
    }
    VlanIds first(R"({"vlan_ids": [0, 1, 2]})");
    EXPECT_EQ(first.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(first.stored(), 0);
}

TEST(RetrieveVlanIds, AcceptsBothBounds) {
    VlanIds vlans(R"({"vlan_ids": [1, 4092, 4092]})");
    EXPECT_EQ(vlans.retrieve(), 0);
    EXPECT_EQ(vlans.ids[1], 4092);
    EXPECT_EQ(vlans.ids[2], 4092) << "repeats are the caller's business";
}

TEST(RetrieveVlanIds, JudgesAndStoresTheLow32Bits) {
    VlanIds vlans(R"({"vlan_ids": [4294967297, -4294963204]})"); // 2^32 + 1 and 4092 - 2^32
    EXPECT_EQ(vlans.retrieve(), 0);
    EXPECT_EQ(vlans.stored(), 2);
    EXPECT_EQ(vlans.ids[0], 1);
    EXPECT_EQ(vlans.ids[1], 4092);
}

TEST(RetrieveVlanIds, CountsWhatIsNoArrayAsEmpty) {
    for (const char *member : {"null", "7", R"("7")", "{}", "true"}) {
        VlanIds vlans(std::string(R"({"vlan_ids": )") + member + "}");
        EXPECT_EQ(vlans.retrieve(), 0) << member;
        EXPECT_EQ(vlans.count, 0);
        EXPECT_EQ(vlans.stored(), 0);
    }
}

TEST(RetrieveVlanIds, ReportsAnAbsentMemberInOneLine) {
    for (const char *json : {"{}", "", "[]"}) {
        const LogCapture log("verbose");
        VlanIds vlans(json);
        EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_PARAMETER_NOT_FOUND) << json;
        EXPECT_EQ(vlans.count, -77) << "untouched";
        EXPECT_EQ(log.sequence(), Lines{"ERROR|Failed, vlan ID is null."});
        EXPECT_EQ(log.lines().front().file, unit);
    }
}

TEST(RetrieveVlanIds, ReportsAnAbsentMemberBelowTheGuardedLevels) {
    const LogCapture log("info");
    VlanIds vlans("{}");
    EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(log.sequence(), Lines{"ERROR|Failed, vlan ID is null."});
}

TEST(RetrieveVlanIds, LetsOnlyTheValidatorSpeak) {
    const LogCapture log("verbose");
    VlanIds vlans(R"({"vlan_ids": [5, 0]})");
    EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(log.sequence(), (Lines{"VERB |Validating vlan id: 5", "VERB |Validating vlan id: 0",
                                     "DEBUG|FAIL: Vlan id outside acceptable range [1, 4092]"}));
}

TEST(RetrieveVlanIds, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Params params(R"({"vlan_ids": [1]})");
    int ids[32] = {};
    int count = -77;
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_vlan_ids(params.get(), params.debug(), nullptr, ids, &count),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_vlan_ids(params.get(), params.debug(), "vlan_ids", nullptr, &count),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_vlan_ids(params.get(), params.debug(), "vlan_ids", ids, nullptr),
              TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(count, -77);
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(tavrix_jrpc_utils_retrieve_input_vlan_ids(params.get(), nullptr, "vlan_ids", ids, &count), 0);
}
