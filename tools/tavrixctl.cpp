/*
 * tavrixctl: the command line of the middleware. Sends requests, watches the bus, explains codes.
 *
 * This file holds the command line only; the verbs are in verb_*.cpp.
 */
#include <cstdlib>
#include <functional>
#include <iostream>

#include <CLI/CLI.hpp>

#include "completion.h"
#include "stream.h"
#include "support.h"
#include "verbs.h"
#include "words.h"

namespace {

using namespace tavrixctl;

constexpr char version_text[] = "tavrixctl " TAVRIX_VERSION;
constexpr char params_help[] = "key=text, key:=json, a JSON object, @FILE or - (standard input) with one";

constexpr int most_params = 256;

// Before a word that begins with '[', which the parser would otherwise break up into several.
constexpr char guard[] = "\x1f";

// What the completion script calls; taken before the parser, for which half a word would be wrong usage.
constexpr char complete_verb[] = "__complete";

constexpr char general_footer[] = R"(examples:
  tavrixctl call ports.Get port_id=c1-1
  tavrixctl status
  tavrixctl monitor
  tavrixctl error -35

exit status: 0 result, 1 error response or rejected value, 2 usage, 3 time-out, 4 no connection)";

/** Everything a run can be asked for, and the verb that was chosen. */
struct CommandLine {
    CallOptions call;
    SendOptions send;
    MonitorOptions monitor;
    ReplayOptions replay;
    PushOptions push;
    SubscribeOptions subscribe;
    WaitOptions wait;
    LogLevelOptions log_level;
    ShmOptions shm;
    DbOptions db_check;
    DbOptions db_init;
    StatusOptions status;
    TopOptions top;
    WaitServiceOptions wait_service;
    DiscoverOptions list;
    DiscoverOptions describe;
    DiscoverOptions docs;
    int error_code = 0;
    std::string field;
    std::vector<std::string> values;
    std::string shell;
    bool show_log = false;
    std::function<int()> run;
};

std::string not_empty(const std::string &text) { return text.empty() ? "an empty text is none" : ""; }

CLI::App *add_verb(CLI::App &app, const std::string &name, const std::string &what, const std::string &examples) {
    CLI::App *verb = app.add_subcommand(name, what);
    verb->footer("examples:\n" + examples);
    verb->set_version_flag("-V,--version", version_text);
    return verb;
}

CLI::Option *add_session(CLI::App *verb, Target *target) {
    return verb->add_option("--session", target->session,
                            std::string("The router's socket for sessions; default: TAVRIX_SESSION, or ") +
                                default_session);
}

void add_router(CLI::App *verb, Target *target) {
    add_session(verb, target);
    CLI::Option *socket =
        verb->add_option("--socket", target->socket_path,
                         std::string("The router's socket for one request; default: TAVRIX_SOCKET, or ") +
                             tavrix::router_socket)
            ->excludes("--session");
    verb->add_option("--tcp", target->tcp, "The router's TCP socket, as HOST:PORT")
        ->excludes(socket)
        ->excludes("--session");
}

CLI::Option *add_direct(CLI::App *verb, Target *target) {
    return verb->add_option("--direct", target->direct, "A daemon's own unix socket server instead of the router")
        ->excludes("--session")
        ->excludes("--socket")
        ->excludes("--tcp");
}

void add_timeout(CLI::App *verb, double *timeout_s) {
    verb->add_option("--timeout", *timeout_s, "Seconds to wait at most")
        ->check(CLI::Range(0.001, 1e6))
        ->capture_default_str();
}

void add_json(CLI::App *verb, JsonStyle *style) {
    const std::string usual = *style == JsonStyle::automatic ? "pretty on a terminal, short otherwise" : "short";
    const auto store = [style](const std::string &word) {
        *style = word == "pretty" ? JsonStyle::pretty : JsonStyle::single_line;
    };
    verb->add_option_function<std::string>("--json", store,
                                           "Print JSON on several lines (pretty) or on one (short); default: " + usual)
        ->check(CLI::IsMember(json_words));
}

