/**
 * The document of everything that can be called, as the router hands it out, and the way about in it.
 */
#ifndef TAVRIX_TOOLS_DISCOVERY_H
#define TAVRIX_TOOLS_DISCOVERY_H

#include <string>
#include <vector>

#include "support.h"

namespace tavrixctl {

/** Asks for the document. Complains and returns the exit status when there is none. */
int discover(const Target &target, const Deadline &deadline, Json *document);

/** The document's methods in the order of their names. */
std::vector<const json_t *> methods_of(const json_t *document);

/** The method of this name; null when there is none. */
const json_t *find_method(const std::vector<const json_t *> &methods, const std::string &name);

/** Whether a text is one of the values that the schema allows, so that `name=` can give them. */
bool takes_text(const json_t *schema);

} // namespace tavrixctl

#endif
