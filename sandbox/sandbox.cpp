#include "sandbox.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace sandbox {

static constexpr int CANNOT_MAKE = 125;
static constexpr char STASH[] = "/run/sandbox/etc"; // where the machine's own /etc can be read

// Like fork(), but the child is the first process of new namespaces. The system call is made
// directly because unshare() refuses a user namespace to a process that has threads, and some
// sanitizers start one before main().
static pid_t fork_into(unsigned long namespaces) {
    return static_cast<pid_t>(syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0));
}

// Root of this user namespace is the user who started it.
static void become_root(uid_t uid, gid_t gid) {
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

static int open_path(const std::string &path) {
    int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
    must(fd >= 0, "open " + path);
    return fd;
}

// A copy of the mount tree at a descriptor, attached to nothing yet.
static int clone_tree(int fd) {
    int tree = open_tree(fd, "",
                         AT_EMPTY_PATH | AT_RECURSIVE | OPEN_TREE_CLONE |
                             static_cast<unsigned>(OPEN_TREE_CLOEXEC));
    must(tree >= 0, "copy a mount tree");
    return tree;
}

static void bind_mount(int fd, const std::string &target, bool writable) {
    int tree = clone_tree(fd);
    mount_attr change{};
    change.attr_clr = writable ? MOUNT_ATTR_RDONLY : 0;
    must(mount_setattr(tree, "", AT_EMPTY_PATH, &change, sizeof change) == 0 &&
             move_mount(tree, "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0,
         "mount on " + target);
    close(tree);
    close(fd);
}

// From here on everything is a read-only copy of what could be seen before, and no mount reaches
// another namespace. In a chroot the root is no mount point and what it lies on may be shared with
// the rest of the machine, so this first goes out to the namespace's own root.
static void enter_copy_of_root() {
    int here = open_path("/");
    int own = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    must(own >= 0 && setns(own, CLONE_NEWNS) == 0, "reach the root of the mount namespace");
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
    int tree = clone_tree(here);
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    must(mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes) == 0,
         "make the machine's files read-only");
    must(move_mount(tree, "", here, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0,
         "mount the copied root");
    must(fchdir(tree) == 0 && chroot(".") == 0, "change to the copied root");
    for (int fd : {here, own, tree})
        close(fd);
}

static void cover(const std::string &path, const char *mode = "mode=0755") {
    must(mount("sandbox", path.c_str(), "tmpfs", MS_NOSUID, mode) == 0, "mount a private " + path);
}

static void make_etc() {
    int original = open_path("/etc");
    must(mkdir("/run/sandbox", 0755) == 0 && mkdir(STASH, 0755) == 0, "make " + std::string(STASH));
    bind_mount(original, STASH, false);
    cover("/etc");
    for (const auto &entry : fs::directory_iterator(STASH)) {
        std::string name = entry.path().filename();
        if (name == "config" || name == "resolv.conf" || name == "vantrelle")
            continue;
        fs::path target = entry.is_symlink() ? fs::read_symlink(entry.path()) : entry.path();
        must(symlink(target.c_str(), ("/etc/" + name).c_str()) == 0, "link /etc/" + name);
    }
    must(mkdir("/etc/config", 0755) == 0, "make /etc/config");
    write_file("/etc/resolv.conf", "# nobody has written this file yet\n");
}

static void make_dev() {
    std::vector<std::pair<int, std::string>> nodes;
    for (std::string name : {"null", "zero", "full", "random", "urandom", "tty"})
        nodes.emplace_back(open_path("/dev/" + name), "/dev/" + name);
    cover("/dev");
    for (const auto &[fd, path] : nodes) {
        write_file(path, "");
        bind_mount(fd, path, true);
    }
    must(symlink("/proc/self/fd", "/dev/fd") == 0, "make /dev/fd");
    // The chip's registers start at 0x10000000; the daemon maps the first KiB of them.
    write_file("/dev/mem", "");
    must(truncate("/dev/mem", 0x10001000) == 0, "make /dev/mem");
    write_file("/dev/ledchain0", "");
}

static void make_files() {
    std::vector<std::pair<int, const char *>> trees;
    for (const char *path : {PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR})
        trees.emplace_back(open_path(path), path);
    cover("/tmp", "mode=1777");
    cover("/run");
    if (fs::canonical("/var/run") != "/run")
        cover("/var/run");
    make_etc();
    make_dev();
    cover("/sys");
    fs::create_directories("/sys/class/gpio");
    write_file("/sys/class/gpio/export", "");
    write_file("/sys/class/gpio/unexport", "");
    must(mount("sandbox", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
         "mount a /proc for the own processes");
    // The sources and the build stay what they are.
    for (const auto &[fd, path] : trees) {
        fs::create_directories(path); // where one of the private places covers it
        bind_mount(fd, path, true);
    }
}

static void make_network() {
    FILE *ip = popen("ip -batch -", "we");
    must(ip, "run ip (package iproute2)");
    fprintf(ip,
            "link set lo up\n"
            "link add %s address 00:11:22:AA:BB:CC type veth peer name clients0\n"
            "addr add %s/24 dev %s\nlink set %s up\nlink set clients0 up\n",
            INTERFACE_NAME, ROUTER, INTERFACE_NAME, INTERFACE_NAME);
    for (int client = 20; client < 30; client++)
        fprintf(ip, "addr add %s%d/32 dev lo\n", CLIENT_PREFIX, client);
    for (int upstream = 1; upstream <= 4; upstream++)
        fprintf(ip, "addr add %s%d/32 dev lo\n", UPSTREAM_PREFIX, upstream);
    must(pclose(ip) == 0, "make the network with ip (package iproute2)");
}

// Opens /dev/log and the file that keeps what it receives.
static std::pair<int, int> open_log() {
    int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{AF_UNIX, "/dev/log"};
    must(log >= 0 && bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
             chmod("/dev/log", 0666) == 0,
         "make /dev/log");
    int file = open(LOG_FILE, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    must(file >= 0, "make " + std::string(LOG_FILE));
    return {log, file};
}

// One datagram becomes one line: line ends at its end go, others are shown as #012.
static void keep_log(int log, int file) {
    std::array<char, 8192> datagram;
    ssize_t size;
    while ((size = recv(log, datagram.data(), datagram.size(), 0)) >= 0) {
        std::string text(datagram.data(), static_cast<size_t>(size));
        while (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
            text.pop_back();
        for (size_t at; (at = text.find('\n')) != std::string::npos;)
            text.replace(at, 1, "#012");
        text += '\n';
        must(write(file, text.data(), text.size()) > 0, "keep the log");
    }
}

static pid_t spawn(char *const *command) {
    pid_t child = fork();
    must(child >= 0, "fork");
    if (child == 0) {
        execvp(command[0], command);
        must(false, "run " + std::string(command[0]));
    }
    return child;
}

static int exit_code(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// The first process inside: collects the log, and the orphans now and then, until the command ends.
// The kernel then ends everything that is left.
[[noreturn]] static void supervise(char *const *command) {
    auto [log, file] = open_log();
    const pid_t main_child = spawn(command);
    const auto end = static_cast<int>(syscall(SYS_pidfd_open, main_child, 0));
    must(end >= 0, "watch the command");
    for (;;) {
        std::array<pollfd, 2> sources{{{log, POLLIN, 0}, {end, POLLIN, 0}}};
        poll(sources.data(), sources.size(), -1);
        keep_log(log, file);
        int status;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;)
            if (ended == main_child)
                _exit(exit_code(status));
    }
}

void must(bool done, const std::string &step) {
    if (done)
        return;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the process ends
    fprintf(stderr, "sandbox: cannot %s: %s\n", step.c_str(), strerror(errno));
    _exit(CANNOT_MAKE);
}

void write_file(const std::string &path, std::string_view text) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    must(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
         "write " + path);
    close(fd);
}

bool inside() {
    return access(STASH, F_OK) == 0;
}

int run(char *const *command) {
    constexpr unsigned long NAMESPACES = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID;
    uid_t uid = geteuid();
    gid_t gid = getegid();
    std::error_code error;
    const fs::path directory = fs::current_path(error);
    fflush(nullptr);
    pid_t child = uid == 0 ? fork_into(NAMESPACES) : -1;
    const bool own_user = child < 0;
    if (own_user)
        child = fork_into(NAMESPACES | CLONE_NEWUSER);
    must(child >= 0, "make namespaces, which root always can and users where the kernel lets them");
    if (child > 0) {
        signal(SIGINT, SIG_IGN); // keys that interrupt are the command's business
        signal(SIGQUIT, SIG_IGN);
        int status;
        return waitpid(child, &status, 0) == child ? exit_code(status) : CANNOT_MAKE;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    umask(022);
    if (own_user)
        become_root(uid, gid);
    // An ordinary user's PATH often lacks the directories of ip. This process has one thread.
    // NOLINTBEGIN(concurrency-mt-unsafe)
    const char *path = getenv("PATH");
    setenv("PATH", (std::string(path ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin").c_str(), 1);
    // NOLINTEND(concurrency-mt-unsafe)
    enter_copy_of_root();
    make_files();
    make_network();
    must(chdir(directory.c_str()) == 0 || chdir(PROJECT_SOURCE_DIR) == 0, "change the directory");
    supervise(command);
}

} // namespace sandbox
