#include <csignal>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"

using support::code_of;
using support::Fleet;
using support::member;
using support::PlayedService;
using support::request;
using support::StreamClient;

namespace {

constexpr char first_channel[] = "3a6f8f51-502f-4238-9638-29764ff1a8a4";

std::string reply_of(const std::string &method, const std::string &result, const std::string &transaction_id) {
    return R"({"jsonrpc":"2.0","id":)" + method + ",\"result\":" + result + ",\"transaction_id\":" + transaction_id +
           "}";
}

/** A service's reply to a request as it came over the bus. */
std::string reply_to(const std::string &on_bus, const std::string &result) {
    return reply_of(member(on_bus, "method"), result, member(on_bus, "transaction_id"));
}

} // namespace

TEST(RouterDaemon, CarriesARequestToItsServiceAndTheReplyBack) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "\"mine\"", R"(,"transaction_id":5,"params":{"port_id":"d1"})"));
    const std::string on_bus = service.next_request();
    EXPECT_EQ(on_bus, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + member(on_bus, "transaction_id") +
                          R"(,"params":{"port_id":"d1"},"id":"2524546b-ca99-4868-a062-359cefacff7c"})");
    service.reply(reply_to(on_bus, "[1]"));
    EXPECT_EQ(client.hear(), reply_of("\"ports.Get\"", "[1]", "5"));
}

TEST(RouterDaemon, GivesAClientTheServicesAnswerWithTheClientsOwnTransactionId) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const struct {
        const char *asked;    ///< in the request
        const char *answered; ///< in the client's answer
    } rows[] = {
        {R"(,"transaction_id":5)", R"("transaction_id":5,)"},
        {R"(,"transaction_id":-1)", R"("transaction_id":-1,)"},
        {R"(,"transaction_id":2.5)", R"("transaction_id":2.5,)"},
        {R"(,"transaction_id":9007199254740993)", R"("transaction_id":9007199254740993,)"},
        {"", ""},
    };
    const std::string before = R"({"more":[null,true],"id":"ports.Get",)";
    const std::string after = R"("jsonrpc":"2.0","error":{"data":{"z":"\u00E9","a":1.5},"code":-32001}})";
    for (const auto &row : rows) {
        const StreamClient client = fleet.connect();
        client.say(request("ports.Get", "1", row.asked));
        const std::string on_bus = member(service.next_request(), "transaction_id");
        EXPECT_NE(on_bus, member(request("ports.Get", "1", row.asked), "transaction_id")) << "the router's own";
        service.reply(before + "\"transaction_id\":" + on_bus + "," + after);
        EXPECT_EQ(client.hear(), before + row.answered + after);
    }
}

TEST(RouterDaemon, NeverDeliversALateReplyToTheNextClient) {
    for (const std::string asked : {",\"transaction_id\":1", ""}) {
        Fleet fleet;
        fleet.start_router({"--reply-timeout", "300"});
        PlayedService service(fleet, first_channel);
        const StreamClient first = fleet.connect();
        first.say(request("ports.Get", "\"a\"", asked));
        const std::string first_on_bus = service.next_request();
        EXPECT_EQ(code_of(first.hear()), "-32005");
        const StreamClient second = fleet.connect();
        second.say(request("ports.Get", "\"a\"", asked)); // the very same request
        const std::string second_on_bus = service.next_request();
        service.reply(reply_to(first_on_bus, "\"late\""));
        service.reply(reply_of("\"ports.Set\"", "\"other\"", member(second_on_bus, "transaction_id")));
        service.reply(reply_of("\"ports.Get\"", "\"as the client sent it\"", "1"));
        service.reply(reply_to(second_on_bus, "\"right\""));
        EXPECT_EQ(member(second.hear(), "result"), "\"right\"") << asked;
        EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    }
}

