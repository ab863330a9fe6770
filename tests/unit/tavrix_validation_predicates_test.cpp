/*
 * Every pattern beside a rule written by hand: exhaustive where the field is small, seeded values where it is not.
 */
#include "tavrix_validation.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/fields.h"
#include "support/log_capture.h"
#include "support/mutation.h"

using namespace support;

namespace {

// --- Rules written by hand -----------------------------------------------------------------------------------------

bool all(const std::string &text, bool (*fits)(char)) { return std::all_of(text.begin(), text.end(), fits); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_alnum(char c) { return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

/** A number of up to so many digits within a range; a leading zero is one of them. */
bool is_padded_number(const std::string &text, size_t digits, int low, int high) {
    return !text.empty() && text.size() <= digits && all(text, is_digit) && std::stoi(text) >= low &&
           std::stoi(text) <= high;
}

/** A number without leading zeros within a range. */
bool is_number(const std::string &text, int low, int high) {
    return is_padded_number(text, 4, low, high) && (text.size() == 1 || text[0] != '0');
}

bool is_c_port(const std::string &text) {
    const size_t dash = text.find('-');
    return dash != std::string::npos && (text[0] == 'c' || text[0] == 'C') &&
           is_number(text.substr(1, dash - 1), 1, 128) && is_number(text.substr(dash + 1), 1, 99);
}

bool is_d_port(const std::string &text) {
    return text.size() == 2 && (text[0] == 'd' || text[0] == 'D') && text[1] >= '1' && text[1] <= '4';
}

bool is_mzu(const std::string &text) {
    return !text.empty() && (text[0] == 'c' || text[0] == 'C') && is_number(text.substr(1), 1, 128);
}

bool is_vlan_name(const std::string &text) {
    return !text.empty() && text[0] == 'v' && is_number(text.substr(1), 1, 4092);
}

bool is_single_line(const std::string &text) { return text.find('\n') == std::string::npos; }

bool is_date(const std::string &text) {
    const size_t second = text.size() > 5 ? text.find('-', 5) : std::string::npos;
    return second != std::string::npos && text[0] == '2' && all(text.substr(0, 4), is_digit) && text[4] == '-' &&
           is_padded_number(text.substr(5, second - 5), 2, 1, 12) &&
           is_padded_number(text.substr(second + 1), 2, 1, 31);
}

bool is_time(const std::string &text) {
    return text.size() == 5 && text[2] == ':' && is_padded_number(text.substr(0, 2), 2, 0, 23) &&
           is_padded_number(text.substr(3), 2, 0, 59);
}

/** Whether a text has the form of another, in which an x is a hexadecimal digit and all else stands for itself. */
bool is_shaped(const std::string &text, const std::string &shape) {
    return text.size() == shape.size() && std::equal(text.begin(), text.end(), shape.begin(), [](char c, char wanted) {
               return wanted == 'x' ? is_hex(c) : c == wanted;
           });
}

bool is_uuid(const std::string &text) { return is_shaped(text, "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx"); }

bool is_ip(const std::string &text) {
    std::istringstream parts(text + ".");
    int count = 0;
    for (std::string part; std::getline(parts, part, '.'); ++count) {
        if (!is_number(part, 0, 255)) {
            return false;
        }
    }
    return count == 4;
}

bool is_mac(const std::string &text) {
    return is_shaped(text, "xx:xx:xx:xx:xx:xx") || is_shaped(text, "xx-xx-xx-xx-xx-xx");
}

bool is_description(const std::string &text) { return text.find('"') == std::string::npos; }

bool is_password(const std::string &text) {
    return text.size() >= 4 && text.size() <= 15 &&
           all(text, [](char c) { return is_alnum(c) || std::string("!?_@-").find(c) != std::string::npos; });
}

bool is_username(const std::string &text) { return text.size() >= 4 && text.size() <= 15 && all(text, is_alnum); }

bool is_port(const std::string &text) { return is_c_port(text) || is_d_port(text); }

/** Whether a version such as 1.2.3-004, with any characters between the digits, stands at a place. */
bool version_at(const std::string &line, size_t at) {
    return line.size() >= at + 9 && is_digit(line[at]) && is_digit(line[at + 2]) && is_digit(line[at + 4]) &&
           line[at + 5] == '-' && is_digit(line[at + 6]) && is_digit(line[at + 7]) && is_digit(line[at + 8]);
}

/** The word and a version behind it, both on the first line. */
bool is_unit_file(const std::string &text) {
    const std::string line = text.substr(0, text.find('\n'));
    size_t at = line.find("zqn");
    while (at < line.size() && !version_at(line, at + 3)) {
        ++at;
    }
    return at < line.size();
}

/** The accounts that a name which passes the pattern could still be. */
bool is_reserved(const std::string &text) {
    static const std::set<std::string> names = {"root",     "daemon",    "sync", "mail",   "proxy", "backup",
                                                "operator", "haldaemon", "dbus", "nobody", "sshd"};
    return names.count(text) > 0;
}

// --- Fields --------------------------------------------------------------------------------------------------------

const std::map<std::string, bool (*)(const std::string &)> rules = {
    {"port_id", is_port},
    {"c_port_id", is_c_port},
    {"d_port_id", is_d_port},
    {"vlan_name_id", is_vlan_name},
    {"mzu_id", is_mzu},
    {"mzu_sw_upgrade_filename", is_single_line},
    {"unit_sw_upgrade_filename", is_unit_file},
    {"date", is_date},
    {"time", is_time},
    {"uuid", is_uuid},
    {"ip_address", is_ip},
    {"mac_address", is_mac},
    {"description", is_description},
    {"password", is_password},
    {"username", is_username},
};

/** A final newline is let through, as the patterns' end anchor does. */
std::string without_final_newline(const std::string &text) {
    return text.empty() || text.back() != '\n' ? text : text.substr(0, text.size() - 1);
}

int expected(const Field &field, const std::string &value) {
    if (const int verdict = field.judge_length(value);
        verdict != TAVRIX_VALID || !rules.at(field.name)(without_final_newline(value))) {
        return verdict != TAVRIX_VALID ? verdict : TAVRIX_INVALID_NO_MATCH;
    }
    return field.validate == validate_username && is_reserved(value) ? TAVRIX_INVALID_NOT_ALLOWED : 0;
}

void check(const Field &field, const std::string &value) {
    const int rc = field.validate(value.c_str());
    const int wanted = expected(field, value);
    if (rc != wanted) { // spares building a message for each of many thousand values
        ADD_FAILURE() << field.name << " <" << value << "> gave " << rc << " instead of " << wanted;
    }
}

class Rules : public testing::TestWithParam<Field> {
  protected:
    void SetUp() override { set_log_level("off"); }

    static void check(const std::string &value) { ::check(GetParam(), value); }
};

INSTANTIATE_TEST_SUITE_P(Field, Rules, testing::ValuesIn(pattern_fields()),
                         [](const auto &row) { return row.param.name; });

TEST_P(Rules, HoldForValidValuesAndLetOneFinalNewlineThrough) {
    for (const std::string &value : GetParam().valid) {
        EXPECT_EQ(expected(GetParam(), value), 0) << value;
        for (const char *end : {"", "\n", "\n\n", "\nx", "\r", "\r\n", " "}) {
            check(value + end);
        }
        check("\n" + value);
        check(" " + value);
    }
}

TEST_P(Rules, HoldForEveryNeighbourOfAValidValue) {
    for (const std::string &value : GetParam().valid) {
        for_each_neighbour(value, GetParam().alphabet, [](const std::string &near) { check(near); });
    }
}

TEST_P(Rules, HoldForEveryByteAtEveryPlace) {
    const std::string &value = GetParam().valid.back();
    for (size_t at = 0; at < value.size(); ++at) {
        for (int byte = 1; byte < 256; ++byte) {
            std::string changed = value;
            changed[at] = static_cast<char>(byte);
            check(changed);
        }
    }
}

TEST_P(Rules, HoldForEveryShortTextOfTheAlphabet) {
    const std::string &alphabet = GetParam().alphabet;
    check("");
    for (const char a : alphabet) {
        check({a});
        for (const char b : alphabet) {
            check({a, b});
            for (const char c : alphabet) {
                check({a, b, c});
            }
        }
    }
}

TEST_P(Rules, HoldForSeededValues) {
    Mutator mutator(1);
    const std::vector<std::string> &valid = GetParam().valid;
    for (int i = 0; i < 4000; ++i) {
        check(mutator.near(valid[mutator.below(valid.size())], GetParam().alphabet));
        check(mutator.of(GetParam().alphabet, 40));
        check(mutator.bytes(60));
    }
}

TEST_P(Rules, HoldAtEveryLength) {
    for (size_t length = 0; length < 70; ++length) {
        check(std::string(length, 'a'));
        check(std::string(length, '1'));
        check(repeated(GetParam().valid.back(), length));
    }
}

TEST_P(Rules, HoldForLongValues) {
    for (const size_t length : {1000U, 1023U, 1024U, 1025U, 1026U, 3000U}) {
        for (const char *piece : {"a", "1", ".", "\n", "zqn", "zqn1.2.3-00", "c1-"}) {
            const std::string value = repeated(piece, length);
            check(value);
            check(value + "zqn1.2.3-004");
            check("zqn" + value + "1.2.3-004");
        }
    }
}

// --- Exhaustive ----------------------------------------------------------------------------------------------------

/** Every way to write a number of up to five digits: as it is, and with leading zeros. */
Lines writings(int n) {
    Lines texts;
    for (std::string text = std::to_string(n); text.size() <= 5; text.insert(0, "0")) {
        texts.push_back(text);
    }
    return texts;
}

class Exhaustive : public testing::Test {
  protected:
    void SetUp() override { set_log_level("off"); }

    const Field &date = field("date");
    const Field &time = field("time");
};

TEST_F(Exhaustive, NumbersFrom0To5000InEveryWriting) {
    const Field &ip_address = field("ip_address");
    for (int n = 0; n <= 5000; ++n) {
        for (const std::string &text : writings(n)) {
            for (const auto &[name, letter] : {std::pair("mzu_id", "c"),
                                               {"mzu_id", "C"},
                                               {"vlan_name_id", "v"},
                                               {"vlan_name_id", "V"},
                                               {"d_port_id", "d"},
                                               {"port_id", "D"}}) {
                check(field(name), letter + text);
            }
            for (const std::string &address :
                 {text + ".10.10.10", "10." + text + ".10.10", "10.10." + text + ".10", "10.10.10." + text}) {
                check(ip_address, address);
            }
        }
    }
}

TEST_F(Exhaustive, CPortsFromC0To130) {
    for (int unit = 0; unit <= 130; ++unit) {
        for (int port = 0; port <= 101; ++port) {
            const std::string text = "c" + std::to_string(unit) + "-" + std::to_string(port);
            check(field("c_port_id"), text);
            check(field("port_id"), text);
        }
    }
}

TEST_F(Exhaustive, MonthsAndDaysInEveryWriting) {
    for (int month = 0; month <= 14; ++month) {
        for (int day = 0; day <= 33; ++day) {
            for (const std::string &text : writings(month)) {
                const std::string beginning = "2030-" + text + "-";
                for (const std::string &end : writings(day)) {
                    check(date, beginning + end);
                }
            }
        }
    }
}

TEST_F(Exhaustive, YearsAndTimesOfFourDigits) {
    for (int n = 0; n < 10000; ++n) {
        const std::string digits = std::to_string(10000 + n).substr(1);
        check(date, digits + "-06-15");
        check(time, digits.substr(0, 2) + ":" + digits.substr(2));
    }
}

TEST_F(Exhaustive, SeparatorsOfAMacAddress) {
    for (int mask = 0; mask < 32; ++mask) {
        std::string text = "a1";
        for (int i = 0; i < 5; ++i) {
            text += ((mask >> i) & 1) != 0 ? ":B2" : "-B2";
        }
        check(field("mac_address"), text);
    }
}

} // namespace
