/*
 * Every pattern beside a rule written by hand: exhaustive where the field is small, seeded values where it is not.
 */
#include "tavrix_validation.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fields.h"
#include "support/log_capture.h"
#include "support/mutation.h"

using support::Field;
using support::Mutator;

namespace {

// --- Rules written by hand -----------------------------------------------------------------------------------------

/** A final newline is let through, as the patterns' end anchor does. */
std::string without_final_newline(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

bool all(const std::string &text, const std::function<bool(char)> &fits) {
    for (const char c : text) {
        if (!fits(c)) {
            return false;
        }
    }
    return true;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_alnum(char c) { return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

/** A number without leading zeros within a range. */
bool is_number(const std::string &text, int low, int high) {
    if (text.empty() || text.size() > 4 || !all(text, is_digit) || (text.size() > 1 && text[0] == '0')) {
        return false;
    }
    const int value = std::stoi(text);
    return value >= low && value <= high;
}

bool is_c_port(std::string text) {
    text = without_final_newline(text);
    const size_t dash = text.find('-');
    return dash != std::string::npos && (text[0] == 'c' || text[0] == 'C') &&
           is_number(text.substr(1, dash - 1), 1, 128) && is_number(text.substr(dash + 1), 1, 99);
}

bool is_d_port(std::string text) {
    text = without_final_newline(text);
    return text.size() == 2 && (text[0] == 'd' || text[0] == 'D') && text[1] >= '1' && text[1] <= '4';
}

bool is_mzu(std::string text) {
    text = without_final_newline(text);
    return !text.empty() && (text[0] == 'c' || text[0] == 'C') && is_number(text.substr(1), 1, 128);
}

bool is_vlan_name(std::string text) {
    text = without_final_newline(text);
    return !text.empty() && text[0] == 'v' && is_number(text.substr(1), 1, 4092);
}

bool is_single_line(std::string text) { return without_final_newline(text).find('\n') == std::string::npos; }

bool is_month_or_day(const std::string &text, int high) {
    if (text.empty() || text.size() > 2 || !all(text, is_digit)) {
        return false;
    }
    const int value = std::stoi(text);
    return value >= 1 && value <= high;
}

bool is_date(std::string text) {
    text = without_final_newline(text);
    const size_t second = text.size() > 5 ? text.find('-', 5) : std::string::npos;
    return second != std::string::npos && text[0] == '2' && all(text.substr(0, 4), is_digit) && text[4] == '-' &&
           is_month_or_day(text.substr(5, second - 5), 12) && is_month_or_day(text.substr(second + 1), 31);
}

bool is_time(std::string text) {
    text = without_final_newline(text);
    return text.size() == 5 && text[2] == ':' && all(text.substr(0, 2) + text.substr(3), is_digit) &&
           std::stoi(text.substr(0, 2)) < 24 && std::stoi(text.substr(3)) < 60;
}

bool is_uuid(std::string text) {
    text = without_final_newline(text);
    if (text.size() != 36) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !is_hex(text[i])) {
            return false;
        }
    }
    return true;
}

bool is_ip(std::string text) {
    text = without_final_newline(text);
    int parts = 0;
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t dot = std::min(text.find('.', begin), text.size());
        if (!is_number(text.substr(begin, dot - begin), 0, 255)) {
            return false;
        }
        ++parts;
        begin = dot + 1;
    }
    return parts == 4;
}

bool is_mac(std::string text) {
    text = without_final_newline(text);
    if (text.size() != 17) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        if (i % 3 == 2 ? (text[i] != text[2] || (text[i] != ':' && text[i] != '-')) : !is_hex(text[i])) {
            return false;
        }
    }
    return true;
}

bool is_description(std::string text) { return text.find('"') == std::string::npos; }

bool is_password(std::string text) {
    text = without_final_newline(text);
    return text.size() >= 4 && text.size() <= 15 &&
           all(text, [](char c) { return is_alnum(c) || std::string("!?_@-").find(c) != std::string::npos; });
}

bool is_username(std::string text) {
    text = without_final_newline(text);
    return text.size() >= 4 && text.size() <= 15 && all(text, is_alnum);
}

bool is_port(std::string text) { return is_c_port(text) || is_d_port(text); }

/** Whether a version such as 1.2.3-004, with any characters between the digits, stands at a place. */
bool version_at(const std::string &line, size_t at) {
    return line.size() >= at + 9 && is_digit(line[at]) && is_digit(line[at + 2]) && is_digit(line[at + 4]) &&
           line[at + 5] == '-' && is_digit(line[at + 6]) && is_digit(line[at + 7]) && is_digit(line[at + 8]);
}

