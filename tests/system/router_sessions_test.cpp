/*
 * Sessions with the router: lines, ids, batches, bounds, subscriptions and monitors.
 */
#include <algorithm>
#include <utility>

#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

constexpr size_t longest_line = 65536; // with its newline
constexpr size_t mebibyte = 1024 * 1024;

/** What a monitor is shown next. */
std::string traffic(SessionClient &monitor) { return member(monitor.hear_of("router.Traffic"), "params"); }

/** The code of an error answer, and its id. */
std::string refusal_of(const std::string &answer) { return code_of(answer) + " " + id_of(answer); }

std::string numbered(size_t number, const std::string &filling) {
    return notification("ports.N", "{\"n\":" + std::to_string(number) + ",\"filling\":\"" + filling + "\"}");
}

/** The text with blanks at its end, so that its line has this many bytes with the newline. */
std::string padded(const std::string &text, size_t line) { return text + std::string(line - 1 - text.size(), ' '); }

class RouterSession : public LoneRouter {
  protected:
    /** Hears the router's answer to a request for its status, and so knows that it has read what was said before. */
    static void catch_up(SessionClient &session) {
        session.say(request("router.Status", "\"caught up\""));
        EXPECT_EQ(id_of(session.hear_of("caught up")), "\"caught up\"");
    }

    SessionClient client;
};

class RouterSessionAndService : public RouterSession {
  protected:
    DirectService service;
};

} // namespace

TEST_F(RouterSessionAndService, AnswersWithTheRequestsOwnIds) {
    const std::pair<const char *, std::string> rows[] = {{"1", "7"},
                                                         {"-1", ""},
                                                         {"1.5", "2.5"},
                                                         {"\"text\"", "-1"},
                                                         {"\"\"", "3000000000"},
                                                         {"9007199254740993", "9007199254740993"},
                                                         {"0", "0"}};
    for (const auto &[id, transaction_id] : rows) {
        const std::string answer = answered(
            service, client,
            request("ports.Get", id, transaction_id.empty() ? "" : ",\"transaction_id\":" + transaction_id), "[1]");
        EXPECT_EQ(members_of(answer, {"id", "result", "transaction_id"}),
                  std::string(id) + " [1] " + (transaction_id.empty() ? "(none)" : transaction_id));
    }
}

TEST_F(RouterSessionAndService, AnswersManyInFlightAsTheyComeEachToItsId) {
    constexpr int count = 100;
    for (int i = 0; i < count; ++i) {
        client.say(request("ports.Get", std::to_string(i), ",\"params\":{\"n\":" + std::to_string(i) + "}"));
    }
    std::vector<std::string> requests(count);
    std::generate(requests.rbegin(), requests.rend(), [&] { return service.next_request(); });
    for (const std::string &asked : requests) { // the last one first
        service.reply(asked, member(member(asked, "params"), "n"));
    }
    for (int i = count - 1; i >= 0; --i) {
        const std::string answer = client.hear();
        EXPECT_EQ(id_of(answer), std::to_string(i)) << "in the order in which they were ready";
        EXPECT_EQ(result_of(answer), std::to_string(i));
    }
}

TEST_F(RouterSessionAndService, KeepsTwoRequestsOfTheSameIdsApart) {
    SessionClient first;
    SessionClient second;
    const std::string same = request("ports.Get", "1", ",\"transaction_id\":1");
    const std::string of_first = forwarded(service, first, same);
    const std::string of_second = forwarded(service, second, same);
    const std::string again = forwarded(service, first, same);
    service.reply(again, "\"again\"");
    service.reply(of_second, "\"second\"");
    service.reply(of_first, "\"first\"");
    EXPECT_EQ(result_of(second.hear()), "\"second\"");
    EXPECT_EQ(result_of(first.hear()), "\"again\"");
    EXPECT_EQ(result_of(first.hear()), "\"first\"");
}

