/*
 * The service kit with each allocation and each system call failing once: whatever fails, every request ends at most
 * once and every call is answered at most once, nothing is lost or left behind, and the next request is served.
 */
#include <cerrno>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "kit/support/played_router.h"
#include "support/faults.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"
#include "tavrix_service_test.h"
#include "testkit/driven_service.h"

using fault::each_failure;
using fault::each_failure_of;
using fault::Fault;
using namespace support;

/** What the test does while the code that it calls waits for a descriptor. */
static std::function<void()> meanwhile;

extern "C" {
int __real_poll(pollfd *descriptors, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd *descriptors, nfds_t count, int timeout_ms) {
    if (Fault::fails("poll")) {
        return -1;
    }
    const Fault::Truce truce;
    for (int waited_ms = 0; meanwhile && waited_ms < timeout_ms; ++waited_ms) {
        meanwhile();
        const int ready = __real_poll(descriptors, count, 1);
        if (ready != 0) {
            return ready;
        }
    }
    return __real_poll(descriptors, count, meanwhile ? 0 : timeout_ms);
}
}

namespace {

// What the callbacks have seen of one attempt.
int outcomes = 0;
int notifications = 0;

constexpr size_t long_answer = 1 << 20; // more than a connection holds
int answer_long(tavrix_call *call) {
    return tavrix_call_reply(call, json_string(std::string(long_answer, 'x').c_str()));
}

const Rows pair = {TAVRIX_PARAM("vlan", TAVRIX_KIND_VLAN_ID, "", 0),
                   TAVRIX_PARAM("mode", TAVRIX_KIND_VLAN_MODE, "", 0)};
const Rows many = {TAVRIX_PARAM("text", TAVRIX_KIND_TEXT, "", 0),
                   TAVRIX_PARAM("long", TAVRIX_KIND_TEXT, "", TAVRIX_OPTIONAL),
                   TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "", 0),
                   TAVRIX_PARAM("vlans", TAVRIX_KIND_VLAN_IDS, "", 0),
                   TAVRIX_PARAM("ports", TAVRIX_KIND_PORTS, "", 0),
                   TAVRIX_PARAM_MEMBERS("pairs", TAVRIX_KIND_ARRAY, "", 0, 1, 4, pair)};
const Methods methods = {{"t.Echo", echo},
                         {"t.Many", echo, many, nullptr, TAVRIX_METHOD_STRICT},
                         {"t.Defer", defer},
                         {"t.Long", answer_long}};

/** The log goes nowhere before the service does. */
struct Quiet {
    LogCapture log;
};

/** A service without a router, opened and closed without faults. */
class Testee : Quiet, public driven::Service {
  public:
    Testee() : driven::Service("testee", methods, nullptr) {
        outcomes = 0;
        notifications = 0;
        support::deferred = 0;
    }

    /** A request that comes over the session while the fault is in force. */
    void take(Fault *fault, const char *method, const std::string &params) {
        const Fault::Truce none; // nothing is in force yet
        Json request = parsed(support::request(method, "\"test\"", ",\"transaction_id\":5,\"params\":" + params));
        kit::Origin origin{};
        origin.caller.road = TAVRIX_ROAD_SESSION;
        fault->in([&] { kit::evaluate(service(), std::move(request), origin); });
        run();
    }
    /** The only outcome begins like this, or a failure has led to an error or to none at all; the next call is served.
     */
    void expect_outcome(const Fault &fault, const std::string &beginning) {
        const std::string outcome = next_outcome();
        EXPECT_TRUE(outcome.find(beginning) == 0 ||
                    (fault.happened() && (outcome == "(none)" || outcome.find(error) == 0)))
            << outcome;
        EXPECT_EQ(next_outcome(), "(none)") << "a second answer to " << outcome;
        expect_service();
    }
    tavrix_call *deferred() const { return tavrix_service_deferred(service(), support::deferred); }
    void expect_service() { EXPECT_EQ(call("t.Echo", R"({"n":1})"), R"({"result":{"n":1}})"); }

    static constexpr char error[] = R"({"error":{"code":-32)";
};

void on_answer(tavrix_service * /*service*/, const tavrix_answer * /*answer*/, void * /*user*/) { ++outcomes; }

