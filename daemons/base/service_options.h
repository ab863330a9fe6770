/**
 * What the reference services have in common: the options that choose where they live, and the kit's service itself.
 */
#ifndef TAVRIX_DAEMONS_BASE_SERVICE_OPTIONS_H
#define TAVRIX_DAEMONS_BASE_SERVICE_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

#include "base/options.h"
#include "common/wire.h"
#include "tavrix_service.h"

namespace daemon_support {

struct ServiceOptions {
    explicit ServiceOptions(std::string default_name) : name(std::move(default_name)) {}

    void add_to(Options *options) {
        options->text("name", "NAME", "the service's name, in the router and in the logger's configuration", &name);
        options->text("session", "PATH", "the router's session socket; empty: the bus alone", &session);
        options->list("publish", "ADDRESS", "bus address to publish on (default: one in the router's bus folder)",
                      &publish);
        options->list("connect", "ADDRESS",
                      "bus address to listen to, besides those that the router knows; may be repeated", &connect);
    }

    std::string name;
    std::string session = tavrix::session_path();
    std::vector<std::string> publish;
    std::vector<std::string> connect;
};

/** The kit's service, closed with its scope. The options have to outlive it. */
class KitService {
  public:
    KitService(const ServiceOptions &options, const tavrix_service_method *methods, void *user,
               void (*ready)(tavrix_service *service, void *user) = nullptr)
        : publish_(pointers_to(options.publish)), connect_(pointers_to(options.connect)) {
        tavrix_service_options wanted{};
        wanted.name = options.name.c_str();
        wanted.session = options.session.c_str();
        wanted.methods = methods;
        wanted.user = user;
        wanted.ready = ready;
        wanted.version = TAVRIX_VERSION;
        wanted.publish = options.publish.empty() ? nullptr : publish_.data();
        wanted.connect = options.connect.empty() ? nullptr : connect_.data();
        tavrix_service_open(&wanted, &service_);
    }
    KitService(const KitService &) = delete;
    KitService &operator=(const KitService &) = delete;
    ~KitService() { tavrix_service_close(service_); }

    explicit operator bool() const { return service_ != nullptr; }
    tavrix_service *get() const { return service_; }

  private:
    static std::vector<const char *> pointers_to(const std::vector<std::string> &texts) {
        std::vector<const char *> pointers;
        pointers.reserve(texts.size() + 1);
        for (const std::string &text : texts) {
            pointers.push_back(text.c_str());
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    std::vector<const char *> publish_;
    std::vector<const char *> connect_;
    tavrix_service *service_ = nullptr;
};

} // namespace daemon_support

#endif
