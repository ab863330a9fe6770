/**
 * A session with the router: lines of JSON in both directions, over one connection that stays.
 */
#ifndef TAVRIX_TOOLS_SESSION_H
#define TAVRIX_TOOLS_SESSION_H

#include <deque>
#include <string>

#include "stream.h"
#include "support.h"

namespace tavrixctl {

class Session {
  public:
    explicit Session(Socket socket) : socket_(std::move(socket)) {}

    enum class Got { line, timeout, closed, stopped };

    /** Complains and returns the exit status when it fails. */
    int send(const std::string &text, const Deadline &deadline) {
        return send_text(socket_.get(), text + "\n", deadline);
    }

    /** The next line that is no answer: a notification. Lines that are no JSON objects are passed over. */
    Got next_notification(const Deadline &deadline, Json *notification);

    /** The next answer, whoever asked. Notifications on the way are kept for later. */
    Got next_answer(const Deadline &deadline, Json *answer);

    /** Sends one request and waits for its answer. Complains and returns the exit status when there is none. */
    int ask(const std::string &request, const Deadline &deadline, Json *answer);

  private:
    Got next(bool is_notification, const Deadline &deadline, Json *message);
    Got next_message(const Deadline &deadline, Json *message);
    Got next_line(const Deadline &deadline, std::string *line);

    Socket socket_;
    std::string buffer_;
    size_t searched_ = 0; ///< of the buffer, without a newline
    std::deque<Json> kept_;
};

/** Opens a session where the target leads to one. Complains and returns the exit status when it does not. */
int open_session(const Target &target, const Deadline &deadline, std::unique_ptr<Session> *out);

/** Complains about the end of a session that was to go on, and gives the exit status. */
int tell_end(Session::Got got);

} // namespace tavrixctl

#endif
