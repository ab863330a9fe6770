#include "words.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include "support.h"
#include "tavrix_jrpc.h"

namespace tavrixctl {

namespace {

constexpr char column_gap[] = "  ";

struct NamedChannel {
    const char *channel;
    const char *name;
};

constexpr NamedChannel named_channels[] = {
    {TAVRIX_CHANNEL_FIRST, "first"},           {TAVRIX_CHANNEL_EVENTS, "events"},
    {TAVRIX_CHANNEL_INTERFACES, "interfaces"}, {TAVRIX_CHANNEL_DEFAULT, "default"},
    {TAVRIX_ROUTER_REPLY_CHANNEL, "replies"},
};

bool bears_colours() {
    static const bool bears = [] {
        const char *no_colour = std::getenv("NO_COLOR");
        const char *terminal = std::getenv("TERM");
        return isatty(STDOUT_FILENO) != 0 && (no_colour == nullptr || no_colour[0] == '\0') && terminal != nullptr &&
               std::strcmp(terminal, "dumb") != 0;
    }();
    return bears;
}

constexpr const char *sequences[] = {"\033[1m", "\033[32m", "\033[33m", "\033[31m"}; // in the order of Colour

std::string formatted(const char *format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string local_time(double seconds_since_1970, const char *format) {
    const auto seconds = static_cast<time_t>(seconds_since_1970);
    tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &local));
}

/** How many letters have to be added, dropped, replaced or exchanged with their neighbour. */
size_t distance(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            const size_t changed = d[i - 1][j - 1] + (std::tolower(a[i - 1]) == std::tolower(b[j - 1]) ? 0 : 1);
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, changed});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

} // namespace

std::string coloured(const std::string &text, Colour colour) {
    return bears_colours() ? sequences[static_cast<size_t>(colour)] + text + "\033[0m" : text;
}

std::string Table::cell(size_t row, size_t column, size_t width) const {
    const std::string &text = rows_[row][column];
    const std::string gap(width - text.size(), ' ');
    std::string shown = row == 0 ? coloured(text, Colour::bold) : text;
    for (const Mark &mark : marks_) {
        if (row > 0 && mark.column == column && mark.word == text) {
            shown = coloured(text, mark.colour);
        }
    }
    if (column >= right_first_ && column <= right_last_) {
        return gap + shown;
    }
    return column + 1 == rows_[row].size() ? shown : shown + gap;
}

std::vector<std::string> Table::lines() const {
    std::vector<size_t> widths(rows_[0].size());
    for (const auto &row : rows_) {
        for (size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::vector<std::string> lines;
    for (size_t row = 0; row < rows_.size(); ++row) {
        std::string line;
        for (size_t column = 0; column < rows_[row].size(); ++column) {
            line += (column == 0 ? "" : column_gap) + cell(row, column, widths[column]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> wrapped(const std::vector<std::string> &words, size_t width) {
    std::vector<std::string> lines(1);
    for (const std::string &word : words) {
        if (!lines.back().empty() && lines.back().size() + 1 + word.size() > width) {
            lines.emplace_back();
        }
        lines.back() += (lines.back().empty() ? "" : " ") + word;
    }
    return lines;
}

std::string milliseconds_text(double milliseconds) {
    if (milliseconds >= 1000) {
        return formatted("%.2f s", milliseconds / 1000);
    }
    return formatted(milliseconds >= 10 ? "%.1f ms" : "%.3f ms", milliseconds);
}

std::string duration_text(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    const struct {
        long long unit;
        long long smaller;
        const char *names[2];
    } rows[] = {{86400, 3600, {" d ", " h"}}, {3600, 60, {" h ", " min"}}, {60, 1, {" min ", " s"}}};
    for (const auto &row : rows) {
        if (whole >= row.unit) {
            return std::to_string(whole / row.unit) + row.names[0] + std::to_string(whole % row.unit / row.smaller) +
                   row.names[1];
        }
    }
    return std::to_string(whole) + " s";
}

std::string date_text(double seconds_since_1970) { return local_time(seconds_since_1970, "%Y-%m-%d %H:%M:%S"); }

std::string time_text(double seconds_since_1970) {
    const double fraction = seconds_since_1970 - std::floor(seconds_since_1970);
    char text[8];
    std::snprintf(text, sizeof text, ".%03d", static_cast<int>(fraction * 1000) % 1000);
    return local_time(seconds_since_1970, "%H:%M:%S") + text;
}

double now_since_1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string channel_name(const std::string &channel) {
    const std::string name = short_name_of(channel);
    return name.empty() ? printable(channel) : name;
}

std::string short_name_of(const std::string &channel) {
    const auto *const row = std::find_if(std::begin(named_channels), std::end(named_channels),
                                         [&](const NamedChannel &named) { return channel == named.channel; });
    return row == std::end(named_channels) ? "" : row->name;
}

std::string channel_of(const std::string &short_name) {
    const auto *const row = std::find_if(std::begin(named_channels), std::end(named_channels),
                                         [&](const NamedChannel &named) { return short_name == named.name; });
    return row == std::end(named_channels) ? "" : row->channel;
}

std::vector<std::string> channel_names() {
    std::vector<std::string> names;
    for (const NamedChannel &row : named_channels) {
        names.emplace_back(row.name);
    }
    return names;
}

std::string nearest(const std::string &word, const std::vector<std::string> &candidates) {
    std::string best;
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    for (const std::string &candidate : candidates) {
        const size_t apart = distance(word.substr(0, 200), candidate.substr(0, 200));
        if (apart < least) {
            least = apart;
            best = candidate;
        }
    }
    return best;
}

} // namespace tavrixctl
