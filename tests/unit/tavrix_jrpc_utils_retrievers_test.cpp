/*
 * The field retrievers: what all of texts and numbers share, one row for each plain one, then the port id, the switch
 * unit's id and the VLAN ids.
 */
#include "tavrix_jrpc_utils.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fields.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/params.h"
#include "tavrix_error.h"

using support::Buffer;
using support::Field;
using support::Lines;
using support::LogCapture;
using support::Params;
using support::Statuses;
using support::with_each_null;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

/** {"field": value} */
std::string json(const std::string &value) { return support::taken(json_pack("{s:s}", "field", value.c_str())); }
std::string json(int value) { return support::taken(json_pack("{s:i}", "field", value)); }

// --- Texts and numbers ---------------------------------------------------------------------------------------------

std::vector<Field> texts_and_numbers() {
    std::vector<Field> found;
    std::copy_if(support::fields().begin(), support::fields().end(), std::back_inserter(found),
                 [](const Field &field) { return field.read_text != nullptr || field.read_number != nullptr; });
    return found;
}

class Retrievers : public testing::TestWithParam<Field> {
  protected:
    const bool is_text = GetParam().read_text != nullptr;
    Buffer out{1100};

    static int read(json_t *params, json_t **debug, const char *key, char *out, size_t size) {
        return GetParam().read_text != nullptr
                   ? GetParam().read_text(params, debug, key, out, size)
                   : GetParam().read_number(params, debug, key, reinterpret_cast<int *>(out));
    }
    int retrieve(Params &params) { return params.read(read, "k", out.get(), out.size()); }
    std::string good() const { return GetParam().params(GetParam().valid.front()); }
};

INSTANTIATE_TEST_SUITE_P(Field, Retrievers, testing::ValuesIn(texts_and_numbers()),
                         [](const auto &row) { return row.param.name; });

