/*
 * The smallest client: one request to the router's TCP listener, the reply on standard output.
 * usage: client PORT METHOD PARAMS                   e.g. client 7100 hello.Say '{"text":"good morning"}'
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tavrix.h>

int main(int argc, char **argv) {
    char request[1024], piece[1024];
    int sock = -1, length, got, total = 0;
    if (argc != 4) {
        return 2;
    }
    tavrix_lsyslog_init("client");
    length = snprintf(request, sizeof request,
                      "{\"jsonrpc\":\"2.0\",\"method\":\"%s\",\"id\":\"client\",\"transaction_id\":%d,\"params\":%s}",
                      argv[2], (int)getpid(), argv[3]);
    if (length >= (int)sizeof request) {
        return 2; /* half a request is none */
    }
    if (tavrix_tcp_socket_connect("127.0.0.1", (unsigned)atoi(argv[1]), &sock) != TAVRIX_OK) {
        return 4;
    }
    if (tavrix_socket_send(&sock, request) != TAVRIX_OK) {
        return 4;
    }
    while ((got = tavrix_socket_recv(&sock, piece, sizeof piece)) > 0) { /* the router closes behind the reply */
        fwrite(piece, 1, (size_t)got, stdout);
        total += got;
    }
    tavrix_socket_close(&sock);
    if (got < 0 || total == 0) {
        return 3;
    }
    puts("");
    return 0;
}