TEST(KitFaults, ARequestIsAnsweredOnceAndAsItIsOrNotAtAll) {
    const std::string params =
        R"({"text":"a","long":")" + std::string(900, 'x') +
        R"(","mac":"00:11:22:33:44:55","vlans":[1,2],"ports":[{"port_number":7,"port_status":1,"poe_status":1,"link_status":1,)"
        R"("link_speed":4,"vlan_mode":1,"vlan_ids":[9]}],)"
        R"("pairs":[{"vlan":7,"mode":"access"}]})";
    const struct {
        const char *method;
        std::string params;
        std::string answer; ///< its beginning
    } rows[] = {{"t.Echo", R"({"a":"b"})", R"({"result":{"a":"b"}})"},
                {"t.Many", params, "{\"result\":" + params},
                {"t.Many", R"({"text":"a","unknown":1})", Testee::error}};
    Fault none(0);
    Testee().take(&none, "t.Many", params); // the patterns of the rules are compiled once and stay
    for (const auto &row : rows) {
        each_failure([&](Fault &fault) {
            Testee testee;
            testee.take(&fault, row.method, row.params);
            testee.expect_outcome(fault, row.answer);
        });
    }
}

TEST(KitFaults, ADeferredCallIsAnsweredOnce) {
    each_failure([](Fault &fault) {
        Testee testee;
        testee.take(&fault, "t.Defer", "{}");
        const auto answer = [&] { return tavrix_call_reply(testee.deferred(), json_integer(8)); };
        fault.happened() ? answer() : fault.in(answer);
        testee.run();
        EXPECT_EQ(testee.deferred(), nullptr);
        testee.expect_outcome(fault, R"({"result":8})");
    });
}

TEST(KitFaults, ARequestEndsOnceWhenItWasMade) {
    each_failure([](Fault &fault) {
        Testee testee;
        json_t *params = json_pack("{s:i}", "n", 1);
        const uint64_t number = fault.in(
            [&] { return tavrix_service_request(testee.service(), "o.Get", params, 100, on_answer, nullptr); });
        EXPECT_EQ(number != 0, !fault.happened());
        testee.run();
        testee.answer("o.Get", R"({"result":1})");
        testee.advance(1000);
        EXPECT_EQ(outcomes, number != 0 ? 1 : 0);
        testee.expect_service();
    });
}

TEST(KitFaults, ASubscriptionHearsOrIsRefused) {
    each_failure([](Fault &fault) {
        Testee testee;
        const uint64_t number = fault.in([&] {
            return tavrix_service_subscribe(
                testee.service(), "o.*",
                [](tavrix_service * /*service*/, const char * /*method*/, json_t * /*params*/, void * /*user*/) {
                    ++notifications;
                },
                nullptr);
        });
        testee.run();
        testee.notify("o.Happened", nullptr);
        EXPECT_EQ(notifications, number != 0 ? 1 : 0);
        EXPECT_TRUE(number != 0 || fault.happened());
    });
}

TEST(KitFaults, ANotificationIsPublishedWholeOrRefused) {
    each_failure([](Fault &fault) {
        Testee testee;
        json_t *params = json_pack("{s:i}", "n", 1);
        const int rc = fault.in([&] { return tavrix_service_publish(testee.service(), "t.Told", params); });
        EXPECT_EQ(rc != 0, fault.happened());
        testee.run();
        EXPECT_EQ(testee.next_notification() != "(none)", rc == 0);
    });
}

TEST(KitFaults, AListenerListensAndATimerIsSetOrIsRefused) {
    each_failure_of({"socket", "bind", "listen", "calloc", "event_add"}, [](Fault &fault) {
        const Testee testee;
        const uint64_t number = fault.in([&] { return tavrix_service_listen_unix(testee.service(), "own.sock"); });
        EXPECT_TRUE(number != 0 || fault.happened());
        EXPECT_EQ(StreamClient::unix_path("own.sock").connected(), number != 0) << fault.function();
    });
    const std::pair<std::set<std::string>, std::function<uint64_t(tavrix_service *)>> others[] = {
        {{"socket", "setsockopt", "bind", "listen", "getsockname", "calloc", "event_add"},
         [](tavrix_service *service) { return tavrix_service_listen_tcp(service, nullptr, 0, nullptr); }},
        {{"nn_socket", "nn_setsockopt", "nn_bind", "nn_getsockopt", "calloc", "event_add"},
         [address = free_bus_address()](tavrix_service *service) {
             return tavrix_service_listen_pull(service, address.c_str());
         }},
        {{"calloc"}, [](tavrix_service *service) {
             return tavrix_service_timer(
                 service, 1, 1, [](tavrix_service * /*service*/, void * /*user*/) {}, nullptr);
         }}};
    for (const auto &[functions, listen] : others) {
        each_failure_of(functions, [&listen = listen](Fault &fault) {
            const Testee testee;
            const uint64_t number = fault.in([&] { return listen(testee.service()); });
            EXPECT_EQ(number == 0, fault.happened()) << fault.function();
        });
    }
}

