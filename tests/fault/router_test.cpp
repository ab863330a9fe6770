/*
 * The router with each of its allocations and system calls failing once: the client concerned gets an error or is
 * closed, the others notice nothing.
 */
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/faults.h"
#include "support/fleet.h"
#include "support/json.h"
#include "support/session.h"

using namespace support;

namespace {

constexpr int most_failures = 2000; // in one attempt

class RouterFaults : public testing::Test {
  protected:
    RouterFaults() {
        const int descriptor = open("faults", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_EQ(ftruncate(descriptor, sizeof *plan_), 0);
        plan_ =
            static_cast<fault::Plan *>(mmap(nullptr, sizeof *plan_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
        plan_->reason = ENOMEM;
        close(descriptor);
        setenv(fault::plan_variable, "faults", 1);
        write_file("policy.conf", "[tcp]\nall=*\n");
        write_file("tavrix_lsyslog.conf", "[logging_levels]\nrouterd=info\nunit-test=off\n");
        router_ = started("routerd", {TAVRIX_ROUTERD_WITH_FAULTS, "--socket", "router.sock", "--session",
                                      "session.sock", "--publish", fleet_.router_address, "--connect",
                                      fleet_.ports_address, "--tcp", std::to_string(port_), "--policy", "policy.conf",
                                      "--reply-timeout", "300", "--client-timeout", "300"});
        unsetenv(fault::plan_variable);
        bystander_service_.emplace(fleet_, TAVRIX_CHANNEL_EVENTS);
        bystander_.emplace();
    }
    ~RouterFaults() override { munmap(plan_, sizeof *plan_); }

    /**
     * Runs the attempt with the first call failing, then with the second, until one gets through with none. It is told
     * nothing of the failure: whatever it hears in its time is well, as long as it is its own.
     */
    void each_failure(
        const std::function<void()> &prepare, const std::function<void()> &attempt,
        const std::function<void()> &look = [] {}) {
        int number = 0;
        bool failed = true;
        while (failed && !HasFailure() && ++number < most_failures) {
            prepare();
            ASSERT_TRUE(serves_bystander()) << "before call " << number; // and so all is done that was begun before
            plan_->calls = 0;
            plan_->failures = 0;
            plan_->last = number;
            plan_->first = number;
            attempt();
            plan_->first = 0;
            failed = plan_->failures > 0;
            if (failed) {
                failed_.insert(static_cast<const char *>(plan_->failed));
            }
            const std::string what =
                "call " + std::to_string(number) + (failed ? ", " + std::string(plan_->failed) : ", none");
            ASSERT_TRUE(router_->running()) << what << "\n" << router_->log();
            ASSERT_FALSE(HasFailure()) << what << "\n" << router_->log();
            ASSERT_TRUE(serves_bystander()) << what << "\n" << router_->log();
            look(); // nothing fails any more
            ASSERT_FALSE(HasFailure()) << what << "\n" << router_->log();
        }
        EXPECT_GT(number, 5) << "there is more that can fail";
        EXPECT_LT(number, most_failures);
    }

    /** The same, with a service that is there before each attempt. */
    void each_failure_beside_a_service(
        const std::function<void()> &attempt, const std::function<void()> &look = [] {}) {
        each_failure([this] { prepare_service(); }, attempt, look);
    }

    /** How many allocations and system calls the router makes meanwhile, when nothing but this makes any. */
    int least_work(const std::function<void()> &work) {
        int least = INT_MAX;
        for (int i = 0; i < 20; ++i) {
            plan_->calls = 0;
            work();
            least = std::min<int>(least, plan_->calls);
        }
        return least;
    }

    /** The other client's session and service have been there from the beginning. */
    bool serves_bystander() {
        const std::string number = std::to_string(++calls_);
        bystander_->say(request("events.List", number));
        const std::string asked = bystander_service_->next_request();
        bystander_service_->reply(service_reply(asked, number));
        const std::string answer = bystander_->hear();
        EXPECT_EQ(member(answer, "result"), number) << asked << "\n" << answer;
        return member(answer, "result") == number;
    }
    /** A direct service that is there: anew when a failure has ended the former one. */
    void prepare_service() {
        if (service_) {
            service_->say(request("router.Unlock", "\"here\""));
        }
        if (!service_ || service_->hear_of("\"here\"") == "(closed)") {
            service_.reset();
            EXPECT_TRUE(wait_until([this] {
                try {
                    service_.emplace(Registration{"victim"});
                    return true;
                } catch (const std::exception &) {
                    return false; // the former one has not gone yet
                }
            }));
        }
        for (std::string left = service_->hear(0); left != "(time-out)"; left = service_->hear(0)) {
            ASSERT_NE(left, "(closed)") << router_->log();
        }
    }
    /** A client whose so many calls the service has taken. */
    void prepare_calls(int count) {
        prepare_service();
        client_.emplace();
        for (int i = 0; i < count; ++i) {
            client_->say(call("1", "1"));
            service_->next_request();
        }
    }
    /** Answers what comes, until the session has nothing more to say. */
    void serve_once() {
        const std::string asked = service_->hear(50);
        if (asked.find("\"ports.Get\"") != std::string::npos) {
            service_->reply(asked, member(member(asked, "params"), "n"));
        }
    }
    static std::string description(const std::string &method) {
        return request("router.Describe", "\"described\"",
                       R"(,"params":{"document":{"methods":[{"name":")" + method + R"(","params":[],"result":{}}]}})");
    }
    static void describe(SessionClient &service, const std::string &method) {
        service.say(description(method));
        const std::string answer = service.hear_of("\"described\"");
        EXPECT_EQ(member(answer, "result"), "0") << answer;
    }
    /** With every number as 0: what answers have in common between which only counts and times have changed. */
    static std::string shape(const std::string &text) {
        static const std::regex numbers("-?[0-9][0-9.eE+-]*");
        return std::regex_replace(text, numbers, "0");
    }
    std::string shape_of_answer(const std::string &method) {
        const std::string answer = bystander_->ask(request(method, "\"shape\""));
        EXPECT_NE(member(answer, "result"), "(none)") << answer;
        return shape(member(answer, "result"));
    }
    /** What the service has been told of another that has come; empty when nothing, "(closed)" when it was closed. */
    std::string told_of(const std::string &name) {
        std::string told;
        service_->say(request("router.Unlock", "\"so far\""));
        for (std::string line; line.find("\"so far\"") == std::string::npos;) {
            line = service_->hear();
            if (line == "(closed)" || line == "(time-out)") {
                return line;
            }
            const bool is_told = line.find("router.ServiceUp") != std::string::npos &&
                                 line.find("\"" + name + "\"") != std::string::npos;
            told = is_told ? line : told;
        }
        return told;
    }
    static std::string call(const std::string &id, const std::string &n) {
        return request("ports.Get", id, ",\"transaction_id\":8,\"params\":{\"n\":" + n + "}");
    }
    /** What a client hears is its own: the result that it asked for, an error, or the end. */
    static void expect_own(const std::string &answer, const std::string &id, const std::string &n) {
        if (answer.empty() || answer == "(closed)") {
            return;
        }
        EXPECT_NE(answer, "(time-out)");
        const std::string given = member(answer, "id");
        if (member(answer, "error") == "(none)") {
            EXPECT_EQ(given, id) << answer;
            EXPECT_EQ(member(answer, "result"), n) << answer;
            EXPECT_EQ(member(answer, "transaction_id"), "8") << answer;
        } else {
            EXPECT_TRUE(given == id || given == "null" || given == "\"ports.Get\"" || given == "7") << answer;
        }
    }

    int port_ = free_port();
    int calls_ = 0;
    fault::Plan *plan_ = nullptr;
    Fleet fleet_;
    std::unique_ptr<Process> router_;
    std::optional<PlayedService> bystander_service_; ///< is told nothing of other services
    std::optional<SessionClient> bystander_;
    std::optional<DirectService> service_;
    std::optional<SessionClient> client_;
    std::set<std::string> failed_; ///< what has failed once
};

} // namespace

TEST_F(RouterFaults, OfAOneShotCallConcernItsClientOnly) {
    for (const bool tcp : {false, true}) {
        each_failure_beside_a_service([&] {
            const StreamClient client = tcp ? StreamClient::tcp_port(port_) : fleet_.connect();
            client.say(call("7", "[1,2]"));
            serve_once();
            expect_own(client.hear(), "\"ports.Get\"", "[1,2]");
        });
    }
}

TEST_F(RouterFaults, OfACallOverASessionConcernItsClientOnly) {
    each_failure_beside_a_service([this] {
        SessionClient client;
        client.say(call("\"mine\"", "[1,2]"));
        serve_once();
        expect_own(client.hear(), "\"mine\"", "[1,2]");
    });
}

TEST_F(RouterFaults, OfABatchConcernItsClientOnly) {
    each_failure_beside_a_service([this] {
        SessionClient client;
        client.say("[" + call("1", "1") + "," + request("router.Subscribe", "2") + "," + call("3", "3") + ",5]");
        serve_once();
        serve_once();
        EXPECT_NE(client.hear(), "(time-out)");
    });
}

TEST_F(RouterFaults, OfATimeOutConcernItsClientOnly) {
    each_failure_beside_a_service([this] {
        const StreamClient client = fleet_.connect();
        client.say(request("ports.Get", "\"late\"", ",\"transaction_id\":8"));
        const std::string answer = client.hear();
        EXPECT_TRUE(answer.empty() || code_of(answer) != "(none)") << answer;
    });
}

TEST_F(RouterFaults, OfAClientThatLeavesConcernItsServiceOnly) {
    each_failure([this] { prepare_calls(1); },
                 [this] {
                     client_->close();
                     service_->hear(50); // the cancellation, or nothing
                 });
}

TEST_F(RouterFaults, OfAServiceThatGoesLeaveNoCallerWithoutAnEnd) {
    each_failure([this] { prepare_calls(2); },
                 [this] {
                     service_.reset();
                     const std::string answer = client_->hear();
                     EXPECT_TRUE(answer == "(closed)" || code_of(answer) == "-32601" || code_of(answer) == "-32005")
                         << answer;
                 });
}

TEST_F(RouterFaults, OfTheRoutersOwnMethodsConcernItsClientOnly) {
    DirectService other({"other", TAVRIX_CHANNEL_FIRST, "[]", R"(["mzu.List","mzu.Set"])", "true"});
    describe(other, "mzu.List");
    ASSERT_TRUE(serves_bystander()); // the statistics have their row
    for (const std::string method :
         {"router.Status", "router.Bus", "rpc.discover", "router.Unlock", "router.Metrics"}) {
        std::string whole;
        const auto prepare = [&] {
            prepare_service();
            describe(*service_, "ports.Get"); // after which discovery is made anew
            if (whole.empty()) {
                whole = shape_of_answer(method);
                describe(*service_, "ports.Get");
            }
        };
        const auto attempt = [&] {
            SessionClient client;
            const std::string answer = client.ask(request(method, "1"));
            EXPECT_NE(answer, "(time-out)");
            if (answer != "(closed)" && code_of(answer) == "(none)") {
                EXPECT_EQ(shape(member(answer, "result")), whole) << "whole, or not at all";
            }
        };
        each_failure(prepare, attempt, [&] {
            if (method != "router.Metrics") { // which are kept for a moment: the next attempt would get those
                EXPECT_EQ(shape_of_answer(method), whole) << "asked by another";
            }
        });
    }
}

TEST_F(RouterFaults, OfADescriptionConcernItsServiceOnly) {
    prepare_service();
    const std::string without = shape_of_answer("rpc.discover");
    describe(*service_, "ports.Get");
    const std::string with = shape_of_answer("rpc.discover");
    ASSERT_NE(with, without);
    std::string described;
    each_failure_beside_a_service(
        [&] {
            service_->say(description("ports.Get"));
            described = service_->hear();
            EXPECT_NE(described, "(time-out)");
        },
        [&] {
            const std::string shown = shape_of_answer("rpc.discover");
            EXPECT_TRUE(shown == with || (shown == without && member(described, "result") == "(none)")) << shown;
        });
}

TEST_F(RouterFaults, OfARegistrationLeaveNoOtherServiceHalfTold) {
    int number = 0;
    for (const bool on_bus : {false, true}) {
        std::optional<SessionClient> direct;
        std::optional<BusService> bus;
        Registration registration;
        std::string answer;
        const auto prepare = [&] {
            direct.reset();
            bus.reset();
            const std::string name = "n" + std::to_string(++number);
            const std::string address = on_bus ? free_bus_address() : "[]";
            registration = {name, TAVRIX_CHANNEL_FIRST, address, "[\"ports.A" + name + "\",\"ports.B" + name + "\"]",
                            on_bus ? "" : "true"};
            prepare_service();
        };
        const auto attempt = [&] {
            if (on_bus) {
                bus.emplace(fleet_, registration);
                answer = bus->registered;
            } else {
                direct.emplace();
                answer = direct->ask(registration.line());
            }
            EXPECT_NE(answer, "(time-out)");
        };
        each_failure(prepare, attempt, [&] {
            const std::string told = told_of(registration.name);
            const std::string publish = on_bus ? "[\"" + registration.publish + "\"]" : "[]";
            const std::string whole = R"({"jsonrpc":"2.0","method":"router.ServiceUp","params":{"name":")" +
                                      registration.name + R"(","channel":")" + TAVRIX_CHANNEL_FIRST +
                                      R"(","publish":)" + publish + ",\"methods\":" + registration.methods + "}}";
            EXPECT_TRUE(told == whole || told == "(closed)" || (told.empty() && member(answer, "result") != "0"))
                << told << "\n"
                << answer;
        });
    }
}

TEST_F(RouterFaults, OfNotificationsConcernTheirSubscriber) {
    each_failure(
        [this] {
            prepare_calls(0);
            client_->ask(subscription("Subscribe", R"(["ports.*"])"));
            client_->ask(subscription("Monitor", R"(["ports.*"])"));
        },
        [this] {
            service_->say(R"({"jsonrpc":"2.0","method":"ports.Changed"})");
            client_->say(request("router.Status", "\"last\""));
            EXPECT_NE(client_->hear_of("\"id\":"), "(time-out)");
        });
}

TEST_F(RouterFaults, HaveNoMoreChancesForTheSakeOfMonitorsThatDoNotWatch) {
    BusService on_bus(fleet_, {"bus", TAVRIX_CHANNEL_FIRST, "[]", R"(["mzu.List"])", ""});
    ASSERT_EQ(member(on_bus.registered, "result"), "0");
    SessionClient client;
    SessionClient monitor;
    prepare_service();
    const auto direct_call = [&] {
        client.say(call("1", "1"));
        service_->say(R"({"jsonrpc":"2.0","method":"ports.Changed"})");
        service_->reply(service_->next_request(), "1");
        EXPECT_EQ(member(client.hear(), "result"), "1");
    };
    const auto bus_call = [&] {
        client.say(request("mzu.List", "1"));
        on_bus.reply(on_bus.next_request(), "1");
        EXPECT_EQ(member(client.hear(), "result"), "1");
    };
    const auto watch = [&](const std::string &patterns) {
        monitor.say(subscription("Monitor", patterns));
        EXPECT_EQ(member(monitor.hear_of("\"Monitor\""), "result"), "0");
    };
    constexpr int members = 8; // at least, of each that is shown; and each is an allocation
    const struct {
        std::function<void()> one_call;
        int shown;
    } rows[] = {{direct_call, 3}, {bus_call, 2}};
    for (const auto &row : rows) {
        const int unwatched = least_work(row.one_call);
        watch(R"(["events.*"])");
        EXPECT_LT(least_work(row.one_call), unwatched + members) << "a monitor of other methods";
        watch(R"(["*"])");
        EXPECT_GT(least_work(row.one_call), unwatched + row.shown * members) << "what is shown is made only now";
        watch("[]");
        EXPECT_LT(least_work(row.one_call), unwatched + members) << "a monitor that has ended";
    }
}

TEST_F(RouterFaults, OfTheBusConcernTheCallersOverIt) {
    BusService service(fleet_, {"bus", TAVRIX_CHANNEL_FIRST, "[]", R"(["mzu.List"])", ""});
    ASSERT_EQ(member(service.registered, "result"), "0");
    each_failure([] {},
                 [&] {
                     SessionClient client;
                     client.say(request("mzu.List", "1", ",\"transaction_id\":8,\"params\":{\"n\":4}"));
                     const std::string asked = service.next_request(100);
                     if (member(asked, "method") == "\"mzu.List\"") {
                         service.reply(asked, "4");
                     }
                     service.reply(R"({"jsonrpc":"2.0","method":"router.Hello","params":{"name":"n",)"
                                   R"("channel":"c"}})");
                     expect_own(client.hear(), "1", "4");
                 });
    for (const char *function : {"nn_allocmsg", "nn_send", "nn_recv"}) {
        EXPECT_EQ(failed_.count(function), 1U) << function;
    }
}

TEST_F(RouterFaults, OfAReloadLeaveThePolicyThatWasGood) {
    each_failure([] {},
                 [this] {
                     router_->signal(SIGHUP);
                     const StreamClient client = StreamClient::tcp_port(port_);
                     client.say(request("router.Status", "1"));
                     EXPECT_NE(client.hear(), "(time-out)");
                 });
}
