#include "tavrix_error.h"

#include <cstdint>
#include <iterator>

#include <gtest/gtest.h>

namespace {

// The catalogue, typed out once more: the numbers are an interface.
constexpr const char *messages[] = {
    /*  0 */ "No Error or invalid error code",
    /*  1 */ "General error",
    /*  2 */ "Time out error",
    /*  3 */ "Unimplemented function error",
    /*  4 */ "Parameter error",
    /*  5 */ "Invalid MZU id",
    /*  6 */ "Invalid port",
    /*  7 */ "System access error",
    /*  8 */ "MZU offline",
    /*  9 */ "Invalid Error Code - No Message available",
    /* 10 */ "System variables uninitialized",
    /* 11 */ "Internal Error - DB Busy",
    /* 12 */ "Internal Error - DB Access Unfinished",
    /* 13 */ "Expected Converter Port.  Only a C-port is valid for this command",
    /* 14 */ "Expected Dedicated Port.  Only a D-port is valid for this command",
    /* 15 */ "Expected an MZU.",
    /* 16 */ "Hardware Error",
    /* 17 */ "Invalid Error Code - No Message available",
    /* 18 */ "This command doesn't accept multiple VLANS",
    /* 19 */ "The number of VLAN IDs entered exceed the maximum number allowed.",
    /* 20 */ "The input to an internal function was null",
    /* 21 */ "Data was about to be written to unallocated memory",
    /* 22 */ "Unable to allocate memory",
    /* 23 */ "Unable to find entry in database",
    /* 24 */ "Multiple Instances of Same Input Parameter",
    /* 25 */ "No timer expiration have occurred on read fd",
    /* 26 */ "MZU already exists.",
    /* 27 */ "MAC Address already exists.",
    /* 28 */ "MZU model does not exist.",
    /* 29 */ "MZU is online.",
    /* 30 */ "An error occurred when trying to formulate the json response.",
    /* 31 */ "A given parameter in a JSON Request was invalid.",
    /* 32 */ "The unit is not in ACTIVE mode.",
    /* 33 */ "Invalid date and time. Input format should be YYYY-MM-DD HH:MM",
    /* 34 */ "Validation has failed",
    /* 35 */ "Request parameter not found",
    /* 36 */ "The maximum number of MZUs that can be registered has been reached",
    /* 37 */ "The given port/mzu does not support poe",
    /* 38 */ "No records found for given database query",
    /* 39 */ "Data constraint violation",
    /* 40 */ "File could not be opened",
    /* 41 */ "Insufficient buffer space for the output string value",
    /* 42 */ "Invalid entry in the conf file",
    /* 43 */ "Invalid result entry",
    /* 44 */ "No JSON ID in request",
    /* 45 */ "System is busy",
    /* 46 */ "Nanomsg socket timeout",
    /* 47 */ "The given port does not exist",
    /* 48 */ "The current software version matches the factory default version",
    /* 49 */ "The given value is reserved internally",
    /* 50 */ "Could not receive a response from the system",
    /* 51 */ "Timed out while trying to connect to a remote TCP port",
    /* 52 */ "Multiple lasers are configured to be redundant with different IP addresses",
    /* 53 */ "A ZQN-H7 may not perform a config database sync while one of its lasers is in protect mode",
    /* 54 */ "A ZQN-H7 may not perform a config database sync while no lasers are in active mode",
    /* 55 */ "The entity is invalid",
    /* 56 */ "Failed to communicate with the MZU",
    /* 57 */ "Unexpected parameter detected",
    /* 58 */ "The given port or MZU does not support",
    /* 59 */ "The given MZU ID does not represent an existing MZU",
    /* 60 */ "Unknown MZU model detected",
    /* 61 */ "MAC Address expected",
    /* 62 */ "The given IP address is already in use",
    /* 63 */ "Subnets of VLAN and LOCAL management IPs are conflicting",
    /* 64 */
    "Connected MAC addresses cannot be retrieved from this MZU model while MAC address restrictions are applied",
    /* 65 */ "MZU model does not support this function",
    /* 66 */ "Unit date must be set",
    /* 67 */ "E13 can only limit on one port per MAC address",
    /* 68 */ "Port d4 cannot be changed while peer to peer communication is enabled",
    /* 69 */ "Cannot set configuration where management VLAN is not on any D port",
    /* 70 */ "Configuration queue is busy. Cannot perform this action.",
    /* 71 */ "There are pending configuration for this edge switch. Cannot perform this action",
    /* 72 */ "Attempted to set unique parameter to a value that already exists.",
    /* 73 */ "Attempted to set too many entries for the switch or port.",
};

} // namespace

TEST(ErrorTable, CarriesEveryMessageAtItsPositionAndEndsInAnEmptySlot) {
    ASSERT_EQ(std::size(messages), 74U);
    ASSERT_EQ(std::size(tavrix_error_strings), 75U);
    for (int code = 0; code < 74; ++code) {
        EXPECT_STREQ(tavrix_error_strings[code], messages[code]) << code;
    }
    EXPECT_EQ(tavrix_error_strings[74], nullptr);
}

TEST(ErrorDecode, TakesTheMagnitudeOfACode) {
    for (int code = 0; code < 74; ++code) {
        EXPECT_STREQ(tavrix_error_decode(code), messages[code]) << code;
        EXPECT_STREQ(tavrix_error_decode(-code), messages[code]) << -code;
    }
}

TEST(ErrorDecode, HasNoMessageForTheTwoNumbersBehindTheTableAndThatOfZeroAboveThem) {
    for (const int code : {74, -74, 75, -75}) {
        EXPECT_EQ(tavrix_error_decode(code), nullptr) << code;
    }
    for (const int code : {76, -76, 1000, -32601, INT32_MAX, INT32_MIN}) {
        EXPECT_STREQ(tavrix_error_decode(code), "No Error or invalid error code") << code;
    }
}

TEST(ErrorCodes, KeepTheirNumbers) {
    EXPECT_EQ(TAVRIX_OK, 0);
    EXPECT_EQ(TAVRIX_ERR_GENERAL, -1);
    EXPECT_EQ(TAVRIX_ERR_PARAMETER, -4);
    EXPECT_EQ(TAVRIX_ERR_NULL_INPUT, -20);
    EXPECT_EQ(TAVRIX_ERR_NO_MEMORY, -22);
    EXPECT_EQ(TAVRIX_ERR_VALIDATION, -34);
    EXPECT_EQ(TAVRIX_ERR_PARAMETER_NOT_FOUND, -35);
    EXPECT_EQ(TAVRIX_ERR_NO_JSON_ID, -44);
    EXPECT_EQ(TAVRIX_ERR_MQ_TIMEOUT, -46);
    EXPECT_EQ(TAVRIX_ERR_NO_RESPONSE, -50);
    EXPECT_EQ(TAVRIX_ERR_TOO_MANY_ENTRIES, -73);
}
