#include <array>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/system_test.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using namespace support;
using namespace testing;

namespace {

std::string reply_of(const std::string &method, const std::string &result, const std::string &transaction_id) {
    return R"({"jsonrpc":"2.0","id":)" + method + ",\"result\":" + result + ",\"transaction_id\":" + transaction_id +
           "}";
}

/** The code of an error answer, its id and its transaction id. */
std::string refusal_with_ids(const std::string &answer) {
    return code_of(answer) + " " + id_of(answer) + " " + member(answer, "transaction_id");
}

/** A reply far above what a socket's buffer holds, and above what a bus socket receives unasked. */
std::string large_reply_to(const std::string &on_bus) {
    return service_reply(on_bus, "\"" + std::string(3000000, 'x') + "\"");
}

class RouterDaemon : public testing::Test {
  protected:
    /** The router, over TCP too, and a service on the bus that it knows. */
    void start(const std::vector<std::string> &options = {}) {
        fleet.start_router_with_tcp(port, options);
        service.emplace(fleet, TAVRIX_CHANNEL_FIRST);
    }
    /** The same on other addresses of the bus: those of a run before may not be free yet. */
    void start_anew(const std::vector<std::string> &options = {}) {
        service.reset();
        fleet.router_address = free_bus_address();
        fleet.ports_address = free_bus_address();
        start(options);
    }
    StreamClient connect(bool tcp) const { return tcp ? StreamClient::tcp_port(port) : fleet.connect(); }

    Fleet fleet;
    int port = free_port();
    std::optional<PlayedService> service;
};

class RouterAndService : public RouterDaemon {
  protected:
    RouterAndService() { start(); }
};

} // namespace

TEST_F(RouterAndService, CarriesARequestToItsServiceAndTheReplyBack) {
    const StreamClient client = fleet.connect();
    const std::string on_bus = forwarded(
        *service, client, request("ports.Get", "\"mine\"", R"(,"transaction_id":5,"params":{"port_id":"d1"})"));
    EXPECT_EQ(on_bus, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + member(on_bus, "transaction_id") +
                          R"(,"params":{"port_id":"d1"},"id":")" TAVRIX_ROUTER_REPLY_CHANNEL R"("})");
    service->reply(on_bus, "[1]");
    EXPECT_EQ(client.hear(), reply_of("\"ports.Get\"", "[1]", "5"));
}

TEST_F(RouterAndService, GivesAClientTheServicesAnswerWithTheClientsOwnTransactionId) {
    const std::pair<const char *, const char *> rows[] = {
        {R"(,"transaction_id":5)", R"("transaction_id":5,)"},
        {R"(,"transaction_id":-1)", R"("transaction_id":-1,)"},
        {R"(,"transaction_id":2.5)", R"("transaction_id":2.5,)"},
        {R"(,"transaction_id":9007199254740993)", R"("transaction_id":9007199254740993,)"},
        {"", ""},
    };
    const std::string before = R"({"more":[null,true],"id":"ports.Get",)";
    const std::string after = R"("jsonrpc":"2.0","error":{"data":{"z":"\u00E9","a":1.5},"code":-32001}})";
    for (const auto &[asked, answered] : rows) {
        const StreamClient client = fleet.connect();
        client.say(request("ports.Get", "1", asked));
        const std::string on_bus = member(service->next_request(), "transaction_id");
        EXPECT_NE(on_bus, member(request("ports.Get", "1", asked), "transaction_id")) << "the router's own";
        service->reply(before + "\"transaction_id\":" + on_bus + "," + after);
        EXPECT_EQ(client.hear(), before + answered + after);
    }
}

