/**
 * What the daemons use of libevent: owners, and times that are the same for all who wait.
 */
#ifndef TAVRIX_DAEMONS_COMMON_LOOP_H
#define TAVRIX_DAEMONS_COMMON_LOOP_H

#include <chrono>
#include <functional>
#include <list>
#include <memory>
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

inline timeval as_timeval(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

/** Adds the event with a time; false when there is no memory for it. */
inline bool add_after(const Event &event, std::chrono::milliseconds time) {
    const timeval wait = as_timeval(time);
    return event_add(event.get(), &wait) == 0;
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
            owner_ = &deadlines;
            entry_ = deadlines.entries_.insert(deadlines.entries_.end(), {Clock::now() + deadlines.time_, &waiter});
            if (event_pending(deadlines.timer_.get(), EV_TIMEOUT, nullptr) == 0) {
                deadlines.start_timer();
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
    void start_timer() {
        if (!entries_.empty()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(entries_.front().due - Clock::now());
            add_after(timer_, std::max(left, std::chrono::milliseconds(0)));
        }
    }
    static void on_timer(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
        auto *self = static_cast<Deadlines *>(context);
        while (!self->entries_.empty() && self->entries_.front().due <= Clock::now()) {
            self->when_due_(*self->entries_.front().waiter); // who leaves its place
        }
        self->start_timer();
    }

    std::chrono::milliseconds time_;
    std::function<void(Waiter &)> when_due_;
    Event timer_;
    std::list<Entry> entries_;
};

} // namespace daemon_support

#endif
