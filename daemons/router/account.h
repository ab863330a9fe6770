/**
 * What one user has of the router: places, and parts of its time and its memory.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_ACCOUNT_H
#define TAVRIX_DAEMONS_ROUTER_ACCOUNT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "base/loop.h"
#include "policy.h"

namespace router {

class Client;

constexpr std::chrono::milliseconds time_per_turn{1};
constexpr size_t max_unread_of_user = size_t{64} * 1024 * 1024; ///< of all a user's clients
constexpr size_t unread_in_any_case = size_t{64} * 1024;        ///< what each client may have even then

/** The key that a user's share is counted under; all who come over TCP have one. */
int64_t account_of(const Peer &peer);

/** How many of something each user has. */
using Shares = std::map<int64_t, size_t>;

/**
 * Whether one more is to be had beside the `total` of all users: at most `most` in all, and nobody more than half of
 * what the others leave, so that the last place is never taken by whoever has taken all the others.
 */
bool has_room(const Shares &shares, int64_t account, size_t total, size_t most);
void drop_one(Shares &shares, int64_t account);

/** What the clients of one user have together. */
struct Account {
    size_t unread = 0;                       ///< bytes that wait in the router because they are not read
    daemon_support::Clock::duration used{0}; ///< of this turn of the loop
    std::deque<Client *> waiting;            ///< for the next turn, since this one's time is used up
    bool is_noted = false;                   ///< stands in Turns::noted_: it has used time, or waits
};

/**
 * Who has how much of a turn of the loop. A user whose part is used up waits for the next turn, and their clients are
 * served in the order in which they came: whoever asks for much delays themselves.
 */
class Turns {
  public:
    /** Whether the account has time left when this much more of it is used. */
    static bool has_time(const Account &account, daemon_support::Clock::duration more = {});
    void use(const std::shared_ptr<Account> &account, daemon_support::Clock::duration time);
    void wait(Client &client);
    static void leave(const Client &client);

    /** Begins the next turn with those who have waited, while their time lasts; true when some still wait. */
    template <class Serve>
    bool begin(Serve serve) {
        for (const auto &account : noted_) {
            account->used = {};
        }
        for (size_t i = 0; i < noted_.size(); ++i) { // serving may add an account
            const std::shared_ptr<Account> account = noted_[i];
            // Each at most once: a client with time of its own may queue again at once.
            for (size_t left = account->waiting.size(); left > 0 && !account->waiting.empty() && has_time(*account);
                 --left) {
                Client *client = account->waiting.front();
                account->waiting.pop_front();
                serve(*client);
            }
        }
        return forget_the_idle();
    }

  private:
    void note(const std::shared_ptr<Account> &account);
    bool forget_the_idle();

    std::vector<std::shared_ptr<Account>> noted_;
};

} // namespace router

#endif
