/*
 * Sessions with the router: lines, ids, batches, bounds, subscriptions and monitors.
 */
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/session.h"
#include "tavrix_jrpc.h"

using namespace support;

namespace {

constexpr size_t longest_line = 65536; // with its newline
constexpr size_t mebibyte = 1024 * 1024;

std::string notification(const std::string &method, const std::string &params = "{}") {
    return R"({"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + "}";
}

std::string subscription(const std::string &verb, const std::string &patterns) {
    return request("router." + verb, "\"" + verb + "\"", R"(,"params":{"methods":)" + patterns + "}");
}

/** The text with blanks at its end, so that its line has this many bytes with the newline. */
std::string padded(const std::string &text, size_t line) { return text + std::string(line - 1 - text.size(), ' '); }

class RouterSession : public LoneRouter {
  protected:
    /** Hears the router's answer to a request for its status, and so knows that it has read what was said before. */
    static void catch_up(SessionClient &client) {
        client.say(request("router.Status", "\"caught up\""));
        EXPECT_EQ(member(client.hear_of("caught up"), "id"), "\"caught up\"");
    }
};

} // namespace

// --- Lines and ids -------------------------------------------------------------------------------------------------

TEST_F(RouterSession, AnswersWithTheRequestsOwnIds) {
    DirectService service;
    SessionClient client;
    const struct {
        const char *id;
        const char *transaction_id;
    } rows[] = {{"1", "7"},
                {"-1", ""},
                {"1.5", "2.5"},
                {"\"text\"", "-1"},
                {"\"\"", "3000000000"},
                {"9007199254740993", "9007199254740993"},
                {"0", "0"}};
    for (const auto &row : rows) {
        const std::string more =
            row.transaction_id[0] != '\0' ? std::string(",\"transaction_id\":") + row.transaction_id : "";
        client.say(request("ports.Get", row.id, more));
        service.reply(service.next_request(), "[1]");
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "id"), row.id);
        EXPECT_EQ(member(answer, "transaction_id"), more.empty() ? "(none)" : row.transaction_id) << answer;
        EXPECT_EQ(member(answer, "result"), "[1]");
    }
}

TEST_F(RouterSession, AnswersManyInFlightAsTheyComeEachToItsId) {
    DirectService service;
    SessionClient client;
    constexpr int count = 100;
    for (int i = 0; i < count; ++i) {
        client.say(request("ports.Get", std::to_string(i), ",\"params\":{\"n\":" + std::to_string(i) + "}"));
    }
    std::vector<std::string> requests;
    while (requests.size() < count) {
        requests.push_back(service.next_request());
    }
    for (auto last = requests.rbegin(); last != requests.rend(); ++last) {
        service.reply(*last, member(member(*last, "params"), "n"));
    }
    for (int i = count - 1; i >= 0; --i) {
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "id"), std::to_string(i)) << "in the order in which they were ready";
        EXPECT_EQ(member(answer, "result"), std::to_string(i));
    }
}

TEST_F(RouterSession, KeepsTwoRequestsOfTheSameIdsApart) {
    DirectService service;
    SessionClient first;
    SessionClient second;
    const std::string same = request("ports.Get", "1", ",\"transaction_id\":1");
    first.say(same);
    const std::string of_first = service.next_request();
    second.say(same);
    const std::string of_second = service.next_request();
    first.say(same);
    const std::string again = service.next_request();
    service.reply(again, "\"again\"");
    service.reply(of_second, "\"second\"");
    service.reply(of_first, "\"first\"");
    EXPECT_EQ(member(second.hear(), "result"), "\"second\"");
    EXPECT_EQ(member(first.hear(), "result"), "\"again\"");
    EXPECT_EQ(member(first.hear(), "result"), "\"first\"");
}