TEST_P(Retrievers, PassOnWhatTheParserFinds) {
    Params missing(R"({"other": 1})");
    EXPECT_EQ(retrieve(missing), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'k'");
    Params null("");
    EXPECT_EQ(retrieve(null), TAVRIX_ERR_PARAMETER_NOT_FOUND);

    const std::string type = is_text ? "string" : "integer";
    const std::string article = is_text ? "a " : "an ";
    for (const std::string value : {"1.0", "true", is_text ? "1" : R"("1")"}) {
        const LogCapture log("verbose");
        Params params(R"({"k": )" + value + "}");
        EXPECT_EQ(retrieve(params), TAVRIX_ERR_INVALID_PARAMETER) << value;
        EXPECT_EQ(params.message(), "Parameter 'k' is not of type '" + type + "'.");
        EXPECT_TRUE(log.said({log.sequence().front(), "VERB |Parsing input " + type + " for parameter: k",
                              "ERROR|Given parameter <k> is not " + article + type,
                              "DEBUG|Sending debug message: Parameter 'k' is not of type '" + type + "'."}));
        EXPECT_EQ(log.sequence().front().rfind("VERB |Retrieving ", 0), 0U) << "before it is parsed";
    }
    EXPECT_TRUE(out.untouched());
}

TEST_P(Retrievers, NeverReplaceAnEarlierMessage) {
    Params params("{}");
    params.set_message("earlier");
    EXPECT_EQ(retrieve(params), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(params.message(), "earlier");
}

TEST_P(Retrievers, RefuseNullArgumentsInSilence) {
    const LogCapture log("verbose");
    Params params(good());
    EXPECT_EQ(with_each_null(params.reading(read), "k", out.get(), out.size()), Statuses(2, TAVRIX_ERR_PARAMETER));
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(log.silent());
}

TEST_P(Retrievers, RefuseABufferOfNoBytesAfterWhatTheParserFinds) {
    if (!is_text) {
        return;
    }
    Buffer none(0);
    Params missing("{}");
    EXPECT_EQ(missing.read(read, "k", none.get(), 0U), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(missing.message(), "Missing expected parameter: 'k'");
    Params number(R"({"k": 1})");
    EXPECT_EQ(number.read(read, "k", none.get(), 0U), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(number.message(), "Parameter 'k' is not of type 'string'.");
    const LogCapture log("debug");
    Params params(good());
    EXPECT_EQ(params.read(read, "k", none.get(), 0U), TAVRIX_ERR_PARAMETER);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(none.untouched());
    EXPECT_TRUE(log.silent()) << "neither validated nor a success: " << log.text();
}

TEST_P(Retrievers, WorkWithoutAPlaceForTheMessage) {
    const Params params(good());
    EXPECT_EQ(read(params.get(), nullptr, "k", out.get(), out.size()), 0);
    EXPECT_EQ(read(params.get(), nullptr, "absent", out.get(), out.size()), TAVRIX_ERR_PARAMETER_NOT_FOUND);
}

// --- Text fields ---------------------------------------------------------------------------------------------------

/** Whether a port is what the parameters name, whichever it is. */
int retrieve_any_port(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size) {
    return tavrix_jrpc_utils_retrieve_input_port_id(params, debug_message, key, out, out_size, false, false, true,
                                                    true);
}
int retrieve_any_unit(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size) {
    return tavrix_jrpc_utils_retrieve_input_mzu_id(params, debug_message, key, out, out_size, true);
}

struct TextRow {
    const char *field;
    int (*retrieve)(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
    std::string spoken;    ///< as the log calls it
    std::string validator; ///< the first words of the validator's log; empty when nothing is validated
    std::string good;
    std::string bad;           ///< refused, if anything is
    std::string good_out = {}; ///< as it comes back when that is not as it is sent

    std::string announcement() const { return "VERB |Retrieving " + spoken + "..."; }
    std::string success() const {
        return "DEBUG|Retrieved and validated " + spoken + ": " + (good_out.empty() ? good : good_out);
    }
};

#define FIELD(name) #name, tavrix_jrpc_utils_retrieve_input_##name

const std::vector<TextRow> &text_rows() {
    static const std::vector<TextRow> rows = {
        {FIELD(status), "status", "Validating status: ", "enable", "Enable"},
        {FIELD(description), "description", "Validating description: ", "a text", R"(a "text")"},
        {FIELD(vlan_mode), "vlan mode", "Validating vlan mode: ", "trunk", "trans"},
        {FIELD(mzu_model), "mzu model", "Validating mzu model: ", "Generic MZU", "ZQN-E18"},
        {FIELD(mzu_sw_upgrade_filename), "mzu sw upgrade filename", "Validating sw upgrade filename: ", "any file",
         "two\nlines"},
        {FIELD(mac_address), "mac address", "Validating and reformatting given mac address string <",
         "aA-bb-Cc-0d-1e-2f", "aa:bb:cc:dd:ee:fg", "AA:BB:CC:0D:1E:2F"},
        {FIELD(unit_sw_bank), "sw bank", "Validating unit sw bank: ", "previous", "next"},
        {FIELD(ip_address), "ip address", "Validating ip address: ", "192.168.1.1", "01.2.3.4"},
        {FIELD(unit_sw_upgrade_filename), "unit sw upgrade filename",
         "Validating sw upgrade filename: ", "zqn-1.2.3-004", "ZQN-1.2.3-004"},
        {FIELD(username), "username", "Validating username: ", "operator7", "root"},
        {FIELD(password), "password", "Validating password: ", "se-cret!", "abc"},
        // The date speaks of a password.
        {FIELD(date), "password", "Validating date: ", "2030-2-30", "1999-01-01"},
        {FIELD(time), "time", "Validating time: ", "23:59", "24:00"},
        // An entity's name is not validated, whatever the line says.
        {FIELD(entity_name), "entity name", "", "no entity at all", ""},
        {FIELD(entity_extension), "entity extension", "Validating extension: ", std::string(1000, 'x'),
         std::string(1001, 'x')},
        {"port_id", retrieve_any_port, "port id", "Validating port id: ", "c1-1", "d5"},
        {"mzu_id", retrieve_any_unit, "mzu id", "Validating mzu id: ", "c1", "c129"},
    };
    return rows;
}

class TextRetrievers : public testing::TestWithParam<TextRow> {
  protected:
    const TextRow &row = GetParam();
    Buffer out{1100};

    int retrieve(Params &params, Buffer &into) const {
        return params.read(row.retrieve, "field", into.get(), into.size());
    }
};

INSTANTIATE_TEST_SUITE_P(Field, TextRetrievers, testing::ValuesIn(text_rows()),
                         [](const auto &row) { return row.param.field; });

TEST(TextRetrievers, AreSeventeen) { EXPECT_EQ(text_rows().size(), 17U); }

TEST_P(TextRetrievers, AnnounceParseValidateAndSaySo) {
    const LogCapture log("verbose");
    Params params(json(row.good));
    EXPECT_EQ(retrieve(params, out), 0);
    EXPECT_EQ(out.text(), row.good_out.empty() ? row.good : row.good_out);
    EXPECT_TRUE(out.cleared_behind_text());
    EXPECT_EQ(params.message(), "(none)");
    const Lines lines = log.sequence();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], row.announcement());
    EXPECT_EQ(lines[1], "VERB |Parsing input string for parameter: field");
    EXPECT_EQ(lines[2], "VERB |Parsed field: " + row.good);
    EXPECT_TRUE(row.validator.empty() || lines[3].substr(6).rfind(row.validator + row.good, 0) == 0) << lines[3];
    EXPECT_EQ(lines.back(), row.success());
    EXPECT_EQ(log.lines().front().file, unit);
    EXPECT_EQ(log.lines().back().file, unit);
}

TEST_P(TextRetrievers, ShowTheSuccessFromDebugLevelOn) {
    Params params(json(row.good));
    {
        const LogCapture log("debug");
        EXPECT_EQ(retrieve(params, out), 0);
        EXPECT_EQ(log.sequence().back(), row.success());
        EXPECT_EQ(log.text().find("Retrieving"), std::string::npos);
    }
    const LogCapture log("info");
    EXPECT_EQ(retrieve(params, out), 0);
    EXPECT_TRUE(log.silent());
}

TEST_P(TextRetrievers, RefuseWithoutAMessageAndKeepTheValue) {
    Params params(json(row.bad));
    const LogCapture log("verbose");
    if (row.validator.empty()) {
        EXPECT_EQ(retrieve(params, out), 0) << "not even the empty value is refused";
        return;
    }
    EXPECT_EQ(retrieve(params, out), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(out.text(), row.bad);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_EQ(log.text().find("Retrieved and validated"), std::string::npos);
    EXPECT_NE(log.text().find(row.validator + row.bad), std::string::npos);
}

TEST_P(TextRetrievers, StayWithinBuffersOfAnySize) {
    Params params(json(row.good));
    for (size_t size = 1; size <= 24; ++size) {
        Buffer cut(size);
        const int rc = retrieve(params, cut);
        EXPECT_TRUE(rc == 0 || rc == TAVRIX_ERR_VALIDATION) << rc;
        EXPECT_TRUE(cut.cleared_behind_text()) << size;
    }
}

TEST(RetrieveMacAddress, NeedsRoomForTheWholeAddress) {
    const auto retrieve = tavrix_jrpc_utils_retrieve_input_mac_address;
    Params params(json("AA-bb-CC-dd-EE-ff"));
    Buffer room(18);
    EXPECT_EQ(params.read(retrieve, "field", room.get(), room.size()), 0);
    EXPECT_EQ(room.text(), "AA:BB:CC:DD:EE:FF");
    const LogCapture log("debug");
    Buffer cut(17);
    EXPECT_EQ(params.read(retrieve, "field", cut.get(), cut.size()), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(cut.text(), "AA-bb-CC-dd-EE-f");
    EXPECT_TRUE(log.said({"DEBUG|Validating and reformatting given mac address string <AA-bb-CC-dd-EE-f>",
                          "DEBUG|Incorrect mac address length, aborting reformation and validation"}));
}

TEST(RetrieveUsername, JudgesTheValueThatFitTheBuffer) {
    Params params(json("rooted"));
    Buffer out(5);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_username, "field", out.get(), out.size()),
              TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(out.text(), "root");
}

// --- Number fields -------------------------------------------------------------------------------------------------

struct NumberRow {
    const char *field;
    int (*retrieve)(json_t *params, json_t **debug_message, const char *key, int *out);
    std::string announcement;
    std::string success; ///< before the value
    int low;
    int high;
    std::string validator = {}; ///< before the value; empty when any number is taken
    std::string failure = {};   ///< before the range
    support::Level success_level = support::debug;
};

const std::vector<NumberRow> &number_rows() {
    static const std::vector<NumberRow> rows = {
        {FIELD(vlan_id), "Retrieving vlan id...", "Retrieved and validated vlan id: ", 1, 4092,
         "Validating vlan id: ", "FAIL: Vlan id"},
        {FIELD(unit_id), "Retrieving unit id...", "Retrieved and validated unit id: ", 1, 1,
         "Validating unit id: ", "FAIL: Unit id"},
        {FIELD(periodic_interval), "Retrieving periodic interval...", "Retrieved and validated periodic interval: ", 1,
         3600, "Validating periodic interval: ", "FAIL: Periodic interval"},
        // Only the laser's success is a verbose line.
        {FIELD(laser_id), "Retrieving laser_id...", "Retrieved and validated laser_id: ", 0, 1,
         "Validating laser_id: ", "FAIL: laser_id", support::verbose},
        {FIELD(olt_id), "Retrieving olt id...", "Retrieved and validated olt id: ", 0, 1,
         "Validating olt id: ", "FAIL: OLT id"},
        {FIELD(onu_id), "Retrieving onu id...", "Retrieved and validated onu id: ", -1, 128,
         "Validating ONU id: ", "FAIL: ONU id"},
        {FIELD(port_number), "Retrieving port number...", "Retrieved and validated port_number: ", 1, 128,
         "Validating port_number: ", "FAIL: port_number"},
        {FIELD(port_link_speed), "Retrieving port link speed...", "Retrieved and validated port link_speed: ", INT_MIN,
         INT_MAX},
        // Not validated: any number enables.
        {FIELD(enable), "Retrieving enable...", "Retrieved and enable value: ", INT_MIN, INT_MAX},
    };
    return rows;
}

#undef FIELD

class NumberRetrievers : public testing::TestWithParam<NumberRow> {
  protected:
    const NumberRow &row = GetParam();
    int out = 77;

    int retrieve(Params &params) { return params.read(row.retrieve, "field", &out); }
    std::string success(int value) const {
        return support::tag_of(row.success_level) + "|" + row.success + std::to_string(value);
    }
};

INSTANTIATE_TEST_SUITE_P(Field, NumberRetrievers, testing::ValuesIn(number_rows()),
                         [](const auto &row) { return row.param.field; });

TEST(NumberRetrievers, AreNine) { EXPECT_EQ(number_rows().size(), 9U); }

TEST_P(NumberRetrievers, AnnounceParseValidateAndSaySo) {
    for (const int value : {row.low, static_cast<int>((int64_t{row.low} + row.high) / 2), row.high}) {
        const LogCapture log("verbose");
        Params params(json(value));
        EXPECT_EQ(retrieve(params), 0) << value;
        EXPECT_EQ(out, value);
        EXPECT_EQ(params.message(), "(none)");
        Lines expected = {"VERB |" + row.announcement, "VERB |Parsing input integer for parameter: field",
                          "VERB |Parsed field: " + std::to_string(value), success(value)};
        if (!row.validator.empty()) {
            expected.insert(expected.end() - 1, "VERB |" + row.validator + std::to_string(value));
        }
        EXPECT_TRUE(log.said(expected));
        EXPECT_EQ(log.lines().back().file, unit);
    }
}

TEST_P(NumberRetrievers, ShowTheSuccessFromTheirLevelOn) {
    Params params(json(row.low));
    {
        const LogCapture log("debug");
        EXPECT_EQ(retrieve(params), 0);
        EXPECT_TRUE(log.said(row.success_level == support::debug ? Lines{success(row.low)} : Lines{}));
    }
    const LogCapture log("info");
    EXPECT_EQ(retrieve(params), 0);
    EXPECT_TRUE(log.silent());
}

TEST_P(NumberRetrievers, RefuseWithoutAMessageAndKeepTheValue) {
    if (row.validator.empty()) {
        return;
    }
    const std::string range =
        " outside acceptable range [" + std::to_string(row.low) + ", " + std::to_string(row.high) + "]";
    for (const int value : {row.low - 1, row.high + 1}) {
        const LogCapture log("debug");
        Params params(json(value));
        EXPECT_EQ(retrieve(params), TAVRIX_ERR_VALIDATION) << value;
        EXPECT_EQ(out, value);
        EXPECT_EQ(params.message(), "(none)");
        EXPECT_TRUE(log.said({"DEBUG|" + row.failure + range}));
    }
}

TEST(RetrieveVlanId, JudgesTheLow32Bits) {
    Params params(R"({"id": 4294967396})");
    int out = 0;
    EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_vlan_id, "id", &out), 0);
    EXPECT_EQ(out, 100);
}

// --- Port id -------------------------------------------------------------------------------------------------------

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

int retrieve_port_id(Params &params, Buffer &out, const Allowed &allowed) {
    return params.read(tavrix_jrpc_utils_retrieve_input_port_id, "field", out.get(), out.size(), allowed.all,
                       allowed.mzu_id, allowed.c_port, allowed.d_port);
}

TEST(RetrievePortId, DecidesEveryKindUnderEveryCombinationOfFlagsAndSaysWhatItAccepts) {
    for (int flags = 0; flags < 16; ++flags) {
        const Allowed allowed = {(flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0, (flags & 8) != 0};
        for (const PortValue &value : port_values) {
            const LogCapture log("debug");
            Params params(json(value.text));
            Buffer out(16);
            const int expected = expected_status(value.kind, allowed);
            EXPECT_EQ(retrieve_port_id(params, out, allowed), expected) << value.text << " with flags " << flags;
            EXPECT_EQ(out.text(), value.text);
            EXPECT_EQ(params.message(), "(none)");
            EXPECT_EQ(log.last() == std::string("DEBUG|Retrieved and validated port id: ") + value.text + "\n",
                      expected == 0);
        }
    }
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
        Params params(json(row.value));
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

// --- Switch unit's id ----------------------------------------------------------------------------------------------

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
            Params params(json(row.value));
            Buffer out(16);
            const int expected = allow_all ? row.rc_with_all : row.rc_without_all;
            EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_mzu_id, "field", out.get(), out.size(), allow_all),
                      expected)
                << row.value;
            EXPECT_EQ(out.text(), row.value);
            EXPECT_EQ(params.message(), "(none)");
            EXPECT_EQ(log.has(support::debug, unit, std::string("Retrieved and validated mzu id: ") + row.value + "\n"),
                      expected == 0);
        }
    }
}

