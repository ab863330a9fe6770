#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/bus.h"
#include "support/json.h"
#include "support/log_capture.h"
#include "support/nulls.h"
#include "support/stream.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";
constexpr char reply_channel[] = TAVRIX_ROUTER_REPLY_CHANNEL;
constexpr char first_channel[] = TAVRIX_CHANNEL_FIRST;
constexpr char request[] = R"({"jsonrpc":"2.0","method":"ports.Get","id":7,"transaction_id":3})";
constexpr char on_bus[] =
    R"({"jsonrpc":"2.0","method":"ports.Get","transaction_id":3,"id":")" TAVRIX_ROUTER_REPLY_CHANNEL R"("})";

/** The words for a text that is no JSON. */
std::string stopped_at(const std::string &text) {
    const json_error_t error = parse_error(text);
    return "line: " + std::to_string(error.line) + ", text: " + error.text;
}

std::string line(const char *function, const std::string &words) {
    return std::string("[") + function + "]: " + words + "\n";
}

/** The router's two sides: a listener for clients, a bus to the services, a bus back. */
class Router : public testing::Test {
  protected:
    Router() : bus("", 50), replies(reply_channel, 50) {}
    void SetUp() override {
        const LogCapture log("info");
        ASSERT_EQ(tavrix_jrpc_unix_socket_init("router.sock", &listener, 1), 0);
        open_before = open_descriptors() - 2; // the capture's own two
    }
    void TearDown() override {
        close_client();
        ::close(listener);
    }
    void close_client() {
        if (client >= 0) {
            ::close(client);
        }
        client = -1;
    }
    StreamClient connect(const std::string &text) const {
        StreamClient stream = StreamClient::unix_path("router.sock");
        stream.say(text);
        return stream;
    }
    int take_in_one_call() { return tavrix_jrpc_router_socket_to_mq(&listener, &bus.pub.number, &client); }
    int extract() {
        extracted.reset();
        return tavrix_jrpc_router_socket_extract_request(&listener, &client, into(extracted));
    }
    int take(bool split) { return split ? extract() : take_in_one_call(); }

    BusPair bus;
    BusPair replies;
    int listener = -1;
    int client = -1;
    int open_before = 0;
    Json extracted;
};

constexpr char one_call[] = "tavrix_jrpc_router_socket_to_mq";
constexpr char process[] = "tavrix_jrpc_router_process_msg";
constexpr char extracting[] = "tavrix_jrpc_router_socket_extract_request";
constexpr char dispatching[] = "tavrix_jrpc_router_mq_dispatch_request";
constexpr char answering[] = "tavrix_jrpc_router_mq_to_socket";
constexpr char receiving[] = "tavrix_jrpc_router_mq_extract_response";
constexpr char sending[] = "tavrix_jrpc_router_socket_dispatch_response";

std::string padded_to(size_t size) { return request + std::string(size - sizeof request + 1, ' '); }

// --- Requests, one call ---

TEST_F(Router, StampsARequestAndPublishesIt) {
    const StreamClient asking = connect(request);
    const LogCapture log("debug");
    ASSERT_EQ(take_in_one_call(), 0);
    EXPECT_EQ(bus.receive(), std::string(first_channel) + "|" + on_bus);
    EXPECT_TRUE(log.has(debug, unit, line(one_call, "Sending response over mq_pub ...")));
    EXPECT_GE(client, 0) << "the client stays open for its answer";
}

TEST_F(Router, RoutesByTheMethodsNameAndEscapesWhatIsNotAscii) {
    const StreamClient asking = connect("{\"method\":\"events.X\",\"id\":1,\"params\":{\"n\":\"\xc3\xbc\"}}");
    ASSERT_EQ(take_in_one_call(), 0);
    const std::string frame = bus.receive();
    EXPECT_EQ(frame.rfind(TAVRIX_CHANNEL_EVENTS "|", 0), 0U);
    EXPECT_NE(frame.find("\\u00FC"), std::string::npos);
}

TEST_F(Router, ReadsAtMost8192Bytes) {
    for (const bool split : {false, true}) {
        const StreamClient exact = connect(padded_to(8192));
        EXPECT_EQ(take(split), 0);
        close_client();
        const StreamClient cut = connect(std::string(8192 - sizeof request + 2, ' ') + request); // ends at byte 8193
        EXPECT_EQ(take(split), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(extracted, nullptr);
        close_client();
        EXPECT_TRUE(cut.closed_silently());
    }
}

struct Refusal {
    const char *name;
    const char *request;
    const char *words; ///< what the refusing function says
};

class RouterRefuses : public Router, public testing::WithParamInterface<Refusal> {};

TEST_P(RouterRefuses, InOneCallClosingTheClient) {
    const StreamClient asking = connect(GetParam().request);
    {
        const LogCapture log("debug");
        EXPECT_EQ(take_in_one_call(), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.last(), "DEBUG|" + line(one_call, "router_process_msg: failed"));
        EXPECT_TRUE(log.has(debug, unit, line(process, GetParam().words))) << log.text();
    }
    EXPECT_TRUE(asking.closed_silently());
    EXPECT_EQ(client, -1);
    EXPECT_EQ(open_descriptors(), open_before + 1) << "only the asking side";
    EXPECT_EQ(bus.receive(), "(nothing)");
}

const Refusal refusals[] = {
    {"Array", "[]", "Invalid JSON message"},
    {"Number", "5", "Invalid JSON message"},
    {"NoMethod", R"({"id":1})", "No JSON method"},
    {"MethodNumber", R"({"id":1,"method":2})", "Invalid JSON method"},
    {"MethodBeforeId", R"({"method":null})", "Invalid JSON method"},
    {"NoId", R"({"method":"ports.Get"})", "No JSON ID"},
    {"IdNull", R"({"method":"ports.Get","id":null})", "Invalid JSON ID"},
    {"IdTrue", R"({"method":"ports.Get","id":true})", "Invalid JSON ID"},
    {"IdFalse", R"({"method":"ports.Get","id":false})", "Invalid JSON ID"},
    {"IdArray", R"({"method":"ports.Get","id":[]})", "Invalid JSON ID"},
    {"IdObject", R"({"method":"ports.Get","id":{}})", "Invalid JSON ID"},
};

INSTANTIATE_TEST_SUITE_P(Requests, RouterRefuses, testing::ValuesIn(refusals),
                         [](const auto &row) { return row.param.name; });

TEST_F(Router, AcceptsIdsThatAreTextsAndNumbersAndTrailingBytes) {
    for (const char *id : {"\"\"", "\"a\"", "0", "1.5", "-3"}) {
        const StreamClient asking = connect(std::string(R"({"method":"ports.Get","id":)") + id + "}\nmore");
        EXPECT_EQ(take_in_one_call(), 0) << id;
        EXPECT_EQ(bus.receive(),
                  std::string(first_channel) + R"(|{"method":"ports.Get","id":")" + reply_channel + "\"}");
        close_client();
    }
}

TEST_F(Router, SaysWhereARequestIsNoJson) {
    for (const std::string text : {"{\n\n]", R"({"method":"p","id":1,"id":2})", "{"}) {
        for (const bool split : {false, true}) {
            const StreamClient asking = connect(text);
            const LogCapture log("debug");
            EXPECT_EQ(take(split), TAVRIX_ERR_GENERAL);
            EXPECT_EQ(log.first(), "DEBUG|" + line(split ? extracting : process, stopped_at(text)));
            close_client();
        }
    }
    EXPECT_EQ(parse_error("{\n\n]").line, 3);
}

TEST_F(Router, ClosesAClientThatSaysNothing) {
    StreamClient gone = connect("");
    gone.close();
    EXPECT_EQ(take_in_one_call(), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(open_descriptors(), open_before);
}

TEST_F(Router, ReportsThatItCannotPublish) {
    const StreamClient asking = connect(request);
    const Json value = parsed(request);
    const int closed = 9999;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_router_socket_to_mq(&listener, &closed, &client), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.has(debug, unit, line(one_call, "Error mq_pub, rc = -1")));
    EXPECT_TRUE(asking.closed_silently());
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&closed, value.get()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|" + line(dispatching, "Error mq_pub, rc = -1"));
}

TEST_F(Router, PassesTheAcceptsStatusOn) {
    EXPECT_EQ(take_in_one_call(), TAVRIX_ERR_GENERAL);
    const LogCapture log("debug");
    EXPECT_EQ(extract(), TAVRIX_ERR_GENERAL);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_jrpc_router_socket_extract_request]: Failed socket_accept, rc = -1"}));
}

