#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

using support::code_of;
using support::Fleet;
using support::member;
using support::PlayedService;
using support::request;
using support::StartedRouter;
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

/** A reply far above what a socket's buffer holds, and above what a bus socket receives unasked. */
std::string large_reply_to(const std::string &on_bus) {
    return reply_to(on_bus, "\"" + std::string(3000000, 'x') + "\"");
}

/** Stops the process and waits until it stands. */
void stand_still(const support::Process &process) {
    process.signal(SIGSTOP);
    siginfo_t state{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process.pid()), &state, WSTOPPED), 0);
}

std::vector<StreamClient> silent_clients(const Fleet &fleet, int count) {
    std::vector<StreamClient> clients;
    while (clients.size() < static_cast<size_t>(count)) {
        clients.push_back(fleet.connect());
    }
    return clients;
}

/** Publishes left-over replies on the router's reply channel as fast as it can, as long as it lives. */
class Flood {
  public:
    explicit Flood(PlayedService &service)
        : thread_([this, &service] {
              while (!ended_) {
                  service.reply(reply_of("\"ports.Flood\"", "0", "1"));
              }
          }) {}
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;
    ~Flood() {
        ended_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

class RouterAndService : public StartedRouter {
  protected:
    PlayedService service{fleet, first_channel};
};

} // namespace

TEST_F(RouterAndService, CarriesARequestToItsServiceAndTheReplyBack) {
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "\"mine\"", R"(,"transaction_id":5,"params":{"port_id":"d1"})"));
    const std::string on_bus = service.next_request();
    EXPECT_EQ(on_bus, R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":)" + member(on_bus, "transaction_id") +
                          R"(,"params":{"port_id":"d1"},"id":"2524546b-ca99-4868-a062-359cefacff7c"})");
    service.reply(reply_to(on_bus, "[1]"));
    EXPECT_EQ(client.hear(), reply_of("\"ports.Get\"", "[1]", "5"));
}