TEST_F(RouterSession, AnswersWhatIsNoRequestAndGoesOn) {
    SessionClient client;
    const struct {
        const char *line;
        const char *code;
        const char *id;
    } rows[] = {
        {"nonsense", "-32700", "null"},
        {R"({"half":)", "-32700", "null"},
        {"{} {}", "-32700", "null"},
        {"\xff\xfe", "-32700", "null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":"\u0000"})", "-32700", "null"},
        {"5", "-32600", "null"},
        {"\"text\"", "-32600", "null"},
        {"null", "-32600", "null"},
        {"[]", "-32600", "null"},
        {"{}", "-32600", "null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":null})", "-32600", "null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":[]})", "-32600", "null"},
        {R"({"jsonrpc":"2.0","method":"router.Status"})", "-32600", "null"},
        {R"({"jsonrpc":"2.0","method":"ports.Set"})", "-32600", "null"},
        {R"({"jsonrpc":"2.0","id":"ports.Get","result":1})", "-32601", "\"ports.Get\""},
        {R"({"method":"router.Status","id":"a"})", "-32600", "\"a\""},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"transaction_id":"1"})", "-32600", "1"},
        {R"({"jsonrpc":"1.0","method":"router.Status","id":1})", "-32002", "1"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"params":[]})", "-32602", "1"},
        {R"({"jsonrpc":"2.0","id":1})", "-32601", "1"},
        {R"({"jsonrpc":"2.0","method":7,"id":1})", "-32601", "1"},
        {R"({"jsonrpc":"2.0","method":"router.Nothing","id":1})", "-32601", "1"},
    };
    for (const auto &row : rows) {
        const std::string answer = client.ask(row.line);
        EXPECT_EQ(code_of(answer), row.code) << row.line << answer;
        EXPECT_EQ(member(answer, "id"), row.id) << row.line;
    }
    EXPECT_EQ(member(client.ask(request("router.Status", "\"good\"")), "id"), "\"good\"");
}

TEST_F(RouterSession, PassesOverBlankLinesAndCarriageReturns) {
    SessionClient client;
    client.say("");
    client.say("  \t \r");
    EXPECT_EQ(member(client.ask(request("router.Status", "1") + "\r"), "id"), "1");
}

TEST_F(RouterSession, TakesALineOf65536BytesAndNoMore) {
    SessionClient exact;
    exact.say(padded(request("router.Status", "1"), longest_line));
    EXPECT_EQ(member(exact.hear(), "id"), "1");
    exact.say(padded(request("router.Status", "2"), longest_line));
    EXPECT_EQ(member(exact.hear(), "id"), "2") << "each line for itself";
    SessionClient longer;
    longer.say(padded(request("router.Status", "1"), longest_line + 1));
    const std::string answer = longer.hear();
    EXPECT_EQ(code_of(answer), "-32600") << answer;
    EXPECT_EQ(member(answer, "id"), "null");
    EXPECT_TRUE(longer.gets_closed());
    EXPECT_EQ(member(exact.ask(request("router.Status", "3")), "id"), "3") << "the others go on";
}

TEST_F(RouterSession, WaitsForNoEndOfALineThatIsTooLong) {
    SessionClient client;
    EXPECT_TRUE(client.say_bytes(std::string(longest_line, '[')));
    EXPECT_EQ(code_of(client.hear()), "-32600");
    EXPECT_TRUE(client.gets_closed());
}

TEST_F(RouterSession, AnswersWhatIsInFlightBeforeItClosesForALongLine) {
    DirectService service;
    SessionClient client;
    client.say(request("ports.Get", "1"));
    const std::string in_flight = service.next_request();
    client.say(std::string(longest_line, ' '));
    EXPECT_EQ(code_of(client.hear()), "-32600");
    service.reply(in_flight, "\"answered\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"answered\"");
    EXPECT_EQ(client.hear(), "(closed)");
}

TEST_F(RouterSession, TakesLinesInAnyPieces) {
    SessionClient client;
    const std::string text = request("router.Status", "1") + "\n" + request("router.Status", "2") + "\n";
    for (const char c : text) {
        EXPECT_TRUE(client.say_bytes(std::string(1, c)));
    }
    EXPECT_EQ(member(client.hear(), "id"), "1");
    EXPECT_EQ(member(client.hear(), "id"), "2");
    EXPECT_TRUE(client.say_bytes(text + text + text));
    for (const char *id : {"1", "2", "1", "2", "1", "2"}) {
        EXPECT_EQ(member(client.hear(), "id"), id);
    }
}

// --- The end of a session ------------------------------------------------------------------------------------------

