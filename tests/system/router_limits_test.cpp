/*
 * What the router bears: bounds and fairness, malformed input on every listener, floods, foreign words in its log.
 */
#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <regex>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/mutation.h"
#include "support/repeating.h"
#include "support/stranger.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

constexpr uint32_t seed = 20090; // the same inputs in every run
constexpr int inputs = 1000;

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
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string lines_of(const std::string &line, size_t count) { return repeated(line + "\n", count * (line.size() + 1)); }

class RouterLimits : public testing::Test {
  protected:
    void start(const std::vector<std::string> &more = {}) { fleet.start_lone_router_with_tcp(port, more); }
    void start_with_service(const std::vector<std::string> &more = {}) {
        start(more);
        direct.emplace();
    }
    StreamClient connect(bool tcp) const { return tcp ? StreamClient::tcp_port(port) : fleet.connect(); }
    /** Whether a call through the service comes back with its own parameter. */
    bool still_serves() {
        SessionClient client;
        const std::string number = std::to_string(++calls);
        std::string asked =
            forwarded(*direct, client, request("ports.Get", "\"good\"", ",\"params\":{\"n\":" + number + "}"));
        while (asked.find("\"params\":{\"n\":" + number + "}") == std::string::npos && asked[0] == '{') {
            asked = direct->next_request(); // some of the malformed ones were good enough
        }
        direct->reply(asked, number);
        return result_of(client.hear()) == number;
    }

    /** So many sessions of this user, which the router has begun to serve. */
    static std::vector<SessionClient> served_sessions(size_t count) {
        std::vector<SessionClient> sessions(count);
        for (SessionClient &session : sessions) {
            EXPECT_EQ(id_of(session.ask(request("router.Status", "1"))), "1");
        }
        return sessions;
    }
    static void expect_answers(SessionClient &client, int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(id_of(client.hear()), "1") << i;
        }
    }

    /** Each by a client of its own; they keep the router at work for a while. */
    std::vector<StreamClient> send_costly_requests() const {
        const std::string values = "[" + repeated("[],", 8000) + "]";
        std::vector<StreamClient> clients;
        for (int i = 0; i < 100; ++i) {
            clients.push_back(fleet.connect());
            clients.back().say(request("router.Status", "1", ",\"params\":{\"values\":" + values + "}"));
        }
        return clients;
    }

    /** What the router has taken so far. */
    int64_t processor_ms() const {
        clockid_t clock = 0;
        timespec taken{};
        EXPECT_EQ(clock_getcpuclockid(fleet.router->pid(), &clock), 0);
        EXPECT_EQ(clock_gettime(clock, &taken), 0);
        return taken.tv_sec * 1000 + taken.tv_nsec / 1000000;
    }

    int port = free_port();
    int calls = 0;
    Fleet fleet;
    std::optional<DirectService> direct;
};

/** The same, with sockets that a stranger can reach. */
class RouterFairness : public RouterLimits {
  protected:
    void SetUp() override {
        if (!can_be_a_stranger()) {
            GTEST_SKIP() << "only root can play another user";
        }
        chmod(".", 0755);
    }
    static std::vector<SessionClient> strange_sessions(size_t count) {
        const Stranger stranger;
        return std::vector<SessionClient>(count);
    }
};

} // namespace

TEST_F(RouterLimits, TurnsAwayWhoIsBeyondHalfOfTheFreePlaces) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<StreamClient> silent;
    for (int i = 0; i < 3; ++i) {
        silent.push_back(fleet.connect());
    }
    EXPECT_EQ(fleet.status("clients"), "4") << "the fourth of eight places is to be had";
    silent.push_back(fleet.connect());
    EXPECT_EQ(fleet.ask(request("router.Status", "1")),
              R"({"jsonrpc":"2.0","id":null,"error":{"code":-32014,"message":"System is busy.",)"
              R"("data":{"message":"too many clients"}}})");
    SessionClient session;
    EXPECT_EQ(code_of(session.hear()), "-32014") << "a session is told in a line";
    EXPECT_TRUE(session.gets_closed());
    silent.pop_back();
    EXPECT_TRUE(wait_until([&] { return fleet.status("clients") == "4"; }));
    EXPECT_NE(fleet.status("busy"), "0");
}

