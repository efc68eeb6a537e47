extern "C" {
#include <libubox/uloop.h>
}

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
uloop_fd_handler uloop_fd_set_cb = nullptr;

static constexpr int MAX_FETCHED = 10;

static int poll_fd = -1;
static int runs; // nested calls of uloop_run_timeout()

// Events of one wait that have not been handled yet; data.ptr is null for a deleted descriptor.
static epoll_event fetched[MAX_FETCHED];
static int fetched_count;
static int next_fetched;

static list_head timers = LIST_HEAD_INIT(timers); // in order of expiry
static list_head processes = LIST_HEAD_INIT(processes);

// What signal handlers touch.
static std::atomic<int> end_signal;
static std::atomic<bool> child_ended;
static std::atomic<int> wake_writer{-1};

static bool is_cancelled() {
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_RELAXED);
}

// --- waking the loop from a signal handler, which may run on any thread --------------------------

static void drain_wake_pipe(uloop_fd *watch, unsigned int) {
    char bytes[16];
    while (read(watch->fd, bytes, sizeof(bytes)) > 0)
        ;
}

static uloop_fd wake_reader = {drain_wake_pipe, -1, false, false, false, 0};

static void wake() {
    const int saved = errno;
    // A full pipe wakes the loop as well.
    [[maybe_unused]] const ssize_t written = write(wake_writer, "w", 1);
    errno = saved;
}

static bool make_wake_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    wake_reader.fd = ends[0];
    wake_writer = ends[1];
    return uloop_fd_add(&wake_reader, ULOOP_READ | ULOOP_BLOCKING) == 0;
}

static void close_wake_pipe() {
    uloop_fd_delete(&wake_reader);
    close(wake_reader.fd);
    close(wake_writer.exchange(-1));
    wake_reader.fd = -1;
}

// --- signals -------------------------------------------------------------------------------------

static void on_end_signal(int number) {
    end_signal = number;
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELAXED);
    wake();
}

static void on_child_signal(int) {
    child_ended = true;
    wake();
}

namespace {

struct TakenSignal {
    int number;
    void (*handler)(int);
    struct sigaction previous;
};

} // namespace

static TakenSignal signals[] = {
    {SIGINT, on_end_signal, {}}, {SIGTERM, on_end_signal, {}}, {SIGCHLD, on_child_signal, {}}};

static bool is_managed(const TakenSignal &signal) {
    return signal.number != SIGCHLD || uloop_handle_sigchld;
}

// A disposition that is not the default belongs to the program and stays.
static void take_signals() {
    struct sigaction current;
    for (TakenSignal &signal : signals) {
        if (!is_managed(signal) || sigaction(signal.number, nullptr, &current) != 0 ||
            current.sa_handler != SIG_DFL)
            continue;
        struct sigaction own = {};
        own.sa_handler = signal.handler;
        sigemptyset(&own.sa_mask);
        signal.previous = current;
        sigaction(signal.number, &own, nullptr);
    }
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        signal(SIGPIPE, SIG_IGN);
}

static void give_back_signals() {
    struct sigaction current;
    for (TakenSignal &signal : signals)
        if (is_managed(signal) && sigaction(signal.number, nullptr, &current) == 0 &&
            current.sa_handler == signal.handler)
            sigaction(signal.number, &signal.previous, nullptr);
}

// --- timers --------------------------------------------------------------------------------------

static timeval now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return {time.tv_sec, static_cast<suseconds_t>(time.tv_nsec / 1000)};
}

// Truncated: a timer that is due within a millisecond is due.
static int64_t milliseconds_between(const timeval &from, const timeval &to) {
    return (int64_t{to.tv_sec} - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000;
}

static void run_due_timers() {
    const timeval start = now();
    while (!list_empty(&timers)) {
        uloop_timeout *timer = list_first_entry(&timers, uloop_timeout, list);
        if (milliseconds_between(start, timer->time) > 0)
            break;
        uloop_timeout_cancel(timer);
        if (timer->cb)
            timer->cb(timer); // may have freed the timer
    }
}

// --- children ------------------------------------------------------------------------------------

static uloop_process *find_process(pid_t pid) {
    uloop_process *process;
    list_for_each_entry(process, &processes, list) {
        if (process->pid == pid)
            return process;
    }
    return nullptr;
}

static void reap_children() {
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        uloop_process *process = find_process(pid);
        if (!process)
            continue;
        uloop_process_delete(process);
        if (process->cb)
            process->cb(process, status);
    }
}

// --- descriptors ---------------------------------------------------------------------------------

static bool fetch_events(int timeout) {
    next_fetched = 0;
    fetched_count = std::max(0, epoll_wait(poll_fd, fetched, MAX_FETCHED, timeout));
    return fetched_count > 0;
}

