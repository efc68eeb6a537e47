// Linked in place of the C library's: the time of day, moved by the seconds that stand in a file.
#include <cstdio>
#include <ctime>

extern "C" time_t time(time_t *result) noexcept {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    long seconds = 0;
    if (FILE *file = fopen("/tmp/clock", "re")) {
        if (fscanf(file, "%ld", &seconds) != 1)
            seconds = 0;
        fclose(file);
    }
    now.tv_sec += seconds;
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}