// --- VLAN ids ------------------------------------------------------------------------------------------------------

/** The room that the reader asks for, filled, with a guard behind it. */
struct VlanIds {
    static constexpr int unset = -77;
    std::vector<int> ids = std::vector<int>(33, unset);
    int count = unset;
    Params params;

    explicit VlanIds(const std::string &json) : params(json) {}
    int retrieve() {
        const int rc = params.read(tavrix_jrpc_utils_retrieve_input_vlan_ids, "vlan_ids", ids.data(), &count);
        EXPECT_EQ(ids[32], unset) << "wrote past 32 ids";
        EXPECT_EQ(params.message(), "(none)") << "no debug message on any path";
        return rc;
    }
    std::vector<int> stored() const { return {ids.begin(), std::find(ids.begin(), ids.end(), unset)}; }
};

std::vector<int> numbers_to(int n) {
    std::vector<int> numbers;
    while (static_cast<int>(numbers.size()) < n) {
        numbers.push_back(static_cast<int>(numbers.size()) + 1);
    }
    return numbers;
}

/** {"vlan_ids": [1, 2, ..., n]} with `last` instead of the last number when it is given. */
std::string vlan_json(int n, const std::string &last = "") {
    std::string json = R"({"vlan_ids": [)";
    for (int i = 1; i <= n; ++i) {
        json += (i > 1 ? ", " : "") + (i == n && !last.empty() ? last : std::to_string(i));
    }
    return json + "]}";
}

