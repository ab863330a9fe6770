/*
 * Everything that may run on several threads at once does so, on each thread's own objects, and gives each what it
 * would have got alone. Built with ThreadSanitizer (scripts/test.sh --only threads) a race ends the program.
 */
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/fields.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/params.h"
#include "support/process.h"
#include "support/repeating.h"
#include "tavrix.h"

using namespace support;

namespace {

constexpr int thread_count = 4;
constexpr int rounds = 20;

template <typename Work>
void on_all_threads(Work work) {
    const LogCapture log("verbose"); // lines are a part of what runs at the same time
    on_threads(thread_count, work);
}
template <typename Work>
void repeatedly(Work work) {
    on_all_threads([&](int me) {
        for (int round = 0; round < rounds; ++round) {
            work(me);
        }
    });
}

std::string own(const std::string &name, int me) { return name + std::to_string(me); }

int say(json_t * /*params*/, json_t **result, json_t ** /*error_data*/) {
    *result = json_string("hello");
    return TAVRIX_OK;
}
const tavrix_jrpc_method table[] = {{"hello.Say", say}, {nullptr, nullptr}};
constexpr char request[] = R"({"jsonrpc":"2.0","id":"me","method":"hello.Say"})";
constexpr char response[] = R"({"jsonrpc":"2.0","id":"me","result":"hello","transaction_id":5})";

/** Ports for all threads, each of them twice. */
struct Places {
    std::vector<int> ports;

    Places() { std::generate_n(std::back_inserter(ports), 2 * thread_count, free_port); }
    unsigned port(int number) const { return static_cast<unsigned>(ports[static_cast<size_t>(number)]); }
    std::string address(int number) const { return "tcp://127.0.0.1:" + std::to_string(port(number)); }
};

/** A publisher and a subscriber of one thread, whose connection stands. */
struct Endpoint {
    explicit Endpoint(const std::string &address) {
        EXPECT_EQ(tavrix_jrpc_mq_pub_init(address.c_str(), &pub.number), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_mq_sub_init(&sub.number, 1), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_mq_sub_set_channel(address.c_str(), "", &sub.number), TAVRIX_OK);
        settle(pub.number, sub.number, "");
    }
    BusSocket pub, sub;
};

TEST(Reentrant, Catalogue) {
    repeatedly([](int) {
        EXPECT_STREQ(tavrix_error_decode(TAVRIX_ERR_TIMEOUT), tavrix_error_strings[2]);
        const int code = tavrix_jrpc_error_convert_tavrix_to_jrpc(TAVRIX_ERR_SYSTEM_BUSY);
        EXPECT_EQ(tavrix_jrpc_error_convert_jrpc_to_tavrix(code), TAVRIX_ERR_SYSTEM_BUSY);
        EXPECT_STREQ(tavrix_jrpc_error_message(code), "System is busy.");
    });
}

TEST(Reentrant, LogLines) {
    repeatedly([](int me) {
        EXPECT_NE(tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE), 0);
        EXPECT_EQ(tavrix_lsyslog_log(TAVRIX_LOG_INFO, "unit", 1, "thread %d\n", me), TAVRIX_OK);
        tavrix_lsyslog_is_json_method_lsyslog("ports.Get"); // with its own method it would reload
        tavrix_utils_system_log("tag", "file", 1, "thread %d\n", me);
        tavrix_debug_print_bytes("bytes", 5, "title");
    });
}

TEST(Reentrant, ConfigurationFile) {
    repeatedly([](int me) {
        const std::string file = own("conf.", me);
        std::ofstream(file) << "[s]\nk=" << me << "\n";
        char value[8] = "";
        EXPECT_EQ(tavrix_conf_parser_parse(file.c_str(), "s", "k", value, sizeof value), TAVRIX_OK);
        EXPECT_EQ(value, std::to_string(me));
        EXPECT_EQ(file_exists(file.c_str()), 1);
    });
}

