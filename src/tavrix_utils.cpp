/*
 * Utilities.
 */
#include "tavrix_utils.h"

#include <cstdarg>

#include "internal/log.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_utils";

} // namespace

int tavrix_check_for_null(int count, ...) {
    va_list args;
    va_start(args, count);
    int rc = TAVRIX_OK;
    for (int index = 0; index < count && rc == TAVRIX_OK; ++index) {
        if (va_arg(args, const void *) == nullptr) {
            LOG_WARNING("Found a null input parameter at varg index <%d>\n", index);
            rc = TAVRIX_ERR_GENERAL;
        }
    }
    va_end(args);
    return rc;
}