TEST_F(RouterLimits, CountsAllClientsOverTcpAsOneUser) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<StreamClient> silent;
    for (int i = 0; i < 4; ++i) {
        silent.push_back(connect(true));
    }
    EXPECT_EQ(code_of(connect(true).hear()), "-32014");
    EXPECT_EQ(fleet.status("clients"), "5") << "a local user has half of what is left";
}

TEST_F(RouterFairness, LeavesRoomForAnotherUser) {
    start({"--max-clients", "8", "--client-timeout", "86400000"});
    std::vector<SessionClient> flood = strange_sessions(20);
    EXPECT_EQ(code_of(flood.back().hear()), "-32014");
    const std::vector<SessionClient> two = served_sessions(2);
    EXPECT_EQ(code_of(fleet.ask(request("router.Status", "3"))), "-32014") << "half of four are two";
}

TEST_F(RouterFairness, ServesOneUserBesideTheFloodOfAnother) {
    start_with_service({"--max-clients", "64"});
    std::vector<SessionClient> flood = strange_sessions(8);
    for (const SessionClient &session : flood) {
        fcntl(session.fd(), F_SETFL, O_NONBLOCK);
    }
    const std::string lines = request("router.Status", "1") + "\nrubbish\n[1,2,3]\n" + request("ports.Get", "1") + "\n";
    size_t i = 0;
    const Repeating flooding([&] {
        char bytes[65536];
        i = (i + 1) % flood.size();
        static_cast<void>(flood[i].say_bytes(lines));
        static_cast<void>(recv(flood[i].fd(), bytes, i % 2 == 0 ? sizeof bytes : 0, MSG_DONTWAIT)); // some never read
    });
    for (int k = 0; k < 5; ++k) {
        EXPECT_TRUE(still_serves()) << k;
    }
}