TEST_F(RouterDaemon, NeverDeliversALateReplyToTheNextClient) {
    for (const std::string reply_timeout : {"300", "86400000"}) { // the first one is told so, or leaves
        for (const std::string asked : {",\"transaction_id\":1", ""}) {
            start_anew({"--reply-timeout", reply_timeout});
            StreamClient first = fleet.connect();
            const std::string first_on_bus = forwarded(*service, first, request("ports.Get", "\"a\"", asked));
            if (reply_timeout == "300") {
                EXPECT_EQ(code_of(first.hear()), "-32005");
            } else {
                first.close();
                EXPECT_TRUE(fleet.router->says("The client of ports.Get has gone"));
            }
            const StreamClient second = fleet.connect();
            second.say(request("ports.Get", "\"a\"", asked)); // the very same request
            const std::string second_on_bus = service->next_request();
            service->reply(first_on_bus, "\"late\"");
            service->reply(reply_of("\"ports.Set\"", "\"other\"", member(second_on_bus, "transaction_id")));
            service->reply(reply_of("\"ports.Get\"", "\"as the client sent it\"", "1"));
            service->reply(second_on_bus, "\"right\"");
            EXPECT_EQ(result_of(second.hear()), "\"right\"") << asked << reply_timeout;
            EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
        }
    }
}

TEST_F(RouterAndService, NeverDeliversALateReplyToAClientOfItsNextRun) {
    const auto first_transaction_id = [this] {
        const StreamClient client = fleet.connect();
        client.say(request("ports.Get", "1"));
        return member(service->next_request(), "transaction_id");
    };
    const std::string earlier = first_transaction_id();
    EXPECT_EQ(fleet.router->end_by(SIGTERM), 0);
    start_anew();
    EXPECT_NE(first_transaction_id(), earlier);
}

TEST_F(RouterDaemon, TakesAReplyThatArrivesTwiceOnce) {
    start({"--connect", fleet.ports_address}); // once more
    for (const char *result : {"1", "2", "3"}) {
        const StreamClient client = fleet.connect();
        std::string on_bus = forwarded(*service, client, request("ports.Get", "1"));
        while (member(on_bus, "method") == "\"service.Probe\"") { // for the second service, as the router thinks
            on_bus = service->next_request();
        }
        service->reply(on_bus, result);
        EXPECT_EQ(result_of(client.hear()), result);
    }
}

TEST_F(RouterAndService, SurvivesRubbishOnItsReplyChannel) {
    const StreamClient client = fleet.connect();
    const std::string on_bus = forwarded(*service, client, request("ports.Get", "1", ",\"transaction_id\":1"));
    for (const char *text :
         {"rubbish", "[]", "{}", "5", R"({"method":"router.Nothing"})", R"({"method":7,"id":true})"}) {
        service->reply(text);
    }
    service->reply(on_bus, "\"right\"");
    EXPECT_EQ(result_of(client.hear()), "\"right\"");
}

TEST_F(RouterDaemon, AnswersForAServiceThatDoesNot) {
    fleet.start_router({"--reply-timeout", "100"});
    const std::pair<std::string, const char *> rows[] = {
        {request("ports.Get", "\"a\"", ",\"transaction_id\":7"), "-32005 \"a\" 7"},
        {request("ports.Get", "\"a\""), "-32005 \"a\" 0"},
        {request("ports.Get", "5", ",\"transaction_id\":7"), "-32005 5 7"},
        {request("ports.Get", "5"), "-32005 5 (none)"},
        {request("ports.Get", "\"a\"", ",\"transaction_id\":3000000000"), "-32005 \"a\" 3000000000"},
        {request("ports.Get", "1.5", ",\"transaction_id\":2.5"), "-32005 1.5 2.5"},
    };
    for (const auto &[asked, refusal] : rows) {
        EXPECT_EQ(refusal_with_ids(fleet.ask(asked)), refusal) << asked;
    }
}

TEST_F(RouterDaemon, AnswersBusyWhileTheSystemIsLocked) {
    fleet.start_router({"--reply-timeout", "100"});
    EXPECT_EQ(result_of(fleet.ask(request("router.Lock", "1"))), "0");
    for (const std::string id : {"\"a\"", "5"}) {
        EXPECT_EQ(refusal_with_ids(fleet.ask(request("ports.Get", id, ",\"transaction_id\":9"))),
                  "-32014 " + id + " 9");
    }
    write_log_levels("routerd=verbose");
    EXPECT_EQ(code_of(fleet.ask(request("logger.ReloadConf", "1"))), "-32014");
    EXPECT_EQ(fleet.router->times_said("Logging level set to verbose."), 0) << "nor is anything reread";
    EXPECT_EQ(fleet.status("locked"), "true");
    EXPECT_EQ(result_of(fleet.ask(request("router.Unlock", "1"))), "0");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005") << "forwarded again";
}

