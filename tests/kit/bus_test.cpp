#include <string>

#include <gtest/gtest.h>
#include <nanomsg/nn.h>

#include "kit/support/played_router.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "tavrix_mq.h"

using namespace support;

namespace {

const Methods methods = {{"ports.Echo", echo}, {"ports.Fill", fill}, {"ports.Defer", defer}};

/** A daemon on the bus that uses only the library, and a service that it knows by its address. */
class Bus : public testing::Test {
  protected:
    Bus() { peer_pub.bind(peer_address); }

    /** Opens a service without a session and waits until both directions stand. */
    void open() {
        const char *publish[] = {own_address.c_str(), nullptr};
        const char *connect[] = {peer_address.c_str(), nullptr};
        tavrix_service_options options = {};
        options.session = "";
        options.publish = publish;
        options.connect = connect;
        stage.open(methods, options);
        for (const char *channel : {TAVRIX_ROUTER_REPLY_CHANNEL, "me", "events."}) {
            tavrix_mq_socket_subscribe(peer_sub.number, channel);
        }
        peer_sub.connect(own_address);
        ASSERT_TRUE(stage.wait([this] {
            publish_request(R"({"jsonrpc":"2.0","method":"service.Probe","params":{"name":"tester"}})");
            return received().find("router.Hello") != std::string::npos;
        }));
        while (!received().empty()) {
        }
    }
    void publish_request(const std::string &text, const char *channel = TAVRIX_CHANNEL_FIRST) {
        tavrix_mq_socket_send(peer_pub.number, (std::string(channel) + "|" + text).c_str());
    }
    /** A service as the router tells of it. */
    static std::string described(const std::string &name, const std::string &address) {
        return R"({"name":")" + name + R"(","channel":"c","publish":[")" + address + R"("],"methods":[]})";
    }
    /** Listens to a service that has registered, and asks it until it answers. */
    bool registered_service_answers() {
        peer_sub.connect("ipc://" + stage.router.folder + "/tester");
        tavrix_mq_socket_subscribe(peer_sub.number, "me");
        return stage.wait([this] {
            publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":"me","params":{"a":1}})");
            return received() == R"(me|{"jsonrpc":"2.0","id":"ports.Echo","result":{"a":1}})";
        });
    }
    std::string received() {
        std::string frame;
        take_frame(peer_sub.number, &frame, 1);
        return frame;
    }
    /** The next frame that is none of the settling's. */
    std::string next() {
        std::string frame;
        stage.wait([&] {
            frame = received();
            return !frame.empty() && frame.find("router.Hello") == std::string::npos;
        });
        return frame;
    }

    LogCapture log{"info"};
    std::string own_address = free_bus_address();
    std::string peer_address = free_bus_address();
    BusSocket peer_pub{TAVRIX_SP_PUB};
    BusSocket peer_sub{TAVRIX_SP_SUB};
    Stage stage;
};

} // namespace

TEST_F(Bus, ServesAPeerThatKnowsOfNoSession) {
    open();
    EXPECT_TRUE(tavrix_service_is_ready(stage.service)) << "the probe said that the router is there";
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":"me","transaction_id":4,"params":{"a":1}})");
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"ports.Echo","result":{"a":1},"transaction_id":4})");
    publish_request(R"({"jsonrpc":"2.0","method":"service.Hello","id":"me"})");
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"service.Hello","result":0})");
}

TEST_F(Bus, AnswersLaterOnTheChannelThatAsked) {
    open();
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Defer","id":"me","transaction_id":5})");
    ASSERT_TRUE(stage.wait([] { return deferred != 0; }));
    tavrix_call_reply(stage.deferred_call(), json_integer(1));
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"ports.Defer","result":1,"transaction_id":5})");
}

TEST_F(Bus, CarriesUpToEightMegabytesAndRefusesMoreWithoutHarm) {
    open();
    constexpr size_t largest = 8 << 20;
    int limit = largest; // as every receiver has it
    ASSERT_EQ(nn_setsockopt(peer_sub.number, NN_SOL_SOCKET, NN_RCVMAXSIZE, &limit, sizeof limit), 0);
    const auto publish = [&](size_t size) {
        return tavrix_service_publish(stage.service, "events.Told",
                                      json_pack("{s:s}", "t", std::string(size, 'x').c_str()));
    };
    EXPECT_EQ(publish(largest), TAVRIX_ERR_PARAMETER);
    EXPECT_TRUE(log.says("Cannot publish events.Told: it has 8388666 bytes, and at most 8388595 can be sent"));
    EXPECT_EQ(publish(largest - 100), TAVRIX_OK);
    EXPECT_GT(next().size(), largest - 100);
    for (const char *n : {"8388608", "1"}) { // the second finds the service as well as ever
        publish_request(R"({"jsonrpc":"2.0","method":"ports.Fill","id":"me","params":{"n":)" + std::string(n) + "}}");
    }
    const std::string refusal = next();
    EXPECT_EQ(code_of(refusal.substr(3)), "-32004") << refusal;
    EXPECT_TRUE(holds(refusal, "The answer cannot be sent: it has 8388655 bytes, and at most 8388604 can be sent."));
    EXPECT_TRUE(log.says("ports.Fill: the answer cannot be sent: it has"));
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"ports.Fill","result":"x"})");
}

