/**
 * The verbs of tavrixctl: each takes its options as a plain record and returns the exit status.
 */
#ifndef TAVRIX_TOOLS_VERBS_H
#define TAVRIX_TOOLS_VERBS_H

#include <optional>
#include <string>
#include <vector>

namespace tavrixctl {

constexpr int exit_result = 0;
constexpr int exit_error_response = 1;
constexpr int exit_usage = 2;
constexpr int exit_timeout = 3;
constexpr int exit_no_connection = 4;

enum class JsonStyle { automatic, pretty, single_line, lines };

/** Where a request goes: at most one is set; with none, the environment or the usual paths tell. */
struct Target {
    std::string session;     ///< path of the router's socket for sessions
    std::string socket_path; ///< path of the router's socket for one request a connection
    std::string tcp;         ///< HOST:PORT
    std::string direct;      ///< path of a daemon's own socket server
};

/** What every verb with an answer has. */
struct Question {
    Target target;
    double timeout_s = 15; ///< to wait at most
};

struct CallOptions : Question {
    std::string method;
    std::vector<std::string> params; ///< words as in params.h
    std::string id;
    std::optional<long long> transaction_id;
    bool notification = false;
    bool full = false; ///< prints the whole response, not the result alone
    JsonStyle json = JsonStyle::automatic;
};
int call(const CallOptions &options);

struct SendOptions : Question {
    std::string text; ///< sent as it stands, "-" for standard input
    JsonStyle json = JsonStyle::automatic;
};
int send(const SendOptions &options);

struct MonitorOptions : Question {
    std::vector<std::string> words;    ///< method patterns, and bus addresses to listen to instead of the router
    std::vector<std::string> channels; ///< prefixes of the bus's channels; empty: all
    std::string service;               ///< only this one's, when not empty
    bool errors_only = false;
    std::optional<double> slower_than_ms;
    std::string record;            ///< file to write to as well, when not empty
    std::optional<JsonStyle> json; ///< none: lines for people
    std::optional<unsigned> count; ///< lines to print before it ends
};
int monitor(const MonitorOptions &options);

struct ReplayOptions : Question {
    std::string file;
    double speed = 1; ///< 0: each as soon as the former is answered
};
int replay(const ReplayOptions &options);

struct StatusOptions : Question {
    std::optional<JsonStyle> json; ///< none: tables
};
int status(const StatusOptions &options);
int metrics(const StatusOptions &options);

struct TopOptions : Question {
    double interval_s = 2;
    std::optional<unsigned> count; ///< pages to print before it ends
};
int top(const TopOptions &options);

struct WaitServiceOptions {
    Target target;
    std::vector<std::string> names;
    double timeout_s = 60;
};
int wait_service(const WaitServiceOptions &options);

struct DiscoverOptions : Question {
    std::string word; ///< list: a pattern, empty for all; describe: a method; docs: the format
};
int list_methods(const DiscoverOptions &options);
int describe(const DiscoverOptions &options);
int docs(const DiscoverOptions &options);

struct PushOptions {
    std::string address;
    std::string method;
    std::vector<std::string> params;
    double timeout_s = 5;
};
int push(const PushOptions &options);

struct SubscribeOptions {
    Target target;
    std::vector<std::string> patterns;
    std::optional<unsigned> count; ///< notifications to print before it ends
    std::optional<double> timeout_s;
    std::optional<JsonStyle> json; ///< none: time, method and params
};
int subscribe(const SubscribeOptions &options);

struct WaitOptions {
    Target target;
    std::string method;
    std::vector<std::string> words; ///< bus addresses, and what the params have to hold
    unsigned count = 1;
    std::string channel;
    double timeout_s = 60;
    JsonStyle json = JsonStyle::automatic;
};
int wait(const WaitOptions &options);

int explain_error(int code);

struct ValidateOptions {
    std::string field;
    std::vector<std::string> values;
};
int validate(const ValidateOptions &options);
std::vector<std::string> validated_fields();

struct ShmOptions {
    std::string name;
    std::string value;
    bool integer = false;
    bool create = false;
    size_t size = 256;
};
int shm_get(const ShmOptions &options);
int shm_set(const ShmOptions &options);
int shm_list();
int shm_remove(const ShmOptions &options);

struct DbOptions {
    std::string file;
    std::string schema; ///< file of statements; for a check: what to compare with, if not empty
    std::string data;   ///< another one, for the rows that a new database begins with
};
int db_check(const DbOptions &options);
int db_init(const DbOptions &options);

struct LogLevelOptions : Question {
    std::string daemon; ///< empty: all are shown
    std::string level;  ///< empty: is shown, not set
    std::string file;
    bool edit_only = false; ///< leaves out the reload
};
int log_level(const LogLevelOptions &options);
std::vector<std::string> log_level_words();
/** Those that the file or the router knows, without a complaint when either cannot be asked. */
std::vector<std::string> daemon_names(const LogLevelOptions &options);

} // namespace tavrixctl

#endif
