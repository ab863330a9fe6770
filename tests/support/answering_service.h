/**
 * A service played by the test that registers over a session and answers its requests there by itself.
 */
#ifndef TAVRIX_TESTS_SUPPORT_ANSWERING_SERVICE_H
#define TAVRIX_TESTS_SUPPORT_ANSWERING_SERVICE_H

#include <functional>
#include <string>
#include <thread>

#include "support/session.h"

namespace support {

class AnsweringService {
  public:
    /**
     * What the service says to a request's params: the reply's member, such as `"result":0`, which is what it says
     * without one, or `"error":{...}`; nothing at all when it is empty.
     */
    using Handler = std::function<std::string(const std::string &method, const std::string &params)>;

    /** Registers on "session.sock" and serves until its end; throws when it is not registered. */
    AnsweringService(const std::string &name, const std::vector<std::string> &methods, Handler handler = {});
    ~AnsweringService();

    void publish(const std::string &method, const std::string &params) const {
        session_.say(notification(method, params));
    }

  private:
    void take(const std::string &line) const;

    DirectService session_;
    Handler handler_;
    std::thread thread_;
};

} // namespace support

#endif
