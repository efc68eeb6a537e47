// The event loop: descriptors, one-shot timers, child processes and the signals that end a program.
// One loop per process; every call must come from one thread. All structures belong to the caller,
// must be zeroed before first use and must not move while registered or pending.
#pragma once

#include "list.h"

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

struct uloop_fd;
struct uloop_timeout;
struct uloop_process;

// `events` is a mask of ULOOP_READ and ULOOP_WRITE, possibly 0 after an error.
typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);
// `ret` is a status as waitpid() gives it.
typedef void (*uloop_process_handler)(struct uloop_process *c, int ret);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3) // leave the descriptor's O_NONBLOCK as it is
#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)
#define ULOOP_EVENT_BUFFERED (1 << 4)
#define ULOOP_ERROR_CB (1 << 6) // keep watching after an error or hang-up

struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;   // the peer closed its sending side
    bool error; // error or full hang-up
    bool registered;
    uint8_t flags;
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb; // may be null
    struct timeval time;      // on the monotonic clock
};

struct uloop_process {
    struct list_head list;
    bool pending;
    uloop_process_handler cb;
    pid_t pid;
};

extern bool uloop_cancelled;
// Whether the loop reaps the process's children, every one of them. Initially true; a program that
// uses system() or waitpid() elsewhere clears it before uloop_init().
extern bool uloop_handle_sigchld;
// Called on every change of a watch, with the new flags (0: removed).
extern uloop_fd_handler uloop_fd_set_cb;

// Creates what the loop needs and takes SIGINT, SIGTERM, SIGCHLD and SIGPIPE where their
// disposition is the default. May be called again. 0, or -1.
int uloop_init(void);
// Gives the signals back (SIGPIPE stays ignored), frees what uloop_init() made and cancels all
// timers and process watches.
void uloop_done(void);

// Runs until uloop_end() or a signal; with timeout >= 0 one round that waits at most that many
// milliseconds. 0, or the number of the signal (SIGINT, SIGTERM) that ended it.
int uloop_run_timeout(int timeout);
static inline int uloop_run(void) {
    return uloop_run_timeout(-1);
}
// Ends the loop after the current callback. Without effect before uloop_run().
static inline void uloop_end(void) {
    uloop_cancelled = true;
}
bool uloop_cancelling(void);

// Starts or changes a watch; with neither ULOOP_READ nor ULOOP_WRITE in the flags ends it. 0, or -1
// with errno.
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
// Safe inside callbacks; also drops events already fetched. 0 (also when not registered), or -1.
int uloop_fd_delete(struct uloop_fd *sock);

// Arms (again) for `msecs` milliseconds from now. 0.
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
// Arms for the absolute `time` already in the structure. 0, or -1 if pending.
int uloop_timeout_add(struct uloop_timeout *timeout);
// 0, or -1 if not pending.
int uloop_timeout_cancel(struct uloop_timeout *timeout);
// Milliseconds left, negative when overdue; -1 also if not pending.
int uloop_timeout_remaining(struct uloop_timeout *timeout) __attribute__((deprecated));
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);
// Milliseconds to the next timer, 0 if overdue, -1 if there is none.
int uloop_get_next_timeout(void);

// 0, or -1 if pending or not pending respectively.
int uloop_process_add(struct uloop_process *p);
int uloop_process_delete(struct uloop_process *p);
