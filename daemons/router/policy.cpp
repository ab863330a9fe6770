#include "policy.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/options.h"
#include "common/log.h"
#include "message.h"

namespace router {

namespace {

constexpr char unit_name[] = "policy";

/** What `*` alone does not cover. */
constexpr const char *restricted[] = {names::lock, names::unlock, names::register_service, names::bus, names::monitor};

bool is_restricted(std::string_view method) {
    return std::any_of(std::begin(restricted), std::end(restricted),
                       [method](const char *name) { return method == name; });
}

bool covers(const std::string &pattern, std::string_view method) {
    return matches(pattern, method) && (!is_restricted(method) || matches("router.*", pattern));
}

/** As methods are named here: printable, without blanks, a `*` at the end only. */
bool is_pattern(const std::string &text) {
    return text.find('*') >= text.size() - 1 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t comma = std::min(text.find(',', begin), text.size());
        if (comma > begin) {
            parts.push_back(text.substr(begin, comma - begin));
        }
        begin = comma + 1;
    }
    return parts;
}

} // namespace

Peer peer_of(int descriptor, Road road) {
    Peer peer;
    peer.road = road;
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (road == Road::tcp || getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return peer;
    }
    peer.known = true;
    peer.process = credentials.pid;
    peer.user = credentials.uid;
    peer.groups.push_back(credentials.gid);
    if (peer.user == 0 || peer.user == geteuid()) {
        return peer; // whoever may do everything by their user needs no groups
    }
    std::vector<gid_t> more(32);
    size = static_cast<socklen_t>(more.size() * sizeof(gid_t));
    while (getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, more.data(), &size) != 0) {
        if (errno != ERANGE || size <= more.size() * sizeof(gid_t)) {
            return peer;
        }
        more.resize(size / sizeof(gid_t)); // as many as the kernel has just said
    }
    more.resize(size / sizeof(gid_t));
    peer.groups.insert(peer.groups.end(), more.begin(), more.end());
    return peer;
}

Policy::Policy() {
    const Row everybody{Whom::all, 0, {"*"}};
    rows_[static_cast<size_t>(Road::unix_socket)].push_back(everybody);
    rows_[static_cast<size_t>(Road::session)].push_back(everybody);
}

/** What is wrong with `key=patterns`; empty when it is as it should be. */
std::string Policy::read_row(const std::string &line, Row *row) const {
    const size_t equals_sign = line.find('=');
    const std::string key = line.substr(0, equals_sign);
    row->patterns = split(line.substr(equals_sign + 1));
    for (const std::string &pattern : row->patterns) {
        if (!is_pattern(pattern)) {
            return "'" + pattern + "' is not a method pattern";
        }
    }
    if (key == "all") {
        *row = {Whom::all, 0, row->patterns};
        return "";
    }
    const bool is_user = key.rfind("user.", 0) == 0;
    if (!is_user && key.rfind("group.", 0) != 0) {
        return "'" + key + "' is neither all, user.NAME nor group.NAME";
    }
    const std::string name = key.substr(key.find('.') + 1);
    const passwd *user = is_user ? getpwnam(name.c_str()) : nullptr;
    const group *members = is_user ? nullptr : getgrnam(name.c_str());
    if (user == nullptr && members == nullptr) {
        return std::string("there is no ") + (is_user ? "user" : "group") + " '" + name + "'";
    }
    row->whom = is_user ? Whom::user : Whom::group;
    row->number = is_user ? user->pw_uid : members->gr_gid;
    return "";
}

std::string Policy::read_lines(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        return "cannot be opened";
    }
    if (file.peek() == std::ifstream::traits_type::eof() && file.bad()) {
        return "cannot be read"; // a folder
    }
    std::vector<Row> *section = nullptr;
    std::set<std::string> seen;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string place = "line " + std::to_string(number) + ": ";
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::string problem = daemon_support::find_format_problem(line, section != nullptr, file.eof());
        if (!problem.empty()) {
            return place + problem;
        }
        if (line[0] == '[') {
            if (line.find(']') != line.size() - 1) {
                return std::string(place).append("'").append(line).append("' is not a section");
            }
            const std::string name = line.substr(1, line.size() - 2);
            const auto *road = std::find(road_names.begin(), road_names.end(), name);
            if (road == road_names.end() || !seen.insert(name).second) {
                return std::string(place).append(line).append(
                    " is none of [unix], [tcp] and [session], or stands there already");
            }
            section = &rows_[static_cast<size_t>(road - road_names.begin())];
            section->clear();
            continue;
        }
        Row row{};
        problem = read_row(line, &row);
        if (!problem.empty()) {
            return place + problem;
        }
        section->push_back(row);
    }
    return "";
}

bool Policy::read(const std::string &path) {
    const std::string problem = read_lines(path);
    if (!problem.empty()) {
        LOG_ERROR("The policy %s cannot be used: %s\n", path.c_str(), printable(problem).c_str());
    }
    return problem.empty();
}

bool Policy::allows(const Peer &peer, std::string_view method) const {
    const auto has_group = [&peer](gid_t wanted) {
        return std::find(peer.groups.begin(), peer.groups.end(), wanted) != peer.groups.end();
    };
    if (peer.known && (peer.user == 0 || peer.user == geteuid() || has_group(getegid()))) {
        return true;
    }
    const auto &rows = rows_[static_cast<size_t>(peer.road)];
    return std::any_of(rows.begin(), rows.end(), [&](const Row &row) {
        const bool is_meant = row.whom == Whom::all ||
                              (row.whom == Whom::user && peer.known && row.number == peer.user) ||
                              (row.whom == Whom::group && has_group(row.number));
        return is_meant && std::any_of(row.patterns.begin(), row.patterns.end(),
                                       [&](const std::string &pattern) { return covers(pattern, method); });
    });
}

} // namespace router