TEST_F(RouterFairness, ServesOneUserBeforeAllThatAnotherHasAsked) {
    const struct {
        std::string line;
        size_t lines;
        int requests;
    } floods[] = {{"1", 4000, 4000}, {"[" + repeated("1,", 511) + "]", 15, 15 * 256}};
    constexpr int sessions = 20;
    for (const auto &flood : floods) {
        start();
        std::vector<SessionClient> strangers = strange_sessions(sessions);
        std::vector<SessionClient> good(3);
        for (std::vector<SessionClient> *all : {&strangers, &good}) {
            for (SessionClient &session : *all) {
                EXPECT_EQ(id_of(session.ask(request("router.Status", "1"))), "1");
            }
        }
        fleet.router->signal(SIGSTOP);
        for (SessionClient &session : strangers) {
            session.say_bytes(lines_of(flood.line, flood.lines));
        }
        for (SessionClient &session : good) {
            session.say(request("router.Status", "2"));
        }
        fleet.router->signal(SIGCONT);
        for (SessionClient &session : good) {
            EXPECT_LT(std::stoi(result_of(session.hear(), "refused")), sessions * flood.requests / 2)
                << "the flood had not been served when the good one was";
        }
        EXPECT_TRUE(wait_until([&] { // but it is, in the end
            return std::stoi(fleet.status("refused")) == sessions * flood.requests;
        })) << fleet.status("refused");
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
    const size_t left = std::stoul(result_of(good.hear(), "clients"));
    EXPECT_GT(left, flood.size() / 2) << "the flood had not been served when the good one was";
    for (const StreamClient &client : flood) { // but it is, in the end
        EXPECT_EQ(id_of(client.hear()), "\"router.Status\"");
    }
}

TEST_F(RouterLimits, TakesTheTimeThatAOneShotClientWaitsForItsTurnAsItsOwn) {
    start({"--client-timeout", "1"});
    fleet.router->signal(SIGSTOP);
    const std::vector<StreamClient> clients = send_costly_requests();
    fleet.router->signal(SIGCONT);
    for (const StreamClient &client : clients) {
        EXPECT_EQ(id_of(client.hear()), "\"router.Status\"");
    }
}

TEST_F(RouterLimits, AnswersABatchThatTakesSeveralTurnsAndWhatComesBehindIt) {
    start();
    const std::string batch = array_of(256, [](size_t i) { return request("rpc.discover", std::to_string(i)); });
    SessionClient client;
    client.say_bytes(batch + "\n" + request("router.Status", "\"behind\"") + "\n");
    client.end_sending();
    EXPECT_THAT(client.hear(), AllOf(StartsWith(R"([{"jsonrpc":"2.0","id":0)"),
                                     HasSubstr(R"({"jsonrpc":"2.0","id":255,"result":{"openrpc":)")));
    EXPECT_EQ(id_of(client.hear()), "\"behind\"");
    EXPECT_TRUE(client.gets_closed());
}

/**
 * A service is read whether or not its user has time left, so it comes back to a list in which it stands already: the
 * list has each client once, and none that has gone.
 */
TEST_F(RouterLimits, ForgetsAServiceThatGoesWhileItWaitsForItsTurn) {
    start();
    std::vector<SessionClient> same_user = served_sessions(5);
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
    EXPECT_EQ(fleet.status("discarded"), "20000");
}

TEST_F(RouterFairness, BoundsWhatTheSessionsOfOneUserLeaveUnread) {
    start();
    const std::string question = request("rpc.discover", "1");
    SessionClient large;
    const size_t answer = large.ask(question).size();
    std::vector<SessionClient> deaf = strange_sessions(12);
    for (const SessionClient &session : deaf) { // fewer than each may leave
        session.say_bytes(lines_of(question, size_t{7} * 1024 * 1024 / answer + 1));
    }
    EXPECT_TRUE(fleet.router->says("A session does not read its answers"));
    EXPECT_EQ(id_of(strange_sessions(1).front().ask(request("router.Status", "1"))), "1") << "the same user, who reads";
    large.say_bytes(lines_of(question, 4));
    expect_answers(large, 4); // another user
}

TEST_F(RouterFairness, BoundsWhatTheOneShotClientsOfOneUserLeaveUnread) {
    start_with_service(
        {"--client-timeout", "86400000", "--reply-timeout", "86400000"}); // such replies take seconds on a slow machine
    const std::string large = "\"" + std::string(size_t{7} * 1024 * 1024, 'x') + "\"";
    std::vector<StreamClient> deaf;
    for (int i = 0; i < 10; ++i) {
        {
            const Stranger stranger;
            deaf.push_back(fleet.connect());
        }
        direct->reply(forwarded(*direct, deaf.back(), request("ports.Get", "1")), large);
    }
    EXPECT_TRUE(fleet.router->says("There is no room for a client's answer: its user leaves too much unread"));
    const StreamClient other = fleet.connect();
    EXPECT_EQ(result_of(answered(*direct, other, request("ports.Get", "1"), large)), large) << "another user";
    EXPECT_EQ(result_of(deaf.front().hear()), large) << "there was room for this one";
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
    innocent.say_bytes(lines_of(request("rpc.discover", "1"), 20));
    expect_answers(innocent, 20);
}

TEST_F(RouterLimits, RestsWhileASessionThatHasEndedDoesNotRead) {
    start();
    SessionClient deaf;
    deaf.say_bytes(lines_of(request("rpc.discover", "1"), 400));
    deaf.end_sending();
    // Once all has been answered there is nothing to do but to wait.
    EXPECT_TRUE(wait_until([this] {
        const int64_t before = processor_ms();
        poll(nullptr, 0, 300);
        return processor_ms() - before <= 30;
    })) << "it never rests";
    expect_answers(deaf, 400);
    EXPECT_TRUE(deaf.gets_closed());
}

TEST_F(RouterLimits, KeepsNoStatisticsOfNamesThatAnybodyMayInvent) {
    start({"--max-in-flight", "4096"});
    DirectService service({"everything", TAVRIX_CHANNEL_DEFAULT, "[]", "[]", "true"});
    SessionClient client;
    EXPECT_TRUE(serves(service, client, "log." + std::string(125, 'n')));
    EXPECT_THAT(fleet.status("methods"), Not(HasSubstr("nnn"))) << "a long name";
    for (int i = 0; i < 140; ++i) {
        EXPECT_TRUE(serves(service, client, "log.m" + std::to_string(i)));
    }
    EXPECT_THAT(fleet.status("methods"), AllOf(HasSubstr("\"log.m127\""), Not(HasSubstr("\"log.m128\"")),
                                               HasSubstr("\"(others)\":{\"calls\":13")));
}

TEST_F(RouterLimits, RereadsLogLevelsOnlySoOftenForOneUser) {
    start();
    SessionClient client;
    const std::string reload = request("logger.ReloadConf", "1");
    client.say_bytes(lines_of(reload, 11));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(result_of(client.hear()), "0") << i;
    }
    EXPECT_EQ(code_of(client.hear()), "-32014");
    EXPECT_EQ(result_of(connect(true).ask(reload)), "0") << "another user";
    EXPECT_TRUE(wait_until([&] { return result_of(client.ask(reload)) == "0"; }));
}