std::string client_request(const char *method) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(method) + R"(","params":{"a":1}})";
}

/** A service that listens, and its next client, which speaks while no fault is in force. */
class Direct : public Testee {
  public:
    Direct() { EXPECT_NE(tavrix_service_listen_unix(service(), "own.sock"), 0U); }

    /** Lets the loop turn with the fault in force until the condition holds. */
    bool turn(Fault *fault, const std::function<bool()> &condition) const {
        return fault->in([&] {
            return wait_until([&] {
                event_base_loop(service()->base, EVLOOP_NONBLOCK);
                const Fault::Truce truce;
                return condition();
            });
        });
    }
    /** What a client that says the text hears until its connection ends. */
    std::string ask(Fault *fault, const std::string &request) const {
        const StreamClient client = StreamClient::unix_path("own.sock");
        client.say(request);
        std::string heard;
        EXPECT_TRUE(turn(fault, [&] { return client.take(&heard); })) << "neither answered nor let go";
        return heard;
    }
    void expect_next_client() const {
        Fault none(0);
        EXPECT_EQ(ask(&none, client_request("t.Echo")), echoed);
    }

    static constexpr char echoed[] = R"({"jsonrpc":"2.0","id":"t.Echo","result":{"a":1}})";
};

TEST(KitFaults, AClientIsAnsweredOrLetGoAndTheNextOneIsServed) {
    const std::set<std::string> functions = {"accept4",    "getsockopt", "calloc",  "event_add", "recv",
                                             "json_loadb", "Jansson",    "realloc", "send"};
    for (const int reason : {ENOMEM, EINTR}) {
        const auto attempt = [&](Fault &fault) {
            const Direct direct;
            const std::string answer = direct.ask(&fault, client_request("t.Echo"));
            EXPECT_TRUE(answer == Direct::echoed ||
                        (fault.happened() && (answer.empty() || answer.find("\"error\"") != std::string::npos)))
                << fault.function() << ": " << answer;
            const bool goes_on = reason == EINTR && (fault.was("recv") || fault.was("send"));
            EXPECT_TRUE(answer == Direct::echoed || !(fault.was("accept4") || goes_on)) << fault.function();
            direct.expect_next_client();
        };
        each_failure_of(functions, attempt, reason);
    }
}

TEST(KitFaults, AClientGetsALongAnswerWholeOrCut) {
    const std::string whole = R"({"jsonrpc":"2.0","id":"t.Long","result":")" + std::string(long_answer, 'x') + "\"}";
    each_failure_of({"accept4", "recv", "send", "event_add", "realloc"}, [&](Fault &fault) {
        const Direct direct;
        const std::string answer = direct.ask(&fault, client_request("t.Long"));
        EXPECT_TRUE(answer == whole || (fault.happened() && (whole.compare(0, answer.size(), answer) == 0 ||
                                                             answer.find("\"error\"") != std::string::npos)))
            << fault.function() << ": " << answer.size() << " bytes";
        direct.expect_next_client();
    });
}

