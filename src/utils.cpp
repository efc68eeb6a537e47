#include "utils.h"

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <syslog.h>

int time2String(char *buffer, int64_t seconds) {
    int64_t hours = seconds / 3600;
    const int64_t days = hours / 24;
    if (days > 0)
        hours -= days * 24;
    const int64_t rest = seconds - (days * 24 + hours) * 3600;
    return snprintf(buffer, TIME_TEXT_SIZE, "%6d days, %2d hrs, %2d mins, %2d secs",
                    static_cast<int>(days), static_cast<int>(hours), static_cast<int>(rest / 60),
                    static_cast<int>(rest % 60));
}

int getTimeAsString(char *buffer) {
    return time2String(buffer, time(nullptr));
}

int64_t now_us() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * US_PER_S + now.tv_nsec / 1000;
}

char *commaprint(uint64_t number) {
    static char separator;
    static char buffer[30];
    if (!separator) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the main thread reports
        const char *of_locale = localeconv()->thousands_sep;
        separator = of_locale && *of_locale ? *of_locale : ',';
    }
    char *p = buffer + sizeof buffer;
    *--p = '\0';
    int digits = 0;
    do {
        if (digits && digits % 3 == 0)
            *--p = separator;
        *--p = static_cast<char>('0' + number % 10);
        number /= 10;
        digits++;
    } while (number);
    return p;
}

const char *error_text() {
    return strerror(errno); // NOLINT(concurrency-mt-unsafe): it is safe in glibc and musl
}

void debugLog(const char *label, int64_t value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    // The format has no conversion letter, on purpose: what the line shows of the value is up to
    // the C library.
    syslog(LOG_DEBUG, "%s : %l", label, value);
#pragma GCC diagnostic pop
}
