#include "bare_socket.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int listen_on(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (strlen(path) >= sizeof address.sun_path) {
        fprintf(stderr, "%s: too long\n", path);
        exit(1);
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    unlink(path);
    if (listener < 0 || bind(listener, (const struct sockaddr *)&address, sizeof address) < 0 ||
        listen(listener, 128) < 0) {
        perror(path);
        exit(1);
    }
    return listener;
}

void send_all(int socket, const char *text, size_t length) {
    while (length > 0) {
        const ssize_t sent = send(socket, text, length, MSG_NOSIGNAL);
        if (sent < 0) {
            return;
        }
        text += sent;
        length -= (size_t)sent;
    }
}
