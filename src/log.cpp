#include "log.h"

#include <atomic>
#include <syslog.h>

static std::atomic<int> logged_priorities{LOG_UPTO(LOG_DEBUG)}; // what a process starts with
static std::atomic<bool> has_debug, has_debug_sql;

void set_log_mask(int level) {
    if (level >= 0)
        set_logged_priorities(LOG_UPTO(level < LOG_DEBUG ? level : LOG_DEBUG));
}

int set_logged_priorities(int mask) {
    setlogmask(mask);
    return logged_priorities.exchange(mask);
}

bool is_logged(int priority) {
    return logged_priorities & LOG_MASK(priority);
}

void set_traces(bool debug, bool debug_sql) {
    has_debug = debug;
    has_debug_sql = debug_sql;
}

bool is_debug() {
    return has_debug_sql;
}

bool is_sql_debug() {
    return has_debug;
}

const char *shown(const char *text) {
    return text ? text : "(null)";
}
