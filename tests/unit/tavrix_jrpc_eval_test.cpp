#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/json.h"
#include "support/log_capture.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"

using namespace support;

namespace {

constexpr char unit[] = "tavrix_jrpc";

/** What the handlers saw, and what they are to do next. */
struct Script {
    int calls = 0;

    std::string params;
    int rc = 0;
    json_t *result = nullptr;
    json_t *error_data = nullptr;
};
Script script;

int scripted(json_t *params, json_t **result, json_t **error_data) {
    ++script.calls;
    script.params = rendered(params);
    EXPECT_EQ(*result, nullptr);
    EXPECT_EQ(*error_data, nullptr);
    *result = std::exchange(script.result, nullptr);
    *error_data = std::exchange(script.error_data, nullptr);
    return script.rc;
}

int never(json_t *, json_t **, json_t **) {
    ADD_FAILURE() << "the wrong handler";
    return 0;
}

const tavrix_jrpc_method table[] = { // a row without a name is passed over
    {nullptr, never},
    {"first.Method", never},
    {"test.Run", scripted},
    {"test.Run", never},
    {nullptr, nullptr}};

Answer evaluate(const std::string &request) {
    return answer_of([&](char **text) { return tavrix_jrpc_eval_request(request.c_str(), table, text); });
}

/** The response as an object whose members can be compared whatever their order. */
void expect_json(const std::string &text, const std::string &expected) {
    EXPECT_TRUE(json_equal(parsed(text).get(), parsed(expected).get())) << text << "\nexpected " << expected;
}

class Evaluate : public testing::Test {
  protected:
    void SetUp() override { script = Script(); }
    void TearDown() override {
        json_decref(script.result);
        json_decref(script.error_data);
    }
};

constexpr char good[] = R"({"jsonrpc":"2.0","id":1,"method":"test.Run"})";

} // namespace

TEST_F(Evaluate, RefusesEachNullArgument) {
    char stale[] = "not the library's";
    const LogCapture log("info");
    for (const auto &[request, methods] : {std::pair(static_cast<const char *>(nullptr), &table[0]), {good, nullptr}}) {
        char *text = stale;
        EXPECT_EQ(tavrix_jrpc_eval_request(request, methods, &text), TAVRIX_ERR_GENERAL);
        EXPECT_EQ(text, nullptr);
    }
    EXPECT_EQ(tavrix_jrpc_eval_request(good, table, nullptr), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(log.count(error, unit, "tavrix_jrpc_eval_request: NULL pointer!\n"), 3);
    EXPECT_EQ(script.calls, 0);
}

TEST_F(Evaluate, CallsTheFirstMethodOfTheNameWithItsParams) {
    const Answer answer = evaluate(good);
    EXPECT_EQ(answer.rc, 0);
    EXPECT_EQ(script.calls, 1);
    EXPECT_EQ(script.params, "(null)");
    expect_json(answer.text, R"({"jsonrpc":"2.0","id":"test.Run","result":0})");
    evaluate(R"({"jsonrpc":"2.0","id":1,"method":"test.Run","params":{"a":[1,2]}})");
    EXPECT_EQ(script.params, R"({"a":[1,2]})");
}

TEST_F(Evaluate, AnswersWithTheMethodsNameAsIdWhateverTheRequestsId) {
    for (const char *id : {"5", "1.5", "\"abc\"", "\"\"", "-7"}) {
        script = Script();
        script.result = json_string("done");
        const Answer answer = evaluate(std::string(R"({"jsonrpc":"2.0","method":"test.Run","id":)") + id + "}");
        EXPECT_EQ(answer.rc, 0) << id;
        expect_json(answer.text, R"({"jsonrpc":"2.0","id":"test.Run","result":"done"})");
    }
}

TEST_F(Evaluate, EchoesTheTransactionIdUnchanged) {
    for (const char *id : {"7", "0", "-3", "2.5", "9007199254740993"}) {
        const Answer answer =
            evaluate(std::string(R"({"jsonrpc":"2.0","id":1,"method":"test.Run","transaction_id":)") + id + "}");
        expect_json(answer.text,
                    std::string(R"({"jsonrpc":"2.0","id":"test.Run","result":0,"transaction_id":)") + id + "}");
    }
}

TEST_F(Evaluate, WritesCompactAsciiText) {
    script.result = json_pack("{s:s}", "name", "Z\xc3\xbcrich");
    const Answer answer = evaluate(good);
    EXPECT_EQ(answer.text.find(' '), std::string::npos);
    EXPECT_NE(answer.text.find("Z\\u00FCrich"), std::string::npos) << answer.text;
}

TEST_F(Evaluate, TakesAPositiveStatusForSuccessAndDropsItsErrorData) {
    script.rc = 3;
    script.result = json_true();
    script.error_data = json_object();
    expect_json(evaluate(good).text, R"({"jsonrpc":"2.0","id":"test.Run","result":true})");
}

TEST_F(Evaluate, ConvertsAFailureAndCarriesItsData) {
    script.rc = TAVRIX_ERR_PARAMETER_NOT_FOUND;
    script.result = json_integer(99);
    script.error_data = json_pack("{s:s}", "message", "Missing");
    const Answer answer = evaluate(R"({"jsonrpc":"2.0","id":1,"method":"test.Run","transaction_id":4})");
    EXPECT_EQ(answer.rc, 0);
    expect_json(answer.text,
                R"j({"jsonrpc":"2.0","id":"test.Run","transaction_id":4,)j"
                R"j("error":{"code":-32602,"message":"Invalid parameter(s)","data":{"message":"Missing"}}})j");
}

TEST_F(Evaluate, AnswersAStatusThatClientsDoNotKnowAsUnknownError) {
    script.rc = TAVRIX_ERR_NULL_INPUT;
    expect_json(evaluate(good).text, R"({"jsonrpc":"2.0","id":"test.Run",
        "error":{"code":-32001,"message":"Unknown Error","data":null}})");
}

