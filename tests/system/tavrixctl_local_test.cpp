#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fields.h"
#include "support/mutation.h"
#include "support/system_test.h"
#include "tavrix_validation.h"

using namespace support;
using namespace testing;

namespace {

/** Expects each option of a help on a manual page; how many there are. */
int expect_options_on(const std::string &page, const std::string &help) {
    int found = 0;
    for (const std::string &line : lines_of(help)) {
        if (line.rfind("  --", 0) == 0) {
            EXPECT_THAT(page, HasSubstr("Fl " + line.substr(3, line.find_first_of(" {", 3) - 3)));
            ++found;
        }
    }
    return found;
}

} // namespace

TEST(CtlError, ExplainsBothNumberings) {
    EXPECT_EQ(ctl({"error", "-35"}).output, "status   -35  Request parameter not found\n"
                                            "json-rpc -32602  Invalid parameter(s)\n");
    EXPECT_EQ(ctl({"error", "35"}).output, ctl({"error", "-35"}).output);
    EXPECT_EQ(ctl({"error", "-32011"}).output, "json-rpc -32011  Insufficient memory error. Please reset the H7.\n"
                                               "status   -21  Data was about to be written to unallocated memory\n");
    EXPECT_EQ(ctl({"error", "-32601"}).output, "json-rpc -32601  Method not found\n");
    EXPECT_EQ(ctl({"error", "-12345"}).status, 2);
}

TEST(CtlValidate, TellsValidFromInvalidAndFromWrongUsage) {
    const std::pair<std::vector<std::string>, int> rows[] = {
        {{"vlan_id", "x"}, 2},
        {{"no_field", "x"}, 2},
        {{"date_time", "2026-05-01"}, 2},
        {{"date_time", "2026-05-01", "13:45"}, 0},
        {{"date_time", "2026-05-01", "24:00"}, 1},
    };
    for (const auto &[row, status] : rows) {
        EXPECT_EQ(ctl({"validate"}, row).status, status) << row[0] << row[1];
    }
}

TEST(CtlValidate, SaysThatAValueCouldNotBeChecked) {
    EXPECT_THAT(ctl({"validate", "unit_sw_upgrade_filename", repeated("zqn", 60000)}), // the pattern's engine gives up
                fails(1, "tavrixctl: the value could not be checked\n"));
}

TEST(CtlValidate, KnowsEachField) {
    std::map<int, std::string> words = {{TAVRIX_INVALID_NO_MATCH, "does not match the field's pattern"},
                                        {TAVRIX_INVALID_NOT_ALLOWED, "not an allowed value"},
                                        {TAVRIX_INVALID_TOO_LONG, "too long"},
                                        {TAVRIX_INVALID_TOO_SHORT, "too short"},
                                        {TAVRIX_INVALID_OUT_OF_RANGE, "out of range"}};
    std::set<std::string> validated = {"date_time"}; // its values are two
    for (const auto &field : fields()) {
        if (!field.has_validator()) {
            continue;
        }
        validated.insert(field.name);
        EXPECT_THAT(ctl({"validate", field.name, field.valid.front()}), prints("valid\n")) << field.name;
        if (!field.invalid.empty()) {
            EXPECT_THAT(ctl({"validate", field.name, field.invalid}), ends(1, StartsWith(words[field.verdict] + "\n")))
                << field.name;
        }
    }
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
    EXPECT_THAT(ctl({"shm", "list"}).output, ContainsRegex(name + R"( +20 .* one \\x1b\[2J)"));
    ASSERT_EQ(ctl({"shm", "set", name, "--int", "--create", "42"}).status, 0);
    EXPECT_THAT(ctl({"shm", "list"}).output, AllOf(ContainsRegex(name + " +4 .* 42\n"), Not(HasSubstr(foreign))));
    EXPECT_EQ(ctl({"shm", "rm", foreign}).status, 1) << "it is somebody else's";
    EXPECT_EQ(ctl({"shm", "rm", name}).status, 0);
    EXPECT_THAT(ctl({"shm", "list"}).output, Not(HasSubstr(name)));
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

    static Finished init(const std::vector<std::string> &more) { return ctl({"db", "init", "made.db"}, more); }
};

TEST_F(CtlDb, MakesADatabaseAndFindsItGood) {
    EXPECT_EQ(init({"--schema", "schema.sql", "--data", "data.sql"}).status, 0);
    for (const char *more : {"", " --schema schema.sql"}) {
        EXPECT_THAT(script(std::string("tavrixctl db check made.db") + more),
                    prints("made.db: good, version 3, tables: ports units\n"));
    }
    EXPECT_EQ(init({"--schema", "schema.sql"}).diagnostics, "tavrixctl: made.db: there is one already\n");
}

TEST_F(CtlDb, LeavesNothingOfADatabaseThatCannotBeMade) {
    write_file("wrong.sql", "CREATE TABLE units (unit INTEGER); CREATE NONSENSE;");
    EXPECT_EQ(init({"--schema", "no-such.sql"}).status, 1);
    EXPECT_THAT(init({"--schema", "wrong.sql"}), fails(1, "tavrixctl: wrong.sql: near \"NONSENSE\": syntax error\n"));
    EXPECT_EQ(init({"--schema", "schema.sql", "--data", "wrong.sql"}).status, 1) << "a second table of the name";
    EXPECT_EQ(script("ls made.db*").output, "");
}

