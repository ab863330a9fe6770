#include "tavrix_jrpc.h"

#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tavrix_error.h"

using namespace support;

namespace {

constexpr std::pair<int, const char *> catalogue[] = {
    {-32001, "Unknown Error"},
    {-32002, "JSONRPC Version not supported"},
    {-32003, "This feature is not supported in this version, or the API may be incorrectly formed.  Please check the "
             "API documentation for further details."},
    {-32004, "Unable to formulate a JSON response"},
    {-32005, "Command timed out"},
    {-32006, "The given value is reserved internally"},
    {-32007, "Attempted to set unique parameter to a value that already exists."},
    {-32020, "The MZU for the given MZU ID is offline, and is expected to be online."},
    {-32021, "The MZU for the given MZU ID is online, and is expected to be offline."},
    {-32022, "The given MZU ID does not represent an existing MZU."},
    {-32023, "The given MZU ID represents an MZU that already exists."},
    {-32024, "An MZU ID was expected."},
    {-32025, "The maximum allowed limit for MZUs has been reached."},
    {-32026, "MAC address limiting is not supported by the MZU or port."},
    {-32027, "Switch model does not support this function, or switch is in failed state."},
    {-32028, "Configuration queue is busy. Cannot perform this action."},
    {-32029, "There are pending configuration for this edge switch. Cannot perform this action."},
    {-32030, "The given Port ID is invalid."},
    {-32034, "The given id does not represent any existing port(s)."},
    {-32031, "The given Port ID does not represent a D-port."},
    {-32032, "The given Port ID does not represent a C-port."},
    {-32033, "The number of VLAN IDs entered exceed the maximum number allowed."},
    {-32035, "The given port(s) do not support POE."},
    {-32036,
     "Connected MAC addresses cannot be retrieved from this MZU model while MAC address restrictions are applied"},
    {-32037, "Cannot put same MAC address allowed on more than one E13 port"},
    {-32038, "Cannot changed status or VLAN of port d4 while peer to peer communication is enabled"},
    {-32058, "Cannot set configuration where the management VLAN is not on a D port"},
    {-32039, "Attempted to set too many entries for the switch or port."},
    {-32050, "The box is not in ACTIVE mode."},
    {-32051, "Invalid date and time. Input format should be YYYY-MM-DD HH:MM"},
    {-32052, "Firmware file not present in filesystem"},
    {-32053, "Software is already the factory default version"},
    {-32054, "Multiple lasers are configured to be redundant with different IP addresses"},
    {-32055, "A ZQN-H7 may not perform a config database sync while one of its lasers is in protect mode"},
    {-32056, "A ZQN-H7 may not perform a config database sync while no lasers are in active mode"},
    {-32044, "The given IP address is already in use"},
    {-32045, "Subnets of VLAN and LOCAL management IP addresses are conflicting"},
    {-32057, "Date on the ZQN-H7 must be set"},
    {-32010, "The database encountered an error while processing the data."},
    {-32013, "No records in the database are found."},
    {-32011, "Insufficient memory error. Please reset the H7."},
    {-32012, "One of the dependent hardware components returned an error."},
    {-32014, "System is busy."},
    {-32040, "The given MAC Address already exists."},
    {-32041, "The given MAC Address does not exist."},
    {-32042, "The given model does not exist."},
    {-32043, "A Switch MAC address is required for this operation."},
    {-32600, "Invalid Request"},
    {-32601, "Method not found"},
    {-32602, "Invalid parameter(s)"},
    {-32603, "Internal error"},
    {-32700, "Parse error"},
};

constexpr std::pair<int, int> conversions[] = {
    // of the library's statuses
    {TAVRIX_ERR_GENERAL, -32001},
    {TAVRIX_ERR_JSON_RESPONSE, -32004},
    {TAVRIX_ERR_UNIMPLEMENTED, -32003},
    {TAVRIX_ERR_PARAMETER_NOT_FOUND, -32602},
    {TAVRIX_ERR_TIMEOUT, -32005},
    {TAVRIX_ERR_RESERVED_VALUE, -32006},
    {TAVRIX_ERR_UNEXPECTED_PARAMETER, -32602},
    {TAVRIX_ERR_NOT_UNIQUE, -32007},
    {TAVRIX_ERR_INVALID_ENTITY, -32602},
    {TAVRIX_ERR_MZU_OFFLINE, -32020},
    {TAVRIX_ERR_MZU_ONLINE, -32021},
    {TAVRIX_ERR_NO_SUCH_MZU, -32022},
    {TAVRIX_ERR_MZU_EXISTS, -32023},
    {TAVRIX_ERR_EXPECTED_MZU, -32024},
    {TAVRIX_ERR_MZU_LIMIT, -32025},
    {TAVRIX_ERR_NOT_SUPPORTED, -32026},
    {TAVRIX_ERR_CONFIG_QUEUE_BUSY, -32028},
    {TAVRIX_ERR_CONFIG_PENDING, -32029},
    {TAVRIX_ERR_MODEL_UNSUPPORTED, -32027},
    {TAVRIX_ERR_INVALID_PORT, -32030},
    {TAVRIX_ERR_NO_SUCH_PORT, -32034},
    {TAVRIX_ERR_EXPECTED_D_PORT, -32031},
    {TAVRIX_ERR_EXPECTED_C_PORT, -32032},
    {TAVRIX_ERR_TOO_MANY_VLAN_IDS, -32033},
    {TAVRIX_ERR_NO_POE, -32035},
    {TAVRIX_ERR_MACS_RESTRICTED, -32036},
    {TAVRIX_ERR_E13_MAC_LIMIT, -32037},
    {TAVRIX_ERR_D4_PEER_TO_PEER, -32038},
    {TAVRIX_ERR_TOO_MANY_ENTRIES, -32039},
    {TAVRIX_ERR_UNIT_NOT_ACTIVE, -32050},
    {TAVRIX_ERR_INVALID_DATE_TIME, -32051},
    {TAVRIX_ERR_FILE_OPEN, -32052},
    {TAVRIX_ERR_FACTORY_VERSION, -32053},
    {TAVRIX_ERR_LASER_ADDRESSES_DIFFER, -32054},
    {TAVRIX_ERR_LASER_IN_PROTECT_MODE, -32055},
    {TAVRIX_ERR_NO_ACTIVE_LASER, -32056},
    {TAVRIX_ERR_IP_IN_USE, -32044},
    {TAVRIX_ERR_SUBNET_CONFLICT, -32045},
    {TAVRIX_ERR_DATE_NOT_SET, -32057},
    {TAVRIX_ERR_SYSTEM_ACCESS, -32010},
    {TAVRIX_ERR_DB_BUSY, -32010},
    {TAVRIX_ERR_DB_UNFINISHED, -32010},
    {TAVRIX_ERR_NO_RECORDS, -32013},
    {TAVRIX_ERR_UNALLOCATED_WRITE, -32011},
    {TAVRIX_ERR_NO_MEMORY, -32011},
    {TAVRIX_ERR_HARDWARE, -32012},
    {TAVRIX_ERR_SYSTEM_BUSY, -32014},
    {TAVRIX_ERR_MAC_EXPECTED, -32043},
    {TAVRIX_ERR_MANAGEMENT_VLAN, -32058},
    {TAVRIX_ERR_MAC_EXISTS, -32040},
    {TAVRIX_ERR_NO_SUCH_MODEL, -32042},
    {TAVRIX_ERR_PARAMETER, -32001},
    {TAVRIX_ERR_INVALID_PARAMETER, -32602},
};

} // namespace

