/**
 * A client of the old kind: one request, one answer, closed.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_ONE_SHOT_H
#define TAVRIX_DAEMONS_ROUTER_ONE_SHOT_H

#include <string>
#include <string_view>

#include "client.h"

namespace router {

class OneShot final : public Client {
  public:
    OneShot(Router &router, int descriptor, Peer who) : Client(router, descriptor, std::move(who)) {}

    /** Waits for its first turn; others are accepted meanwhile. */
    void start();
    /** A deadline has passed: for the request, for the answer to be taken, or before hang-ups are watched for. */
    void time_out();

    void answer_text(std::string_view text, const BatchPlace &batch) override;
    void refuse_notification(const std::string &method, const BatchPlace &batch) override;
    bool gets_own_id() const override { return false; }
    void take_turn() override;

  private:
    enum class State { reading, waiting, writing };

    static void on_readable(evutil_socket_t descriptor, short what, void *context);
    static void on_writable(evutil_socket_t descriptor, short what, void *context);
    void on_close() override;

    bool watch();
    void read_request();
    void take_bytes(std::string_view bytes);
    void take_request();
    void watch_for_hang_up();
    bool has_room_for(size_t more) const;
    void send_rest();
    void refuse(int jrpc_code);

    State state_ = State::reading;
    std::string text_; ///< the request as far as it has come, then the rest of the answer
    size_t sent_ = 0;
    size_t counted_ = 0; ///< of the answer, in the account
    size_t tried_ = 0;   ///< how much of the request had come when its beginning was last judged
    bool half_closed_ = false;
    bool blank_sent_ = false; ///< to see whether the client is still there after its half-close
    ObjectScanner scanner_;
    daemon_support::Event readable_;
    daemon_support::Event writable_;
    daemon_support::Deadlines<OneShot>::Place deadline_;
};

} // namespace router

#endif
