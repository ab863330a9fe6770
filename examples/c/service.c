/*
 * The smallest service: answers hello.Say on the default channel until SIGTERM.
 * usage: service PUBLISH_ADDRESS ROUTER_ADDRESS      e.g. service tcp://127.0.0.1:7102 tcp://127.0.0.1:7101
 */
#include <signal.h>
#include <stddef.h>

#include <tavrix.h>

static volatile sig_atomic_t stop;

static void on_signal(int signal_number) {
    (void)signal_number;
    stop = 1;
}

static int say(json_t *params, json_t **result, json_t **error_data) {
    char text[64];
    int rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "text", text, sizeof text);
    if (rc != TAVRIX_OK) {
        return rc; /* what was wrong with the parameter is in *error_data already */
    }
    if (json_string_length(json_object_get(params, "text")) >= sizeof text) {
        return TAVRIX_ERR_INVALID_PARAMETER; /* it was cut to the buffer, perhaps inside a character */
    }
    *result = json_pack("{s:s}", "said", text);
    return TAVRIX_OK;
}

static const tavrix_jrpc_method methods[] = {{"hello.Say", say}, {NULL, NULL}};

int main(int argc, char **argv) {
    struct sigaction action = {0};
    int pub = -1, sub = -1;
    if (argc != 3) {
        return 2;
    }
    action.sa_handler = on_signal; /* no SA_RESTART: a waiting receive has to come back */
    sigaction(SIGTERM, &action, NULL);
    tavrix_lsyslog_init("hello");
    if (tavrix_jrpc_mq_pub_init(argv[1], &pub) != TAVRIX_OK || tavrix_jrpc_mq_sub_init(&sub, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_set_channel(argv[2], TAVRIX_CHANNEL_DEFAULT, &sub) != TAVRIX_OK) {
        return 1;
    }
    while (!stop) {
        tavrix_jrpc_mq_run(&sub, &pub, methods, 0); /* one request, or a second without any */
    }
    tavrix_mq_socket_close(sub);
    tavrix_mq_socket_close(pub);
    return 0;
}