TEST_F(RouterSession, GetsItsAnswersAfterItHasEndedSending) {
    DirectService service;
    SessionClient client;
    client.say(request("ports.Get", "1"));
    EXPECT_TRUE(client.say_bytes(request("ports.Get", "2"))); // whose newline is the end
    client.end_sending();
    const std::string first = service.next_request();
    service.reply(service.next_request(), "\"second\"");
    service.reply(first, "\"first\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"second\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"first\"");
    EXPECT_EQ(client.hear(), "(closed)");
}

TEST_F(RouterSession, EndsAtOnceWhenNothingIsInFlight) {
    SessionClient client;
    client.say(request("router.Status", "1"));
    client.end_sending();
    EXPECT_EQ(member(client.hear(), "id"), "1");
    EXPECT_EQ(client.hear(), "(closed)");
}

TEST_F(RouterSession, CancelsWhatItHasInFlightWhenItCloses) {
    DirectService service;
    for (const bool half_first : {false, true}) {
        SessionClient client;
        client.say(request("ports.Get", "1"));
        const std::string in_flight = service.next_request();
        if (half_first) {
            client.end_sending();
            catch_up(service);
        }
        client.close();
        EXPECT_EQ(service.hear_of("service.Cancel"),
                  R"({"jsonrpc":"2.0","method":"service.Cancel","params":{"transaction_id":)" +
                      member(in_flight, "transaction_id") + "}}")
            << half_first;
    }
    const std::string status = member(service.ask(request("router.Status", "1")), "result");
    EXPECT_EQ(member(status, "in_flight"), "0");
    EXPECT_EQ(member(status, "cancelled"), "2");
}

// --- Batches -------------------------------------------------------------------------------------------------------

TEST_F(RouterSession, AnswersABatchAsOneWhenItsLastAnswerIsThere) {
    DirectService service;
    SessionClient client;
    client.say("[" + request("ports.Get", "1") + "," + request("router.Status", "2") + "," +
               request("ports.Get", "\"3\"") + "]");
    client.say(request("router.Status", "\"beside\""));
    EXPECT_EQ(member(client.hear(), "id"), "\"beside\"") << "the batch waits for its last answer";
    const std::string first = service.next_request();
    service.reply(service.next_request(), "\"third\"");
    service.reply(first, "\"first\"");
    const std::string batch = member("{\"batch\":" + client.hear() + "}", "batch");
    EXPECT_NE(batch.find(R"("id":1,"result":"first")"), std::string::npos) << batch;
    EXPECT_NE(batch.find(R"("id":"3","result":"third")"), std::string::npos) << batch;
    EXPECT_NE(batch.find(R"("id":2,"result":{)"), std::string::npos) << batch;
    EXPECT_EQ(batch.front(), '[');
}

TEST_F(RouterSession, AnswersEachMemberOfABatchForItself) {
    SessionClient client;
    EXPECT_EQ(code_of(client.ask("[]")), "-32600") << "an empty batch is answered by one object";
    const std::string batch = client.ask("[1,{},\"text\",[]," + request("router.Lost", "\"none\"") + "," +
                                         request("router.Unlock", "5") + "," + notification("ports.Set") + "]");
    size_t invalid = 0;
    for (size_t at = batch.find("-32600"); at != std::string::npos; at = batch.find("-32600", at + 1)) {
        ++invalid;
    }
    EXPECT_EQ(invalid, 5U) << "1, {}, text, [] and the notification: " << batch;
    EXPECT_NE(batch.find(R"("id":"none","error":{"code":-32601)"), std::string::npos) << batch;
    EXPECT_NE(batch.find(R"({"jsonrpc":"2.0","id":5,"result":0})"), std::string::npos) << batch;
}

TEST_F(RouterSession, AnswersABatchOfNotificationsOfAServiceWithNothing) {
    DirectService service;
    SessionClient client;
    EXPECT_EQ(member(client.ask(subscription("Subscribe", R"(["ports.*"])")), "result"), "0");
    service.say("[" + notification("ports.A") + "," + notification("ports.B") + "]");
    EXPECT_EQ(client.hear(), notification("ports.A"));
    EXPECT_EQ(client.hear(), notification("ports.B"));
    EXPECT_EQ(member(service.ask(request("router.Status", "\"next\"")), "id"), "\"next\"") << "nothing came before";
}

