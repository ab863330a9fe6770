/**
 * Stream sockets: the roads to a router or a daemon, and texts sent and read whole.
 */
#ifndef TAVRIX_TOOLS_STREAM_H
#define TAVRIX_TOOLS_STREAM_H

#include "support.h"

namespace tavrixctl {

/** What can be done where an answer does not come. */
constexpr char late_remedy[] = "is it stopped, or busy? --timeout waits longer";

using Socket = tavrix::Descriptor;

enum class RoadKind { one_shot, tcp, session, direct };

struct Road {
    RoadKind kind;
    std::string where;
};

/** The most bytes that are read of one request on this kind of road. */
size_t request_limit(RoadKind kind);

/** What the target leads to, the road that is preferred first. */
std::vector<Road> roads_to(const Target &target);

/**
 * Takes the first of the roads on which somebody listens and for which the request is not too long. Complains and
 * returns the exit status when there is none.
 */
int connect_to(const std::vector<Road> &roads, size_t request_size, const Deadline &deadline, Socket *out,
               RoadKind *kind);

/** Both complain and return the exit status when they fail. */
int send_text(int fd, const std::string &text, const Deadline &deadline);
int read_to_end(int fd, const Deadline &deadline, std::string *answer);

} // namespace tavrixctl

#endif