TEST_F(RouterAndService, GivesAClientTheServicesAnswerWithTheClientsOwnTransactionId) {
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

TEST_F(RouterAndService, NeverDeliversALateReplyAfterTheFirstClientLeft) {
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

TEST_F(StartedRouter, NeverDeliversALateReplyToAClientOfItsNextRun) {
    const auto first_transaction_id = [this] {
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

TEST_F(RouterAndService, DiscardsAReplyThatComesWhileNobodyWaits) {
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
        std::string on_bus = service.next_request();
        while (member(on_bus, "method") == "\"service.Probe\"") { // for the second service, as the router thinks
            on_bus = service.next_request();
        }
        service.reply(reply_to(on_bus, result));
        EXPECT_EQ(member(client.hear(), "result"), result);
    }
}

TEST_F(RouterAndService, SurvivesRubbishOnItsReplyChannel) {
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

TEST_F(RouterAndService, LetsARequestInFlightEndWhenItIsLocked) {
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    const std::string on_bus = service.next_request();
    service.reply(R"({"jsonrpc":"2.0","method":"router.Lock"})");
    EXPECT_TRUE(fleet.router->says("The system is locked"));
    service.reply(reply_to(on_bus, "\"right\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"right\"");
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32014");
}

TEST_F(RouterAndService, IsLockedOverTheBusToo) {
    service.reply(R"({"jsonrpc":"2.0","method":"router.Lock"})");
    EXPECT_TRUE(fleet.router->says("The system is locked"));
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32014");
    service.reply(R"({"jsonrpc":"2.0","method":"router.Unlock"})");
    EXPECT_TRUE(fleet.router->says("The system is unlocked"));
}

TEST_F(RouterAndService, RefusesMalformedRequestsAndGoesOn) {
    const struct {
        const char *text;
        const char *code;
        const char *id;
        const char *transaction_id;
    } rows[] = {
        {"nonsense", "-32600", "null", "(none)"},
        {"[]", "-32600", "null", "(none)"},
        {R"({"half":)", "-32005", "null", "(none)"}, // there may be more to come
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

TEST_F(RouterAndService, ForwardsNoNotification) {
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"ports.SetEnabled"})"), "");
    EXPECT_EQ(fleet.ask(R"({"jsonrpc":"2.0","method":"router.Lock"})"), "");
    EXPECT_TRUE(fleet.router->says("Refused the notification router.Lock of a client"));
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    EXPECT_EQ(member(service.next_request(), "method"), "\"ports.Get\"") << "nothing came before";
}

TEST_F(RouterAndService, Takes8192BytesAndNoMore) {
    const std::string text = request("ports.Get", "1", ",\"transaction_id\":1");
    const StreamClient exact = fleet.connect();
    exact.say(std::string(8192 - text.size(), ' ') + text);
    service.reply(reply_to(service.next_request(), "1"));
    EXPECT_EQ(member(exact.hear(), "result"), "1");
    EXPECT_EQ(code_of(fleet.ask(std::string(8193 - text.size(), ' ') + text)), "-32600");
}

TEST(RouterDaemon, Takes8192BytesAndNoMoreOverTcp) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port);
    PlayedService service(fleet, first_channel);
    const std::string text = request("ports.Get", "1");
    const StreamClient exact = StreamClient::tcp_port(port);
    exact.say(std::string(8192 - text.size(), ' ') + text);
    service.reply(reply_to(service.next_request(), "1"));
    EXPECT_EQ(member(exact.hear(), "result"), "1");
    const StreamClient longer = StreamClient::tcp_port(port);
    longer.say(std::string(8193 - text.size(), ' ') + text);
    EXPECT_EQ(code_of(longer.hear()), "-32600");
}

TEST(RouterDaemon, ServesOthersBesideSilentClients) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--client-timeout", "86400000"});
    PlayedService service(fleet, first_channel);
    const std::vector<StreamClient> silent = silent_clients(fleet, 50);
    const StreamClient half = fleet.connect();
    half.say(R"({"jsonrpc":"2.0","meth)");
    for (const bool tcp : {false, true}) {
        const StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
        client.say(request("ports.Get", "1"));
        service.reply(reply_to(service.next_request(), "\"served\""));
        EXPECT_EQ(member(client.hear(), "result"), "\"served\"") << tcp;
    }
    EXPECT_EQ(fleet.router->times_said("said nothing in time"), 0);
}

TEST(RouterDaemon, TellsEachClientThatItSaidNothingInTime) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--client-timeout", "100"});
    std::vector<StreamClient> silent = silent_clients(fleet, 5);
    silent.push_back(StreamClient::tcp_port(port));
    silent.push_back(fleet.connect());
    silent.back().say(R"({"jsonrpc":"2.0","meth)");
    for (const StreamClient &client : silent) {
        const std::string answer = client.hear();
        EXPECT_EQ(code_of(answer), "-32005") << answer;
        EXPECT_EQ(member(answer, "id"), "null");
    }
}

TEST(RouterDaemon, TakesARequestInPieces) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--client-timeout", "86400000"});
    PlayedService service(fleet, first_channel);
    const std::string text = request("ports.Get", "1", R"(,"params":{"text":"}\"{\\"})");
    for (const bool tcp : {false, true}) {
        const StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
        for (const char c : text) {
            client.say(std::string(1, c));
            EXPECT_EQ(member(fleet.ask(request("router.Status", "1")), "id"), "\"router.Status\"") << "it was read";
        }
        const std::string on_bus = service.next_request();
        EXPECT_EQ(member(on_bus, "params"), R"({"text":"}\"{\\"})");
        service.reply(reply_to(on_bus, "1"));
        EXPECT_EQ(member(client.hear(), "result"), "1");
    }
}

TEST(RouterDaemon, TakesARequestInTwoPiecesWhereverItIsCut) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "86400000"});
    const std::string text = R"({"jsonrpc":"2.0","method":"router.Status","id":1,)"
                             "\"params\":{\"a\":[true,false,null,-1.5e+3,0.25E-2],\"\u00e9\":\"\\\"\\u00e9\\\\\"}}";
    for (size_t cut = 1; cut < text.size(); ++cut) {
        const StreamClient client = fleet.connect();
        client.say(text.substr(0, cut));
        EXPECT_EQ(member(fleet.ask(request("router.Status", "1")), "id"), "\"router.Status\"") << "it was read";
        client.say(text.substr(cut));
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "id"), "\"router.Status\"") << answer << " behind " << text.substr(0, cut);
    }
}