static void handle_event(uloop_fd *watch, uint32_t events) {
    const unsigned int mask =
        (events & EPOLLIN ? ULOOP_READ : 0u) | (events & EPOLLOUT ? ULOOP_WRITE : 0u);
    if (events & EPOLLRDHUP)
        watch->eof = true;
    if (events & (EPOLLERR | EPOLLHUP)) {
        watch->error = true;
        if (!(watch->flags & ULOOP_ERROR_CB))
            uloop_fd_delete(watch);
    }
    if (watch->cb)
        watch->cb(watch, mask); // may have freed the watch
}

// Handles one event, waiting at most `timeout` milliseconds (< 0: for ever) if none is left over.
static void run_one_event(int timeout) {
    if (next_fetched >= fetched_count && !fetch_events(timeout))
        return;
    const epoll_event &event = fetched[next_fetched++];
    if (event.data.ptr)
        handle_event(static_cast<uloop_fd *>(event.data.ptr), event.events);
}

int uloop_init() {
    if (poll_fd < 0)
        poll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (poll_fd < 0)
        return -1;
    if (wake_reader.fd < 0 && !make_wake_pipe()) {
        uloop_done();
        return -1;
    }
    take_signals();
    return 0;
}

void uloop_done() {
    give_back_signals();
    if (wake_reader.fd >= 0)
        close_wake_pipe();
    if (poll_fd >= 0)
        close(poll_fd);
    poll_fd = -1;
    next_fetched = fetched_count = 0;
    while (!list_empty(&timers))
        uloop_timeout_cancel(list_first_entry(&timers, uloop_timeout, list));
    while (!list_empty(&processes))
        uloop_process_delete(list_first_entry(&processes, uloop_process, list));
}

int uloop_run_timeout(int timeout) {
    runs++;
    end_signal = 0;
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_RELAXED);
    do {
        run_due_timers();
        if (child_ended.exchange(false))
            reap_children();
        if (is_cancelled() || poll_fd < 0)
            break;
        int wait = uloop_get_next_timeout();
        if (timeout >= 0 && (wait < 0 || timeout < wait))
            wait = timeout;
        run_one_event(wait);
    } while (!is_cancelled() && timeout < 0);
    runs--;
    return end_signal;
}

bool uloop_cancelling() {
    return runs > 0 && is_cancelled();
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags) {
    if (!(flags & ULOOP_EVENT_MASK))
        return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING))
        fcntl(sock->fd, F_SETFL, fcntl(sock->fd, F_GETFL) | O_NONBLOCK);
    epoll_event event = {};
    event.events = (flags & ULOOP_READ ? EPOLLIN | EPOLLRDHUP : 0u) |
                   (flags & ULOOP_WRITE ? EPOLLOUT : 0u) |
                   (flags & ULOOP_EDGE_TRIGGER ? static_cast<uint32_t>(EPOLLET) : 0u);
    event.data.ptr = sock;
    if (epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) != 0)
        return -1;
    if (uloop_fd_set_cb)
        uloop_fd_set_cb(sock, flags);
    sock->flags = static_cast<uint8_t>(flags);
    sock->registered = true;
    sock->eof = sock->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd *sock) {
    for (int i = next_fetched; i < fetched_count; i++)
        if (fetched[i].data.ptr == sock)
            fetched[i].data.ptr = nullptr;
    if (!sock->registered)
        return 0;
    if (uloop_fd_set_cb)
        uloop_fd_set_cb(sock, 0);
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_add(uloop_timeout *timeout) {
    if (timeout->pending)
        return -1;
    list_head *at = &timers; // behind the last one that is not later
    while (at->prev != &timers) {
        const uloop_timeout *other = container_of(at->prev, uloop_timeout, list);
        if (!timercmp(&other->time, &timeout->time, >))
            break;
        at = at->prev;
    }
    list_add_tail(&timeout->list, at);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs) {
    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    timeout->time = now();
    timeout->time.tv_sec += msecs / 1000;
    timeout->time.tv_usec += suseconds_t{msecs % 1000} * 1000;
    if (timeout->time.tv_usec >= 1000000) {
        timeout->time.tv_sec++;
        timeout->time.tv_usec -= 1000000;
    } else if (timeout->time.tv_usec < 0) {
        timeout->time.tv_sec--;
        timeout->time.tv_usec += 1000000;
    }
    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(uloop_timeout *timeout) {
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(uloop_timeout *timeout) {
    return timeout->pending ? milliseconds_between(now(), timeout->time) : -1;
}

int uloop_timeout_remaining(uloop_timeout *timeout) {
    return static_cast<int>(
        std::clamp<int64_t>(uloop_timeout_remaining64(timeout), INT_MIN, INT_MAX));
}

int uloop_get_next_timeout() {
    if (list_empty(&timers))
        return -1;
    return static_cast<int>(std::clamp<int64_t>(
        uloop_timeout_remaining64(list_first_entry(&timers, uloop_timeout, list)), 0, INT_MAX));
}

int uloop_process_add(uloop_process *p) {
    if (p->pending)
        return -1;
    list_add_tail(&p->list, &processes);
    p->pending = true;
    return 0;
}

int uloop_process_delete(uloop_process *p) {
    if (!p->pending)
        return -1;
    list_del(&p->list);
    p->pending = false;
    return 0;
}