TEST_F(RouterAndService, LetsARequestInFlightEndWhenItIsLocked) {
    const StreamClient client = fleet.connect();
    const std::string on_bus = forwarded(*service, client, request("ports.Get", "1"));
    service->reply(R"({"jsonrpc":"2.0","method":"router.Lock"})");
    EXPECT_TRUE(fleet.router->says("The system is locked"));
    service->reply(on_bus, "\"right\"");
    EXPECT_EQ(result_of(client.hear()), "\"right\"");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32014");
    service->reply(R"({"jsonrpc":"2.0","method":"router.Unlock"})");
    EXPECT_TRUE(fleet.router->says("The system is unlocked"));
}

TEST_F(RouterAndService, RefusesMalformedRequestsAndGoesOn) {
    const std::pair<const char *, const char *> rows[] = {
        {"nonsense", "-32600 null (none)"},
        {"[]", "-32600 null (none)"},
        {R"({"half":)", "-32005 null (none)"}, // there may be more to come
        {"\xff\xfe", "-32600 null (none)"},
        {"{}", "-32600 null (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":null})", "-32600 null (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":{}})", "-32600 null (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":true,"transaction_id":3})", "-32600 null 3"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":null})", "-32600 1 (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":"7"})", "-32600 1 (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":true})", "-32600 1 (none)"},
        {R"({"method":"ports.Get","id":"a","transaction_id":3})", "-32600 \"a\" 3"},
        {R"({"method":"router.Status","id":"a"})", "-32600 \"a\" (none)"},
        {R"({"jsonrpc":2.0,"method":"ports.Get","id":1.5})", "-32600 1.5 (none)"},
        {R"({"jsonrpc":"1.0","method":"ports.Get","id":1})", "-32002 1 (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":[]})", "-32602 1 (none)"},
        {R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"params":null})", "-32602 1 (none)"},
        {R"({"jsonrpc":"2.0","method":"router.Status","id":1,"params":[]})", "-32602 1 (none)"},
        {R"({"jsonrpc":"2.0","id":"a","transaction_id":3})", "-32601 \"a\" 3"},
        {R"({"jsonrpc":"2.0","id":"a","method":5})", "-32601 \"a\" (none)"},
    };
    for (const auto &[text, refusal] : rows) {
        EXPECT_EQ(refusal_with_ids(fleet.ask(text)), refusal) << text;
    }
    const StreamClient client = fleet.connect();
    const std::string first_on_bus = forwarded(*service, client, request("ports.Get", "\"good\"", ",\"params\":{}"));
    EXPECT_EQ(member(first_on_bus, "params"), "{}") << "the service saw none of those";
    service->reply(first_on_bus, "1");
    EXPECT_EQ(result_of(client.hear()), "1");
}

TEST_F(RouterAndService, ForwardsNoNotification) {
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"ports.SetEnabled"})"), "");
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"router.Lock"})"), "");
    EXPECT_TRUE(fleet.router->says("Refused the notification router.Lock of a client"));
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    EXPECT_EQ(member(service->next_request(), "method"), "\"ports.Get\"") << "nothing came before";
}

TEST_F(RouterAndService, Takes8192BytesAndNoMore) {
    const std::string text = request("ports.Get", "1", ",\"transaction_id\":1");
    for (const bool tcp : {false, true}) {
        const StreamClient exact = connect(tcp);
        EXPECT_EQ(result_of(answered(*service, exact, std::string(8192 - text.size(), ' ') + text, "1")), "1") << tcp;
        EXPECT_EQ(code_of(connect(tcp).ask(std::string(8193 - text.size(), ' ') + text)), "-32600") << tcp;
    }
}

TEST_F(RouterDaemon, TellsEachClientThatItSaidNothingInTime) {
    fleet.start_router_with_tcp(port, {"--client-timeout", "100"});
    for (const bool tcp : {false, true}) {
        for (const char *beginning : {"", R"({"jsonrpc":"2.0","meth)"}) {
            EXPECT_EQ(refusal_with_ids(connect(tcp).ask(beginning)), "-32005 null (none)");
        }
    }
}

