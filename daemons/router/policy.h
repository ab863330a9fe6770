/**
 * Who may call what: by the listener that a client came through, its user and its groups.
 *
 * A file in the format of the other configuration files has a section for each listener ([unix], [tcp], [session]),
 * whose keys are `all`, `user.NAME` and `group.NAME`, and whose values are method patterns, separated by commas:
 *
 *     [tcp]
 *     all=ports.Get,mzu.List
 *     [session]
 *     all=*
 *     group.operators=router.Lock,router.Unlock
 *
 * What no row allows is refused. `*` covers the services' methods and what everybody may ask of the router; locking,
 * registering and watching others' requests have to be named, by their name or `router.*`. Without a section of its own
 * unix and session allow everybody `*`, and tcp nothing. Root, the router's own user and its group may do everything
 * through the unix and session listeners, whatever the file says: nobody locks out who keeps the file.
 */
#ifndef TAVRIX_DAEMONS_ROUTER_POLICY_H
#define TAVRIX_DAEMONS_ROUTER_POLICY_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace router {

enum class Road { unix_socket, tcp, session };
constexpr std::array<const char *, 3> road_names = {"unix", "tcp", "session"};
inline const char *name_of(Road road) { return road_names[static_cast<size_t>(road)]; }

/** Who is at the other end of a connection, as the kernel tells; over TCP nobody knows. */
struct Peer {
    Road road = Road::unix_socket;
    bool known = false;
    pid_t process = 0; ///< the one that connected
    uid_t user = 0;
    std::vector<gid_t> groups; ///< the first one is its own, the others supplementary
};

Peer peer_of(int descriptor, Road road);

class Policy {
  public:
    Policy();

    /** Takes the file's sections in place of the built-in ones; false, with a log line, when the file cannot be used.
     */
    bool read(const std::string &path);

    bool allows(const Peer &peer, std::string_view method) const;

  private:
    enum class Whom { all, user, group };
    struct Row {
        Whom whom;
        unsigned number; ///< of the user or group
        std::vector<std::string> patterns;
    };

    std::string read_row(const std::string &line, Row *row) const;
    std::string read_lines(const std::string &path);

    std::array<std::vector<Row>, 3> rows_; ///< by road
};

} // namespace router

#endif
