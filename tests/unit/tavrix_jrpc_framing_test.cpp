#include <cstdlib>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"

using namespace support;

namespace {

Answer split(const std::string &frame, int length) {
    return answer_of([&](char **text) { return tavrix_jrpc_parse_msg(frame.data(), length, text); });
}

Answer split(const std::string &frame) { return split(frame, static_cast<int>(frame.size())); }

Answer channel_of(const std::string &json_text) {
    char untouched = 0;
    char *channel = &untouched;
    const int rc = tavrix_jrpc_parse_channel(json_text.c_str(), &channel);
    return {rc, channel == &untouched ? "(untouched)" : taken(channel)};
}

} // namespace

TEST(AddChannel, PutsABarBetweenChannelAndText) {
    char *frame = tavrix_api_router_json_add_channel("abc", "{}");
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(std::string(frame, 7), std::string("abc|{}\0", 7));
    free(frame);
    EXPECT_EQ(taken(tavrix_api_router_json_add_channel("", "")), "|");
    EXPECT_EQ(taken(tavrix_api_router_json_add_channel("a", std::string(100000, 'x').c_str())),
              "a|" + std::string(100000, 'x'));
}

TEST(ParseMsg, SplitsAtTheFirstBar) {
    EXPECT_EQ(split("abc|{}").text, "{}");
    EXPECT_EQ(split("a|b|c").text, "b|c");
    EXPECT_EQ(split("|all").text, "all");
    EXPECT_EQ(split("abc|").text, "");
    EXPECT_EQ(split("abc|").rc, 0);
}

TEST(ParseMsg, StaysWithinTheGivenLength) {
    EXPECT_EQ(split("abc|defg", 6).text, "de");
    EXPECT_EQ(split("abc|d", 4).text, "");
    const LogCapture log("debug");
    for (const int length : {3, 0, -5}) {
        EXPECT_EQ(split("abc|d", length).rc, TAVRIX_ERR_GENERAL) << "the bar lies beyond";
    }
    EXPECT_EQ(split("abcd").rc, TAVRIX_ERR_GENERAL) << "no bar";
    EXPECT_TRUE(log.said(Lines(4, "DEBUG|[tavrix_connect_parse_msg]: Failed to parse JSON message")));
}

TEST(ParseChannel, TakesTheIdWhenItIsAString) {
    EXPECT_EQ(channel_of(R"({"id":"chan-1","result":0})").text, "chan-1");
    EXPECT_EQ(channel_of(R"({"id":"chan-1"})").rc, 0);
    EXPECT_EQ(channel_of(R"({"id":""})").text, "");
    EXPECT_EQ(channel_of(R"({"id":"a"} trailing)").text, "a");
}

TEST(ParseChannel, TellsANotificationApart) {
    const LogCapture log("verbose");
    const Answer none = channel_of(R"({"method":"x"})");
    EXPECT_EQ(none.rc, TAVRIX_ERR_NO_JSON_ID);
    EXPECT_EQ(none.text, "(null)");
    EXPECT_TRUE(log.said({"VERB |[tavrix_jrpc_parse_channel]: No ID"}));
}

TEST(ParseChannel, RefusesOtherIdsAndWhatIsNoObjectAndLeavesTheOutputAlone) {
    for (const std::string text : {R"({"id":7})", R"({"id":1.5})", R"({"id":true})", R"({"id":null})", R"({"id":[]})",
                                   R"({"id":{}})", "[]", "7", "\"id\"", "null"}) {
        const LogCapture log("debug");
        const Answer refused = channel_of(text);
        EXPECT_EQ(refused.rc, TAVRIX_ERR_GENERAL) << text;
        EXPECT_EQ(refused.text, "(untouched)") << text;
        const std::string flaw = text[0] == '{' ? "Invalid ID" : "Invalid JSON";
        EXPECT_TRUE(log.said({"DEBUG|[tavrix_jrpc_parse_channel]: " + flaw}));
    }
}

TEST(ParseChannel, RefusesWhatIsNoJson) {
    for (const std::string text : {"{\n]", R"({"id":"a","id":"b"})"}) {
        const LogCapture log("debug");
        EXPECT_EQ(channel_of(text).text, "(untouched)");
        EXPECT_EQ(channel_of(text).rc, TAVRIX_ERR_GENERAL);
        const json_error_t error = parse_error(text);
        EXPECT_EQ(log.sequence().front(), "DEBUG|[tavrix_jrpc_parse_channel]: Cannot parse JSON message.");
        EXPECT_EQ(log.last(), "DEBUG|Error on line[" + std::to_string(error.line) + "]: " + error.text + "\n");
    }
    EXPECT_EQ(parse_error("{\n]").line, 2);
}

TEST(ServiceChannel, FollowsTheLeadingLetters) {
    const std::string first = "3a6f8f51-502f-4238-9638-29764ff1a8a4";
    const std::string events = "505a5451-3ef2-4618-8087-9a22b800a510";
    const std::string interfaces = "b4469f46-e963-42ef-9fd2-f978e73adc76";
    const std::string other = "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3";
    const std::pair<const char *, std::string> rows[] = {
        {"d", first},         {"db.ApplyBackup", first},
        {"p", first},         {"ports.Get", first},
        {"en", first},        {"entity.X", first},
        {"mz", first},        {"mzu.List", first},
        {"ev", events},       {"events.X", events},
        {"i", interfaces},    {"interfaces.X", interfaces},
        {"e", other},         {"eth.X", other},
        {"m", other},         {"mac.X", other},
        {"", other},          {"logger.ReloadConf", other},
        {"Ports.Get", other}, {"EVENTS", other},
        {"D", other},         {"eV", other},
        {"mZ", other},        {"I", other},
        {"z", other},
    };
    for (const auto &[method, channel] : rows) {
        EXPECT_EQ(taken(tavrix_api_router_json_parse_channel(method)), channel) << method;
    }
}

TEST(Framing, RefusesNull) {
    char *text = nullptr;
    const Statuses refused(2, TAVRIX_ERR_NULL_INPUT);
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_api_router_json_parse_channel(nullptr), nullptr);
    EXPECT_EQ(tavrix_api_router_json_add_channel(nullptr, "{}"), nullptr);
    EXPECT_EQ(tavrix_api_router_json_add_channel("abc", nullptr), nullptr);
    EXPECT_EQ(with_each_null(tavrix_jrpc_parse_msg, "a|b", 3, &text), refused);
    EXPECT_EQ(with_each_null(tavrix_jrpc_parse_channel, "{}", &text), refused);
    Lines expected;
    for (const std::string function :
         {"tavrix_api_router_json_parse_channel", "tavrix_api_router_json_add_channel",
          "tavrix_api_router_json_add_channel", "tavrix_connect_parse_msg", "tavrix_connect_parse_msg",
          "tavrix_jrpc_parse_channel", "tavrix_jrpc_parse_channel"}) {
        expected.push_back("DEBUG|[" + function + "]: Null Pointer!");
    }
    EXPECT_TRUE(log.said(expected));
    EXPECT_EQ(log.lines().front().file, "tavrix_jrpc");
}
