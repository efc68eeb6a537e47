#include "ioutils.h"

#include <sys/stat.h>
#include <syslog.h>

int is_empty_file(const char *path) {
    struct stat status;
    if (stat(path, &status) != 0)
        return 1;
    syslog(LOG_DEBUG, "File size: %s is %d", path, static_cast<int>(status.st_size));
    if (status.st_size > 0)
        return 0;
    syslog(LOG_DEBUG, "returning true");
    return 1;
}