TEST_F(RouterDaemon, TakesARequestInPieces) {
    start({"--client-timeout", "86400000"});
    const std::string text = request("ports.Get", "1", R"(,"params":{"text":"}\"{\\"})");
    for (const bool tcp : {false, true}) {
        const StreamClient client = connect(tcp);
        for (const char c : text) {
            client.say(std::string(1, c));
            EXPECT_EQ(fleet.status("locked"), "false") << "it was read";
        }
        const std::string on_bus = service->next_request();
        EXPECT_EQ(member(on_bus, "params"), R"({"text":"}\"{\\"})");
        service->reply(on_bus, "1");
        EXPECT_EQ(result_of(client.hear()), "1");
    }
}

TEST_F(RouterDaemon, TakesARequestInTwoPiecesWhereverItIsCut) {
    fleet.start_router({"--client-timeout", "86400000"});
    const std::string text = R"({"jsonrpc":"2.0","method":"router.Status","id":1,)"
                             "\"params\":{\"a\":[true,false,null,-1.5e+3,0.25E-2],\"\u00e9\":\"\\\"\\u00e9\\\\\"}}";
    for (size_t cut = 1; cut < text.size(); ++cut) {
        const StreamClient client = fleet.connect();
        client.say(text.substr(0, cut));
        EXPECT_EQ(fleet.status("locked"), "false") << "it was read";
        client.say(text.substr(cut));
        const std::string answer = client.hear();
        EXPECT_EQ(id_of(answer), "\"router.Status\"") << answer << " behind " << text.substr(0, cut);
    }
}

TEST_F(RouterDaemon, RefusesABeginningThatCannotBecomeARequestAtOnce) {
    fleet.start_router({"--client-timeout", "86400000"});
    for (const char *text : {"{hello", R"({"a":nil)", R"({"a":1,,"b)", R"({"a" "b")", "\"text", "hello", "{]"}) {
        EXPECT_EQ(code_of(fleet.ask(text)), "-32600") << text;
    }
}

TEST_F(RouterDaemon, TakesARequestAsCompleteAtTheHalfClose) {
    fleet.start_router_with_tcp(port, {"--client-timeout", "86400000"});
    for (const char *text : {R"({"jsonrpc":"2.0","meth)", "", "  "}) {
        for (const bool tcp : {false, true}) {
            const StreamClient client = connect(tcp);
            client.say(text);
            shutdown(client.fd(), SHUT_WR);
            EXPECT_EQ(code_of(client.hear()), "-32600") << text << tcp;
        }
    }
}

TEST_F(RouterDaemon, SendsALargeAnswerWholeThroughAStormOfSignals) {
    start({"--client-timeout", "20000"});
    const StreamClient client = fleet.connect();
    const std::string on_bus = forwarded(*service, client, request("ports.Get", "1", ",\"transaction_id\":1"));
    service->reply(large_reply_to(on_bus));
    char byte = 0;
    ASSERT_EQ(recv(client.fd(), &byte, 1, MSG_PEEK), 1) << "the router is sending";
    for (const char *level : {"debug", "info", "verbose"}) { // while the router waits for room in the socket's buffer
        write_log_levels(std::string("routerd=") + level);
        fleet.router->signal(SIGHUP);
        EXPECT_TRUE(fleet.router->says(std::string("Logging level set to ") + level)) << level;
    }
    EXPECT_EQ(client.hear(), large_reply_to(request("ports.Get", "1", ",\"transaction_id\":1")));
}

TEST_F(RouterDaemon, LeavesAClientThatDoesNotReadItsAnswer) {
    start({"--client-timeout", "100"});
    const StreamClient does_not_read = fleet.connect();
    does_not_read.say(request("ports.Get", "1"));
    service->reply(large_reply_to(service->next_request()));
    EXPECT_TRUE(fleet.router->says("A client did not take its answer"));
    EXPECT_TRUE(serves(*service, fleet.connect()));
}

TEST_F(RouterDaemon, StopsWhileAClientDoesNotReadItsAnswer) {
    start({"--client-timeout", "86400000"});
    const StreamClient does_not_read = fleet.connect();
    does_not_read.say(request("ports.Get", "1"));
    service->reply(large_reply_to(service->next_request()));
    char byte = 0;
    EXPECT_EQ(recv(does_not_read.fd(), &byte, 1, MSG_PEEK), 1) << "the router is sending";
    EXPECT_EQ(fleet.router->end_by(SIGTERM), 0);
}

