/*
 * Where routers, services and clients meet when nobody tells them where. In a /run of the test's own: the usual paths
 * of the machine stay as they are.
 */
#include <cstdlib>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "support/system_test.h"

using namespace support;

namespace {

constexpr char default_session[] = "/run/tavrix/session.sock";

/** From now on this program and all that it starts have an empty /run; false where the system does not let it. */
bool has_own_run() {
    static const bool has = unshare(CLONE_NEWNS) == 0 &&
                            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                            mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
    return has;
}

class DefaultPaths : public testing::Test {
  protected:
    void SetUp() override {
        if (!has_own_run()) {
            GTEST_SKIP() << "only root can have a /run of its own, where the system lets him";
        }
        unsetenv("TAVRIX_SESSION");
        unsetenv("TAVRIX_SOCKET");
        mkdir("/run/tavrix", 0755);
    }
    void TearDown() override { unsetenv("TAVRIX_SESSION"); }

    static bool is_socket(const char *path) {
        struct stat state {};
        return stat(path, &state) == 0 && S_ISSOCK(state.st_mode);
    }
    /** What the router at this path calls the state of the ports service. */
    static bool has_ports(const std::string &session) {
        return ctl({"wait-service", "--session", session, "--timeout", "20", "portsd"}).status == 0;
    }

    Fleet fleet; // its database, and its logger's configuration
};

} // namespace

TEST_F(DefaultPaths, AreWhereRouterServiceAndClientsMeetUntold) {
    const auto router = started("routerd", {TAVRIX_ROUTERD});
    for (const char *path : {"/run/tavrix/router.sock", default_session, "/run/tavrix/bus/router"}) {
        EXPECT_TRUE(is_socket(path)) << path;
    }
    const auto ports = started("portsd", {TAVRIX_PORTSD});
    EXPECT_TRUE(has_ports(default_session));
    EXPECT_TRUE(is_socket("/run/tavrix/bus/portsd"));
    EXPECT_EQ(ctl({"call", "ports.Get", "port_id=c1-1"}).status, 0);
    EXPECT_EQ(ctl({"subscribe", "--timeout", "0.2", "ports.*"}).status, 3) << "sessions alone have notifications";
    EXPECT_NE(result_of(StreamClient::unix_path("/run/tavrix/router.sock")
                            .ask(request("ports.Get", "1", R"(,"params":{"port_id":"c1-1"})"))),
              "(none)");
}

TEST_F(DefaultPaths, GiveWayToTheEnvironmentsAndThatToTheOptions) {
    fleet.start_lone_router();
    const auto other =
        begun("other", {TAVRIX_ROUTERD},
              {"--socket", "other.sock", "--session", "other-session.sock", "--publish", free_bus_address()},
              "routerd ready");
    setenv("TAVRIX_SESSION", "session.sock", 1);
    {
        const Process ports("portsd", {TAVRIX_PORTSD});
        EXPECT_TRUE(has_ports("session.sock")) << ports.log();
        EXPECT_EQ(ctl({"call", "ports.Get", "port_id=c1-1"}).status, 0);
    }
    const Process ports("portsd", {TAVRIX_PORTSD, "--session", "other-session.sock"});
    EXPECT_TRUE(has_ports("other-session.sock")) << ports.log();
    EXPECT_EQ(ctl({"call", "ports.Get", "port_id=c1-1"}).status, 1) << "the first router's service has gone";
    EXPECT_EQ(ctl({"call", "--session", "other-session.sock", "ports.Get", "port_id=c1-1"}).status, 0);
}

TEST_F(DefaultPaths, AreMeantByAnEmptyVariableToo) {
    setenv("TAVRIX_SESSION", "", 1);
    const auto router = started("routerd", {TAVRIX_ROUTERD});
    const Process ports("portsd", {TAVRIX_PORTSD});
    EXPECT_TRUE(has_ports(default_session)) << ports.log();
    EXPECT_EQ(ctl({"call", "ports.Get", "port_id=c1-1"}).status, 0);
}