TEST(Reentrant, Validators) {
    repeatedly([](int me) {
        for (const Field &field : fields()) {
            if (field.has_validator()) {
                EXPECT_EQ(field.judge(field.valid[static_cast<size_t>(me) % field.valid.size()]), TAVRIX_VALID)
                    << field.name;
            }
        }
        EXPECT_EQ(validate_date_time("2020-02-29", "23:59"), TAVRIX_VALID);
    });
}

TEST(Reentrant, Parameters) {
    repeatedly([](int me) {
        for (const Field &field : fields()) {
            if (!field.has_reader()) {
                continue;
            }
            const bool is_number = field.read_number != nullptr;
            const std::string &value = field.valid[is_number ? static_cast<size_t>(me) % field.valid.size() : 0];
            Params params(field.params(value));
            char out[128] = "";
            int number = 0;
            const int rc = is_number ? params.read(field.read_number, "k", &number)
                                     : field.read(params.get(), params.debug(), "k", out, sizeof out);
            EXPECT_EQ(rc, TAVRIX_OK) << field.name;
            EXPECT_STRCASEEQ(is_number ? std::to_string(number).c_str() : out,
                             field.read_list != nullptr ? "" : value.c_str());
            EXPECT_EQ(field.read(params.get(), params.debug(), "absent", out, sizeof out),
                      TAVRIX_ERR_PARAMETER_NOT_FOUND);
        }
        Params all(R"({"text":"any","bool":true,"list":[],"float":"1.5","uint":"7","secure":"current","integer":)" +
                   std::to_string(me) + "}");
        json_t *borrowed = nullptr;
        char out[64] = "";
        int number = 0;
        uint64_t big = 0;
        float real = 0;
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_string, "text", out, sizeof out), TAVRIX_OK);
        EXPECT_STREQ(out, "any");
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_integer, "integer", &number), TAVRIX_OK);
        EXPECT_EQ(number, me);
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_bool, "bool", &borrowed), TAVRIX_OK);
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_array, "list", &borrowed), TAVRIX_OK);
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_uint64_t, "uint", &big), TAVRIX_OK);
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_float, "float", &real), TAVRIX_OK);
        EXPECT_EQ(all.read(tavrix_jrpc_utils_parse_input_secure_option, "secure", &number), TAVRIX_OK);
        char macs[1][20] = {"00:00:00:00:00:01"};
        Json list;
        EXPECT_EQ(tavrix_jrpc_utils_populate_json_mac_addresses_array(into(list), macs, 1), TAVRIX_OK);
    });
}

TEST(Reentrant, Messages) {
    repeatedly([](int me) {
        const Json id = parsed(own("\"thread ", me) + "\"");
        const Json number = parsed("5");
        char *text = nullptr;
        EXPECT_EQ(tavrix_jrpc_eval_request(request, table, &text), TAVRIX_OK);
        EXPECT_NE(taken(text).find("hello"), std::string::npos);
        for (char *made : {tavrix_jrpc_create_response(json_true(), id.get(), 0, number.get()),
                           tavrix_jrpc_create_error(TAVRIX_JRPC_SYSTEM_BUSY, id.get(), nullptr, 0, number.get())}) {
            EXPECT_NE(taken(made).find(own("thread ", me)), std::string::npos);
        }
        const std::string frame = taken(tavrix_api_router_json_add_channel("me", request));
        char *json = nullptr;
        char *channel = nullptr;
        EXPECT_EQ(tavrix_jrpc_parse_msg(frame.c_str(), static_cast<int>(frame.size()), &json), TAVRIX_OK);
        EXPECT_EQ(taken(json), request);
        EXPECT_EQ(tavrix_jrpc_parse_channel(request, &channel), TAVRIX_OK);
        EXPECT_EQ(taken(channel), "me");
        EXPECT_EQ(taken(tavrix_api_router_json_parse_channel("ports.Get")), TAVRIX_CHANNEL_FIRST);
        Json reply, notification, locked, late;
        tavrix_jrpc_eval_method("hello.Say", response, into(reply));
        tavrix_jrpc_eval_notification("hello.Said", R"({"jsonrpc":"2.0","method":"hello.Said"})", into(notification));
        const Json whole = parsed(R"({"jsonrpc":"2.0","id":"me","method":"hello.Say","transaction_id":5})");
        tavrix_jrpc_router_eval_notification(whole.get(), table);
        EXPECT_EQ(tavrix_jrpc_router_create_system_lock_response(whole.get(), into(locked)), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_router_create_system_timeout_response("me", me, into(late)), TAVRIX_OK);
    });
}