void add_call(CLI::App &app, CommandLine *line) {
    CLI::App *verb =
        add_verb(app, "call", "Send one request and print its result",
                 "  tavrixctl call ports.Get port_id=c1-1\n"
                 "  tavrixctl call ports.SetVlanAccess port_id=d2 vlan_id:=20\n"
                 "  tavrixctl call ports.Get '{\"port_id\":\"all\"}' --full\n"
                 "  echo '{\"port_id\":\"c1-1\",\"status\":\"enable\"}' | tavrixctl call ports.SetEnabled -\n"
                 "  tavrixctl call --direct /run/tavrix/events.sock events.Last");
    CallOptions &options = line->call;
    verb->add_option("METHOD", options.method, "Method name, for example ports.Get")->required();
    verb->add_option("PARAMS", options.params, params_help)->expected(0, most_params);
    verb->add_option("--id", options.id, "The request's id")->default_val("tavrixctl")->check(not_empty);
    verb->add_option("--transaction", options.transaction_id, "The request's transaction id; default: a fresh number");
    add_router(verb, &options.target);
    CLI::Option *direct = add_direct(verb, &options.target);
    verb->add_flag("--notification", options.notification, "Send no id; no answer is expected. The router takes none")
        ->needs(direct);
    verb->add_flag("--full", options.full, "Print the whole response, also when it is an error");
    add_timeout(verb, &options.timeout_s);
    add_json(verb, &options.json);
    verb->callback([line] { line->run = [line] { return call(line->call); }; });
}

void add_send(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "send", "Send a text as it stands and print the reply",
                              "  tavrixctl send '{\"jsonrpc\":\"2.0\",\"method\":\"router.Status\",\"id\":7}'");
    SendOptions &options = line->send;
    verb->add_option("TEXT", options.text, "What to send, or - to read it from standard input")->required();
    add_router(verb, &options.target);
    add_direct(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    add_json(verb, &options.json);
    verb->callback([line] { line->run = [line] { return send(line->send); }; });
}

/** What is shown for people unless one of the words is given. */
void add_optional_json(CLI::App *verb, std::optional<JsonStyle> *style) {
    const auto store = [style](const std::string &word) {
        *style = word == "pretty" ? JsonStyle::pretty : JsonStyle::single_line;
    };
    verb->add_option_function<std::string>("--json", store, "Print JSON, on several lines (pretty) or on one (short)")
        ->check(CLI::IsMember(json_words));
}

void add_monitor(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "monitor", "Print what passes: requests with their replies, and notifications",
                              "  tavrixctl monitor\n"
                              "  tavrixctl monitor 'ports.*' --slower-than 0.001\n"
                              "  tavrixctl monitor --json lines --record traffic.json\n"
                              "  tavrixctl monitor tcp://127.0.0.1:7001 tcp://127.0.0.1:7002\n"
                              "  tavrixctl monitor tcp://127.0.0.1:7003 --channel events");
    MonitorOptions &options = line->monitor;
    verb->add_option("WORD", options.words,
                     "Methods, or beginnings of some followed by '*'; bus addresses to listen to instead of asking the "
                     "router")
        ->expected(0, most_params);
    verb->add_option("--service", options.service, "Only what this service answers or publishes");
    verb->add_flag("--errors", options.errors_only, "Only requests that ended otherwise than with a result");
    verb->add_option("--slower-than", options.slower_than_ms, "Only requests that took more milliseconds")
        ->check(CLI::Range(0.0, 1e9));
    verb->add_option("--record", options.record, "Write what is printed to this file as well, a JSON object a line");
    verb->add_option("--channel", options.channels,
                     "Only channels of the bus that begin so, or that have this short name; may be repeated")
        ->expected(1)
        ->allow_extra_args(false)
        ->take_all();
    verb->add_option("--count", options.count, "End after so many lines");
    add_session(verb, &options.target);
    const auto store = [&options](const std::string &word) {
        options.json = word == "pretty"  ? JsonStyle::pretty
                       : word == "lines" ? JsonStyle::lines
                                         : JsonStyle::single_line;
    };
    verb->add_option_function<std::string>(
            "--json", store, "Print JSON: on several lines (pretty), on one (short), an object a line (lines)")
        ->check(CLI::IsMember(monitor_words));
    verb->callback([line] { line->run = [line] { return monitor(line->monitor); }; });
}

void add_replay(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "replay", "Send recorded requests once more, to a test system",
                              "  tavrixctl replay traffic.json --session session.sock --speed 0");
    ReplayOptions &options = line->replay;
    verb->add_option("FILE", options.file, "What monitor --record has written")->required();
    verb->add_option("--speed", options.speed, "Times as fast as recorded; 0: each when the former is answered")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    // No usual path and no variable: requests that change a system are not sent to it by mistake.
    add_session(verb, &options.target)->description("The test system's socket for sessions")->required();
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return replay(line->replay); }; });
}

