/*
 * What bash and zsh offer for a line of tavrixctl: what the tool knows, and what the running system knows.
 */
#include <regex>

#include <sys/socket.h>

#include "support/mutation.h"
#include "support/played_server.h"
#include "support/system_test.h"
#include "tavrix_jrpc.h"

using namespace support;
using namespace testing;

namespace {

/** A line as bash breaks it up: at blanks, and at '=' and ':', which are pieces of their own; not within quotes. */
std::vector<std::string> pieces_of(const std::string &line) {
    static const std::regex piece(R"re(('[^']*'?|"(\\.|[^"\\])*"?|\\.|[^ =:'"\\])+|[=:]+)re");
    std::vector<std::string> pieces(std::sregex_token_iterator(line.begin(), line.end(), piece), {});
    if (line.back() == ' ') {
        pieces.emplace_back();
    }
    return pieces;
}

std::string quoted(const std::string &text) { return "'" + replaced(text, "'", "'\\''") + "'"; }

/** What the function leaves to bash in place of the line's last piece, of a line that may go on behind the cursor. */
std::string completed(const std::string &line, const std::string &behind = "",
                      const std::vector<std::string> &pieces = {}) {
    std::string words;
    const std::vector<std::string> broken = pieces.empty() ? pieces_of(line) : pieces;
    for (const std::string &piece : broken) {
        words += " " + quoted(piece + (&piece == &broken.back() ? behind : ""));
    }
    const Finished finished =
        script("export TAVRIX_SESSION=session.sock\n"
               "source <(tavrixctl completion bash)\n"
               "COMP_WORDS=(" +
               words + ")\nCOMP_CWORD=" + std::to_string(broken.size() - 1) + "\nCOMP_LINE=" + quoted(line + behind) +
               "\nCOMP_POINT=" + std::to_string(line.size()) +
               "\n_tavrixctl tavrixctl\nfor offer in \"${COMPREPLY[@]}\"; do printf '%s|' \"$offer\"; done");
    EXPECT_EQ(finished.diagnostics, "");
    return finished.output;
}

struct Row {
    const char *line;
    const char *offered;
};

/** On a slow machine the answer of a running system may come too late for a key that was pressed: pressed once more. */
void expect_offers(const std::vector<Row> &rows) {
    for (const Row &row : rows) {
        std::string offered;
        wait_until([&] { return (offered = completed(row.line)) == row.offered; });
        EXPECT_EQ(offered, row.offered) << row.line;
    }
}

/** A router, and a service with a method whose parameters are of many kinds, and foreign. */
class CtlCompletionOfForeignWords : public LoneRouter {
  protected:
    void describe(const std::string &params) {
        const std::string answer = service.ask(
            R"({"jsonrpc":"2.0","method":"router.Describe","id":1,"params":{"document":{"methods":[{"name":"i.Do",)"
            R"("params":)" +
            params + R"(,"result":{}}]}}})");
        EXPECT_THAT(answer, HasSubstr("\"result\":0"));
    }

    DirectService service{{"played", TAVRIX_CHANNEL_INTERFACES, "[]", R"(["i.Do"])", "true"}};
};

class CtlCompletionOfPorts : public LoneRouter {
  protected:
    CtlCompletionOfPorts() { fleet.start_ports(); }
};

} // namespace

TEST(CtlCompletion, OffersInBashWhatTheToolKnows) {
    const std::vector<Row> rows = {
        {"tavrixctl mon", "monitor|"},
        {"tavrixctl help mon", "monitor|"},
        {"tavrixctl status --se", "--session|"},
        {"tavrixctl top --interval 1 --cou", "--count|"},
        {"tavrixctl shm g", "get|"},
        {"tavrixctl shm ", "get|set|list|rm|"},
        {"tavrixctl shm -", "--help|--version|"},
        {"tavrixctl metrics --ti", "--timeout|"},
        {"tavrixctl completion ", "bash|zsh|"},
        {"tavrixctl completion z", "zsh|"},
        {"tavrixctl validate vlan_n", "vlan_name_id|"},
        {"tavrixctl validate vlan_id v", ""},
        {"tavrixctl log-level portsd v", "verbose|"},
        {"tavrixctl log-level portsd ", "off|info|debug|verbose|"},
        {"tavrixctl log-level --file f portsd v", "verbose|"},
        {"tavrixctl log-level --file=f portsd v", "verbose|"},
        {"tavrixctl log-level --tcp localhost:7100 portsd v", "verbose|"},
        {"tavrixctl log-level --no-reload portsd v", "verbose|"},
        {"tavrixctl log-level --file ", ""},
        {"tavrixctl call --tim", "--timeout|"},
        {"tavrixctl call --json ", "pretty|short|"},
        {"tavrixctl call --json=", "pretty|short|"},
        {"tavrixctl call --json=p", "pretty|"},
        {"tavrixctl docs --format m", "markdown|"},
        {"tavrixctl monitor --json l", "lines|"},
        {"tavrixctl monitor --channel ", "first|events|interfaces|default|replies|"},
        {"tavrixctl monitor --channel=re", "replies|"},
        {"tavrixctl call m - --tim", "--timeout|"},
        {"tavrixctl nonsense mon", "monitor|"},
        {"tavrixctl  mo", "monitor|"},
        {"  tavrixctl mo", "monitor|"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(completed(row.line), row.offered) << row.line;
    }
}

TEST(CtlCompletion, LeavesOutWhatStandsBehindTheCursor) {
    EXPECT_EQ(completed("tavrixctl shm g", "abc"), "get|");
    EXPECT_EQ(completed("tavrixctl call --json=p", "x"), "pretty|");
    EXPECT_EQ(completed("tavrixctl call --json=p", "", {"tavrixctl", "call", "--json=p"}), "--json=pretty|");
}

TEST_F(CtlCompletionOfPorts, OffersTheMethodsThatCanBeCalled) {
    expect_offers({
        {"tavrixctl call ports.SetV", "ports.SetVlanAccess|ports.SetVlanLocal|ports.SetVlanTrunk|"},
        {"tavrixctl call --timeout 3 mz", "mzu.List|mzu.Register|"},
        {"tavrixctl describe mzu.L", "mzu.List|"},
        {"tavrixctl describe mzu.List m", ""},
        {"tavrixctl list mzu.R", "mzu.Register|"},
        {"tavrixctl call no.", ""},
    });
}

TEST_F(CtlCompletionOfPorts, OffersTheParametersThatAreMissingAndTheirWords) {
    expect_offers({
        {"tavrixctl call ports.SetEnabled ", "port_id=|status=|"},
        {"tavrixctl call ports.SetEnabled st", "status=|"},
        {"tavrixctl call ports.SetEnabled port_id=c1-1 ", "status=|"},
        {"tavrixctl call ports.SetEnabled port_id= ", "status=|"},
        {R"(tavrixctl call ports.SetEnabled '{"port_id":"c1-1"}' )", "status=|"},
        {"tavrixctl call ports.SetEnabled status=", "enable|disable|"},
        {"tavrixctl call ports.SetEnabled status=d", "disable|"},
        {"tavrixctl call ports.SetEnabled port_id=c1-1 status=d", "disable|"},
        {"tavrixctl call ports.SetEnabled status:=", ""},
        {"tavrixctl call ports.SetEnabled port_id=", ""},
        {"tavrixctl call ports.SetVlanAccess v", "vlan_id:=|"},
        {"tavrixctl call mzu.Register mac=00:1A:2B:3C:4D:5E mz", "mzu_id=|"},
        {"tavrixctl call mzu.Register model=G", "Generic\\ MZU|"},
        {"tavrixctl call mzu.Register model=Generic\\ M", "Generic\\ MZU|"},
        {"tavrixctl call mzu.Register model=\"Generic M", "Generic MZU|"},
        {"tavrixctl call mzu.Register 'model=Generic M", "model=Generic MZU|"},
        {"tavrixctl call no.Method x", ""},
    });
}

TEST_F(CtlCompletionOfPorts, OffersServicesAndDaemons) {
    write_file("levels.conf", "[logging_levels]\nportsd=info\ntool=off\n\x1b[31m=off\n");
    expect_offers({
        {"tavrixctl wait-service ", "portsd|"},
        {"tavrixctl wait-service portsd p", ""},
        {"tavrixctl monitor --service p", "portsd|"},
        {"tavrixctl monitor --service=p", "portsd|"},
        {"tavrixctl log-level --file levels.conf ", "portsd|routerd|tool|"},
        {"tavrixctl log-level --file=levels.conf p", "portsd|"},
    });
}

TEST_F(CtlCompletionOfPorts, AsksTheRouterThatTheLineNames) {
    ASSERT_EQ(rename("session.sock", "elsewhere.sock"), 0);
    expect_offers({
        {"tavrixctl call mzu.L", ""},
        {"tavrixctl call --session elsewhere.sock mzu.L", "mzu.List|"},
        {"tavrixctl call --session=elsewhere.sock mzu.L", "mzu.List|"},
        {"tavrixctl call --socket router.sock mzu.L", "mzu.List|"},
        {"tavrixctl call --session elsewhere.sock --direct events.sock mzu.L", ""},
        {"tavrixctl call --tcp localhost:1 mzu.L", ""},
    });
}

TEST_F(CtlCompletionOfForeignWords, OffersWhatTheDeclaredSchemasNeed) {
    describe(R"([{"name":"note","schema":{"type":"string"}},{"name":"any","schema":{}},)"
             R"({"name":"on","required":true,"schema":{"type":"boolean"}},)"
             R"({"name":"level","required":true,"schema":{"enum":[1,2.5,"auto",null]}},)"
             R"({"name":"maybe","schema":{"type":["string","null"]}},)"
             R"({"name":"list","schema":{"type":"array"}}])");
    expect_offers({
        {"tavrixctl call i.Do ", "on:=|level=|note=|any=|maybe=|list:=|"},
        {"tavrixctl call i.Do on:=true level=auto a", "any=|"},
        {"tavrixctl call i.Do on:=", "true|false|"},
        {"tavrixctl call i.Do on:=f", "false|"},
        {"tavrixctl call i.Do on=", ""},
        {"tavrixctl call i.Do level=", "auto|"},
        {"tavrixctl call i.Do level:=", "1|2.5|null|"},
        {"tavrixctl call i.Do list:=", ""},
    });
}

TEST_F(CtlCompletionOfForeignWords, OffersNothingThatSteersATerminalOrAShell) {
    describe(R"([7,{"name":"x\u001b[31m"},{"name":"a\nb"},{"name":"-x"},{"name":"@f"},{"name":"a=b"},{"name":"a:"},)"
             R"({"name":"\u00e4"},{"name":""},{"name":"good","schema":7},{"name":")" +
             std::string(300, 'n') +
             R"("},{"name":"word","schema":{"type":"string",)"
             R"json("enum":["","o\u001b[2J","o\nn","\u009b","$(x)","*","it's",7]}}])json");
    expect_offers({
        {"tavrixctl call i.Do ", "good=|word=|"},
        {"tavrixctl call i.Do word=", R"(\$\(x\)|\*|it\'s|)"},
        {"tavrixctl call i.Do word=\"", "*|"},
    });
    const Finished plain = ctl({"__complete", "call", "--session", "session.sock", "i.Do", "word="});
    EXPECT_THAT(plain.output, Not(HasSubstr("\x1b")));
}

TEST_F(CtlCompletionOfForeignWords, OffersNoMoreThanAPersonCanTake) {
    const std::string words = array_of(1200, [](size_t i) { return "\"w" + std::to_string(i) + '"'; });
    describe(R"([{"name":"word","schema":{"type":"string","enum":)" + words + "}}]");
    size_t offered = 0;
    wait_until([&] {
        offered = lines_of(ctl({"__complete", "call", "--session", "session.sock", "i.Do", "word="}).output).size();
        return offered > 0;
    });
    EXPECT_EQ(offered, 1000U);
}

TEST(CtlCompletion, OffersNothingWithoutARouterAndSaysNothing) {
    for (const char *line : {"tavrixctl call p", "tavrixctl call ports.Get p", "tavrixctl call ports.Get port_id=",
                             "tavrixctl wait-service p", "tavrixctl monitor --service p"}) {
        EXPECT_EQ(completed(line), "") << line;
    }
    for (const std::string &path : {std::string("nobody.sock"), std::string(200, 'x')}) {
        EXPECT_THAT(ctl({"__complete", "call", "--session", path, "p"}), prints(""));
    }
    write_file("levels.conf", "[logging_levels]\ntool=off\n");
    EXPECT_EQ(completed("tavrixctl log-level --file levels.conf t"), "tool|") << "the file is there";
}

TEST(CtlCompletion, IsNotHeldUpByARouterThatDoesNotAnswer) {
    for (const std::string text : {"", "x", "nonsense\n", "{\"method\":\"a.B\"}\n"}) {
        const std::string flood = text.empty() ? "" : repeated(text, 65536);
        const PlayedServer impostor([&flood](const StreamClient &client) {
            char request[1024];
            ssize_t done = recv(client.fd(), request, sizeof request, 0);
            while (done > 0) { // until the client has had enough
                done = flood.empty() ? recv(client.fd(), request, sizeof request, 0)
                                     : send(client.fd(), flood.data(), flood.size(), MSG_NOSIGNAL);
            }
        });
        for (const char *road : {"--session", "--socket"}) {
            EXPECT_THAT(ctl({"__complete", "call", road, "played.sock", "p"}), prints("")) << road << " " << text;
        }
    }
}

/** What a zsh on a terminal of its own makes of the line when Tab is pressed. */
std::string completed_by_zsh(const std::string &line) {
    write_file("type.zsh", R"zsh(
        zmodload zsh/zpty
        zpty shell zsh -f -i
        zpty -w shell "autoload -Uz compinit; compinit -u -D; source tool; source <(tavrixctl completion zsh)"
        zpty -w shell 'show() { zle complete-word; print -rn -- "$BUFFER" >line; exit; }; zle -N show; bindkey "^I" show'
        zpty -w shell 'print rea""dy'
        zpty -r -m shell output '*ready*'
        zpty -w -n shell "$1"$'\t'
        while zpty -r shell output; do done
    )zsh");
    const Finished finished = script(
        "export TERM=dumb TAVRIX_SESSION=session.sock\nrm -f line\ndeclare -f tavrixctl >tool\nzsh -f type.zsh " +
        quoted(line) + "\ncat line");
    EXPECT_EQ(finished.diagnostics, "");
    return finished.output;
}

TEST_F(CtlCompletionOfPorts, CompletesALineInZsh) {
    const std::pair<const char *, const char *> rows[] = {
        {"tavrixctl sta", "tavrixctl status "},
        {"tavrixctl call --dir", "tavrixctl call --direct "},
        {"tavrixctl call ports.SetE", "tavrixctl call ports.SetEnabled "},
        {"tavrixctl call ports.SetEnabled por", "tavrixctl call ports.SetEnabled port_id="},
        {"tavrixctl call ports.SetEnabled status=en", "tavrixctl call ports.SetEnabled status=enable "},
    };
    for (const auto &[typed, line] : rows) {
        EXPECT_EQ(completed_by_zsh(typed), line);
    }
}

TEST(CtlCompletion, HasAScriptForEachShellThatIsWhatIsInstalled) {
    EXPECT_THAT(ctl({"completion", "zsh"}).output,
                AllOf(StartsWith("#compdef tavrixctl\n"), HasSubstr("$(tavrixctl __complete "),
                      HasSubstr("compdef _tavrixctl tavrixctl\n"),
                      Eq(read_file(TAVRIX_SOURCE_DIR "/tools/_tavrixctl"))));
    EXPECT_EQ(ctl({"completion", "bash"}).output, read_file(TAVRIX_SOURCE_DIR "/tools/completion.bash"));
    EXPECT_EQ(script("source <(tavrixctl completion bash); complete -p tavrixctl").output,
              "complete -o default -o nosort -F _tavrixctl tavrixctl\n");
    EXPECT_EQ(ctl({"completion", "fish"}).status, 2);
}
