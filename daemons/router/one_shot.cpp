#include "one_shot.h"

#include <cerrno>
#include <utility>

#include <sys/socket.h>

#include "common/log.h"
#include "foreign_log.h"
#include "router.h"
#include "tavrix_jrpc.h"

namespace router {

namespace {

constexpr char unit_name[] = "router";
constexpr size_t max_discarded = size_t{64} * 1024;

bool may_become_an_object(std::string_view beginning) {
    json_error_t error;
    const Json whole(json_loadb(beginning.data(), beginning.size(), tavrix::parse_flags, &error));
    return !whole && json_error_code(&error) == json_error_premature_end_of_input;
}

} // namespace

void OneShot::start() {
    deadline_.take(router_.client_deadlines(), *this);
    router_.wait_for_turn(*this);
}

void OneShot::take_turn() {
    if (state_ == State::reading) {
        read_request();
    }
    if (is_closed()) {
        return; // answered already: most clients send their request before they are accepted
    }
    if (readable_ != nullptr) {
        if (state_ != State::reading) {
            watch_for_hang_up(); // it may have come with the request, and is not told again
        }
    } else if (state_ == State::waiting && !half_closed_) {
        deadline_.take(router_.patience(), *this); // most are answered before anybody has to look whether they go
    } else if (!watch()) {
        close();
    }
}

bool OneShot::watch() {
    // Edge-triggered: an end of file that is already known must not wake the loop again and again.
    readable_.reset(event_new(router_.base(), descriptor_, EV_READ | EV_ET | EV_PERSIST, on_readable, this));
    return readable_ && event_add(readable_.get(), nullptr) == 0;
}

void OneShot::on_readable(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<OneShot *>(context);
    self->router_.serve(*self);
}

void OneShot::on_writable(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<OneShot *>(context);
    self->router_.guard(self, [self] { self->send_rest(); });
}

void OneShot::on_close() {
    deadline_.leave();
    account->unread -= std::exchange(counted_, 0);
    for (const daemon_support::Event *watch : {&readable_, &writable_}) {
        if (*watch) {
            event_del(watch->get());
        }
    }
}

void OneShot::time_out() {
    deadline_.leave();
    if (state_ == State::waiting) {
        if (watch()) {
            watch_for_hang_up();
        } else {
            close();
        }
        return;
    }
    if (state_ == State::writing) {
        LOG_FOREIGN("A client did not take its answer\n");
        close();
        return;
    }
    if (is_waiting) { // for its turn: it is the router that takes its time
        deadline_.take(router_.client_deadlines(), *this);
        return;
    }
    LOG_FOREIGN("A client said nothing in time\n");
    refuse(TAVRIX_JRPC_TIMED_OUT);
}

// --- The request ---------------------------------------------------------------------------------------------------

void OneShot::read_request() {
    while (state_ == State::reading) {
        char bytes[TAVRIX_ROUTER_MAX_REQUEST];
        const ssize_t count = recv(descriptor_, bytes, sizeof bytes - text_.size(), MSG_DONTWAIT);
        if (count > 0) {
            take_bytes({bytes, static_cast<size_t>(count)});
        } else if (count == 0) {
            half_closed_ = true;
            take_request();
        } else if (errno != EINTR) {
            if (errno != EAGAIN) {
                close();
            }
            return;
        }
    }
}

void OneShot::take_bytes(std::string_view bytes) {
    text_ += bytes;
    if (scanner_.is_complete_with(bytes) || text_.size() >= TAVRIX_ROUTER_MAX_REQUEST) {
        take_request();
    } else if (text_.size() >= 2 * tried_) {
        // A text that is wrong from its beginning is found out at once, and again whenever it has doubled.
        tried_ = text_.size();
        if (!may_become_an_object(std::string_view(text_).substr(0, scanner_.settled()))) {
            take_request();
        }
    }
}

void OneShot::take_request() {
    Json request(json_loadb(text_.data(), text_.size(), tavrix::parse_flags, nullptr));
    if (!json_is_object(request.get())) {
        LOG_FOREIGN("A client sent no JSON object\n");
        refuse(TAVRIX_JRPC_INVALID_REQUEST);
        return;
    }
    deadline_.leave();
    state_ = State::waiting;
    const std::string text = std::exchange(text_, {});
    router_.take_request(*this, {std::move(request), text}, nullptr);
    if (!is_closed() && state_ == State::waiting && half_closed_) {
        watch_for_hang_up();
    }
}

void OneShot::refuse(int jrpc_code) {
    router_.count_refused();
    state_ = State::waiting;
    answer(make_error(jrpc_code, nullptr, nullptr), nullptr);
}

void OneShot::refuse_notification(const std::string &method, const BatchPlace & /*batch*/) {
    LOG_FOREIGN("Refused the notification %s of a client\n", printable(method).c_str());
    close();
}

/** What comes behind the request is passed over. */
void OneShot::watch_for_hang_up() {
    for (size_t discarded = 0; !half_closed_ && discarded < max_discarded;) {
        char bytes[4096];
        const ssize_t count = recv(descriptor_, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                close();
            }
            return;
        }
        discarded += static_cast<size_t>(count);
        half_closed_ = count == 0;
    }
    if (has_hung_up()) {
        close();
        return;
    }
    // Over TCP, a client that has half-closed looks like one that has gone. A blank, which may stand before any JSON
    // text, tells them apart: the machine of one that has gone answers it with a reset.
    if (half_closed_ && !blank_sent_ && peer.road == Road::tcp && state_ == State::waiting) {
        blank_sent_ = true;
        static_cast<void>(send(descriptor_, " ", 1, MSG_NOSIGNAL | MSG_DONTWAIT));
    }
}

// --- The answer ----------------------------------------------------------------------------------------------------

void OneShot::answer_text(std::string_view text, const BatchPlace & /*batch*/) {
    if (is_closed()) {
        return;
    }
    state_ = State::writing;
    const ssize_t count = send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    const size_t sent = count < 0 ? 0 : static_cast<size_t>(count);
    if (sent == text.size() || (count < 0 && errno != EAGAIN)) {
        if (peer.road == Road::tcp) { // what is left unread would make the close a reset, which may overtake the answer
            char bytes[4096];
            static_cast<void>(recv(descriptor_, bytes, sizeof bytes, MSG_DONTWAIT));
        }
        close();
        return;
    }
    if (!has_room_for(text.size() - sent)) {
        LOG_FOREIGN("There is no room for a client's answer: its user leaves too much unread\n");
        close();
        return;
    }
    text_ = text.substr(sent);
    account->unread += counted_ = text_.size();
    writable_.reset(event_new(router_.base(), descriptor_, EV_WRITE | EV_ET | EV_PERSIST, on_writable, this));
    if (!writable_ || event_add(writable_.get(), nullptr) != 0) {
        close();
        return;
    }
    deadline_.take(router_.client_deadlines(), *this);
}

bool OneShot::has_room_for(size_t more) const {
    return more <= unread_in_any_case || account->unread + more <= max_unread_of_user;
}

void OneShot::send_rest() {
    while (sent_ < text_.size()) {
        const ssize_t count = send(descriptor_, &text_[sent_], text_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN) {
            return;
        }
        if (count < 0 && errno != EINTR) {
            LOG_FOREIGN("A client did not take its answer\n");
            break;
        }
        sent_ += count < 0 ? 0 : static_cast<size_t>(count);
    }
    close();
}

} // namespace router