TEST(Reentrant, BusSocketsOfTheirOwn) {
    on_all_threads([](int me) {
        const std::string address = "inproc://" + own("thread", me);
        for (int round = 0; round < rounds; ++round) {
            int pair[2] = {-1, -1};
            int endpoint[2] = {-1, -1};
            int fd = -1;
            int length = 0;
            int ms = 0;
            char *text = nullptr;
            EXPECT_EQ(tavrix_mq_socket_init(TAVRIX_SP_PAIR, &pair[0]), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_init(TAVRIX_SP_PAIR, &pair[1]), TAVRIX_OK);
            constexpr int transport = TAVRIX_TRANSPORT_INPROC;
            EXPECT_EQ(tavrix_mq_socket_bind(pair[0], transport, address.c_str(), &endpoint[0]), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_connect(pair[1], transport, address.c_str(), &endpoint[1]), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_set_timeout(pair[0], 5000), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_get_timeout(pair[0], &ms), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_recvfd(pair[0], &fd), TAVRIX_OK);
            EXPECT_EQ(tavrix_get_nn_rcvfd(pair[0], &fd), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_sendfd(pair[0], &fd), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_send(pair[1], address.c_str()), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_recv(pair[0], &text, &length, 0), TAVRIX_OK);
            EXPECT_EQ(std::string(text != nullptr ? text : ""), address);
            EXPECT_EQ(tavrix_mq_socket_freemsg(nullptr), TAVRIX_ERR_NULL_INPUT);
            free(text);
            tavrix_mq_socket_send_nonblock(pair[1], "last");
            EXPECT_EQ(tavrix_mq_socket_shutdown(pair[1], endpoint[1]), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_close(pair[1]), TAVRIX_OK);
            EXPECT_EQ(tavrix_mq_socket_close(pair[0]), TAVRIX_OK);
        }
    });
}

TEST(Reentrant, TopicsOfOneSocket) {
    BusSocket shared(TAVRIX_SP_SUB);
    repeatedly([&](int me) {
        const std::string topic = own("topic ", me);
        EXPECT_EQ(tavrix_mq_socket_subscribe(shared.number, topic.c_str()), TAVRIX_OK);
        EXPECT_EQ(tavrix_mq_socket_subscribe(shared.number, "of all"), TAVRIX_OK);
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(shared.number, "of all"), TAVRIX_OK);
        EXPECT_EQ(tavrix_mq_socket_unsubscribe(shared.number, topic.c_str()), TAVRIX_OK);
    });
}

TEST(Reentrant, Endpoints) {
    const Places places;
    on_all_threads([&](int me) {
        Endpoint bus(places.address(me));
        BusSocket pull;
        Json reply;
        Json notification;
        EXPECT_EQ(tavrix_jrpc_mq_pub(&bus.pub.number, "me", request), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_mq_run(&bus.sub.number, &bus.pub.number, table, 0), TAVRIX_OK) << "serves it";
        EXPECT_EQ(tavrix_jrpc_mq_sub_for_method(bus.sub.number, "hello.Say", into(reply)), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_mq_pub(&bus.pub.number, "me", R"({"jsonrpc":"2.0","method":"x"})"), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_mq_sub_for_notifcation(bus.sub.number, "x", into(notification)), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_pull_socket_init(places.address(thread_count + me).c_str(), &pull.number), TAVRIX_OK);
        EXPECT_EQ(tavrix_mq_socket_set_timeout(pull.number, 1), TAVRIX_OK);
        EXPECT_NE(tavrix_jrpc_pull_socket_run(pull.number, table), TAVRIX_OK) << "nothing came";
    });
}