TEST_F(Evaluate, AnswersAnUnknownMethodWithItAsId) {
    for (const std::string method : {"\"x.Unknown\"", "[1]"}) {
        const LogCapture log("info");
        const Answer answer = evaluate(R"({"jsonrpc":"2.0","id":5,"method":)" + method + "}");
        EXPECT_EQ(answer.rc, 0);
        expect_json(answer.text, R"({"jsonrpc":"2.0","id":)" + method +
                                     R"(,"error":{"code":-32601,"message":"Method not found","data":null}})");
        EXPECT_EQ(log.has(error, unit, "invalid method occurred <x.Unknown>\n"), method[0] == '"');
        EXPECT_EQ(log.last(), "ERROR|JSON Response: " + answer.text + "\n");
    }
}

TEST_F(Evaluate, ComparesMethodNamesByteForByte) {
    for (const char *name : {"test.run", "test.Run ", "test.Ru", "TEST.RUN", ""}) {
        evaluate(std::string(R"({"jsonrpc":"2.0","id":5,"method":")") + name + "\"}");
    }
    EXPECT_EQ(script.calls, 0);
}

TEST_F(Evaluate, GivesNoResponseToANotification) {
    const auto outcome = [](const std::string &method) {
        const Answer answer = evaluate(R"({"jsonrpc":"2.0","method":")" + method + "\"}");
        EXPECT_EQ(answer.text, "(null)");
        return answer.rc;
    };
    EXPECT_EQ(outcome("test.Run"), 0);
    EXPECT_EQ(script.calls, 1);
    script.rc = TAVRIX_ERR_PARAMETER;
    script.result = json_integer(1);
    script.error_data = json_object();
    EXPECT_EQ(outcome("test.Run"), TAVRIX_ERR_GENERAL);
    EXPECT_EQ(outcome("x"), TAVRIX_ERR_GENERAL);
}

struct Refused {
    const char *name;
    const char *request;
    const char *line = "(silent)"; ///< what is said first
};

constexpr char bad_id[] = "ERROR|tavrix_jrpc_eval_request: Invalid Request ID\n";
constexpr char bad_transaction[] = "ERROR|tavrix_jrpc_eval_request: Invalid Transaction ID\n";
constexpr char no_json[] = "ERROR|tavrix_jrpc_eval_request: Cannot parse JSON data\n";
constexpr char no_object[] = "ERROR|tavrix_jrpc_eval_request: Invalid JSON\n";

