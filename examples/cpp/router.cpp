/*
 * The smallest router: TCP clients to the bus and back, one request at a time, until SIGTERM.
 * Too small for a product: a client that says nothing holds up all others, and a reply that comes after the wait of a
 * second is given to the next client. daemons/router bounds the one and drops the other.
 * usage: router PORT PUBLISH_ADDRESS SERVICE_ADDRESS e.g. router 7100 tcp://127.0.0.1:7101 tcp://127.0.0.1:7102
 */
#include <csignal>
#include <cstdlib>

#include <poll.h>

#include <tavrix.h>

namespace {

volatile std::sig_atomic_t stop = 0;

/** A bus socket, closed with its scope. */
struct BusSocket {
    int number = -1;
    ~BusSocket() {
        if (number >= 0) {
            tavrix_mq_socket_close(number);
        }
    }
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = [](int) { stop = 1; };
    sigaction(SIGTERM, &action, nullptr);
    tavrix_lsyslog_init("router");
    int listener = -1;
    BusSocket pub;
    BusSocket sub;
    if (tavrix_tcp_socket_init(static_cast<unsigned>(std::atoi(argv[1])), &listener, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_pub_init(argv[2], &pub.number) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_init(&sub.number, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_set_channel(argv[3], TAVRIX_ROUTER_REPLY_CHANNEL, &sub.number) != TAVRIX_OK) {
        return 1;
    }
    while (stop == 0) {
        pollfd ready{listener, POLLIN, 0};
        int client = -1;
        if (poll(&ready, 1, 1000) == 1 &&
            tavrix_jrpc_router_socket_to_mq(&listener, &pub.number, &client) == TAVRIX_OK) {
            tavrix_jrpc_router_mq_to_socket(&sub.number, &client); // closes the client, answered or not
        }
    }
    tavrix_socket_close(&listener);
    return 0;
}
