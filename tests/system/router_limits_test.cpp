/*
 * What the router bears: bounds and fairness, malformed input on every listener, floods, foreign words in its log.
 */
#include <atomic>
#include <chrono>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/mutation.h"
#include "support/session.h"
#include "support/stranger.h"
#include "support/tavrixctl.h"

using namespace support;

namespace {

constexpr uint32_t seed = 20090; // the same inputs in every run
constexpr int inputs = 1000;

std::string status_of(const Fleet &fleet, const char *key) {
    return member(member(fleet.ask(request("router.Status", "1")), "result"), key);
}

/** One of: near a good request, of JSON's own characters, of any bytes. */
std::string malformed(Mutator &mutator) {
    const std::string good =
        R"({"jsonrpc":"2.0","method":"ports.Get","id":1,"transaction_id":7,"params":{"a":[1,"x"]}})";
    const std::string alphabet = "{}[]\",:\\u0019.-+eE truefalsn\x01\x7f\x80\xc2\xff";
    switch (mutator.below(3)) {
    case 0:
        return mutator.near(good, alphabet);
    case 1:
        return mutator.of(alphabet, 200);
    default:
        return mutator.bytes(200);
    }
}

std::string without_newlines(std::string text) {
    for (char &c : text) {
        c = c == '\n' ? ' ' : c;
    }
    return text;
}

class RouterLimits : public testing::Test {
  protected:
    /** A router with a policy that opens TCP to all. */
    void start(std::vector<std::string> more = {}) {
        support::write_file("policy.conf", "[tcp]\nall=*\n");
        more.insert(more.end(), {"--tcp", std::to_string(port), "--policy", "policy.conf"});
        fleet.start_lone_router(more);
    }
    StreamClient connect(bool tcp) const { return tcp ? StreamClient::tcp_port(port) : fleet.connect(); }
    /** Whether a call through the service comes back with its own parameter. */
    bool serves(DirectService &service) {
        SessionClient client;
        const std::string number = std::to_string(++calls);
        client.say(request("ports.Get", "\"good\"", ",\"params\":{\"n\":" + number + "}"));
        std::string asked = service.next_request();
        while (asked.find("\"params\":{\"n\":" + number + "}") == std::string::npos && asked[0] == '{') {
            asked = service.next_request(); // some of the malformed ones were good enough
        }
        service.reply(asked, number);
        return member(client.hear(), "result") == number;
    }

    /** Each by a client of its own; they keep the router at work for a while. */
    std::vector<StreamClient> send_costly_requests() const {
        std::string values = "[]";
        while (values.size() < 8000) {
            values += ",[]";
        }
        std::vector<StreamClient> clients;
        for (int i = 0; i < 100; ++i) {
            clients.push_back(fleet.connect());
            clients.back().say(request("router.Status", "1", ",\"params\":{\"values\":[" + values + "]}"));
        }
        return clients;
    }

    /** Of the router, user's and system's. */
    long processor_ticks() const {
        std::istringstream fields(support::read_file("/proc/" + std::to_string(fleet.router->pid()) + "/stat"));
        std::string field;
        for (int i = 1; i <= 13; ++i) {
            fields >> field;
        }
        long user = 0;
        long system = 0;
        fields >> user >> system;
        return user + system;
    }

    int port = support::free_port();
    int calls = 0;
    Fleet fleet;
};

/** The same, with sockets that a stranger can reach. */
class RouterFairness : public RouterLimits {
  protected:
    void SetUp() override {
        if (!support::can_be_a_stranger()) {
            GTEST_SKIP() << "only root can play another user";
        }
        chmod(".", 0755);
    }
    static SessionClient strange_session() {
        const Stranger stranger;
        EXPECT_TRUE(stranger.worked());
        return SessionClient();
    }
};

} // namespace

// --- Clients -------------------------------------------------------------------------------------------------------

TEST_F(RouterLimits, TurnsAwayWhoIsBeyondHalfOfTheFreePlaces) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<StreamClient> silent;
    for (int i = 0; i < 3; ++i) {
        silent.push_back(fleet.connect());
    }
    EXPECT_EQ(status_of(fleet, "clients"), "4") << "the fourth of eight places is to be had";
    silent.push_back(fleet.connect());
    const std::string answer = fleet.ask(request("router.Status", "1"));
    EXPECT_EQ(answer, R"({"jsonrpc":"2.0","id":null,"error":{"code":-32014,"message":"System is busy.",)"
                      R"("data":{"message":"too many clients"}}})");
    SessionClient session;
    EXPECT_EQ(code_of(session.hear()), "-32014") << "a session is told in a line";
    EXPECT_TRUE(session.gets_closed());
    silent.pop_back();
    EXPECT_TRUE(support::wait_until([&] { return status_of(fleet, "clients") == "4"; }));
    EXPECT_NE(status_of(fleet, "busy"), "0");
}

