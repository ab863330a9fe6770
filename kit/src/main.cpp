/*
 * A whole daemon in one call: the command line that every service has, then open, run, close.
 */
#include <cerrno>
#include <cstdio>

#include <getopt.h>

#include "internal.h"

namespace {

constexpr char unit_name[] = "service_main";
constexpr int usage_error = 2;
constexpr size_t max_listened = 16;

/** The addresses that one option has collected, ended by null. */
template <size_t most>
struct Addresses {
    const char *list[most + 1] = {};
    size_t count = 0;

    bool add(const char *address) {
        if (count == most) {
            return false;
        }
        list[count++] = address;
        return true;
    }
    const char *const *or_else(const char *const *given) const { return count > 0 ? list : given; }
};

struct CommandLine {
    tavrix_service_options options;
    Addresses<TAVRIX_SERVICE_MAX_ADDRESSES> publish;
    Addresses<max_listened> connect;
    bool finished = false;
};

void print_help(const tavrix_service_options &options, const char *program) {
    std::printf("usage: %s [OPTION]...\n%s\n\n", program, options.summary != nullptr ? options.summary : options.name);
    std::printf("  --session PATH     the router's session socket (default TAVRIX_SESSION, or %s)\n"
                "  --publish ADDRESS  bus address to publish on; may be repeated (default: in the router's folder)\n"
                "  --connect ADDRESS  further bus address to listen to; may be repeated\n"
                "  --bus              take requests on the bus instead of on the session\n"
                "  --need-router      end when the router is not there at the start, instead of waiting for it\n"
                "  -h, --help         show this\n"
                "  -V, --version      show the version\n\n"
                "SIGTERM and SIGINT end the service, SIGHUP makes it reread its logger's configuration.\n"
                "exit status: 0 ended by a signal, 1 cannot start or go on, 2 wrong usage\n",
                TAVRIX_SERVICE_SESSION);
}

bool complain(const char *program, const char *what, const char *word) {
    std::fprintf(stderr, "%s: %s %s\nTry '%s --help'.\n", program, what, word, program);
    return false;
}

bool take_option(CommandLine *line, int letter, const char *program) {
    switch (letter) {
    case 's':
        line->options.session = optarg;
        return true;
    case 'p':
        return line->publish.add(optarg) || complain(program, "too many addresses:", optarg);
    case 'c':
        return line->connect.add(optarg) || complain(program, "too many addresses:", optarg);
    case 'b':
        line->options.flags |= TAVRIX_SERVICE_BUS;
        return true;
    case 'n':
        line->options.flags |= TAVRIX_SERVICE_NEED_ROUTER;
        return true;
    case 'h':
        print_help(line->options, program);
        line->finished = true;
        return true;
    case 'V':
        std::printf("%s%s%s\n", line->options.name, line->options.version != nullptr ? " " : "",
                    line->options.version != nullptr ? line->options.version : "");
        line->finished = true;
        return true;
    default:
        std::fprintf(stderr, "Try '%s --help'.\n", program); // getopt has said why
        return false;
    }
}

bool read_command_line(int argc, char **argv, CommandLine *line) {
    static const option known[] = {
        {"session", required_argument, nullptr, 's'}, {"publish", required_argument, nullptr, 'p'},
        {"connect", required_argument, nullptr, 'c'}, {"bus", no_argument, nullptr, 'b'},
        {"need-router", no_argument, nullptr, 'n'},   {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},       {nullptr, 0, nullptr, 0}};
    const char *program = argc > 0 ? argv[0] : line->options.name;
    for (int letter = 0; (letter = getopt_long(argc, argv, "hV", known, nullptr)) != -1;) {
        if (!take_option(line, letter, program)) {
            return false;
        }
        if (line->finished) {
            return true;
        }
    }
    return optind == argc || complain(program, "unexpected word:", argv[optind]);
}

} // namespace

int tavrix_service_main(const tavrix_service_options *options, int argc, char **argv) {
    if (options == nullptr || options->name == nullptr) {
        std::fprintf(stderr, "%s: a service needs a name in its options\n", argc > 0 ? argv[0] : "service");
        return usage_error;
    }
    CommandLine line{};
    line.options = *options;
    if (!read_command_line(argc, argv, &line)) {
        return usage_error;
    }
    if (line.finished) {
        return 0;
    }
    line.options.publish = line.publish.or_else(options->publish);
    line.options.connect = line.connect.or_else(options->connect);
    tavrix_service *service = nullptr;
    int rc = tavrix_service_open(&line.options, &service);
    if (rc == TAVRIX_OK) {
        rc = options->start != nullptr ? options->start(service, options->user) : TAVRIX_OK;
        rc = rc < 0 ? rc : tavrix_service_run(service);
        if (options->stop != nullptr) {
            options->stop(service, options->user);
        }
    }
    tavrix_service_close(service);
    if (rc < 0) {
        LOG_ERROR("%s ends with a failure: %s\n", options->name, tavrix_error_decode(rc));
    }
    return rc < 0 ? 1 : 0;
}
