/**
 * What the daemons use of libevent: owners, and times that are the same for all who wait.
 */
#ifndef TAVRIX_DAEMONS_BASE_LOOP_H
#define TAVRIX_DAEMONS_BASE_LOOP_H

#include <algorithm>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include <event2/buffer.h>
#include <event2/event.h>

namespace daemon_support {

using Clock = std::chrono::steady_clock;

struct FreeBase {
    void operator()(event_base *base) const { event_base_free(base); }
};
struct FreeEvent {
    void operator()(event *registered) const { event_free(registered); }
};
struct FreeBuffer {
    void operator()(evbuffer *buffer) const { evbuffer_free(buffer); }
};
using EventBase = std::unique_ptr<event_base, FreeBase>;
using Event = std::unique_ptr<event, FreeEvent>;
using Buffer = std::unique_ptr<evbuffer, FreeBuffer>;

/**
 * Adds the event with a time; false when there is no memory for it. Debian's libevent for 32-bit ARM was built with a
 * timeval of two 32-bit numbers, and these sources are not: it is handed over as libevent knows it.
 */
inline bool add_after(const Event &event, std::chrono::milliseconds time) {
    const struct {
        long seconds;
        long microseconds;
    } wait = {static_cast<long>(time.count() / 1000), static_cast<long>(time.count() % 1000 * 1000)};
    return event_add(event.get(), reinterpret_cast<const timeval *>(&wait)) == 0;
}

/**
 * Those who wait, each for the same time: who came first is due first, so one timer and a list are all there is to it.
 * It goes off once too often after its last waiter has left early, instead of being set anew for each.
 */
template <class Waiter>
class Deadlines {
    struct Entry {
        Clock::time_point due;
        Waiter *waiter;
    };

  public:
    Deadlines(event_base *base, std::chrono::milliseconds time, std::function<void(Waiter &)> when_due)
        : time_(time), when_due_(std::move(when_due)), timer_(event_new(base, -1, 0, on_timer, this)) {}
    Deadlines(const Deadlines &) = delete;
    Deadlines &operator=(const Deadlines &) = delete;

    bool works() const { return timer_ != nullptr; }

    /** A place among those who wait; left with its destruction, or before it is due. */
    class Place {
      public:
        Place() = default;
        Place(const Place &) = delete;
        Place &operator=(const Place &) = delete;
        ~Place() { leave(); }

        void take(Deadlines &deadlines, Waiter &waiter) {
            leave();
            entry_ = deadlines.entries_.insert(deadlines.entries_.end(), {Clock::now() + deadlines.time_, &waiter});
            owner_ = &deadlines; // not before there is an entry to leave
            if (event_pending(deadlines.timer_.get(), EV_TIMEOUT, nullptr) == 0 && !deadlines.start_timer()) {
                leave();
                throw std::bad_alloc();
            }
        }
        void leave() {
            if (owner_ != nullptr) {
                std::exchange(owner_, nullptr)->entries_.erase(entry_);
            }
        }
        bool is_taken() const { return owner_ != nullptr; }

      private:
        friend class Deadlines;
        Deadlines *owner_ = nullptr;
        typename std::list<Entry>::iterator entry_;
    };

  private:
    bool start_timer() {
        if (entries_.empty()) {
            return true;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(entries_.front().due - Clock::now());
        return add_after(timer_, std::max(left, std::chrono::milliseconds(0)));
    }
    static void on_timer(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
        auto *self = static_cast<Deadlines *>(context);
        while (!self->entries_.empty() && self->entries_.front().due <= Clock::now()) {
            self->when_due_(*self->entries_.front().waiter); // who leaves its place
        }
        self->start_timer(); // libevent has just had room for it
    }

    std::chrono::milliseconds time_;
    std::function<void(Waiter &)> when_due_;
    Event timer_;
    std::list<Entry> entries_;
};

} // namespace daemon_support

#endif
