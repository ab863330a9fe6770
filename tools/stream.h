/**
 * One exchange with a stream socket: connect, send a text, read until the peer closes.
 */
#ifndef TAVRIX_TOOLS_STREAM_H
#define TAVRIX_TOOLS_STREAM_H

#include <string>

#include "support.h"

namespace tavrixctl {

/** Sends `text` to the target and collects the answer. Complains and returns the exit status when it fails. */
int exchange(const Target &target, const std::string &text, const Deadline &deadline, std::string *answer);

/** The most bytes that the target reads of one request. */
size_t request_limit(const Target &target);

} // namespace tavrixctl

#endif
