// Linked in place of the C library's functions, with what a test puts into files: the time of day
// is moved by the seconds in one, and a call fails once with the error number in the one that has
// its name.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <string>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>

static bool fails(const char *call) {
    const std::string path = std::string("/tmp/error_of_") + call;
    std::ifstream file(path);
    int number = 0;
    if (!(file >> number))
        return false;
    std::remove(path.c_str());
    errno = number;
    return true;
}

template <typename Call, typename... Arguments>
static auto pass_on(Call *, const char *name, Arguments... arguments) {
    return reinterpret_cast<Call *>(dlsym(RTLD_NEXT, name))(arguments...);
}

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
    if (fails("recvfrom"))
        return -1;
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

extern "C" int socket(int domain, int type, int protocol) noexcept {
    return fails("socket") ? -1 : pass_on(socket, "socket", domain, type, protocol);
}

extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
    return fails("epoll_ctl") ? -1 : pass_on(epoll_ctl, "epoll_ctl", epoll, operation, fd, event);
}

extern "C" ssize_t getrandom(void *buffer, size_t size, unsigned flags) {
    return fails("getrandom") ? -1 : pass_on(getrandom, "getrandom", buffer, size, flags);
}

extern "C" ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    return fails("sendmsg") ? -1 : pass_on(sendmsg, "sendmsg", fd, message, flags);
}
