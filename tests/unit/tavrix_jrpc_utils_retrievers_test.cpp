/*
 * The field retrievers: what all of texts and numbers share, the words of each plain one, then the port id, the switch
 * unit's id and the VLAN ids.
 */
#include "tavrix_jrpc_utils.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/fields.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"
#include "tavrix_validation.h"

using namespace support;
using testing::AnyOf;

namespace {

constexpr char unit[] = "tavrix_jrpc_utils";

/** {"field": value} */
std::string json(const std::string &value) { return taken(json_pack("{s:s}", "field", value.c_str())); }

// --- Texts and numbers ---------------------------------------------------------------------------------------------

/** What the log says of a field that is read. */
struct Words {
    std::string name;         ///< in the announcement
    std::string success = {}; ///< before the value, when it is not "Retrieved and validated NAME: "
    Level level = debug;      ///< of the success
};

/** Of the fields that are just parsed and validated. */
const std::map<std::string, Words> words = {
    {"status", {"status"}},
    {"description", {"description"}},
    {"vlan_mode", {"vlan mode"}},
    {"mzu_model", {"mzu model"}},
    {"mzu_sw_upgrade_filename", {"mzu sw upgrade filename"}},
    {"mac_address", {"mac address"}},
    {"unit_sw_bank", {"sw bank"}},
    {"ip_address", {"ip address"}},
    {"unit_sw_upgrade_filename", {"unit sw upgrade filename"}},
    {"username", {"username"}},
    {"password", {"password"}},
    {"date", {"password"}}, // The date speaks of a password.
    {"time", {"time"}},
    {"entity_name", {"entity name"}}, // It is not validated, whatever the line says.
    {"entity_extension", {"entity extension"}},
    {"vlan_id", {"vlan id"}},
    {"unit_id", {"unit id"}},
    {"periodic_interval", {"periodic interval"}},
    {"laser_id", {"laser_id", "", verbose}}, // Only the laser's success is a verbose line.
    {"olt_id", {"olt id"}},
    {"onu_id", {"onu id"}},
    {"port_number", {"port number", "Retrieved and validated port_number: "}},
    {"port_link_speed", {"port link speed", "Retrieved and validated port link_speed: "}},
    {"enable", {"enable", "Retrieved and enable value: "}}, // Not validated: any number enables.
};

std::vector<Field> fields_that(bool (*fits)(const Field &field)) {
    std::vector<Field> found;
    std::copy_if(fields().begin(), fields().end(), std::back_inserter(found), fits);
    return found;
}

bool is_text_or_number(const Field &field) { return field.read_text != nullptr || field.read_number != nullptr; }

class Retrievers : public testing::TestWithParam<Field> {
  protected:
    const Field &field = GetParam();
    const bool is_text = field.read_text != nullptr;
    Buffer out{1100};

