/**
 * A service played by the test that registers over a session and takes its requests there.
 */
#ifndef TAVRIX_TESTS_SUPPORT_DIRECT_SERVICE_H
#define TAVRIX_TESTS_SUPPORT_DIRECT_SERVICE_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/stream.h"

namespace support {

class DirectService {
  public:
    /**
     * What the service says to a request's params: the reply's member, such as `"result":0` or `"error":{...}`; nothing
     * at all when it is empty.
     */
    using Handler = std::function<std::string(const std::string &method, const std::string &params)>;

    /** Registers on "session.sock" and serves until its end; throws when it is not registered. */
    DirectService(const std::string &name, const std::vector<std::string> &methods, Handler handler = accept_all);
    DirectService(const DirectService &) = delete;
    DirectService &operator=(const DirectService &) = delete;
    ~DirectService();

    void publish(const std::string &method, const std::string &params) const;

    /** `"result":0` to everything. */
    static std::string accept_all(const std::string &method, const std::string &params);

  private:
    void serve();
    void take(const std::string &line) const;
    std::string next_line();

    StreamClient session_;
    Handler handler_;
    std::string received_;
    std::thread thread_;
};

} // namespace support

#endif
