/*
 * Request parameters and validators with each allocation failing once.
 */
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/fields.h"
#include "support/json.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_jrpc_utils.h"
#include "tavrix_validation.h"

using fault::each_failure;
using fault::Fault;
using support::Json;
using support::Params;

namespace {

/** The status of a refusal is the same whether its debug message can be built or not. */
void expect_status_kept(const support::Field &field, const std::string &json, int status) {
    SCOPED_TRACE(std::string(field.name) + " of " + json);
    char out[256];
    const auto read = [&](Params &params) { return field.read(params.get(), params.debug(), "k", out, sizeof out); };
    Params whole(json);
    ASSERT_EQ(read(whole), status);
    each_failure([&](Fault &fault) {
        Params params(json);
        fault.expect(status, status, [&] { return read(params); });
        EXPECT_EQ(params.message(), fault.happened() ? "(none)" : whole.message());
    });
}

} // namespace

TEST(ParameterFaults, KeepTheStatusOfARefusal) {
    for (const support::Field &field : support::fields()) {
        const std::string name = field.name;
        if (field.read_text != nullptr || field.read_number != nullptr) {
            expect_status_kept(field, "{}", TAVRIX_ERR_PARAMETER_NOT_FOUND);
            expect_status_kept(field, R"({"k": true})", TAVRIX_ERR_INVALID_PARAMETER);
        } else if (name == "ports") {
            expect_status_kept(field, R"({"k": {}})", TAVRIX_ERR_INVALID_PARAMETER);
        }
        if (name == "alias") {
            expect_status_kept(field, R"({"k": "nine char"})", TAVRIX_ERR_VALIDATION);
        }
    }
}

TEST(ParameterFaults, LeaveMacFiltersAllThereOrNotAtAll) {
    ASSERT_EQ(validate_mac_address("aa:bb:cc:dd:ee:ff"), 0) << "its pattern is kept from now on";
    each_failure([](Fault &fault) {
        Params params(R"({"k": [{"mac": "aa:bb:cc:dd:ee:ff", "mask": "ff:ff:ff:ff:ff:ff"}]})");
        tavrix_mac_filter *filters = nullptr;
        int count = 0;
        const int rc = fault.in([&] {
            return tavrix_jrpc_utils_retrieve_input_mac_filters(params.get(), params.debug(), "k", &filters, &count, 1,
                                                                2);
        });
        EXPECT_EQ(filters != nullptr, rc == 0);
        if (fault.was("calloc") && rc != 0) {
            EXPECT_EQ(rc, TAVRIX_ERR_NO_MEMORY);
        }
        if (rc == 0) {
            EXPECT_STREQ(filters[0].mac, "AA:BB:CC:DD:EE:FF");
        }
        free(filters);
    });
}

TEST(ParameterFaults, LeaveAListOfMacAddressesWholeOrWithAStatus) {
    char macs[3][20] = {"00:00:00:00:00:01", "00:00:00:00:00:02", "00:00:00:00:00:03"};
    each_failure([&](Fault &fault) {
        Json array;
        const int rc =
            fault.in([&] { return tavrix_jrpc_utils_populate_json_mac_addresses_array(into(array), macs, 3); });
        if (!fault.happened()) {
            EXPECT_EQ(json_array_size(array.get()), 3U);
        } else if (rc == 0) {
            EXPECT_LT(json_array_size(array.get()), 3U) << "the list ends early";
        } else {
            EXPECT_TRUE(rc == TAVRIX_ERR_NO_MEMORY || rc == TAVRIX_ERR_GENERAL) << rc;
            EXPECT_EQ(array, nullptr);
        }
    });
}

/** A pattern that cannot be kept is compiled for the call: one failure changes no verdict. */
TEST(PatternFaults, ChangeNoVerdictOfAFirstUse) {
    for (const support::Field &field : support::pattern_fields()) {
        SCOPED_TRACE(field.name);
        for (int number = 1; number < 12; ++number) {
            Fault fault(number);
            EXPECT_EQ(fault.in([&] { return field.validate(field.valid.front().c_str()); }), 0) << fault.function();
        }
    }
}
