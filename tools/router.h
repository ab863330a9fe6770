/**
 * The router: sessions with it, questions to it, whichever road leads there, and its document of all that can be
 * called.
 */
#ifndef TAVRIX_TOOLS_ROUTER_H
#define TAVRIX_TOOLS_ROUTER_H

#include <deque>
#include <memory>

#include "stream.h"
#include "support.h"

namespace tavrixctl {

/** Lines of JSON in both directions, over one connection that stays. */
class RouterSession {
  public:
    explicit RouterSession(Socket socket) : socket_(std::move(socket)) {}

    enum class Got { line, timeout, closed, stopped };

    /** Complains and returns the exit status when it fails. */
    int send(const std::string &text, const Deadline &deadline) {
        return send_text(socket_.get(), text + "\n", deadline);
    }

    /**
     * The next line that is no answer: a notification. Lines that are no JSON objects are passed over, and what the
     * router says of lost ones, which is complained about.
     */
    Got next_notification(const Deadline &deadline, Json *notification);

    /** The next answer, whoever asked. Notifications on the way are kept for later. */
    Got next_answer(const Deadline &deadline, Json *answer);

    /** Sends one request and waits for its answer. Complains and returns the exit status when there is none. */
    int ask(const std::string &request, const Deadline &deadline, Json *answer);

  private:
    Got next(bool is_notification, const Deadline &deadline, Json *message);
    Got next_line(const Deadline &deadline, std::string *line);

    Socket socket_;
    std::string buffer_;
    size_t searched_ = 0; ///< of the buffer, without a newline
    std::deque<Json> kept_;
};

/** Opens a session where the target leads to one. Complains and returns the exit status when it does not. */
int open_session(const Target &target, const Deadline &deadline, std::unique_ptr<RouterSession> *out);

/** The same, with router.Subscribe or router.Monitor behind it, which may be refused. */
int open_stream(const Target &target, const char *method, const std::vector<std::string> &patterns,
                const Deadline &deadline, std::unique_ptr<RouterSession> *out);

/** Complains about the end of a session that was to go on, and gives the exit status. */
int tell_end(RouterSession::Got got);

class RouterCalls {
  public:
    explicit RouterCalls(const Target &target) : roads_(roads_to(target)) {}

    /** The answer to a request's text. Complains and returns the exit status when there is none. */
    int exchange(const std::string &request, const Deadline &deadline, std::string *answer);

    /** The method's result. Complains and returns the exit status when there is none; null when it was stopped. */
    int ask(const std::string &method, Json params, const Deadline &deadline, Json *result);

  private:
    std::vector<Road> roads_;
    std::unique_ptr<RouterSession> session_; ///< kept from the first question on, when that is the road
};

/** Asks the router and runs the action with the result; otherwise the status of ask(). */
template <class Action>
int with_result(const Question &question, const char *method, Action action) {
    Json result;
    const int status = RouterCalls(question.target).ask(method, nullptr, Deadline(question.timeout_s), &result);
    return status == exit_result ? action(result.get()) : status;
}

/** The exit status that an answer stands for: a result, an error, a time-out. */
int status_of(const json_t *answer);
/** The same in the word that records and monitors have for it. */
const char *outcome_of(const json_t *answer);

/** Whether the router's policy has refused it, by the error's data. */
bool is_refused_by_policy(const json_t *data);

/** What an error answer says, in words; whoever meets the policy is also told whom it lets pass. */
std::string words_of_failure(const std::string &method, const json_t *answer);

/** The document's methods in the order of their names. */
std::vector<const json_t *> methods_of(const json_t *document);

/** The method of this name; null when there is none. */
const json_t *find_method(const std::vector<const json_t *> &methods, const std::string &name);

/** Whether a text is one of the values that the schema allows, so that `name=` can give them. */
bool takes_text(const json_t *schema);

} // namespace tavrixctl

#endif