TEST_F(RouterSession, EndsABatchWithTheErrorsOfAServiceThatGoes) {
    SessionClient client;
    {
        DirectService service;
        client.say("[" + request("ports.Get", "1") + "," + request("ports.Get", "2") + "]");
        service.reply(service.next_request(), "\"in time\"");
        service.next_request();
        catch_up(service);
    }
    const std::string batch = client.hear();
    EXPECT_NE(batch.find(R"("id":1,"result":"in time")"), std::string::npos) << batch;
    EXPECT_NE(batch.find(R"("id":2,"error":{"code":-32601)"), std::string::npos) << batch;
}

// --- Texts that go on as they were written -------------------------------------------------------------------------

TEST_F(RouterSession, SendsARequestOnAsItWasWrittenButForTheIds) {
    const struct {
        const char *written;
        const char *sent;
    } rows[] = {
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":{"a":0.1,"b":1e2,"id":7,"s":"}\",{\\"}})",
         R"({"jsonrpc":"2.0","method":"ports.Get","params":{"a":0.1,"b":1e2,"id":7,"s":"}\",{\\"})"},
        {R"({ "jsonrpc" : "2.0", "id" : "[{" , "method":"ports.Get", "params": { "list" : [ [ ], { } ] } })",
         R"({"jsonrpc" : "2.0","method":"ports.Get","params": { "list" : [ [ ], { } ] } )"},
        {R"({"caller":{"uid":0},"jsonrpc":"2.0","id":1,"method":"ports.Get"})",
         R"({"jsonrpc":"2.0","method":"ports.Get")"},
        {"{\"jsonrpc\":\"2.0\",\t\"method\":\"ports.Get\",\"id\":1}", R"({"jsonrpc":"2.0","method":"ports.Get")"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":{"a":"é"}})",
         R"({"jsonrpc":"2.0","method":"ports.Get","params":{"a":"\u00E9"})"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","\u0069d":1})", R"({"jsonrpc":"2.0","method":"ports.Get")"},
    };
    DirectService service;
    SessionClient client;
    for (const auto &row : rows) {
        client.say(row.written);
        const std::string asked = service.next_request();
        EXPECT_EQ(asked, std::string(row.sent) + ",\"transaction_id\":" + member(asked, "transaction_id") +
                             ",\"id\":\"" TAVRIX_ROUTER_REPLY_CHANNEL "\"}");
        service.reply(asked, "0");
        EXPECT_EQ(member(client.hear(), "result"), "0");
    }
}

TEST_F(RouterSession, ReplacesATransactionIdWhereItStood) {
    DirectService service;
    SessionClient client;
    client.say(R"({"transaction_id":5,"jsonrpc":"2.0","method":"ports.Get","id":1})");
    const std::string asked = service.next_request();
    EXPECT_EQ(asked, "{\"transaction_id\":" + member(asked, "transaction_id") +
                         R"(,"jsonrpc":"2.0","method":"ports.Get","id":")" TAVRIX_ROUTER_REPLY_CHANNEL "\"}");
    service.reply(asked, "0");
    EXPECT_EQ(member(client.hear(), "transaction_id"), "5");
}

TEST_F(RouterSession, SendsAnAnswerOnAsItWasWrittenButForTheIds) {
    const struct {
        const char *before; // the number under which the service was asked
        const char *behind;
        const char *heard;
    } rows[] = {
        {R"({"jsonrpc":"2.0","id":"ports.Get","result":{"x":0.1,"id":[1],"s":"\"}"},"transaction_id":)", "}",
         R"({"jsonrpc":"2.0","id":"mine","result":{"x":0.1,"id":[1],"s":"\"}"}})"},
        {R"({"transaction_id":)", R"(, "error":{"code":-1,"message":"é"},"id":"ports.Get","jsonrpc":"2.0"})",
         R"({"error":{"code":-1,"message":"\u00E9"},"id":"mine","jsonrpc":"2.0"})"},
        {R"({"\u0069d":"ports.Get","result":1.50,"transaction_id":)", "}", R"({"id":"mine","result":1.5})"},
    };
    DirectService service;
    SessionClient client;
    for (const auto &row : rows) {
        client.say(request("ports.Get", "\"mine\""));
        const std::string number = member(service.next_request(), "transaction_id");
        service.say(row.before + number + row.behind);
        EXPECT_EQ(client.hear(), row.heard);
    }
}

// --- Subscriptions -------------------------------------------------------------------------------------------------

