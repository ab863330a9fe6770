/*
 * The stream sockets of the programs by hand.
 */
#ifndef BARE_SOCKET_H
#define BARE_SOCKET_H

#include <stddef.h>

enum { max_request = 8192 };

/** A listening unix socket; ends the process when there is none. */
int listen_on(const char *path);

/** All of it, or as much as the other side lives to see. */
void send_all(int socket, const char *text, size_t length);

#endif