TEST_F(RouterLimits, CountsAllClientsOverTcpAsOneUser) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<StreamClient> silent;
    for (int i = 0; i < 4; ++i) {
        silent.push_back(StreamClient::tcp_port(port));
    }
    const StreamClient beyond = StreamClient::tcp_port(port);
    EXPECT_EQ(code_of(beyond.hear()), "-32014");
    EXPECT_EQ(status_of(fleet, "clients"), "5") << "a local user has half of what is left";
}

TEST_F(RouterFairness, LeavesRoomForAnotherUser) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<SessionClient> flood;
    for (int i = 0; i < 20; ++i) {
        flood.push_back(strange_session());
    }
    EXPECT_EQ(code_of(flood.back().hear()), "-32014");
    SessionClient first;
    SessionClient second;
    EXPECT_EQ(member(first.ask(request("router.Status", "1")), "id"), "1");
    EXPECT_EQ(member(second.ask(request("router.Status", "2")), "id"), "2");
    EXPECT_EQ(code_of(fleet.ask(request("router.Status", "3"))), "-32014") << "half of four are two";
}

TEST_F(RouterFairness, ServesOneUserBesideTheFloodOfAnother) {
    start({"--max-clients", "64"});
    std::atomic<bool> ended{false};
    DirectService service;
    std::vector<SessionClient> flood;
    for (int i = 0; i < 8; ++i) {
        flood.push_back(strange_session());
        fcntl(flood.back().fd(), F_SETFL, O_NONBLOCK);
    }
    std::thread flooding([&] {
        const std::string lines =
            request("router.Status", "1") + "\nrubbish\n[1,2,3]\n" + request("ports.Get", "1") + "\n";
        char bytes[65536];
        for (size_t i = 0; !ended; i = (i + 1) % flood.size()) {
            static_cast<void>(flood[i].say_bytes(lines));
            static_cast<void>(
                recv(flood[i].fd(), bytes, i % 2 == 0 ? sizeof bytes : 0, MSG_DONTWAIT)); // some never read
        }
    });
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(serves(service)) << i;
    }
    ended = true;
    flooding.join();
}

TEST_F(RouterFairness, ServesOneUserBeforeAllThatAnotherHasAsked) {
    std::string batch = "[1";
    for (int i = 1; i < 256; ++i) {
        batch += ",1";
    }
    const struct {
        std::string line;
        int lines;
        int requests;
    } floods[] = {{"1\n", 4000, 4000}, {batch + "]\n", 15, 15 * 256}};
    constexpr int sessions = 20;
    for (const auto &flood : floods) {
        start();
        std::vector<SessionClient> strangers;
        for (int i = 0; i < sessions; ++i) {
            strangers.push_back(strange_session());
            EXPECT_EQ(member(strangers.back().ask(request("router.Status", "1")), "id"), "1");
        }
        std::vector<SessionClient> good(3);
        for (SessionClient &session : good) {
            EXPECT_EQ(member(session.ask(request("router.Status", "1")), "id"), "1");
        }
        std::string rubbish;
        for (int i = 0; i < flood.lines; ++i) {
            rubbish += flood.line;
        }
        fleet.router->signal(SIGSTOP);
        for (SessionClient &session : strangers) {
            session.say_bytes(rubbish);
        }
        for (SessionClient &session : good) {
            session.say(request("router.Status", "2"));
        }
        fleet.router->signal(SIGCONT);
        for (SessionClient &session : good) {
            const int refused = std::stoi(member(member(session.hear(), "result"), "refused"));
            EXPECT_LT(refused, sessions * flood.requests / 2) << "the flood had not been served when the good one was";
        }
        EXPECT_TRUE(support::wait_until([&] { // but it is, in the end
            return std::stoi(status_of(fleet, "refused")) == sessions * flood.requests;
        })) << status_of(fleet, "refused");
    }
}