TEST_F(RouterSession, AnswersWhatIsNoRequestAndGoesOn) {
    const std::pair<const char *, const char *> rows[] = {
        {"nonsense", "-32700 null"},
        {R"({"half":)", "-32700 null"},
        {"{} {}", "-32700 null"},
        {"\xff\xfe", "-32700 null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":"\u0000"})", "-32700 null"},
        {"5", "-32600 null"},
        {"\"text\"", "-32600 null"},
        {"null", "-32600 null"},
        {"[]", "-32600 null"},
        {"{}", "-32600 null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":null})", "-32600 null"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":[]})", "-32600 null"},
        {R"({"jsonrpc":"2.0","method":"router.Status"})", "-32600 null"},
        {R"({"jsonrpc":"2.0","method":"ports.Set"})", "-32600 null"},
        {R"({"jsonrpc":"2.0","id":"ports.Get","result":1})", "-32601 \"ports.Get\""},
        {R"({"method":"router.Status","id":"a"})", "-32600 \"a\""},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"transaction_id":"1"})", "-32600 1"},
        {R"({"jsonrpc":"1.0","method":"router.Status","id":1})", "-32002 1"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"params":[]})", "-32602 1"},
        {R"({"jsonrpc":"2.0","id":1})", "-32601 1"},
        {R"({"jsonrpc":"2.0","method":7,"id":1})", "-32601 1"},
        {R"({"jsonrpc":"2.0","method":"router.Nothing","id":1})", "-32601 1"},
    };
    for (const auto &[line, refusal] : rows) {
        EXPECT_EQ(refusal_of(client.ask(line)), refusal) << line;
    }
    EXPECT_EQ(id_of(client.ask(request("router.Status", "\"good\""))), "\"good\"");
}

TEST_F(RouterSession, TakesALineOf65536BytesAndNoMore) {
    EXPECT_EQ(id_of(client.ask(padded(request("router.Status", "1"), longest_line))), "1");
    EXPECT_EQ(id_of(client.ask(padded(request("router.Status", "2"), longest_line))), "2") << "each line for itself";
    std::vector<SessionClient> longer(2);
    longer[0].say(padded(request("router.Status", "1"), longest_line + 1));
    EXPECT_TRUE(longer[1].say_bytes(std::string(longest_line, '['))); // whose end is not waited for
    for (SessionClient &one : longer) {
        EXPECT_EQ(refusal_of(one.hear()), "-32600 null");
        EXPECT_TRUE(one.gets_closed());
    }
    EXPECT_EQ(id_of(client.ask(request("router.Status", "3"))), "3") << "the others go on";
}

TEST_F(RouterSessionAndService, AnswersWhatIsInFlightBeforeItClosesForALongLine) {
    const std::string in_flight = forwarded(service, client, request("ports.Get", "1"));
    client.say(std::string(longest_line, ' '));
    EXPECT_EQ(code_of(client.hear()), "-32600");
    service.reply(in_flight, "\"answered\"");
    EXPECT_EQ(result_of(client.hear()), "\"answered\"");
    EXPECT_EQ(client.hear(), "(closed)");
}

TEST_F(RouterSession, TakesLinesInAnyPiecesAndPassesOverBlankOnes) {
    const std::string text = request("router.Status", "1") + "\n\n  \t \r\n" + request("router.Status", "2") + "\r\n";
    for (const char c : text) {
        EXPECT_TRUE(client.say_bytes(std::string(1, c)));
    }
    EXPECT_TRUE(client.say_bytes(text + text + text));
    for (const char *id : {"1", "2", "1", "2", "1", "2", "1", "2"}) {
        EXPECT_EQ(id_of(client.hear()), id);
    }
}

TEST_F(RouterSessionAndService, GetsItsAnswersAfterItHasEndedSending) {
    client.say(request("ports.Get", "1"));
    EXPECT_TRUE(client.say_bytes(request("ports.Get", "2"))); // whose newline is the end
    client.end_sending();
    const std::string first = service.next_request();
    service.reply(service.next_request(), "\"second\"");
    service.reply(first, "\"first\"");
    EXPECT_EQ(result_of(client.hear()), "\"second\"");
    EXPECT_EQ(result_of(client.hear()), "\"first\"");
    EXPECT_EQ(client.hear(), "(closed)");
    SessionClient has_nothing_in_flight;
    has_nothing_in_flight.end_sending();
    EXPECT_EQ(has_nothing_in_flight.hear(), "(closed)");
}

