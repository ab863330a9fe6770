/**
 * Questions to the router itself, whichever road leads to it.
 */
#ifndef TAVRIX_TOOLS_ROUTER_H
#define TAVRIX_TOOLS_ROUTER_H

#include <memory>
#include <string>
#include <vector>

#include "session.h"
#include "stream.h"
#include "support.h"

namespace tavrixctl {

class Router {
  public:
    explicit Router(const Target &target) : roads_(roads_to(target)) {}

    /** The answer to a request's text. Complains and returns the exit status when there is none. */
    int exchange(const std::string &request, const Deadline &deadline, std::string *answer);

    /** The method's result. Complains and returns the exit status when there is none; null when it was stopped. */
    int ask(const std::string &method, Json params, const Deadline &deadline, Json *result);

  private:
    std::vector<Road> roads_;
    std::unique_ptr<Session> session_; ///< kept from the first question on, when that is the road
};

/** The exit status that an answer stands for: a result, an error, a time-out. */
int status_of(const json_t *answer);
/** The same in the word that records and monitors have for it. */
const char *outcome_of(const json_t *answer);

/** Whether the router's policy has refused it, by the error's data. */
bool is_refused_by_policy(const json_t *data);

/** What an error answer says, in words; whoever meets the policy is also told whom it lets pass. */
std::string words_of_failure(const std::string &method, const json_t *answer);

/** The methods that a router.Status tells of, and the router's own. */
std::vector<std::string> known_methods(const json_t *status);

} // namespace tavrixctl

#endif
