/*
 * Who may do what: the policy's file, and what another local user and a client over TCP can do.
 */
#include <numeric>
#include <optional>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/stranger.h"
#include "support/system_test.h"

using namespace support;
using namespace testing;

namespace {

constexpr char nobody_allowed_it[] = R"({"message":"the policy does not allow this"})";

bool is_refused(const std::string &answer) {
    return code_of(answer) == "-32601" && data_of(answer) == nobody_allowed_it;
}

/** Whether the system tells a peer's groups, this many. */
bool tells_peer_groups(const std::vector<gid_t> &groups) {
    const Stranger stranger(groups);
    int ends[2] = {-1, -1};
    std::vector<gid_t> told(2 * groups.size());
    auto size = static_cast<socklen_t>(told.size() * sizeof(gid_t));
    const bool works = socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 &&
                       getsockopt(ends[0], SOL_SOCKET, SO_PEERGROUPS, told.data(), &size) == 0 &&
                       size == groups.size() * sizeof(gid_t);
    close(ends[0]);
    close(ends[1]);
    return works;
}

/** The policy of docs/router.md: its indented lines from one that begins so to the end of that listing. */
std::string policy_of_the_page() {
    std::string policy;
    bool is_inside = false;
    for (const std::string &line : lines_of(read_file(TAVRIX_SOURCE_DIR "/docs/router.md"))) {
        is_inside = is_inside ? line.empty() || line.rfind("    ", 0) == 0
                              : line == "    # the network may read, and nothing else";
        if (is_inside) {
            policy += line.empty() ? "\n" : line.substr(4) + "\n";
        }
    }
    return policy;
}

/** A router whose sockets a stranger can reach. */
class RouterPolicy : public testing::Test {
  protected:
    void SetUp() override {
        if (!can_be_a_stranger()) {
            GTEST_SKIP() << "only root can play another user";
        }
        chmod(".", 0755); // the test's own folder: strangers have to get at the sockets in it
        fleet.start_lone_router_with_tcp(port);
    }

    static SessionClient session(const std::vector<gid_t> &more_groups = {}) {
        const Stranger stranger(more_groups);
        return SessionClient();
    }
    /** What the router answers a stranger, through one of its listeners. */
    std::string ask(const std::string &listener, const std::string &text, const std::vector<gid_t> &more_groups = {}) {
        std::optional<Stranger> stranger(more_groups);
        StreamClient client = listener == "tcp"    ? StreamClient::tcp_port(port)
                              : listener == "unix" ? fleet.connect()
                                                   : StreamClient::unix_path("session.sock");
        stranger.reset();
        return listener == "session" ? SessionClient(std::move(client)).ask(text) : client.ask(text);
    }
    /** Has the router read this policy; what it logs of it. */
    std::string reread(const std::string &policy) {
        write_file("policy.conf", policy);
        const std::string done = "Logging level set to info.";
        const size_t before = fleet.router->log().size();
        fleet.router->signal(SIGHUP);
        EXPECT_TRUE(wait_until([&] { return fleet.router->log().substr(before).find(done) != std::string::npos; }));
        EXPECT_EQ(code_of(fleet.ask(request("router.Status", "1"))), "(none)"); // the whole signal has been handled
        return fleet.router->log().substr(before);
    }

    int port = free_port();
    Fleet fleet;
};

} // namespace

TEST_F(RouterPolicy, LetsAStrangerCallTheServices) {
    DirectService service;
    for (const char *listener : {"unix", "session"}) {
        EXPECT_EQ(code_of(ask(listener, request("router.Status", "1"))), "(none)") << listener;
        EXPECT_EQ(code_of(ask(listener, request("router.Metrics", "1"))), "(none)") << listener;
    }
    SessionClient client = session();
    EXPECT_TRUE(serves(service, client));
    EXPECT_EQ(result_of(client.ask(subscription("Subscribe", R"(["*"])"))), "0");
    service.say(R"({"jsonrpc":"2.0","method":"ports.Changed"})");
    EXPECT_EQ(member(client.hear(), "method"), "\"ports.Changed\"");
}

