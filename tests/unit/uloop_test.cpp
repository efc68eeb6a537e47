// The event loop: order of timers and events, what callbacks may do, and whose signals are touched.
extern "C" {
#include <libubox/uloop.h>
}

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string trace; // what the callbacks of a test did

class Uloop : public testing::Test {
  protected:
    void SetUp() override {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            signal(number, SIG_DFL);
        trace.clear();
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override { uloop_done(); }
};

struct Letter {
    uloop_timeout timer;
    char letter;
};

void note_letter(uloop_timeout *timer) {
    trace += container_of(timer, Letter, timer)->letter;
}

void end_loop(uloop_timeout *) {
    uloop_end();
}

sighandler_t disposition(int number) {
    struct sigaction current;
    sigaction(number, nullptr, &current);
    return current.sa_handler;
}

} // namespace

TEST_F(Uloop, RunsTimersInOrderOfExpiry) {
    Letter late{{}, 'd'}, first{{}, 'a'}, second{{}, 'b'}, again{{}, 'c'}, never{{}, 'x'};
    for (Letter *each : {&late, &first, &second, &again, &never})
        each->timer.cb = note_letter;
    again.timer.cb = [](uloop_timeout *timer) {
        EXPECT_FALSE(timer->pending);
        note_letter(timer);
        timer->cb = [](uloop_timeout *last) {
            note_letter(last);
            uloop_end();
        };
        uloop_timeout_set(timer, 15);
    };
    uloop_timeout_set(&late.timer, 10);
    uloop_timeout_set(&first.timer, 2);
    uloop_timeout_set(&never.timer, 5);
    for (Letter *same : {&second, &again}) { // equal times keep their order
        same->timer.time = first.timer.time;
        EXPECT_EQ(uloop_timeout_add(&same->timer), 0);
    }
    EXPECT_EQ(uloop_timeout_add(&second.timer), -1);
    EXPECT_EQ(uloop_timeout_cancel(&never.timer), 0);
    EXPECT_EQ(uloop_timeout_cancel(&never.timer), -1);
    EXPECT_LE(uloop_get_next_timeout(), 2);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "abcdc");
    EXPECT_EQ(uloop_get_next_timeout(), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&late.timer), -1);
}

TEST_F(Uloop, CallsOneDescriptorARoundAndDropsEventsOfDeletedOnes) {
    static uloop_fd watches[3];
    int peers[3];
    for (int i = 0; i < 3; i++) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        watches[i] = {};
        watches[i].fd = pair[0];
        peers[i] = pair[1];
        watches[i].cb = [](uloop_fd *watch, unsigned int events) {
            char byte;
            EXPECT_EQ(events, static_cast<unsigned>(ULOOP_READ));
            EXPECT_EQ(read(watch->fd, &byte, 1), 1);
            trace += byte;
            uloop_fd_delete(&watches[1]);
        };
        EXPECT_EQ(uloop_fd_add(&watches[i], ULOOP_READ), 0);
        EXPECT_EQ(write(peers[i], &"abc"[i], 1), 1);
    }
    uloop_run_timeout(0);
    EXPECT_EQ(trace, "a");
    for (int round = 0; round < 3; round++)
        uloop_run_timeout(0);
    EXPECT_EQ(trace, "ac");

    watches[0].cb = [](uloop_fd *watch, unsigned int) {
        trace += watch->error ? 'h' : watch->eof ? 'e' : '?';
        trace += watch->registered ? 'r' : '-';
    };
    shutdown(peers[0], SHUT_WR); // still watched after a half-close, no longer after a hang-up
    uloop_run_timeout(0);
    close(peers[0]);
    for (int round = 0; round < 3; round++)
        uloop_run_timeout(0);
    EXPECT_EQ(trace, "acerh-");
    uloop_fd_delete(&watches[2]);
    for (int i = 0; i < 3; i++)
        close(watches[i].fd);
    close(peers[1]);
    close(peers[2]);
}

TEST_F(Uloop, EndsOnSignalsWithDefaultDispositionOnly) {
    const sighandler_t own = [](int) { trace += 's'; };
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    uloop_timeout timer = {};
    timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
    uloop_timeout_set(&timer, 1);
    uloop_end(); // has no effect before the run
    EXPECT_EQ(uloop_run(), SIGTERM);
    uloop_done();
    EXPECT_EQ(disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);

    signal(SIGTERM, own);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGTERM), own);
    signal(SIGINT, own); // set while the loop has the signal: the loop leaves it
    uloop_timeout last = {};
    last.cb = end_loop;
    uloop_timeout_set(&timer, 1);
    uloop_timeout_set(&last, 10);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "s");
    uloop_done();
    EXPECT_EQ(disposition(SIGINT), own);
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

TEST_F(Uloop, ReapsChildrenUnlessToldNotTo) {
    uloop_process process = {};
    process.cb = [](uloop_process *ended, int status) {
        EXPECT_FALSE(ended->pending);
        trace += static_cast<char>('0' + WEXITSTATUS(status));
        uloop_end();
    };
    process.pid = fork();
    if (process.pid == 0)
        _exit(7);
    EXPECT_EQ(uloop_process_add(&process), 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(trace, "7");
    uloop_done();
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    uloop_handle_sigchld = false;
    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    uloop_handle_sigchld = true;
}
