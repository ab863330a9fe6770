/*
 * The builders of the debug message, and the parameter readers without memory.
 */
#include "internal/tavrix_jrpc_utils_seam.h"

#include <string>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_jrpc_utils.h"

using namespace fault;
using namespace support;

namespace {

int missing(json_t **slot, const char *key) { return tavrix_jrpc_utils_set_missing_param_message(slot, key); }
int wrong_type(json_t **slot, const char *key) {
    return tavrix_jrpc_utils_set_wrong_type_message(slot, key, "integer");
}

struct Builder {
    const char *name;
    int (*build)(json_t **slot, const char *key);
    std::string before; ///< the text before the key
    std::string behind; ///< and behind it
};

class Builders : public testing::TestWithParam<Builder> {
  protected:
    std::string text(const std::string &key) const { return GetParam().before + key + GetParam().behind; }
};

INSTANTIATE_TEST_SUITE_P(Message, Builders,
                         testing::Values(Builder{"Missing", missing, "Missing expected parameter: '", "'"},
                                         Builder{"WrongType", wrong_type, "Parameter '",
                                                 "' is not of type 'integer'."}),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(Builders, StoreAnObjectOfOneMemberAndSaySoFromDebugLevelOn) {
    for (const std::string level : {"verbose", "info"}) {
        const LogCapture log(level);
        Params slot("{}");
        EXPECT_EQ(GetParam().build(slot.debug(), "port_id"), 0);
        EXPECT_EQ(slot.message(), text("port_id"));
        EXPECT_TRUE(log.said(Lines(level == "info" ? 0 : 1, "DEBUG|Sending debug message: " + text("port_id"))));
        EXPECT_TRUE(log.silent() || log.lines().front().file == "tavrix_jrpc_utils");
    }
}

TEST_P(Builders, LogButKeepWhatTheSlotHolds) {
    const LogCapture log("debug");
    Params slot("{}");
    slot.set_message("earlier");
    EXPECT_EQ(GetParam().build(slot.debug(), "port_id"), 0);
    EXPECT_EQ(slot.message(), "earlier");
    EXPECT_TRUE(log.said({"DEBUG|Sending debug message: " + text("port_id")}));
}

TEST_P(Builders, RefuseANullSlotInSilence) {
    const LogCapture log("verbose");
    EXPECT_EQ(GetParam().build(nullptr, "port_id"), TAVRIX_ERR_NULL_INPUT);
    EXPECT_TRUE(log.silent());
}

TEST_P(Builders, ReportWhatIsNoJsonString) {
    Params slot("{}");
    EXPECT_EQ(GetParam().build(slot.debug(), "\xff"), TAVRIX_ERR_JSON_RESPONSE);
    EXPECT_EQ(slot.message(), "(none)");
    slot.set_message("earlier");
    EXPECT_EQ(GetParam().build(slot.debug(), "\xff"), 0) << "nothing has to be built";
}

TEST_P(Builders, ReportThatThereIsNoMemory) {
    Params slot("{}");
    const Failing ever("Jansson", 1, ENOMEM, Failing::always);
    EXPECT_EQ(GetParam().build(slot.debug(), "port_id"), TAVRIX_ERR_JSON_RESPONSE);
    EXPECT_EQ(slot.message(), "(none)");
}

TEST(RetrieveAlias, KeepsItsStatusWhenTheMessageCannotBeBuilt) {
    Params params(R"({"alias": "nine char"})");
    params.set_message("earlier");
    char out[32];
    const Failing ever("Jansson", 1, ENOMEM, Failing::always);
    EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_alias, "alias", out, sizeof out), TAVRIX_ERR_VALIDATION);
    EXPECT_EQ(params.message(), "(none)") << "the earlier one is gone all the same";
}

TEST(RetrieveMacFilters, ReportsThatThereIsNoMemory) {
    const LogCapture log("info");
    for (const char *json : {R"({"filters": []})", R"({"filters": [{"mac": "x", "mask": "y"}]})"}) {
        Params params(json);
        tavrix_mac_filter *filters = nullptr;
        int count = -77;
        const Failing once("calloc");
        EXPECT_EQ(params.read(tavrix_jrpc_utils_retrieve_input_mac_filters, "filters", &filters, &count, 1, 2),
                  TAVRIX_ERR_NO_MEMORY)
            << json;
        EXPECT_EQ(filters, nullptr);
        EXPECT_EQ(params.message(), "(none)");
    }
    EXPECT_TRUE(log.silent());
}
