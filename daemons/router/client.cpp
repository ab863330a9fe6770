#include "client.h"

#include <poll.h>
#include <unistd.h>

#include "router.h"
#include "service.h"

namespace router {

Client::Client(Router &router, int descriptor, Peer who)
    : peer(std::move(who)), account(router.account_for(peer)), router_(router), descriptor_(descriptor) {}

Client::~Client() {
    if (!is_closed()) {
        ::close(descriptor_);
    }
}

void Client::close() {
    if (is_closed()) {
        return;
    }
    on_close();
    ::close(descriptor_);
    descriptor_ = -1;
    router_.bury(*this);
}

void Client::answer(Json message, const BatchPlace &batch) { answer_text(router_.render(message.get()), batch); }

bool Client::has_hung_up() const {
    pollfd state{descriptor_, 0, 0}; // hang-ups and errors are reported unasked
    return poll(&state, 1, 0) == 1;
}

Call::Call(int wanted_number, Client &asking, Service &serving, std::string name)
    : number(wanted_number), client(asking), service(serving), method(std::move(name)), at_client_(client.calls, this),
      at_service_(service.calls, this) {
    ++service.users[account_of(client.peer)];
}

Call::~Call() { drop_one(service.users, account_of(client.peer)); }

} // namespace router