TEST(Reentrant, StreamSockets) {
    const Places places;
    on_all_threads([&](int me) {
        const unsigned port = places.port(me);
        int listener = -1;
        int ours = -1;
        int theirs = -1;
        char text[16] = "";
        EXPECT_EQ(tavrix_tcp_socket_init(port, &listener, 0), TAVRIX_OK);
        EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port, &ours), TAVRIX_OK);
        EXPECT_EQ(tavrix_tcp_socket_accept(&listener, &theirs), TAVRIX_OK);
        EXPECT_EQ(tavrix_socket_send(&ours, "hello"), TAVRIX_OK);
        EXPECT_EQ(tavrix_socket_recv(&theirs, text, sizeof text - 1), 5);
        EXPECT_EQ(tavrix_socket_shutdown(&ours), TAVRIX_OK);
        EXPECT_EQ(tavrix_socket_close(&theirs), TAVRIX_OK);
        EXPECT_EQ(tavrix_socket_close(&listener), TAVRIX_OK);
        EXPECT_EQ(tavrix_unix_socket_init(own("unix.", me).c_str(), &listener, 1), TAVRIX_OK);
        EXPECT_NE(tavrix_socket_accept(&listener, &theirs), TAVRIX_OK) << "nobody is there";
        EXPECT_EQ(tavrix_socket_close(&listener), TAVRIX_OK);
    });
}

TEST(Reentrant, Servers) {
    const Places places;
    on_all_threads([&](int me) {
        const unsigned port = places.port(me);
        int tcp = -1;
        int local = -1;
        int client = -1;
        EXPECT_EQ(tavrix_jrpc_tcp_socket_init(port, &tcp, 0), TAVRIX_OK);
        EXPECT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port, &client), TAVRIX_OK);
        EXPECT_EQ(tavrix_socket_send(&client, request), TAVRIX_OK);
        tavrix_jrpc_tcp_socket_run(&tcp, table);
        char text[256] = "";
        EXPECT_GT(tavrix_socket_recv(&client, text, sizeof text - 1), 0);
        tavrix_socket_close(&client);
        tavrix_socket_close(&tcp);
        EXPECT_EQ(tavrix_jrpc_unix_socket_init(own("server.", me).c_str(), &local, 1), TAVRIX_OK);
        tavrix_jrpc_unix_socket_run(&local, table);
        tavrix_socket_close(&local);
    });
}

TEST(Reentrant, Routers) {
    const Places places;
    on_all_threads([&](int me) {
        Endpoint bus(places.address(me));
        const unsigned port = places.port(thread_count + me);
        int listener = -1;
        int asking = -1;
        int client = -1;
        ASSERT_EQ(tavrix_tcp_socket_init(port, &listener, 0), TAVRIX_OK);
        const std::string asked = R"({"jsonrpc":"2.0","id":"me","method":"hello.Say","transaction_id":5})";
        const std::string answered = std::string("me|") + response;
        // Both halves of a request's way, first in one call each, then in two.
        ASSERT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port, &asking), TAVRIX_OK);
        tavrix_socket_send(&asking, asked.c_str());
        EXPECT_EQ(tavrix_jrpc_router_socket_to_mq(&listener, &bus.pub.number, &client), TAVRIX_OK);
        tavrix_jrpc_router_mq_to_socket(&bus.sub.number, &client);
        tavrix_socket_close(&asking);
        ASSERT_EQ(tavrix_tcp_socket_connect("127.0.0.1", port, &asking), TAVRIX_OK);
        tavrix_socket_send(&asking, asked.c_str());
        Json incoming;
        Json outgoing;
        EXPECT_EQ(tavrix_jrpc_router_socket_extract_request(&listener, &client, into(incoming)), TAVRIX_OK);
        EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, incoming.get()), TAVRIX_OK);
        tavrix_jrpc_router_mq_extract_response(&bus.sub.number, into(outgoing));
        EXPECT_EQ(tavrix_mq_socket_send(bus.pub.number, answered.c_str()), TAVRIX_OK);
        const Json reply = parsed(response);
        tavrix_jrpc_router_socket_dispatch_response(&client, reply.get());
        tavrix_socket_close(&asking);
        tavrix_socket_close(&client);
        tavrix_socket_close(&listener);
    });
}

