/*
 * What the library's choices are worth: each pair runs the same work in two ways, and the ratio of their times is
 * printed at the end. Times alone say more about the machine than about the library.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <jansson.h>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <unistd.h>

#include "tavrix.h"
#include "tavrix_validation_internal.h"

namespace {

constexpr char request[] =
    R"({"jsonrpc":"2.0","id":"R1","method":"ports.Get","params":{"port_id":"c12-5"},"transaction_id":7})";

/** Sets the logger's level through its file; its lines go to the null device, see main(). */
void set_level(const char *word) {
    FILE *file = std::fopen("tavrix_lsyslog.conf", "w");
    if (file == nullptr) {
        std::perror("tavrix_lsyslog.conf");
        std::exit(1);
    }
    std::fprintf(file, "[logging_levels]\nbench=%s\n", word);
    std::fclose(file);
    if (tavrix_lsyslog_init("bench") != 0) {
        std::exit(1);
    }
}

// --- Validators: patterns that are kept against patterns compiled for the call ---

constexpr char mac_pattern[] = "^([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})$";

void validate_kept(benchmark::State &state) {
    set_level("off");
    for (auto _ : state) {
        benchmark::DoNotOptimize(validate_mac_address("aa:bb:cc:dd:ee:ff"));
    }
}
BENCHMARK(validate_kept)->Name("validate/kept");

void validate_compiled(benchmark::State &state) {
    set_level("off");
    for (auto _ : state) {
        benchmark::DoNotOptimize(validate_against_regex(mac_pattern, "aa:bb:cc:dd:ee:ff", "MAC"));
    }
}
BENCHMARK(validate_compiled)->Name("validate/compiled");

// --- Evaluation: a level that shows the request against one that does not ---

int get(json_t *params, json_t **result, json_t **error_data) {
    char port_id[16];
    const int rc = tavrix_jrpc_utils_retrieve_input_port_id(params, error_data, "port_id", port_id, sizeof port_id,
                                                            true, true, true, true);
    *result = rc == TAVRIX_OK ? json_string(port_id) : nullptr;
    return rc;
}

const tavrix_jrpc_method table[] = {{"ports.Get", get}, {nullptr, nullptr}};

void evaluate(benchmark::State &state, const char *level) {
    set_level(level);
    for (auto _ : state) {
        char *response = nullptr;
        benchmark::DoNotOptimize(tavrix_jrpc_eval_request(request, table, &response));
        std::free(response);
    }
}
BENCHMARK_CAPTURE(evaluate, off, "off")->Name("evaluate/off");
BENCHMARK_CAPTURE(evaluate, info, "info")->Name("evaluate/info");
BENCHMARK_CAPTURE(evaluate, verbose, "verbose")->Name("evaluate/verbose");

/** What an evaluation cannot do without: reading the request and printing a response of the same size. */
void parse_and_print(benchmark::State &state) {
    for (auto _ : state) {
        json_t *value = json_loads(request, 0, nullptr);
        char *text = json_dumps(value, JSON_COMPACT | JSON_ENSURE_ASCII);
        benchmark::DoNotOptimize(text);
        std::free(text);
        json_decref(value);
    }
}
BENCHMARK(parse_and_print)->Name("evaluate/jansson alone");

// --- Log lines: guarded and off, against written ---

void log_line(benchmark::State &state, const char *level) {
    set_level(level);
    for (auto _ : state) {
        if (tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE)) {
            tavrix_lsyslog_log(TAVRIX_LOG_VERBOSE, "bench", __LINE__, "value <%d> of <%s>\n", 5, "text");
        }
    }
}
BENCHMARK_CAPTURE(log_line, off, "off")->Name("log/guarded off");
BENCHMARK_CAPTURE(log_line, verbose, "verbose")->Name("log/written");

// --- Bus: the wrapper against bare nanomsg ---

struct Pair {
    explicit Pair(const char *address) {
        int endpoint = 0;
        if (tavrix_mq_socket_init(TAVRIX_SP_PAIR, &one) != 0 || tavrix_mq_socket_init(TAVRIX_SP_PAIR, &other) != 0 ||
            tavrix_mq_socket_bind(one, TAVRIX_TRANSPORT_INPROC, address, &endpoint) != 0 ||
            tavrix_mq_socket_connect(other, TAVRIX_TRANSPORT_INPROC, address, &endpoint) != 0) {
            std::exit(1);
        }
    }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;
    ~Pair() {
        tavrix_mq_socket_close(one);
        tavrix_mq_socket_close(other);
    }
    int one = -1;
    int other = -1;
};

void bus_wrapped(benchmark::State &state) {
    set_level("off");
    const Pair pair("inproc://wrapped");
    for (auto _ : state) {
        tavrix_mq_socket_send(pair.one, request);
        char *text = nullptr;
        int length = 0;
        benchmark::DoNotOptimize(tavrix_mq_socket_recv(pair.other, &text, &length, 0));
        std::free(text);
    }
}
BENCHMARK(bus_wrapped)->Name("bus/wrapped");

void bus_bare(benchmark::State &state) {
    const Pair pair("inproc://bare");
    for (auto _ : state) {
        void *message = nn_allocmsg(sizeof request, 0);
        std::memcpy(message, request, sizeof request);
        nn_send(pair.one, &message, NN_MSG, 0);
        void *received = nullptr;
        benchmark::DoNotOptimize(nn_recv(pair.other, &received, NN_MSG, 0));
        nn_freemsg(received);
    }
}
BENCHMARK(bus_bare)->Name("bus/nanomsg alone");

// --- Ratios ---

struct Ratio {
    const char *slower;
    const char *faster;
    const char *meaning;
};

constexpr Ratio ratios[] = {
    {"validate/compiled", "validate/kept", "a kept pattern is faster than one compiled for the call"},
    {"evaluate/verbose", "evaluate/off", "an evaluation is faster with the log off than at verbose"},
    {"evaluate/info", "evaluate/off", "what level info adds to an evaluation"},
    {"evaluate/off", "evaluate/jansson alone", "an evaluation against reading and printing its JSON"},
    {"log/written", "log/guarded off", "a guarded line that is off against one that is written"},
    {"bus/wrapped", "bus/nanomsg alone", "a message through the wrapper against bare nanomsg"},
};

/** Prints as the console does, and keeps the times. */
class Keeper : public benchmark::ConsoleReporter {
  public:
    Keeper() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_None) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void print_ratios() const {
        std::printf("\n");
        for (const Ratio &ratio : ratios) {
            const auto slower = times_.find(ratio.slower);
            const auto faster = times_.find(ratio.faster);
            if (slower != times_.end() && faster != times_.end()) {
                std::printf("%8.2f x  %s\n", slower->second / faster->second, ratio.meaning);
            }
        }
    }

  private:
    std::map<std::string, double> times_;
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    if (std::freopen("/dev/null", "w", stderr) == nullptr) {
        return 1;
    }
    Keeper keeper;
    benchmark::RunSpecifiedBenchmarks(&keeper);
    keeper.print_ratios();
    return 0;
}
