#include "strutils.h"

#include "log.h"

#include <cstdlib>
#include <string_view>
#include <syslog.h>

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

char *rtrim(char *text) {
    return text;
}

void strip_ext(char **text) {
    const std::string_view path(*text);
    const size_t stop = path.find_last_of("./\\");
    if (stop == std::string_view::npos || stop == 0 || path[stop] != '.')
        return;
    const char before = path[stop - 1];
    if (before != '/' && before != '\\')
        (*text)[stop] = '\0';
}

int isOnlyDigits(const char *text) {
    while (is_digit(*text))
        text++;
    return *text == '\0';
}

int startsWith(const char *text, const char *prefix) {
    return std::string_view(text).starts_with(prefix);
}

int endsWith(const char *text, const char *suffix) {
    return std::string_view(text).ends_with(suffix);
}

int isNumeric(const char *text) {
    syslog(LOG_DEBUG, "Check isNumeric: %s", shown(text));
    if (!text || !*text)
        return 0;
    bool found_digit = false;
    while (is_digit(*text) || *text == ' ')
        found_digit |= is_digit(*text++);
    const int numeric = *text == '\0' && found_digit;
    // The trace shows what follows the character that ended the scan.
    syslog(LOG_DEBUG, "Check: %s, isNum: %d, foundNum: %d", *text ? text + 1 : text, numeric,
           found_digit);
    return numeric;
}

int decimal(const char *text) {
    return static_cast<int>(strtoll(text, nullptr, 10));
}
