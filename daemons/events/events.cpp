#include "events.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <strings.h>

#include "common/log.h"
#include "tavrix.h"

namespace events {

namespace {

constexpr char unit_name[] = "events";
constexpr size_t most_kept = 1000;

} // namespace

json_t *to_json(const Event &event) {
    return json_pack("{s:i, s:s, s:s, s:s}", "number", event.number, "kind", event.kind.c_str(), "entity",
                     event.entity.c_str(), "text", event.text.c_str());
}

bool Log::share(const std::string &slot) {
    if (!slot_.empty()) {
        return true;
    }
    if (tavrix_shm_create(slot.c_str(), sizeof last_number_) != TAVRIX_OK ||
        tavrix_shm_set_int(slot.c_str(), &last_number_) != TAVRIX_OK) {
        return false;
    }
    slot_ = slot;
    return true;
}

const Event &Log::add(const std::string &kind, const std::string &entity, const std::string &text) {
    ++last_number_;
    kept_.push_back(Event{last_number_, kind, entity, text});
    if (kept_.size() > most_kept) {
        kept_.pop_front();
    }
    if (!slot_.empty() && tavrix_shm_set_int(slot_.c_str(), &last_number_) != TAVRIX_OK) {
        LOG_ERROR("The number of event %d is not shared\n", last_number_);
    }
    return kept_.back();
}

const Event *Log::find(int number) const {
    const auto found =
        std::find_if(kept_.begin(), kept_.end(), [number](const Event &event) { return event.number == number; });
    return found != kept_.end() ? &*found : nullptr;
}

const Event *Log::last_of(const std::string &port_id) const {
    const auto found = std::find_if(kept_.rbegin(), kept_.rend(), [&port_id](const Event &event) {
        return strcasecmp(event.entity.c_str(), port_id.c_str()) == 0;
    });
    return found != kept_.rend() ? &*found : nullptr;
}

bool read_script(const std::string &path, std::vector<LinkChange> *out) {
    std::ifstream file(path);
    const auto complain = [&path] {
        LOG_ERROR("Cannot read the script %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    };
    if (!file) {
        return complain();
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        std::istringstream words(line);
        LinkChange change;
        std::string more;
        if (!(words >> change.port_id) || change.port_id[0] == '#') {
            continue;
        }
        const bool complete = static_cast<bool>(words >> change.state) && !(words >> more);
        if (!complete || validate_port_id(change.port_id.c_str()) != 0 ||
            (change.state != "up" && change.state != "down")) {
            LOG_ERROR("%s:%d: a port id and up or down are wanted\n", path.c_str(), number);
            return false;
        }
        out->push_back(change);
    }
    if (file.bad()) { // a folder opens, too
        return complain();
    }
    return true;
}

} // namespace events
