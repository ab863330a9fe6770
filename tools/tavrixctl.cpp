/*
 * tavrixctl: the command line of the middleware. Sends requests, watches the bus, explains codes.
 *
 * This file holds the command line only; the verbs are in verb_*.cpp.
 */
#include <functional>
#include <memory>

#include <CLI/CLI.hpp>

#include "completion.h"
#include "support.h"
#include "tavrix_service.h"
#include "verbs.h"
#include "words.h"

namespace {

using namespace tavrixctl;

constexpr char version_text[] = "tavrixctl " TAVRIX_VERSION;
constexpr char params_help[] = "key=text, key:=json, a JSON object, @FILE or - (standard input) with one";

constexpr char slot_help[] = "The slot's name, beginning with '/'";

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

/** What the chosen verb does. */
using Run = std::function<int()>;

/** The options of a verb, which the action takes when it is the chosen one. */
template <class Options, class Action>
Options &options_of(CLI::App *verb, Run *run, Action action) {
    const auto options = std::make_shared<Options>();
    verb->callback([=] { *run = [=] { return action(*options); }; });
    return *options;
}

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
                                TAVRIX_SERVICE_SESSION);
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

/** `style` is kept as it is unless one of the words is given. */
template <class Style>
void add_json(CLI::App *verb, Style *style, const std::string &help, const std::vector<std::string> &words) {
    const auto store = [style](const std::string &word) {
        *style = word == "pretty" ? JsonStyle::pretty : word == "lines" ? JsonStyle::lines : JsonStyle::single_line;
    };
    verb->add_option_function<std::string>("--json", store, help)->check(CLI::IsMember(words));
}
void add_json(CLI::App *verb, JsonStyle *style) {
    add_json(verb, style,
             "Print JSON on several lines (pretty) or on one (short); default: pretty on a terminal, short otherwise",
             json_words);
}
/** What is shown for people unless one of the words is given. */
void add_json(CLI::App *verb, std::optional<JsonStyle> *style) {
    add_json(verb, style, "Print JSON, on several lines (pretty) or on one (short)", json_words);
}

template <class Options>
void add_question(CLI::App *verb, Options *options) {
    add_router(verb, &options->target);
    add_timeout(verb, &options->timeout_s);
}

void add_call(CLI::App &app, Run *run) {
    CLI::App *verb =
        add_verb(app, "call", "Send one request and print its result",
                 "  tavrixctl call ports.Get port_id=c1-1\n"
                 "  tavrixctl call ports.SetVlanAccess port_id=d2 vlan_id:=20\n"
                 "  tavrixctl call ports.Get '{\"port_id\":\"all\"}' --full\n"
                 "  echo '{\"port_id\":\"c1-1\",\"status\":\"enable\"}' | tavrixctl call ports.SetEnabled -\n"
                 "  tavrixctl call --direct /run/tavrix/events.sock events.Last");
    auto &options = options_of<CallOptions>(verb, run, call);
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
}

void add_send(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "send", "Send a text as it stands and print the reply",
                              "  tavrixctl send '{\"jsonrpc\":\"2.0\",\"method\":\"router.Status\",\"id\":7}'");
    auto &options = options_of<SendOptions>(verb, run, tavrixctl::send);
    verb->add_option("TEXT", options.text, "What to send, or - to read it from standard input")->required();
    add_router(verb, &options.target);
    add_direct(verb, &options.target);
    add_timeout(verb, &options.timeout_s);
    add_json(verb, &options.json);
}

void add_monitor(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "monitor", "Print what passes: requests with their replies, and notifications",
                              "  tavrixctl monitor\n"
                              "  tavrixctl monitor 'ports.*' --slower-than 0.001\n"
                              "  tavrixctl monitor --json lines --record traffic.json\n"
                              "  tavrixctl monitor tcp://127.0.0.1:7001 tcp://127.0.0.1:7002\n"
                              "  tavrixctl monitor tcp://127.0.0.1:7003 --channel events");
    auto &options = options_of<MonitorOptions>(verb, run, monitor);
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
    add_json(verb, &options.json, "Print JSON: on several lines (pretty), on one (short), an object a line (lines)",
             monitor_words);
}