TEST_F(RouterDaemon, NoticesATcpClientThatLeavesEarly) {
    start({"--reply-timeout", "86400000"});
    StreamClient leaving = connect(true);
    const std::string unanswered = forwarded(*service, leaving, request("ports.Get", "1", ",\"transaction_id\":1"));
    leaving.close();
    EXPECT_TRUE(fleet.router->says("The client of ports.Get has gone"));
    EXPECT_EQ(fleet.status("in_flight"), "0");
    service->reply(unanswered, "\"late\"");
    EXPECT_TRUE(serves(*service, connect(true)));
}

TEST_F(RouterDaemon, NoticesAClientThatLeavesWithTheLastPieceOfItsRequest) {
    fleet.start_router_with_tcp(port, {"--reply-timeout", "86400000", "--client-timeout", "86400000"});
    const std::string text = request("ports.Get", "1");
    for (const bool tcp : {false, true}) {
        StreamClient client = connect(tcp);
        client.say(text.substr(0, 10));
        fleet.ask(request("router.Status", "1")); // the beginning has been read
        fleet.router->stand_still();
        client.say(text.substr(10));
        client.close();
        fleet.router->signal(SIGCONT);
        EXPECT_TRUE(wait_until([&] { return fleet.router->times_said("ports.Get has gone") == 1 + (tcp ? 1 : 0); }))
            << tcp;
    }
}

TEST_F(RouterDaemon, HearsAClientOutThatOnlyClosedItsSendingSide) {
    start();
    for (const bool tcp : {false, true}) {
        const StreamClient client = connect(tcp);
        client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
        shutdown(client.fd(), SHUT_WR);
        service->reply(service->next_request(), "\"right\"");
        const std::string answer = client.hear();
        EXPECT_EQ(result_of(answer), "\"right\"") << tcp;
        // One blank over TCP asks whether somebody is there, unless the reply has come at the same moment.
        EXPECT_LE(answer.find('{'), tcp ? 1U : 0U) << answer;
    }
}

TEST_F(RouterAndService, KeepsItsOwnMethodsFromTcpClients) {
    EXPECT_EQ(code_of(connect(true).ask(request("router.Lock", "1"))), "-32601");
    EXPECT_EQ(fleet.status("locked"), "false");
}

TEST_F(RouterDaemon, EndsCleanlyOnSigtermAndSigintWhateverIsGoingOn) {
    const std::pair<int, std::string> rows[] = {{SIGTERM, ""},      {SIGINT, ""},        {SIGTERM, "asks"},
                                                {SIGINT, "asks"},   {SIGTERM, "silent"}, {SIGTERM, "silent"},
                                                {SIGTERM, "silent"}}; // before, while and after it is accepted
    for (const auto &[signal, client_is] : rows) {
        start_anew({"--client-timeout", "86400000"});
        std::optional<StreamClient> client;
        if (!client_is.empty()) {
            client.emplace(fleet.connect());
        }
        if (client_is == "asks") {
            forwarded(*service, *client, request("ports.Get", "1"));
        }
        EXPECT_EQ(fleet.router->end_by(signal), 0) << fleet.router->log();
        EXPECT_EQ(access("router.sock", F_OK), -1) << "the socket's file is gone";
    }
}

TEST_F(RouterAndService, LeavesAFileThatIsNoLongerItsOwn) {
    ASSERT_EQ(remove("router.sock"), 0);
    write_file("router.sock", "another's");
    EXPECT_EQ(fleet.router->end_by(SIGTERM), 0);
    EXPECT_EQ(read_file("router.sock"), "another's");
    remove("router.sock");
}

TEST_F(RouterDaemon, TakesAPathOf107Bytes) {
    const std::string longest(107, 'p');
    fleet.start_router({"--socket", longest});
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
    EXPECT_EQ(fleet.router->end_by(SIGTERM), 0);
    EXPECT_EQ(access(longest.c_str(), F_OK), -1) << "removed at the end";
}