std::string null_pointer(const char *function, const char *words = "NULL pointer!") {
    return std::string("DEBUG|[") + function + "]: " + words;
}

TEST_F(Router, RefusesNullArguments) {
    constexpr int general = TAVRIX_ERR_GENERAL;
    constexpr int null_input = TAVRIX_ERR_NULL_INPUT;
    const Json value = parsed("{}");
    json_t *out = value.get();
    int *const pub = &bus.pub.number;
    int *const sub = &bus.sub.number;
    expect_nulls_refused(null_input, null_pointer(one_call), tavrix_jrpc_router_socket_to_mq, &listener, pub, &client);
    expect_nulls_refused(null_input, null_pointer(answering, "Null Pointer!"), tavrix_jrpc_router_mq_to_socket, sub,
                         &client);
    expect_nulls_refused(general, null_pointer(extracting), tavrix_jrpc_router_socket_extract_request, &listener,
                         &client, &out);
    expect_nulls_refused(general, null_pointer(dispatching), tavrix_jrpc_router_mq_dispatch_request, pub, value.get());
    expect_nulls_refused(general, null_pointer(receiving), tavrix_jrpc_router_mq_extract_response, sub, &out);
    expect_nulls_refused(general, null_pointer(sending), tavrix_jrpc_router_socket_dispatch_response, &client,
                         value.get());
}