TEST_F(RouterSession, HearsTheNotificationsThatItsPatternsName) {
    DirectService service;
    SessionClient client;
    EXPECT_EQ(client.ask(subscription("Subscribe", R"(["ports.Changed","events.*"])")),
              R"({"jsonrpc":"2.0","id":"Subscribe","result":0})");
    for (const char *method : {"ports.Change", "ports.Changed2", "event.X", "mzu.Changed"}) {
        service.say(notification(method));
    }
    service.say(notification("ports.Changed", R"({"a":[1,null,"\u00e9"]})"));
    service.say(notification("events."));
    service.say(notification("events.LinkChanged"));
    EXPECT_EQ(client.hear(), notification("ports.Changed", R"({"a":[1,null,"\u00e9"]})")) << "as it was written";
    EXPECT_EQ(client.hear(), notification("events."));
    EXPECT_EQ(client.hear(), notification("events.LinkChanged"));
}

TEST_F(RouterSession, AddsToItsPatternsAndTakesExactlyTheseAway) {
    DirectService service;
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["ports.A","ports.B"])"));
    client.ask(subscription("Subscribe", R"(["ports.B","ports.C*"])"));
    EXPECT_EQ(client.ask(subscription("Unsubscribe", R"(["ports.B","ports.C","never"])")),
              R"({"jsonrpc":"2.0","id":"Unsubscribe","result":0})");
    for (const char *method : {"ports.B", "ports.A", "ports.B", "ports.C1"}) {
        service.say(notification(method));
    }
    EXPECT_EQ(client.hear(), notification("ports.A"));
    EXPECT_EQ(client.hear(), notification("ports.C1"));
    client.ask(subscription("Unsubscribe", R"(["ports.A","ports.C*"])"));
    service.say(notification("ports.A"));
    catch_up(service);
    EXPECT_EQ(member(client.ask(request("router.Status", "\"next\"")), "id"), "\"next\"") << "nothing came before";
}

TEST_F(RouterSession, HearsOnceWhatSeveralPatternsName) {
    DirectService service;
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["*","ports.*","ports.A","ports.A"])"));
    service.say(notification("ports.A"));
    service.say(notification("ports.B"));
    EXPECT_EQ(client.hear(), notification("ports.A"));
    EXPECT_EQ(client.hear(), notification("ports.B"));
}

TEST_F(RouterSession, HearsWhatIsPublishedOnTheBusToo) {
    support::BusService service(fleet);
    EXPECT_EQ(member(service.registered, "result"), "0") << service.registered;
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["events.*"])"));
    service.publish("events.Changed", notification("events.Changed", R"({"n":1})"));
    EXPECT_EQ(client.hear(), notification("events.Changed", R"({"n":1})"));
    service.publish("events.Changed", "no JSON");
    service.publish("events.Changed", notification("events.Other"));
    service.publish("events.Changed", request("events.Changed", "1"));
    service.publish("events.Changed", notification("events.Changed", R"({"n":2})"));
    EXPECT_EQ(client.hear(), notification("events.Changed", R"({"n":2})")) << "no notification of this channel before";
}

TEST_F(RouterSession, TakesNobodysWordForTheRoutersOwnNotifications) {
    support::BusService on_bus(fleet);
    DirectService direct({"direct", "505a5451-3ef2-4618-8087-9a22b800a510", "[]", R"(["events.List"])", "true"});
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["*"])"));
    for (const char *method : {"router.Lost", "router.Traffic", "router.Changed", "service.Cancel"}) {
        direct.say(notification(method));
        on_bus.publish(method, notification(method));
    }
    direct.say(notification("events.Last"));
    EXPECT_EQ(client.hear(), notification("events.Last"));
    on_bus.publish("ports.Last", notification("ports.Last"));
    EXPECT_EQ(client.hear(), notification("ports.Last"));
}