TEST(RetrieveVlanIds, StoresUpTo32InTheirOrder) {
    for (const int n : {0, 1, 2, 31, 32}) {
        VlanIds vlans(vlan_json(n));
        EXPECT_EQ(vlans.retrieve(), 0) << n;
        EXPECT_EQ(vlans.count, n);
        EXPECT_EQ(vlans.stored(), numbers_to(n));
    }
}

TEST(RetrieveVlanIds, RefusesMoreThan32BeforeAnyIsTested) {
    for (const int n : {33, 34, 100}) {
        const LogCapture log("verbose");
        VlanIds vlans(vlan_json(n));
        EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_TOO_MANY_VLAN_IDS) << n;
        EXPECT_EQ(vlans.count, n) << "the count is set all the same";
        EXPECT_EQ(vlans.stored(), numbers_to(0));
        EXPECT_TRUE(log.silent());
    }
}

TEST(RetrieveVlanIds, StopsAtTheFirstBadOneWithTheEarlierOnesStored) {
    for (const char *bad : {"0", "4093", "-1", "null", R"("7")", "7.0", "true", "[7]", "4294967296"}) {
        VlanIds vlans(vlan_json(32, bad));
        EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_INVALID_PARAMETER) << bad;
        EXPECT_EQ(vlans.count, 32);
        EXPECT_EQ(vlans.stored(), numbers_to(31)) << bad;
    }
    VlanIds first(R"({"vlan_ids": [0, 1, 2]})");
    EXPECT_EQ(first.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_EQ(first.stored(), numbers_to(0));
}