TEST_F(RouterLimits, BoundsTheRequestsInFlightOfEachService) {
    start_with_service({"--max-in-flight", "8"});
    DirectService other({"other", TAVRIX_CHANNEL_EVENTS, "[]", R"(["events.List"])", "true"});
    SessionClient client;
    std::vector<std::string> in_flight;
    for (int i = 0; i < 4; ++i) {
        client.say(request("ports.Get", std::to_string(i)));
        in_flight.push_back(direct->next_request());
    }
    EXPECT_EQ(client.ask(request("ports.Get", "\"beyond\"", ",\"transaction_id\":6")),
              R"({"jsonrpc":"2.0","id":"beyond","error":{"code":-32014,"message":"System is busy.",)"
              R"("data":{"message":"too many requests in flight"}},"transaction_id":6})");
    EXPECT_TRUE(serves(other, client, "events.List")) << "each service has its own";
    EXPECT_TRUE(serves(*direct, connect(true))) << "another user";
    direct->reply(in_flight[0], "0");
    EXPECT_EQ(id_of(client.hear()), "0");
    EXPECT_TRUE(serves(*direct, client));
}

/** Otherwise whoever asks and goes, again and again, fills a service with work that nobody waits for. */
TEST_F(RouterLimits, KeepsThePlaceOfACallUntilItsServiceIsThroughWithIt) {
    start_with_service({"--max-in-flight", "8", "--reply-timeout", "86400000"});
    std::vector<std::string> left;
    for (int i = 0; i < 4; ++i) {
        StreamClient leaving = fleet.connect();
        leaving.say(request("ports.Get", "1"));
        left.push_back(direct->next_request());
        leaving.close();
        EXPECT_EQ(member(direct->hear(), "method"), "\"service.Cancel\"");
    }
    SessionClient client;
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
    EXPECT_EQ(fleet.status("in_flight"), "0") << "nobody waits";
    direct->reply(left[2], "\"late\"");
    direct->ask(request("router.Status", "1")); // by then the reply has been taken
    const std::string asked_later = forwarded(*direct, client, request("ports.Get", "\"its place\""));
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
    direct->reply(asked_later, "1");
    EXPECT_EQ(id_of(client.hear()), "\"its place\"");
    for (int i = 0; i < 4; ++i) { // it has read what came before the one that it has answered
        forwarded(*direct, client, request("ports.Get", std::to_string(i)));
    }
    EXPECT_EQ(code_of(client.ask(request("ports.Get", "\"beyond\""))), "-32014");
}

