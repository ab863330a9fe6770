/*
 * error, validate, shm, log-level: what needs no bus, but for the reload that log-level sends.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>

#include <dirent.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "router.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_shm.h"
#include "tavrix_validation.h"
#include "verbs.h"
#include "words.h"

namespace tavrixctl {

namespace {

constexpr char status_title[] = "status   ";
constexpr char jrpc_title[] = "json-rpc ";
constexpr char levels_header[] = "[logging_levels]";

using TextValidator = int (*)(const char *);
using NumberValidator = int (*)(int);

struct Field {
    const char *name;
    TextValidator text;
    NumberValidator number;
};

const Field fields[] = {
    {"c_port_id", validate_c_port_id, nullptr},
    {"d_port_id", validate_d_port_id, nullptr},
    {"date", validate_date, nullptr},
    {"description", validate_description, nullptr},
    {"entity_extension", validate_entity_extension, nullptr},
    {"entity_name", validate_entity_name, nullptr},
    {"ip_address", validate_ip_address, nullptr},
    {"laser_id", nullptr, validate_laser_id},
    {"mac_address", validate_mac_address, nullptr},
    {"mzu_id", validate_mzu_id, nullptr},
    {"mzu_model", validate_mzu_model, nullptr},
    {"mzu_sw_upgrade_filename", validate_mzu_sw_upgrade_filename, nullptr},
    {"olt_id", nullptr, validate_olt_id},
    {"onu_id", nullptr, validate_onu_id},
    {"password", validate_password, nullptr},
    {"periodic_interval", nullptr, validate_periodic_interval},
    {"port_id", validate_port_id, nullptr},
    {"port_link_speed", nullptr, validate_port_link_speed},
    {"port_number", nullptr, validate_port_number},
    {"status", validate_status, nullptr},
    {"time", validate_time, nullptr},
    {"unit_id", nullptr, validate_unit_id},
    {"unit_sw_bank", validate_unit_sw_bank, nullptr},
    {"unit_sw_upgrade_filename", validate_unit_sw_upgrade_filename, nullptr},
    {"username", validate_username, nullptr},
    {"uuid", validate_uuid, nullptr},
    {"vlan_id", nullptr, validate_vlan_id},
    {"vlan_mode", validate_vlan_mode, nullptr},
    {"vlan_name_id", validate_vlan_name_id, nullptr},
};
constexpr char date_time_field[] = "date_time";

const std::map<int, const char *> verdict_texts = {
    {TAVRIX_VALID, "valid"},
    {TAVRIX_INVALID_NO_MATCH, "does not match the field's pattern"},
    {TAVRIX_INVALID_NOT_ALLOWED, "not an allowed value"},
    {TAVRIX_INVALID_TOO_LONG, "too long"},
    {TAVRIX_INVALID_TOO_SHORT, "too short"},
    {TAVRIX_INVALID_OUT_OF_RANGE, "out of range"},
};

bool parse_number(const std::string &text, int *out) {
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < std::numeric_limits<int>::min() ||
        value > std::numeric_limits<int>::max()) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

/** The verdict on a value, or the exit status, above 0, when the words do not fit the field (complained about). */
int check(const std::string &field, const std::vector<std::string> &values) {
    if (field == date_time_field) {
        if (values.size() != 2) {
            return fail(exit_usage, "date_time takes a date and a time");
        }
        return validate_date_time(values[0].c_str(), values[1].c_str());
    }
    const Field *found = std::find_if(std::begin(fields), std::end(fields),
                                      [&](const Field &candidate) { return field == candidate.name; });
    if (found == std::end(fields)) {
        return fail(exit_usage, "there is no field '%s'; see tavrixctl validate --help", field.c_str());
    }
    if (values.size() != 1) {
        return fail(exit_usage, "%s takes one value", found->name);
    }
    if (found->text != nullptr) {
        return found->text(values[0].c_str());
    }
    int number = 0;
    if (!parse_number(values[0], &number)) {
        return fail(exit_usage, "%s takes a 32-bit integer", found->name);
    }
    return found->number(number);
}