TEST_F(RouterFairness, AnswersAOneShotClientBeforeAllThatAnotherUserHasSent) {
    start();
    fleet.router->signal(SIGSTOP);
    std::vector<StreamClient> flood;
    {
        const Stranger stranger;
        flood = send_costly_requests();
    }
    const StreamClient good = fleet.connect();
    good.say(request("router.Status", "1"));
    fleet.router->signal(SIGCONT);
    const size_t left = std::stoul(member(member(good.hear(), "result"), "clients"));
    EXPECT_GT(left, flood.size() / 2) << "the flood had not been served when the good one was";
    for (const StreamClient &client : flood) { // but it is, in the end
        EXPECT_EQ(member(client.hear(), "id"), "\"router.Status\"");
    }
}

TEST_F(RouterLimits, TakesTheTimeThatAOneShotClientWaitsForItsTurnAsItsOwn) {
    start({"--client-timeout", "1"});
    fleet.router->signal(SIGSTOP);
    const std::vector<StreamClient> clients = send_costly_requests();
    fleet.router->signal(SIGCONT);
    for (const StreamClient &client : clients) {
        const std::string answer = client.hear();
        EXPECT_EQ(member(answer, "id"), "\"router.Status\"") << answer;
    }
}

TEST_F(RouterLimits, AnswersABatchThatTakesSeveralTurnsAndWhatComesBehindIt) {
    start();
    std::string batch = "[";
    for (int i = 0; i < 256; ++i) {
        batch += (i > 0 ? "," : "") + request("rpc.discover", std::to_string(i));
    }
    SessionClient client;
    client.say_bytes(batch + "]\n" + request("router.Status", "\"behind\"") + "\n");
    shutdown(client.fd(), SHUT_WR);
    const std::string answers = client.hear();
    EXPECT_EQ(answers.substr(0, 24), R"([{"jsonrpc":"2.0","id":0)");
    EXPECT_NE(answers.find(R"({"jsonrpc":"2.0","id":255,"result":{"openrpc":)"), std::string::npos);
    EXPECT_EQ(member(client.hear(), "id"), "\"behind\"");
    EXPECT_TRUE(client.gets_closed());
}

/**
 * A service is read whether or not its user has time left, so it comes back to a list in which it stands already: the
 * list has each client once, and none that has gone.
 */
TEST_F(RouterLimits, ForgetsAServiceThatGoesWhileItWaitsForItsTurn) {
    start();
    const auto lines_of = [](const std::string &line, int count) {
        std::string lines;
        for (int i = 0; i < count; ++i) {
            lines += line + "\n";
        }
        return lines;
    };
    std::vector<SessionClient> same_user(5);
    for (SessionClient &session : same_user) {
        EXPECT_EQ(member(session.ask(request("router.Status", "1")), "id"), "1");
    }
    DirectService service;
    fleet.router->signal(SIGSTOP);
    for (SessionClient &session : same_user) {
        session.say_bytes(lines_of("1", 4000)); // several turns of work for each
    }
    service.say_bytes(lines_of("{}", 20000)); // as well, without an answer that would tell at once that it has gone
    service.close();
    fleet.router->signal(SIGCONT);
    for (SessionClient &session : same_user) {
        for (int i = 0; i < 4000; ++i) {
            ASSERT_EQ(code_of(session.hear()), "-32600") << fleet.router->log();
        }
    }
    EXPECT_EQ(status_of(fleet, "discarded"), "20000");
}

TEST_F(RouterFairness, BoundsWhatTheSessionsOfOneUserLeaveUnread) {
    start();
    const std::string question = request("rpc.discover", "1") + "\n";
    SessionClient measuring;
    const size_t answer = measuring.ask(request("rpc.discover", "1")).size();
    std::vector<SessionClient> deaf;
    for (int i = 0; i < 12; ++i) {
        deaf.push_back(strange_session());
        for (size_t asked = 0; asked < size_t{7} * 1024 * 1024; asked += answer) { // fewer than each may leave
            deaf.back().say_bytes(question);
        }
    }
    EXPECT_TRUE(fleet.router->says("A session does not read its answers"));
    SessionClient small = strange_session();
    EXPECT_EQ(member(small.ask(request("router.Status", "1")), "id"), "1") << "the same user, who reads now";
    SessionClient large;
    large.say_bytes(question + question + question + question);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(member(large.hear(), "id"), "1") << "another user";
    }
}

