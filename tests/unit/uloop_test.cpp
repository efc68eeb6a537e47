// The event loop: order of timers and events, what callbacks may do, and whose signals are touched.
extern "C" {
#include <libubox/uloop.h>
}
#include "guards.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>

namespace {

std::string trace; // what the callbacks of a test did

class Uloop : public testing::Test {
  protected:
    void SetUp() override {
        sigset_t none; // other tests of the same run may have blocked signals
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, SIG_DFL);
        trace.clear();
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override { uloop_done(); }
};

struct Letter : uloop_timeout {
    char letter;
};

void note_letter(uloop_timeout *timer) {
    EXPECT_FALSE(timer->pending);
    trace += static_cast<Letter *>(timer)->letter;
}

void end_loop(uloop_timeout *) {
    uloop_end();
}

TEST_F(Uloop, RunsTimersInOrderOfExpiry) {
    Letter late{{}, 'd'}, first{{}, 'a'}, second{{}, 'b'}, again{{}, 'c'}, never{{}, 'x'};
    for (Letter *each : {&late, &first, &second, &again, &never})
        each->cb = note_letter;
    again.cb = [](uloop_timeout *timer) {
        note_letter(timer);
        timer->cb = end_loop;
        uloop_timeout_set(timer, 15);
    };
    uloop_timeout_set(&late, 10);
    uloop_timeout_set(&first, 2);
    uloop_timeout_set(&never, 5);
    for (Letter *same : {&second, &again}) { // equal times keep their order
        same->time = first.time;
        EXPECT_EQ(uloop_timeout_add(same), 0);
    }
    EXPECT_EQ(uloop_timeout_add(&second), -1);
    EXPECT_EQ(uloop_timeout_cancel(&never), 0);
    EXPECT_EQ(uloop_timeout_cancel(&never), -1);
    EXPECT_LE(uloop_get_next_timeout(), 2);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "abcd");
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

// One end of a connection, watched; the other end.
struct Watched : uloop_fd {
    UniqueFd end, peer;

    explicit Watched(uloop_fd_handler handler) : uloop_fd{} {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        end = UniqueFd(fd = ends[0]);
        peer = UniqueFd(ends[1]);
        cb = handler;
        EXPECT_EQ(uloop_fd_add(this, ULOOP_READ), 0);
    }
    ~Watched() { uloop_fd_delete(this); }
};

TEST_F(Uloop, CallsOneDescriptorARoundAndDropsEventsOfDeletedOnes) {
    static uloop_fd *deleted;
    const auto note_byte = [](uloop_fd *watch, unsigned int events) {
        char byte = '?';
        EXPECT_EQ(events, static_cast<unsigned>(ULOOP_READ));
        EXPECT_EQ(read(watch->fd, &byte, 1), 1);
        trace += byte;
        uloop_fd_delete(deleted);
    };
    Watched first(note_byte), second(note_byte), third(note_byte);
    deleted = &second;
    const char *byte = "abc";
    for (const Watched *each : {&first, &second, &third})
        EXPECT_EQ(write(each->peer.get(), byte++, 1), 1);
    for (const char *expected : {"a", "a", "ac"}) {
        uloop_run_timeout(0);
        EXPECT_EQ(trace, expected);
    }
    first.cb = [](uloop_fd *watch, unsigned int) {
        trace += watch->error ? 'h' : watch->eof ? 'e' : '?';
        trace += watch->registered ? 'r' : '-';
    };
    shutdown(first.peer.get(), SHUT_WR); // still watched now, no longer after a hang-up
    uloop_run_timeout(0);
    first.peer = UniqueFd();
    for (int round = 0; round < 2; round++)
        uloop_run_timeout(0);
    EXPECT_EQ(trace, "acerh-");
}

sighandler_t disposition(int number) {
    struct sigaction current;
    sigaction(number, nullptr, &current);
    return current.sa_handler;
}

TEST_F(Uloop, EndsOnSignalsWithDefaultDispositionOnly) {
    const sighandler_t own = [](int) { trace += 's'; };
    uloop_timeout timer = {}, last = {};
    timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
    last.cb = end_loop;
    uloop_timeout_set(&timer, 1);
    uloop_end(); // has no effect before the run
    EXPECT_EQ(uloop_run(), SIGTERM);
    uloop_done();
    EXPECT_EQ(disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);

    signal(SIGTERM, own);
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    uloop_handle_sigchld = true;
    signal(SIGINT, own); // set while the loop has the signal: the loop leaves it
    uloop_timeout_set(&timer, 1);
    uloop_timeout_set(&last, 10);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "s");
    uloop_done();
    EXPECT_EQ(disposition(SIGINT), own);
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

} // namespace