TEST(KitFaults, TheCallOfAClientThatGoesEnds) {
    each_failure_of({"accept4", "recv", "event_add"}, [](Fault &fault) {
        Direct direct;
        StreamClient client = StreamClient::unix_path("own.sock");
        client.say(client_request("t.Defer"));
        const auto is_let_go = [&] {
            char byte = '\0';
            return client.connected() && recv(client.fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
        };
        bool goes = false;
        EXPECT_TRUE(direct.turn(&fault, [&] {
            if (!goes && (support::deferred != 0 || is_let_go() || fault.happened())) {
                goes = true;
                client.close();
            }
            return goes && (direct.deferred() == nullptr || fault.was("event_add") || fault.was("poll"));
        })) << fault.function();
        direct.advance(20000); // one whose end nobody can hear of
        EXPECT_EQ(direct.deferred(), nullptr) << fault.function();
        direct.expect_next_client();
    });
}

/** Where the clock goes on by itself. */
class KitFaultsBesideARouter : public testing::Test {
  protected:
    KitFaultsBesideARouter() { kit::played_clock_ms = -1; }
};

TEST_F(KitFaultsBesideARouter, AnAnswerThatIsWaitedForComesOrAStatusTellsWhyNot) {
    for (const int reason : {ENOMEM, EINTR}) {
        const auto attempt = [&](Fault &fault) {
            const LogCapture log;
            PlayedRouter router; // which answers in two pieces
            int said = 0;
            meanwhile = [&] {
                router.step();
                if (!router.lines.empty() && said < 2) {
                    router.say_bytes(said++ == 0 ? R"({"jsonrpc":"2.0","id":1,)" : "\"result\":7}\n");
                }
            };
            Json response;
            // Longer than a connection holds.
            json_t *params = json_pack("{s:s}", "text", std::string(long_answer, 'x').c_str());
            const int rc =
                fault.in([&] { return tavrix_request_wait("session.sock", "o.Get", params, 20000, into(response)); });
            const bool goes_on = reason == EINTR && (fault.was("send") || fault.was("poll") || fault.was("recv"));
            meanwhile = nullptr;
            EXPECT_EQ(rc != 0, fault.happened() && !goes_on) << fault.function();
            EXPECT_EQ(rc == 0, response != nullptr) << fault.function();
            EXPECT_EQ(json_integer_value(json_object_get(response.get(), "result")), rc == 0 ? 7 : 0);
        };
        each_failure_of({"socket", "connect", "Jansson", "json_dumps", "send", "poll", "realloc", "recv", "json_loadb"},
                        attempt, reason);
    }
}

tavrix_service_options testee_options(unsigned flags) {
    tavrix_service_options options{};
    options.name = "tester"; // whom the played router's probe is for
    options.methods = methods;
    options.session = "session.sock";
    options.flags = flags;
    return options;
}

TEST_F(KitFaultsBesideARouter, AServiceIsOpenedOrToldWhyNot) {
    const std::string tcp = free_bus_address();
    const struct {
        const char *address;
        std::set<std::string> functions;
    } rows[] = {
        {tcp.c_str(), {"calloc", "event_base_new", "nn_socket", "nn_setsockopt", "nn_bind", "Jansson"}},
        {"ipc://own", {"getcwd", "nn_bind"}},
    };
    for (const auto &row : rows) {
        each_failure_of(row.functions, [&](Fault &fault) {
            const LogCapture log;
            const char *const publish[] = {row.address, nullptr};
            tavrix_service_options options = testee_options(0);
            options.publish = publish;
            tavrix_service *service = nullptr;
            const int rc = fault.in([&] { return tavrix_service_open(&options, &service); });
            EXPECT_EQ(rc != 0, service == nullptr) << fault.function();
            EXPECT_TRUE(rc == 0 || fault.happened());
            EXPECT_TRUE(rc == 0 || !fault.was("getcwd")) << "the address stays as it was given";
            EXPECT_EQ(access("own", F_OK) == 0, rc == 0 && row.address != tcp) << fault.function();
            tavrix_service_close(service);
        });
    }
}

TEST_F(KitFaultsBesideARouter, ARunEndsWithAFailureWhenItCannotWait) {
    each_failure_of({"event_base_loop", "event_add", "socket"}, [](Fault &fault) {
        const LogCapture log;
        const tavrix_service_options options = testee_options(0);
        tavrix_service *service = nullptr;
        ASSERT_EQ(tavrix_service_open(&options, &service), 0);
        tavrix_service_timer(
            service, 0, 0, [](tavrix_service *ended, void * /*user*/) { tavrix_service_stop(ended); }, nullptr);
        const int rc = fault.in([&] { return tavrix_service_run(service); });
        EXPECT_TRUE(rc == 0 || (rc == TAVRIX_ERR_GENERAL && fault.happened())) << fault.function() << ": " << rc;
        EXPECT_EQ(rc == TAVRIX_ERR_GENERAL, log.text().find("tester cannot go on") != std::string::npos);
        if (fault.was("event_base_loop")) {
            EXPECT_EQ(rc, TAVRIX_ERR_GENERAL);
            EXPECT_TRUE(log.says("Cannot wait for requests: Cannot allocate memory"));
        }
        tavrix_service_close(service);
    });
}

/** One whole life beside a played router: opened without faults, then everything until the answers came back. */
class Life {
  public:
    explicit Life(unsigned flags) : publishes_((flags & TAVRIX_SERVICE_SILENT) == 0) {
        router_.settles = publishes_;
        const tavrix_service_options options = testee_options(flags | TAVRIX_SERVICE_NO_SIGNALS);
        EXPECT_EQ(tavrix_service_open(&options, &service_), 0);
    }
    Life(const Life &) = delete;
    Life &operator=(const Life &) = delete;
    ~Life() { tavrix_service_close(service_); }

    const LogCapture log;

    /** Until the service is ready and has answered on its session, and where it publishes on the bus; or has given up.
     */
    bool live() {
        const int rc = tavrix_service_start(service_);
        int next_ask = 0;
        for (int turns = 0; rc == 0 && !service_->failed && turns < max_turns; ++turns) {
            event_base_loop(service_->base, EVLOOP_NONBLOCK);
            const Fault::Truce truce; // the router's own calls are not counted
            router_.step();
            if (tavrix_service_is_ready(service_) && turns >= next_ask) {
                ask();
                next_ask = turns + ask_again;
            }
            if (is_answered() && (!publishes_ || is_answered_on_the_bus())) {
                return true;
            }
            usleep(turn_us);
        }
        return rc != 0 || service_->failed;
    }

  private:
    void ask() {
        if (!is_answered()) {
            router_.say(direct_request("t.Echo", R"({"n":1})", 5));
        }
        if (publishes_) {
            const std::string frame =
                TAVRIX_CHANNEL_DEFAULT + std::string(R"(|{"jsonrpc":"2.0","id":"t.me","method":"t.Echo","params":{}})");
            tavrix_mq_socket_send(router_.pub.number, frame.c_str());
        }
    }
    bool is_answered() const {
        return !router_.lines.empty() && (router_.lines.front().find(R"("n":1)") != std::string::npos ||
                                          router_.lines.front().find("error") != std::string::npos);
    }
    bool is_answered_on_the_bus() {
        for (std::string frame; !heard_on_the_bus_ && take_frame(router_.sub.number, &frame, 1);) {
            heard_on_the_bus_ = frame.rfind("t.me|", 0) == 0;
        }
        return heard_on_the_bus_;
    }

    static constexpr int max_turns = 40000;
    static constexpr int ask_again = 100;
    static constexpr useconds_t turn_us = 500;

    PlayedRouter router_;
    bool publishes_;
    bool heard_on_the_bus_ = false;
    tavrix_service *service_ = nullptr;
};

TEST_F(KitFaultsBesideARouter, AServiceRegistersAndServesAllTheSameOrGivesUp) {
    const struct {
        unsigned flags;
        std::set<std::string> functions;
    } rows[] = {
        {TAVRIX_SERVICE_SILENT,
         {"socket", "connect", "event_add", "recv", "send", "json_loadb", "json_dumps", "Jansson"}},
        {0, // it publishes
         {"nn_socket", "nn_bind", "nn_connect", "nn_setsockopt", "nn_getsockopt", "nn_allocmsg", "nn_send", "nn_recv",
          "socket", "connect", "event_add", "recv", "send"}},
    };
    for (const auto &row : rows) {
        each_failure_of(row.functions, [&](Fault &fault) {
            Life life(row.flags);
            EXPECT_TRUE(fault.in([&] { return life.live(); })) << fault.function();
        });
    }
}

TEST_F(KitFaultsBesideARouter, AServiceWhoseSocketKeepsItsOwnGroupServesAndSaysSo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give the folder to another group";
    }
    constexpr gid_t others = 65534;
    mkdir("bus", 0770);
    ASSERT_EQ(chown("bus", static_cast<uid_t>(-1), others), 0);
    {
        const fault::Failing as_in_a_sandbox("chown", 1, EPERM, Fault::always);
        Life life(0);
        EXPECT_TRUE(life.live());
        EXPECT_TRUE(life.log.says("to the group of its folder: Operation not permitted; the router may not reach it"));
    }
    ASSERT_EQ(chown("bus", static_cast<uid_t>(-1), getegid()), 0);
}

} // namespace
