/*
 * What the router tells of itself in numbers, and what is true of it however it is used: each call has an id of its
 * own, each listener is where it should be, each publication arrives once.
 */
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <numeric>
#include <regex>
#include <set>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/system_test.h"

using namespace support;
using namespace testing;

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

class RouterStatistics : public LoneRouter {
  protected:
    std::string status_of(const char *method) { return member(fleet.status("methods"), method); }
    std::string metrics() {
        return json_string_value(parsed(result_of(fleet.ask(request("router.Metrics", "1")))).get());
    }

    SessionClient client;
};

/** Calls of known delays: the router has measured no less than the service has held, no more than the client waited. */
struct Delays {
    std::vector<double> held;
    std::vector<double> waited;

    void play(DirectService &service, SessionClient &client, int milliseconds) {
        const auto begun = Clock::now();
        const std::string asked = forwarded(service, client, request("ports.Get", "1"));
        const auto taken = Clock::now();
        if (milliseconds > 0) {
            EXPECT_EQ(service.hear(milliseconds), "(time-out)");
        }
        held.push_back(seconds_since(taken));
        service.reply(asked, "0");
        EXPECT_EQ(result_of(client.hear()), "0");
        waited.push_back(seconds_since(begun));
    }
    void sort() {
        std::sort(held.begin(), held.end());
        std::sort(waited.begin(), waited.end());
    }
};

double sum_of(const std::vector<double> &times) { return std::accumulate(times.begin(), times.end(), 0.0); }

size_t count_within(const std::vector<double> &times, double bound) {
    return static_cast<size_t>(
        std::count_if(times.begin(), times.end(), [bound](double time) { return time <= bound; }));
}

} // namespace

TEST_F(RouterStatistics, TellWithinABucketHowLongCallsTook) {
    DirectService service;
    Delays delays;
    for (int i = 0; i < 20; ++i) {
        delays.play(service, client, i < 10 ? 0 : (i < 18 ? 10 : 60));
    }
    delays.sort();
    const std::string row = status_of("ports.Get");
    const struct {
        const char *member;
        size_t rank; // of 20
    } percentiles[] = {{"p50_ms", 10}, {"p90_ms", 18}, {"p99_ms", 20}};
    double before = 0;
    for (const auto &percentile : percentiles) {
        const double shown = std::stod(member(row, percentile.member)) / 1000;
        EXPECT_GE(shown, delays.held[percentile.rank - 1]) << percentile.member;
        EXPECT_LE(shown, delays.waited[percentile.rank - 1] * 1.25) << percentile.member;
        EXPECT_GE(shown, before) << percentile.member;
        before = shown;
    }
    const std::string text = metrics();
    const std::string name = "tavrix_router_call_seconds";
    EXPECT_THAT(text, HasSubstr(name + "_count{method=\"ports.Get\"} 20\n"));
    std::smatch found;
    ASSERT_TRUE(std::regex_search(text, found, std::regex(name + R"(_sum\{method="ports.Get"\} (\S+))"))) << text;
    EXPECT_GE(std::stod(found[1]) * 1.001, sum_of(delays.held)); // it is shown with six digits
    EXPECT_LE(std::stod(found[1]) * 0.999, sum_of(delays.waited));
    int buckets = 0;
    for (const std::string &line : lines_of(text)) {
        if (std::regex_match(line, found,
                             std::regex(name + R"re(_bucket\{method="ports.Get",le="([0-9.]+)"\} (\d+))re"))) {
            const double bound = std::stod(found[1]);
            EXPECT_LE(std::stoul(found[2]), count_within(delays.held, bound)) << line;
            EXPECT_GE(std::stoul(found[2]), count_within(delays.waited, bound / 1.25)) << line;
            ++buckets;
        }
    }
    EXPECT_GT(buckets, 10) << text;
}

