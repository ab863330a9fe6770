#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fields.h"
#include "support/tavrixctl.h"
#include "tavrix_validation.h"

using support::ctl;
using support::Finished;
using support::first_line;
using support::read_file;
using support::script;
using support::write_file;

namespace {

constexpr const char *verbs[] = {"",        "call",   "send",      "status",    "top",       "metrics", "wait-service",
                                 "monitor", "replay", "push",      "subscribe", "wait",      "error",   "validate",
                                 "shm",     "db",     "log-level", "help",      "completion"};

} // namespace

TEST(CtlHelp, ExplainsTheToolAndEachVerbWithExamples) {
    for (const char *verb : verbs) {
        std::vector<std::string> words;
        if (verb[0] != '\0') {
            words.emplace_back(verb);
        }
        words.emplace_back("--help");
        const Finished help = ctl(words);
        EXPECT_EQ(help.status, 0) << verb;
        EXPECT_NE(help.output.find("examples:"), std::string::npos) << verb;
        EXPECT_NE(help.output.find("tavrixctl"), std::string::npos) << verb;
        words.back() = "--version";
        const Finished version = ctl(words);
        EXPECT_EQ(version.status, 0) << verb;
        EXPECT_EQ(version.output.rfind("tavrixctl 1.", 0), 0U) << verb << version.output;
    }
}

TEST(CtlError, ExplainsBothNumberings) {
    EXPECT_EQ(ctl({"error", "-35"}).output, "status   -35  Request parameter not found\n"
                                            "json-rpc -32602  Invalid parameter(s)\n");
    EXPECT_EQ(ctl({"error", "35"}).output, ctl({"error", "-35"}).output);
    EXPECT_EQ(ctl({"error", "-32011"}).output, "json-rpc -32011  Insufficient memory error. Please reset the H7.\n"
                                               "status   -21  Data was about to be written to unallocated memory\n");
    EXPECT_EQ(ctl({"error", "-32601"}).output, "json-rpc -32601  Method not found\n");
    EXPECT_EQ(ctl({"error", "-12345"}).status, 2);
}

TEST(CtlValidate, TellsValidFromInvalid) {
    EXPECT_EQ(ctl({"validate", "port_id", "c128-99"}).status, 0);
    const Finished invalid = ctl({"validate", "port_id", "c129-1"});
    EXPECT_EQ(invalid.status, 1);
    EXPECT_EQ(first_line(invalid.output), "does not match the field's pattern");
    EXPECT_EQ(ctl({"validate", "vlan_id", "4093"}).status, 1);
    EXPECT_EQ(ctl({"validate", "onu_id", "-1"}).status, 0);
    EXPECT_EQ(ctl({"validate", "vlan_id", "x"}).status, 2);
    EXPECT_EQ(ctl({"validate", "date_time", "2026-05-01", "13:45"}).status, 0);
    EXPECT_EQ(ctl({"validate", "date_time", "2026-05-01"}).status, 2);
    EXPECT_EQ(ctl({"validate", "no_field", "x"}).status, 2);
}

TEST(CtlValidate, SaysThatAValueCouldNotBeChecked) {
    std::string long_value;
    for (int i = 0; i < 20000; ++i) {
        long_value += "zqn"; // the pattern's engine gives up on it
    }
    const Finished finished = ctl({"validate", "unit_sw_upgrade_filename", long_value});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.diagnostics, "tavrixctl: the value could not be checked\n");
}

TEST(CtlValidate, KnowsEachField) {
    std::map<int, std::string> words = {{TAVRIX_INVALID_NO_MATCH, "does not match the field's pattern"},
                                        {TAVRIX_INVALID_NOT_ALLOWED, "not an allowed value"},
                                        {TAVRIX_INVALID_TOO_LONG, "too long"},
                                        {TAVRIX_INVALID_TOO_SHORT, "too short"},
                                        {TAVRIX_INVALID_OUT_OF_RANGE, "out of range"}};
    std::set<std::string> validated = {"date_time"}; // its values are two
    for (const support::Field &field : support::fields()) {
        if (!field.has_validator()) {
            continue;
        }
        validated.insert(field.name);
        const Finished good = ctl({"validate", field.name, field.valid.front()});
        EXPECT_EQ(good.status, 0) << field.name;
        EXPECT_EQ(good.output, "valid\n") << field.name;
        if (!field.invalid.empty()) {
            const Finished bad = ctl({"validate", field.name, field.invalid});
            EXPECT_EQ(bad.status, 1) << field.name;
            EXPECT_EQ(first_line(bad.output), words[field.verdict]) << field.name;
        }
    }
    EXPECT_EQ(ctl({"validate", "date_time", "2026-05-01", "24:00"}).status, 1);
    const std::string help = ctl({"validate", "--help"}).output;
    std::istringstream named(help.substr(help.find("fields:") + 7));
    EXPECT_EQ((std::set<std::string>{std::istream_iterator<std::string>(named), {}}), validated);
}

