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
    if (!(file >> errno))
        return false;
    std::remove(path.c_str());
    return true;
}

// The C library's own, unless it is to fail.
template <typename Result, typename... Parameters, typename... Arguments>
static Result pass_on(Result (*)(Parameters...), const char *name, Arguments... arguments) {
    using Call = Result (*)(Parameters...);
    return fails(name) ? -1 : reinterpret_cast<Call>(dlsym(RTLD_NEXT, name))(arguments...);
}

extern "C" time_t time(time_t *result) noexcept {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    time_t moved = 0;
    std::ifstream("/tmp/clock") >> moved;
    moved += now.tv_sec;
    if (result)
        *result = moved;
    return moved;
}

extern "C" ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from,
                            socklen_t *length) {
    return pass_on(recvfrom, "recvfrom", fd, buffer, size, flags, from, length);
}
extern "C" int socket(int domain, int type, int protocol) noexcept {
    return pass_on(socket, "socket", domain, type, protocol);
}
extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
    return pass_on(epoll_ctl, "epoll_ctl", epoll, operation, fd, event);
}
extern "C" ssize_t getrandom(void *buffer, size_t size, unsigned flags) {
    return pass_on(getrandom, "getrandom", buffer, size, flags);
}
extern "C" ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    return pass_on(sendmsg, "sendmsg", fd, message, flags);
}