TEST(RouterDaemon, RefusesABeginningThatCannotBecomeARequestAtOnce) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "86400000"});
    for (const char *text : {"{hello", R"({"a":nil)", R"({"a":1,,"b)", R"({"a" "b")", "\"text", "hello", "{]"}) {
        const StreamClient client = fleet.connect();
        client.say(text);
        EXPECT_EQ(code_of(client.hear()), "-32600") << text;
    }
}

TEST(RouterDaemon, TakesARequestAsCompleteAtTheHalfClose) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--client-timeout", "86400000"});
    const struct {
        const char *text;
        const char *code;
    } rows[] = {{R"({"jsonrpc":"2.0","meth)", "-32600"}, {"", "-32600"}, {"  ", "-32600"}};
    for (const auto &row : rows) {
        for (const bool tcp : {false, true}) {
            const StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
            client.say(row.text);
            shutdown(client.fd(), SHUT_WR);
            EXPECT_EQ(code_of(client.hear()), row.code) << row.text << tcp;
        }
    }
}

TEST(RouterDaemon, SendsALargeAnswerWholeThroughAStormOfSignals) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "20000"});
    PlayedService service(fleet, first_channel);
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    const std::string on_bus = service.next_request();
    service.reply(large_reply_to(on_bus));
    char byte = 0;
    ASSERT_EQ(recv(client.fd(), &byte, 1, MSG_PEEK), 1) << "the router is sending";
    for (const char *level : {"debug", "info", "verbose"}) { // while the router waits for room in the socket's buffer
        support::write_file("tavrix_lsyslog.conf", std::string("[logging_levels]\nrouterd=") + level + "\n");
        fleet.router->signal(SIGHUP);
        EXPECT_TRUE(fleet.router->says(std::string("Logging level set to ") + level)) << level;
    }
    EXPECT_EQ(client.hear(), large_reply_to(request("ports.Get", "1", ",\"transaction_id\":1")));
}

TEST(RouterDaemon, LeavesAClientThatDoesNotReadItsAnswer) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "100"});
    PlayedService service(fleet, first_channel);
    const StreamClient does_not_read = fleet.connect();
    does_not_read.say(request("ports.Get", "1"));
    service.reply(large_reply_to(service.next_request()));
    EXPECT_TRUE(fleet.router->says("A client did not take its answer"));
    EXPECT_EQ(member(fleet.ask(request("router.Status", "\"next\"")), "id"), "\"router.Status\"");
}

TEST(RouterDaemon, StopsWhileAClientDoesNotReadItsAnswer) {
    Fleet fleet;
    fleet.start_router({"--client-timeout", "86400000"});
    PlayedService service(fleet, first_channel);
    const StreamClient does_not_read = fleet.connect();
    does_not_read.say(request("ports.Get", "1"));
    service.reply(large_reply_to(service.next_request()));
    char byte = 0;
    EXPECT_EQ(recv(does_not_read.fd(), &byte, 1, MSG_PEEK), 1) << "the router is sending";
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
}

TEST(RouterDaemon, StopsWhileAClientSaysNothing) {
    for (int i = 0; i < 5; ++i) { // before, while and after the client is accepted
        Fleet fleet;
        fleet.start_router({"--client-timeout", "86400000"});
        const StreamClient silent = fleet.connect();
        fleet.router->signal(SIGTERM);
        EXPECT_EQ(fleet.router->wait(), 0);
    }
}

TEST(RouterDaemon, ServesAndStopsThroughAFloodOnItsReplyChannel) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "300"});
    PlayedService service(fleet, first_channel);
    const Flood flood(service);
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005");
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "timeouts"), "1");
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
}

