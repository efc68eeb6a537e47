// ubusd [-s SOCKET] [-A DIRECTORY]: a bus daemon for machines without OpenWrt's packages. It stays
// in the foreground and logs to the system log.
#include "bus.h"
#include "wire.h"

extern "C" {
#include <ubus_common.h>
}
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

static void handle_listener(uloop_fd *sock, unsigned int) {
    int fd;
    while ((fd = accept4(sock->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0)
        accept_client(fd);
}

// The listening socket, or -1 with errno. Programs of every account may connect.
static int listen_at(const char *path) {
    sockaddr_un address;
    if (!wire::set_address(address, path))
        return -1;
    unlink(path);
    umask(0111);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(fd, SOMAXCONN) != 0)
        return -1;
    return fd;
}

// Makes the default socket's directory, and no other.
static void make_directory() {
    std::string directory = UBUS_UNIX_SOCKET;
    directory.resize(directory.rfind('/'));
    mkdir(directory.c_str(), 0755);
}

int main(int argc, char **argv) {
    const char *path = UBUS_UNIX_SOCKET;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    for (int option; (option = getopt(argc, argv, "A:s:")) != -1;) {
        switch (option) {
        case 's':
            path = optarg;
            break;
        case 'A': // access lists do not apply to anybody here
            break;
        default:
            fprintf(stderr,
                    "Usage: %s [<options>]\n"
                    "Options:\n"
                    "  -A <path>:\tDirectory of access lists (ignored)\n"
                    "  -s <socket>:\tUnix socket to listen on\n",
                    argv[0]);
            return 1;
        }
    }
    openlog("ubusd", LOG_PID, LOG_DAEMON);
    signal(SIGHUP, SIG_IGN); // would load access lists anew
    signal(SIGPIPE, SIG_IGN);
    if (strcmp(path, UBUS_UNIX_SOCKET) == 0)
        make_directory();
    uloop_init();
    uloop_fd listener{};
    listener.cb = handle_listener;
    listener.fd = listen_at(path);
    if (listener.fd < 0) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the bus daemon has one thread
        syslog(LOG_ERR, "cannot listen on %s: %s", path, strerror(errno));
        perror(path);
        return -1;
    }
    uloop_fd_add(&listener, ULOOP_READ);
    uloop_run();
    unlink(path);
    close_clients();
    close(listener.fd);
    blob_buf_free(&bus.scratch);
    uloop_done();
    return 0;
}
