// Whose signals the event loop touches: those of the program it runs in stay the program's own.
extern "C" {
#include <libubox/uloop.h>
}

#include <csignal>
#include <gtest/gtest.h>

namespace {

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
