/*
 * tavrixctl's list, describe and docs: what the services say of their methods, for people.
 */
#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

class CtlDiscover : public LoneRouter {
  protected:
    CtlDiscover() { fleet.start_ports(); }

    static Finished run(const std::vector<std::string> &words) { return ctl(words, {"--session", "session.sock"}); }
};

} // namespace

TEST_F(CtlDiscover, ListsTheMethodsThatFitAPattern) {
    EXPECT_THAT(run({"list", "mzu.*"}), prints("METHOD        DOES     SUMMARY\n"
                                               "mzu.List      reads    Lists the units of the fleet.\n"
                                               "mzu.Register  changes  Adds a unit to the fleet.\n"));
    EXPECT_THAT(run({"list"}), prints(AllOf(HasSubstr("\nports.Get "), HasSubstr("\nrouter.Status "))));
}

TEST_F(CtlDiscover, DescribesAMethodWithAnExampleThatWorks) {
    const std::string example = "tavrixctl call ports.SetVlanAccess port_id=c1-1 vlan_id:=1\n";
    EXPECT_THAT(
        run({"describe", "ports.SetVlanAccess"}),
        prints(AllOf(HasSubstr("ports.SetVlanAccess  changes\nPuts a port into one VLAN.\n"),
                     HasSubstr("integer, 1 to 4092"), HasSubstr("-32602"), HasSubstr("\nEXAMPLE\n  " + example))));
    EXPECT_EQ(script("TAVRIX_SESSION=session.sock " + example).status, 0);
}

TEST_F(CtlDiscover, NamesTheNearestMethodOfOneThatNobodyDescribes) {
    EXPECT_THAT(run({"describe", "ports.Gat"}),
                fails(1, "tavrixctl: no service describes ports.Gat; did you mean ports.Get?\n"));
    EXPECT_EQ(run({"list", "nothing*"}).status, 1);
}

TEST_F(CtlDiscover, SaysHowToGiveAValueThatIsNoText) {
    EXPECT_THAT(run({"call", "ports.SetVlanAccess", "port_id=c1-1", "vlan_id=20"}),
                fails(1, HasSubstr("; did you mean vlan_id:=20?\n")));
    EXPECT_THAT(run({"call", "ports.SetVlanTrunk", "port_id=c1-1", "vlan_ids=[1,2]"}),
                fails(1, HasSubstr("; did you mean vlan_ids:=[1,2]?\n")));
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"port_id=7", "vlan_id:=20"}, {"port_id=c1-1", "vlan_id:=5000"}, {"port_id=c1-1", "vlan_id=many"}}) {
        EXPECT_THAT(run({"call", "ports.SetVlanAccess", words[0], words[1]}), fails(1, Not(HasSubstr("did you mean"))));
    }
}

TEST_F(CtlDiscover, PrintsDocumentsAsMarkdownAndAsTheyCome) {
    EXPECT_THAT(run({"docs", "--format", "markdown"}),
                prints(AllOf(HasSubstr("\n## ports.SetEnabled\n\nLets ports carry traffic, or not. (changes)\n"),
                             HasSubstr("| status |  | one of enable, disable | whether the ports carry traffic |\n"),
                             HasSubstr("| -32014 | System is busy. |\n"))));
    EXPECT_THAT(run({"docs", "--format", "json"}), prints(HasSubstr("\"openrpc\": \"1.2.6\"")));
    EXPECT_EQ(run({"docs", "--format", "html"}).status, 2);
}

TEST_F(CtlDiscover, StaysOnOneLineWhateverAServiceSays) {
    DirectService service({"played", TAVRIX_CHANNEL_INTERFACES, "[]", R"(["i.Do"])", "true"});
    service.ask(
        R"({"jsonrpc":"2.0","method":"router.Describe","id":1,"params":{"document":{"methods":[{"name":"i.Do",)"
        R"("summary":"a\u001b[31m\n|b","tags":7,"params":[7,{"name":"x'y","schema":{"type":"array","items":7}}],)"
        R"("result":{},"errors":[1],"examples":[{"params":[{"name":"x'y","value":[1]}]}]}]}}})");
    EXPECT_THAT(run({"list", "i.*"}), prints("METHOD  DOES  SUMMARY\ni.Do          a\\x1b[31m\\x0a|b\n"));
    EXPECT_THAT(run({"describe", "i.Do"}), prints(HasSubstr(R"(tavrixctl call i.Do 'x'\''y:=[1]')")));
    EXPECT_THAT(run({"docs"}), prints(HasSubstr(R"(a\\x1b\[31m\\x0a\|b)")));
}