TEST(Reentrant, Databases) {
    on_all_threads([](int me) {
        const std::string path = own("data.db", me);
        sqlite3 *db = nullptr;
        sqlite3_stmt *statement = nullptr;
        int64_t number = 0;
        char text[16] = "";
        ASSERT_EQ(tavrix_db_ensure_open_file(&db, path.c_str()), TAVRIX_ERR_SYSTEM_ACCESS) << "only what is there";
        sqlite3_open(path.c_str(), &db);
        tavrix_sqlite3_exec(db, "CREATE TABLE t (n INTEGER, s TEXT)", nullptr, nullptr, nullptr);
        tavrix_sqlite3_exec_sql(db, "INSERT INTO t VALUES (%d, 'text')", me);
        EXPECT_EQ(tavrix_sqlite3_get_single_id_result(db, &number, "SELECT n FROM t"), SQLITE_OK);
        EXPECT_EQ(number, me);
        EXPECT_EQ(tavrix_sqlite3_get_single_string_result(db, text, sizeof text, "SELECT s FROM t"), SQLITE_OK);
        EXPECT_EQ(tavrix_sqlite3_prepare_sql(db, &statement, "SELECT n FROM t"), SQLITE_OK);
        tavrix_sqlite3_step_retrieve_int(statement, &number);
        sqlite3_finalize(statement);
        EXPECT_EQ(tavrix_db_open_transaction(db), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_commit_transaction(db), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_open_transaction(db), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_rollback_transaction(db), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_prepare_statement(db, path.c_str(), &statement, "SELECT n FROM t"), TAVRIX_OK);
        sqlite3_finalize(statement);
        EXPECT_EQ(tavrix_db_get_single_id_result(db, path.c_str(), "n", &number, "SELECT n FROM t"), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_close(db), TAVRIX_OK);
        sqlite3 *again = nullptr;
        EXPECT_EQ(tavrix_db_open_file(&again, path.c_str()), TAVRIX_OK);
        EXPECT_EQ(tavrix_db_close(again), TAVRIX_OK);
        sqlite3 *fixed = nullptr;
        tavrix_db_open(&fixed); // the path that the build names: here there is no such file
        fixed = nullptr;
        tavrix_db_ensure_open(&fixed);
    });
}

TEST(Reentrant, Timers) {
    repeatedly([](int) {
        int timer = -1;
        EXPECT_EQ(tavrix_timer_init(&timer, 1), TAVRIX_OK);
        EXPECT_EQ(tavrix_timer_set(timer, 3600, 0), TAVRIX_OK);
        EXPECT_EQ(tavrix_timer_read(timer), TAVRIX_ERR_NO_TIMER_EXPIRATION);
        EXPECT_EQ(tavrix_timer_nsec_set(timer, 0.001F, 0.001F), TAVRIX_OK);
        pollfd waiting{timer, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 20000), 1);
        EXPECT_EQ(tavrix_timer_read(timer), TAVRIX_OK);
        EXPECT_EQ(tavrix_timer_free(&timer), TAVRIX_OK);
    });
}