void add_status(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "status", "Show the services, clients and calls that the router knows",
                              "  tavrixctl status\n  tavrixctl status --json pretty");
    StatusOptions &options = line->status;
    add_router(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    add_optional_json(verb, &options.json);
    verb->callback([line] { line->run = [line] { return status(line->status); }; });
}

void add_top(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "top", "Show the status again and again, busiest methods first",
                              "  tavrixctl top --interval 0.2 --count 2");
    TopOptions &options = line->top;
    verb->add_option("--interval", options.interval_s, "Seconds from one look to the next")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    verb->add_option("--count", options.count, "End after so many looks");
    add_router(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return top(line->top); }; });
}

void add_metrics(CLI::App &app, CommandLine *line) {
    CLI::App *verb =
        add_verb(app, "metrics", "Print what the router counts, in Prometheus' format", "  tavrixctl metrics");
    StatusOptions &options = line->status;
    add_router(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return metrics(line->status); }; });
}

void add_wait_service(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "wait-service", "Wait until services are there, and the router with them",
                              "  tavrixctl wait-service portsd --timeout 10");
    WaitServiceOptions &options = line->wait_service;
    verb->add_option("NAME", options.names, "The services' names")->required()->expected(1, 64);
    add_router(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return wait_service(line->wait_service); }; });
}

void add_discovery(CLI::App &app, CommandLine *line) {
    CLI::App *list = add_verb(app, "list", "List the methods that can be called now",
                              "  tavrixctl list\n  tavrixctl list 'ports.*'");
    list->add_option("PATTERN", line->list.word, "A method's name, or the beginning of one followed by *");
    CLI::App *describe = add_verb(app, "describe", "Show a method's parameters, result, errors and an example",
                                  "  tavrixctl describe ports.Get");
    describe->add_option("METHOD", line->describe.word, "Method name")->required();
    CLI::App *docs = add_verb(app, "docs", "Print what all services say of their methods",
                              "  tavrixctl docs --format markdown >methods.md");
    line->docs.word = doc_words.front();
    docs->add_option("--format", line->docs.word, "markdown, or json: the OpenRPC document; default: markdown")
        ->check(CLI::IsMember(doc_words));
    add_router(list, &line->list.target);
    add_timeout(list, &line->list.timeout_s);
    add_router(describe, &line->describe.target);
    add_timeout(describe, &line->describe.timeout_s);
    add_router(docs, &line->docs.target);
    add_timeout(docs, &line->docs.timeout_s);
    list->callback([line] { line->run = [line] { return list_methods(line->list); }; });
    describe->callback([line] { line->run = [line] { return tavrixctl::describe(line->describe); }; });
    docs->callback([line] { line->run = [line] { return tavrixctl::docs(line->docs); }; });
}

void add_push(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "push", "Send a one-way request to a daemon's pull socket",
                              "  tavrix-eventsd --pull tcp://127.0.0.1:7013 &\n"
                              "  tavrixctl push tcp://127.0.0.1:7013 events.Report '{\"text\":\"door open\"}'");
    PushOptions &options = line->push;
    verb->add_option("ADDRESS", options.address, "Address of the pull socket")->required();
    verb->add_option("METHOD", options.method, "Method name")->required();
    verb->add_option("PARAMS", options.params, params_help)->expected(0, most_params);
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return push(line->push); }; });
}

void add_subscribe(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "subscribe", "Print notifications as they are published",
                              "  tavrixctl subscribe 'events.*' --count 2\n"
                              "  tavrixctl subscribe events.LinkChanged --json short --count 1");
    SubscribeOptions &options = line->subscribe;
    verb->add_option("PATTERN", options.patterns, "Methods, or beginnings of some followed by '*'")
        ->required()
        ->expected(1, 64);
    verb->add_option("--count", options.count, "End after so many");
    add_session(verb, &options.target);
    verb->add_option("--timeout", options.timeout_s, "Seconds to wait at most; default: for ever")
        ->check(CLI::Range(0.001, 1e6));
    add_optional_json(verb, &options.json);
    verb->callback([line] { line->run = [line] { return subscribe(line->subscribe); }; });
}

