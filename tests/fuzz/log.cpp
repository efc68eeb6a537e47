// Stands in for the system log: lines are formatted, so that a sanitizer sees what they read, and
// dropped.
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

extern "C" void vsyslog(int, const char *format, va_list values) {
    char line[1024];
    std::vsnprintf(line, sizeof line, format, values);
}

extern "C" void syslog(int priority, const char *format, ...) {
    va_list values;
    va_start(values, format);
    vsyslog(priority, format, values);
    va_end(values);
}
