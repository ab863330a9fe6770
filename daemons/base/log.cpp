#include "base/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace daemon_support {

void never_wait_for_log() {
    struct stat target {};
    if (fstat(STDERR_FILENO, &target) != 0) {
        return;
    }
    if (S_ISFIFO(target.st_mode)) {
        // Opened anew, since whoever else writes into the pipe may want to wait.
        const int own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (own >= 0) {
            dup2(own, STDERR_FILENO);
            close(own);
        }
    } else if (S_ISSOCK(target.st_mode)) { // the service manager's, for this daemon alone
        fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
    }
}

} // namespace daemon_support
