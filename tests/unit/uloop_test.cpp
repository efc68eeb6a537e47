// The event loop: order of timers, and what a callback may delete.
extern "C" {
#include <libubox/uloop.h>
}

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

} // namespace