TEST_F(CtlDb, TellsWhatIsWrongWithADatabase) {
    ASSERT_EQ(init({"--schema", "schema.sql"}).status, 0);
    write_file("schema2.sql", "CREATE TABLE units (unit INTEGER PRIMARY KEY); CREATE TABLE more (x);"
                              "CREATE TABLE ports (unit INTEGER REFERENCES units (unit), port INTEGER);");
    EXPECT_THAT(ctl({"db", "check", "made.db", "--schema", "schema2.sql"}),
                ends(1, "made.db: not good, version 3, tables: ports units\n",
                     "tavrixctl: made.db: table more is missing\n"
                     "tavrixctl: made.db: table units is another one than the schema's\n"));
    write_file("dangling.sql", "INSERT INTO ports VALUES (9, 1);");
    ASSERT_EQ(ctl({"db", "init", "other.db", "--schema", "schema.sql", "--data", "dangling.sql"}).status, 0);
    const auto not_good = [](const std::string &file, const std::string &problem) {
        EXPECT_THAT(ctl({"db", "check", file}), ends(1, _, "tavrixctl: " + file + ": " + problem + "\n"));
    };
    not_good("other.db", "a row refers to nothing (table, row, refers to, key): ports 1 units 0");
    write_file("made.db", "");
    not_good("made.db", "there are no tables; tavrixctl db init makes them");
    write_file("made.db", std::string(5000, 'x'));
    not_good("made.db", "file is not a database");
    EXPECT_EQ(ctl({"db", "check", "no-such.db"}).status, 1);
    EXPECT_EQ(script("ls no-such.db").output, "") << "a check makes none";
}

TEST(CtlLogLevel, EditsTheFileAndKeepsTheRest) {
    const std::pair<const char *, const char *> rows[] = {
        {"", "[logging_levels]\na=debug\n"},
        {"[logging_levels]\na=info\n", "[logging_levels]\na=debug\n"},
        {"# c\n[x]\na=1\n[logging_levels]\nb=info\n[y]\na=2\n",
         "# c\n[x]\na=1\n[logging_levels]\nb=info\na=debug\n[y]\na=2\n"},
        {"[logging_levels]\na=info", "[logging_levels]\na=debug\n"}, // its last line counts now
    };
    for (const auto &[before, edited] : rows) {
        write_file("levels.conf", before);
        EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "levels.conf", "--no-reload"}).status, 0);
        EXPECT_EQ(read_file("levels.conf"), edited);
    }
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
    EXPECT_TRUE(std::filesystem::is_symlink("link.conf"));
    struct stat state {};
    ASSERT_EQ(stat("real.conf", &state), 0);
    EXPECT_EQ(state.st_mode & 07777, 0640U);
    EXPECT_EQ(state.st_uid, owner);
    EXPECT_EQ(state.st_gid, group);
}

TEST(CtlLogLevel, LeavesAloneWhatItCannotRead) {
    ASSERT_EQ(symlink("loop.conf", "loop.conf"), 0);
    EXPECT_THAT(ctl({"log-level", "a", "debug", "--file", "loop.conf", "--no-reload"}),
                fails(1, "tavrixctl: loop.conf: Too many levels of symbolic links\n"));
    EXPECT_TRUE(std::filesystem::is_symlink("loop.conf"));
    EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "new.conf", "--no-reload"}).status, 0);
    EXPECT_EQ(read_file("new.conf"), "[logging_levels]\na=debug\n") << "a file that does not exist is made";
    EXPECT_EQ(ctl({"log-level", "a", "debug", "--file", "no-folder/x.conf", "--no-reload"}).status, 1);
}

TEST(CtlManPage, NamesEachVerbAndOption) {
    const std::string page = read_file(TAVRIX_SOURCE_DIR "/tools/tavrixctl.1");
    EXPECT_THAT(script("mandoc -T lint -W style " TAVRIX_SOURCE_DIR "/tools/tavrixctl.1"), prints(""));
    for (const std::string &verb : verbs()) {
        EXPECT_THAT(page, HasSubstr(".Cm " + verb));
        expect_options_on(page, script("tavrixctl " + verb + " --help").output);
    }
    for (const std::string verb : {"shm get", "shm set", "shm list", "shm rm", "db check", "db init"}) {
        expect_options_on(page, script("tavrixctl " + verb + " --help").output);
    }
}

TEST(DaemonManPages, AreWellFormedAndNameEachOption) {
    const std::pair<const char *, std::string> rows[] = {
        {TAVRIX_ROUTERD, TAVRIX_SOURCE_DIR "/daemons/router/tavrix-routerd.8"},
        {TAVRIX_PORTSD, TAVRIX_SOURCE_DIR "/daemons/ports/tavrix-portsd.8"},
        {TAVRIX_EVENTSD, TAVRIX_SOURCE_DIR "/daemons/events/tavrix-eventsd.8"},
    };
    for (const auto &[program, page] : rows) {
        // Not the style of references: the other pages are found when they are installed.
        EXPECT_THAT(script("mandoc -T lint -W warning " + page), prints(""));
        EXPECT_GT(expect_options_on(read_file(page), run({program, "--help"}).output), 3) << program;
    }
}
