/**
 * The sockets that clients connect to, watched by the loop.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_LISTENER_H
#define TAVRIX_DAEMONS_ROUTER_LISTENER_H

#include <functional>
#include <string>

#include "base/loop.h"
#include "common/sockets.h"
#include "common/unix_socket.h"

namespace router {

class Listener {
  public:
    using Taker = std::function<void(int descriptor)>;

    Listener() = default;
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener() { tavrix::remove_socket_file(file_); }

    /** Each open function logs what failed. */
    bool open_unix(event_base *base, const std::string &path, Taker taker);
    /**
     * A port that nobody serves but that is not free, held by connections of an earlier run, is tried again. When it
     * turns out only later that somebody serves there, the loop ends and has_failed() is true.
     */
    bool open_tcp(event_base *base, const std::string &address, int port, Taker taker);
    bool has_failed() const { return has_failed_; }
    /** Nobody is accepted any more. */
    void stop();

  private:
    static void on_client(evutil_socket_t descriptor, short what, void *context);
    static void on_pause_over(evutil_socket_t descriptor, short what, void *context);
    void accept_clients();
    bool watch(event_base *base, int descriptor, Taker taker);
    bool try_tcp();
    bool tcp_failed(const char *why);
    /** Connects to the port that is taken, to see whether somebody serves there. */
    void knock();
    bool is_answered();

    Taker taker_;
    tavrix::StreamSocket socket_;
    tavrix::SocketFile file_{};  ///< of a unix listener
    tavrix::StreamSocket probe_; ///< a connection to the TCP port, until it is known whether somebody serves there
    bool has_failed_ = false;
    std::string tcp_address_;
    int tcp_port_ = 0;
    event_base *base_ = nullptr;
    daemon_support::Event readable_;
    daemon_support::Event pause_;
};

} // namespace router

#endif
