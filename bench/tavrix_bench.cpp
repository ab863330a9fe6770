/*
 * What the library costs beside the same work done by hand, in the same run: docs/performance.md says what each row of
 * the table is. Times alone say more about the machine than about the library.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <jansson.h>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <pcre.h>
#include <sys/time.h>
#include <unistd.h>

#include "internal/tavrix_validation_seam.h"
#include "tavrix.h"

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

// --- Validators ---

constexpr char mac[] = "aa:bb:cc:dd:ee:ff";

void validate(benchmark::State &state) {
    set_level("off");
    for (auto _ : state) {
        benchmark::DoNotOptimize(validate_mac_address(mac));
    }
}
BENCHMARK(validate)->Name("validate/mac");

/** The validator's own pattern and PCRE. */
struct MacPattern {
    MacPattern() {
        const char *error = nullptr;
        int offset = 0;
        code = pcre_compile(tavrix_validation_pattern_of("MAC Address"), 0, &error, &offset, nullptr);
    }
    MacPattern(const MacPattern &) = delete;
    MacPattern &operator=(const MacPattern &) = delete;
    ~MacPattern() {
        pcre_free_study(study);
        pcre_free(code);
    }
    void study_with(int options) {
        const char *error = nullptr;
        study = pcre_study(code, options, &error);
    }
    int match() const {
        int vector[10];
        return pcre_exec(code, study, mac, static_cast<int>(std::strlen(mac)), 0, 0, vector, 10);
    }
    pcre *code = nullptr;
    pcre_extra *study = nullptr;
};

void match_kept(benchmark::State &state) {
    MacPattern pattern;
    pattern.study_with(PCRE_STUDY_JIT_COMPILE);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pattern.match());
    }
}
BENCHMARK(match_kept)->Name("validate/pcre, kept");

void match_once(benchmark::State &state) {
    for (auto _ : state) {
        MacPattern pattern;
        pattern.study_with(0);
        benchmark::DoNotOptimize(pattern.match());
    }
}
BENCHMARK(match_once)->Name("validate/pcre, for the call");

// --- Evaluation ---

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

/** What an evaluation cannot do without: reading the request, a look at its members, and printing the response. */
void parse_and_print(benchmark::State &state) {
    json_t *response =
        json_loads(R"({"jsonrpc":"2.0","id":"ports.Get","transaction_id":7,"result":"c12-5"})", 0, nullptr);
    for (auto _ : state) {
        json_t *value = json_loads(request, 0, nullptr);
        for (const char *member : {"jsonrpc", "id", "method", "transaction_id", "params"}) {
            benchmark::DoNotOptimize(json_object_get(value, member));
        }
        char *text = json_dumps(response, JSON_COMPACT | JSON_ENSURE_ASCII);
        benchmark::DoNotOptimize(text);
        std::free(text);
        json_decref(value);
    }
    json_decref(response);
}
BENCHMARK(parse_and_print)->Name("evaluate/jansson alone");

// --- Log lines ---

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

__attribute__((noinline)) void print_by_hand(const char *file, int line, int value, const char *text) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char time_text[80];
    std::strftime(time_text, sizeof time_text, "%Y-%m-%d %X", &local);
    std::fprintf(stderr, "[%s.%03u] [%s] [%s: %s:%d] value <%d> of <%s>\n", time_text,
                 static_cast<unsigned>(now.tv_usec / 1000), "VERB ", "bench", file, line, value, text);
}

void line_by_hand(benchmark::State &state) {
    for (auto _ : state) {
        print_by_hand("bench", __LINE__, 5, "text");
    }
}
BENCHMARK(line_by_hand)->Name("log/by hand");

volatile int level_by_hand = 0;
__attribute__((noinline)) int is_on(int level) { return level_by_hand >= level ? 1 : 0; }

void guard_by_hand(benchmark::State &state) {
    for (auto _ : state) {
        if (is_on(TAVRIX_LOG_VERBOSE)) {
            print_by_hand("bench", __LINE__, 5, "text");
        }
    }
}
BENCHMARK(guard_by_hand)->Name("log/off by hand");

// --- Bus ---

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

// --- Rows ---

/** A row of the table. What it is worth stands in docs/performance.md: a new row, a new paragraph. */
struct Row {
    const char *name;
    const char *work;  ///< a benchmark
    const char *floor; ///< the one by hand that it is measured by
    double goal;       ///< the most that work / floor may be
};

constexpr Row rows[] = {
    {"log line, written", "log/written", "log/by hand", 0.80},
    {"log line, guarded and off", "log/guarded off", "log/off by hand", 1.50},
    {"validation, beside a kept pattern", "validate/mac", "validate/pcre, kept", 2.00},
    {"validation, beside compiling for the call", "validate/mac", "validate/pcre, for the call", 0.10},
    {"evaluation, log off", "evaluate/off", "evaluate/jansson alone", 1.50},
    {"evaluation, level info", "evaluate/info", "evaluate/jansson alone", 1.50},
    {"bus message, there", "bus/wrapped", "bus/nanomsg alone", 1.10},
};

/** Keeps each benchmark's best time: what other processes did meanwhile can only add to it. */
class Keeper : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context & /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                const double time = run.GetAdjustedCPUTime();
                const auto [place, is_new] = times_.emplace(run.run_name.function_name, time);
                place->second = is_new ? time : std::min(place->second, time);
            }
        }
    }

    /** One line a row, its parts between tabs: name, work, floor, unit, goal; none where a part did not run. */
    void print_rows(std::ostream &out) const {
        for (const Row &row : rows) {
            const auto work = times_.find(row.work);
            const auto floor = times_.find(row.floor);
            if (work != times_.end() && floor != times_.end()) {
                out << row.name << '\t' << work->second << '\t' << floor->second << "\tns\t" << row.goal << '\n';
            }
        }
    }

  private:
    std::map<std::string, double> times_;
};

/** Sends standard error to the null device and leaves it unbuffered, as a daemon's is: each line is a write. */
bool silence() {
    const int null_device = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return null_device >= 0 && dup2(null_device, STDERR_FILENO) >= 0;
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || !silence()) {
        return 2;
    }
    Keeper keeper;
    benchmark::RunSpecifiedBenchmarks(&keeper);
    keeper.print_rows(std::cout);
    return 0;
}