const Refused refused_requests[] = {
    {"IdTrue", R"({"jsonrpc":"2.0","id":true,"method":"test.Run"})", bad_id},
    {"IdNull", R"({"jsonrpc":"2.0","id":null,"method":"test.Run"})", bad_id},
    {"IdArray", R"({"jsonrpc":"2.0","id":[],"method":"test.Run"})", bad_id},
    {"IdObject", R"({"jsonrpc":"2.0","id":{},"method":"test.Run"})", bad_id},
    {"IdBeforeTransaction", R"({"id":{},"transaction_id":"x","method":"test.Run"})", bad_id},
    {"TransactionText", R"({"jsonrpc":"2.0","id":1,"transaction_id":"x","method":"test.Run"})", bad_transaction},
    {"TransactionNull", R"({"jsonrpc":"2.0","id":1,"transaction_id":null,"method":"test.Run"})", bad_transaction},
    {"TransactionBeforeVersion", R"({"id":1,"transaction_id":true,"method":"test.Run"})", bad_transaction},
    {"VersionMissing", R"({"id":1,"method":"test.Run"})"},
    {"VersionNumber", R"({"jsonrpc":2.0,"id":1,"method":"test.Run"})"},
    {"VersionOne", R"({"jsonrpc":"1.0","id":1,"method":"test.Run"})"},
    {"ParamsArray", R"({"jsonrpc":"2.0","id":1,"method":"test.Run","params":[]})"},
    {"ParamsNull", R"({"jsonrpc":"2.0","id":1,"method":"test.Run","params":null})"},
    {"MethodMissing", R"({"jsonrpc":"2.0","id":1})"},
    {"MethodMissingInNotification", R"({"jsonrpc":"2.0"})"},
    {"NoJson", "hello", no_json},
    {"Empty", "", no_json},
    {"Half", "{\"a\":", no_json},
    {"DuplicateKeys", R"({"jsonrpc":"2.0","jsonrpc":"2.0","id":1,"method":"test.Run"})", no_json},
    {"Array", "[]", no_object},
    {"Number", "12", no_object},
    {"Null", "null", no_object},
};

TEST(EvaluateRefuses, WithoutAnyResponse) {
    for (const Refused &row : refused_requests) {
        SCOPED_TRACE(row.name);
        script = Script();
        const LogCapture log("info");
        const Answer answer = evaluate(row.request);
        EXPECT_EQ(answer.rc, TAVRIX_ERR_GENERAL);
        EXPECT_EQ(answer.text, "(null)");
        EXPECT_EQ(script.calls, 0);
        EXPECT_EQ(log.first(), row.line);
    }
}

TEST_F(Evaluate, SaysWhereTheParserStopped) {
    const LogCapture log("info");
    evaluate("{\n\n]");
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.last(), std::string("ERROR|error: on line 3: ") + parse_error("{\n\n]").text + "\n");
}

TEST_F(Evaluate, IgnoresWhatFollowsTheObject) {
    EXPECT_EQ(evaluate(std::string(good) + " trailing").rc, 0);
    EXPECT_EQ(script.calls, 1);
}

TEST_F(Evaluate, ShowsRequestAndResponseAtVerboseLevelAndOnlyALengthAtDebugLevel) {
    const std::string rendering = "{\n    \"jsonrpc\": \"2.0\",\n    \"id\": 1,\n    \"method\": \"test.Run\"\n}";
    std::string sent;
    LogCapture log("verbose");
    const Answer answer = evaluate(good);
    sent = "DEBUG|JSON response sent, of string length " + std::to_string(answer.text.size());
    EXPECT_TRUE(log.said({"VERB |Valid JSON received, of length " + std::to_string(rendering.size()),
                          "VERB |JSON Data:\n" + rendering, "VERB |creating response", sent,
                          "VERB |The JSON Response was:\n" + answer.text}));
    log.begin("debug");
    evaluate(good);
    EXPECT_TRUE(log.said({sent}));
}

// --- The two builders ---

TEST(CreateResponse, SharesItsValues) {
    const Json result(json_integer(1));
    const Json id(json_string("m"));
    const Json transaction(json_real(0.5));
    expect_json(taken(tavrix_jrpc_create_response(result.get(), id.get(), 0, transaction.get())),
                R"({"jsonrpc":"2.0","id":"m","result":1,"transaction_id":0.5})");
    EXPECT_EQ(result->refcount, 1U);
    EXPECT_EQ(id->refcount, 1U);
    EXPECT_EQ(transaction->refcount, 1U);
}