TEST_F(Router, ShowsARequestAtVerboseLevel) {
    const StreamClient asking = connect(R"({"method":"ports.Get","id":7})");
    const LogCapture log("verbose");
    ASSERT_EQ(take_in_one_call(), 0);
    const std::string rendering = "{\n    \"method\": \"ports.Get\",\n    \"id\": 7\n}";
    const std::string sent = std::string(R"({"method":"ports.Get","id":")") + reply_channel + "\"}";
    for (const std::string &words : {line(process, R"([Recv]: {"method":"ports.Get","id":7})"),
                                     "Valid JSON received, of length " + std::to_string(rendering.size()) + "\n",
                                     "JSON Data:\n" + rendering + "\n", line(process, "JSON Method: ports.Get"),
                                     std::string("channel: ") + first_channel + "\n", std::string("JSON ID: (null)\n"),
                                     "JSON request sent, of string length " + std::to_string(sent.size()) + "\n",
                                     "The JSON Request was:\n" + sent + "\n"}) {
        EXPECT_EQ(log.count(verbose, unit, words), 1) << words;
    }
}

// --- Requests, split ---

TEST_F(Router, ExtractsARequestWithoutLookingAtIt) {
    for (const char *text : {request, "{}", R"({"method":5})"}) {
        const StreamClient asking = connect(std::string(text) + "\nmore");
        EXPECT_EQ(extract(), 0);
        EXPECT_EQ(rendered(extracted.get()), text);
        EXPECT_GE(client, 0);
        close_client();
    }
}

