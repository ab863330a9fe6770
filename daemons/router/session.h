/**
 * A client that stays: lines of JSON, any number of requests in flight; also a service, once it has registered.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_SESSION_H
#define TAVRIX_DAEMONS_ROUTER_SESSION_H

#include <string>
#include <string_view>
#include <vector>

#include "client.h"
#include "common/wire.h"

namespace router {

constexpr size_t max_unread =
    8 * tavrix::mebibyte; ///< bytes; beyond it a client is closed, and a service gets no more requests

class Session final : public Client {
  public:
    Session(Router &router, int descriptor, Peer who) : Client(router, descriptor, std::move(who)) {}

    /** Begins to read; closes the session when it cannot be watched. */
    void start();

    void answer_text(std::string_view text, const BatchPlace &batch) override;
    void refuse_notification(const std::string &method, const BatchPlace &batch) override;
    bool gets_own_id() const override { return true; }
    void take_turn() override;
    /** A service's replies are others' answers: they do not wait for its user's time. */
    bool has_own_time() const override { return service != nullptr; }

    /** Whether the service reads what it is sent. */
    bool takes_requests() { return !has_unread_beyond(max_unread); }
    /** A request, for a direct service; false when it has too many unread already. */
    bool send_request(std::string_view line);
    /** What a service must not miss: one that cannot have it is closed, and learns it when it registers anew. */
    void tell(std::string_view line) {
        has_unread_beyond(max_unread) ? give_up("A service does not read what it is told") : write_line(line);
    }
    /** May be dropped when the session does not read; it is told how many were, as soon as it does. */
    void send_notification(std::string_view line);
    /** What has been written since the last time; called at the end of the turn. */
    void flush();

    Service *service = nullptr; ///< when it has registered as one
    Patterns subscribed;
    Patterns monitored;
    bool is_to_flush = false;

  private:
    static void on_readable(evutil_socket_t descriptor, short what, void *context);
    static void on_writable(evutil_socket_t descriptor, short what, void *context);
    void on_close() override;

    void take_bytes(std::string_view bytes);
    void take_line(std::string_view line);
    void take_object(Message object, const BatchPlace &batch);
    void take_batch(const json_t *requests);
    void take_member(Json request);
    void put_off(const json_t *requests, size_t first);
    void go_on_with_batch();
    bool is_turn_over() const;
    void end_batch();
    void complete(const BatchPlace &batch);
    void end_of_input();
    void end_when_answered();
    static void on_hang_up(evutil_socket_t descriptor, short what, void *context);
    void watch_for_hang_up();
    size_t longest_line() const;
    bool send_what_fits();
    bool has_unread_beyond(size_t bound, size_t more = 0);
    void count_unread();
    size_t unread() const { return out_ ? evbuffer_get_length(out_.get()) : 0; }
    bool add_line(std::string_view line);
    void write_line(std::string_view line);
    void give_up(const char *why);
    void tell_of_loss();

    BatchPlace batch_;     ///< that is being taken
    std::string requests_; ///< the rest of it, a line each
    size_t next_ = 0;      ///< where the next one begins
    std::string held_;     ///< what has come and waits for the next turn
    std::string partial_;  ///< the beginning of a line
    daemon_support::Event readable_;
    daemon_support::Event writable_;
    daemon_support::Buffer out_;
    size_t batched_ = 0; ///< bytes of answers that wait for the rest of their batch
    size_t counted_ = 0; ///< of what is unread, in the account
    json_int_t lost_ = 0;
    bool ending_ = false; ///< nothing more is read; closed when everything is answered
    bool broken_ = false; ///< closed at the end of the turn: whoever writes to it may be walking along all sessions
};

} // namespace router

#endif
