/**
 * What the running system offers to complete a command line with.
 *
 * A router that is not there, or does not answer at once, offers nothing, and nobody hears of it: the shell has to go
 * on. The words are foreign; who prints them keeps to is_offerable.
 */
#ifndef TAVRIX_TOOLS_OFFERS_H
#define TAVRIX_TOOLS_OFFERS_H

#include <string>
#include <vector>

#include "verbs.h"

namespace tavrixctl {

/** Whether a word may stand on a command line: printable ASCII, and not too long. */
bool is_offerable(const std::string &word);

std::vector<std::string> offered_methods(const Target &target);
std::vector<std::string> offered_services(const Target &target);

/** The daemons that the router or the logger's configuration file knows. */
std::vector<std::string> offered_daemons(const Target &target, const std::string &file);

/**
 * What may follow the method and the words that were already `given`: parameters as `name=` or `name:=`, required ones
 * first. After `name=` in `word` it is that with each of the values that the parameter can have, if they can be
 * counted.
 */
std::vector<std::string> offered_params(const Target &target, const std::string &method,
                                        const std::vector<std::string> &given, const std::string &word);

} // namespace tavrixctl

#endif