/** The file's text with the daemon's line set: replaced in its section, or added to it. */
std::string with_level(const std::string &old_text, const std::string &daemon, const std::string &level) {
    std::istringstream lines(old_text);
    std::string line;
    std::string text;
    const std::string entry = daemon + "=" + level + "\n";
    bool in_section = false;
    bool section_seen = false;
    bool written = false;
    while (std::getline(lines, line)) {
        const bool header = line.rfind('[', 0) == 0;
        if (header && in_section && !written) {
            text += entry;
            written = true;
        }
        if (header) {
            in_section = !section_seen && line.rfind(levels_header, 0) == 0;
            section_seen = section_seen || in_section;
        }
        if (in_section && line.rfind(daemon + "=", 0) == 0) {
            text += written ? "" : entry;
            written = true;
            continue;
        }
        text += line + "\n";
    }
    if (!section_seen) {
        text += std::string(levels_header) + "\n";
    }
    return written ? text : text + entry;
}

/** What each daemon has in the file's section; the first entry counts. */
std::map<std::string, std::string> levels_in(const std::string &text) {
    std::map<std::string, std::string> levels;
    std::istringstream lines(text);
    bool in_section = false;
    for (std::string line; std::getline(lines, line);) {
        const size_t equals_sign = line.find('=');
        if (line.rfind('[', 0) == 0) {
            in_section = line.rfind(levels_header, 0) == 0;
        } else if (in_section && line.rfind('#', 0) != 0 && equals_sign != std::string::npos) {
            levels.emplace(line.substr(0, equals_sign), line.substr(equals_sign + 1));
        }
    }
    return levels;
}

/** Those that the router knows, and their states. */
using Daemons = std::map<std::string, std::string>;

Daemons ask_for_daemons(RouterCalls *router, const LogLevelOptions &options) {
    const Silence silence; // a router that is not there is told of when it is to pass the reload on
    Json status;
    if (router->ask(names::status, nullptr, Deadline(options.timeout_s), &status) != exit_result) {
        return {};
    }
    Daemons daemons = {{"routerd", "up"}};
    for (const json_t *service : elements_of(status.get(), "services")) {
        daemons[text_of(service, "name")] = text_of(service, "state");
    }
    return daemons;
}

/** The router's and the file's. */
std::vector<std::string> names_of(const Daemons &daemons, const std::string &text) {
    std::vector<std::string> names;
    for (const auto &[name, state] : daemons) {
        names.push_back(name);
    }
    for (const auto &[name, level] : levels_in(text)) {
        if (daemons.count(name) == 0) {
            names.push_back(name);
        }
    }
    return names;
}

bool is_known(const Daemons &daemons, const std::string &text, const std::string &daemon) {
    const std::vector<std::string> names = names_of(daemons, text);
    if (std::find(names.begin(), names.end(), daemon) != names.end()) {
        return true;
    }
    const std::string similar = nearest(daemon, names);
    complain("there is no daemon '%s'%s", printable(daemon).c_str(),
             similar.empty() ? "; tavrixctl log-level shows those that there are"
                             : ("; did you mean '" + printable(similar) + "'?").c_str());
    return false;
}

/** Every daemon's level, or one's. */
int show_levels(const Daemons &daemons, const std::string &text, const std::string &only) {
    if (!only.empty() && !is_known(daemons, text, only)) {
        return exit_usage;
    }
    std::map<std::string, std::string> levels = levels_in(text);
    for (const auto &[name, state] : daemons) {
        levels.emplace(name, "-");
    }
    Table table({"DAEMON", "LEVEL", "STATE"});
    for (const auto &[name, level] : levels) {
        const auto known = daemons.find(name);
        if (only.empty() || name == only) {
            table.add({printable(name), printable(level), known == daemons.end() ? "-" : printable(known->second)});
        }
    }
    return printed(print_lines(table.lines()));
}

