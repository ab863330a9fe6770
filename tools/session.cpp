#include "session.h"

#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

#include "interrupt.h"

namespace tavrixctl {

Session::Got Session::next_line(const Deadline &deadline, std::string *line) {
    char chunk[65536];
    bool has_read = false;
    for (;;) {
        const size_t end = buffer_.find('\n', searched_);
        if (end != std::string::npos) {
            *line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            searched_ = 0;
            return Got::line;
        }
        searched_ = buffer_.size();
        if (stop_requested()) {
            return Got::stopped;
        }
        if (has_read && deadline.passed()) {
            return Got::timeout; // however much comes without an end
        }
        pollfd ready[] = {{socket_.get(), POLLIN, 0}, {stop_descriptor(), POLLIN, 0}};
        const int count = poll(ready, 2, deadline.left_ms());
        if (count == 0) {
            return Got::timeout;
        }
        if (count < 0 || ready[0].revents == 0) {
            continue; // a signal, which may have been the stop
        }
        const ssize_t got = recv(socket_.get(), chunk, sizeof chunk, 0);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return Got::closed;
        }
        buffer_.append(chunk, got < 0 ? 0 : static_cast<size_t>(got));
        has_read = true;
    }
}

Session::Got Session::next_message(const Deadline &deadline, Json *message) {
    do {
        std::string line;
        const Got got = next_line(deadline, &line);
        if (got != Got::line) {
            return got;
        }
        message->reset(json_loadb(line.data(), line.size(), 0, nullptr));
        if (*message) {
            return got;
        }
    } while (!deadline.passed());
    return Got::timeout;
}

Session::Got Session::next(bool is_notification, const Deadline &deadline, Json *message) {
    do {
        const Got got = next_message(deadline, message);
        if (got != Got::line || (json_object_get(message->get(), "method") != nullptr) == is_notification) {
            return got;
        }
        if (!is_notification) {
            kept_.push_back(std::move(*message));
        }
    } while (!deadline.passed());
    return Got::timeout;
}

Session::Got Session::next_notification(const Deadline &deadline, Json *notification) {
    if (kept_.empty()) {
        return next(true, deadline, notification);
    }
    *notification = std::move(kept_.front());
    kept_.pop_front();
    return Got::line;
}

Session::Got Session::next_answer(const Deadline &deadline, Json *answer) { return next(false, deadline, answer); }

int Session::ask(const std::string &request, const Deadline &deadline, Json *answer) {
    const int status = send(request, deadline);
    if (status != exit_result) {
        return status;
    }
    const Got got = next_answer(deadline, answer);
    return got == Got::line ? static_cast<int>(exit_result) : tell_end(got);
}

int open_session(const Target &target, const Deadline &deadline, std::unique_ptr<Session> *out) {
    Socket socket;
    RoadKind kind = RoadKind::session;
    const int status = connect_to(only(RoadKind::session, roads_to(target)), 0, deadline, &socket, &kind);
    if (status == exit_result) {
        *out = std::make_unique<Session>(std::move(socket));
    }
    return status;
}

int tell_end(Session::Got got) {
    switch (got) {
    case Session::Got::timeout:
        complain("no answer in time; %s", late_remedy);
        return exit_timeout;
    case Session::Got::closed:
        complain("the connection was closed without an answer");
        return exit_no_connection;
    default:
        return exit_result; // stopped, as asked
    }
}

} // namespace tavrixctl