TEST(Reentrant, Slots) {
    on_all_threads([](int me) {
        const std::string name = own("/tavrix-threads-" + std::to_string(getpid()) + "-", me);
        char text[16] = "";
        int value = me;
        EXPECT_EQ(tavrix_shm_create(name.c_str(), sizeof text), TAVRIX_OK);
        EXPECT_EQ(tavrix_shm_set_string(name.c_str(), sizeof text, "text"), TAVRIX_OK);
        EXPECT_EQ(tavrix_shm_get_string(name.c_str(), sizeof text, text), TAVRIX_OK);
        EXPECT_EQ(tavrix_shm_set_int(name.c_str(), &value), TAVRIX_OK);
        EXPECT_EQ(tavrix_shm_get_int(name.c_str(), &value), TAVRIX_OK);
        EXPECT_EQ(value, me);
        EXPECT_EQ(tavrix_shm_clear(name.c_str(), sizeof text), TAVRIX_OK);
        shm_unlink(name.c_str());
    });
}

TEST(Reentrant, AddressesAndNames) {
    repeatedly([](int me) {
        char mac[20] = "aa:bb:cc:dd:ee:ff";
        unsigned char bytes[6] = {};
        uint32_t last = 0;
        EXPECT_EQ(tavrix_validate_and_format_mac_addr_string(mac), 0);
        char copy[20] = "aa:bb:cc:dd:ee:ff";
        tavrix_str_to_mac_address(copy, bytes);
        EXPECT_EQ(tavrix_mac_address_to_char_array("aa:bb:cc:dd:ee:ff", bytes), TAVRIX_OK);
        EXPECT_EQ(tavrix_bytes_to_mac_address_string(mac, bytes), TAVRIX_OK);
        EXPECT_EQ(tavrix_mac_last_4_bytes_to_uint32_t(bytes, &last), TAVRIX_OK);
        EXPECT_EQ(last, 0xccddeeffU);
        EXPECT_EQ(tavrix_get_num_macs_to_list(me), me);
        tavrix_mac_array array{};
        tavrix_mac_vector vector{};
        EXPECT_EQ(tavrix_mac_vector_init(&vector, &array), TAVRIX_OK);
        EXPECT_EQ(tavrix_mac_vector_insert(&vector, "aa:bb:cc:dd:ee:ff", 1), TAVRIX_OK);
        free(array.entries);
        tavrix_free_port_macs_array(static_cast<tavrix_port_macs *>(calloc(1, sizeof(tavrix_port_macs))), 1);
        EXPECT_EQ(tavrix_tokenize_ip_address(bytes, "10.0.0.1", 4), TAVRIX_OK);
        char text[64] = "";
        EXPECT_EQ(tavrix_create_port_id_str(text, sizeof text, me + 1, 1), TAVRIX_OK);
        EXPECT_EQ(text, "c" + std::to_string(me + 1) + "-1");
        EXPECT_EQ(tavrix_create_mzu_id_str(text, sizeof text, me + 1), TAVRIX_OK);
        const tavrix_mzu_record record{1, 1, me, ""};
        EXPECT_EQ(tavrix_mzu_is_online(&record), me > 0);
        const auto list = std::make_unique<tavrix_port_list>();
        int cursor = 0;
        tavrix_port_str_create(list.get(), &cursor, text, 40);
        EXPECT_EQ(tavrix_utils_sw_version_strcmp("1.2", "1.2"), 0);
        EXPECT_EQ(tavrix_check_for_null(1, text), TAVRIX_OK);
    });
}