TEST_F(RouterLimits, KeepsNoPlaceForLongerThanAReplyIsWaitedFor) {
    start_with_service({"--max-in-flight", "2", "--reply-timeout", "100"});
    SessionClient client;
    const auto times_out = [&] { return code_of(client.ask(request("ports.Get", "1"))) == "-32005"; };
    ASSERT_TRUE(times_out());
    EXPECT_TRUE(wait_until(times_out));
}

TEST_F(RouterLimits, BoundsReloadsInFlightToo) {
    start({"--max-in-flight", "8", "--reply-timeout", "86400000"});
    const BusService service(fleet, {"mute", TAVRIX_CHANNEL_DEFAULT, "[]", R"(["other.List"])", ""});
    SessionClient client;
    for (int i = 0; i < 5; ++i) {
        client.say(request("logger.ReloadConf", std::to_string(i)));
    }
    const std::string busy = client.hear();
    EXPECT_EQ(code_of(busy), "-32014");
    EXPECT_EQ(id_of(busy), "4");
    EXPECT_EQ(fleet.status("in_flight"), "4");
}

TEST_F(RouterLimits, ServesThoseItHasWhenDescriptorsRunOut) {
    start_with_service({"--client-timeout", "86400000"});
    SessionClient client;
    EXPECT_EQ(id_of(client.ask(request("router.Status", "1"))), "1");
    const auto begun = std::chrono::steady_clock::now();
    std::optional<FewDescriptors> few(std::in_place, *fleet.router, 8);
    const StreamClient waiting = fleet.connect();
    const StreamClient over_tcp = connect(true);
    for (const StreamClient *one : {&waiting, &over_tcp}) {
        one->say(request("router.Status", "1"));
    }
    const std::string told = "Cannot accept a client: Too many open files; those that are there are served";
    EXPECT_TRUE(wait_until([&] { return fleet.router->times_said(told) >= 11; })) << "two listeners";
    // Five pauses of 100 ms lie before the eleventh line, by the loop's clock: it is read once a turn, and may be
    // behind.
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(450)) << "it does not spin";
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(serves(*direct, client));
    }
    few.reset();
    EXPECT_EQ(id_of(waiting.hear()), "\"router.Status\"");
    EXPECT_EQ(id_of(over_tcp.hear()), "\"router.Status\"");
}

TEST_F(RouterLimits, DoNotStandStillWithTheReaderOfTheLog) {
    ASSERT_EQ(mkfifo("unread.log", 0600), 0); // where the process's log goes
    const int unread = open("unread.log", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const std::string filling(4096, 'x');
    while (write(unread, filling.data(), filling.size()) > 0) {
    }
    const Process router("unread", {TAVRIX_ROUTERD, "--socket", "unread.sock", "--session", "unread.session",
                                    "--publish", "ipc://unread-bus/router"});
    std::string reply;
    EXPECT_TRUE(wait_until([&] {
        reply = ctl({"call", "--socket", "unread.sock", "router.Status"}).output;
        return !reply.empty();
    }));
    close(unread);
    EXPECT_EQ(member(reply, "locked"), "false");
}

TEST_F(RouterLimits, BearsMalformedRequestsOfOneShotClients) {
    // Those that were good enough keep their places at the service, which answers none of them.
    start_with_service({"--reply-timeout", "86400000", "--max-in-flight", "100000"});
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
        EXPECT_TRUE(still_serves()) << tcp;
    }
    EXPECT_TRUE(fleet.router->running());
    EXPECT_TRUE(wait_until([&] { return fleet.status("clients") == "2"; })) << "the service and this one";
}

TEST_F(RouterLimits, AnswersEachMalformedLineOfASessionAndGoesOn) {
    start_with_service();
    SessionClient client;
    Mutator mutator(seed);
    for (int i = 0; i < inputs; ++i) {
        client.say(without_newlines(malformed(mutator)));
    }
    client.say(request("router.Status", "\"last\""));
    EXPECT_EQ(id_of(client.hear_of("\"id\":\"last\"")), "\"last\"");
    EXPECT_TRUE(still_serves());
}