TEST_F(RouterFairness, BoundsWhatTheOneShotClientsOfOneUserLeaveUnread) {
    start(
        {"--client-timeout", "86400000", "--reply-timeout", "86400000"}); // such replies take seconds on a slow machine
    DirectService service;
    const std::string large = "\"" + std::string(size_t{7} * 1024 * 1024, 'x') + "\"";
    std::vector<StreamClient> deaf;
    for (int i = 0; i < 10; ++i) {
        {
            const Stranger stranger;
            ASSERT_TRUE(stranger.worked());
            deaf.push_back(fleet.connect());
        }
        deaf.back().say(request("ports.Get", "1"));
        service.reply(service.next_request(), large);
    }
    EXPECT_TRUE(fleet.router->says("There is no room for a client's answer: its user leaves too much unread"));
    const StreamClient other = fleet.connect();
    other.say(request("ports.Get", "1"));
    service.reply(service.next_request(), large);
    EXPECT_EQ(member(other.hear(), "result"), large) << "another user";
    EXPECT_EQ(member(deaf.front().hear(), "result"), large) << "there was room for this one";
}

TEST_F(RouterLimits, CountsNothingAsUnreadThatWentWithItsSession) {
    start({"--max-in-flight", "4096", "--reply-timeout", "86400000"});
    const SessionClient of_the_same_user; // keeps the user's account
    const std::string filling = ",\"params\":{\"filling\":\"" + std::string(60000, 'x') + "\"}";
    for (int round = 0; round < 15; ++round) {
        DirectService service; // calls itself, reads nothing, and goes
        for (int i = 0; i < 110; ++i) {
            service.say(request("ports.Get", std::to_string(i), filling));
        }
    }
    SessionClient innocent;
    std::string questions;
    for (int i = 0; i < 20; ++i) {
        questions += request("rpc.discover", std::to_string(i)) + "\n";
    }
    innocent.say_bytes(questions);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(member(innocent.hear(), "id"), std::to_string(i));
    }
}

TEST_F(RouterLimits, RestsWhileASessionThatHasEndedDoesNotRead) {
    start();
    SessionClient deaf;
    std::string questions;
    for (int i = 0; i < 400; ++i) {
        questions += request("rpc.discover", "1") + "\n";
    }
    deaf.say_bytes(questions);
    shutdown(deaf.fd(), SHUT_WR);
    // Once all has been answered there is nothing to do but to wait.
    EXPECT_TRUE(support::wait_until([this] {
        const long before = processor_ticks();
        poll(nullptr, 0, 300);
        return processor_ticks() - before <= 3;
    })) << "it never rests";
    for (int i = 0; i < 400; ++i) {
        EXPECT_EQ(member(deaf.hear(), "id"), "1");
    }
    EXPECT_TRUE(deaf.gets_closed());
}