TEST_F(StartedRouter, PausesWhenTheSystemLacksDescriptors) {
    rlimit before{};
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{4, before.rlim_max};
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const StreamClient client = fleet.connect();
    client.say(request("router.Status", "1"));
    EXPECT_TRUE(support::wait_until(
        [&] { return fleet.router->times_said("Cannot accept a client: Too many open files") >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200)) << "it does not spin";
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    EXPECT_EQ(member(member(client.hear(), "result"), "served"), "0");
}

TEST_F(RouterAndService, GoesOnWhenAClientLeavesEarly) {
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

TEST(RouterDaemon, NoticesATcpClientThatLeavesEarly) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--reply-timeout", "86400000"});
    PlayedService service(fleet, first_channel);
    StreamClient leaving = StreamClient::tcp_port(port);
    leaving.say(request("ports.Get", "1", ",\"transaction_id\":1"));
    const std::string unanswered = service.next_request();
    leaving.close();
    EXPECT_TRUE(fleet.router->says("The client of ports.Get has gone"));
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "in_flight"), "0");
    const StreamClient next = StreamClient::tcp_port(port);
    next.say(request("ports.Get", "3", ",\"transaction_id\":1"));
    service.reply(reply_to(unanswered, "\"late\""));
    service.reply(reply_to(service.next_request(), "\"right\""));
    EXPECT_EQ(member(next.hear(), "result"), "\"right\"");
}

TEST(RouterDaemon, NoticesAClientThatLeavesWithTheLastPieceOfItsRequest) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--reply-timeout", "86400000", "--client-timeout", "86400000"});
    const std::string text = request("ports.Get", "1");
    for (const bool tcp : {false, true}) {
        StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
        client.say(text.substr(0, 10));
        fleet.ask(request("router.Status", "1")); // the beginning has been read
        stand_still(*fleet.router);
        client.say(text.substr(10));
        client.close();
        fleet.router->signal(SIGCONT);
        EXPECT_TRUE(support::wait_until([&] {
            return fleet.router->times_said("ports.Get has gone") == 1 + (tcp ? 1 : 0);
        })) << tcp;
    }
}

TEST(RouterDaemon, HearsAClientOutThatOnlyClosedItsSendingSide) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port);
    PlayedService service(fleet, first_channel);
    for (const bool tcp : {false, true}) {
        const StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
        client.say(request("ports.Get", "1", ",\"transaction_id\":1"));
        shutdown(client.fd(), SHUT_WR);
        service.reply(reply_to(service.next_request(), "\"right\""));
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "result"), "\"right\"") << tcp;
        // One blank over TCP asks whether somebody is there, unless the reply has come at the same moment.
        EXPECT_LE(answer.find('{'), tcp ? 1U : 0U) << answer;
    }
}

TEST(RouterDaemon, ServesTcpClientsButKeepsItsOwnMethodsFromThem) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--reply-timeout", "100"});
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

TEST_F(StartedRouter, TakesAPathThatNobodyServesAndLeavesOneThatAnotherServes) {
    fleet.router->signal(SIGKILL);
    fleet.router->wait();
    EXPECT_EQ(access("router.sock", F_OK), 0) << "left behind";
    fleet.start_router();
    const support::Finished second =
        support::run({TAVRIX_ROUTERD, "--socket", "router.sock", "--publish", support::free_bus_address()});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.diagnostics.find("Cannot listen on router.sock: another daemon serves there"), std::string::npos);
    EXPECT_EQ(member(fleet.ask(request("router.Status", "1")), "id"), "\"router.Status\"") << "the first goes on";
}

TEST_F(StartedRouter, LeavesAFileThatIsNoLongerItsOwn) {
    ASSERT_EQ(remove("router.sock"), 0);
    support::write_file("router.sock", "another's");
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
    EXPECT_EQ(support::read_file("router.sock"), "another's");
    remove("router.sock");
}

TEST(RouterDaemon, TakesAPathOf107BytesAndNoMore) {
    Fleet fleet;
    const std::string longest(107, 'p');
    fleet.start_router({"--socket", longest});
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
    EXPECT_EQ(access(longest.c_str(), F_OK), -1) << "removed at the end";
    const support::Finished finished =
        support::run({TAVRIX_ROUTERD, "--socket", longest + "p", "--publish", fleet.router_address});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.diagnostics.find("a socket's path has at most 107 bytes"), std::string::npos);
    EXPECT_EQ(access(longest.c_str(), F_OK), -1) << "not cut either";
}