/** The word and a version behind it, both on the first line. */
bool is_unit_file(std::string text) {
    const std::string line = text.substr(0, text.find('\n'));
    const size_t word = line.find("zqn");
    if (word == std::string::npos) {
        return false;
    }
    for (size_t at = word + 3; at < line.size(); ++at) {
        if (version_at(line, at)) {
            return true;
        }
    }
    return false;
}

/** The accounts that a name which passes the pattern could still be. */
bool is_reserved(const std::string &text) {
    static const std::vector<std::string> names = {"root",     "daemon",    "sync", "mail",   "proxy", "backup",
                                                   "operator", "haldaemon", "dbus", "nobody", "sshd"};
    return std::find(names.begin(), names.end(), text) != names.end();
}

// --- Fields --------------------------------------------------------------------------------------------------------

struct Rule {
    const char *field;
    bool (*holds)(std::string);
    int min_length;
    int max_length; ///< 0: no bounds
};

constexpr Rule rules[] = {
    {"port_id", is_port, 0, 0},
    {"c_port_id", is_c_port, 0, 0},
    {"d_port_id", is_d_port, 0, 0},
    {"vlan_name_id", is_vlan_name, 0, 0},
    {"mzu_id", is_mzu, 0, 0},
    {"mzu_sw_upgrade_filename", is_single_line, 0, 0},
    {"unit_sw_upgrade_filename", is_unit_file, 0, 0},
    {"date", is_date, 0, 0},
    {"time", is_time, 0, 0},
    {"uuid", is_uuid, 0, 0},
    {"ip_address", is_ip, 7, 15},
    {"mac_address", is_mac, 17, 17},
    {"description", is_description, 0, 50},
    {"password", is_password, 4, 15},
    {"username", is_username, 4, 15},
};

const Rule &rule_of(const Field &field) {
    for (const Rule &rule : rules) {
        if (std::string(rule.field) == field.name) {
            return rule;
        }
    }
    throw std::out_of_range(field.name);
}

class Rules : public testing::TestWithParam<Field> {
  protected:
    void SetUp() override { support::set_log_level("off"); }

    const Rule &rule = rule_of(GetParam());

