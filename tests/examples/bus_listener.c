/* Prints every message that is published on the addresses, a line each, until it is ended: bus_listener ADDRESS... */
#include <stdio.h>
#include <stdlib.h>

#include <tavrix_error.h>
#include <tavrix_mq.h>

int main(int argc, char **argv) {
    int sock, endpoint, length;
    char *message;

    if (tavrix_mq_socket_init(TAVRIX_SP_SUB, &sock) != TAVRIX_OK || tavrix_mq_socket_subscribe(sock, "") != TAVRIX_OK) {
        return 1;
    }
    for (int i = 1; i < argc; ++i) {
        if (tavrix_mq_socket_connect(sock, TAVRIX_TRANSPORT_IPC, argv[i], &endpoint) != TAVRIX_OK) {
            return 1;
        }
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    while (tavrix_mq_socket_recv(sock, &message, &length, 0) == TAVRIX_OK) {
        printf("%.*s\n", length, message);
        free(message);
    }
    return 1;
}
