/**
 * Work on threads: what goes on in one of its own for as long as an object lives, and what several do at the same time.
 */
#ifndef TAVRIX_TESTS_SUPPORT_REPEATING_H
#define TAVRIX_TESTS_SUPPORT_REPEATING_H

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace support {

class Repeating {
  public:
    explicit Repeating(const std::function<void()> &action)
        : thread_([this, action] {
              while (!ended_) {
                  action();
              }
          }) {}
    ~Repeating() {
        ended_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

/** Runs the work on so many threads, which begin together, to its end; it is told which of them it is on. */
template <class Work>
void on_threads(int count, Work work) {
    std::atomic<int> waiting{count};
    std::vector<std::thread> threads;
    for (int me = 0; me < count; ++me) {
        threads.emplace_back([&, me] {
            --waiting;
            while (waiting > 0) {
                std::this_thread::yield();
            }
            work(me);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

} // namespace support

#endif