TEST_F(RouterSession, RefusesPatternsThatCannotBe) {
    SessionClient client;
    const std::string message = R"({"message":"methods: at most 64 patterns of at most 128 bytes"})";
    std::string many = "\"p0\"";
    for (int i = 1; i < 65; ++i) {
        many += ",\"p" + std::to_string(i) + "\"";
    }
    const std::string rows[] = {"{}",
                                R"({"methods":"events.*"})",
                                R"({"methods":[5]})",
                                R"({"methods":[""]})",
                                R"({"methods":["a\nb"]})",
                                R"({"methods":[")" + std::string(129, 'm') + "\"]}",
                                "{\"methods\":[" + many + "]}"};
    for (const char *verb : {"Subscribe", "Unsubscribe", "Monitor"}) {
        for (const std::string &params : rows) {
            const std::string answer = client.ask(request("router." + std::string(verb), "1", ",\"params\":" + params));
            EXPECT_EQ(code_of(answer), "-32602") << verb << params;
            EXPECT_EQ(member(member(answer, "error"), "data"), message) << params;
        }
        EXPECT_EQ(code_of(client.ask(request("router." + std::string(verb), "1"))), "-32602") << verb;
    }
    const std::string fit = "[" + many.substr(0, many.rfind(',')) + "]";
    EXPECT_EQ(member(client.ask(subscription("Subscribe", fit)), "result"), "0") << "64 fit";
    EXPECT_EQ(code_of(client.ask(subscription("Subscribe", R"(["one more"])"))), "-32602");
    EXPECT_EQ(member(client.ask(subscription("Subscribe", R"(["p1","p2"])")), "result"), "0") << "no more than before";
    EXPECT_EQ(member(client.ask(subscription("Unsubscribe", R"(["p1"])")), "result"), "0");
    EXPECT_EQ(member(client.ask(subscription("Subscribe", "[\"" + std::string(128, 'm') + "\"]")), "result"), "0");
    EXPECT_EQ(member(client.ask(subscription("Subscribe", "[]")), "result"), "0");
}

TEST_F(RouterSession, OffersSubscriptionsToSessionsOnly) {
    for (const char *method : {"router.Subscribe", "router.Unsubscribe", "router.Monitor", "router.Register"}) {
        EXPECT_EQ(code_of(fleet.ask(request(method, "1", R"(,"params":{"methods":[]})"))), "-32601") << method;
    }
}

// --- Who does not read ---------------------------------------------------------------------------------------------

TEST_F(RouterSession, LosesNothingBelowOneMebibyteUnread) {
    DirectService service;
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["*"])"));
    const std::string filling(10000, 'x');
    const auto numbered = [&](size_t i) {
        return notification("ports.N", "{\"n\":" + std::to_string(i) + ",\"filling\":\"" + filling + "\"}");
    };
    const size_t count = mebibyte / numbered(100).size() - 1;
    for (size_t i = 0; i < count; ++i) {
        service.say(numbered(i));
    }
    catch_up(service);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(client.hear() == numbered(i)) << i;
    }
    EXPECT_EQ(member(member(client.ask(request("router.Status", "1")), "result"), "dropped"), "0");
}

TEST_F(RouterSession, IsToldOnceHowManyNotificationsItLost) {
    DirectService service;
    SessionClient client;
    SessionClient reader;
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    const std::string filling(10000, 'x');
    constexpr int count = 400; // four megabytes
    for (int i = 0; i < count; ++i) {
        service.say(notification("ports.N", "{\"n\":" + std::to_string(i) + ",\"filling\":\"" + filling + "\"}"));
    }
    catch_up(service);
    int arrived = 0;
    std::string line = client.hear();
    for (; member(line, "method") == "\"ports.N\""; line = client.hear()) {
        ASSERT_EQ(member(member(line, "params"), "n"), std::to_string(arrived)) << "the first ones, in order";
        ++arrived;
    }
    EXPECT_GT(static_cast<size_t>(arrived) * filling.size(), mebibyte) << "that much waits for it";
    EXPECT_LT(arrived, count);
    EXPECT_EQ(line, notification("router.Lost", "{\"count\":" + std::to_string(count - arrived) + "}"));
    EXPECT_EQ(member(member(reader.ask(request("router.Status", "1")), "result"), "dropped"),
              std::to_string(count - arrived));
    service.say(notification("ports.After"));
    EXPECT_EQ(client.hear(), notification("ports.After")) << "told once, and all is well again";
}