TEST(RouterDaemon, NeverDeliversALateReplyAfterTheFirstClientLeft) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    StreamClient first = fleet.connect();
    first.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    const std::string first_on_bus = service.next_request();
    first.close();
    EXPECT_TRUE(fleet.router->says("The client of ports.Get has gone"));
    const StreamClient second = fleet.connect();
    second.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    const std::string second_on_bus = service.next_request();
    service.reply(reply_to(first_on_bus, "\"late\""));
    service.reply(reply_to(second_on_bus, "\"right\""));
    EXPECT_EQ(member(second.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, NeverDeliversALateReplyToAClientOfItsNextRun) {
    Fleet fleet;
    fleet.start_router();
    const auto first_transaction_id = [&fleet] {
        PlayedService service(fleet, first_channel);
        const StreamClient client = fleet.connect();
        client.say(request("ports.Get", "1"));
        return member(service.next_request(), "transaction_id");
    };
    const std::string earlier = first_transaction_id();
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
    fleet.start_router();
    EXPECT_NE(first_transaction_id(), earlier);
}

TEST(RouterDaemon, DiscardsAReplyThatComesWhileNobodyWaits) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    service.reply(reply_of("\"ports.Get\"", "\"stray\"", "1"));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    service.reply(reply_to(service.next_request(), "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, TakesAReplyThatArrivesTwiceOnce) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.ports_address}); // once more
    PlayedService service(fleet, first_channel);
    for (const char *result : {"1", "2", "3"}) {
        const StreamClient client = fleet.connect();
        client.say(request("ports.Get", "1"));
        service.reply(reply_to(service.next_request(), result));
        EXPECT_EQ(member(client.hear(), "result"), result);
    }
}

TEST(RouterDaemon, SurvivesRubbishOnItsReplyChannel) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    const std::string on_bus = service.next_request();
    for (const char *text :
         {"rubbish", "[]", "{}", "5", R"({"method":"router.Nothing"})", R"({"method":7,"id":true})"}) {
        service.reply(text);
    }
    service.reply(reply_to(on_bus, "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, AnswersForAServiceThatDoesNot) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "100"});
    const struct {
        const char *id;
        const char *transaction_id;
        const char *answered;
    } rows[] = {
        {"\"a\"", "7", "7"},
        {"\"a\"", "", "0"},
        {"5", "7", "7"},
        {"5", "", "(none)"},
        {"\"a\"", "3000000000", "3000000000"},
        {"1.5", "2.5", "2.5"},
    };
    for (const auto &row : rows) {
        const std::string more =
            row.transaction_id[0] != '\0' ? std::string(",\"transaction_id\":") + row.transaction_id : "";
        const std::string answer = fleet.ask(request("ports.Get", row.id, more));
        EXPECT_EQ(code_of(answer), "-32005");
        EXPECT_EQ(member(answer, "id"), row.id);
        EXPECT_EQ(member(answer, "transaction_id"), row.answered);
    }
}

TEST(RouterDaemon, AnswersBusyWhileTheSystemIsLocked) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "100"});
    EXPECT_EQ(member(fleet.ask(request("router.Lock", "1")), "result"), "0");
    for (const char *id : {"\"a\"", "5"}) {
        const std::string answer = fleet.ask(request("ports.Get", id, ",\"transaction_id\":9"));
        EXPECT_EQ(code_of(answer), "-32014");
        EXPECT_EQ(member(answer, "id"), id);
        EXPECT_EQ(member(answer, "transaction_id"), "9");
    }
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "locked"), "true");
    EXPECT_EQ(member(fleet.ask(request("router.Unlock", "1")), "result"), "0");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005") << "forwarded again";
}

TEST(RouterDaemon, IsLockedOverTheBusToo) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    service.reply(R"({"jsonrpc":"2.0","method":"router.Lock"})");
    EXPECT_TRUE(fleet.router->says("The system is locked"));
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32014");
    service.reply(R"({"jsonrpc":"2.0","method":"router.Unlock"})");
    EXPECT_TRUE(fleet.router->says("The system is unlocked"));
}