TEST_F(Router, LeavesTheClientOpenWhenItRefusesOnTheSplitPath) {
    for (const auto &[text, words] : {std::pair<std::string, std::string>("[]", "Invalid JSON message"),
                                      {"\"x\"", "Invalid JSON message"},
                                      {"nonsense", stopped_at("nonsense")}}) {
        const StreamClient asking = connect(text);
        const LogCapture log("debug");
        EXPECT_EQ(extract(), TAVRIX_ERR_GENERAL) << text;
        EXPECT_EQ(extracted, nullptr);
        EXPECT_EQ(log.last(), "DEBUG|" + line(extracting, words));
        ASSERT_GE(client, 0);
        EXPECT_EQ(send(client, "answer", 6, 0), 6);
        close_client();
        EXPECT_EQ(asking.hear(), "answer");
    }
    StreamClient gone = connect("");
    gone.close();
    const LogCapture log("debug");
    EXPECT_EQ(extract(), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|" + line(extracting, "Failed socket_recv, readsize = 0"));
    EXPECT_GE(client, 0) << "a silent one too";
}

TEST_F(Router, DispatchesAnObjectInPlace) {
    const Json value = parsed(request);
    const LogCapture log("debug");
    ASSERT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), 0);
    EXPECT_EQ(bus.receive(), std::string(first_channel) + "|" + on_bus);
    EXPECT_EQ(rendered(value.get()), on_bus) << "the caller's object carries the channel now";
    EXPECT_TRUE(log.has(debug, unit, line(dispatching, "Sending response over mq_pub ...")));
}

TEST_P(RouterRefuses, OnTheSplitPath) {
    const Json value = parsed(GetParam().request);
    if (!json_is_object(value.get())) {
        return; // refused by the extraction already
    }
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.last(), "DEBUG|" + line(dispatching, GetParam().words));
}

TEST_F(Router, RefusesToDispatchWhatIsNoObject) {
    for (const auto &[text, words] : {std::pair("\"x\"", "Cannot print JSON message"),
                                      {"7", "Cannot print JSON message"},
                                      {"[]", "No JSON method"}}) {
        const Json value = parsed(text);
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.last(), "DEBUG|" + line(dispatching, words)) << text;
    }
}

/** An object that no text can hold: a member of it is not UTF-8, or it contains itself. */
struct Unprintable {
    const char *name;
    void (*spoil)(json_t *object);
};

json_t *not_utf8() { return json_string_nocheck("a\xff"); }

void put_into(json_t *object, json_t *params) { json_object_set_new(object, "params", params); }

void put_in_place_of(json_t *object, const char *key) {
    put_into(object, not_utf8());
    json_object_del(object, key);
}

/** The loop closes below the member "loop", which end_loop() takes away again. */
void tie_loop(json_t *object, int length) {
    json_t *first = json_object();
    put_into(object, first);
    json_t *last = first;
    for (int i = 1; i < length; ++i) {
        json_object_set_new(last, "next", json_object());
        last = json_object_get(last, "next");
    }
    json_object_set(last, "loop", first);
}

void end_loop(json_t *object) {
    json_t *last = json_object_get(object, "params");
    while (json_is_object(json_object_get(last, "next"))) {
        last = json_object_get(last, "next");
    }
    json_object_del(last, "loop");
}

constexpr Unprintable unprintables[] = {
    {"Value", [](json_t *object) { put_into(object, not_utf8()); }},
    {"Key", [](json_t *object) { json_object_set_new_nocheck(object, "\xc3", json_null()); }},
    {"Id", [](json_t *object) { json_object_set_new(object, "id", not_utf8()); }},
    {"Method", [](json_t *object) { json_object_set_new(object, "method", not_utf8()); }},
    {"WithoutMethod", [](json_t *object) { put_in_place_of(object, "method"); }},
    {"WithoutId", [](json_t *object) { put_in_place_of(object, "id"); }},
    {"DeepInside", [](json_t *object) { put_into(object, json_pack("[[{s:[o]}]]", "k", not_utf8())); }},
    {"LoopOf2", [](json_t *object) { tie_loop(object, 2); }},
    {"LoopOf3", [](json_t *object) { tie_loop(object, 3); }},
    {"LoopOf100", [](json_t *object) { tie_loop(object, 100); }},
    {"Itself", [](json_t *object) { put_into(object, json_pack("[O]", object)); }},
};