TEST(RouterDaemon, TriesATcpPortAgainThatIsNotFreeYet) {
    Fleet fleet;
    const int port = support::free_port();
    const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&address), sizeof address), 0); // and does not listen
    fleet.start_router({"--tcp", std::to_string(port)});
    const std::string name = "TCP port " + std::to_string(port);
    EXPECT_TRUE(fleet.router->says("Cannot listen on " + name + " yet, trying again"));
    EXPECT_EQ(member(fleet.ask(request("router.Status", "1")), "id"), "\"router.Status\"") << "others are served";
    close(holder);
    EXPECT_TRUE(fleet.router->says("Listening on " + name));
    const StreamClient client = StreamClient::tcp_port(port);
    client.say(request("router.Status", "1"));
    EXPECT_EQ(code_of(client.hear()), "-32601");
}

TEST(RouterDaemon, LeavesATcpPortThatAnotherServes) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router({"--tcp", std::to_string(port)});
    const support::Finished second =
        support::run({TAVRIX_ROUTERD, "--socket", "second.sock", "--session", "", "--publish",
                      support::free_bus_address(), "--tcp", std::to_string(port)});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.diagnostics.find("Cannot listen on TCP port"), std::string::npos);
}

TEST_F(StartedRouter, RereadsTheLoggersConfigurationOnSighup) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=verbose\n");
    fleet.router->signal(SIGHUP);
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}

TEST_F(RouterAndService, RereadsTheLoggersConfigurationOnANotificationOverTheBus) {
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=verbose\n");
    service.reply(R"({"jsonrpc":"2.0","method":"logger.ReloadConf"})");
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
}

TEST(RouterDaemon, AnswersForTheLoggersConfigurationItselfWhenItKnowsOfNoService) {
    Fleet fleet;
    fleet.start_router({"--reply-timeout", "86400000"});
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=verbose\n");
    EXPECT_EQ(fleet.ask(request("logger.ReloadConf", "\"a\"", ",\"transaction_id\":7")),
              reply_of("\"logger.ReloadConf\"", "0", "7"));
    EXPECT_TRUE(fleet.router->says("Logging level set to verbose."));
    support::BusSocket unknown(TAVRIX_SP_SUB); // a service that says no hello is told all the same
    unknown.connect(fleet.router_address);
    tavrix_mq_socket_subscribe(unknown.number, "");
    tavrix_mq_socket_set_timeout(unknown.number, 50);
    EXPECT_TRUE(support::wait_until([&] {
        fleet.ask(request("logger.ReloadConf", "1"));
        std::string frame;
        return support::take_frame(unknown.number, &frame) && frame.find("\"logger.ReloadConf\"") != std::string::npos;
    }));
}

TEST_F(StartedRouter, TakesTheRepliesOfAllServicesToOneReload) {
    PlayedService service(fleet, TAVRIX_CHANNEL_DEFAULT);
    const StreamClient client = fleet.connect();
    client.say(request("logger.ReloadConf", "1"));
    const std::string on_bus = service.next_request();
    service.reply(reply_to(on_bus, "\"first\""));
    EXPECT_EQ(member(client.hear(), "result"), "\"first\"");
    service.reply(reply_to(on_bus, "\"second\""));
    service.reply(reply_of("\"ports.Get\"", "\"stray\"", "1"));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of ports.Get"));
    EXPECT_EQ(fleet.router->times_said("Discarded a left-over reply"), 1) << fleet.router->log();
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "discarded"), "1");
}

TEST_F(StartedRouter, RereadsNothingForAClientWhileTheSystemIsLocked) {
    fleet.ask(request("router.Lock", "1"));
    support::write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=verbose\n");
    EXPECT_EQ(code_of(fleet.ask(request("logger.ReloadConf", "1"))), "-32014");
    EXPECT_EQ(fleet.router->times_said("Logging level set to verbose."), 0);
}