bool write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0) {
            return false;
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

/** Gives a new file the owner and permissions of the one that it will replace, if there is one. */
bool take_after(int fd, const std::string &path) {
    struct stat old {};
    if (stat(path.c_str(), &old) != 0) {
        return errno == ENOENT && fchmod(fd, 0644) == 0;
    }
    return fchown(fd, old.st_uid, old.st_gid) == 0 && fchmod(fd, old.st_mode & 07777) == 0;
}

/** Replaces a file, not a link to it, in one step: a reader sees the old text or the new one. */
bool replace_file(const std::string &name, const std::string &text) {
    const Text resolved(realpath(name.c_str(), nullptr));
    const std::string path = resolved ? resolved.get() : name;
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) {
        return false;
    }
    const bool done = write_all(fd, text) && take_after(fd, path) && fsync(fd) == 0;
    if (close(fd) == 0 && done && rename(temporary.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int reason = errno;
    unlink(temporary.c_str());
    errno = reason;
    return false;
}

bool print_code(const char *title, int code, const char *meaning) {
    return print_line(std::string(title) + std::to_string(code) + "  " + meaning);
}

constexpr char slots_folder[] = "/dev/shm";
constexpr size_t shown_bytes = 60;
// The mode that the library gives its slots, and nobody else their files, whatever the umask.
constexpr mode_t slot_mode = S_ISGID | S_ISVTX;

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};

bool is_slot(const std::string &name, struct stat *state) {
    return lstat((slots_folder + name).c_str(), state) == 0 && S_ISREG(state->st_mode) &&
           (state->st_mode & (S_ISUID | S_ISGID | S_ISVTX)) == slot_mode;
}

std::string owner_name(uid_t user) {
    const passwd *entry = getpwuid(user);
    return entry == nullptr ? std::to_string(user) : printable(entry->pw_name);
}

/** A slot of an integer's size holds one, as far as anybody can tell; another one a text. */
std::string value_of(const std::string &name, off_t size) {
    std::ifstream file(slots_folder + name, std::ios::binary);
    std::string bytes(shown_bytes, '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (file.gcount() == 0) {
        return "-";
    }
    int number = 0;
    if (size == static_cast<off_t>(sizeof number)) {
        std::memcpy(&number, bytes.data(), sizeof number);
        return std::to_string(number);
    }
    return printable(bytes.substr(0, bytes.find('\0')));
}

int shm_failed(const std::string &name) {
    return fail(exit_error_response, "%s: no such slot, or not accessible (a name begins with '/')", name.c_str());
}

} // namespace

int explain_error(int code) {
    const int status = code > 0 ? -code : code;
    if (status >= TAVRIX_ERR_TOO_MANY_ENTRIES) {
        const int jrpc = tavrix_jrpc_error_convert_tavrix_to_jrpc(status);
        return printed(print_code(status_title, status, tavrix_error_decode(status)) &&
                       (status == TAVRIX_OK || print_code(jrpc_title, jrpc, tavrix_jrpc_error_message(jrpc))));
    }
    const char *message = tavrix_jrpc_error_message(status);
    if (status != TAVRIX_JRPC_UNKNOWN_ERROR &&
        std::strcmp(message, tavrix_jrpc_error_message(TAVRIX_JRPC_UNKNOWN_ERROR)) == 0) {
        return fail(exit_usage, "%d is neither a status nor a JSON-RPC code of the system", code);
    }
    const int back = tavrix_jrpc_error_convert_jrpc_to_tavrix(status);
    return printed(print_code(jrpc_title, status, message) &&
                   (back == TAVRIX_JRPC_UNKNOWN_ERROR || print_code(status_title, back, tavrix_error_decode(back))));
}

int validate(const ValidateOptions &options) {
    const int verdict = check(options.field, options.values);
    if (verdict > 0) {
        return verdict;
    }
    if (verdict == TAVRIX_INVALID_ENGINE) {
        return fail(exit_error_response, "the value could not be checked");
    }
    const auto found = verdict_texts.find(verdict);
    return printed(print_line(found != verdict_texts.end() ? found->second : "rejected") && verdict == 0);
}