TEST_F(RouterSessionAndService, CancelsWhatItHasInFlightWhenItCloses) {
    for (const bool half_first : {false, true}) {
        SessionClient leaving;
        const std::string in_flight = forwarded(service, leaving, request("ports.Get", "1"));
        if (half_first) {
            leaving.end_sending();
            catch_up(service);
        }
        leaving.close();
        EXPECT_EQ(service.hear_of("service.Cancel"),
                  notification("service.Cancel", R"({"transaction_id":)" + member(in_flight, "transaction_id") + "}"))
            << half_first;
    }
    EXPECT_EQ(fleet.status("in_flight"), "0");
    EXPECT_EQ(fleet.status("cancelled"), "2");
}

TEST_F(RouterSessionAndService, AnswersABatchAsOneWhenItsLastAnswerIsThere) {
    client.say("[" + request("ports.Get", "1") + "," + request("router.Status", "2") + "," +
               request("ports.Get", "\"3\"") + "]");
    EXPECT_EQ(id_of(client.ask(request("router.Status", "\"beside\""))), "\"beside\"")
        << "it waits for its last answer";
    const std::string first = service.next_request();
    service.reply(service.next_request(), "\"third\"");
    service.reply(first, "\"first\"");
    EXPECT_THAT(client.hear(),
                AllOf(StartsWith("["), HasSubstr(R"("id":1,"result":"first")"),
                      HasSubstr(R"("id":"3","result":"third")"), HasSubstr(R"("id":2,"result":{)"), EndsWith("]")));
}

TEST_F(RouterSession, AnswersEachMemberOfABatchForItself) {
    EXPECT_EQ(code_of(client.ask("[]")), "-32600") << "an empty batch is answered by one object";
    const std::string batch = client.ask("[1,{},\"text\",[]," + request("router.Lost", "\"none\"") + "," +
                                         request("router.Unlock", "5") + "," + notification("ports.Set") + "]");
    EXPECT_THAT(batch, ContainsRegex("(-32600.*){5}")) << "1, {}, text, [] and the notification";
    EXPECT_THAT(batch, Not(ContainsRegex("(-32600.*){6}")));
    EXPECT_THAT(batch, HasSubstr(R"("id":"none","error":{"code":-32601)"));
    EXPECT_THAT(batch, HasSubstr(R"({"jsonrpc":"2.0","id":5,"result":0})"));
}

TEST_F(RouterSessionAndService, AnswersABatchOfNotificationsOfAServiceWithNothing) {
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", R"(["ports.*"])"))), "0");
    service.say("[" + notification("ports.A") + "," + notification("ports.B") + "]");
    EXPECT_EQ(client.hear(), notification("ports.A"));
    EXPECT_EQ(client.hear(), notification("ports.B"));
    EXPECT_EQ(id_of(service.ask(request("router.Status", "\"next\""))), "\"next\"") << "nothing came before";
}

TEST_F(RouterSession, EndsABatchWithTheErrorsOfAServiceThatGoes) {
    {
        DirectService service;
        service.reply(
            forwarded(service, client, "[" + request("ports.Get", "1") + "," + request("ports.Get", "2") + "]"),
            "\"in time\"");
        service.next_request();
        catch_up(service);
    }
    EXPECT_THAT(client.hear(),
                AllOf(HasSubstr(R"("id":1,"result":"in time")"), HasSubstr(R"("id":2,"error":{"code":-32601)")));
}

TEST_F(RouterSessionAndService, SendsARequestOnAsItWasWrittenButForTheIds) {
    const std::pair<const char *, const char *> rows[] = {
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
    for (const auto &[written, sent] : rows) {
        const std::string asked = forwarded(service, client, written);
        EXPECT_EQ(asked, std::string(sent) + ",\"transaction_id\":" + member(asked, "transaction_id") +
                             ",\"id\":\"" TAVRIX_ROUTER_REPLY_CHANNEL "\"}");
        service.reply(asked, "0");
        EXPECT_EQ(result_of(client.hear()), "0");
    }
    const std::string asked =
        forwarded(service, client, R"({"transaction_id":5,"jsonrpc":"2.0","method":"ports.Get","id":1})");
    EXPECT_EQ(asked, "{\"transaction_id\":" + member(asked, "transaction_id") + // replaced where it stood
                         R"(,"jsonrpc":"2.0","method":"ports.Get","id":")" TAVRIX_ROUTER_REPLY_CHANNEL "\"}");
    service.reply(asked, "0");
    EXPECT_EQ(member(client.hear(), "transaction_id"), "5");
}