TEST_F(RouterLimits, KeepsNoStatisticsOfNamesThatAnybodyMayInvent) {
    start({"--max-in-flight", "4096"});
    DirectService service({"everything", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3", "[]", "[]", "true"});
    SessionClient client;
    const auto call = [&](const std::string &method) {
        client.say(request(method, "1"));
        service.reply(service.next_request(), "1");
        EXPECT_EQ(member(client.hear(), "result"), "1") << method;
    };
    call("log." + std::string(125, 'n'));
    EXPECT_EQ(status_of(fleet, "methods").find("nnn"), std::string::npos) << "a long name";
    for (int i = 0; i < 140; ++i) {
        call("log.m" + std::to_string(i));
    }
    const std::string methods = status_of(fleet, "methods");
    EXPECT_NE(methods.find("\"log.m127\""), std::string::npos);
    EXPECT_EQ(methods.find("\"log.m128\""), std::string::npos);
    EXPECT_NE(methods.find("\"(others)\":{\"calls\":13"), std::string::npos) << methods;
}

TEST_F(RouterLimits, RereadsLogLevelsOnlySoOftenForOneUser) {
    start();
    SessionClient client;
    std::string burst;
    for (int i = 0; i < 11; ++i) {
        burst += request("logger.ReloadConf", std::to_string(i)) + "\n";
    }
    client.say_bytes(burst);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(member(client.hear(), "result"), "0") << i;
    }
    const std::string busy = client.hear();
    EXPECT_EQ(code_of(busy), "-32014") << busy;
    const StreamClient over_tcp = StreamClient::tcp_port(port);
    over_tcp.say(request("logger.ReloadConf", "1"));
    EXPECT_EQ(member(over_tcp.hear(), "result"), "0") << "another user";
    EXPECT_TRUE(
        support::wait_until([&] { return member(client.ask(request("logger.ReloadConf", "12")), "result") == "0"; }));
}

// --- Requests in flight --------------------------------------------------------------------------------------------

TEST_F(RouterLimits, BoundsTheRequestsInFlightOfEachService) {
    start({"--max-in-flight", "8"});
    DirectService service;
    DirectService other({"other", "505a5451-3ef2-4618-8087-9a22b800a510", "[]", R"(["events.List"])", "true"});
    SessionClient client;
    std::vector<std::string> in_flight;
    for (int i = 0; i < 4; ++i) {
        client.say(request("ports.Get", std::to_string(i)));
        in_flight.push_back(service.next_request());
    }
    const std::string busy = client.ask(request("ports.Get", "\"beyond\"", ",\"transaction_id\":6"));
    EXPECT_EQ(busy, R"({"jsonrpc":"2.0","id":"beyond","error":{"code":-32014,"message":"System is busy.",)"
                    R"("data":{"message":"too many requests in flight"}},"transaction_id":6})");
    client.say(request("events.List", "\"other\""));
    other.reply(other.next_request(), "1");
    EXPECT_EQ(member(client.hear(), "id"), "\"other\"") << "each service has its own";
    const StreamClient over_tcp = StreamClient::tcp_port(port);
    over_tcp.say(request("ports.Get", "1"));
    service.reply(service.next_request(), "\"another user's\"");
    EXPECT_EQ(member(over_tcp.hear(), "result"), "\"another user's\"");
    service.reply(in_flight[0], "0");
    EXPECT_EQ(member(client.hear(), "id"), "0");
    client.say(request("ports.Get", "\"again\""));
    service.reply(service.next_request(), "1");
    EXPECT_EQ(member(client.hear(), "id"), "\"again\"");
}

/** Otherwise whoever asks and goes, again and again, fills a service with work that nobody waits for. */
TEST_F(RouterLimits, KeepsThePlaceOfACallUntilItsServiceIsThroughWithIt) {
    start({"--max-in-flight", "8", "--reply-timeout", "86400000"});
    DirectService service;
    std::vector<std::string> left;
    for (int i = 0; i < 4; ++i) {
        StreamClient leaving = fleet.connect();
        leaving.say(request("ports.Get", "1"));
        left.push_back(service.next_request());
        leaving.close();
        EXPECT_EQ(member(service.hear(), "method"), "\"service.Cancel\"");
    }
    SessionClient client;
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
    EXPECT_EQ(status_of(fleet, "in_flight"), "0") << "nobody waits";
    service.reply(left[2], "\"late\"");
    service.ask(request("router.Status", "1")); // by then the reply has been taken
    client.say(request("ports.Get", "\"its place\""));
    const std::string asked_later = service.next_request();
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
    service.reply(asked_later, "1");
    EXPECT_EQ(member(client.hear(), "id"), "\"its place\"");
    for (int i = 0; i < 4; ++i) { // it has read what came before the one that it has answered
        client.say(request("ports.Get", std::to_string(i)));
        service.next_request();
    }
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
}

TEST_F(RouterLimits, KeepsNoPlaceForLongerThanAReplyIsWaitedFor) {
    start({"--max-in-flight", "2", "--reply-timeout", "100"});
    DirectService service;
    SessionClient client;
    const auto times_out = [&] { return code_of(client.ask(request("ports.Get", "1"))) == "-32005"; };
    ASSERT_TRUE(times_out());
    EXPECT_TRUE(support::wait_until(times_out));
}

TEST_F(RouterLimits, BoundsReloadsInFlightToo) {
    start({"--max-in-flight", "8", "--reply-timeout", "86400000"});
    const BusService service(fleet, {"mute", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3", "[]", R"(["other.List"])", ""});
    SessionClient client;
    for (int i = 0; i < 5; ++i) {
        client.say(request("logger.ReloadConf", std::to_string(i)));
    }
    const std::string busy = client.hear();
    EXPECT_EQ(code_of(busy), "-32014");
    EXPECT_EQ(member(busy, "id"), "4");
    EXPECT_EQ(status_of(fleet, "in_flight"), "4");
}

// --- Descriptors ---------------------------------------------------------------------------------------------------

TEST_F(RouterLimits, ServesThoseItHasWhenDescriptorsRunOut) {
    start({"--client-timeout", "86400000"});
    DirectService service;
    SessionClient client;
    EXPECT_EQ(member(client.ask(request("router.Status", "1")), "id"), "1");
    rlimit before{};
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{8, before.rlim_max};
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const StreamClient waiting = fleet.connect();
    waiting.say(request("router.Status", "\"waits\""));
    const StreamClient over_tcp = StreamClient::tcp_port(port);
    over_tcp.say(request("router.Status", "1"));
    EXPECT_TRUE(fleet.router->says("Cannot accept a client: Too many open files; those that are there are served"));
    for (int i = 0; i < 10; ++i) {
        client.say(request("ports.Get", "1"));
        service.reply(service.next_request(), "1");
        EXPECT_EQ(member(client.hear(), "result"), "1");
    }
    ASSERT_EQ(prlimit(fleet.router->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    EXPECT_EQ(member(waiting.hear(), "id"), "\"router.Status\"");
    EXPECT_EQ(member(over_tcp.hear(), "id"), "\"router.Status\"");
}

TEST_F(RouterLimits, DoNotStandStillWithTheReaderOfTheLog) {
    ASSERT_EQ(mkfifo("unread.log", 0600), 0); // where the process's log goes
    const int unread = open("unread.log", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const std::string filling(4096, 'x');
    while (write(unread, filling.data(), filling.size()) > 0) {
    }
    const support::Process router("unread", {TAVRIX_ROUTERD, "--socket", "unread.sock", "--session", "unread.session",
                                             "--publish", "ipc://unread-bus/router"});
    std::string reply;
    EXPECT_TRUE(support::wait_until([&] {
        reply = support::ctl({"call", "--socket", "unread.sock", "router.Status"}).output;
        return !reply.empty();
    }));
    close(unread);
    EXPECT_EQ(member(reply, "locked"), "false");
}

// --- Malformed input -----------------------------------------------------------------------------------------------

TEST_F(RouterLimits, BearsMalformedRequestsOfOneShotClients) {
    start({"--reply-timeout", "86400000"}); // those that were good enough end with their clients
    DirectService service;
    for (const bool tcp : {false, true}) {
        Mutator mutator(seed);
        for (int i = 0; i < inputs; ++i) {
            const StreamClient client = connect(tcp);
            const std::string text = malformed(mutator);
            const size_t middle = text.empty() ? 0 : mutator.below(text.size());
            client.say(text.substr(0, middle));
            client.say(text.substr(middle));
            if (i % 2 == 0) {
                shutdown(client.fd(), SHUT_WR); // the others go without a word
            }
        }
        EXPECT_TRUE(serves(service)) << tcp;
    }
    EXPECT_TRUE(fleet.router->running());
    EXPECT_TRUE(support::wait_until([&] { return status_of(fleet, "clients") == "2"; })) << "the service and this one";
}

TEST_F(RouterLimits, AnswersEachMalformedLineOfASessionAndGoesOn) {
    start();
    DirectService service;
    SessionClient client;
    Mutator mutator(seed);
    for (int i = 0; i < inputs; ++i) {
        client.say(without_newlines(malformed(mutator)));
    }
    const std::string last = client.ask(request("router.Status", "\"last\""));
    EXPECT_NE(last, "(closed)");
    EXPECT_EQ(member(client.hear_of("\"id\":\"last\""), "id"), "\"last\"");
    EXPECT_TRUE(serves(service));
}

TEST_F(RouterLimits, BearsRawBytesOverASession) {
    start();
    DirectService service;
    Mutator mutator(seed);
    std::optional<SessionClient> client(std::in_place);
    for (int i = 0; i < inputs; ++i) {
        if (!client->say_bytes(malformed(mutator)) || i % 100 == 99) {
            client.emplace();
        }
    }
    EXPECT_TRUE(serves(service));
}

TEST_F(RouterLimits, BearsMalformedLinesOfAService) {
    start();
    DirectService service;
    SessionClient witness;
    witness.ask(request("router.Subscribe", "1", R"(,"params":{"methods":["*"]})"));
    Mutator mutator(seed);
    for (int i = 0; i < inputs; ++i) {
        service.say(without_newlines(malformed(mutator)));
        service.say(without_newlines(
            mutator.near(R"({"jsonrpc":"2.0","id":"ports.Get","result":[1],"transaction_id":7})", "{}[]\",:\\0x\x80")));
    }
    EXPECT_TRUE(serves(service));
    service.say(R"({"jsonrpc":"2.0","method":"ports.Last"})");
    EXPECT_EQ(member(witness.hear_of("ports.Last"), "method"), "\"ports.Last\"");
}

TEST_F(RouterLimits, BearsMalformedMessagesOnTheBus) {
    start();
    DirectService direct;
    Registration registration = Registration::on_bus();
    registration.name = "bus";
    registration.methods = R"(["mzu.List"])";
    BusService service(fleet, registration);
    SessionClient everything;
    everything.ask(request("router.Subscribe", "1", R"(,"params":{"methods":["*"]})"));
    everything.ask(request("router.Monitor", "1", R"(,"params":{"methods":["*"]})"));
    Mutator mutator(seed);
    const std::string hello = R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"n","channel":"c"}})";
    for (int i = 0; i < inputs; ++i) {
        service.publish_reply(malformed(mutator));
        service.publish_reply(mutator.near(hello, "{}[]\",:\\0x\x80"));
        service.publish(malformed(mutator), malformed(mutator));
    }
    SessionClient client;
    client.say(request("mzu.List", "1"));
    std::string asked = service.next_request();
    while (member(asked, "method") != "\"mzu.List\"" && asked[0] == '{') {
        asked = service.next_request(); // welcomes to some of the hellos
    }
    service.reply(asked, "\"served\"");
    EXPECT_EQ(member(client.hear(), "result"), "\"served\"");
    EXPECT_TRUE(serves(direct));
    EXPECT_GT(std::stoi(status_of(fleet, "discarded")), inputs / 2) << "they have arrived";
}

TEST_F(RouterLimits, BearsStrangeConnectionsToItsBusAddress) {
    start();
    DirectService service;
    const int bus = std::stoi(fleet.router_address.substr(fleet.router_address.rfind(':') + 1));
    const std::string subscriber("\0SP\0\0\x21\0\0", 8); // nanomsg ends the process for a message behind this header:
    Mutator mutator(seed);                               // who may connect is trusted not to send one
    for (int i = 0; i < inputs; ++i) {
        const StreamClient client = StreamClient::tcp_port(bus);
        std::string text = mutator.below(2) == 0 ? "x" + mutator.bytes(64) : subscriber;
        text[mutator.below(text.size())] ^= static_cast<char>(1 + mutator.below(255));
        if (text.compare(0, subscriber.size(), subscriber) != 0) {
            client.say(text);
        }
    }
    EXPECT_TRUE(serves(service));
}

// --- Floods --------------------------------------------------------------------------------------------------------

TEST_F(RouterLimits, KnowsOnlySoManyOfThoseThatSayHello) {
    start();
    Registration registration = Registration::on_bus();
    BusService service(fleet, registration);
    for (int i = 0; i < 1000; ++i) {
        service.publish_reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"h)" + std::to_string(i) +
                              R"(","channel":"c"}})");
    }
    EXPECT_TRUE(fleet.router->says("Passed over the hello of h64 on channel c"));
    EXPECT_TRUE(support::wait_until([&] { return status_of(fleet, "services").find("\"h63\"") != std::string::npos; }));
    const std::string services = status_of(fleet, "services");
    EXPECT_NE(services.find("\"h63\""), std::string::npos);
    EXPECT_EQ(services.find("\"h64\""), std::string::npos) << "64 of them";
    EXPECT_LT(fleet.router->times_said("Passed over the hello"), 936) << "nor do they fill the log";
}

