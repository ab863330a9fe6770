/**
 * Something that goes on in a thread of its own for as long as the object lives.
 */
#ifndef TAVRIX_TESTS_SUPPORT_REPEATING_H
#define TAVRIX_TESTS_SUPPORT_REPEATING_H

#include <atomic>
#include <functional>
#include <thread>

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

} // namespace support

#endif