TEST_F(RouterStatistics, CountEachCallInOneOutcome) {
    fleet.start_lone_router({"--reply-timeout", "1000"});
    SessionClient caller;
    {
        DirectService service;
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(serves(service, caller));
        }
        for (int i = 0; i < 2; ++i) {
            caller.say(request("ports.Get", "1"));
            service.say(R"({"jsonrpc":"2.0","id":"ports.Get","error":{"code":-32001,"message":"m"},"transaction_id":)" +
                        member(service.next_request(), "transaction_id") + "}");
            EXPECT_EQ(code_of(caller.hear()), "-32001");
        }
        EXPECT_EQ(code_of(caller.ask(request("ports.Get", "1"))), "-32005");
        service.next_request();
        SessionClient leaving;
        forwarded(service, leaving, request("ports.Get", "1"));
        leaving.close();
        EXPECT_NE(service.hear_of("service.Cancel"), "(closed)");
        forwarded(service, caller, request("ports.Get", "1"));
    }
    EXPECT_EQ(code_of(caller.hear()), "-32601");
    const std::string row = status_of("ports.Get");
    EXPECT_EQ(members_of(row, {"calls", "errors", "timeouts", "gone", "cancelled"}), "8 2 1 1 1");
    const std::string text = metrics();
    for (const char *line : {"calls_total{method=\"ports.Get\",outcome=\"result\"} 3\n",
                             "calls_total{method=\"ports.Get\",outcome=\"error\"} 2\n",
                             "calls_total{method=\"ports.Get\",outcome=\"timeout\"} 1\n",
                             "calls_total{method=\"ports.Get\",outcome=\"gone\"} 1\n",
                             "calls_total{method=\"ports.Get\",outcome=\"cancelled\"} 1\n",
                             "call_seconds_count{method=\"ports.Get\"} 5\n"}) {
        EXPECT_THAT(text, HasSubstr("\ntavrix_router_" + std::string(line)));
    }
}

namespace {

/** Reads the exposition format strictly: what is wrong with a line is a failure. */
struct Exposition {
    explicit Exposition(const std::string &text) {
        EXPECT_EQ(text.back(), '\n');
        for (const std::string &line : lines_of(text)) {
            take(line);
        }
    }

    void take(const std::string &line) {
        static const std::regex help(R"(# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) \S.*)");
        static const std::regex type(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|histogram))");
        static const std::regex sample(
            R"re(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(?:[a-z_]+="(?:[^"\\]|\\["\\n])*",?)+\})? ([0-9][0-9.e+-]*))re");
        std::smatch parts;
        if (std::regex_match(line, parts, help)) {
            EXPECT_TRUE(helped.insert(parts[1]).second) << "twice: " << line;
        } else if (std::regex_match(line, parts, type)) {
            EXPECT_EQ(helped.count(parts[1]), 1U) << line;
            EXPECT_TRUE(types.emplace(parts[1], parts[2]).second) << "twice: " << line;
            family = parts[1];
        } else if (std::regex_match(line, parts, sample)) {
            take_sample(parts[1], parts[2], parts[3]);
        } else {
            ADD_FAILURE() << "no line of the format: " << line;
        }
    }

    void take_sample(const std::string &name, const std::string &labels, const std::string &value) {
        size_t used = 0;
        EXPECT_GE(std::stod(value, &used), 0) << name;
        EXPECT_EQ(used, value.size()) << value;
        EXPECT_TRUE(samples.emplace(name + labels, value).second) << "twice: " << name << labels;
        const bool is_histogram = types[family] == "histogram";
        const std::string part = name.substr(std::min(name.size(), family.size()));
        EXPECT_EQ(name.substr(0, family.size()), family) << "below another's type";
        EXPECT_TRUE(is_histogram ? part == "_bucket" || part == "_sum" || part == "_count" : part.empty()) << name;
        if (part == "_bucket") {
            take_bucket(labels, std::stoul(value));
        } else if (part == "_count") {
            EXPECT_EQ(bound, "+Inf") << "the last bucket";
            EXPECT_EQ(std::stoul(value), within) << labels;
            bound.clear();
            within = 0;
            ++histograms;
        }
    }

    void take_bucket(const std::string &labels, unsigned long count) {
        const size_t at = labels.find("le=\"") + 4;
        const std::string next = labels.substr(at, labels.find('"', at) - at);
        if (!bound.empty()) {
            EXPECT_NE(bound, "+Inf") << labels;
            EXPECT_TRUE(next == "+Inf" || std::stod(next) > std::stod(bound)) << labels;
        }
        EXPECT_GE(count, within) << "cumulative: " << labels;
        bound = next;
        within = count;
    }