TEST(CreateResponse, RefusesNullAndBadIndentAtErrorLevel) {
    const Json value(json_integer(1));
    const LogCapture log("info");
    EXPECT_EQ(tavrix_jrpc_create_response(nullptr, value.get(), 0, nullptr), nullptr);
    EXPECT_EQ(tavrix_jrpc_create_response(value.get(), nullptr, 0, nullptr), nullptr);
    EXPECT_TRUE(log.said(Lines(2, "ERROR|tavrix_jrpc_create_response: NULL pointer!")));
    for (const int indent : {-1, 32}) {
        EXPECT_EQ(tavrix_jrpc_create_response(value.get(), value.get(), indent, nullptr), nullptr);
        EXPECT_EQ(log.last(), "ERROR|tavrix_jrpc_create_response: Invalid Indent Number\n");
    }
}

TEST(CreateResponse, ReportsWhatCannotBeRendered) {
    const Json value(json_integer(1));
    const Json loop(json_array());
    json_t *inner = json_array();
    json_array_append_new(loop.get(), inner);
    json_array_append(inner, loop.get()); // a circle has no text
    const LogCapture log("info");
    EXPECT_EQ(tavrix_jrpc_create_response(loop.get(), value.get(), 0, nullptr), nullptr);
    EXPECT_EQ(tavrix_jrpc_create_error(TAVRIX_JRPC_UNKNOWN_ERROR, value.get(), loop.get(), 0, nullptr), nullptr);
    EXPECT_TRUE(log.said({"ERROR|tavrix_jrpc_create_response: Failed to create JRPC response",
                          "ERROR|tavrix_jrpc_create_error: Failed to create JRPC response"}));
    json_array_clear(inner);
}

TEST(Builders, IndentFrom0To31) {
    const Json value(json_integer(1));
    const std::string indented = "{\n" + std::string(31, ' ') + "\"";
    EXPECT_EQ(taken(tavrix_jrpc_create_response(value.get(), value.get(), 31, nullptr)).find(indented), 0U);
    EXPECT_EQ(
        taken(tavrix_jrpc_create_error(TAVRIX_JRPC_UNKNOWN_ERROR, value.get(), nullptr, 31, nullptr)).find(indented),
        0U);
    EXPECT_EQ(taken(tavrix_jrpc_create_response(value.get(), value.get(), 0, nullptr)).find('\n'), std::string::npos);
}

TEST(CreateError, CarriesCodeMessageAndData) {
    const Json id(json_string("m"));
    const Json data(json_pack("[i]", 1));
    expect_json(
        taken(tavrix_jrpc_create_error(TAVRIX_JRPC_UNSUPPORTED_FEATURE, id.get(), data.get(), 0, nullptr)),
        R"({"jsonrpc":"2.0","id":"m","error":{"code":-32003,"data":[1],"message":)"
        R"("This feature is not supported in this version, or the API may be incorrectly formed.  Please check the API documentation for further details."}})");
    expect_json(
        taken(tavrix_jrpc_create_error(TAVRIX_JRPC_PARSE_ERROR, id.get(), nullptr, 0, data.get())),
        R"({"jsonrpc":"2.0","id":"m","transaction_id":[1],"error":{"code":-32700,"message":"Parse error","data":null}})");
    EXPECT_EQ(id->refcount, 1U);
    EXPECT_EQ(data->refcount, 1U);
}

TEST(CreateError, RefusesNullAndBadIndentAtDebugLevel) {
    const Json id(json_string("m"));
    const LogCapture log("debug");
    EXPECT_EQ(tavrix_jrpc_create_error(TAVRIX_JRPC_UNKNOWN_ERROR, nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(tavrix_jrpc_create_error(TAVRIX_JRPC_UNKNOWN_ERROR, id.get(), nullptr, -1, nullptr), nullptr);
    EXPECT_EQ(tavrix_jrpc_create_error(TAVRIX_JRPC_UNKNOWN_ERROR, id.get(), nullptr, 32, nullptr), nullptr);
    EXPECT_TRUE(log.said({"DEBUG|[tavrix_jrpc_create_error]: NULL pointer!",
                          "DEBUG|[tavrix_jrpc_create_error]: Invalid indent -1!",
                          "DEBUG|[tavrix_jrpc_create_error]: Invalid indent 32!"}));
}

TEST(CreateError, FallsBackForACodeWithoutMessageAndShowsItsTextAtErrorLevel) {
    const Json id(json_string("m"));
    const LogCapture log("info");
    const std::string text = taken(tavrix_jrpc_create_error(0, id.get(), nullptr, 0, nullptr));
    expect_json(text, R"({"jsonrpc":"2.0","id":"m","error":{"code":0,"message":"Unknown Error","data":null}})");
    EXPECT_TRUE(log.said({"ERROR|JSON Response: " + text}));
}