TEST(CtlShm, SharesValuesWithAnotherProcess) {
    const std::string name = "/tavrix-test-" + std::to_string(getpid());
    EXPECT_EQ(ctl({"shm", "get", name}).status, 1);
    EXPECT_EQ(ctl({"shm", "set", name, "hello", "--create"}).status, 0);
    EXPECT_EQ(ctl({"shm", "get", name}).output, "hello\n");
    EXPECT_EQ(ctl({"shm", "set", name, "--int", "--create", "42"}).status, 0);
    EXPECT_EQ(ctl({"shm", "get", name, "--int"}).output, "42\n");
    EXPECT_EQ(ctl({"shm", "set", name, "--size", "4", "long"}).status, 2);
    shm_unlink(name.c_str());
}

TEST(CtlShm, ListsAndRemovesSlotsAndNothingElse) {
    const std::string name = "/tavrix-test-list-" + std::to_string(getpid());
    const std::string foreign = "/tavrix-test-foreign-" + std::to_string(getpid());
    write_file("/dev/shm" + foreign, "text");
    ASSERT_EQ(ctl({"shm", "set", name, "one \033[2J", "--create", "--size", "20"}).status, 0);
    const auto line_of = [](const std::string &slot) {
        std::istringstream lines(ctl({"shm", "list"}).output);
        std::string line;
        while (std::getline(lines, line) && line.rfind(slot + " ", 0) != 0) {
        }
        std::istringstream words(line);
        std::string text;
        for (std::string word; words >> word;) {
            text += word + " ";
        }
        return text;
    };
    const std::string text_line = line_of(name);
    EXPECT_EQ(text_line.rfind(name + " 20 ", 0), 0U) << text_line;
    EXPECT_NE(text_line.find(" one \\x1b[2J "), std::string::npos) << text_line;
    ASSERT_EQ(ctl({"shm", "set", name, "--int", "--create", "42"}).status, 0);
    const std::string integer_line = line_of(name);
    EXPECT_EQ(integer_line.rfind(name + " 4 ", 0), 0U) << integer_line;
    EXPECT_EQ(integer_line.substr(integer_line.size() - 4), " 42 ") << integer_line;
    EXPECT_EQ(line_of(foreign), "");
    EXPECT_EQ(ctl({"shm", "rm", foreign}).status, 1) << "it is somebody else's";
    EXPECT_EQ(ctl({"shm", "rm", name}).status, 0);
    EXPECT_EQ(line_of(name), "");
    EXPECT_EQ(ctl({"shm", "rm", name}).status, 1);
    EXPECT_EQ(ctl({"shm", "rm", "/../x"}).status, 1);
    EXPECT_EQ(unlink(("/dev/shm" + foreign).c_str()), 0);
}

class CtlDb : public testing::Test {
  protected:
    void SetUp() override {
        for (const char *file : {"made.db", "other.db"}) {
            unlink(file);
        }
        write_file("schema.sql", "CREATE TABLE units (unit INTEGER PRIMARY KEY, mac TEXT NOT NULL);\n"
                                 "CREATE TABLE ports (unit INTEGER REFERENCES units (unit), port INTEGER);\n"
                                 "PRAGMA user_version = 3;\n");
        write_file("data.sql", "INSERT INTO units VALUES (1, 'a');");
    }

    static Finished init(std::vector<std::string> more) {
        more.insert(more.begin(), {"db", "init", "made.db"});
        return ctl(more);
    }
};