/** The keys in their order with the members' addresses. */
std::vector<std::pair<std::string, const json_t *>> members(json_t *object) {
    std::vector<std::pair<std::string, const json_t *>> all;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(object, key, value) { all.emplace_back(key, value); }
    return all;
}

TEST_F(Router, RefusesToDispatchTheUnprintableBeforeAnythingElseAtEveryLevel) {
    for (const Unprintable &row : unprintables) {
        SCOPED_TRACE(row.name);
        const Json value = parsed(request);
        row.spoil(value.get());
        const auto before = members(value.get());
        for (const std::string level : {"off", "info", "debug", "verbose"}) {
            const LogCapture log(level);
            EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), TAVRIX_ERR_GENERAL);
            const bool told = level == "debug" || level == "verbose";
            EXPECT_TRUE(
                log.said(Lines(told ? 1 : 0, std::string("DEBUG|[") + dispatching + "]: Cannot print JSON message")));
            EXPECT_EQ(members(value.get()), before) << level;
        }
        end_loop(value.get());
        json_object_del(value.get(), "params"); // where an object holds itself
    }
    EXPECT_EQ(bus.receive(), "(nothing)");
}

TEST_F(Router, DispatchesWhatOnlyLooksUnprintable) {
    const Json shared(json_pack("{s:[]}", "list"));
    json_t *deep = json_array();
    json_t *bottom = deep;
    for (int depth = 0; depth < 1000; ++depth) {
        json_t *next = json_array();
        json_array_append_new(bottom, next);
        bottom = next;
    }
    const Json plain = parsed(request);
    json_object_set_new(plain.get(), "\xc3\xbc",
                        json_pack("{s:O, s:[O, [O]], s:s, s:o}", "once", shared.get(), "again", shared.get(),
                                  shared.get(), "text", "\xe2\x82\xac", "deep", deep));
    json_object_set_new(plain.get(), "nul", json_stringn("a\0\xc3\xbc", 4));
    for (const char *level : {"info", "verbose"}) {
        const Json value(json_copy(plain.get())); // the members stay shared
        const LogCapture log(level);
        EXPECT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), 0) << level;
        EXPECT_NE(bus.receive().find(R"("text":"\u20AC")"), std::string::npos) << level;
    }
}

TEST_F(Router, ShowsADispatchedRequestUnderItsOwnName) {
    const Json value = parsed(R"({"method":"ports.Get","id":"mine"})");
    const LogCapture log("verbose");
    ASSERT_EQ(tavrix_jrpc_router_mq_dispatch_request(&bus.pub.number, value.get()), 0);
    EXPECT_TRUE(log.has(verbose, unit,
                        line(dispatching, "[Recv]: {\n    \"method\": \"ports.Get\",\n    \"id\": \"mine\"\n}")));
    EXPECT_TRUE(log.has(verbose, unit, line(dispatching, "JSON Method: ports.Get")));
    EXPECT_TRUE(log.has(verbose, unit, std::string("channel: ") + first_channel + "\n"));
    EXPECT_TRUE(log.has(verbose, unit, "JSON ID: mine\n"));
}

// --- Replies ---

const std::string frame_start = std::string(reply_channel) + "|";

constexpr char reply_text[] = R"({"jsonrpc": "2.0",  "id":"ports.Get", "result":"a|b"})";

TEST_F(Router, RelaysAReplyUnchangedAndCloses) {
    SocketPair pair;
    const std::string frame = frame_start + reply_text;
    replies.publish(frame);
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_jrpc_router_mq_to_socket(&replies.sub.number, pair.ours.place()), 0);
    EXPECT_EQ(pair.theirs.hear(), reply_text);
    EXPECT_EQ(pair.ours.get(), -1);
    for (const std::string &words :
         {std::string("waiting to receive... "), "mq_recv msg[" + std::to_string(frame.size()) + "]: " + frame,
          "parse_msg json_msg[" + std::to_string(sizeof reply_text - 1) + "]: " + reply_text}) {
        EXPECT_TRUE(log.has(verbose, unit, line(answering, words))) << words;
    }
}

