/**
 * Stream-socket clients as the tests need them: connect, say something, hear the answer.
 */
#ifndef TAVRIX_TESTS_SUPPORT_STREAM_H
#define TAVRIX_TESTS_SUPPORT_STREAM_H

#include <string>

#include <gtest/gtest.h>
#include <sys/un.h>

#include "common/handles.h"

namespace support {

sockaddr_un unix_address(const std::string &path);

/** A connection that is closed with its scope. */
class StreamClient {
  public:
    explicit StreamClient(int fd) : fd_(fd) {}
    static StreamClient unix_path(const std::string &path);
    static StreamClient tcp_port(int port);
    StreamClient(StreamClient &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    StreamClient(const StreamClient &) = delete;
    StreamClient &operator=(const StreamClient &) = delete;
    ~StreamClient() { close(); }

    bool connected() const { return fd_ >= 0; }
    void say(const std::string &text) const;
    /** Everything until the peer closes, or "(time-out)" when it does not within the time. */
    std::string hear(int timeout_ms = 20000) const;
    /** Appends what is there, and waits for no more; whether the peer has closed. */
    bool take(std::string *heard) const;
    std::string ask(const std::string &text) const {
        say(text);
        return hear();
    }
    /** True when the peer has closed without a byte. */
    bool closed_silently() const { return hear().empty(); }
    void close();
    int fd() const { return fd_; }

  private:
    int fd_;
};

/** Both ends of one connection. */
struct SocketPair {
    tavrix::Descriptor ours;
    StreamClient theirs{connected_to(&ours)};

  private:
    static int connected_to(tavrix::Descriptor *end);
};

/** The port that a TCP socket is bound to. */
int port_of(int fd);

/** How many descriptors this process has open. */
int open_descriptors();

/** Expects as many open descriptors at its end as at its beginning. */
struct NothingOpens {
    const int before = open_descriptors();

    NothingOpens() = default;
    NothingOpens(const NothingOpens &) = delete;
    NothingOpens &operator=(const NothingOpens &) = delete;
    ~NothingOpens() { EXPECT_EQ(open_descriptors(), before); }
};

} // namespace support

#endif
