/**
 * A reference service's method table, driven by the test kit: what its tests have in common.
 */
#ifndef TAVRIX_TESTS_TESTKIT_DRIVEN_SERVICE_H
#define TAVRIX_TESTS_TESTKIT_DRIVEN_SERVICE_H

#include <string>

#include <gtest/gtest.h>

#include "support/json.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_service_test.h"

namespace driven {

inline std::string text(const char *found) { return found != nullptr ? found : "(none)"; }

/** An outcome: {"result":...}, or {"error":...} whose data has the status's words. */
inline std::string result(const std::string &value) { return R"({"result":)" + value + "}"; }
inline std::string code_and_words(const std::string &outcome) {
    return support::code_of(outcome) + " " + support::message_of(outcome);
}
inline std::string code_and_words(int code, const std::string &words) {
    return std::to_string(code) + " \"" + words + "\"";
}
/** How a status is answered: its words are the message of the error's data. */
inline std::string code_and_words(int code, tavrix_status status) {
    return code_and_words(code, std::string(tavrix_error_decode(status)));
}

/** A text as JSON. */
inline std::string quoted(const std::string &text) { return support::taken(json_string(text.c_str())); }

class Service {
  public:
    explicit Service(const tavrix_service_options &options) {
        EXPECT_EQ(tavrix_service_test_open(&options, &test_), TAVRIX_OK);
    }
    Service(const char *name, const tavrix_service_method *methods, void *user,
            void (*ready)(tavrix_service *, void *) = nullptr)
        : Service(options_of(name, methods, user, ready)) {}
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    ~Service() { close(); }
    void close() {
        tavrix_service_test_close(test_);
        test_ = nullptr;
    }

    tavrix_service *service() const { return tavrix_service_test_service(test_); }

    /** The outcome; "(none)" when the call is deferred. */
    std::string call(const char *method, const std::string &params = "{}") {
        return text(tavrix_service_test_call(test_, method, params.c_str()));
    }
    std::string request(const std::string &whole) { return text(tavrix_service_test_request(test_, whole.c_str())); }
    std::string next_outcome() { return text(tavrix_service_test_next_outcome(test_)); }
    /** By its transaction id: calls count from 1. */
    void cancel(int64_t call) { tavrix_service_test_cancel(test_, call); }

    std::string next_request() { return text(tavrix_service_test_next_request(test_)); }
    void play(const char *method, const std::string &outcome) {
        tavrix_service_test_play(test_, method, outcome.c_str());
    }
    bool answer(const char *method, const std::string &outcome) {
        return tavrix_service_test_answer(test_, method, outcome.c_str());
    }
    std::string next_notification() { return text(tavrix_service_test_next_notification(test_)); }
    bool logged(const char *part) { return tavrix_service_test_logged(test_, part); }
    std::string next_log() { return text(tavrix_service_test_next_log(test_)); }

    void lose(uint64_t count) { tavrix_service_test_lose(test_, count); }
    void notify(const char *method, const char *params) { tavrix_service_test_notify(test_, method, params); }
    void run() { tavrix_service_test_run(test_); }
    void advance(int ms) { tavrix_service_test_advance(test_, ms); }
    void restart_router() { tavrix_service_test_restart_router(test_); }
    void stop() { tavrix_service_test_stop(test_); }
    bool is_stopped() const { return tavrix_service_test_is_stopped(test_); }

    /**
     * The call is refused for a parameter that is this JSON, or missing when that is empty; the words say what is wrong
     * with it. `others` are the members before it.
     */
    void expect_refusal(const char *method, const std::string &others, const std::string &parameter,
                        const std::string &json, const std::string &words, int code = TAVRIX_JRPC_INVALID_PARAMS) {
        const std::string params =
            others + (others.empty() || json.empty() ? "" : ",") + (json.empty() ? "" : quoted(parameter) + ":" + json);
        const std::string what = std::string(method) + " {" + params + "}";
        const std::string outcome = call(method, "{" + params + "}");
        const std::string data = support::data_of(outcome);
        const std::string reason = quoted(parameter + (json.empty() ? "" : ": " + json) + " " + words);
        const bool is_shown_as_it_is = json.find_first_of("\"-0123456789") == 0;
        EXPECT_EQ(support::code_of(outcome), std::to_string(code)) << what << outcome;
        EXPECT_EQ(support::member(data, "parameter"), quoted(parameter)) << what;
        EXPECT_EQ(support::member(data, "value"), json.empty()        ? "(none)"
                                                  : is_shown_as_it_is ? json
                                                                      : quoted(json))
            << what;
        EXPECT_EQ(support::member(data, "reason"), reason) << what;
        const std::string message = support::member(data, "message"); // the library's words, or the reason
        EXPECT_TRUE(message == reason || message == "\"Missing expected parameter: '" + parameter + "'\"" ||
                    message.rfind("\"Parameter '" + parameter + "' is not of type '", 0) == 0 ||
                    (parameter == "alias" && message == "\"Alias must be 8 characters or fewer.\""))
            << what << message;
    }
    /** The call fails with this code and the status's words. */
    void expect_failure(const char *method, const std::string &params, int code, tavrix_status status) {
        EXPECT_EQ(code_and_words(call(method, params)), code_and_words(code, status)) << method << params;
    }

  protected:
    tavrix_service_test *test() const { return test_; }

  private:
    static tavrix_service_options options_of(const char *name, const tavrix_service_method *methods, void *user,
                                             void (*ready)(tavrix_service *, void *)) {
        tavrix_service_options options{};
        options.name = name;
        options.methods = methods;
        options.user = user;
        options.ready = ready;
        return options;
    }

    tavrix_service_test *test_ = nullptr;
};

} // namespace driven

#endif