TEST_F(CtlDb, MakesADatabaseAndFindsItGood) {
    const Finished made = init({"--schema", "schema.sql", "--data", "data.sql"});
    EXPECT_EQ(made.status, 0) << made.diagnostics;
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"db", "check", "made.db"}, {"db", "check", "made.db", "--schema", "schema.sql"}}) {
        const Finished good = ctl(words);
        EXPECT_EQ(good.status, 0) << good.diagnostics;
        EXPECT_EQ(good.output, "made.db: good, version 3, tables: ports units\n");
    }
    EXPECT_EQ(init({"--schema", "schema.sql"}).diagnostics, "tavrixctl: made.db: there is one already\n");
}

TEST_F(CtlDb, LeavesNothingOfADatabaseThatCannotBeMade) {
    write_file("wrong.sql", "CREATE TABLE units (unit INTEGER); CREATE NONSENSE;");
    EXPECT_EQ(init({"--schema", "no-such.sql"}).status, 1);
    const Finished wrong = init({"--schema", "wrong.sql"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.diagnostics, "tavrixctl: wrong.sql: near \"NONSENSE\": syntax error\n");
    EXPECT_EQ(init({"--schema", "schema.sql", "--data", "wrong.sql"}).status, 1) << "a second table of the name";
    EXPECT_EQ(script("ls made.db*").output, "");
}

TEST_F(CtlDb, TellsWhatIsWrongWithADatabase) {
    ASSERT_EQ(init({"--schema", "schema.sql"}).status, 0);
    write_file("schema2.sql", "CREATE TABLE units (unit INTEGER PRIMARY KEY); CREATE TABLE more (x);"
                              "CREATE TABLE ports (unit INTEGER REFERENCES units (unit), port INTEGER);");
    const Finished otherwise = ctl({"db", "check", "made.db", "--schema", "schema2.sql"});
    EXPECT_EQ(otherwise.status, 1);
    EXPECT_EQ(otherwise.diagnostics, "tavrixctl: made.db: table more is missing\n"
                                     "tavrixctl: made.db: table units is another one than the schema's\n");
    EXPECT_EQ(otherwise.output, "made.db: not good, version 3, tables: ports units\n");

    write_file("dangling.sql", "INSERT INTO ports VALUES (9, 1);");
    ASSERT_EQ(ctl({"db", "init", "other.db", "--schema", "schema.sql", "--data", "dangling.sql"}).status, 0);
    const Finished dangling = ctl({"db", "check", "other.db"});
    EXPECT_EQ(dangling.status, 1);
    EXPECT_EQ(dangling.diagnostics,
              "tavrixctl: other.db: a row refers to nothing (table, row, refers to, key): ports 1 units 0\n");

    write_file("made.db", "");
    const Finished empty = ctl({"db", "check", "made.db"});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.diagnostics, "tavrixctl: made.db: there are no tables; tavrixctl db init makes them\n");
    write_file("made.db", std::string(5000, 'x'));
    EXPECT_EQ(ctl({"db", "check", "made.db"}).diagnostics, "tavrixctl: made.db: file is not a database\n");
    EXPECT_EQ(ctl({"db", "check", "no-such.db"}).status, 1);
    EXPECT_EQ(script("ls no-such.db").output, "") << "a check makes none";
}

TEST(CtlLogLevel, EditsTheFileAndKeepsTheRest) {
    const auto edited = [](const std::string &before, const std::string &daemon) {
        write_file("levels.conf", before);
        EXPECT_EQ(ctl({"log-level", daemon, "debug", "--file", "levels.conf", "--no-reload"}).status, 0);
        return read_file("levels.conf");
    };
    EXPECT_EQ(edited("", "a"), "[logging_levels]\na=debug\n");
    EXPECT_EQ(edited("[logging_levels]\na=info\n", "a"), "[logging_levels]\na=debug\n");
    EXPECT_EQ(edited("# c\n[x]\na=1\n[logging_levels]\nb=info\n[y]\na=2\n", "a"),
              "# c\n[x]\na=1\n[logging_levels]\nb=info\na=debug\n[y]\na=2\n");
    EXPECT_EQ(edited("[logging_levels]\na=info", "a"), "[logging_levels]\na=debug\n") << "its last line counts now";
    EXPECT_EQ(ctl({"log-level", "a", "error", "--file", "levels.conf"}).status, 2) << "no word of the file";
    EXPECT_EQ(ctl({"log-level", "a=b", "debug", "--file", "levels.conf"}).status, 2);
}

