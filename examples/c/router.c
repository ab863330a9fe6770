/*
 * The smallest router: TCP clients to the bus and back, one request at a time, until SIGTERM.
 * Too small for a product: a client that says nothing holds up all others, and a reply that comes after the wait of a
 * second is given to the next client. daemons/router bounds the one and drops the other.
 * usage: router PORT PUBLISH_ADDRESS SERVICE_ADDRESS e.g. router 7100 tcp://127.0.0.1:7101 tcp://127.0.0.1:7102
 */
#include <poll.h>
#include <signal.h>
#include <stdlib.h>

#include <tavrix.h>

static volatile sig_atomic_t stop;

static void on_signal(int signal_number) {
    (void)signal_number;
    stop = 1;
}

int main(int argc, char **argv) {
    struct sigaction action = {0};
    int listener = -1, pub = -1, sub = -1, client = -1;
    if (argc != 4) {
        return 2;
    }
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, NULL);
    tavrix_lsyslog_init("router");
    if (tavrix_tcp_socket_init((unsigned)atoi(argv[1]), &listener, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_pub_init(argv[2], &pub) != TAVRIX_OK || tavrix_jrpc_mq_sub_init(&sub, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_set_channel(argv[3], TAVRIX_ROUTER_REPLY_CHANNEL, &sub) != TAVRIX_OK) {
        return 1;
    }
    while (!stop) {
        struct pollfd ready = {listener, POLLIN, 0};
        if (poll(&ready, 1, 1000) == 1 && tavrix_jrpc_router_socket_to_mq(&listener, &pub, &client) == TAVRIX_OK) {
            tavrix_jrpc_router_mq_to_socket(&sub, &client); /* closes the client, answered or not */
        }
    }
    tavrix_mq_socket_close(sub);
    tavrix_mq_socket_close(pub);
    tavrix_socket_close(&listener);
    return 0;
}