TEST_F(Router, ClosesTheClientWhenNoReplyComes) {
    SocketPair pair;
    EXPECT_EQ(tavrix_jrpc_router_mq_to_socket(&replies.sub.number, pair.ours.place()), TAVRIX_ERR_MQ_TIMEOUT);
    EXPECT_TRUE(pair.theirs.closed_silently());
    EXPECT_EQ(pair.ours.get(), -1);
}

TEST_F(Router, ClosesTheClientWhenTheMessageHasNoBar) {
    BusPair everything("", 2000);
    for (const char *frame : {reply_channel, ""}) {
        SocketPair pair;
        everything.publish(frame);
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_router_mq_to_socket(&everything.sub.number, pair.ours.place()), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(log.has(debug, unit, line(answering, "Error parse_msg, rc = -1")), *frame != '\0');
        EXPECT_TRUE(pair.theirs.closed_silently());
        EXPECT_EQ(pair.ours.get(), -1);
    }
}

TEST_F(Router, ReportsAClientThatHasGoneInTheOneCallPathsWords) {
    const Json value = parsed("{}");
    for (const bool split : {false, true}) {
        SocketPair pair;
        pair.theirs.close();
        replies.publish(frame_start + reply_text);
        const LogCapture log("debug");
        EXPECT_EQ(split ? tavrix_jrpc_router_socket_dispatch_response(pair.ours.place(), value.get())
                        : tavrix_jrpc_router_mq_to_socket(&replies.sub.number, pair.ours.place()),
                  TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.has(debug, unit, line(answering, "Error send, rc = -1")));
    }
}

TEST_F(Router, ExtractsAReplyAsAnObject) {
    replies.publish(frame_start + reply_text);
    Json value;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_jrpc_router_mq_extract_response(&replies.sub.number, into(value)), 0);
    EXPECT_EQ(rendered(value.get()), R"({"jsonrpc":"2.0","id":"ports.Get","result":"a|b"})");
    EXPECT_TRUE(log.has(verbose, unit, line(receiving, "waiting to receive...")));
    EXPECT_TRUE(log.has(verbose, unit, line(receiving, std::string("Recv: ") + reply_text)));
}

TEST_F(Router, RefusesRepliesThatAreNoObjects) {
    const std::pair<std::string, std::string> rows[] = {{frame_start + "[]", "Invalid JSON message"},
                                                        {frame_start + "nonsense", stopped_at("nonsense")},
                                                        {reply_channel, "Error parse_msg, rc = -1"},
                                                        {"", ""}};
    BusPair everything("", 2000);
    for (const auto &[frame, words] : rows) {
        everything.publish(frame);
        Json value;
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_router_mq_extract_response(&everything.sub.number, into(value)), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(value, nullptr);
        EXPECT_TRUE(words.empty() || log.has(debug, unit, line(receiving, words))) << log.text();
    }
}

TEST_F(Router, LetsTheTimeOutSurfaceOnTheSplitPath) {
    Json value;
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_router_mq_extract_response(&replies.sub.number, into(value)), TAVRIX_ERR_MQ_TIMEOUT);
    EXPECT_TRUE(log.has(debug, unit, line(receiving, "Failed mq_socket_recv, rc = -46")));
}

