#include "account.h"

#include <algorithm>

#include "client.h"

namespace router {

int64_t account_of(const Peer &peer) { return peer.known ? static_cast<int64_t>(peer.user) : -1; }

bool has_room(const Shares &shares, int64_t account, size_t total, size_t most) {
    const auto found = shares.find(account);
    const size_t own = found != shares.end() ? found->second : 0;
    const size_t left_by_others = most - std::min(most, total - own);
    return total < most && own < (left_by_others + 1) / 2;
}

void drop_one(Shares &shares, int64_t account) {
    const auto found = shares.find(account);
    if (found != shares.end() && --found->second == 0) {
        shares.erase(found);
    }
}

bool Turns::has_time(const Account &account, daemon_support::Clock::duration more) {
    return account.used + more < time_per_turn;
}

void Turns::note(const std::shared_ptr<Account> &account) {
    if (!account->is_noted) {
        noted_.push_back(account);
        account->is_noted = true;
    }
}

/** True when somebody still waits. */
bool Turns::forget_the_idle() {
    bool is_any_waiting = false;
    const auto is_idle = [&is_any_waiting](const std::shared_ptr<Account> &account) {
        is_any_waiting = is_any_waiting || !account->waiting.empty();
        account->is_noted = account->used.count() > 0 || !account->waiting.empty();
        return !account->is_noted;
    };
    noted_.erase(std::remove_if(noted_.begin(), noted_.end(), is_idle), noted_.end());
    return is_any_waiting;
}

void Turns::use(const std::shared_ptr<Account> &account, daemon_support::Clock::duration time) {
    note(account);
    account->used += time;
}

void Turns::wait(Client &client) {
    note(client.account);
    client.account->waiting.push_back(&client);
}

void Turns::leave(const Client &client) {
    std::deque<Client *> &waiting = client.account->waiting;
    waiting.erase(std::remove(waiting.begin(), waiting.end(), &client), waiting.end());
}

} // namespace router
