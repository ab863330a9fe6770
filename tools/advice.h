/**
 * What can be done about an error that the router or a service has answered.
 */
#ifndef TAVRIX_TOOLS_ADVICE_H
#define TAVRIX_TOOLS_ADVICE_H

#include <string>

#include "router.h"
#include "support.h"

namespace tavrixctl {

/** A sentence's end, such as "did you mean ports.Get?"; empty where the answer's own words are enough. */
std::string advice_on(const std::string &method, const json_t *params, const json_t *error, const Deadline &deadline,
                      Router *router);

} // namespace tavrixctl

#endif