TEST_F(Bus, PassesOverIdsThatAreNoChannelsAndFramesThatAreNone) {
    open();
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":12,"params":{}})");
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":"a|b","params":{}})");
    publish_request("nonsense");
    tavrix_mq_socket_send(peer_pub.number, TAVRIX_CHANNEL_FIRST);
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":"me","params":{"last":1}})");
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"ports.Echo","result":{"last":1}})");
}

TEST_F(Bus, ObeysTheLoggersMethodOnTheDefaultChannelAndNothingElseThere) {
    open();
    publish_request(R"({"jsonrpc":"2.0","method":"ports.Echo","id":"me","params":{}})", TAVRIX_CHANNEL_DEFAULT);
    publish_request(R"({"jsonrpc":"2.0","method":"other.Method","id":"me"})", TAVRIX_CHANNEL_DEFAULT);
    publish_request(R"({"jsonrpc":"2.0","method":"logger.ReloadConf","id":"me"})", TAVRIX_CHANNEL_DEFAULT);
    EXPECT_EQ(next(), R"(me|{"jsonrpc":"2.0","id":"logger.ReloadConf","result":0})");
}

TEST_F(Bus, PublishesNotificationsUnderTheirName) {
    open();
    EXPECT_EQ(tavrix_service_publish(stage.service, "events.LinkChanged", json_pack("{s:i}", "n", 1)), TAVRIX_OK);
    EXPECT_EQ(next(), R"(events.LinkChanged|{"jsonrpc":"2.0","method":"events.LinkChanged","params":{"n":1}})");
}

TEST_F(Bus, HasToBeGivenAddressesWithoutASession) {
    tavrix_service_options options = {};
    options.name = "tester";
    options.session = "";
    options.methods = methods;
    tavrix_service *service = nullptr;
    EXPECT_EQ(tavrix_service_open(&options, &service), TAVRIX_ERR_PARAMETER);
    const std::string long_address = "ipc:///" + std::string(107, 'p');
    const char *publish[] = {long_address.c_str(), nullptr};
    options.session = "session.sock";
    options.publish = publish;
    EXPECT_EQ(tavrix_service_open(&options, &service), TAVRIX_ERR_GENERAL) << "nanomsg would abort";
    EXPECT_TRUE(log.says("an address begins with tcp:// or ipc:// and has at most 113 bytes"));
}

TEST_F(Bus, FollowsTheServicesThatTheRouterTellsOf) {
    stage.serve(methods);
    stage.router.say(notification("router.ServiceUp", described("peer", "nonsense\",\"" + peer_address)));
    EXPECT_TRUE(registered_service_answers());
    EXPECT_TRUE(log.says("Cannot listen to nonsense: this is not a bus address"));
    stage.router.say(notification("router.ServiceDown", R"({"name":"peer"})"));
    stage.router.hang_up();
    EXPECT_TRUE(stage.wait_ready());
}

TEST_F(Bus, ListensTo1024AddressesAndToAnotherOnceOneHasGone) {
    constexpr int most = 1024;
    stage.router.services = "[";
    for (int i = 1; i < most; ++i) { // the router's own is one of them
        const std::string number = std::to_string(i);
        stage.router.services += (i > 1 ? "," : "") + described("nobody" + number, "ipc://nobody" + number);
    }
    stage.router.services += "]";
    stage.serve(methods);
    EXPECT_FALSE(log.says("too many addresses")) << "they are as many as may be";
    const std::string up = notification("router.ServiceUp", described("peer", peer_address));
    stage.router.say(up);
    ASSERT_TRUE(stage.wait([this] { return static_cast<bool>(log.says("too many addresses")); }));
    EXPECT_TRUE(log.says("Cannot listen to " + peer_address + ": too many addresses"));

    stage.router.say(notification("router.ServiceDown", R"({"name":"nobody7"})"));
    stage.router.say(up);
    EXPECT_TRUE(registered_service_answers()) << "the one that has gone has left its place";
}
