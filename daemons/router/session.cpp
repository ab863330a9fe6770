#include "session.h"

#include <array>
#include <cerrno>

#include <malloc.h>
#include <sys/socket.h>

#include "common/log.h"
#include "foreign_log.h"
#include "router.h"
#include "tavrix_jrpc.h"

namespace router {

namespace {

constexpr char unit_name[] = "session";
constexpr size_t max_description_line = max_document + 1024;
constexpr size_t bytes_per_turn = size_t{8} * 1024; // of a client: some dozen requests
constexpr size_t max_batch = 256;                   // is one turn's work, however cheap the requests are to write
constexpr size_t max_unread_with_notifications = tavrix::mebibyte;
constexpr size_t large_line = tavrix::mebibyte;

/** One turn's bytes of whichever session: nothing stays here from one turn to the next. */
std::array<char, tavrix::max_request_line> shared_bytes;

} // namespace

void Session::start() {
    readable_.reset(event_new(router_.base(), descriptor_, EV_READ | EV_PERSIST, on_readable, this));
    writable_.reset(event_new(router_.base(), descriptor_, EV_WRITE, on_writable, this));
    out_.reset(evbuffer_new());
    if (!readable_ || !writable_ || !out_ || event_add(readable_.get(), nullptr) != 0) {
        close();
    }
}

void Session::on_readable(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Session *>(context);
    self->router_.serve(*self);
}

void Session::on_writable(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Session *>(context);
    self->router_.guard(self, [self] { self->flush(); });
}

void Session::on_close() {
    for (const daemon_support::Event *watch : {&readable_, &writable_}) {
        if (*watch) {
            event_del(watch->get());
        }
    }
    router_.on_session_end(*this); // which may still answer to it
    account->unread -= std::exchange(counted_, 0);
}

// --- Lines in ------------------------------------------------------------------------------------------------------

bool Session::is_turn_over() const { return router_.is_turn_over(*this); }

/** One read in each turn: a session that floods the router waits for its next turn like all others. */
void Session::take_turn() {
    if (batch_ != nullptr) {
        go_on_with_batch();
    }
    if (batch_ != nullptr || is_closed() || ending_ || broken_) {
        return;
    }
    if (!held_.empty()) {
        const std::string bytes = std::exchange(held_, {});
        take_bytes(bytes);
        return;
    }
    const bool has_long_line = service != nullptr || partial_.size() >= bytes_per_turn;
    const ssize_t count =
        recv(descriptor_, shared_bytes.data(), has_long_line ? shared_bytes.size() : bytes_per_turn, MSG_DONTWAIT);
    if (count > 0) {
        take_bytes({shared_bytes.data(), static_cast<size_t>(count)});
    } else if (count == 0) {
        end_of_input();
    } else if (errno != EAGAIN && errno != EINTR) {
        close();
    }
}

size_t Session::longest_line() const {
    if (service == nullptr) {
        return tavrix::max_request_line;
    }
    return service->direct ? tavrix::max_reply_line : max_description_line;
}

void Session::take_bytes(std::string_view bytes) {
    while (!bytes.empty() && !is_closed() && !ending_ && !broken_) {
        const size_t end = bytes.find('\n');
        const std::string_view part = bytes.substr(0, end);
        if (partial_.size() + part.size() >= longest_line()) {
            LOG_FOREIGN("A session sent a line of more than %zu bytes\n", longest_line());
            router_.count_refused();
            answer(make_error(TAVRIX_JRPC_INVALID_REQUEST, nullptr, message_data("the line is too long")), nullptr);
            ending_ = true;
            end_when_answered();
            return;
        }
        if (end == std::string_view::npos) {
            partial_ += part;
            return;
        }
        if (partial_.empty()) {
            take_line(part);
        } else {
            const std::string line = std::exchange(partial_, {}).append(part);
            take_line(line);
        }
        bytes.remove_prefix(end + 1);
        if (batch_ != nullptr || (!bytes.empty() && is_turn_over())) {
            held_ = bytes;
            router_.wait_for_turn(*this);
            return;
        }
    }
}

void Session::take_line(std::string_view line) {
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
        return;
    }
    Json value(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY, nullptr));
    if (json_is_object(value.get())) {
        take_object({std::move(value), line}, nullptr);
        if (line.size() > large_line) {
            malloc_trim(0); // a large reply of many small values would be kept in pieces for ever
        }
        return;
    }
    if (json_is_array(value.get()) && json_array_size(value.get()) > 0) {
        take_batch(value.get());
        return;
    }
    router_.count_refused();
    answer(make_error(value ? TAVRIX_JRPC_INVALID_REQUEST : TAVRIX_JRPC_PARSE_ERROR, nullptr, nullptr), nullptr);
}