TEST(RouterDaemon, KeepsTheWordsOfOthersOnItsOwnLogLines) {
    Fleet fleet;
    const int port = support::free_port();
    fleet.start_router_with_tcp(port, {"--reply-timeout", "100"});
    PlayedService service(fleet, first_channel);
    const std::string sent = R"(p\n\u001b[2J\u009b\\)"; // in a JSON string
    const std::string logged = R"(p\x0a\x1b[2J\xc2\x9b\x5c)";
    fleet.ask(R"({"jsonrpc":"2.0","method":")" + sent + "\"}");
    EXPECT_TRUE(fleet.router->says("Refused the notification " + logged + " of a client\n"));
    for (const bool tcp : {false, true}) {
        const StreamClient client = tcp ? StreamClient::tcp_port(port) : fleet.connect();
        client.say(request(sent, "1"));
        EXPECT_EQ(code_of(client.hear()), "-32601");
    }
    EXPECT_TRUE(support::wait_until([&] { return fleet.router->times_said("Refused " + logged + "\n") == 2; }));
    service.reply(reply_of('"' + sent + '"', "1", "1"));
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of " + logged + "\n"));
    service.reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":")" + sent + R"(","channel":")" + sent +
                  "\"}}");
    EXPECT_TRUE(fleet.router->says("Passed over the hello of " + logged + " on channel " + logged + "\n"));
    EXPECT_EQ(code_of(fleet.ask(request("router." + sent, "1"))), "-32601");
    EXPECT_TRUE(fleet.router->says("Refused router." + logged + "\n"));
    EXPECT_EQ(fleet.router->log().find('\x1b'), std::string::npos) << fleet.router->log();
}

TEST_F(RouterAndService, RefusesAMethodWithControlCharactersBeforeAnybodySeesIt) {
    for (const char *character : {"\\n", "\\r", "\\t", "\\u001b", "\\u007f", "\\u0085", "\\u009b"}) {
        const std::string answer = fleet.ask(request("p" + std::string(character) + "x", "7"));
        EXPECT_EQ(code_of(answer), "-32601") << character;
        EXPECT_EQ(member(answer, "id"), "7");
        EXPECT_EQ(member(member(answer, "error"), "data"),
                  R"({"message":"a method's name has no control characters"})");
    }
    const StreamClient client = fleet.connect();
    client.say(request("p\\u00e9", "1"));
    EXPECT_EQ(member(service.next_request(), "method"), "\"p\u00e9\"") << "the first that comes through";
}

TEST_F(RouterAndService, ServesThroughAStormOfSignals) {
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
    fleet.start_lone_router();
    fleet.start_ports();
    fleet.router->signal(SIGTERM);
    EXPECT_EQ(fleet.router->wait(), 0);
    fleet.router.reset();
    fleet.start_lone_router();
    EXPECT_TRUE(fleet.router->says("Service portsd settled")) << "it registers again by itself";
    EXPECT_EQ(code_of(fleet.ask(request("ports.Nothing", "1"))), "-32601");
}

TEST(RouterDaemon, AsksForServicesAlsoWhileItIsBusy) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address}); // whose service never comes
    PlayedService service(fleet, first_channel);
    int probes = 0;
    EXPECT_TRUE(support::wait_until([&] {
        fleet.ask(request("router.Status", "1"));
        probes += member(service.next_request(1), "method") == "\"service.Probe\"" ? 1 : 0;
        return probes == 3;
    }));
}

TEST(RouterDaemon, AsksForServicesAlsoWhileARequestWaits) {
    Fleet fleet;
    fleet.start_router({"--connect", fleet.events_address, "--reply-timeout", "60000"});
    PlayedService service(fleet, first_channel);
    const StreamClient client = fleet.connect();
    client.say(request("ports.Get", "1"));
    while (member(service.next_request(), "method") != "\"ports.Get\"") {
    }
    EXPECT_EQ(member(service.next_request(), "method"), "\"service.Probe\"");
}

TEST(RouterDaemon, NamesTheShortOptionThatItDoesNotKnow) {
    const support::Finished finished = support::run({TAVRIX_ROUTERD, "--socket", "a.sock", "-xy"});
    EXPECT_EQ(finished.status, 2);
    EXPECT_NE(finished.diagnostics.find("there is no option -x"), std::string::npos) << finished.diagnostics;
}

