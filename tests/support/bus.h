/**
 * Bus helpers: private addresses, and connections that are known to stand.
 */
#ifndef TAVRIX_TESTS_SUPPORT_BUS_H
#define TAVRIX_TESTS_SUPPORT_BUS_H

#include <functional>
#include <string>
#include <vector>

namespace support {

/** Waits until the condition holds; false when it does not within the time. */
bool wait_until(const std::function<bool()> &condition, int timeout_ms = 20000);

/** A TCP port on loopback that nobody listens on at the moment, and that no other test program is given. */
int free_port();

/** "tcp://127.0.0.1:" and a free port. */
std::string free_bus_address();

/** A bus socket of the library, closed with its scope. */
class BusSocket {
  public:
    BusSocket() = default;
    explicit BusSocket(int sp_type);
    BusSocket(const BusSocket &) = delete;
    BusSocket &operator=(const BusSocket &) = delete;
    ~BusSocket() { close(); }

    int number = -1;
    void close();
    void bind(const std::string &address);
    void connect(const std::string &address);
    /** The text of the next frame, without its channel; "(nothing)" when none comes. */
    std::string next_text(int timeout_ms) const;
    /** Its receive time-out; INT_MIN when it cannot be read. */
    int timeout_ms() const;
};

/** Takes every free bus socket while it lives. */
class NoBusSocketIsLeft {
  public:
    NoBusSocketIsLeft();
    NoBusSocketIsLeft(const NoBusSocketIsLeft &) = delete;
    NoBusSocketIsLeft &operator=(const NoBusSocketIsLeft &) = delete;
    ~NoBusSocketIsLeft();

  private:
    std::vector<int> taken_;
};

/** A publisher and a subscriber whose connection stands: what is published now arrives. */
class BusPair {
  public:
    /** Subscribes to `channel`, a prefix; the empty one takes everything. */
    explicit BusPair(const std::string &channel = "", int timeout_ms = 5000);

    void publish(const std::string &frame);
    /** The next frame, or "(nothing)" when none comes within the subscriber's time-out. */
    std::string receive();

    BusSocket pub;
    BusSocket sub;
    std::string address;
};

/** The next frame; false when none comes within the socket's time-out, or at once with `nonblock`. */
bool take_frame(int sub, std::string *frame, int nonblock = 0);

/** Publishes a marker on `pub` until it arrives on `sub`, then takes the markers off again. */
void settle(int pub, int sub, const std::string &channel);

} // namespace support

#endif