TEST(RouterDaemon, RefusesMalformedRequestsAndGoesOn) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const struct {
        const char *text;
        const char *code;
        const char *id;
        const char *transaction_id;
    } rows[] = {
        {"nonsense", "-32600", "null", "(none)"},
        {"[]", "-32600", "null", "(none)"},
        {R"({"half":)", "-32600", "null", "(none)"},
        {"\xff\xfe", "-32600", "null", "(none)"},
        {"{}", "-32600", "null", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":null})", "-32600", "null", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":{}})", "-32600", "null", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":true,"transaction_id":3})", "-32600", "null", "3"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":null})", "-32600", "1", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":"7"})", "-32600", "1", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":true})", "-32600", "1", "(none)"},
        {R"({"method":"ports.Get","id":"a","transaction_id":3})", "-32600", "\"a\"", "3"},
        {R"({"method":"router.Status","id":"a"})", "-32600", "\"a\"", "(none)"},
        {R"({"jsonrpc":2.0,"method":"ports.Get","id":1.5})", "-32600", "1.5", "(none)"},
        {R"({"jsonrpc":"1.0","method":"ports.Get","id":1})", "-32002", "1", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":[]})", "-32602", "1", "(none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":null})", "-32602", "1", "(none)"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"params":[]})", "-32602", "1", "(none)"},
        {R"({"jsonrpc":"2.0","id":"a","transaction_id":3})", "-32601", "\"a\"", "3"},
        {R"({"jsonrpc":"2.0","id":"a","method":5})", "-32601", "\"a\"", "(none)"},
    };
    for (const auto &row : rows) {
        const std::string answer = fleet.ask(row.text);
        EXPECT_EQ(code_of(answer), row.code) << row.text << answer;
        EXPECT_EQ(member(answer, "id"), row.id) << row.text;
        EXPECT_EQ(member(answer, "transaction_id"), row.transaction_id) << row.text;
    }
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "\"good\"", ",\"params\":{}"));
    const std::string first_on_bus = service.next_request();
    EXPECT_EQ(member(first_on_bus, "params"), "{}") << "the service saw none of those";
    service.reply(reply_to(first_on_bus, "1"));
    EXPECT_EQ(member(client.hear(), "result"), "1");
}

TEST(RouterDaemon, ForwardsNoNotification) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"ports.SetEnabled"})"), "");
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"router.Lock"})"), "");
    EXPECT_TRUE(fleet.router->says("Refused the notification router.Lock of a client"));
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    EXPECT_EQ(member(service.next_request(), "method"), "\"ports.Get\"") << "nothing came before";
}

TEST(RouterDaemon, Takes8192BytesAndNoMore) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const std::string text = request("ports.Get", "1", ",\"transaction_id\":1");
    const StreamClient exact = fleet.connect();
    exact.say(std::string(8192 - text.size(), ' ') + text);
    service.reply(reply_to(service.next_request(), "1"));
    EXPECT_EQ(member(exact.hear(), "result"), "1");
    EXPECT_EQ(code_of(fleet.ask(std::string(8193 - text.size(), ' ') + text)), "-32600");
}

TEST(RouterDaemon, WaitsForASilentClientOnlyUpToItsBound) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "100", "--reply-timeout", "100"});
    const StreamClient silent = fleet.connect();
    const StreamClient next = fleet.connect();
    next.say(request("ports.Get", "\"next\""));
    EXPECT_EQ(code_of(silent.hear()), "-32005");
    EXPECT_EQ(member(next.hear(), "id"), "\"next\"") << "served after the silent one";
}