TEST_F(StartedRouter, ShowsTheBeginningOfALongNameOnly) {
    for (const int length : {201, 8000}) {
        fleet.ask(R"({"jsonrpc":"2.0","method":")" + std::string(static_cast<size_t>(length), 'm') + "\"}");
        EXPECT_TRUE(fleet.router->says("Refused the notification " + std::string(200, 'm') + "... of a client\n"));
    }
}

TEST_F(RouterAndService, KnowsAServiceByItsLatestChannel) {
    service.reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"played","channel":"another"}})");
    EXPECT_TRUE(fleet.router->says("Service played settled on channel another"));
    EXPECT_EQ(member(member(fleet.ask(request("router.Status", "1")), "result"), "services"),
              R"([{"name":"played","channel":"another","state":"listening"}])");
}

TEST(RouterDaemon, ReadsItsOptionsFromAFileAndTheCommandLine) {
    Fleet fleet;
    support::write_file(
        "routerd.conf",
        "[routerd]\nsocket=from-file.sock\nsession=session.sock\nreply_timeout=100\npublish=" + fleet.router_address +
            "\nconnect=" + fleet.ports_address + "," + support::free_bus_address() + "\n");
    support::Process router("configured", {TAVRIX_ROUTERD, "--config", "routerd.conf", "--socket", "router.sock"});
    ASSERT_TRUE(router.says("routerd ready")) << router.log();
    EXPECT_EQ(access("from-file.sock", F_OK), -1) << "the command line wins";
    EXPECT_EQ(code_of(fleet.ask(request("ports.Get", "1"))), "-32005");
}

TEST(RouterDaemon, RefusesAConfigurationFileThatWouldBeReadOtherwiseThanItLooks) {
    const struct {
        const char *text;
        const char *complaint;
    } rows[] = {
        {"", "routerd.conf: there is no section [routerd]"},
        {"[router]\ntcp=1\n", "routerd.conf: there is no section [routerd]"},
        {"tcp=1\n[routerd]\n", "routerd.conf:1: 'tcp=1' stands before any section"},
        {"[routerd]\n\nreply-timeout=1\n", "routerd.conf:3: there is no option 'reply-timeout'"},
        {"[routerd]\ntcp =1\n", "routerd.conf:2: there is no option 'tcp '"},
        {"[routerd]\ntcp\n", "routerd.conf:2: 'tcp' is no key=value"},
        {"[routerd]\ntcp=1\ntcp=2\n", "routerd.conf:3: a second 'tcp'"},
        {"[routerd]\n[other]\nx=1\n[routerd]\ntcp=1\n", "routerd.conf:4: a second section [routerd]"},
        {"[routerd]\r\nsocket=a.sock\r\n", "routerd.conf:2: the line ends with a carriage return"},
        {"[routerd]\n# no newline\ntcp=1", "routerd.conf:3: the last line does not end with a newline"},
        {"[routerd]\ntcp=65536\n", "routerd.conf: tcp takes a number from 0 to 65535, not '65536'"},
    };
    for (const auto &row : rows) {
        support::write_file("routerd.conf", row.text);
        const support::Finished finished = support::run({TAVRIX_ROUTERD, "--config", "routerd.conf"});
        EXPECT_EQ(finished.status, 2) << row.text;
        EXPECT_EQ(finished.diagnostics.rfind(std::string("tavrix-routerd: ") + row.complaint + "\n", 0), 0U)
            << finished.diagnostics;
    }
    const support::Finished missing = support::run({TAVRIX_ROUTERD, "--config", "missing.conf"});
    EXPECT_EQ(missing.diagnostics.rfind("tavrix-routerd: missing.conf: cannot be opened\n", 0), 0U);
}

TEST(RouterDaemon, ReadsAValueOfAsManyBytesAsFit) {
    for (const size_t length : {1023U, 1024U}) {
        support::write_file("routerd.conf", "[routerd]\nsocket=" + std::string(length, 'p') + "\n");
        const support::Finished finished =
            support::run({TAVRIX_ROUTERD, "--config", "routerd.conf", "--publish", "nonsense"});
        EXPECT_EQ(finished.status, length == 1023 ? 1 : 2) << finished.diagnostics;
    }
}