void add_wait(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "wait", "Wait for a notification and print it",
                              "  tavrixctl wait events.LinkChanged\n"
                              "  tavrixctl wait events.LinkChanged entity=c1-1 --timeout 10\n"
                              "  tavrixctl wait events.LinkChanged tcp://127.0.0.1:7003");
    WaitOptions &options = line->wait;
    verb->add_option("METHOD", options.method, "The notification's method name")->required();
    verb->add_option("WORD", options.words,
                     "What its params have to hold, as key=text or key:=json; bus addresses to listen to instead of "
                     "asking the router")
        ->expected(0, most_params);
    verb->add_option("--count", options.count, "End after so many")
        ->check(CLI::Range(1U, 1000000U))
        ->capture_default_str();
    verb->add_option("--channel", options.channel, "Only channels of the bus that begin so");
    add_session(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    add_json(verb, &options.json);
    verb->callback([line] { line->run = [line] { return wait(line->wait); }; });
}

void add_error(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "error", "Explain a status or a JSON-RPC error code",
                              "  tavrixctl error -35\n  tavrixctl error -32602");
    verb->add_option("CODE", line->error_code, "A number of either numbering")->required();
    verb->callback([line] { line->run = [line] { return explain_error(line->error_code); }; });
}

void add_validate(CLI::App &app, CommandLine *line) {
    std::string fields = "fields:\n ";
    for (const std::string &name : validated_fields()) {
        fields += " " + name;
    }
    CLI::App *verb =
        add_verb(app, "validate", "Check a value as a request's field",
                 "  tavrixctl validate port_id c128-99\n  tavrixctl validate date_time 2026-05-01 13:45\n\n" + fields);
    verb->add_option("FIELD", line->field, "The field's name, see below")->required();
    verb->add_option("VALUE", line->values, "The value; date_time takes two")->required()->expected(1, 2);
    verb->callback([line] { line->run = [line] { return validate(line->field, line->values); }; });
}

void add_shm(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "shm", "Show, read, write or remove shared-memory slots",
                              "  tavrixctl shm get /tavrix_last_event --int\n"
                              "  tavrixctl shm set /note 'maintenance at noon' --create");
    verb->require_subcommand(1);
    ShmOptions &options = line->shm;
    CLI::App *get = add_verb(*verb, "get", "Print the slot's value", "  tavrixctl shm get /tavrix_last_event --int");
    CLI::App *set =
        add_verb(*verb, "set", "Store a value in the slot", "  tavrixctl shm set /note 'maintenance at noon' --create");
    for (CLI::App *action : {get, set}) {
        action->add_option("NAME", options.name, "The slot's name, beginning with '/'")->required();
        action->add_flag("--int", options.integer, "The slot holds an integer, not a text");
        action->add_option("--size", options.size, "Size of a text slot in bytes")
            ->check(CLI::Range(size_t{1}, size_t{1} << 20))
            ->capture_default_str();
    }
    set->add_option("VALUE", options.value, "What to store")->required();
    set->add_flag("--create", options.create, "Create the slot first; an old one is resized and cleared");
    add_verb(*verb, "list", "Show every slot", "  tavrixctl shm list")->callback([line] { line->run = shm_list; });
    CLI::App *rm = add_verb(*verb, "rm", "Remove a slot; who has it open keeps it", "  tavrixctl shm rm /note");
    rm->add_option("NAME", options.name, "The slot's name, beginning with '/'")->required();
    rm->callback([line] { line->run = [line] { return shm_remove(line->shm); }; });
    get->callback([line] { line->run = [line] { return shm_get(line->shm); }; });
    set->callback([line] { line->run = [line] { return shm_set(line->shm); }; });
}

void add_db(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "db", "Check the configuration database, or make one",
                              "  tavrixctl db init new.db --schema schema.sql\n  tavrixctl db check");
    verb->require_subcommand(1);
    CLI::App *check = add_verb(*verb, "check", "Check its integrity and show version and tables",
                               "  tavrixctl db check\n  tavrixctl db check --schema schema.sql");
    CLI::App *init = add_verb(*verb, "init", "Make a new one; one that exists stays as it is",
                              "  tavrixctl db init another.db --schema schema.sql");
    for (const auto &[action, options] : {std::pair(check, &line->db_check), std::pair(init, &line->db_init)}) {
        action->add_option("FILE", options->file, "The database")->default_val(TAVRIX_CFGDB_PATH);
    }
    check->add_option("--schema", line->db_check.schema, "SQL file whose tables it has to have");
    init->add_option("--schema", line->db_init.schema, "SQL file that makes its tables")
        ->default_val(TAVRIX_SCHEMA_PATH);
    init->add_option("--data", line->db_init.data, "SQL file that makes its first rows");
    check->callback([line] { line->run = [line] { return db_check(line->db_check); }; });
    init->callback([line] { line->run = [line] { return db_init(line->db_init); }; });
}