TEST_F(RouterPolicy, KeepsAStrangerFromLockingRegisteringAndListening) {
    for (const char *listener : {"unix", "session", "tcp"}) {
        for (const char *method : {"router.Lock", "router.Unlock", "router.Bus", "router.Register", "router.Monitor"}) {
            EXPECT_TRUE(is_refused(ask(listener, request(method, "1", R"(,"params":{"methods":["*"]})"))))
                << method << listener;
        }
    }
    EXPECT_TRUE(is_refused(ask("session", Registration().line())));
    EXPECT_TRUE(fleet.router->says("Refused router.Lock to user 65534\n"));
    EXPECT_TRUE(fleet.router->says("Refused router.Lock over TCP\n"));
    EXPECT_EQ(fleet.status("locked"), "false");
}

TEST_F(RouterPolicy, KeepsAStrangerOffTheBus) {
    const std::string folder = "bus-of-" + std::to_string(getpid());
    fleet.router_address = "ipc://" + folder + "/router";
    fleet.start_lone_router();
    const std::string path = folder + "/router";
    EXPECT_TRUE(StreamClient::unix_path(path).connected()) << "root may";
    struct stat state {};
    ASSERT_EQ(stat(folder.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777U, 0770U);
    const Stranger stranger;
    EXPECT_FALSE(StreamClient::unix_path(path).connected());
    EXPECT_EQ(errno, EACCES);
}

TEST_F(RouterPolicy, WarnsOfABusFolderThatIsOpenToAll) {
    ASSERT_EQ(mkdir("open-bus", 0755), 0);
    fleet.router_address = "ipc://open-bus/router";
    fleet.start_lone_router();
    EXPECT_TRUE(fleet.router->says("Every local user may enter open-bus"));
}

TEST_F(RouterPolicy, AllowsWhatItsRowsName) {
    const passwd *daemon = getpwnam("daemon");
    const passwd *nobody = getpwuid(stranger_user);
    ASSERT_TRUE(daemon != nullptr && nobody != nullptr && std::string(nobody->pw_name) == "nobody");
    const struct {
        const char *policy;
        std::vector<std::string> allowed; ///< each a listener and a method
        std::vector<std::string> refused;
    } rows[] = {
        {"", // without a section of its own: as without a policy
         {"unix ports.Get", "session router.Status"},
         {"unix router.Unlock", "tcp ports.Get"}},
        {"# nothing\n\n[tcp]\n# all=*\n", {}, {"tcp ports.Get"}},
        {"[tcp]\nall=ports.Get,mzu.*\n",
         {"tcp ports.Get", "tcp mzu.List", "unix events.List"},
         {"tcp mzu", "tcp ports.Gets", "tcp ports.Ge", "tcp router.Status", "tcp rpc.discover"}},
        {"[tcp]\nall=*\n", {"tcp router.Status", "tcp rpc.discover"}, {"tcp router.Unlock"}},
        {"[tcp]\nall=*,router.Unlock\n", {"tcp router.Unlock"}, {}},
        {"[tcp]\nuser.nobody=*\n", {}, {"tcp ports.Get"}}, // nobody knows who is there
        {"[tcp]\ngroup.nogroup=*\n", {}, {"tcp ports.Get"}},
        {"[unix]\n", {"session ports.Get"}, {"unix ports.Get"}},
        {"[session]\nall=\n", {"unix ports.Get"}, {"session ports.Get"}},
        {"[unix]\nuser.nobody=ports.*\n", {"unix ports.Get"}, {"unix events.List"}},
        {"[unix]\nuser.daemon=*\n", {}, {"unix ports.Get"}},
        {"[unix]\ngroup.nogroup=*\n", {"unix ports.Get"}, {}},
        {"[unix]\ngroup.daemon=*\n", {}, {"unix ports.Get"}},
        {"[unix]\nall=ports.*\nuser.nobody=mzu.*\n", {"unix mzu.List", "unix ports.Get"}, {}},
        {"[session]\nall=*\nuser.nobody=router.Unlock\n", {"session router.Unlock"}, {"session router.Lock"}},
        {"[session]\nuser.nobody=router.*\n", {"session router.Unlock"}, {"session ports.Get"}},
        {"[session]\nall=router.U*\n", {"session router.Unlock"}, {}},
        {"[session]\nall=r*\n", {"session router.Status"}, {"session router.Unlock"}}, // named by router.* at least
        {"[session]\nall=*\n", {}, {"session router.Describe"}},                       // as router.Register
        {"[session]\nuser.nobody=router.Register\n", {"session router.Describe"}, {}},
        {"[session]\nall=ports.Get\n[unix]\nall=mzu.*\n", {"session ports.Get"}, {"unix ports.Get"}},
    };
    const auto refuses = [this](const std::string &asked) {
        const size_t blank = asked.find(' ');
        return is_refused(ask(asked.substr(0, blank), request(asked.substr(blank + 1), "1")));
    };
    for (const auto &row : rows) {
        EXPECT_THAT(reread(row.policy), Not(HasSubstr("cannot be used"))) << row.policy;
        EXPECT_THAT(row.allowed, Each(ResultOf(refuses, false))) << row.policy;
        EXPECT_THAT(row.refused, Each(ResultOf(refuses, true))) << row.policy;
    }
    reread("[unix]\ngroup.daemon=*\n");
    EXPECT_FALSE(is_refused(ask("unix", request("ports.Get", "1"), {daemon->pw_gid}))) << "a supplementary group";
    std::vector<gid_t> many(200);
    std::iota(many.begin(), many.end(), 10000);
    many.push_back(daemon->pw_gid);
    if (tells_peer_groups(many)) { // an emulator passes on only as many as fit at first; the real kernel says how many
        EXPECT_FALSE(is_refused(ask("unix", request("ports.Get", "1"), many))) << "one of very many";
    }
}

TEST_F(RouterPolicy, OfThePageDoesWhatThePageSays) {
    const group *daemons = getgrnam("daemon");
    ASSERT_TRUE(daemons != nullptr);
    const std::string page = policy_of_the_page();
    ASSERT_THAT(page, AllOf(HasSubstr("group.operators="), HasSubstr("user.backup=")));
    const std::string policy = replaced(page, "group.operators=", "group.daemon=");
    const struct {
        const char *method;
        bool everybody;
        bool network;
        bool operators;
        bool backup;
    } rows[] = {
        {"ports.Get", true, true, true, true},           {"mzu.List", true, true, true, true},
        {"events.Last", true, false, true, true},        {"router.Status", true, false, true, true},
        {"ports.SetEnabled", false, false, true, false}, {"events.Report", false, false, true, false},
        {"mzu.Register", false, false, true, true},      {"logger.ReloadConf", false, false, true, false},
        {"router.Lock", false, false, true, false},      {"router.Unlock", false, false, true, false},
        {"router.Register", false, false, false, false}, {"router.Monitor", false, false, false, false},
    };
    for (const bool is_backup : {false, true}) {
        EXPECT_THAT(reread(replaced(policy, "user.backup=", is_backup ? "user.nobody=" : "user.daemon=")),
                    Not(HasSubstr("cannot be used")));
        for (const auto &row : rows) {
            const std::string asked = request(row.method, "1", R"(,"params":{"methods":["*"]})");
            EXPECT_EQ(is_refused(ask("tcp", asked)), !row.network) << row.method;
            for (const char *listener : {"unix", "session"}) {
                EXPECT_EQ(is_refused(ask(listener, asked)), !(is_backup ? row.backup : row.everybody))
                    << listener << " " << row.method;
                if (!is_backup) {
                    EXPECT_EQ(is_refused(ask(listener, asked, {daemons->gr_gid})), !row.operators)
                        << listener << " " << row.method;
                }
            }
        }
    }
}

TEST_F(RouterPolicy, LocksNobodyOutWhoKeepsTheFile) {
    reread("[unix]\n[session]\n[tcp]\n");
    EXPECT_EQ(result_of(fleet.ask(request("router.Unlock", "1"))), "0");
    DirectService service;
    SessionClient client;
    EXPECT_EQ(member(client.ask(request("router.Bus", "1")), "jsonrpc"), "\"2.0\"");
    EXPECT_EQ(code_of(client.ask(subscription("Monitor", R"(["*"])"))), "(none)");
    EXPECT_FALSE(is_refused(ask("unix", request("router.Unlock", "1"), {0}))) << "the router's own group";
}

TEST_F(RouterPolicy, RefusesAFileThatWouldBeReadOtherwiseThanItLooks) {
    const std::pair<const char *, const char *> rows[] = {
        {"all=*\n", "line 1: 'all=*' stands before any section"},
        {"[other]\n", "line 1: [other] is none of [unix], [tcp] and [session], or stands there already"},
        {"[tcp]\n\n#\n[tcp]\n", "line 4: [tcp] is none of [unix], [tcp] and [session], or stands there already"},
        {"[TCP]\n", "line 1: [TCP] is none of"},
        {"[tcp\nall=*\n", "line 1: '[tcp' is not a section"},
        {"[tcp] # net\n", "line 1: '[tcp] # net' is not a section"},
        {"[tcp]\nall\n", "line 2: 'all' is not key=value"},
        {"[tcp]\neverybody=*\n", "line 2: 'everybody' is neither all, user.NAME nor group.NAME"},
        {"[tcp]\n all=*\n", "line 2: ' all' is neither all, user.NAME nor group.NAME"},
        {"[tcp]\nall =*\n", "line 2: 'all ' is neither all, user.NAME nor group.NAME"},
        {"[unix]\nuser.no-such-user=*\n", "line 2: there is no user 'no-such-user'"},
        {"[unix]\nuser.=*\n", "line 2: there is no user ''"},
        {"[unix]\ngroup.no-such-group=*\n", "line 2: there is no group 'no-such-group'"},
        {"[tcp]\nall= ports.Get\n", "line 2: ' ports.Get' is not a method pattern"},
        {"[tcp]\nall=ports.Get, mzu.List\n", "line 2: ' mzu.List' is not a method pattern"},
        {"[tcp]\nall=ports.*.Get\n", "line 2: 'ports.*.Get' is not a method pattern"},
        {"[tcp]\nall=**\n", "line 2: '**' is not a method pattern"},
        {"[tcp]\r\nall=*\r\n", "line 1: the line ends with a carriage return"},
        {"[tcp]\nall=*\r\n", "line 2: the line ends with a carriage return"},
        {"[tcp]\nall=*", "line 2: the last line does not end with a newline"},
        {"[tcp]\nall=\x1b[2J\n", "line 2: '\\x1b[2J' is not a method pattern"},
    };
    for (const auto &[text, complaint] : rows) {
        EXPECT_THAT(reread(text), HasSubstr(std::string("The policy policy.conf cannot be used: ") + complaint));
    }
    EXPECT_FALSE(is_refused(ask("tcp", request("ports.Get", "1")))) << "the one that was good stays";
    remove("policy.conf");
    fleet.router->signal(SIGHUP);
    EXPECT_TRUE(fleet.router->says("The policy policy.conf cannot be used: cannot be opened"));
    EXPECT_FALSE(is_refused(ask("tcp", request("ports.Get", "1"))));
    EXPECT_THAT(reread("[tcp]\n"), Not(HasSubstr("cannot be used")));
    EXPECT_TRUE(is_refused(ask("tcp", request("ports.Get", "1")))) << "and a new good one counts";
}

TEST_F(RouterPolicy, StartsWithNoPolicyThatCannotBeUsed) {
    write_file("bad.conf", "[tcp]\nnonsense\n");
    mkdir("folder.conf", 0755);
    for (const std::string path : {"bad.conf", "missing.conf", "folder.conf"}) {
        EXPECT_THAT(run({TAVRIX_ROUTERD, "--socket", "second.sock", "--session", "", "--publish", free_bus_address(),
                         "--policy", path}),
                    fails(1, HasSubstr("The policy " + path + " cannot be used")));
    }
}