    std::set<std::string> helped;
    std::map<std::string, std::string> types;
    std::map<std::string, std::string> samples;
    std::string family; ///< whose samples follow
    std::string bound;  ///< of the bucket before
    unsigned long within = 0;
    int histograms = 0;
};

} // namespace

TEST_F(RouterStatistics, AreWhatPrometheusReads) {
    DirectService service(Registration::of(R"(["ports.Get","ports.a\"b\\c\u00e9","ports.d{e=\"f\"} 1"])"));
    Delays().play(service, client, 30);
    for (const char *method : {"ports.Get", R"(ports.a\"b\\c\u00e9)", R"(ports.d{e=\"f\"} 1)"}) {
        EXPECT_TRUE(serves(service, client, method)) << method;
    }
    client.ask(request("ports.Nothing", "1"));
    Exposition read(metrics());
    EXPECT_EQ(read.histograms, 3);
    EXPECT_EQ(read.samples["tavrix_router_refused_requests_total"], "1");
    EXPECT_EQ(read.samples["tavrix_router_sessions"], "2");
    EXPECT_EQ(read.samples["tavrix_router_service_up{service=\"played\"}"], "1");
    EXPECT_EQ(read.samples[R"(tavrix_router_calls_total{method="ports.Get",outcome="result"})"], "2");
    // A label's value is printable: of foreign bytes the escapes, whose backslashes the format escapes once more.
    for (const std::string name : {R"(ports.a\"b\\x5cc\\xc3\\xa9)", R"(ports.d{e=\"f\"} 1)"}) {
        EXPECT_EQ(read.samples["tavrix_router_call_seconds_count{method=\"" + name + "\"}"], "1") << name;
    }
}

TEST_F(RouterStatistics, GiveEachCallInFlightANumberOfItsOwn) {
    constexpr int sessions = 4;
    constexpr int calls_each = 24; // with half as many more, fewer than one user may have in flight
    DirectService service;
    std::vector<SessionClient> clients(sessions);
    std::map<std::string, std::string> pending; // the request, by its number
    const auto call = [&](int from, int to) {   // all of the same method, and of ids that others have too
        for (int i = from; i < to; ++i) {
            const std::string id = std::to_string(i / sessions);
            clients[static_cast<size_t>(i % sessions)].say(request(
                "ports.Get", id,
                ",\"transaction_id\":1,\"params\":{\"mine\":\"" + std::to_string(i % sessions) + "-" + id + "\"}"));
        }
        for (int i = from; i < to; ++i) {
            const std::string asked = service.next_request();
            const std::string number = member(asked, "transaction_id");
            EXPECT_GT(std::stol(number), 0);
            EXPECT_LE(std::stol(number), 2147483647L);
            EXPECT_TRUE(pending.emplace(number, asked).second) << number << " is in flight already";
        }
    };
    const auto reply = [&](size_t most_left) {
        for (; pending.size() > most_left; pending.erase(pending.begin())) {
            const std::string &asked = pending.begin()->second;
            service.reply(asked, member(member(asked, "params"), "mine"));
        }
    };
    call(0, sessions * calls_each);
    reply(sessions * calls_each / 2); // while the others stay in flight
    call(sessions * calls_each, sessions * calls_each * 3 / 2);
    reply(0);
    for (size_t session = 0; session < sessions; ++session) {
        std::set<std::string> answered;
        for (int i = 0; i < calls_each * 3 / 2; ++i) {
            const std::string answer = clients[session].hear();
            EXPECT_EQ(result_of(answer), "\"" + std::to_string(session) + "-" + id_of(answer) + "\"") << answer;
            EXPECT_EQ(member(answer, "transaction_id"), "1") << answer;
            EXPECT_TRUE(answered.insert(id_of(answer)).second) << answer;
        }
    }
}

