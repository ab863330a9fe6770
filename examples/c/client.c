/*
 * The smallest client: one request to the router's TCP listener, the reply on standard output.
 * usage: client PORT METHOD PARAMS                   e.g. client 7100 hello.Say '{"text":"good morning"}'
 */
#include <stdio.h>
#include <stdlib.h>

#include <tavrix.h>

int main(int argc, char **argv) {
    char request[1024], reply[8193] = "";
    int sock = -1, got;
    if (argc != 4) {
        return 2;
    }
    tavrix_lsyslog_init("client");
    if (tavrix_tcp_socket_connect("127.0.0.1", (unsigned)atoi(argv[1]), &sock) != TAVRIX_OK) {
        return 4;
    }
    snprintf(request, sizeof request,
             "{\"jsonrpc\":\"2.0\",\"method\":\"%s\",\"id\":\"client\",\"transaction_id\":1,\"params\":%s}", argv[2],
             argv[3]);
    if (tavrix_socket_send(&sock, request) != TAVRIX_OK) {
        return 4;
    }
    got = tavrix_socket_recv(&sock, reply, sizeof reply - 1); /* the router sends the reply in one piece */
    tavrix_socket_close(&sock);
    if (got < 1) {
        return 3;
    }
    puts(reply);
    return 0;
}
