/*
 * The smallest service on the library alone, which registers nowhere: the router has to --connect to it. NAME.Empty
 * answers 0, NAME.Say answers its own parameters.
 *
 *     echo_service PUBLISH_ADDRESS ROUTER_ADDRESS [NAME]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <nanomsg/nn.h>
#include <nanomsg/tcp.h>

#include <tavrix.h>

enum { max_name = 48, name_size = max_name + 8 };

static int empty(json_t *params, json_t **result, json_t **error_data) {
    (void)params;
    (void)result;
    (void)error_data;
    return TAVRIX_OK;
}

static int say(json_t *params, json_t **result, json_t **error_data) {
    (void)error_data;
    *result = json_incref(params);
    return TAVRIX_OK;
}

/** The endpoint functions know tcp alone. */
static int transport_of(const char *address) {
    return strncmp(address, "ipc:", 4) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
}

/** Else the last replies of many wait for the system's acknowledgement of those before, some 40 ms. */
static int send_at_once(int publisher) {
    const int yes = 1;
    return nn_setsockopt(publisher, NN_TCP, NN_TCP_NODELAY, &yes, sizeof yes) == 0;
}

static int open_bus(const char *publish, const char *router, const char *method, int *publisher, int *subscriber) {
    char *channel = tavrix_api_router_json_parse_channel(method);
    int endpoint = -1;
    const int is_open = channel != NULL && tavrix_mq_socket_init(TAVRIX_SP_PUB, publisher) == TAVRIX_OK &&
                        send_at_once(*publisher) &&
                        tavrix_mq_socket_bind(*publisher, transport_of(publish), publish, &endpoint) == TAVRIX_OK &&
                        tavrix_jrpc_mq_sub_init(subscriber, 1) == TAVRIX_OK &&
                        tavrix_mq_socket_connect(*subscriber, transport_of(router), router, &endpoint) == TAVRIX_OK &&
                        tavrix_mq_socket_subscribe(*subscriber, channel) == TAVRIX_OK;
    free(channel);
    return is_open;
}

int main(int argc, char **argv) {
    const char *name = argc == 4 ? argv[3] : "echo";
    char names[2][name_size];
    const tavrix_jrpc_method methods[] = {{names[0], empty}, {names[1], say}, {NULL, NULL}};
    int publisher = -1;
    int subscriber = -1;
    if (argc < 3 || argc > 4 || strlen(name) > max_name) {
        fprintf(stderr, "usage: echo_service PUBLISH_ADDRESS ROUTER_ADDRESS [NAME]\n");
        return 2;
    }
    snprintf(names[0], name_size, "%s.Empty", name);
    snprintf(names[1], name_size, "%s.Say", name);
    tavrix_lsyslog_init("echo");
    if (!open_bus(argv[1], argv[2], names[0], &publisher, &subscriber)) {
        fprintf(stderr, "echo_service: cannot use the bus\n");
        return 1;
    }
    for (;;) {
        tavrix_jrpc_mq_run(&subscriber, &publisher, methods, 0);
    }
}