TEST_F(RouterSession, KeepsRepliesBeyondTheBoundOfNotifications) {
    DirectService service;
    SessionClient client;
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    const std::string result = "\"" + std::string(60000, 'r') + "\"";
    constexpr int count = 100; // six megabytes
    for (int i = 0; i < count; ++i) {
        client.say(request("ports.Get", std::to_string(i)));
        service.reply(service.next_request(), result);
    }
    service.say(notification("ports.Lost"));
    catch_up(service);
    for (int i = 0; i < count; ++i) {
        const std::string answer = client.hear();
        ASSERT_EQ(member(answer, "id"), std::to_string(i));
        ASSERT_TRUE(member(answer, "result") == result);
    }
    EXPECT_EQ(client.hear(), notification("router.Lost", "{\"count\":1}"));
}

TEST_F(RouterSession, IsClosedWithMoreThanEightMebibytesOfRepliesUnread) {
    DirectService service;
    SessionClient client;
    const std::string result = "\"" + std::string(60000, 'r') + "\"";
    for (int i = 0; i < 160; ++i) { // nine megabytes
        client.say(request("ports.Get", std::to_string(i)));
    }
    for (int i = 0; i < 160; ++i) {
        service.reply(service.next_request(), result);
    }
    EXPECT_TRUE(fleet.router->says("A session does not read its answers"));
    EXPECT_TRUE(client.gets_closed());
    SessionClient next;
    EXPECT_EQ(member(next.ask(request("router.Status", "1")), "id"), "1");
}

TEST_F(RouterSession, IsNotClosedForManyLargeRepliesThatItReads) {
    DirectService service;
    SessionClient client;
    const std::string result = "\"" + std::string(3000000, 'r') + "\"";
    for (int i = 0; i < 8; ++i) { // two megabytes more in one go than may stay unread
        client.say(request("ports.Get", std::to_string(i)));
        service.reply(service.next_request(), result);
        EXPECT_TRUE(member(client.hear(), "result") == result) << i;
    }
}

TEST_F(RouterSession, TakesABatchOf256RequestsAndNoMore) {
    SessionClient client;
    const auto batch_of = [](int count) {
        std::string batch = "[";
        for (int i = 0; i < count; ++i) {
            batch += (i == 0 ? "" : ",") + request("router.Nothing", std::to_string(i));
        }
        return batch + "]";
    };
    EXPECT_EQ(client.ask(batch_of(256)).front(), '[');
    EXPECT_EQ(code_of(client.ask(batch_of(257))), "-32600");
    EXPECT_EQ(code_of(client.ask(request("router.Nothing", "1"))), "-32601") << "the session goes on";
}

TEST_F(RouterSession, BoundsWhatTheAnswersOfABatchTake) {
    DirectService service;
    SessionClient client;
    std::string batch;
    for (int i = 0; i < 100; ++i) {
        batch += (i == 0 ? "[" : ",") + request("ports.Get", std::to_string(i));
    }
    client.say(batch + "]");
    const std::string result = "\"" + std::string(1000000, 'r') + "\"";
    for (int i = 0; i < 100; ++i) {
        const std::string next = service.next_request();
        if (next == "(closed)" || next == "(time-out)") {
            break;
        }
        service.reply(next, result);
        if (fleet.router->times_said("A session does not read its answers") > 0) {
            break;
        }
    }
    EXPECT_TRUE(client.gets_closed()) << "a hundred megabytes would wait for the last answer";
    SessionClient other;
    EXPECT_EQ(member(other.ask(request("router.Status", "1")), "id"), "1");
}

// --- Monitors ------------------------------------------------------------------------------------------------------

TEST_F(RouterSession, ShowsAMonitorRequestsAndReplies) {
    DirectService service;
    SessionClient monitor;
    EXPECT_EQ(monitor.ask(subscription("Monitor", R"(["ports.*"])")), R"({"jsonrpc":"2.0","id":"Monitor","result":0})");
    SessionClient client;
    client.say(request("ports.Get", "\"mine\"", ",\"transaction_id\":5,\"params\":{\"a\":1}"));
    const std::string in_flight = service.next_request();
    service.reply(in_flight, "[1]");
    client.hear();
    const std::string asked = member(monitor.hear_of("router.Traffic"), "params");
    EXPECT_EQ(member(asked, "leg"), "\"request\"");
    EXPECT_EQ(member(asked, "call"), member(in_flight, "transaction_id"));
    EXPECT_EQ(member(asked, "method"), "\"ports.Get\"");
    EXPECT_EQ(member(asked, "service"), "\"played\"");
    EXPECT_EQ(member(asked, "road"), "\"direct\"");
    EXPECT_EQ(member(asked, "client"), "\"session\"");
    EXPECT_EQ(member(asked, "outcome"), "(none)");
    EXPECT_EQ(member(asked, "seconds"), "(none)");
    EXPECT_EQ(member(asked, "message"), in_flight) << "as the service gets it";
    const std::string replied = member(monitor.hear(), "params");
    EXPECT_EQ(member(replied, "leg"), "\"reply\"");
    EXPECT_EQ(member(replied, "call"), member(asked, "call"));
    EXPECT_EQ(member(replied, "outcome"), "\"result\"");
    EXPECT_EQ(member(member(replied, "message"), "result"), "[1]");
    EXPECT_GE(std::stod(member(replied, "time")), std::stod(member(asked, "time")));
    EXPECT_GE(std::stod(member(replied, "seconds")), 0);
}