void add_replay(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "replay", "Send recorded requests once more, to a test system",
                              "  tavrixctl replay traffic.json --session session.sock --speed 0");
    auto &options = options_of<ReplayOptions>(verb, run, replay);
    verb->add_option("FILE", options.file, "What monitor --record has written")->required();
    verb->add_option("--speed", options.speed, "Times as fast as recorded; 0: each when the former is answered")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    // No usual path and no variable: requests that change a system are not sent to it by mistake.
    add_session(verb, &options.target)->description("The test system's socket for sessions")->required();
    add_timeout(verb, &options.timeout_s);
}

void add_status(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "status", "Show the services, clients and calls that the router knows",
                              "  tavrixctl status\n  tavrixctl status --json pretty");
    auto &options = options_of<StatusOptions>(verb, run, status);
    add_question(verb, &options);
    add_json(verb, &options.json);
}

void add_top(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "top", "Show the status again and again, busiest methods first",
                              "  tavrixctl top --interval 0.2 --count 2");
    auto &options = options_of<TopOptions>(verb, run, top);
    verb->add_option("--interval", options.interval_s, "Seconds from one look to the next")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    verb->add_option("--count", options.count, "End after so many looks");
    add_question(verb, &options);
}

void add_metrics(CLI::App &app, Run *run) {
    CLI::App *verb =
        add_verb(app, "metrics", "Print what the router counts, in Prometheus' format", "  tavrixctl metrics");
    auto &options = options_of<StatusOptions>(verb, run, metrics);
    add_question(verb, &options);
}

void add_wait_service(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "wait-service", "Wait until services are there, and the router with them",
                              "  tavrixctl wait-service portsd --timeout 10");
    auto &options = options_of<WaitServiceOptions>(verb, run, wait_service);
    verb->add_option("NAME", options.names, "The services' names")->required()->expected(1, 64);
    add_question(verb, &options);
}

/** A verb that reads the document of everything that can be called. */
CLI::App *add_discovery(CLI::App *verb, Run *run, int (*action)(const DiscoverOptions &), const std::string &word,
                        const std::string &what) {
    auto &options = options_of<DiscoverOptions>(verb, run, action);
    verb->add_option(word, options.word, what);
    add_question(verb, &options);
    return verb;
}

void add_list(CLI::App &app, Run *run) {
    add_discovery(add_verb(app, "list", "List the methods that can be called now",
                           "  tavrixctl list\n  tavrixctl list 'ports.*'"),
                  run, list_methods, "PATTERN", "A method's name, or the beginning of one followed by *");
    add_discovery(add_verb(app, "describe", "Show a method's parameters, result, errors and an example",
                           "  tavrixctl describe ports.Get"),
                  run, describe, "METHOD", "Method name")
        ->get_option("METHOD")
        ->required();
    add_discovery(add_verb(app, "docs", "Print what all services say of their methods",
                           "  tavrixctl docs --format markdown >methods.md"),
                  run, docs, "--format", "markdown, or json: the OpenRPC document; default: markdown")
        ->get_option("--format")
        ->check(CLI::IsMember(doc_words));
}

void add_push(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "push", "Send a one-way request to a daemon's pull socket",
                              "  tavrix-eventsd --pull tcp://127.0.0.1:7013 &\n"
                              "  tavrixctl push tcp://127.0.0.1:7013 events.Report '{\"text\":\"door open\"}'");
    auto &options = options_of<PushOptions>(verb, run, push);
    verb->add_option("ADDRESS", options.address, "Address of the pull socket")->required();
    verb->add_option("METHOD", options.method, "Method name")->required();
    verb->add_option("PARAMS", options.params, params_help)->expected(0, most_params);
    add_timeout(verb, &options.timeout_s);
}