TEST_F(RouterSessionAndService, SendsAnAnswerOnAsItWasWrittenButForTheIds) {
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
    for (const auto &row : rows) {
        client.say(request("ports.Get", "\"mine\""));
        const std::string number = member(service.next_request(), "transaction_id");
        service.say(row.before + number + row.behind);
        EXPECT_EQ(client.hear(), row.heard);
    }
}

TEST_F(RouterSessionAndService, HearsTheNotificationsThatItsPatternsName) {
    EXPECT_EQ(client.ask(subscription("Subscribe", R"(["ports.Changed","events.*","events.LinkChanged","events.*"])")),
              R"({"jsonrpc":"2.0","id":"Subscribe","result":0})");
    for (const char *method : {"ports.Change", "ports.Changed2", "event.X", "mzu.Changed"}) {
        service.say(notification(method));
    }
    const std::string named[] = {notification("ports.Changed", R"({"a":[1,null,"\u00e9"]})"), notification("events."),
                                 notification("events.LinkChanged"), notification("ports.Changed")};
    for (const std::string &one : named) {
        service.say(one);
    }
    for (const std::string &one : named) {
        EXPECT_EQ(client.hear(), one) << "as it was written, and once, however many patterns name it";
    }
}

TEST_F(RouterSessionAndService, AddsToItsPatternsAndTakesExactlyTheseAway) {
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
    EXPECT_EQ(id_of(client.ask(request("router.Status", "\"next\""))), "\"next\"") << "nothing came before";
}

TEST_F(RouterSession, HearsWhatIsPublishedOnTheBusToo) {
    BusService service(fleet);
    client.ask(subscription("Subscribe", R"(["events.*"])"));
    service.publish("events.Changed", "no JSON");
    service.publish("events.Changed", notification("events.Other"));
    service.publish("events.Changed", request("events.Changed", "1"));
    service.publish("events.Changed", notification("events.Changed", R"({"n":2})"));
    EXPECT_EQ(client.hear(), notification("events.Changed", R"({"n":2})")) << "no notification of this channel before";
}

TEST_F(RouterSession, TakesNobodysWordForTheRoutersOwnNotifications) {
    BusService on_bus(fleet);
    DirectService direct({"direct", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
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
    const auto patterns = [](size_t count) {
        return array_of(count, [](size_t i) { return "\"p" + std::to_string(i) + "\""; });
    };
    const std::string rows[] = {R"("events.*")", "[5]", R"([""])", R"(["a\nb"])", "[\"" + std::string(256, 'm') + "\"]",
                                patterns(65)};
    for (const char *verb : {"Subscribe", "Unsubscribe", "Monitor"}) {
        for (const std::string &row : rows) {
            EXPECT_EQ(error_of(client.ask(subscription(verb, row))),
                      "-32602 methods: at most 64 patterns of at most 255 bytes")
                << verb << row;
        }
        for (const char *params : {"", ",\"params\":{}"}) {
            EXPECT_EQ(code_of(client.ask(request("router." + std::string(verb), "1", params))), "-32602") << verb;
        }
    }
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", patterns(64)))), "0") << "64 fit";
    EXPECT_EQ(code_of(client.ask(subscription("Subscribe", R"(["one more"])"))), "-32602");
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", R"(["p1","p2"])"))), "0") << "no more than before";
    EXPECT_EQ(result_of(client.ask(subscription("Unsubscribe", R"(["p1"])"))), "0");
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", "[\"" + std::string(255, 'm') + "\"]"))), "0");
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", "[]"))), "0");
}

TEST_F(RouterSession, OffersSubscriptionsToSessionsOnly) {
    for (const char *method : {"router.Subscribe", "router.Unsubscribe", "router.Monitor", "router.Register"}) {
        EXPECT_EQ(code_of(fleet.ask(request(method, "1", R"(,"params":{"methods":[]})"))), "-32601") << method;
    }
}

