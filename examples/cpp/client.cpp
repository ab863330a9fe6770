/*
 * The smallest client: one request to the router's TCP listener, the reply on standard output.
 * usage: client PORT METHOD PARAMS                   e.g. client 7100 hello.Say '{"text":"good morning"}'
 */
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <tavrix.h>

int main(int argc, char **argv) {
    if (argc != 4) {
        return 2;
    }
    tavrix_lsyslog_init("client");
    int sock = -1;
    if (tavrix_tcp_socket_connect("127.0.0.1", static_cast<unsigned>(std::atoi(argv[1])), &sock) != TAVRIX_OK) {
        return 4;
    }
    const std::string request = std::string(R"({"jsonrpc":"2.0","id":"client","transaction_id":1,"method":")") +
                                argv[2] + R"(","params":)" + argv[3] + "}";
    std::array<char, 8193> reply{};
    int got = -1;
    if (tavrix_socket_send(&sock, request.c_str()) == TAVRIX_OK) {
        got = tavrix_socket_recv(&sock, reply.data(), reply.size() - 1); // the router sends the reply in one piece
    }
    tavrix_socket_close(&sock);
    if (got < 1) {
        return 3;
    }
    std::puts(reply.data());
    return 0;
}