void add_subscribe(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "subscribe", "Print notifications as they are published",
                              "  tavrixctl subscribe 'events.*' --count 2\n"
                              "  tavrixctl subscribe events.LinkChanged --json short --count 1");
    auto &options = options_of<SubscribeOptions>(verb, run, subscribe);
    verb->add_option("PATTERN", options.patterns, "Methods, or beginnings of some followed by '*'")
        ->required()
        ->expected(1, 64);
    verb->add_option("--count", options.count, "End after so many");
    add_session(verb, &options.target);
    verb->add_option("--timeout", options.timeout_s, "Seconds to wait at most; default: for ever")
        ->check(CLI::Range(0.001, 1e6));
    add_json(verb, &options.json);
}

void add_wait(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "wait", "Wait for a notification and print it",
                              "  tavrixctl wait events.LinkChanged\n"
                              "  tavrixctl wait events.LinkChanged entity=c1-1 --timeout 10\n"
                              "  tavrixctl wait events.LinkChanged tcp://127.0.0.1:7003");
    auto &options = options_of<WaitOptions>(verb, run, tavrixctl::wait);
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
}

void add_error(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "error", "Explain a status or a JSON-RPC error code",
                              "  tavrixctl error -35\n  tavrixctl error -32602");
    verb->add_option("CODE", options_of<int>(verb, run, explain_error), "A number of either numbering")->required();
}

void add_validate(CLI::App &app, Run *run) {
    std::string fields = "fields:\n ";
    for (const std::string &name : validated_fields()) {
        fields += " " + name;
    }
    CLI::App *verb =
        add_verb(app, "validate", "Check a value as a request's field",
                 "  tavrixctl validate port_id c128-99\n  tavrixctl validate date_time 2026-05-01 13:45\n\n" + fields);
    auto &options = options_of<ValidateOptions>(verb, run, validate);
    verb->add_option("FIELD", options.field, "The field's name, see below")->required();
    verb->add_option("VALUE", options.values, "The value; date_time takes two")->required()->expected(1, 2);
}

void add_shm(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "shm", "Show, read, write or remove shared-memory slots",
                              "  tavrixctl shm get /tavrix_last_event --int\n"
                              "  tavrixctl shm set /note 'maintenance at noon' --create");
    verb->require_subcommand(1);
    CLI::App *get = add_verb(*verb, "get", "Print the slot's value", "  tavrixctl shm get /tavrix_last_event --int");
    CLI::App *set =
        add_verb(*verb, "set", "Store a value in the slot", "  tavrixctl shm set /note 'maintenance at noon' --create");
    auto &setting = options_of<ShmOptions>(set, run, shm_set);
    for (const auto &[action, options] :
         {std::pair(get, &options_of<ShmOptions>(get, run, shm_get)), std::pair(set, &setting)}) {
        action->add_option("NAME", options->name, slot_help)->required();
        action->add_flag("--int", options->integer, "The slot holds an integer, not a text");
        action->add_option("--size", options->size, "Size of a text slot in bytes")
            ->check(CLI::Range(size_t{1}, size_t{1} << 20))
            ->capture_default_str();
    }
    set->add_option("VALUE", setting.value, "What to store")->required();
    set->add_flag("--create", setting.create, "Create the slot first; an old one is resized and cleared");
    add_verb(*verb, "list", "Show every slot", "  tavrixctl shm list")->callback([run] { *run = shm_list; });
    CLI::App *rm = add_verb(*verb, "rm", "Remove a slot; who has it open keeps it", "  tavrixctl shm rm /note");
    rm->add_option("NAME", options_of<ShmOptions>(rm, run, shm_remove).name, slot_help)->required();
}