TEST_F(RouterLimits, BearsRawBytesOverASession) {
    start_with_service();
    Mutator mutator(seed);
    std::optional<SessionClient> client(std::in_place);
    for (int i = 0; i < inputs; ++i) {
        if (!client->say_bytes(malformed(mutator)) || i % 100 == 99) {
            client.emplace();
        }
    }
    EXPECT_TRUE(still_serves());
}

TEST_F(RouterLimits, BearsMalformedLinesOfAService) {
    start_with_service();
    SessionClient witness;
    witness.ask(subscription("Subscribe", R"(["*"])"));
    Mutator mutator(seed);
    for (int i = 0; i < inputs; ++i) {
        direct->say(without_newlines(malformed(mutator)));
        direct->say(without_newlines(
            mutator.near(R"({"jsonrpc":"2.0","id":"ports.Get","result":[1],"transaction_id":7})", "{}[]\",:\\0x\x80")));
    }
    EXPECT_TRUE(still_serves());
    direct->say(R"({"jsonrpc":"2.0","method":"ports.Last"})");
    EXPECT_EQ(member(witness.hear_of("ports.Last"), "method"), "\"ports.Last\"");
}

TEST_F(RouterLimits, BearsMalformedMessagesOnTheBus) {
    start_with_service();
    BusService service(fleet, Registration::on_bus("bus", R"(["mzu.List"])"));
    SessionClient everything;
    everything.ask(subscription("Subscribe", R"(["*"])"));
    everything.ask(subscription("Monitor", R"(["*"])"));
    Mutator mutator(seed);
    const std::string hello = R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"n","channel":"c"}})";
    for (int i = 0; i < inputs; ++i) {
        service.reply(malformed(mutator));
        service.reply(mutator.near(hello, "{}[]\",:\\0x\x80"));
        service.publish(malformed(mutator), malformed(mutator));
    }
    SessionClient client;
    std::string asked = forwarded(service, client, request("mzu.List", "1"));
    while (member(asked, "method") != "\"mzu.List\"" && asked[0] == '{') {
        asked = service.next_request(); // welcomes to some of the hellos
    }
    service.reply(asked, "\"served\"");
    EXPECT_EQ(result_of(client.hear()), "\"served\"");
    EXPECT_TRUE(still_serves());
    EXPECT_GT(std::stoi(fleet.status("discarded")), inputs / 2) << "they have arrived";
}

TEST_F(RouterLimits, BearsStrangeConnectionsToItsBusAddress) {
    start_with_service();
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
    EXPECT_TRUE(still_serves());
}

TEST_F(RouterLimits, KnowsOnlySoManyOfThoseThatSayHello) {
    start();
    BusService service(fleet);
    for (int i = 0; i < 1000; ++i) {
        service.reply(notification("router.Hello", R"({"name":"h)" + std::to_string(i) + R"(","channel":"c"})"));
    }
    EXPECT_TRUE(fleet.router->says("Passed over the hello of h64 on channel c"));
    EXPECT_TRUE(wait_until([&] { return fleet.status("services").find("\"h63\"") != std::string::npos; }));
    EXPECT_THAT(fleet.status("services"), Not(HasSubstr("\"h64\""))) << "64 of them";
    EXPECT_LT(fleet.router->times_said("Passed over the hello"), 936) << "nor do they fill the log";
}

TEST_F(RouterLimits, ServesBesideAFloodOfReplies) {
    start_with_service();
    BusService service(fleet, Registration::on_bus("bus", R"(["mzu.List"])"));
    const Repeating flooding(
        [&] { service.reply(R"({"jsonrpc":"2.0","id":"ports.Get","result":0,"transaction_id":1})"); });
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(still_serves()) << i;
    }
    EXPECT_TRUE(wait_until([&] { return std::stoi(fleet.status("discarded")) > 1000; }));
    EXPECT_EQ(fleet.router->end_by(SIGTERM), 0);
}

