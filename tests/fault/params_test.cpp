/*
 * Request parameters and validators with each allocation failing once.
 */
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "support/pattern_fields.h"
#include "tavrix_error.h"
#include "tavrix_jrpc_utils.h"
#include "tavrix_validation.h"

using fault::each_failure;
using fault::Fault;
using support::LogCapture;
using support::Params;

namespace {

struct Reading {
    const char *name;
    const char *json;
    int rc;
    std::function<int(json_t *params, json_t **debug)> read;
};

char text_out[256];
int number_out = 0;

using ReadText = int (*)(json_t *, json_t **, const char *, char *, size_t);
using ReadNumber = int (*)(json_t *, json_t **, const char *, int *);

std::function<int(json_t *, json_t **)> text(ReadText read) {
    return [read](json_t *params, json_t **debug) { return read(params, debug, "k", text_out, sizeof text_out); };
}
std::function<int(json_t *, json_t **)> number(ReadNumber read) {
    return [read](json_t *params, json_t **debug) { return read(params, debug, "k", &number_out); };
}
int read_ports(json_t *params, json_t **debug) {
    tavrix_port_input records[4];
    int count = 0;
    return tavrix_jrpc_utils_retrieve_input_ports(params, debug, "k", records, &count, 4);
}

/** Readings that build a debug message, and keep their status when it cannot be built. */
const Reading refused[] = {
    {"MissingText", "{}", TAVRIX_ERR_PARAMETER_NOT_FOUND, text(tavrix_jrpc_utils_retrieve_input_status)},
    {"MissingNumber", "{}", TAVRIX_ERR_PARAMETER_NOT_FOUND, number(tavrix_jrpc_utils_retrieve_input_vlan_id)},
    {"WrongType", R"({"k": 5})", TAVRIX_ERR_INVALID_PARAMETER, text(tavrix_jrpc_utils_retrieve_input_ip_address)},
    {"LongAlias", R"({"k": "nine char"})", TAVRIX_ERR_VALIDATION, text(tavrix_jrpc_utils_retrieve_input_alias)},
    {"PortsThatAreNoArray", R"({"k": {}})", TAVRIX_ERR_INVALID_PARAMETER, read_ports},
};

} // namespace

TEST(ParameterFaults, KeepTheStatusOfARefusal) {
    for (const Reading &row : refused) {
        SCOPED_TRACE(row.name);
        Params whole(row.json);
        ASSERT_EQ(row.read(whole.get(), whole.debug()), row.rc);
        each_failure([&](Fault &fault) {
            Params params(row.json);
            fault.expect(row.rc, row.rc, [&] { return row.read(params.get(), params.debug()); });
            EXPECT_EQ(params.message(), fault.happened() ? "(none)" : whole.message());
        });
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
        json_t *array = nullptr;
        const int rc = fault.in([&] { return tavrix_jrpc_utils_populate_json_mac_addresses_array(&array, macs, 3); });
        if (!fault.happened()) {
            EXPECT_EQ(json_array_size(array), 3U);
        } else if (rc == 0) {
            EXPECT_LT(json_array_size(array), 3U) << "the list ends early";
        } else {
            EXPECT_TRUE(rc == TAVRIX_ERR_NO_MEMORY || rc == TAVRIX_ERR_GENERAL) << rc;
            EXPECT_EQ(array, nullptr);
        }
        json_decref(array);
    });
}

/** A pattern that cannot be kept is compiled for the call: one failure changes no verdict. */
TEST(PatternFaults, ChangeNoVerdictOfAFirstUse) {
    for (const support::PatternField &field : support::pattern_fields()) {
        SCOPED_TRACE(field.name);
        for (int number = 1; number < 12; ++number) {
            Fault fault(number);
            EXPECT_EQ(fault.in([&] { return field.validate(field.valid.front().c_str()); }), 0) << fault.function();
        }
    }
}