TEST(RetrieveVlanIds, AcceptsBothBoundsAndRepeats) {
    VlanIds vlans(R"({"vlan_ids": [1, 4092, 4092]})");
    EXPECT_EQ(vlans.retrieve(), 0);
    EXPECT_EQ(vlans.stored(), (std::vector<int>{1, 4092, 4092})) << "repeats are the caller's business";
}

TEST(RetrieveVlanIds, JudgesAndStoresTheLow32Bits) {
    VlanIds vlans(R"({"vlan_ids": [4294967297, -4294963204]})"); // 2^32 + 1 and 4092 - 2^32
    EXPECT_EQ(vlans.retrieve(), 0);
    EXPECT_EQ(vlans.stored(), (std::vector<int>{1, 4092}));
}

TEST(RetrieveVlanIds, CountsWhatIsNoArrayAsEmpty) {
    for (const char *member : {"null", "7", R"("7")", "{}", "true"}) {
        VlanIds vlans(std::string(R"({"vlan_ids": )") + member + "}");
        EXPECT_EQ(vlans.retrieve(), 0) << member;
        EXPECT_EQ(vlans.count, 0);
        EXPECT_EQ(vlans.stored(), numbers_to(0));
    }
}

TEST(RetrieveVlanIds, ReportsAnAbsentMemberInOneLineBelowTheGuardedLevelsToo) {
    for (const char *level : {"verbose", "info"}) {
        for (const char *json : {"{}", "", "[]"}) {
            const LogCapture log(level);
            VlanIds vlans(json);
            EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_PARAMETER_NOT_FOUND) << json;
            EXPECT_EQ(vlans.count, VlanIds::unset);
            EXPECT_TRUE(log.said({"ERROR|Failed, vlan ID is null."}));
            EXPECT_EQ(log.lines().front().file, unit);
        }
    }
}

TEST(RetrieveVlanIds, LetsOnlyTheValidatorSpeak) {
    const LogCapture log("verbose");
    VlanIds vlans(R"({"vlan_ids": [5, 0]})");
    EXPECT_EQ(vlans.retrieve(), TAVRIX_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(log.said({"VERB |Validating vlan id: 5", "VERB |Validating vlan id: 0",
                          "DEBUG|FAIL: Vlan id outside acceptable range [1, 4092]"}));
}

TEST(RetrieveVlanIds, RefusesNullArgumentsInSilence) {
    const LogCapture log("verbose");
    VlanIds vlans(vlan_json(1));
    const auto retrieve = tavrix_jrpc_utils_retrieve_input_vlan_ids;
    EXPECT_EQ(with_each_null(vlans.params.reading(retrieve), "vlan_ids", vlans.ids.data(), &vlans.count),
              Statuses(3, TAVRIX_ERR_PARAMETER));
    EXPECT_EQ(vlans.count, VlanIds::unset);
    EXPECT_TRUE(log.silent());
    EXPECT_EQ(retrieve(vlans.params.get(), nullptr, "vlan_ids", vlans.ids.data(), &vlans.count), 0);
}

} // namespace