void add_db(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "db", "Check the configuration database, or make one",
                              "  tavrixctl db init new.db --schema schema.sql\n  tavrixctl db check");
    verb->require_subcommand(1);
    CLI::App *check = add_verb(*verb, "check", "Check its integrity and show version and tables",
                               "  tavrixctl db check\n  tavrixctl db check --schema schema.sql");
    CLI::App *init = add_verb(*verb, "init", "Make a new one; one that exists stays as it is",
                              "  tavrixctl db init another.db --schema schema.sql");
    auto &checking = options_of<DbOptions>(check, run, db_check);
    auto &making = options_of<DbOptions>(init, run, db_init);
    check->add_option("FILE", checking.file, "The database")->default_val(TAVRIX_CFGDB_PATH);
    init->add_option("FILE", making.file, "The database")->default_val(TAVRIX_CFGDB_PATH);
    check->add_option("--schema", checking.schema, "SQL file whose tables it has to have");
    init->add_option("--schema", making.schema, "SQL file that makes its tables")->default_val(TAVRIX_SCHEMA_PATH);
    init->add_option("--data", making.data, "SQL file that makes its first rows");
}

void add_log_level(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "log-level", "Set a daemon's log level and make the daemons reread it",
                              "  tavrixctl log-level portsd verbose");
    auto &options = options_of<LogLevelOptions>(verb, run, log_level);
    verb->add_option("DAEMON", options.daemon, "The daemon's name in the logger's configuration");
    verb->add_option("LEVEL", options.level, "off, info, debug or verbose")->check(CLI::IsMember(log_level_words()));
    verb->add_option("--file", options.file, "The logger's configuration file")->default_val(TAVRIX_LSYSLOG_CONF_PATH);
    verb->add_flag("--no-reload", options.edit_only,
                   "Only edit the file, and ask nobody whether there is such a daemon");
    add_question(verb, &options);
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

void add_help(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "help", "Explain a verb", "  tavrixctl help call\n  tavrixctl help shm get");
    using Words = std::vector<std::string>;
    auto &asked_for = options_of<Words>(verb, run, [&app](const Words &words) {
        if (!find_stranger(app, words).empty()) {
            return exit_usage;
        }
        CLI::App *asked = &app;
        std::string name = app.get_name();
        for (const std::string &word : words) {
            asked = find_verb(asked, word);
            name += " " + word;
        }
        // Not by help(), which explains the verb that was chosen: this one.
        std::string help = asked->get_formatter()->make_help(asked, name, CLI::AppFormatMode::Normal);
        help.erase(help.find_last_not_of('\n') + 1);
        return printed(print_line(help));
    });
    verb->add_option("VERB", asked_for, "The verb, and its own")->expected(0, 2);
}

void add_completion(CLI::App &app, Run *run) {
    CLI::App *verb = add_verb(app, "completion", "Print the shell's completion script",
                              "  source <(tavrixctl completion bash)\n  source <(tavrixctl completion zsh)");
    auto &chosen = options_of<std::string>(
        verb, run, [](const std::string &shell) { return printed(print_line(completion_script(shell))); });
    verb->add_option("SHELL", chosen, "bash or zsh")->required()->check(CLI::IsMember(shells));
}

} // namespace

int main(int argc, char **argv) {
    Run run;
    bool show_log = false;
    CLI::App app("The command line of the tavrix middleware", "tavrixctl");
    app.set_version_flag("-V,--version", version_text);
    app.add_flag("--log", show_log, "Show the library's own log lines on standard error");
    app.require_subcommand(1);
    app.footer(general_footer);
    for (auto add : {add_call, add_send, add_status, add_top, add_metrics, add_wait_service, add_list, add_monitor,
                     add_replay, add_push, add_subscribe, add_wait, add_error, add_validate, add_shm, add_db,
                     add_log_level, add_help, add_completion}) {
        add(app, &run);
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
    if (!show_log) {
        silence_library_log();
    }
    return run();
}
