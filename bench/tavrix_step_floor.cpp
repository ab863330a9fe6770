/*
 * A serving step without its transport, beside what no step can do without: reading the request once, finding the
 * method, rendering the response once. scripts/bench-instructions.sh counts the instructions of both.
 *
 * The two bus calls of the library are replaced at link time, and the count pauses inside the replacements.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <jansson.h>

#include "tavrix.h"

namespace {

struct Shape {
    const char *name;
    const char *request;
    const char *result;
};

constexpr Shape shapes[] = {
    {"short", R"({"jsonrpc":"2.0","id":"R1","method":"ports.Get"})", "0"},
    {"usual",
     R"({"jsonrpc":"2.0","id":")" TAVRIX_ROUTER_REPLY_CHANNEL R"(","method":"ports.Get",)"
     R"("params":{"port_id":"c12-5"},"transaction_id":7})",
     R"({"port_id":"c12-5","port_status":1,"link_speed":1000,"vlan_ids":[10,20,30],"description":"lobby"})"},
    {"long", nullptr, nullptr}, // made below: the parameters and the result of 64 ports
};

json_t *result = nullptr;
json_t *response = nullptr;
std::string request;
std::string frame;
std::string published;

int get(json_t * /*params*/, json_t **result_out, json_t ** /*error_data*/) {
    *result_out = json_incref(result);
    return TAVRIX_OK;
}

const tavrix_jrpc_method table[] = {{"ports.SetEnabled", get}, {"ports.Get", get}, {nullptr, nullptr}};

[[noreturn]] void give_up(const char *why) {
    std::fprintf(stderr, "tavrix_step_floor: %s\n", why);
    std::exit(1);
}

/** A list of as many ports as a unit has. */
std::string many_ports() {
    std::string list = "[";
    for (int port = 1; port <= 64; ++port) {
        list += std::string(port > 1 ? "," : "") + R"({"port_number":)" + std::to_string(port) +
                R"(,"port_status":1,"link_speed":1000,"description":"lobby"})";
    }
    return list + "]";
}

void take_shape(const std::string &name) {
    for (const Shape &shape : shapes) {
        if (name == shape.name) {
            request = shape.request != nullptr
                          ? shape.request
                          : R"({"jsonrpc":"2.0","id":"R1","method":"ports.Get","params":{"ports":)" + many_ports() +
                                R"(},"transaction_id":7})";
            const std::string answer = shape.result != nullptr ? shape.result : many_ports();
            result = json_loads(answer.c_str(), JSON_DECODE_ANY, nullptr);
        }
    }
    json_t *asked = json_loads(request.c_str(), 0, nullptr);
    if (asked == nullptr || result == nullptr) {
        give_up("no such shape");
    }
    response = json_pack("{s:s, s:s, s:O, s:O*}", "jsonrpc", "2.0", "id", "ports.Get", "result", result,
                         "transaction_id", json_object_get(asked, "transaction_id"));
    frame = std::string(TAVRIX_CHANNEL_FIRST) + "|" + request;
    json_decref(asked);
}

/** Normal running: nothing is shown of a request that goes well. */
void log_at_info() {
    FILE *file = std::fopen("tavrix_lsyslog.conf", "w");
    if (file == nullptr) {
        give_up("cannot write tavrix_lsyslog.conf");
    }
    std::fputs("[logging_levels]\nbench=info\n", file);
    std::fclose(file);
    tavrix_lsyslog_init("bench");
}

} // namespace

// Named as the script names them to the counter.
extern "C" {

int __wrap_tavrix_mq_socket_recv(int /*sock*/, char **text, int *length, int /*nonblock*/) {
    *text = strdup(frame.c_str());
    *length = static_cast<int>(frame.size());
    return TAVRIX_OK;
}

int __wrap_tavrix_mq_socket_send(int /*sock*/, const char *text) {
    published = text;
    return TAVRIX_OK;
}

__attribute__((noinline)) int measured_step() {
    int sub = 0;
    int pub = 0;
    return tavrix_jrpc_mq_run(&sub, &pub, table, 0);
}

__attribute__((noinline)) char *measured_floor() {
    json_t *asked =
        json_loads(request.c_str(), JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY, nullptr);
    const char *method = json_string_value(json_object_get(asked, "method"));
    const tavrix_jrpc_method *row = table;
    while (row->handler != nullptr && std::strcmp(row->name, method) != 0) {
        ++row;
    }
    char *text = row->handler != nullptr ? json_dumps(response, JSON_COMPACT | JSON_ENSURE_ASCII) : nullptr;
    json_decref(asked);
    return text;
}

/** The floor's text is released here, as the step releases its own. */
__attribute__((noinline)) void measured_release(char *text) { std::free(text); }
}

int main(int argc, char **argv) {
    const std::string what = argc == 4 ? argv[1] : "";
    const int rounds = argc == 4 ? std::atoi(argv[3]) : 0;
    if ((what != "step" && what != "floor") || rounds < 1) {
        give_up("usage: tavrix_step_floor step|floor short|usual|long ROUNDS");
    }
    log_at_info();
    take_shape(argv[2]);
    for (int round = 0; round < rounds; ++round) {
        if (what == "step" && measured_step() != TAVRIX_OK) {
            give_up("a step failed");
        }
        if (what == "floor") {
            char *text = measured_floor();
            published = published.empty() && text != nullptr ? text : published;
            measured_release(text);
        }
    }
    std::printf("%s\n", published.substr(published.find('{')).c_str());
    json_decref(response);
    json_decref(result);
    return 0;
}
