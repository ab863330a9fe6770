/*
 * The smallest client: one request to the router's TCP listener, the reply on standard output.
 * usage: client PORT METHOD PARAMS                   e.g. client 7100 hello.Say '{"text":"good morning"}'
 */
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

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
    const std::string request = std::string(R"({"jsonrpc":"2.0","id":"client","method":")") + argv[2] +
                                R"(","transaction_id":)" + std::to_string(getpid()) + R"(,"params":)" + argv[3] + "}";
    std::string reply;
    std::array<char, 1024> piece{};
    int got = -1;
    if (tavrix_socket_send(&sock, request.c_str()) == TAVRIX_OK) {
        // The router closes behind the reply.
        while ((got = tavrix_socket_recv(&sock, piece.data(), piece.size())) > 0) {
            reply.append(piece.data(), static_cast<size_t>(got));
        }
    }
    tavrix_socket_close(&sock);
    if (got < 0 || reply.empty()) {
        return 3;
    }
    std::puts(reply.c_str());
    return 0;
}