TEST_F(RouterSession, ShowsAMonitorEveryOutcome) {
    fleet.start_lone_router({"--reply-timeout", "200"});
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["*"])"));
    const auto outcome = [&monitor] {
        const std::string reply = monitor.hear_of(R"("leg":"reply")");
        return member(member(reply, "params"), "outcome");
    };
    SessionClient client;
    {
        DirectService service;
        client.say(request("ports.Get", "1"));
        service.say(R"({"jsonrpc":"2.0","id":"ports.Get","error":{"code":-32001,"message":"m"},"transaction_id":)" +
                    member(service.next_request(), "transaction_id") + "}");
        EXPECT_EQ(outcome(), "\"error\"");
        client.say(request("ports.Get", "1"));
        EXPECT_EQ(outcome(), "\"timeout\"");
        {
            SessionClient leaving;
            leaving.say(request("ports.Get", "1"));
            service.next_request();
            service.next_request();
        }
        EXPECT_EQ(outcome(), "\"cancelled\"");
        client.say(request("ports.Get", "1"));
        service.next_request();
    }
    EXPECT_EQ(outcome(), "\"gone\"");
}

TEST_F(RouterSession, ShowsAMonitorTheOtherRoadsAndNotifications) {
    support::BusService service(fleet);
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["ports.*"])"));
    const support::StreamClient one_shot = fleet.connect();
    one_shot.say(request("ports.Get", "1"));
    service.reply(service.next_request(), "1");
    const std::string asked = member(monitor.hear(), "params");
    EXPECT_EQ(member(asked, "road"), "\"bus\"");
    EXPECT_EQ(member(asked, "client"), "\"unix\"");
    EXPECT_EQ(member(asked, "service"), "\"played\"");
    EXPECT_EQ(member(member(monitor.hear(), "params"), "leg"), "\"reply\"");
    service.publish("ports.Changed", notification("ports.Changed"));
    const std::string notified = member(monitor.hear(), "params");
    EXPECT_EQ(member(notified, "leg"), "\"notification\"");
    EXPECT_EQ(member(notified, "call"), "null");
    EXPECT_EQ(member(notified, "client"), "null");
    EXPECT_EQ(member(notified, "message"), notification("ports.Changed"));
    EXPECT_EQ(member(notified, "service"), "null") << "the bus does not tell";
    EXPECT_EQ(member(notified, "road"), "\"bus\"");
    DirectService direct({"direct", "505a5451-3ef2-4618-8087-9a22b800a510", "[]", R"(["events.List"])", "true"});
    direct.say(notification("ports.Changed"));
    const std::string told = member(monitor.hear(), "params");
    EXPECT_EQ(member(told, "service"), "\"direct\"");
    EXPECT_EQ(member(told, "road"), "\"direct\"");
}

TEST_F(RouterSession, ReplacesWhatAMonitorWatchesAndEndsIt) {
    DirectService service;
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["ports.*"])"));
    monitor.ask(subscription("Monitor", R"(["mzu.*"])"));
    service.say(notification("ports.A"));
    service.say(notification("mzu.B"));
    EXPECT_EQ(member(member(monitor.hear(), "params"), "method"), "\"mzu.B\"");
    monitor.ask(subscription("Monitor", "[]"));
    service.say(notification("mzu.C"));
    catch_up(service);
    EXPECT_EQ(member(monitor.ask(request("router.Status", "\"next\"")), "id"), "\"next\"") << "nothing came before";
}