    int expected(const std::string &value) const {
        const int length = static_cast<int>(value.size());
        if (rule.max_length > 0 && length < rule.min_length) {
            return TAVRIX_INVALID_TOO_SHORT;
        }
        if (rule.max_length > 0 && length > rule.max_length) {
            return TAVRIX_INVALID_TOO_LONG;
        }
        if (!rule.holds(value)) {
            return TAVRIX_INVALID_NO_MATCH;
        }
        return GetParam().validate == validate_username && is_reserved(value) ? TAVRIX_INVALID_NOT_ALLOWED : 0;
    }
    void check(const std::string &value) const {
        const int rc = GetParam().validate(value.c_str());
        const int wanted = expected(value);
        if (rc != wanted) { // spares building a message for each of many thousand values
            ADD_FAILURE() << "<" << value << "> gave " << rc << " instead of " << wanted;
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Field, Rules, testing::ValuesIn(support::pattern_fields()),
                         [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(Rules, HoldForValidValues) {
    for (const std::string &value : GetParam().valid) {
        EXPECT_EQ(expected(value), 0) << value;
        check(value);
    }
}

TEST_P(Rules, LetOneFinalNewlineThrough) {
    for (const std::string &value : GetParam().valid) {
        for (const char *end : {"\n", "\n\n", "\nx", "\r", "\r\n", " "}) {
            check(value + end);
        }
        check("\n" + value);
        check(" " + value);
    }
}

TEST_P(Rules, HoldForEveryNeighbourOfAValidValue) {
    for (const std::string &value : GetParam().valid) {
        support::for_each_neighbour(value, GetParam().alphabet, [this](const std::string &near) { check(near); });
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
        check(support::repeated(GetParam().valid.back(), length));
    }
}

TEST_P(Rules, HoldForLongValues) {
    for (const size_t length : {1000U, 1023U, 1024U, 1025U, 1026U, 3000U}) {
        for (const char *piece : {"a", "1", ".", "\n", "zqn", "zqn1.2.3-00", "c1-"}) {
            const std::string value = support::repeated(piece, length);
            check(value);
            check(value + "zqn1.2.3-004");
            check("zqn" + value + "1.2.3-004");
        }
    }
}

// --- Exhaustive ----------------------------------------------------------------------------------------------------

namespace {

/** Every way to write a number of up to four digits: as it is, and with leading zeros. */
void for_each_writing(int n, const std::function<void(const std::string &text, bool plain)> &visit) {
    const std::string plain = std::to_string(n);
    visit(plain, true);
    for (std::string zeros = "0"; zeros.size() + plain.size() <= 5; zeros += "0") {
        visit(zeros + plain, false);
    }
}

class Exhaustive : public testing::Test {
  protected:
    void SetUp() override { support::set_log_level("off"); }
};

} // namespace

TEST_F(Exhaustive, UnitsFrom0To1100) {
    for (int n = 0; n <= 1100; ++n) {
        for_each_writing(n, [n](const std::string &text, bool plain) {
            const int expected = plain && n >= 1 && n <= 128 ? 0 : TAVRIX_INVALID_NO_MATCH;
            EXPECT_EQ(validate_mzu_id(("c" + text).c_str()), expected) << text;
            EXPECT_EQ(validate_mzu_id(("C" + text).c_str()), expected) << text;
        });
    }
}

TEST_F(Exhaustive, VlanNamesFrom0To5000) {
    for (int n = 0; n <= 5000; ++n) {
        for_each_writing(n, [n](const std::string &text, bool plain) {
            EXPECT_EQ(validate_vlan_name_id(("v" + text).c_str()),
                      plain && n >= 1 && n <= 4092 ? 0 : TAVRIX_INVALID_NO_MATCH)
                << text;
        });
        EXPECT_EQ(validate_vlan_name_id(("V" + std::to_string(n)).c_str()), TAVRIX_INVALID_NO_MATCH);
    }
}

TEST_F(Exhaustive, CPortsFromC0To130) {
    for (int unit = 0; unit <= 130; ++unit) {
        for (int port = 0; port <= 101; ++port) {
            const std::string text = "c" + std::to_string(unit) + "-" + std::to_string(port);
            const int expected = unit >= 1 && unit <= 128 && port >= 1 && port <= 99 ? 0 : TAVRIX_INVALID_NO_MATCH;
            EXPECT_EQ(validate_c_port_id(text.c_str()), expected) << text;
            EXPECT_EQ(validate_port_id(text.c_str()), expected) << text;
        }
    }
}

TEST_F(Exhaustive, DPortsFromD0To200) {
    for (int n = 0; n <= 200; ++n) {
        for_each_writing(n, [n](const std::string &text, bool plain) {
            const int expected = plain && n >= 1 && n <= 4 ? 0 : TAVRIX_INVALID_NO_MATCH;
            EXPECT_EQ(validate_d_port_id(("d" + text).c_str()), expected) << text;
            EXPECT_EQ(validate_port_id(("D" + text).c_str()), expected) << text;
        });
    }
}

TEST_F(Exhaustive, MonthsAndDaysInEveryWriting) {
    for (int month = 0; month <= 14; ++month) {
        for (int day = 0; day <= 33; ++day) {
            for (const char *format :
                 {"2030-%d-%d", "2030-%02d-%02d", "2030-%d-%02d", "2030-%02d-%d", "2030-%03d-%d"}) {
                char text[32];
                std::snprintf(text, sizeof text, format, month, day);
                const bool three_digits = std::string(format).find("%03d") != std::string::npos;
                const bool valid = month >= 1 && month <= 12 && day >= 1 && day <= 31 && !three_digits;
                EXPECT_EQ(validate_date(text), valid ? 0 : TAVRIX_INVALID_NO_MATCH) << text;
            }
        }
    }
}

TEST_F(Exhaustive, Years) {
    for (int year = 0; year <= 9999; ++year) {
        char text[32];
        std::snprintf(text, sizeof text, "%04d-06-15", year);
        EXPECT_EQ(validate_date(text), year >= 2000 && year <= 2999 ? 0 : TAVRIX_INVALID_NO_MATCH) << text;
    }
}

TEST_F(Exhaustive, TimesOfFourDigits) {
    for (int n = 0; n < 10000; ++n) {
        char text[16];
        std::snprintf(text, sizeof text, "%02d:%02d", n / 100, n % 100);
        EXPECT_EQ(validate_time(text), n / 100 < 24 && n % 100 < 60 ? 0 : TAVRIX_INVALID_NO_MATCH) << text;
    }
}

TEST_F(Exhaustive, OctetsAtEveryPlaceInEveryWriting) {
    for (int n = 0; n <= 300; ++n) {
        for_each_writing(n, [n](const std::string &text, bool plain) {
            for (int place = 0; place < 4; ++place) {
                std::string address;
                for (int i = 0; i < 4; ++i) {
                    address += (i > 0 ? "." : "") + (i == place ? text : std::string("10"));
                }
                EXPECT_EQ(validate_ip_address(address.c_str()), plain && n <= 255 ? 0 : TAVRIX_INVALID_NO_MATCH)
                    << address;
            }
        });
    }
}

TEST_F(Exhaustive, SeparatorsOfAMacAddress) {
    for (int mask = 0; mask < 32; ++mask) {
        std::string text = "a1";
        for (int i = 0; i < 5; ++i) {
            text += ((mask >> i) & 1) != 0 ? ":B2" : "-B2";
        }
        EXPECT_EQ(validate_mac_address(text.c_str()), mask == 0 || mask == 31 ? 0 : TAVRIX_INVALID_NO_MATCH) << text;
    }
}