TEST_F(RouterLimits, ServesBesideClientsThatNeverReadAndSlowWriters) {
    start_with_service({"--client-timeout", "86400000", "--reply-timeout", "86400000"});
    std::vector<StreamClient> slow;
    std::vector<StreamClient> silent;
    std::vector<SessionClient> never_read(5);
    for (int i = 0; i < 20; ++i) {
        silent.push_back(connect(i % 2 == 0));
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
    for (const StreamClient &writer : slow) {
        EXPECT_TRUE(still_serves());
        writer.say(":");
    }
    EXPECT_EQ(fleet.router->times_said("said nothing in time"), 0);
}

TEST_F(RouterLimits, WritesNoLineOfForeignWords) {
    start({"--reply-timeout", "100"});
    const std::string forged = R"(x\n[2000-01-01 00:00:00.000] [ERROR] forged\\\r\u001b[2J\u0085\u2028\u009b)";
    const std::string logged = R"(x\x0a[2000-01-01 00:00:00.000] [ERROR] forged\x5c\x0d\x1b[2J\xc2\x85)"
                               R"(\xe2\x80\xa8\xc2\x9b)";
    BusService on_bus(fleet, Registration::on_bus("bus", R"(["mzu.List"])"));
    DirectService service;
    SessionClient client;
    client.say(request(forged, "1"));
    client.say(request("ports.Get", "\"" + forged + "\"")); // times out
    client.say(request("mzu.List", "\"" + forged + "\""));  // over the bus
    client.say(request("router." + forged, "1"));
    client.say(notification(forged));
    client.say(R"({"jsonrpc":"2.0","method":")" + forged + R"(","id":1,"transaction_id":")" + forged + "\"}");
    client.say(Registration{forged}.line());
    client.say(subscription("Subscribe", "[\"" + forged + "\"]"));
    for (const std::string &asked : {request(forged, "1"), request("router." + forged, "1"), notification(forged),
                                     request("ports." + forged, "\"" + forged + "\""),
                                     request("ports.Get", "\"" + forged + "\""), std::string("x\n[forged")}) {
        fleet.ask(asked);
        connect(true).ask(asked);
    }
    service.say(notification(forged));
    service.say(R"({"jsonrpc":"2.0","id":")" + forged + R"(","result":1})");
    service.say("x\n[forged");
    on_bus.reply(R"({"jsonrpc":"2.0","id":")" + forged + R"(","result":1})");
    on_bus.reply(notification(forged));
    on_bus.reply(notification("router.Hello", R"({"name":")" + forged + R"(","channel":")" + forged + "\"}"));
    on_bus.reply(notification("router.Hello", "{\"" + forged + "\":1}"));
    on_bus.publish("x\n[forged", "y\n[forged");
    on_bus.reply(R"({"jsonrpc":"2.0","id":"the.Last","result":1})");
    for (const std::string &line :
         {"Refused the notification " + logged + " of a client", "Refused " + logged, "Refused router." + logged,
          "Discarded a left-over reply of " + logged, "Passed over the hello of " + logged + " on channel " + logged,
          std::string("Discarded a left-over reply of the.Last"), std::string("No reply to mzu.List in time")}) {
        EXPECT_TRUE(fleet.router->says(line + "\n")) << line;
    }
    for (const std::string &line : lines_of(fleet.router->log())) {
        EXPECT_THAT(line, AllOf(StartsWith("[20"), Not(StartsWith("[2000-"))));
        EXPECT_EQ(line.find_first_of("\r\x1b\x7f\xc2\xe2"), std::string::npos) << line;
    }
}

TEST_F(RouterLimits, WritesOnlySoManyLinesASecondThatClientsCauseAndCountsTheRest) {
    start();
    const auto begun = std::chrono::steady_clock::now();
    SessionClient client;
    int caused = 500;
    client.say_bytes(lines_of("{}", 500));
    for (int i = 0; i < caused; ++i) {
        ASSERT_EQ(code_of(client.hear()), "-32600") << i;
    }
    const std::regex told(R"((\d+) more lines about clients and services were left out\n)");
    int written = 0;
    int left_out = 0;
    EXPECT_TRUE(wait_until([&] { // the first line after a second that had too many tells of them
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
