// Linked in place of the C library's: the time of day, moved by the seconds that stand in a file.
#include <ctime>
#include <fstream>

extern "C" time_t time(time_t *result) noexcept {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    time_t seconds = 0;
    std::ifstream("/tmp/clock") >> seconds;
    seconds += now.tv_sec;
    if (result)
        *result = seconds;
    return seconds;
}