TEST_F(RouterLimits, ServesBesideAFloodOfReplies) {
    start();
    DirectService direct;
    Registration registration = Registration::on_bus();
    registration.name = "bus";
    registration.methods = R"(["mzu.List"])";
    BusService service(fleet, registration);
    std::atomic<bool> ended{false};
    std::thread flooding([&] {
        while (!ended) {
            service.publish_reply(R"({"jsonrpc":"2.0","id":"ports.Get","result":0,"transaction_id":1})");
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(serves(direct)) << i;
    }
    EXPECT_TRUE(support::wait_until([&] { return std::stoi(status_of(fleet, "discarded")) > 1000; }));
    ended = true;
    flooding.join();
}

TEST_F(RouterLimits, ServesBesideClientsThatNeverReadAndSlowWriters) {
    start({"--client-timeout", "86400000", "--reply-timeout", "86400000"});
    DirectService service;
    std::vector<StreamClient> slow;
    std::vector<SessionClient> never_read(5);
    for (int i = 0; i < 20; ++i) {
        slow.push_back(connect(i % 2 == 0));
        slow.back().say("{\"jsonrpc\"");
        for (const SessionClient &client : never_read) {
            client.say(request("router.Status", std::to_string(i)));
        }
    }
    SessionClient abandoned;
    for (int i = 0; i < 20; ++i) {
        abandoned.say(request("ports.Get", std::to_string(i)));
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(serves(service)) << i;
        slow[static_cast<size_t>(i)].say(":");
    }
}

// --- Its log -------------------------------------------------------------------------------------------------------

TEST_F(RouterLimits, WritesNoLineOfForeignWords) {
    start({"--reply-timeout", "100"});
    const std::string forged = R"(x\n[2000-01-01 00:00:00.000] [ERROR] forged\r\u001b[2J\u0085\u2028\u009b)";
    Registration registration = Registration::on_bus();
    registration.name = "bus";
    registration.methods = R"(["mzu.List"])";
    BusService on_bus(fleet, registration);
    DirectService service;
    SessionClient client;
    client.say(request(forged, "1"));
    client.say(request("ports.Get", "\"" + forged + "\"")); // times out
    client.say(request("mzu.List", "\"" + forged + "\""));  // over the bus
    client.say(request("router." + forged, "1"));
    client.say(R"({"jsonrpc":"2.0","method":")" + forged + "\"}");
    client.say(R"({"jsonrpc":"2.0","method":")" + forged + R"(","id":1,"transaction_id":")" + forged + "\"}");
    client.say(Registration{forged}.line());
    client.say(request("router.Subscribe", "1", R"(,"params":{"methods":[")" + forged + "\"]}"));
    fleet.ask(request(forged, "1"));
    fleet.ask(request("ports." + forged, "\"" + forged + "\""));
    fleet.ask(request("ports.Get", "\"" + forged + "\""));
    fleet.ask("x\n[forged");
    service.say(R"({"jsonrpc":"2.0","method":")" + forged + "\"}");
    service.say(R"({"jsonrpc":"2.0","id":")" + forged + R"(","result":1})");
    service.say("x\n[forged");
    on_bus.publish_reply(R"({"jsonrpc":"2.0","id":")" + forged + R"(","result":1})");
    on_bus.publish_reply(R"({"jsonrpc":"2.0","method":")" + forged + "\"}");
    on_bus.publish_reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":")" + forged +
                         R"(","channel":")" + forged + "\"}}");
    on_bus.publish_reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{")" + forged + R"(":1}})");
    on_bus.publish("x\n[forged", "y\n[forged");
    on_bus.publish_reply(R"({"jsonrpc":"2.0","id":"the.Last","result":1})");
    EXPECT_TRUE(fleet.router->says("Discarded a left-over reply of the.Last"));
    EXPECT_TRUE(fleet.router->says("No reply to mzu.List in time"));
    std::istringstream lines(fleet.router->log());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.rfind("[20", 0), 0U) << line;
        EXPECT_NE(line.rfind("[2000-", 0), 0U) << line;
        EXPECT_EQ(line.find_first_of("\r\x1b\x7f"), std::string::npos) << line;
        EXPECT_EQ(line.find("\xc2"), std::string::npos) << line;
        EXPECT_EQ(line.find("\xe2"), std::string::npos) << line;
    }
}