std::vector<std::string> validated_fields() {
    std::vector<std::string> names = {date_time_field};
    for (const Field &field : fields) {
        names.emplace_back(field.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int shm_get(const ShmOptions &options) {
    if (options.integer) {
        int value = 0;
        if (tavrix_shm_get_int(options.name.c_str(), &value) != TAVRIX_OK) {
            return shm_failed(options.name);
        }
        return printed(print_line(std::to_string(value)));
    }
    std::vector<char> text(options.size);
    if (tavrix_shm_get_string(options.name.c_str(), text.size(), text.data()) != TAVRIX_OK) {
        return shm_failed(options.name);
    }
    return printed(print_line(text.data()));
}

int shm_set(const ShmOptions &options) {
    int number = 0;
    if (options.integer && !parse_number(options.value, &number)) {
        return fail(exit_usage, "--int takes a 32-bit integer");
    }
    if (!options.integer && options.value.size() >= options.size) {
        return fail(exit_usage, "the text has %zu bytes, the slot holds %zu with the terminator", options.value.size(),
                    options.size);
    }
    const size_t size = options.integer ? sizeof number : options.size;
    if (options.create && tavrix_shm_create(options.name.c_str(), size) != TAVRIX_OK) {
        return shm_failed(options.name);
    }
    const int rc = options.integer ? tavrix_shm_set_int(options.name.c_str(), &number)
                                   : tavrix_shm_set_string(options.name.c_str(), size, options.value.c_str());
    return rc == TAVRIX_OK ? exit_result : shm_failed(options.name);
}

int shm_list() {
    const std::unique_ptr<DIR, CloseFolder> folder(opendir(slots_folder));
    if (!folder) {
        return fail(exit_error_response, "%s: %s", slots_folder, std::strerror(errno));
    }
    std::vector<std::string> names;
    while (const dirent *entry = readdir(folder.get())) {
        struct stat state {};
        const std::string name = std::string("/") + entry->d_name;
        if (is_slot(name, &state)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    Table table({"SLOT", "BYTES", "OWNER", "SET", "VALUE"});
    table.align_right(1, 1);
    for (const std::string &name : names) {
        struct stat state {};
        if (is_slot(name, &state)) { // still
            table.add({printable(name), std::to_string(state.st_size), owner_name(state.st_uid),
                       date_text(static_cast<double>(state.st_mtime)), value_of(name, state.st_size)});
        }
    }
    return printed(print_lines(names.empty() ? std::vector<std::string>{"no slots"} : table.lines()));
}

int shm_remove(const ShmOptions &options) {
    struct stat state {};
    if (options.name.rfind('/', 0) != 0 || options.name.find('/', 1) != std::string::npos ||
        !is_slot(options.name, &state)) {
        return shm_failed(options.name); // whatever else is there belongs to others
    }
    if (shm_unlink(options.name.c_str()) != 0) {
        return fail(exit_error_response, "%s: %s", printable(options.name).c_str(), std::strerror(errno));
    }
    return exit_result;
}

std::vector<std::string> log_level_words() { return {"off", "info", "debug", "verbose"}; }

std::vector<std::string> daemon_names(const LogLevelOptions &options) {
    std::string text;
    read_file(options.file, &text); // names that cannot be read are none
    RouterCalls router(options.target);
    return names_of(options.edit_only ? Daemons() : ask_for_daemons(&router, options), text);
}

int log_level(const LogLevelOptions &options) {
    if (!options.level.empty() &&
        (options.daemon.empty() || options.daemon.size() > 50 || options.daemon.find_first_of("=\n[#") == 0 ||
         options.daemon.find_first_of("=\n") != std::string::npos)) {
        return fail(exit_usage, "'%s' cannot be a key of %s", printable(options.daemon).c_str(),
                    printable(options.file).c_str());
    }
    std::string old_text;
    if (!read_file(options.file, &old_text) && errno != ENOENT) { // one that does not exist is made
        return fail(exit_error_response, "%s: %s", printable(options.file).c_str(), std::strerror(errno));
    }
    RouterCalls router(options.target);
    Daemons daemons = options.edit_only ? Daemons() : ask_for_daemons(&router, options);
    if (options.level.empty()) {
        return show_levels(daemons, old_text, options.daemon);
    }
    if (!daemons.empty() && !is_known(daemons, old_text, options.daemon)) {
        return exit_usage;
    }
    const std::string text = with_level(old_text, options.daemon, options.level);
    if (!replace_file(options.file, text)) {
        return fail(exit_error_response, "%s: %s%s", printable(options.file).c_str(), std::strerror(errno),
                    errno == EACCES ? "; may this user write it, and into its folder?" : "");
    }
    if (options.edit_only) {
        return exit_result;
    }
    Json result;
    const int status = router.ask(names::reload_conf, nullptr, Deadline(options.timeout_s), &result);
    return status == exit_result ? show_levels(daemons, text, "") : status;
}

} // namespace tavrixctl