void Session::take_batch(const json_t *requests) {
    if (json_array_size(requests) > max_batch) {
        router_.count_refused();
        answer(make_error(TAVRIX_JRPC_INVALID_REQUEST, nullptr, message_data("at most 256 requests in a batch")),
               nullptr);
        return;
    }
    const size_t count = json_array_size(requests);
    batch_ = std::make_shared<Batch>();
    batch_->missing = count + 1; // one for this function: it ends when all are taken
    for (size_t i = 0; i < count && !is_closed() && !broken_; ++i) {
        if (i > 0 && is_turn_over()) {
            put_off(requests, i);
            return;
        }
        take_member(share(json_array_get(requests, i)));
    }
    end_batch();
}

void Session::take_member(Json request) {
    if (json_is_object(request.get())) {
        take_object(std::move(request), batch_);
        return;
    }
    router_.count_refused();
    answer(make_error(TAVRIX_JRPC_INVALID_REQUEST, nullptr, nullptr), batch_);
}

/** The rest has its turn later. It waits as text, which takes a tenth of what its values do. */
void Session::put_off(const json_t *requests, size_t first) {
    for (size_t i = first; i < json_array_size(requests); ++i) {
        const std::string_view text = router_.render(json_array_get(requests, i));
        if (text.empty()) {
            throw std::bad_alloc();
        }
        requests_.append(text).append("\n");
    }
    router_.wait_for_turn(*this);
}

void Session::go_on_with_batch() {
    while (next_ < requests_.size() && !is_closed() && !broken_) {
        if (is_turn_over()) {
            router_.wait_for_turn(*this);
            return;
        }
        const size_t end = requests_.find('\n', next_);
        Json request(json_loadb(&requests_[next_], end - next_, JSON_DECODE_ANY, nullptr));
        next_ = end + 1;
        if (request == nullptr) {
            throw std::bad_alloc();
        }
        take_member(std::move(request));
    }
    end_batch();
}

void Session::end_batch() {
    requests_ = std::string();
    next_ = 0;
    complete(std::exchange(batch_, nullptr));
}

void Session::take_object(Message object, const BatchPlace &batch) {
    const bool has_method = json_object_get(object.value.get(), "method") != nullptr;
    if (service != nullptr && !has_method) {
        router_.take_reply(std::move(object), service);
        complete(batch);
    } else if (service != nullptr && is_notification(object.value.get())) {
        router_.take_notification(object, service);
        complete(batch);
    } else {
        router_.take_request(*this, std::move(object), batch);
    }
}

void Session::end_of_input() {
    if (service != nullptr || has_hung_up()) {
        close();
        return;
    }
    if (!partial_.empty()) {
        const std::string line = std::exchange(partial_, {}); // the last line may lack its newline
        take_line(line);
    }
    if (!is_closed()) {
        ending_ = true;
        end_when_answered();
    }
}

void Session::end_when_answered() {
    watch_for_hang_up();
    router_.flush_later(*this); // which closes it, once there is nothing left to answer
}

/** Nothing more is read. Edge-triggered: an end of file that is already known must not wake the loop again and again.
 */
void Session::watch_for_hang_up() {
    readable_.reset(event_new(router_.base(), descriptor_, EV_READ | EV_ET | EV_PERSIST, on_hang_up, this));
    // One event of the descriptor that is not edge-triggered makes all of them so.
    writable_.reset(event_new(router_.base(), descriptor_, EV_WRITE | EV_ET, on_writable, this));
    if (!readable_ || !writable_ || event_add(readable_.get(), nullptr) != 0) {
        give_up("No memory for the end of a session");
    }
}

void Session::on_hang_up(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Session *>(context);
    if (self->has_hung_up()) {
        self->router_.guard(self, [self] { self->close(); });
    }
}

// --- Lines out -----------------------------------------------------------------------------------------------------