TEST(RouterDaemon, GoesOnWhenAClientLeavesEarly) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    { const StreamClient says_nothing = fleet.connect(); }
    {
        const StreamClient does_not_wait = fleet.connect();
        does_not_wait.say(request("ports.Get", "1", ",\"transaction_id\":1"));
        service.next_request();
    }
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "2", ",\"transaction_id\":2"));
    service.reply(reply_to(service.next_request(), "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, HearsAClientOutThatOnlyClosedItsSendingSide) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    shutdown(client.fd(), SHUT_WR);
    service.reply(reply_to(service.next_request(), "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, ServesTcpClientsButKeepsItsOwnMethodsFromThem) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router({"--tcp", std::to_string(port), "--reply-timeout", "100"});
    const auto ask = [&](const std::string &text) {
        const StreamClient client = StreamClient::tcp_port(port);
        client.say(text);
        return client.hear();
    };
    EXPECT_EQ(code_of(ask(request("ports.Get", "1"))), "-32005");
    EXPECT_EQ(code_of(ask(request("router.Lock", "1"))), "-32601");
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "locked"), "false");
}

TEST(RouterDaemon, EndsCleanlyOnSigtermAndSigintAlsoInFlight) {
    for (const int number : {SIGTERM, SIGINT}) {
        for (const bool in_flight : {false, true}) {
            Fleet fleet;
            fleet.start_router();
            PlayedService service(fleet, first_channel);
            const StreamClient client = fleet.connect();
            if (in_flight) {
                client.say(request("ports.Get", "1"));
                service.next_request();
            }
            fleet.router->signal(number);
            EXPECT_EQ(fleet.router->wait(), 0) << fleet.router->log();
            EXPECT_EQ(access("router.sock", F_OK), -1) << "the socket's file is gone";
        }
    }
}

TEST(RouterDaemon, RereadsTheLoggersConfigurationOnSighup) {
    Fleet fleet;
    fleet.start_router();
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=verbose\n");
    fleet.router->signal(SIGHUP);
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}

TEST(RouterDaemon, ServesThroughAStormOfSignals) {
    Fleet fleet;
    fleet.start_router();
    PlayedService service(fleet, first_channel);
    for (int i = 0; i < 10; ++i) {
        const StreamClient client = fleet.connect();
        fleet.router->signal(SIGHUP);
        client.say(request("ports.Get", "1", ",\"transaction_id\":" + std::to_string(i)));
        fleet.router->signal(SIGHUP);
        const std::string on_bus = service.next_request();
        fleet.router->signal(SIGHUP);
        service.reply(reply_to(on_bus, "1"));
        EXPECT_EQ(member(client.hear(), "transaction_id"), std::to_string(i));
    }
}

TEST(RouterDaemon, HearsOfServicesThatWereThereBefore) {
    Fleet fleet;
    fleet.start_router();
    fleet.start_ports();
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
    fleet.router.reset();
    fleet.start_router();
    EXPECT_TRUE(fleet.router->says("Service portsd settled")) << "it was asked to say hello again";
    EXPECT_EQ(code_of(fleet.ask(request("ports.Nothing", "1"))), "-32601");
}

TEST(RouterDaemon, ReadsItsOptionsFromAFileAndTheCommandLine) {
    Fleet fleet;
    support::write_file("routerd.conf",
                        "[routerd]\nsocket=from-file.sock\nreply_timeout=100\npublish=" + fleet.router_address +
                            "\nconnect=" + fleet.ports_address + "," + support::free_bus_address() + "\n");
    support::Process router("configured", {TAVRIX_ROUTERD, "--config", "routerd.conf", "--socket", "router.sock"});
    ASSERT_TRUE(router.says("routerd ready")) << router.log();
    EXPECT_EQ(access("from-file.sock", F_OK), -1) << "the command line wins";
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005");
}

TEST(RouterDaemon, ExplainsWrongUsage) {
    const std::vector<std::vector<std::string>> rows = {
        {"--tcp", "x"}, {"--tcp", "65536"},           {"--tcp", "-1"},          {"--nonsense"},          {"--socket"},
        {"extra"},      {"--config", "missing.conf"}, {"--reply-timeout", "0"}, {"--reply-timeout", ""},
    };
    for (std::vector<std::string> arguments : rows) {
        arguments.insert(arguments.begin(), TAVRIX_ROUTERD);
        const support::Finished finished = support::run(arguments);
        EXPECT_EQ(finished.status, 2) << arguments[1];
        EXPECT_NE(finished.diagnostics.find("tavrix-routerd: "), std::string::npos) << finished.diagnostics;
        EXPECT_EQ(finished.output, "");
    }
    const support::Finished help = support::run({TAVRIX_ROUTERD, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("--reply-timeout MS"), std::string::npos);
    EXPECT_NE(help.output.find("example:"), std::string::npos);
    EXPECT_EQ(support::run({TAVRIX_ROUTERD, "--version"}).output.rfind("tavrix-routerd 1.", 0), 0U);
}

TEST(RouterDaemon, SaysWhyItCannotStart) {
    Fleet fleet;
    const support::Finished finished =
        support::run({TAVRIX_ROUTERD, "--socket", "no/such/folder/x.sock", "--publish", fleet.router_address});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.diagnostics.find("Cannot listen on no/such/folder/x.sock"), std::string::npos);
    EXPECT_EQ(support::run({TAVRIX_ROUTERD, "--publish", "nonsense"}).status, 1);
}