TEST_F(RouterDaemon, TriesATcpPortAgainThatIsNotFreeYet) {
    const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&address), sizeof address), 0); // and does not listen
    fleet.start_router({"--tcp", std::to_string(port)});
    const std::string name = "TCP port " + std::to_string(port);
    EXPECT_TRUE(fleet.router->says("Cannot listen on " + name + " yet, trying again"));
    EXPECT_EQ(fleet.status("locked"), "false") << "others are served";
    close(holder);
    EXPECT_TRUE(fleet.router->says("Listening on " + name));
    EXPECT_EQ(code_of(connect(true).ask(request("router.Status", "1"))), "-32601");
}

TEST_F(RouterAndService, RereadsTheLoggersConfigurationOnANotificationOverTheBus) {
    write_log_levels("routerd=verbose");
    service->reply(R"({"jsonrpc":"2.0","method":"logger.ReloadConf"})");
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}

TEST_F(RouterDaemon, AnswersForTheLoggersConfigurationItselfWhenItKnowsOfNoService) {
    fleet.start_router({"--reply-timeout", "86400000"});
    write_log_levels("routerd=verbose");
    EXPECT_EQ(fleet.ask(request("logger.ReloadConf", "\"a\"", ",\"transaction_id\":7")),
              reply_of("\"logger.ReloadConf\"", "0", "7"));
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
    BusSocket unknown(TAVRIX_SP_SUB); // a service that says no hello is told all the same
    unknown.connect(fleet.router_address);
    tavrix_mq_socket_subscribe(unknown.number, "");
    EXPECT_TRUE(wait_until([&] {
        fleet.ask(request("logger.ReloadConf", "1"));
        return unknown.next_text(50).find("\"logger.ReloadConf\"") != std::string::npos;
    }));
}

TEST_F(RouterDaemon, TakesTheRepliesOfAllServicesToOneReload) {
    fleet.start_router();
    service.emplace(fleet, TAVRIX_CHANNEL_DEFAULT);
    const StreamClient client = fleet.connect();
    const std::string on_bus = forwarded(*service, client, request("logger.ReloadConf", "1"));
    service->reply(on_bus, "\"first\"");
    EXPECT_EQ(result_of(client.hear()), "\"first\"");
    service->reply(on_bus, "\"second\"");
    service->reply(reply_of("\"ports.Get\"", "\"stray\"", "1"));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    EXPECT_EQ(fleet.router->times_said("Discarded a left-over reply"), 1) << fleet.router->log();
    EXPECT_EQ(fleet.status("discarded"), "1");
}

TEST_F(RouterAndService, RefusesAMethodWithControlCharactersBeforeAnybodySeesIt) {
    for (const char *character : {"\\n", "\\r", "\\t", "\\u001b", "\\u007f", "\\u0085", "\\u009b"}) {
        const std::string answer = fleet.ask(request("p" + std::string(character) + "x", "7"));
        EXPECT_EQ(error_of(answer), "-32601 a method's name has no control characters") << character;
        EXPECT_EQ(id_of(answer), "7");
    }
    const StreamClient client = fleet.connect();
    client.say(request("p\\u00e9", "1"));
    EXPECT_EQ(member(service->next_request(), "method"), "\"p\u00e9\"") << "the first that comes through";
}

TEST_F(RouterAndService, ServesThroughAStormOfSignals) {
    for (int i = 0; i < 10; ++i) {
        const StreamClient client = fleet.connect();
        fleet.router->signal(SIGHUP);
        client.say(request("ports.Get", "1", ",\"transaction_id\":" + std::to_string(i)));
        fleet.router->signal(SIGHUP);
        const std::string on_bus = service->next_request();
        fleet.router->signal(SIGHUP);
        service->reply(on_bus, "1");
        EXPECT_EQ(member(client.hear(), "transaction_id"), std::to_string(i));
    }
}

TEST_F(RouterDaemon, AsksForServicesAlsoWhileItIsBusy) {
    start({"--connect", fleet.events_address}); // whose service never comes
    int probes = 0;
    EXPECT_TRUE(wait_until([&] {
        fleet.ask(request("router.Status", "1"));
        probes += member(service->next_request(1), "method") == "\"service.Probe\"" ? 1 : 0;
        return probes == 3;
    }));
}