TEST_F(RouterLimits, WritesOnlySoManyLinesASecondThatClientsCauseAndCountsTheRest) {
    start();
    const auto begun = std::chrono::steady_clock::now();
    SessionClient client;
    std::string burst;
    for (int i = 0; i < 500; ++i) {
        burst += "{}\n";
    }
    client.say_bytes(burst);
    int caused = 500;
    for (int i = 0; i < caused; ++i) {
        ASSERT_EQ(code_of(client.hear()), "-32600") << i;
    }
    const std::regex told(R"((\d+) more lines about clients and services were left out\n)");
    int written = 0;
    int left_out = 0;
    EXPECT_TRUE(support::wait_until([&] { // the first line after a second that had too many tells of them
        EXPECT_EQ(client.hear(100), "(time-out)");
        EXPECT_EQ(code_of(client.ask("{}")), "-32600");
        ++caused;
        const std::string log = fleet.router->log();
        left_out = 0;
        for (std::sregex_iterator line(log.begin(), log.end(), told); line != std::sregex_iterator(); ++line) {
            left_out += std::stoi((*line)[1]);
        }
        written = fleet.router->times_said("Refused a malformed request\n");
        return left_out > 0 && written + left_out == caused;
    })) << caused
        << " caused, " << written << " written, " << left_out << " left out";
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    EXPECT_LE(written, 100 * (static_cast<int>(taken.count()) + 2));
}
