// The worker pool: pause, resume, destruction. That jobs run one at a time and in their order is
// seen in the queries of a flood.
#include "harness.h"
#include "sigmask.h"
#include "thpool.h"

#include <pthread.h>

using harness::eventually;

namespace {

using namespace std::chrono_literals;
using std::this_thread::sleep_for;

std::atomic<int> ran, dropped;
std::atomic<bool> go_on;

void *work(void *) {
    while (!go_on)
        sleep_for(1ms);
    ran++;
    return nullptr;
}

struct Pool : testing::Test {
    thpool *pool = nullptr;

    void start(int workers, int jobs) {
        block_daemon_signals();
        ran = dropped = 0;
        go_on = jobs == 0;
        pool = thpool_init(workers);
        for (int i = 0; i < jobs; i++)
            thpool_add_work(pool, work, nullptr);
    }
    // Adds a job that is held up until the resume.
    void expect_pause() const {
        const int before = ran;
        ASSERT_TRUE(eventually([] { return threads_on_hold == 1; }));
        sleep_for(200ms); // until the signal has reached the worker
        thpool_add_work(pool, work, nullptr);
        sleep_for(300ms);
        EXPECT_EQ(ran, before);
        thpool_resume(pool);
        EXPECT_TRUE(eventually([&] { return ran == before + 1; }));
    }
    void TearDown() override {
        thpool_destroy(pool, [](void *) { dropped++; });
        sigset_t none; // for what later tests start
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
    }
};

// By a signal from outside, or by the pool itself; the end of the pool ends it too.
TEST_F(Pool, APausedWorkerSleepsUntilTheResume) {
    start(1, 0);
    kill(getpid(), SIGUSR1);
    expect_pause();
    thpool_pause(pool);
    expect_pause();
    thpool_pause(pool);
}

TEST_F(Pool, TheFirstWorkerThatCannotStartIsTheLastThatIsTried) {
    pthread_attr_t usual, huge; // stacks
    pthread_getattr_default_np(&usual);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 2);
    pthread_setattr_default_np(&huge);
    testing::internal::CaptureStderr();
    start(300, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "thread_init(): Could not start thread\n");
    pthread_setattr_default_np(&usual);
}

TEST_F(Pool, DestructionWaitsForTheRunningJobsAndDropsTheRest) {
    start(2, 5);
    ASSERT_TRUE(eventually([this] { return thpool_num_threads_working(pool) == 2; }));
    const std::jthread releaser([] {
        sleep_for(1500ms); // beyond the first second of destruction
        go_on = true;
    });
    TearDown();
    pool = nullptr;
    EXPECT_EQ(ran * 10 + dropped, 23);
}

} // namespace