TEST_F(Router, SendsAnObjectCompactAndEscapedAndKeepsTheClientOpen) {
    SocketPair pair;
    const Json value = parsed("{\"id\": \"\xc3\xbc\"}");
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_jrpc_router_socket_dispatch_response(pair.ours.place(), value.get()), 0);
    EXPECT_TRUE(log.has(verbose, unit, "JSON response sent, of string length 15\n"));
    EXPECT_TRUE(log.has(verbose, unit, "The JSON Request was:\n{\"id\":\"\\u00FC\"}\n"));
    EXPECT_TRUE(log.has(debug, unit, line(sending, "Sending response over socket ...")));
    EXPECT_EQ(log.count(debug, unit, line(answering, "Error send, rc = 0")), 0) << log.text();
    EXPECT_GE(pair.ours.get(), 0);
    pair.ours.reset();
    EXPECT_EQ(pair.theirs.hear(), R"({"id":"\u00FC"})");
}

// --- Notifications to the router ---

int handler_rc = 0;
int handler_calls = 0;
std::string handler_params;

int handle(json_t *params, json_t **result, json_t **error_data) {
    ++handler_calls;
    handler_params = params != nullptr ? rendered(params) : "null";
    *result = json_object();
    *error_data = json_object();
    return handler_rc;
}

int never(json_t *, json_t **, json_t **) {
    ADD_FAILURE() << "the wrong handler";
    return 0;
}

const tavrix_jrpc_method notifications[] = {
    {"router.W", never}, {"router.X", handle}, {"router.X", never}, {nullptr, nullptr}};

int evaluate(const std::string &text) {
    const Json value = parsed(text);
    return tavrix_jrpc_router_eval_notification(value.get(), notifications);
}

constexpr char evaluating[] = "tavrix_jrpc_router_eval_notification";

TEST(RouterNotification, CallsItsHandler) {
    handler_calls = 0;
    handler_rc = 0;
    EXPECT_EQ(evaluate(R"({"jsonrpc":"2.0","method":"router.X"})"), 0);
    EXPECT_EQ(handler_params, "null");
    EXPECT_EQ(evaluate(R"({"jsonrpc":"2.0","method":"router.X","params":{"a":[1]}})"), 0);
    EXPECT_EQ(handler_params, R"({"a":[1]})");
    EXPECT_EQ(handler_calls, 2);
}

TEST(RouterNotification, PassesTheHandlersStatusOnAPositiveOneToo) {
    for (const int rc : {1, int{TAVRIX_ERR_PARAMETER_NOT_FOUND}}) {
        handler_rc = rc;
        const LogCapture log("info");
        EXPECT_EQ(evaluate(R"({"jsonrpc":"2.0","method":"router.X"})"), rc);
        EXPECT_TRUE(log.has(error, unit, line(evaluating, "Failed method handler, rc = " + std::to_string(rc))));
    }
    handler_rc = 0;
}

TEST(RouterNotification, RefusesWhatIsMalformedInThisOrder) {
    const std::tuple<const char *, Level, const char *> rows[] = {
        {R"({"id":null})", error, "Invalid Request id found in notification"},
        {R"({"id":1,"jsonrpc":"2.0","method":"router.X"})", error, "Invalid Request id found in notification"},
        {R"({"params":[]})", error, "Empty jsonrpc"},
        {R"({"jsonrpc":2,"params":[]})", error, "Invalid Request jsonrpc"},
        {R"({"jsonrpc":"2.1","params":[]})", error, "Invalid Request jsonrpc version"},
        {R"({"jsonrpc":"2.0","params":[]})", error, "Invalid Request params"},
        {R"({"jsonrpc":"2.0","params":null,"method":"router.X"})", error, "Invalid Request params"},
        {R"({"jsonrpc":"2.0"})", error, "No JSON method"},
        {R"({"jsonrpc":"2.0","method":1})", error, "Invalid Request method"},
        {R"({"jsonrpc":"2.0","method":"router.x"})", warning, "No method handler found"},
    };
    handler_calls = 0;
    for (const auto &[text, level, words] : rows) {
        const LogCapture log("info");
        EXPECT_EQ(evaluate(text), TAVRIX_ERR_GENERAL) << text;
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_TRUE(log.has(level, unit, line(evaluating, words))) << log.text();
    }
    EXPECT_EQ(handler_calls, 0);
}