TEST_F(RouterSessionAndService, LosesNothingBelowOneMebibyteUnread) {
    client.ask(subscription("Subscribe", R"(["*"])"));
    const std::string filling(10000, 'x');
    const size_t count = mebibyte / numbered(100, filling).size() - 1;
    for (size_t i = 0; i < count; ++i) {
        service.say(numbered(i, filling));
    }
    catch_up(service);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(client.hear() == numbered(i, filling)) << i;
    }
    EXPECT_EQ(fleet.status("dropped"), "0");
}

TEST_F(RouterSessionAndService, IsToldOnceHowManyNotificationsItLost) {
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    const std::string filling(10000, 'x');
    constexpr size_t count = 400; // four megabytes
    for (size_t i = 0; i < count; ++i) {
        service.say(numbered(i, filling));
    }
    catch_up(service);
    size_t arrived = 0;
    std::string line = client.hear();
    for (; line == numbered(arrived, filling); line = client.hear()) { // the first ones, in order
        ++arrived;
    }
    EXPECT_GT(arrived * filling.size(), mebibyte) << "that much waits for it";
    EXPECT_LT(arrived, count);
    EXPECT_EQ(line, notification("router.Lost", "{\"count\":" + std::to_string(count - arrived) + "}"));
    EXPECT_EQ(fleet.status("dropped"), std::to_string(count - arrived));
    service.say(notification("ports.After"));
    EXPECT_EQ(client.hear(), notification("ports.After")) << "told once, and all is well again";
}

TEST_F(RouterSessionAndService, KeepsRepliesBeyondTheBoundOfNotifications) {
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    const std::string result = "\"" + std::string(60000, 'r') + "\"";
    constexpr int count = 100; // six megabytes
    for (int i = 0; i < count; ++i) {
        service.reply(forwarded(service, client, request("ports.Get", std::to_string(i))), result);
    }
    service.say(notification("ports.Lost"));
    catch_up(service);
    for (int i = 0; i < count; ++i) {
        const std::string answer = client.hear();
        ASSERT_EQ(id_of(answer), std::to_string(i));
        ASSERT_TRUE(result_of(answer) == result);
    }
    EXPECT_EQ(client.hear(), notification("router.Lost", "{\"count\":1}"));
}

TEST_F(RouterSessionAndService, IsClosedWithMoreThanEightMebibytesOfRepliesUnread) {
    const std::string result = "\"" + std::string(60000, 'r') + "\"";
    for (int i = 0; i < 160; ++i) { // nine megabytes
        client.say(request("ports.Get", std::to_string(i)));
    }
    for (int i = 0; i < 160; ++i) {
        service.reply(service.next_request(), result);
    }
    EXPECT_TRUE(fleet.router->says("A session does not read its answers"));
    EXPECT_TRUE(client.gets_closed());
    EXPECT_EQ(id_of(SessionClient().ask(request("router.Status", "1"))), "1");
}

TEST_F(RouterSessionAndService, IsNotClosedForManyLargeRepliesThatItReads) {
    const std::string result = "\"" + std::string(3000000, 'r') + "\"";
    for (int i = 0; i < 8; ++i) { // two megabytes more in one go than may stay unread
        EXPECT_TRUE(result_of(answered(service, client, request("ports.Get", std::to_string(i)), result)) == result)
            << i;
    }
}

TEST_F(RouterSession, TakesABatchOf256RequestsAndNoMore) {
    const std::string nothing = request("router.Nothing", "1");
    EXPECT_EQ(client.ask(array_of(256, nothing)).front(), '[');
    EXPECT_EQ(code_of(client.ask(array_of(257, nothing))), "-32600");
    EXPECT_EQ(code_of(client.ask(request("router.Nothing", "1"))), "-32601") << "the session goes on";
}

TEST_F(RouterSessionAndService, BoundsWhatTheAnswersOfABatchTake) {
    client.say(array_of(100, request("ports.Get", "1")));
    const std::string result = "\"" + std::string(1000000, 'r') + "\"";
    for (int i = 0; i < 100 && fleet.router->times_said("A session does not read its answers") == 0; ++i) {
        service.reply(service.next_request(), result);
    }
    EXPECT_TRUE(client.gets_closed()) << "a hundred megabytes would wait for the last answer";
    EXPECT_EQ(id_of(SessionClient().ask(request("router.Status", "1"))), "1");
}