void add_log_level(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "log-level", "Set a daemon's log level and make the daemons reread it",
                              "  tavrixctl log-level portsd verbose");
    LogLevelOptions &options = line->log_level;
    verb->add_option("DAEMON", options.daemon, "The daemon's name in the logger's configuration");
    verb->add_option("LEVEL", options.level, "off, info, debug or verbose")->check(CLI::IsMember(log_level_words()));
    verb->add_option("--file", options.file, "The logger's configuration file")->default_val(TAVRIX_LSYSLOG_CONF_PATH);
    verb->add_flag("--no-reload", options.edit_only,
                   "Only edit the file, and ask nobody whether there is such a daemon");
    add_router(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    verb->callback([line] { line->run = [line] { return log_level(line->log_level); }; });
}

/** The first of the words that should be a verb and is none, complained about; empty when all is well. */
std::string find_stranger(CLI::App &app, const std::vector<std::string> &words) {
    CLI::App *parent = &app;
    for (const std::string &word : words) {
        CLI::App *verb = find_verb(parent, word);
        if (verb_names(*parent).empty()) {
            return "";
        }
        if (verb != nullptr) {
            parent = verb;
        } else if (word.rfind('-', 0) != 0) {
            const std::string similar = nearest(word, verb_names(*parent));
            complain("there is no verb '%s'%s", printable(word).c_str(),
                     similar.empty() ? "; see tavrixctl --help" : ("; did you mean '" + similar + "'?").c_str());
            return word;
        }
    }
    return "";
}

/** Takes the guard of words off again before they are stored. */
void unguard(CLI::App *app) {
    for (CLI::Option *option : app->get_options()) {
        option->transform([](const std::string &word) { return word.substr(word.rfind(guard, 0) == 0 ? 1 : 0); });
    }
    for (CLI::App *verb : app->get_subcommands([](CLI::App *) { return true; })) {
        unguard(verb);
    }
}

void add_help(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "help", "Explain a verb", "  tavrixctl help call\n  tavrixctl help shm get");
    verb->add_option("VERB", line->values, "The verb, and its own")->expected(0, 2);
    verb->callback([line, &app] {
        line->run = [line, &app] {
            if (!find_stranger(app, line->values).empty()) {
                return static_cast<int>(exit_usage);
            }
            CLI::App *asked = &app;
            std::string name = app.get_name();
            for (const std::string &word : line->values) {
                asked = find_verb(asked, word);
                name += " " + word;
            }
            // Not by help(), which explains the verb that was chosen: this one.
            std::string help = asked->get_formatter()->make_help(asked, name, CLI::AppFormatMode::Normal);
            help.erase(help.find_last_not_of('\n') + 1);
            return print_line(help) ? static_cast<int>(exit_result) : static_cast<int>(exit_error_response);
        };
    });
}

void add_completion(CLI::App &app, CommandLine *line) {
    CLI::App *verb = add_verb(app, "completion", "Print the shell's completion script",
                              "  source <(tavrixctl completion bash)\n  source <(tavrixctl completion zsh)");
    verb->add_option("SHELL", line->shell, "bash or zsh")->required()->check(CLI::IsMember(shells));
    verb->callback([line] {
        line->run = [line] { return print_line(completion_script(line->shell)) ? exit_result : exit_error_response; };
    });
}

} // namespace

int main(int argc, char **argv) {
    CommandLine line;
    CLI::App app("The command line of the tavrix middleware", "tavrixctl");
    app.set_version_flag("-V,--version", version_text);
    app.add_flag("--log", line.show_log, "Show the library's own log lines on standard error");
    app.require_subcommand(1);
    app.footer(general_footer);
    for (auto add : {add_call, add_send, add_status, add_top, add_metrics, add_wait_service, add_discovery, add_monitor,
                     add_replay, add_push, add_subscribe, add_wait, add_error, add_validate, add_shm, add_db,
                     add_log_level, add_help, add_completion}) {
        add(app, &line);
    }
    unguard(&app);
    if (argc > 1 && std::string(argv[1]) == complete_verb) {
        return complete(app, std::vector<std::string>(argv + 2, argv + argc));
    }
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!find_stranger(app, words).empty()) {
        return exit_usage;
    }
    std::reverse(words.begin(), words.end()); // as the parser wants them
    for (std::string &word : words) {
        word.insert(0, word.rfind('[', 0) == 0 ? guard : "");
    }
    try {
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_result : exit_usage;
    }
    if (!line.show_log) {
        silence_library_log();
    }
    return line.run();
}
