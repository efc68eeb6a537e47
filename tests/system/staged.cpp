// Linked in place of the C library's functions, with what a test puts into files: the time of day
// is moved by the seconds in one, and a receive fails once with the error number in the other.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sys/socket.h>

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

extern "C" ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from,
                            socklen_t *length) {
    std::ifstream file("/tmp/receive_error");
    if (int number = 0; file >> number) {
        std::remove("/tmp/receive_error");
        errno = number;
        return -1;
    }
    iovec bytes{buffer, size};
    msghdr message{};
    message.msg_name = from;
    message.msg_namelen = *length;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    const ssize_t received = recvmsg(fd, &message, flags);
    *length = message.msg_namelen;
    return received;
}
