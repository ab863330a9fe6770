#include "service.h"

#include <algorithm>
#include <iterator>

namespace router {

namespace {

constexpr size_t max_services = 256; // registered ones, also those that have gone
constexpr size_t max_heard = 64;

} // namespace

const char *name_of(Service::State state) {
    constexpr const char *names[] = {"listening", "settling", "up", "gone"};
    return names[static_cast<size_t>(state)];
}

bool Service::has_room_for(int64_t user, size_t most, daemon_support::Clock::duration longest_left) {
    const auto now = daemon_support::Clock::now();
    while (!left.empty() && now - left.front().since >= longest_left) {
        drop_one(users, left.front().account);
        left.pop_front();
    }
    return has_room(users, user, calls.size() + left.size(), most);
}

void Service::leave(const Call &call) {
    const int64_t account = account_of(call.client.peer);
    size_t &places = users[account]; // not empty, since the call is there still
    left.push_back({call.number, account, daemon_support::Clock::now()});
    ++places;
}

void Service::on_answer(const Call &call) {
    while (!left.empty() && left.front().since < call.started) {
        drop_one(users, left.front().account);
        left.pop_front();
    }
}

void Service::on_late_answer(int number) {
    const auto found =
        std::find_if(left.begin(), left.end(), [number](const Left &one) { return one.number == number; });
    if (found != left.end()) {
        drop_one(users, found->account);
        left.erase(found);
    }
}

void Service::forget_left() {
    for (const Left &one : left) {
        drop_one(users, one.account);
    }
    left.clear();
}

std::string channel_of(const std::string &method) {
    const tavrix::Text channel(tavrix_api_router_json_parse_channel(method.c_str()));
    return channel ? channel.get() : "";
}

bool Registry::is_channel(const std::string &channel) {
    return std::any_of(std::begin(service_channels), std::end(service_channels),
                       [&channel](const char *known) { return channel == known; });
}

std::string discovery_of(const Service &service) {
    const std::string &first = service.methods.front();
    return first.substr(0, first.find('.')) + ".Discover";
}

Registry::Registry() {
    for (const char *channel : service_channels) {
        channels_[channel].channel = channel;
    }
}

Service *Registry::find(const std::string &name) {
    const auto found = services_.find(name);
    return found != services_.end() ? found->second.get() : nullptr;
}

Service *Registry::of_method(const std::string &method) {
    const auto found = methods_.find(method);
    return found != methods_.end() ? found->second : nullptr;
}

Service *Registry::taker_on(const std::string &channel) {
    for (const auto &[name, service] : services_) {
        if (service->state == Service::State::up && service->channel == channel && service->methods.empty()) {
            return service.get();
        }
    }
    return nullptr;
}

Service *Registry::of_discovery(const std::string &method) {
    for (const auto &[name, service] : services_) {
        if (service->state == Service::State::up && service->document && !service->methods.empty() &&
            method == discovery_of(*service)) {
            return service.get();
        }
    }
    return nullptr;
}

bool Registry::is_served(const std::string &channel) {
    return std::any_of(services_.begin(), services_.end(), [&channel](const auto &entry) {
        return entry.second->state == Service::State::up && entry.second->channel == channel;
    });
}

Service *Registry::add(const std::string &name) {
    remove(name);
    if (services_.size() >= max_services) {
        const auto gone = std::find_if(services_.begin(), services_.end(),
                                       [](const auto &entry) { return entry.second->state == Service::State::gone; });
        if (gone == services_.end()) {
            return nullptr;
        }
        remove(std::string(gone->first));
    }
    const auto added = services_.emplace(name, std::make_unique<Service>()).first;
    added->second->name = name;
    added->second->state = Service::State::gone; // until its registration is complete
    heard_.erase(name);
    return added->second.get();
}

void Registry::offer(Service &service) {
    for (const std::string &method : service.methods) {
        methods_[method] = &service;
    }
}

void Registry::remove(const std::string &name) {
    const auto found = services_.find(name);
    if (found == services_.end()) {
        return;
    }
    for (const std::string &method : found->second->methods) {
        const auto offered = methods_.find(method);
        if (offered != methods_.end() && offered->second == found->second.get()) {
            methods_.erase(offered);
        }
    }
    services_.erase(found);
}

bool Registry::hear(const std::string &name, const std::string &channel) {
    if (heard_.count(name) == 0 && heard_.size() >= max_heard) {
        return false;
    }
    heard_[name] = channel;
    return true;
}

bool Registry::heard_on(const std::string &channel) const {
    return std::any_of(heard_.begin(), heard_.end(), [&channel](const auto &entry) { return entry.second == channel; });
}

} // namespace router
