/*
 * The client watching through the router, and playing a record once more.
 */
#include <csignal>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/bus.h"
#include "support/direct_service.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/played_server.h"
#include "support/tavrixctl.h"
#include "tavrix_mq.h"

using support::ctl;
using support::DirectService;
using support::Finished;
using support::first_line;
using support::Fleet;
using support::member;
using support::write_file;

namespace {

/** A router with a direct service that refuses ports.Set. */
class Watched {
  public:
    Watched() {
        fleet.start_router();
        service = std::make_unique<DirectService>(
            "portsd", std::vector<std::string>{"ports.Get", "ports.Set"}, [](const std::string &method, const auto &) {
                return method == "ports.Get" ? R"("result":{"up":true})"
                                             : R"("error":{"code":-32602,"message":"Refused","data":{"message":"so"}})";
            });
    }

    static int call(const std::string &method, const std::string &param = "port_id=c1-1") {
        return ctl({"call", "--session", "session.sock", method, param}).status;
    }

    Fleet fleet;
    std::unique_ptr<DirectService> service;
};

std::unique_ptr<support::Process> start_monitor(std::vector<std::string> words) {
    words.insert(words.begin(), {TAVRIXCTL, "monitor", "--session", "session.sock"});
    auto monitor = std::make_unique<support::Process>("monitor", words);
    if (!monitor->says("watching through the router")) {
        throw std::runtime_error("the monitor does not begin: " + monitor->log());
    }
    return monitor;
}

/** The line's text behind its time, blanks put together. */
std::string squeezed(const std::string &line) {
    std::istringstream words(line);
    std::string text;
    std::string word;
    for (words >> word; words >> word;) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

} // namespace

TEST(CtlMonitor, PairsRequestsWithTheirReplies) {
    Watched watched;
    const auto monitor = start_monitor({"--count", "3"});
    EXPECT_EQ(Watched::call("ports.Get"), 0);
    EXPECT_EQ(Watched::call("ports.Set"), 1);
    watched.service->publish("ports.Changed", R"({"port_id":"c1-1"})");
    EXPECT_EQ(monitor->wait(), 0);
    std::istringstream lines(monitor->output());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(squeezed(line).rfind("ports.Get portsd ", 0), 0U) << line;
    EXPECT_NE(line.find(R"( ms)"), std::string::npos) << line;
    EXPECT_NE(line.find(R"(  {"port_id":"c1-1"} -> {"up":true})"), std::string::npos) << line;
    std::getline(lines, line);
    EXPECT_NE(line.find(R"(  {"port_id":"c1-1"} -> error -32602 Refused: so)"), std::string::npos) << line;
    std::getline(lines, line);
    EXPECT_EQ(squeezed(line), R"(ports.Changed portsd notified {"port_id":"c1-1"})") << line;
    EXPECT_EQ(monitor->output().find("3a6f8f51"), std::string::npos) << "no channel";
}

TEST(CtlMonitor, EndsWithFiguresByMethod) {
    Watched watched;
    for (const int number : {SIGINT, SIGTERM}) {
        const auto monitor = start_monitor({});
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        EXPECT_EQ(Watched::call("ports.Set"), 1);
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        ASSERT_TRUE(support::wait_until([&] {
            const std::string output = monitor->output();
            return std::count(output.begin(), output.end(), '\n') == 3;
        }));
        monitor->signal(number);
        EXPECT_EQ(monitor->wait(), 0);
        std::istringstream lines(monitor->log());
        std::string line;
        std::getline(lines, line);
        std::getline(lines, line);
        EXPECT_EQ(squeezed("x " + line), "METHOD CALLS ERRORS NO REPLY NOTIFIED P50 P99");
        std::getline(lines, line);
        EXPECT_EQ(squeezed("x " + line).rfind("ports.Get 2 0 0 0 ", 0), 0U) << line;
        std::getline(lines, line);
        EXPECT_EQ(squeezed("x " + line).rfind("ports.Set 1 1 0 0 ", 0), 0U) << line;
    }
}

TEST(CtlMonitor, ShowsOnlyWhatItsFiltersWant) {
    Watched watched;
    const struct {
        std::vector<std::string> filter;
        const char *method;
        const char *other;
    } rows[] = {
        {{"ports.S*"}, "ports.Set", "ports.Get"},
        {{"ports.Get"}, "ports.Get", "ports.Set"},
        {{"--errors"}, "ports.Set", "ports.Get"},
        {{"--service", "portsd"}, "ports.Get", "router.Status"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> words = row.filter;
        words.insert(words.end(), {"--json", "lines", "--count", "1"});
        const auto monitor = start_monitor(words);
        Watched::call(row.other);
        Watched::call(row.method);
        EXPECT_EQ(monitor->wait(), 0);
        EXPECT_EQ(member(monitor->output(), "method"), std::string("\"") + row.method + "\"");
    }
    const auto slow = start_monitor({"--slower-than", "3600000"});
    const auto nobody = ctl({"call", "--session", "session.sock", "ports.Get"});
    slow->signal(SIGINT);
    EXPECT_EQ(slow->wait(), 0);
    EXPECT_EQ(slow->output(), "");
}

TEST(CtlMonitor, PrintsAnObjectALineForPrograms) {
    Watched watched;
    const auto monitor = start_monitor({"--json", "lines", "--count", "2"});
    EXPECT_EQ(Watched::call("ports.Get"), 0);
    watched.service->publish("ports.Changed", "{}");
    EXPECT_EQ(monitor->wait(), 0);
    const std::string line = first_line(monitor->output());
    EXPECT_EQ(member(line, "outcome"), "\"result\"");
    EXPECT_EQ(member(line, "service"), "\"portsd\"");
    EXPECT_EQ(member(line, "road"), "\"direct\"");
    EXPECT_EQ(member(line, "client"), "\"session\"");
    EXPECT_EQ(member(member(line, "request"), "params"), R"({"port_id":"c1-1"})");
    EXPECT_EQ(member(member(line, "reply"), "result"), R"({"up":true})");
    EXPECT_NE(member(line, "seconds"), "(none)");
    const std::string second = monitor->output().substr(line.size() + 1);
    EXPECT_EQ(member(member(second, "notification"), "method"), "\"ports.Changed\"");
    EXPECT_EQ(member(second, "outcome"), "(none)");
}

TEST(CtlMonitor, TellsOfRepliesWhoseRequestItDidNotSeeAndOfLoss) {
    const support::PlayedServer router(
        "{\"jsonrpc\":\"2.0\",\"id\":\"tavrixctl\",\"result\":0}\n"
        "{\"jsonrpc\":\"2.0\",\"method\":\"router.Traffic\",\"params\":{\"time\":1.5,\"leg\":\"reply\",\"call\":7,"
        "\"method\":\"a.B\\u001b\",\"service\":null,\"road\":\"bus\",\"client\":\"unix\",\"outcome\":\"timeout\","
        "\"seconds\":0.25,\"message\":null}}\n"
        "{\"jsonrpc\":\"2.0\",\"method\":\"router.Lost\",\"params\":{\"count\":3}}\n");
    const Finished finished = ctl({"monitor", "--session", "played.sock"});
    EXPECT_EQ(finished.status, 4) << "the router went away";
    EXPECT_EQ(squeezed(first_line(finished.output)), "a.B\\x1b bus 250.0 ms (asked before) -> timeout");
    EXPECT_NE(finished.diagnostics.find("3 more were lost"), std::string::npos) << finished.diagnostics;
}

TEST(CtlMonitor, SaysWhichAddressIsDeadAndKeepsToItsMethods) {
    support::BusSocket pub(TAVRIX_SP_PUB);
    const std::string address = support::free_bus_address();
    const std::string dead = support::free_bus_address();
    pub.bind(address);
    support::Process monitor("monitor",
                             {TAVRIXCTL, "monitor", address, dead, "ports.*", "--json", "lines", "--count", "2"});
    ASSERT_TRUE(monitor.says("tavrixctl: " + dead + ": nobody publishes there yet")) << monitor.log();
    EXPECT_EQ(monitor.log().find(address), std::string::npos);
    tavrix_mq_socket_send(pub.number, R"(c|{"jsonrpc":"2.0","method":"other.Get","id":1})");
    tavrix_mq_socket_send(pub.number, R"(c|{"jsonrpc":"2.0","method":"ports.Get","id":1})");
    tavrix_mq_socket_send(pub.number, R"(r|{"jsonrpc":"2.0","id":"ports.Get","result":0})");
    EXPECT_EQ(monitor.wait(), 0);
    const std::string first = first_line(monitor.output());
    EXPECT_EQ(member(member(first, "message"), "method"), "\"ports.Get\"");
    EXPECT_EQ(member(first, "channel"), "\"c\"");
    EXPECT_EQ(member(member(monitor.output().substr(first.size() + 1), "message"), "id"), "\"ports.Get\"");
}

/** A publisher on the bus, and a monitor of it. */
class Published {
  public:
    explicit Published(std::vector<std::string> words) {
        pub_.bind(address_);
        words.insert(words.begin(), {TAVRIXCTL, "monitor", address_});
        monitor = std::make_unique<support::Process>("monitor", words);
        // What is published before the connection stands is lost.
        EXPECT_TRUE(support::wait_until([this] {
            call("first.Call", 1, R"("error":{"code":-32603,"message":"Failed"})");
            return monitor->prints("first.Call", 50);
        })) << monitor->log();
    }

    void call(const std::string &method, int transaction_id, const std::string &outcome) const {
        const std::string number = R"(,"transaction_id":)" + std::to_string(transaction_id) + "}";
        say(R"(c|{"jsonrpc":"2.0","id":"r","method":")" + method + '"' + number);
        say(R"(r|{"jsonrpc":"2.0","id":")" + method + "\"," + outcome + number);
    }
    void say(const std::string &frame) const { tavrix_mq_socket_send(pub_.number, frame.c_str()); }

    /** What it prints until a last frame has come, without the first calls; it has ended then. */
    std::vector<std::string> lines_until(const std::string &last) const {
        EXPECT_TRUE(monitor->prints(last)) << monitor->output();
        monitor->signal(SIGINT);
        EXPECT_EQ(monitor->wait(), 0);
        std::vector<std::string> lines;
        std::istringstream text(monitor->output());
        for (std::string line; std::getline(text, line);) {
            if (line.find("first.Call") == std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    std::unique_ptr<support::Process> monitor;

  private:
    const std::string address_ = support::free_bus_address();
    support::BusSocket pub_{TAVRIX_SP_PUB};
};

constexpr char refused[] = R"("error":{"code":-32602,"message":"Refused"})";

TEST(CtlMonitor, TellsOnTheBusHowLongAReplyTook) {
    for (const bool is_for_people : {true, false}) {
        const Published bus(is_for_people ? std::vector<std::string>{} : std::vector<std::string>{"--json", "lines"});
        bus.call("ports.Get", 7, R"("result":0)");
        bus.say(R"(r|{"jsonrpc":"2.0","id":"ports.Get","result":0,"transaction_id":8})");
        bus.say(R"(r|{"jsonrpc":"2.0","id":"ports.Gte","result":0,"transaction_id":7})");
        bus.call("ports.Set", 9, refused);
        const std::vector<std::string> lines = bus.lines_until("Refused");
        ASSERT_EQ(lines.size(), 6U) << bus.monitor->output();
        const std::regex timed(is_for_people ? R"(.*  r  \{.*\}  after [0-9.]+ ms)" : R"(.*"seconds":[0-9].*)");
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(std::regex_match(lines[i], timed), i == 1 || i == 5) << lines[i];
        }
        const std::string figures = bus.monitor->log();
        EXPECT_TRUE(std::regex_search(figures, std::regex("ports.Get +1 +0 +0 +0 "))) << figures;
        EXPECT_TRUE(std::regex_search(figures, std::regex("ports.Set +1 +1 +0 +0 "))) << figures;
    }
}

TEST(CtlMonitor, ShowsOnTheBusTheFramesOfTheCallsThatItsFiltersWant) {
    const struct {
        std::vector<std::string> filter;
        std::vector<const char *> shown;
    } rows[] = {
        {{"--errors"}, {"ports.Set", "ports.Set"}},
        {{"--slower-than", "0"}, {"ports.Get", "ports.Get", "ports.Set", "ports.Set"}},
    };
    for (const auto &row : rows) {
        const Published bus(row.filter);
        bus.say(R"(c|{"jsonrpc":"2.0","method":"ports.Changed","params":{}})");
        bus.call("ports.Get", 7, R"("result":0)");
        bus.call("ports.Set", 8, refused);
        const std::vector<std::string> lines = bus.lines_until("Refused");
        ASSERT_EQ(lines.size(), row.shown.size()) << bus.monitor->output();
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_NE(lines[i].find(row.shown[i]), std::string::npos) << lines[i];
            EXPECT_NE(lines[i].find(i % 2 == 0 ? "  c  " : "  r  "), std::string::npos) << "the request first";
        }
    }
}

TEST(CtlMonitor, RefusesOptionsOfTheOtherRoad) {
    EXPECT_EQ(ctl({"monitor", "x://localhost:1"}).status, 2) << "no address of the bus";
    EXPECT_EQ(ctl({"monitor", "tcp://127.0.0.1:1", "--service", "portsd"}).status, 2);
    EXPECT_EQ(ctl({"monitor", "tcp://127.0.0.1:1", "--record", "x"}).status, 2);
    EXPECT_EQ(ctl({"monitor", "tcp://127.0.0.1:1", "--session", "session.sock"}).status, 2);
    EXPECT_EQ(ctl({"monitor", "--channel", "c", "--session", "session.sock"}).status, 2);
    EXPECT_EQ(ctl({"monitor", "--session", "nobody.sock"}).status, 4);
    EXPECT_EQ(ctl({"monitor", "--session", "nobody.sock", "--record", "no-folder/x"}).status, 1);
}

TEST(CtlReplay, SendsARecordOnceMore) {
    {
        Watched watched;
        const auto monitor = start_monitor({"--record", "traffic.json", "--count", "3"});
        EXPECT_EQ(Watched::call("ports.Get"), 0);
        watched.service->publish("ports.Changed", "{}");
        EXPECT_EQ(Watched::call("ports.Set"), 1);
        EXPECT_EQ(monitor->wait(), 0);
    }
    Fleet fleet;
    fleet.start_router();
    std::string heard;
    const auto answer = [&heard](const std::string &method, const std::string &params) {
        heard += method + params;
        return method == "ports.Get" ? R"("result":0)" : R"("error":{"code":-32602,"message":"m","data":null})";
    };
    for (const char *speed : {"0", "1000"}) {
        heard.clear();
        std::unique_ptr<DirectService> service;
        ASSERT_TRUE(support::wait_until([&] { // the former one's name is free
            try {
                service = std::make_unique<DirectService>("portsd", std::vector<std::string>{"ports.Get", "ports.Set"},
                                                          answer);
            } catch (const std::runtime_error &) {
            }
            return service != nullptr;
        }));
        const Finished finished = ctl({"replay", "traffic.json", "--session", "session.sock", "--speed", speed});
        EXPECT_EQ(finished.status, 0) << finished.diagnostics;
        EXPECT_EQ(finished.diagnostics, "2 ended as recorded, 0 otherwise, 0 without an answer\n");
        service.reset();
        EXPECT_EQ(heard, R"(ports.Get{"port_id":"c1-1"}ports.Set{"port_id":"c1-1"})") << speed;
    }
    const Finished otherwise = ctl({"replay", "traffic.json", "--session", "session.sock"});
    EXPECT_EQ(otherwise.status, 1);
    EXPECT_EQ(otherwise.output, "ports.Get {\"port_id\":\"c1-1\"}: error instead of result\n");
    EXPECT_EQ(otherwise.diagnostics, "1 ended as recorded, 1 otherwise, 0 without an answer\n");
}

TEST(CtlReplay, GivesUpOnAnswersThatDoNotCome) {
    Fleet fleet;
    fleet.start_router();
    const DirectService service("portsd", {"ports.Get"}, [](const auto &, const auto &) { return ""; });
    write_file("traffic.json", R"({"time":1,"method":"ports.Get","outcome":"result","request":{"params":{}}})"
                               "\n");
    const Finished finished = ctl({"replay", "traffic.json", "--session", "session.sock", "--timeout", "0.2"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(finished.diagnostics, "0 ended as recorded, 0 otherwise, 1 without an answer\n");
}

TEST(CtlReplay, RefusesWhatIsNoRecord) {
    write_file("wrong.json", R"({"time":1,"method":"ports.Get","request":{}})"
                             "\nnonsense\n");
    const Finished wrong = ctl({"replay", "wrong.json", "--session", "session.sock"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.diagnostics, "tavrixctl: wrong.json:2: this is no line of a record\n");
    EXPECT_EQ(ctl({"replay", "no-such-file", "--session", "session.sock"}).status, 2);
    EXPECT_EQ(support::script("TAVRIX_SESSION=session.sock tavrixctl replay wrong.json").status, 2)
        << "a record is never sent to the usual system by mistake";
}
