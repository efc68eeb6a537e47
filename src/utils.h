// Time and number texts for the statistics log, the monotonic clock, and a one-line debug trace.
#pragma once

#include <cstddef>
#include <cstdint>

// Room for every text that time2String() can write.
inline constexpr size_t TIME_TEXT_SIZE = 64;

// Writes a duration of `seconds` as "%6d days, %2d hrs, %2d mins, %2d secs" into `buffer`, which
// has TIME_TEXT_SIZE bytes. Returns the number of characters written. Any thread.
int time2String(char *buffer, int64_t seconds);

// time2String() of the wall clock: the seconds since the epoch written as a duration. Without a
// caller in the daemon.
int getTimeAsString(char *buffer);

inline constexpr int64_t US_PER_MS = 1000, US_PER_S = 1'000'000;

// The monotonic clock in microseconds, and in milliseconds. Any thread.
int64_t now_us();
inline int64_t now_ms() {
    return now_us() / US_PER_MS;
}

// The decimal text of `number` with thousands separators of the locale, "," where it has none.
// Returns a static buffer that the next call overwrites: main thread only.
char *commaprint(uint64_t number);

// The text of errno. Any thread.
const char *error_text();

// Logs label and value at debug level with a format that lacks its conversion letter, so that what
// is shown of the value is up to the C library. Any thread.
void debugLog(const char *label, int64_t value);
