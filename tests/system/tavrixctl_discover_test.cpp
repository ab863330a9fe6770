/*
 * tavrixctl's list, describe and docs: what the services say of their methods, for people.
 */
#include <string>

#include <gtest/gtest.h>

#include "support/fleet.h"
#include "support/session.h"
#include "support/tavrixctl.h"

using support::ctl;
using support::Finished;
using support::Fleet;

namespace {

class CtlDiscover : public testing::Test {
  protected:
    CtlDiscover() {
        fleet.start_lone_router();
        fleet.start_ports();
    }

    static Finished run(std::vector<std::string> words) {
        words.insert(words.end(), {"--session", "session.sock"});
        return ctl(words);
    }
    static bool holds(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

    Fleet fleet;
};

} // namespace

TEST_F(CtlDiscover, ListsTheMethodsThatFitAPattern) {
    const Finished some = run({"list", "mzu.*"});
    EXPECT_EQ(some.status, 0);
    EXPECT_EQ(some.output, "METHOD        DOES     SUMMARY\n"
                           "mzu.List      reads    Lists the units of the fleet.\n"
                           "mzu.Register  changes  Adds a unit to the fleet.\n");
    const Finished all = run({"list"});
    EXPECT_TRUE(holds(all.output, "\nports.Get ")) << all.output;
    EXPECT_TRUE(holds(all.output, "\nrouter.Status ")) << all.output;
}

TEST_F(CtlDiscover, DescribesAMethodWithAnExampleThatWorks) {
    const Finished shown = run({"describe", "ports.SetVlanAccess"});
    EXPECT_EQ(shown.status, 0) << shown.diagnostics;
    EXPECT_TRUE(holds(shown.output, "ports.SetVlanAccess  changes\nPuts a port into one VLAN.\n")) << shown.output;
    EXPECT_TRUE(holds(shown.output, "integer, 1 to 4092")) << shown.output;
    EXPECT_TRUE(holds(shown.output, "-32602")) << shown.output;
    const std::string example = "tavrixctl call ports.SetVlanAccess port_id=c1-1 vlan_id:=1\n";
    ASSERT_TRUE(holds(shown.output, "\nEXAMPLE\n  " + example)) << shown.output;
    EXPECT_EQ(support::script("TAVRIX_SESSION=session.sock " + example).status, 0);
}

TEST_F(CtlDiscover, NamesTheNearestMethodOfOneThatNobodyDescribes) {
    const Finished shown = run({"describe", "ports.Gat"});
    EXPECT_EQ(shown.status, 1);
    EXPECT_EQ(shown.diagnostics, "tavrixctl: no service describes ports.Gat; did you mean ports.Get?\n");
    EXPECT_EQ(run({"list", "nothing*"}).status, 1);
}

TEST_F(CtlDiscover, SaysHowToGiveAValueThatIsNoText) {
    const Finished text = run({"call", "ports.SetVlanAccess", "port_id=c1-1", "vlan_id=20"});
    EXPECT_EQ(text.status, 1);
    EXPECT_TRUE(holds(text.diagnostics, "; did you mean vlan_id:=20?\n")) << text.diagnostics;
    const Finished list = run({"call", "ports.SetVlanTrunk", "port_id=c1-1", "vlan_ids=[1,2]"});
    EXPECT_TRUE(holds(list.diagnostics, "; did you mean vlan_ids:=[1,2]?\n")) << list.diagnostics;
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"port_id=7", "vlan_id:=20"}, {"port_id=c1-1", "vlan_id:=5000"}, {"port_id=c1-1", "vlan_id=many"}}) {
        const Finished other = run({"call", "ports.SetVlanAccess", words[0], words[1]});
        EXPECT_EQ(other.status, 1) << words[0];
        EXPECT_FALSE(holds(other.diagnostics, "did you mean")) << other.diagnostics;
    }
}

TEST_F(CtlDiscover, PrintsDocumentsAsMarkdownAndAsTheyCome) {
    const Finished markdown = run({"docs", "--format", "markdown"});
    EXPECT_EQ(markdown.status, 0);
    EXPECT_TRUE(holds(markdown.output, "\n## ports.SetEnabled\n\nLets ports carry traffic, or not. (changes)\n"));
    EXPECT_TRUE(holds(markdown.output, "| status |  | one of enable, disable | whether the ports carry traffic |\n"));
    EXPECT_TRUE(holds(markdown.output, "| -32014 | System is busy. |\n"));
    EXPECT_TRUE(holds(run({"docs", "--format", "json"}).output, "\"openrpc\": \"1.2.6\""));
    EXPECT_EQ(run({"docs", "--format", "html"}).status, 2);
}

TEST_F(CtlDiscover, StaysOnOneLineWhateverAServiceSays) {
    support::Registration registration;
    registration.channel = "b4469f46-e963-42ef-9fd2-f978e73adc76";
    registration.methods = R"(["i.Do"])";
    support::DirectService service(registration);
    service.ask(
        R"({"jsonrpc":"2.0","method":"router.Describe","id":1,"params":{"document":{"methods":[{"name":"i.Do",)"
        R"("summary":"a\u001b[31m\n|b","tags":7,"params":[7,{"name":"x'y","schema":{"type":"array","items":7}}],)"
        R"("result":{},"errors":[1],"examples":[{"params":[{"name":"x'y","value":[1]}]}]}]}}})");
    const Finished list = run({"list", "i.*"});
    EXPECT_EQ(list.output, "METHOD  DOES  SUMMARY\ni.Do          a\\x1b[31m\\x0a|b\n");
    const Finished shown = run({"describe", "i.Do"});
    EXPECT_TRUE(holds(shown.output, R"(tavrixctl call i.Do 'x'\''y:=[1]')")) << shown.output;
    EXPECT_TRUE(holds(run({"docs"}).output, R"(a\\x1b\[31m\\x0a\|b)"));
}