TEST_F(RouterSessionAndService, ShowsAMonitorRequestsAndReplies) {
    SessionClient monitor;
    EXPECT_EQ(monitor.ask(subscription("Monitor", R"(["ports.*"])")), R"({"jsonrpc":"2.0","id":"Monitor","result":0})");
    const std::string in_flight =
        forwarded(service, client, request("ports.Get", "\"mine\"", ",\"transaction_id\":5,\"params\":{\"a\":1}"));
    service.reply(in_flight, "[1]");
    const std::string number = member(in_flight, "transaction_id");
    const std::string asked = traffic(monitor);
    EXPECT_EQ(members_of(asked, {"leg", "call", "method", "service", "road", "client", "outcome", "seconds"}),
              R"("request" )" + number + R"( "ports.Get" "played" "direct" "session" (none) (none))");
    EXPECT_EQ(member(asked, "message"), in_flight) << "as the service gets it";
    const std::string replied = traffic(monitor);
    EXPECT_EQ(members_of(replied, {"leg", "call", "outcome"}), R"("reply" )" + number + R"( "result")");
    EXPECT_EQ(result_of(member(replied, "message")), "[1]");
    EXPECT_GE(std::stod(member(replied, "time")), std::stod(member(asked, "time")));
    EXPECT_GE(std::stod(member(replied, "seconds")), 0);
}

TEST_F(RouterSession, ShowsAMonitorEveryOutcome) {
    fleet.start_lone_router({"--reply-timeout", "200"});
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["*"])"));
    const auto outcome = [&monitor] {
        return member(member(monitor.hear_of(R"("leg":"reply")"), "params"), "outcome");
    };
    SessionClient caller;
    {
        DirectService service;
        caller.say(request("ports.Get", "1"));
        service.say(R"({"jsonrpc":"2.0","id":"ports.Get","error":{"code":-32001,"message":"m"},"transaction_id":)" +
                    member(service.next_request(), "transaction_id") + "}");
        EXPECT_EQ(outcome(), "\"error\"");
        caller.say(request("ports.Get", "1"));
        EXPECT_EQ(outcome(), "\"timeout\"");
        service.next_request();
        {
            SessionClient leaving;
            forwarded(service, leaving, request("ports.Get", "1"));
        }
        EXPECT_EQ(outcome(), "\"cancelled\"");
        forwarded(service, caller, request("ports.Get", "1"));
    }
    EXPECT_EQ(outcome(), "\"gone\"");
}

TEST_F(RouterSession, ShowsAMonitorTheOtherRoadsAndNotifications) {
    BusService service(fleet);
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["ports.*"])"));
    EXPECT_TRUE(serves(service, fleet.connect()));
    EXPECT_EQ(members_of(traffic(monitor), {"leg", "road", "client", "service"}), R"("request" "bus" "unix" "played")");
    EXPECT_EQ(members_of(traffic(monitor), {"leg"}), "\"reply\"");
    service.publish("ports.Changed", notification("ports.Changed"));
    EXPECT_EQ(members_of(traffic(monitor), {"leg", "call", "client", "service", "road", "message"}),
              R"("notification" null null null "bus" )" + notification("ports.Changed"))
        << "the bus does not tell which service";
    DirectService direct({"direct", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
    direct.say(notification("ports.Changed"));
    EXPECT_EQ(members_of(traffic(monitor), {"service", "road"}), R"("direct" "direct")");
}

TEST_F(RouterSessionAndService, ReplacesWhatAMonitorWatchesAndEndsIt) {
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["ports.*"])"));
    monitor.ask(subscription("Monitor", R"(["mzu.*"])"));
    service.say(notification("ports.A"));
    service.say(notification("mzu.B"));
    EXPECT_EQ(members_of(traffic(monitor), {"method"}), "\"mzu.B\"");
    monitor.ask(subscription("Monitor", "[]"));
    service.say(notification("mzu.C"));
    catch_up(service);
    EXPECT_EQ(id_of(monitor.ask(request("router.Status", "\"next\""))), "\"next\"") << "nothing came before";
}