void Session::give_up(const char *why) {
    LOG_FOREIGN("%s: the session is closed\n", why);
    broken_ = true;
    router_.flush_later(*this);
}

/** The whole line or, when there is no memory for it, nothing. */
bool Session::add_line(std::string_view line) {
    char newline[] = "\n";
    evbuffer_iovec parts[] = {{const_cast<char *>(line.data()), line.size()}, {newline, 1}};
    if (line.empty() || evbuffer_add_iovec(out_.get(), parts, 2) != line.size() + 1) {
        return false;
    }
    count_unread();
    router_.flush_later(*this);
    return true;
}

void Session::write_line(std::string_view line) {
    if (!is_closed() && !broken_ && !add_line(line)) {
        give_up("No memory for a session's line"); // one that is missing must not look like all is well
    }
}

void Session::complete(const BatchPlace &batch) {
    if (batch == nullptr || --batch->missing > 0) {
        return;
    }
    batched_ -= batch->answers.size();
    if (!batch->answers.empty()) {
        write_line("[" + batch->answers + "]");
    }
}

void Session::answer_text(std::string_view text, const BatchPlace &batch) {
    if (has_unread_beyond(max_unread, text.size()) && !broken_) {
        give_up("A session does not read its answers");
    }
    if (batch == nullptr) {
        write_line(text);
        return;
    }
    if (text.empty()) {
        give_up("No memory for a session's line");
    }
    const size_t before = batch->answers.size();
    batch->answers.append(before > 0 && !text.empty() ? "," : "").append(text);
    batched_ += batch->answers.size() - before;
    count_unread();
    complete(batch);
}

void Session::refuse_notification(const std::string &method, const BatchPlace &batch) {
    LOG_FOREIGN("Refused the notification %s of a client\n", printable(method).c_str());
    answer(make_error(TAVRIX_JRPC_INVALID_REQUEST, nullptr, message_data("notifications are for registered services")),
           batch);
}

bool Session::send_request(std::string_view line) {
    if (has_unread_beyond(max_unread)) {
        return false;
    }
    if (!is_closed() && !broken_ && !add_line(line)) {
        throw std::bad_alloc(); // it is the asking client's affair
    }
    return !is_closed() && !broken_;
}

void Session::send_notification(std::string_view line) {
    if (lost_ > 0 || has_unread_beyond(max_unread_with_notifications)) {
        ++lost_;
        router_.count_dropped();
        return;
    }
    write_line(line);
}

void Session::tell_of_loss() {
    const Json lost = make_notification(names::lost, Json(json_pack("{s:I}", "count", std::exchange(lost_, 0))));
    write_line(router_.render(lost.get()));
}

/** False when the connection has failed. */
bool Session::send_what_fits() {
    while (unread() > 0) {
        if (evbuffer_write(out_.get(), descriptor_) < 0) {
            count_unread();
            return errno == EAGAIN || errno == EINTR;
        }
    }
    count_unread();
    return true;
}

/** What a service has not read is what others have asked of it, and not its user's to answer for. */
void Session::count_unread() {
    const size_t now = is_closed() || service != nullptr ? 0 : unread() + batched_;
    account->unread += now - std::exchange(counted_, now);
}

/**
 * Whether the session has more unread than the bound; what was written in this turn is sent first. Once all sessions of
 * its user have too much unread together, the bound is a small one, and the `more` bytes that are to come count, too.
 */
bool Session::has_unread_beyond(size_t bound, size_t more) {
    const bool is_scarce = service == nullptr && account->unread + more > max_unread_of_user;
    bound = is_scarce ? unread_in_any_case : bound;
    const bool is_stuck = event_pending(writable_.get(), EV_WRITE, nullptr) != 0;
    if (unread() > bound && !is_stuck && !is_closed() && !broken_ && !send_what_fits()) {
        give_up("A session's connection has failed");
    }
    return unread() + batched_ + (is_scarce ? more : 0) > bound;
}

void Session::flush() {
    if (broken_) {
        close();
    }
    if (is_closed()) {
        return;
    }
    if (!send_what_fits()) {
        close();
        return;
    }
    if (lost_ > 0 && unread() < max_unread_with_notifications / 2) {
        tell_of_loss();
    }
    if (unread() > 0) {
        event_add(writable_.get(), nullptr);
    } else if (ending_ && calls.empty() && batch_ == nullptr) {
        close();
    }
}

} // namespace router