namespace {

/** The addresses that somebody listens on with this port, in the kernel's writing. */
std::vector<std::string> listening_on(int port) {
    std::vector<std::string> addresses;
    char wanted[64];
    std::snprintf(wanted, sizeof wanted, R"( *\d+: (\w+):%04X \w+:\w+ 0A .*)", static_cast<unsigned>(port));
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        for (const std::string &line : lines_of(read_file(table))) {
            std::smatch found;
            if (std::regex_match(line, found, std::regex(wanted))) {
                addresses.push_back(found[1]);
            }
        }
    }
    return addresses;
}

} // namespace

TEST(RouterListeners, OverTcpAreOnLoopbackOnlyUnlessToldOtherwise) {
    Fleet fleet;
    const int port = free_port();
    fleet.start_lone_router({"--tcp", std::to_string(port)});
    char loopback[16];
    std::snprintf(loopback, sizeof loopback, "%08X", static_cast<unsigned>(htonl(INADDR_LOOPBACK)));
    EXPECT_THAT(listening_on(port), ElementsAre(loopback));
    fleet.start_lone_router({"--tcp", std::to_string(port), "--tcp-address", "0.0.0.0"});
    EXPECT_THAT(listening_on(port), ElementsAre("00000000"));
}

TEST(RouterListeners, HoldABurstOfClientsWhileTheRouterIsAway) {
    constexpr int burst = 300; // far beyond the backlog that a socket of the library has
    const long granted = std::atol(read_file("/proc/sys/net/core/somaxconn").c_str());
    if (granted < burst) {
        GTEST_SKIP() << "this system grants " << granted;
    }
    Fleet fleet;
    fleet.start_lone_router();
    fleet.router->signal(SIGSTOP);
    for (const std::string path : {"router.sock", "session.sock"}) {
        const sockaddr_un address = unix_address(path);
        std::vector<StreamClient> waiting;
        for (int i = 0; i < burst; ++i) {
            waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            ASSERT_EQ(connect(waiting.back().fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0)
                << path << " " << i; // the call does not wait: a full backlog would be an error
        }
    }
    fleet.router->signal(SIGCONT);
    EXPECT_EQ(result_of(fleet.ask(request("router.Unlock", "1"))), "0");
}

TEST_F(RouterStatistics, DeliverOnceWhatAServicePublishesOnTwoAddresses) {
    const std::string over_ipc = "ipc://" + std::filesystem::current_path().string() + "/played";
    ASSERT_LT(over_ipc.size(), 114U);
    const std::string over_tcp = free_bus_address();
    Registration registration = Registration::on_bus();
    registration.publish = "[\"" + over_ipc + "\",\"" + over_tcp + "\"]";
    PlayedService bus(fleet, registration.channel, over_ipc);
    bus.pub.bind(over_tcp);
    SessionClient service;
    service.say(registration.line());
    const std::string hello =
        notification("router.Hello", R"({"name":"played","channel":")" + registration.channel + "\"}");
    std::string registered;
    ASSERT_TRUE(wait_until([&] {
        bus.reply(hello);
        registered = service.hear(5);
        return registered != "(time-out)";
    }));
    ASSERT_EQ(result_of(registered), "0") << registered;
    client.ask(subscription("Subscribe", R"(["ports.*"])"));
    for (int i = 0; i < 3000; ++i) { // long enough for a second connection, which takes its time
        const std::string changed = notification("ports.Changed", R"({"n":)" + std::to_string(i) + "}");
        bus.publish("ports.Changed", changed);
        ASSERT_EQ(client.hear(), changed);
    }
}

TEST_F(RouterStatistics, AreSilentToMonitorsOfWhatReachesNoService) {
    DirectService service;
    SessionClient monitor;
    monitor.ask(subscription("Monitor", R"(["*"])"));
    EXPECT_EQ(code_of(client.ask(request("ports.Nothing", "1"))), "-32601");
    EXPECT_EQ(code_of(client.ask(request("router.Nothing", "1"))), "-32601");
    EXPECT_EQ(code_of(client.ask(R"({"method":"ports.Get","id":1})")), "-32600");
    EXPECT_EQ(result_of(client.ask(request("router.Unlock", "1"))), "0");
    EXPECT_TRUE(serves(service, client));
    for (const std::string leg : {"request", "reply"}) {
        EXPECT_EQ(members_of(member(monitor.hear(), "params"), {"method", "leg"}), "\"ports.Get\" \"" + leg + "\"");
    }
}