TEST(Reentrant, Words) {
    repeatedly([](int me) {
        char text[64] = "";
        int value = 0;
        EXPECT_EQ(tavrix_to_lower_case(text, sizeof text, "ABC"), TAVRIX_OK);
        EXPECT_EQ(tavrix_to_upper_case(text, 3), TAVRIX_OK);
        EXPECT_EQ(tavrix_str_to_upper(text), 3) << "characters";
        EXPECT_EQ(tavrix_remove_surrounding_quotes("\"quoted\"", text, sizeof text), TAVRIX_OK);
        tavrix_cli_desc_parse("\"a description\"", text);
        EXPECT_EQ(tavrix_enum_to_str(text, sizeof text, me % 3, tavrix_vlan_mode_strings), TAVRIX_OK);
        EXPECT_EQ(tavrix_str_to_enum(&value, text, tavrix_vlan_mode_strings), TAVRIX_OK);
        EXPECT_EQ(value, me % 3);
        EXPECT_NE(isdigits("123"), isdigits("x"));
        EXPECT_EQ(tavrix_utils_format_seconds_as_time_sentence(me, text), TAVRIX_OK);
    });
}

TEST(Reentrant, Commands) {
    on_all_threads([](int me) {
        char out[1024] = "";
        bool match = false;
        mw_exec_command_line(own("echo thread ", me).c_str(), out);
        EXPECT_NE(std::string(out).find(own("thread ", me)), std::string::npos);
        const std::string file = own("sum.", me);
        std::ofstream(file) << "text";
        free(tavrix_file_stats(file.c_str(), file.c_str(), file.c_str(), 1));
        tavrix_check_md5(file.c_str(), file.c_str(), &match);
        tavrix_get_board_rev_number();
    });
}

TEST(Reentrant, IsEverythingThatIsNotSaidToBeOtherwise) {
    // Functions that change what the process has once, by the headers' own words, or that end it; and the forms of
    // others that take a va_list.
    const std::map<std::string, const char *> not_here = {
        {"strparse", "a hidden cursor"},
        {"tavrix_parse_mzu_port_id", "moves the cursor of strparse()"},
        {"tavrix_lsyslog_init", "not beside log lines"},
        {"tavrix_lsyslog_shutdown", "the process's name and socket"},
        {"tavrix_lsyslog_set_socket", "the process's socket"},
        {"tavrix_lsyslog_reload_conf", "not beside log lines"},
        {"tavrix_lsyslog_reload_conf_api", "not beside log lines"},
        {"tavrix_db_lock_cfgdb", "the process's flag"},
        {"tavrix_db_unlock_cfgdb", "the process's flag"},
        {"tavrix_mq_socket_terminate", "ends all sockets"},
        {"tavrix_terminate_process", "ends the process"},
        {"tavrix_sqlite3_prepare_sql_args", "as tavrix_sqlite3_prepare_sql()"},
        {"tavrix_sqlite3_get_single_id_result_args", "as tavrix_sqlite3_get_single_id_result()"},
        {"tavrix_db_get_single_id_result_args", "as tavrix_db_get_single_id_result()"},
    };
    const std::string source = read_file(TAVRIX_SOURCE_DIR "/tests/threads/reentrant_test.cpp");
    const std::string text = source.substr(0, source.find("TEST(Reentrant, IsEverything"));
    const std::regex word("\\w+");
    std::set<std::string> run(std::sregex_token_iterator(text.begin(), text.end(), word), {});
    for (const Field &field : fields()) {
        run.insert(
            {std::string("validate_") + field.name, std::string("tavrix_jrpc_utils_retrieve_input_") + field.name});
    }
    std::ifstream symbols(TAVRIX_EXPORTED_SYMBOLS);
    int count = 0;
    for (std::string name; std::getline(symbols, name); ++count) {
        const bool is_table = name.size() > 8 && name.compare(name.size() - 8, 8, "_strings") == 0;
        EXPECT_TRUE(is_table || not_here.count(name) == 1 || run.count(name) == 1)
            << name << " has to run on several threads above, or to be named here with a reason";
    }
    EXPECT_GT(count, 200);
}

} // namespace