TEST_F(RouterDaemon, AsksForServicesAlsoWhileARequestWaits) {
    start({"--connect", fleet.events_address, "--reply-timeout", "60000"});
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    while (member(service->next_request(), "method") != "\"ports.Get\"") {
    }
    EXPECT_EQ(member(service->next_request(), "method"), "\"service.Probe\"");
}

TEST_F(RouterAndService, ShowsTheBeginningOfALongNameOnly) {
    for (const int length : {201, 8000}) {
        fleet.ask(R"({"jsonrpc":"2.0","method":")" + std::string(static_cast<size_t>(length), 'm') + "\"}");
        EXPECT_TRUE(fleet.router->says("Refused the notification " + std::string(200, 'm') + "... of a client\n"));
    }
}

TEST_F(RouterAndService, KnowsAServiceByItsLatestChannel) {
    service->reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":"another"}})");
    EXPECT_TRUE(fleet.router->says("Service played settled on channel another"));
    EXPECT_EQ(fleet.status("services"), R"([{"name":"played","channel":"another","state":"listening"}])");
}

TEST_F(RouterDaemon, ReadsItsOptionsFromAFileAndTheCommandLine) {
    write_file("routerd.conf", "[routerd]\nsocket=from-file.sock\nsession=session.sock\nreply_timeout=100\npublish=" +
                                   fleet.router_address + "\nconnect=" + fleet.ports_address + "," +
                                   free_bus_address() + "\n");
    Process router("configured", {TAVRIX_ROUTERD, "--config", "routerd.conf", "--socket", "router.sock"});
    ASSERT_TRUE(router.says("routerd ready")) << router.log();
    EXPECT_EQ(access("from-file.sock", F_OK), -1) << "the command line wins";
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005");
}

TEST_F(RouterDaemon, RefusesAConfigurationFileThatWouldBeReadOtherwiseThanItLooks) {
    const std::pair<const char *, const char *> rows[] = {
        {"", ": there is no section [routerd]"},
        {"[router]\ntcp=1\n", ": there is no section [routerd]"},
        {"tcp=1\n[routerd]\n", ":1: 'tcp=1' stands before any section"},
        {"[routerd]\n\nreply-timeout=1\n", ":3: there is no option 'reply-timeout'"},
        {"[routerd]\ntcp =1\n", ":2: there is no option 'tcp '"},
        {"[routerd]\ntcp\n", ":2: 'tcp' is not key=value"},
        {"[routerd]\ntcp=1\ntcp=2\n", ":3: a second 'tcp'"},
        {"[routerd]\n[other]\nx=1\n[routerd]\ntcp=1\n", ":4: a second section [routerd]"},
        {"[routerd]\r\nsocket=a.sock\r\n", ":2: the line ends with a carriage return"},
        {"[routerd]\n# no newline\ntcp=1", ":3: the last line does not end with a newline"},
        {"[routerd]\ntcp=65536\n", ": tcp takes a number from 0 to 65535, not '65536'"},
    };
    for (const auto &[text, complaint] : rows) {
        write_file("routerd.conf", text);
        EXPECT_THAT(run({TAVRIX_ROUTERD, "--config", "routerd.conf"}),
                    fails(2, StartsWith(std::string("tavrix-routerd: routerd.conf") + complaint + "\n")))
            << text;
    }
}

TEST_F(RouterDaemon, ReadsAValueOfAsManyBytesAsFit) {
    for (const size_t length : {1023U, 1024U}) {
        write_file("routerd.conf", "[routerd]\nsocket=" + std::string(length, 'p') + "\n");
        EXPECT_EQ(run({TAVRIX_ROUTERD, "--config", "routerd.conf", "--publish", "nonsense"}).status,
                  length == 1023 ? 1 : 2);
    }
}

TEST_F(RouterDaemon, ListensWhereItIsToldInsteadOfTheDefaults) {
    const std::string other = free_bus_address();
    fleet.start_router({"--connect", other + "," + free_bus_address()});
    fleet.ports_address = other;
    service.emplace(fleet, TAVRIX_CHANNEL_FIRST);
    EXPECT_TRUE(fleet.router->says("Service played settled"));
}