TEST(CtlLogLevel, KeepsTheFilesOwnerPermissionsAndLinks) {
    write_file("real.conf", "[logging_levels]\na=info\n");
    ASSERT_EQ(chmod("real.conf", 0640), 0);
    // Only root may give a file away; anybody else keeps his own.
    const uid_t owner = geteuid() == 0 ? 12345 : geteuid();
    const gid_t group = geteuid() == 0 ? 23456 : getegid();
    ASSERT_EQ(chown("real.conf", owner, group), 0);
    ASSERT_EQ(symlink("real.conf", "link.conf"), 0);
    EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "link.conf", "--no-reload"}).status, 0);
    EXPECT_EQ(read_file("real.conf"), "[logging_levels]\na=debug\n");
    struct stat state {};
    ASSERT_EQ(lstat("link.conf", &state), 0);
    EXPECT_TRUE(S_ISLNK(state.st_mode));
    ASSERT_EQ(stat("real.conf", &state), 0);
    EXPECT_EQ(state.st_mode & 07777, 0640U);
    EXPECT_EQ(state.st_uid, owner);
    EXPECT_EQ(state.st_gid, group);
}

TEST(CtlLogLevel, LeavesAloneWhatItCannotRead) {
    ASSERT_EQ(symlink("loop.conf", "loop.conf"), 0);
    const Finished finished = ctl({"log-level", "a", "debug", "--file", "loop.conf", "--no-reload"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.diagnostics, "tavrixctl: loop.conf: Too many levels of symbolic links\n");
    struct stat state {};
    ASSERT_EQ(lstat("loop.conf", &state), 0);
    EXPECT_TRUE(S_ISLNK(state.st_mode));
    EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "new.conf", "--no-reload"}).status, 0);
    EXPECT_EQ(read_file("new.conf"), "[logging_levels]\na=debug\n") << "a file that does not exist is made";
    EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "no-folder/x.conf", "--no-reload"}).status, 1);
}

TEST(CtlManPage, IsWellFormed) {
    const Finished lint = script("mandoc -T lint -W style " TAVRIX_SOURCE_DIR "/tools/tavrixctl.1");
    EXPECT_EQ(lint.status, 0);
    EXPECT_EQ(lint.output + lint.diagnostics, "");
}

TEST(CtlManPage, NamesEachVerbAndOption) {
    const std::string page = read_file(TAVRIX_SOURCE_DIR "/tools/tavrixctl.1");
    for (const char *verb : verbs) {
        const std::string deeper = verb == std::string("shm")  ? "tavrixctl shm get --help; tavrixctl shm set --help; "
                                                                 "tavrixctl shm list --help; tavrixctl shm rm --help;"
                                   : verb == std::string("db") ? "tavrixctl db check --help; tavrixctl db init --help;"

                                                               : "";
        std::istringstream lines(script(deeper + "tavrixctl " + verb + " --help").output);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("  --", 0) == 0) {
                const std::string option = line.substr(3, line.find_first_of(" {", 3) - 3);
                EXPECT_NE(page.find("Fl " + option), std::string::npos) << verb << " " << option;
            }
        }
        EXPECT_NE(page.find(std::string(".Cm ") + verb), std::string::npos) << verb;
    }
}

TEST(DaemonManPages, AreWellFormedAndNameEachOption) {
    const struct {
        const char *program;
        const char *page;
    } rows[] = {
        {TAVRIX_ROUTERD, TAVRIX_SOURCE_DIR "/daemons/router/tavrix-routerd.8"},
        {TAVRIX_PORTSD, TAVRIX_SOURCE_DIR "/daemons/ports/tavrix-portsd.8"},
        {TAVRIX_EVENTSD, TAVRIX_SOURCE_DIR "/daemons/events/tavrix-eventsd.8"},
    };
    for (const auto &row : rows) {
        // Not the style of references: the other pages are found when they are installed.
        const Finished lint = script(std::string("mandoc -T lint -W warning ") + row.page);
        EXPECT_EQ(lint.status, 0);
        EXPECT_EQ(lint.output + lint.diagnostics, "");
        const std::string page = read_file(row.page);
        std::istringstream lines(support::run({row.program, "--help"}).output);
        int found = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("  --", 0) == 0) {
                const std::string option = line.substr(3, line.find(' ', 3) - 3);
                EXPECT_NE(page.find("Fl " + option), std::string::npos) << row.program << " " << option;
                ++found;
            }
        }
        EXPECT_GT(found, 3) << row.program;
    }
}