TEST(RouterDaemon, ListensWhereItIsToldInsteadOfTheDefaults) {
    Fleet fleet;
    const std::string other = support::free_bus_address();
    fleet.start_router({"--connect", other + "," + support::free_bus_address()});
    fleet.ports_address = other;
    const PlayedService service(fleet, first_channel);
    EXPECT_TRUE(fleet.router->says("Service played settled"));
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
    EXPECT_NE(help.output.find("(default ipc:///run/tavrix/bus/router)"), std::string::npos);
    EXPECT_NE(help.output.find("does not register; may be repeated\n"), std::string::npos)
        << "no default for --connect";
    EXPECT_NE(help.output.find("exit status:"), std::string::npos);
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

TEST(Daemons, ReadTheirOwnSectionOfOneFile) {
    support::write_file("fleet.conf",
                        "# one file for all\n[routerd]\ntcp=0\n[portsd]\nname=p\n[eventsd]\nname=e\ninterval=0\n");
    const struct {
        const char *program;
        const char *complaint;
    } rows[] = {
        {TAVRIX_ROUTERD, "Cannot publish on nonsense"},
        {TAVRIX_PORTSD, "Cannot publish on nonsense"},
        {TAVRIX_EVENTSD, "tavrix-eventsd: fleet.conf: interval takes a number from 1 to"},
    };
    for (const auto &row : rows) {
        const Fleet fleet; // with the database
        const support::Finished finished =
            support::run({row.program, "--config", "fleet.conf", "--publish", "nonsense"});
        EXPECT_NE(finished.diagnostics.find(row.complaint), std::string::npos) << finished.diagnostics;
        EXPECT_NE(support::run({row.program, "--help"}).output.find("exit status:"), std::string::npos);
    }
}

TEST(RouterDaemon, RefusesAnIpcAddressThatTheBusCannotBear) {
    for (const char *option : {"--publish", "--connect"}) {
        for (const size_t length : {114U, 127U, 128U, 200U}) {
            const std::string address = "ipc://" + std::string(length - 6, 'p');
            const support::Finished finished =
                support::run({TAVRIX_ROUTERD, "--socket", "a.sock", "--session", "", "--publish",
                              support::free_bus_address(), option, address});
            EXPECT_EQ(finished.status, 1) << length;
            EXPECT_NE(finished.diagnostics.find("Cannot "), std::string::npos) << finished.diagnostics;
        }
    }
}

TEST(RouterDaemon, TellsTheServiceManagerThatItIsReadyOnceClientsAreLetIn) {
    const std::array<const char *, 2> names = {"/notify.sock", "@"}; // a file, or a name without one
    for (const std::string name : names) {
        std::array<char, 256> folder{};
        const std::string path = name == "@" ? "@tavrix-test-notify-" + std::to_string(getpid())
                                             : std::string(getcwd(folder.data(), folder.size())) + name;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        std::replace(address.sun_path, address.sun_path + 1, '@', '\0');
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), size), 0);
        const timeval patience = {30, 0};
        setsockopt(manager, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        Fleet fleet;
        const support::Process router(
            "router", {TAVRIX_ROUTERD, "--socket", "router.sock", "--session", "", "--publish", fleet.router_address});
        unsetenv("NOTIFY_SOCKET");
        std::array<char, 64> notice{};
        EXPECT_EQ(recv(manager, notice.data(), notice.size() - 1, 0), 7);
        EXPECT_STREQ(notice.data(), "READY=1");
        EXPECT_NE(member(fleet.ask(request("router.Status", "1")), "result"), "") << "clients are let in from then on";
        close(manager);
        if (name != "@") {
            unlink(path.c_str());
        }
    }
}

TEST(RouterDaemon, ServesAlsoWhenNoServiceManagerHearsItsNotice) {
    for (const char *path : {"/no/such.sock", "relative.sock", ""}) {
        setenv("NOTIFY_SOCKET", path, 1);
        Fleet fleet;
        const support::Process &router = fleet.start_router();
        unsetenv("NOTIFY_SOCKET");
        EXPECT_EQ(router.times_said("Cannot tell the service manager that the router is ready"), path[0] == '/' ? 1 : 0)
            << "'" << path << "'";
        EXPECT_NE(member(fleet.ask(request("router.Status", "1")), "result"), "");
    }
}
