// The event loop: order of timers, what a callback may delete, and whose signals are touched.
extern "C" {
#include <libubox/uloop.h>
}

#include <csignal>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace {

TEST(Uloop, RunsTimersInOrderOfExpiry) {
    static std::vector<const uloop_timeout *> ran;
    uloop_timeout late = {}, first = {}, second = {};
    late.cb = first.cb = second.cb = [](uloop_timeout *timer) {
        ran.push_back(timer);
        if (ran.size() == 3)
            uloop_end();
    };
    ran.clear();
    ASSERT_EQ(uloop_init(), 0);
    uloop_timeout_set(&late, 10);
    uloop_timeout_set(&first, 2);
    second.time = first.time; // equal times keep their order
    uloop_timeout_add(&second);
    uloop_run();
    EXPECT_EQ(ran, (std::vector<const uloop_timeout *>{&first, &second, &late}));
    uloop_done();
}

TEST(Uloop, DropsEventsOfDeletedDescriptors) {
    static uloop_fd both[2];
    static int calls;
    calls = 0;
    ASSERT_EQ(uloop_init(), 0);
    for (uloop_fd &each : both) {
        each.fd = eventfd(1, EFD_CLOEXEC);
        each.cb = [](uloop_fd *, unsigned int) {
            calls++;
            for (uloop_fd &one : both)
                uloop_fd_delete(&one);
        };
        EXPECT_EQ(uloop_fd_add(&each, ULOOP_READ), 0);
    }
    for (int round = 0; round < 2; round++)
        uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
    uloop_done();
    for (const uloop_fd &each : both)
        close(each.fd);
}

int met; // by the program's own handler

sighandler_t disposition(int number) {
    struct sigaction current;
    sigaction(number, nullptr, &current);
    return current.sa_handler;
}

TEST(Uloop, EndsOnSignalsWithDefaultDispositionOnly) {
    const sighandler_t own = [](int number) { met = number; };
    uloop_timeout timer = {}, last = {};
    timer.cb = [](uloop_timeout *) { raise(SIGTERM); };
    last.cb = [](uloop_timeout *) { uloop_end(); };
    sigset_t none; // other tests of the same run may have blocked signals
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
        signal(number, SIG_DFL);

    ASSERT_EQ(uloop_init(), 0);
    uloop_timeout_set(&timer, 1);
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
    EXPECT_EQ(met, SIGTERM);
    uloop_done();
    EXPECT_EQ(disposition(SIGINT), own);
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

} // namespace
