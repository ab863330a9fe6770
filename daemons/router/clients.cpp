/** The router's clients: who comes in, whose turn it is, who goes. */
#include <iterator>

#include <sys/socket.h>

#include "common/sockets.h"
#include "foreign_log.h"
#include "router.h"
#include "tavrix_jrpc.h"

namespace router {

namespace {

using daemon_support::add_after;
using daemon_support::Clock;
using std::chrono::milliseconds;

constexpr char unit_name[] = "clients";

} // namespace

template <class Kind>
void Router::admit(int descriptor, Road road) {
    guard(nullptr, [&] {
        tavrix::StreamSocket owner(descriptor);
        Peer peer = peer_of(descriptor, road);
        const int64_t account = account_of(peer);
        if (!has_room(users_, account, clients_.size(), static_cast<size_t>(config_.max_clients))) {
            turn_away(descriptor, road);
            return;
        }
        auto added = std::make_unique<Kind>(*this, descriptor, std::move(peer));
        static_cast<void>(owner.release());
        Kind *client = added.get();
        size_t &places = users_[account];
        clients_.push_back(std::move(added));
        client->place = std::prev(clients_.end());
        ++places;
        guard(client, [&] {
            if constexpr (std::is_same_v<Kind, Session>) {
                sessions_.push_back(client);
            }
            client->start();
        });
    });
}

template void Router::admit<OneShot>(int descriptor, Road road);
template void Router::admit<Session>(int descriptor, Road road);

/** Answered at once, whatever it wanted to ask. */
void Router::turn_away(int descriptor, Road road) {
    ++statistics_.busy;
    LOG_FOREIGN("Too many clients: one more turned away\n");
    const Json answer = make_error(TAVRIX_JRPC_SYSTEM_BUSY, nullptr, message_data("too many clients"));
    std::string text(render(answer.get()));
    text += road == Road::session ? "\n" : "";
    char bytes[TAVRIX_ROUTER_MAX_REQUEST]; // what is left unread would make the close a reset
    static_cast<void>(recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT));
    static_cast<void>(::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

void Router::out_of_memory(Client *client) {
    LOG_WITHIN(lines_of_clients, LOG_ERROR("There is no memory for what a client wants\n"));
    if (client != nullptr) {
        client->close();
    }
}

/** The client's connection is closed: what it has asked is nobody's any more. */
void Router::bury(Client &client) {
    drop_one(users_, account_of(client.peer));
    Turns::leave(client);
    while (!client.calls.empty()) {
        Call &call = *client.calls.front();
        guard(nullptr, [&] {
            LOG_FOREIGN("The client of %s has gone\n", printable(call.method).c_str());
            cancel(call);
        });
        finish(call, Outcome::cancelled, Json());
    }
    graveyard_.splice(graveyard_.end(), clients_, client.place);
    schedule_turn_end();
}

void Router::on_session_end(Session &session) {
    sessions_.remove(&session);
    session.subscribed.clear();
    session.monitored.clear();
    listen_for(session);
    if (session.service != nullptr) {
        Service &service = *session.service;
        session.service = nullptr;
        gone(service);
    }
}

void Router::flush_later(Session &session) {
    if (!session.is_to_flush) {
        session.is_to_flush = true;
        to_flush_.push_back(&session);
        schedule_turn_end();
    }
}

std::shared_ptr<Account> Router::account_for(const Peer &peer) {
    for (auto entry = accounts_.begin(); entry != accounts_.end();) {
        entry = entry->second.expired() ? accounts_.erase(entry) : std::next(entry);
    }
    std::weak_ptr<Account> &known = accounts_[account_of(peer)];
    std::shared_ptr<Account> account = known.lock();
    if (account == nullptr) {
        known = account = std::make_shared<Account>();
    }
    return account;
}

void Router::serve_now(Client &client) {
    guard(&client, [&] {
        client.is_waiting = false;
        serving_since_ = Clock::now();
        client.take_turn();
        if (!client.has_own_time()) {
            turns_.use(client.account, Clock::now() - serving_since_);
        }
        schedule_turn_end();
    });
}

void Router::serve(Client &client) {
    const Account &account = *client.account;
    if (client.is_waiting) { // in the list once
        schedule_turn_end();
    } else if (client.has_own_time() || (account.waiting.empty() && Turns::has_time(account))) {
        serve_now(client);
    } else {
        guard(&client, [&] { wait_for_turn(client); });
    }
}

void Router::wait_for_turn(Client &client) {
    if (!client.is_waiting) {
        turns_.wait(client);
        client.is_waiting = true;
    }
    schedule_turn_end();
}

bool Router::is_turn_over(const Client &client) const {
    const auto used = Clock::now() - serving_since_;
    return client.has_own_time() ? used >= time_per_turn : !Turns::has_time(*client.account, used);
}

void Router::schedule_turn_end() {
    if (!is_turn_ending_) {
        event_active(turn_end_.get(), 0, 0);
    }
}

/** Everything that one turn has written to a session leaves in one piece. */
void Router::on_turn_end(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Router *>(context);
    self->is_turn_ending_ = true;
    const bool is_any_waiting = self->turns_.begin([self](Client &client) { self->serve_now(client); });
    for (size_t i = 0; i < self->to_flush_.size(); ++i) { // a flush that ends a session may write to others
        Session *session = self->to_flush_[i];
        session->is_to_flush = false;
        self->guard(session, [session] { session->flush(); });
    }
    self->to_flush_.clear();
    self->graveyard_.clear();
    self->is_turn_ending_ = false;
    if (is_any_waiting) {
        add_after(self->turn_end_, milliseconds(0)); // behind whatever has come for others meanwhile
    }
}

} // namespace router