TEST(Daemons, ShowInTheirHelpWhatTheyDoUnasked) {
    const std::pair<std::string, std::vector<const char *>> rows[] = {
        {TAVRIX_ROUTERD,
         {"--reply-timeout MS", "(default ipc:///run/tavrix/bus/router)",
          "does not register; may be repeated\n"}}, // no default for --connect
        {TAVRIX_PORTSD,
         {"(default /run/tavrix/session.sock)", "(default zqn_h7.db)", "(default: one in the router's bus folder)",
          "(default 5000)", "Keep --wait-timeout below the router's --reply-timeout"}},
        {TAVRIX_EVENTSD,
         {"(default /run/tavrix/session.sock)", "(default 5000)", "(default: one in the router's bus folder)",
          "CAP_DAC_OVERRIDE", "less than the router's --reply-timeout"}},
    };
    for (const auto &[program, parts] : rows) {
        const Finished help = run({program, "--help"});
        EXPECT_THAT(help, prints(AllOf(HasSubstr("example:"), HasSubstr("exit status:"))));
        for (const char *part : parts) {
            EXPECT_THAT(help.output, HasSubstr(part));
        }
        const std::string name = program.substr(program.rfind('/') + 1);
        EXPECT_THAT(run({program, "--version"}), prints(StartsWith(name + " 1.")));
    }
}

TEST(Daemons, ReadTheirOwnSectionOfOneFile) {
    write_file("fleet.conf", "# one file for all\n[routerd]\ntcp=0\n[portsd]\nname=p\n[eventsd]\nname=e\ninterval=0\n");
    const std::pair<const char *, const char *> rows[] = {
        {TAVRIX_ROUTERD, "Cannot publish on nonsense"},
        {TAVRIX_PORTSD, "Cannot publish on nonsense"},
        {TAVRIX_EVENTSD, "tavrix-eventsd: fleet.conf: interval takes a number from 1 to"},
    };
    for (const auto &[program, complaint] : rows) {
        const Fleet fleet; // with the database
        EXPECT_THAT(run({program, "--config", "fleet.conf", "--publish", "nonsense"}).diagnostics,
                    HasSubstr(complaint));
    }
}

TEST_F(RouterDaemon, RefusesAnIpcAddressThatTheBusCannotBear) {
    for (const char *option : {"--publish", "--connect"}) {
        for (const size_t length : {114U, 127U, 128U, 200U}) {
            EXPECT_THAT(run({TAVRIX_ROUTERD, "--socket", "a.sock", "--session", "", "--publish", free_bus_address(),
                             option, "ipc://" + std::string(length - 6, 'p')}),
                        fails(1, HasSubstr("Cannot ")))
                << length;
        }
    }
}

TEST_F(RouterDaemon, TellsTheServiceManagerThatItIsReadyOnceClientsAreLetIn) {
    const std::string file = std::filesystem::current_path() / "notify.sock";
    for (const std::string &path : {file, "@tavrix-test-notify-" + std::to_string(getpid())}) {
        sockaddr_un address = unix_address(path);
        address.sun_path[0] = path[0] == '@' ? '\0' : '/'; // a name without a file
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), size), 0);
        const timeval patience = {30, 0};
        setsockopt(manager, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        const Process router(
            "router", {TAVRIX_ROUTERD, "--socket", "router.sock", "--session", "", "--publish", free_bus_address()});
        unsetenv("NOTIFY_SOCKET");
        std::array<char, 64> notice{};
        EXPECT_EQ(recv(manager, notice.data(), notice.size() - 1, 0), 7);
        EXPECT_STREQ(notice.data(), "READY=1");
        EXPECT_EQ(fleet.status("locked"), "false") << "clients are let in from then on";
        close(manager);
    }
    unlink(file.c_str());
}

TEST_F(RouterDaemon, ServesAlsoWhenNoServiceManagerHearsItsNotice) {
    for (const char *path : {"/no/such.sock", "relative.sock", ""}) {
        setenv("NOTIFY_SOCKET", path, 1);
        const Process &router = fleet.start_router();
        unsetenv("NOTIFY_SOCKET");
        EXPECT_EQ(router.times_said("Cannot tell the service manager that the router is ready"), path[0] == '/' ? 1 : 0)
            << "'" << path << "'";
        EXPECT_EQ(fleet.status("locked"), "false");
    }
}