    static int read(json_t *params, json_t **debug, const char *key, char *out, size_t size) {
        return GetParam().read_text != nullptr
                   ? GetParam().read_text(params, debug, key, out, size)
                   : GetParam().read_number(params, debug, key, reinterpret_cast<int *>(out));
    }
    int retrieve(Params &params) { return params.read(read, "k", out.get(), out.size()); }
    std::string good() const { return field.params(field.valid.front()); }
};

INSTANTIATE_TEST_SUITE_P(Field, Retrievers, testing::ValuesIn(fields_that(is_text_or_number)),
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

TEST_P(Retrievers, StayWithinBuffersOfAnySize) {
    Params params(good());
    for (size_t size = 1; is_text && size <= 24; ++size) {
        Buffer cut(size);
        EXPECT_THAT(params.read(read, "k", cut.get(), size),
                    AnyOf(TAVRIX_OK, TAVRIX_ERR_VALIDATION, TAVRIX_ERR_EXPECTED_MZU));
        EXPECT_TRUE(cut.cleared_behind_text()) << size;
    }
}

class PlainRetrievers : public Retrievers {
  protected:
    const Words &said = words.at(field.name);

    std::string params_of(const std::string &value) const {
        return taken(is_text ? json_pack("{s:s}", "k", value.c_str()) : json_pack("{s:i}", "k", std::stoi(value)));
    }
    std::string stored() { return is_text ? out.text() : std::to_string(*reinterpret_cast<int *>(out.get())); }
    /** The lines at level "verbose": before the verdict, and the validator's own. */
    Lines lines_of(const std::string &value) const {
        const LogCapture log("verbose");
        char mac[20] = "";
        if (std::string(field.name) == "mac_address") {
            tavrix_validate_and_format_mac_addr_string(std::strcpy(mac, value.c_str()));
        } else if (std::string(field.name) != "entity_name" && field.has_validator()) {
            field.judge(value);
        }
        Lines lines = log.sequence();
        lines.insert(lines.begin(),
                     {"VERB |Retrieving " + said.name + "...",
                      std::string("VERB |Parsing input ") + (is_text ? "string" : "integer") + " for parameter: k",
                      "VERB |Parsed k: " + value});
        return lines;
    }
    std::string success(const std::string &value) const {
        return tag_of(said.level) + "|" +
               (said.success.empty() ? "Retrieved and validated " + said.name + ": " : said.success) + value;
    }
};

INSTANTIATE_TEST_SUITE_P(Field, PlainRetrievers,
                         testing::ValuesIn(fields_that([](const Field &field) { return words.count(field.name) > 0; })),
                         [](const auto &row) { return row.param.name; });

TEST(PlainRetrievers, AreAllButFour) {
    std::set<std::string> others; // their tests stand below and in tavrix_jrpc_utils_composite_test.cpp
    for (const Field &field : fields_that(is_text_or_number)) {
        others.insert(words.count(field.name) == 0 ? field.name : "");
    }
    EXPECT_EQ(others, (std::set<std::string>{"", "alias", "macaddr_allowed", "mzu_id", "port_id"}));
}

TEST_P(PlainRetrievers, AnnounceParseValidateAndSaySo) {
    const std::string &value = field.valid.front();
    const std::string expected = field.validate == validate_mac_address ? "AA:BB:CC:00:11:22" : value;
    Lines lines = lines_of(value);
    lines.push_back(success(expected));
    const LogCapture log("verbose");
    Params params(params_of(value));
    EXPECT_EQ(retrieve(params), 0);
    EXPECT_EQ(stored(), expected);
    EXPECT_TRUE(!is_text || out.cleared_behind_text());
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.said(lines));
    EXPECT_EQ(log.lines().front().file, unit);
    EXPECT_EQ(log.lines().back().file, unit);
}

TEST_P(PlainRetrievers, ShowTheSuccessFromItsLevelOn) {
    Params params(good());
    LogCapture log("debug");
    EXPECT_EQ(retrieve(params), 0);
    EXPECT_EQ(log.sequence().empty() ? "" : log.sequence().back(), said.level == debug ? success(stored()) : "");
    EXPECT_FALSE(log.says("Retrieving"));
    log.begin("info");
    EXPECT_EQ(retrieve(params), 0);
    EXPECT_TRUE(log.silent());
}

TEST_P(PlainRetrievers, RefuseWithoutAMessageAndKeepTheValue) {
    if (field.invalid.empty()) {
        return;
    }
    Params params(params_of(field.invalid));
    Lines lines = lines_of(field.invalid);
    const bool refused = field.validate != validate_entity_name;
    if (!refused) {
        lines.push_back(success(field.invalid));
    }
    const LogCapture log("verbose");
    EXPECT_EQ(retrieve(params), refused ? TAVRIX_ERR_VALIDATION : TAVRIX_OK);
    EXPECT_EQ(stored(), field.invalid);
    EXPECT_EQ(params.message(), "(none)");
    EXPECT_TRUE(log.said(lines));
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
    const std::tuple<const char *, Allowed, Lines> rows[] = {
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
    for (const auto &[value, allowed, validators] : rows) {
        const LogCapture log("verbose");
        Params params(json(value));
        Buffer out(16);
        retrieve_port_id(params, out, allowed);
        EXPECT_EQ(log.sequence().front(), "VERB |Retrieving port id...");
        EXPECT_EQ(log.validated(), validators) << value;
    }
}

// --- Switch unit's id ----------------------------------------------------------------------------------------------

TEST(RetrieveMzuId, AcceptsUnitsAndAllWhenAllowed) {
    for (const auto &[value, is_unit] : {std::pair<std::string, bool>("c1", true),
                                         {"C128", true},
                                         {"all", false},
                                         {"All", false},
                                         {"c129", false},
                                         {"c2-3", false},
                                         {"", false}}) {
        for (const bool allow_all : {true, false}) {
            const LogCapture log("verbose");
            Params params(json(value));
            Buffer out(16);
            const bool accepted = is_unit || (allow_all && value == "all");
            EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_mzu_id, "field", out.get(), out.size(), allow_all),
                      accepted ? TAVRIX_OK : TAVRIX_ERR_VALIDATION)
                << value;
            EXPECT_EQ(out.text(), value);
            EXPECT_EQ(params.message(), "(none)");
            EXPECT_EQ(log.first(), "VERB |Retrieving mzu id...\n");
            EXPECT_EQ(log.last() == "DEBUG|Retrieved and validated mzu id: " + value + "\n", accepted);
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
    std::vector<int> numbers(static_cast<size_t>(n));
    std::iota(numbers.begin(), numbers.end(), 1);
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

TEST(RetrieveVlanIds, AcceptsBothBoundsInTheLow32BitsAndRepeats) {
    VlanIds vlans(R"({"vlan_ids": [1, 4092, 4092, 4294967297, -4294963204]})"); // 2^32 + 1 and 4092 - 2^32
    EXPECT_EQ(vlans.retrieve(), 0);
    EXPECT_EQ(vlans.stored(), (std::vector<int>{1, 4092, 4092, 1, 4092})) << "repeats are the caller's business";
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
