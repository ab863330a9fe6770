/**
 * What a test and the router that it makes fail have in common: one file that both map into their memory.
 *
 * Counted in the router: each allocation of its own, of Jansson and of libevent, and its own calls of the functions
 * that CMakeLists.txt lists. Jansson's parser counts as one call, since a failure inside crashes it or loses
 * characters; so do the library's functions, which have failure tests of their own. nanomsg ends the process when
 * memory runs out, so its allocations are not counted.
 */
#ifndef TAVRIX_TESTS_FAULT_ROUTER_FAULTS_H
#define TAVRIX_TESTS_FAULT_ROUTER_FAULTS_H

#include <atomic>
#include <cstdint>

namespace fault {

constexpr char router_faults_variable[] = "TAVRIX_TEST_FAULTS"; ///< names the file in the environment

struct RouterFaults {
    std::atomic<int32_t> remaining; ///< calls until the one that fails; 0: none does
    char function[48];              ///< the one that has failed
};

} // namespace fault

#endif