TEST(JrpcCatalogue, HasAMessageForEveryCode) {
    EXPECT_EQ(std::size(catalogue), 52U);
    for (const auto &[code, text] : catalogue) {
        EXPECT_STREQ(tavrix_jrpc_error_message(code), text) << code;
    }
}

TEST(JrpcCatalogue, FallsBackForCodesItLacks) {
    for (const int code : {0, -1, 32001, -32000, -32008, -32099, -32599, -32701}) {
        EXPECT_STREQ(tavrix_jrpc_error_message(code), "Unknown Error") << code;
    }
}

TEST(ConvertToJrpc, FollowsTheTable) {
    for (const auto &[internal, jrpc] : conversions) {
        EXPECT_EQ(tavrix_jrpc_error_convert_tavrix_to_jrpc(internal), jrpc) << internal;
    }
}

TEST(ConvertToJrpc, AnswersUnknownErrorForEveryOtherCode) {
    std::set<int> known;
    for (const auto &[internal, jrpc] : conversions) {
        EXPECT_TRUE(known.insert(internal).second) << internal << " stands twice";
    }
    EXPECT_EQ(known.size(), 53U);
    for (int code = -80; code <= 5; ++code) {
        EXPECT_TRUE(known.count(code) == 1 || tavrix_jrpc_error_convert_tavrix_to_jrpc(code) == -32001) << code;
    }
    EXPECT_EQ(known.count(TAVRIX_ERR_NULL_INPUT) + known.count(TAVRIX_ERR_VALIDATION), 0U);
}

TEST(ConvertFromJrpc, TakesTheFirstRowThatFits) {
    std::map<int, int> first;
    for (const auto &[internal, jrpc] : conversions) {
        first.emplace(jrpc, internal);
    }
    for (const auto &[jrpc, internal] : first) {
        EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(jrpc), internal) << jrpc;
    }
    EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(-32602), TAVRIX_ERR_PARAMETER_NOT_FOUND);
    EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(-32010), TAVRIX_ERR_SYSTEM_ACCESS);
    EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(-32011), TAVRIX_ERR_UNALLOCATED_WRITE);
    EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(-32001), TAVRIX_ERR_GENERAL);
}

TEST(ConvertFromJrpc, AnswersTheOtherNumberingWhenNoRowFits) {
    for (const int code : {-32600, -32601, -32603, -32700, -32002, -32041, 0, 5}) {
        EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(code), -32001) << code;
    }
}

TEST(Conversions, SayWhatTheyReceivedFromDebugLevelOn) {
    for (const std::string level : {"debug", "info"}) {
        const LogCapture log(level);
        tavrix_jrpc_error_convert_tavrix_to_jrpc(TAVRIX_ERR_PARAMETER_NOT_FOUND);
        tavrix_jrpc_error_convert_jrpc_to_tavrix(-32602);
        EXPECT_EQ(log.said({"DEBUG|Received error code <-35> to convert to jrpc error",
                            "DEBUG|Received jrpc error code <-32602> to convert to tavrix error"}),
                  level == "debug");
        EXPECT_TRUE(level == "info" ? log.silent() : log.lines().front().file == "tavrix_jrpc");
    }
}