TEST(RouterNotification, RefusesNull) {
    const Json value = parsed("{}");
    expect_nulls_refused(TAVRIX_ERR_GENERAL, std::string("ERROR|[") + evaluating + "]: NULL pointer!",
                         tavrix_jrpc_router_eval_notification, value.get(), &notifications[0]);
}

// --- System responses ---

TEST(LockResponse, CarriesIdAndTransactionIdOfAnyTypeWhenThereIsOne) {
    for (const std::string id : {"9", "\"t\"", "null", "1.5", "[2]"}) {
        const Json asked = parsed(R"({"method":"x","id":"a","transaction_id":)" + id + "}");
        Json response;
        ASSERT_EQ(tavrix_jrpc_router_create_system_lock_response(asked.get(), into(response)), 0);
        const Json expected = parsed(R"({"jsonrpc":"2.0","id":"a","transaction_id":)" + id +
                                     R"(,"error":{"code":-32014,"message":"System is busy.","data":null}})");
        EXPECT_TRUE(json_equal(response.get(), expected.get())) << rendered(response.get());
        EXPECT_EQ(json_object_get(response.get(), "transaction_id"), json_object_get(asked.get(), "transaction_id"))
            << "shared";
    }
    const Json asked = parsed(R"({"id":"a"})");
    Json response;
    ASSERT_EQ(tavrix_jrpc_router_create_system_lock_response(asked.get(), into(response)), 0);
    EXPECT_EQ(json_object_get(response.get(), "transaction_id"), nullptr);
}

TEST(LockResponse, NeedsAnIdThatIsAString) {
    constexpr char locking[] = "tavrix_jrpc_router_create_system_lock_response";
    for (const char *text : {"{}", R"({"id":5})", R"({"id":null})"}) {
        const Json asked = parsed(text);
        const Json old = parsed("{}");
        json_t *response = old.get();
        const LogCapture log("debug");
        EXPECT_EQ(tavrix_jrpc_router_create_system_lock_response(asked.get(), &response), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(response, nullptr);
        EXPECT_TRUE(log.said({std::string("DEBUG|[") + locking +
                              "]: " + (std::string(text) == "{}" ? "No JSON id" : "Invalid JSON method")}));
    }
    const Json asked = parsed("{}");
    json_t *response = asked.get();
    expect_nulls_refused(TAVRIX_ERR_GENERAL, null_pointer(locking), tavrix_jrpc_router_create_system_lock_response,
                         asked.get(), &response);
    EXPECT_EQ(response, asked.get()) << "untouched";
}

TEST(TimeOutResponse, AlwaysCarriesATransactionId) {
    for (const int id : {0, 7, -1, INT32_MAX}) {
        Json response;
        ASSERT_EQ(tavrix_jrpc_router_create_system_timeout_response("b", id, into(response)), 0);
        const Json expected = parsed(R"({"jsonrpc":"2.0","id":"b","transaction_id":)" + std::to_string(id) +
                                     R"(,"error":{"code":-32005,"message":"Command timed out","data":null}})");
        EXPECT_TRUE(json_equal(response.get(), expected.get())) << rendered(response.get());
    }
}

TEST(TimeOutResponse, RefusesNullAndGivesNullWhenItCannotBeMade) {
    const Json old = parsed("{}");
    json_t *response = old.get();
    expect_nulls_refused(TAVRIX_ERR_GENERAL, null_pointer("tavrix_jrpc_router_create_system_timeout_response"),
                         tavrix_jrpc_router_create_system_timeout_response, "b", 0, &response);
    EXPECT_EQ(response, nullptr) << "a null id too";
    response = old.get();
    EXPECT_EQ(tavrix_jrpc_router_create_system_timeout_response("\xff", 0, &response), TAVRIX_ERR_GENERAL)
        << "no valid UTF-8";
    EXPECT_EQ(response, nullptr);
}

} // namespace
