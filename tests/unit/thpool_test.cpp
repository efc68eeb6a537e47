// The worker pool: pause, resume, destruction.
#include "harness.h"
#include "sigmask.h"
#include "thpool.h"

#include <pthread.h>

using harness::eventually;

namespace {

using namespace std::chrono_literals;
using std::this_thread::sleep_for;

std::atomic<int> ran;
std::atomic<bool> go_on;

void *work(void *) {
    while (!go_on)
        sleep_for(1ms);
    ran++;
    return nullptr;
}

struct Pool : testing::Test {
    thpool *pool = nullptr;

    void start(int workers, bool at_once) {
        block_daemon_signals();
        ran = 0;
        go_on = at_once;
        pool = thpool_init(workers);
    }
    void add(int jobs) const {
        for (int i = 0; i < jobs; i++)
            ASSERT_EQ(thpool_add_work(pool, work, nullptr), 0);
    }
    void TearDown() override {
        thpool_destroy(pool);
        sigset_t none; // for what later tests start
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
    }
};

TEST_F(Pool, RunsOneJobAtATimeInTheirOrder) {
    static std::atomic<int> at_once, most;
    static std::vector<void *> order;
    const auto note = [](void *job) {
        most = std::max(most.load(), ++at_once);
        order.push_back(job);
        sleep_for(1ms);
        at_once--;
        return job;
    };
    std::vector<char> jobs(50);
    start(3, false);
    thpool_run_in_turn(pool);
    EXPECT_TRUE(thpool_is_idle(pool));
    add(1);
    for (char &job : jobs)
        ASSERT_EQ(thpool_add_work(pool, note, &job), 0);
    EXPECT_FALSE(thpool_is_idle(pool));
    EXPECT_EQ(thpool_num_threads_working(pool), 3);
    // A worker that woke for nothing counts as busy until it sleeps again.
    EXPECT_TRUE(eventually([this] { return thpool_jobqueue_length(pool) == 48; }));
    go_on = true;
    thpool_wait(pool);
    EXPECT_EQ(most, 1);
    EXPECT_EQ(order.size(), jobs.size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_TRUE(thpool_is_idle(pool));
}

TEST_F(Pool, PausedWorkersSleepUntilResumed) {
    const auto pause = [this] {
        sleep_for(200ms); // until all of them wait for a job
        thpool_pause(pool);
        ASSERT_TRUE(eventually([] { return threads_on_hold == 1; }));
        sleep_for(200ms); // until the signal has reached all of them
    };
    start(3, true);
    pause();
    add(10);
    sleep_for(300ms);
    EXPECT_EQ(ran, 0);
    thpool_resume(pool);
    EXPECT_TRUE(eventually([] { return ran == 10; }));
    pause(); // held workers do not keep the pool from ending with the test
}

TEST_F(Pool, AResumeCountsForPausesThatArriveLater) {
    static std::atomic<bool> deaf;
    const auto late = [](void *) {
        block_daemon_signals();
        deaf = true;
        work(nullptr);
        open_pause_signal();
        return static_cast<void *>(nullptr);
    };
    deaf = false;
    start(1, false);
    ASSERT_EQ(thpool_add_work(pool, late, nullptr), 0);
    ASSERT_TRUE(eventually([] { return deaf.load(); }));
    thpool_pause(pool);
    thpool_resume(pool);
    go_on = true;
    add(1);
    EXPECT_TRUE(eventually([] { return ran == 2; }));
    kill(getpid(), SIGUSR1); // from outside it holds without a pause before it
    ASSERT_TRUE(eventually([] { return threads_on_hold == 1; }));
    add(1);
    sleep_for(300ms);
    EXPECT_EQ(ran, 2);
    thpool_resume(pool);
    EXPECT_TRUE(eventually([] { return ran == 3; }));
}

TEST_F(Pool, TheFirstWorkerThatCannotStartIsTheLastThatIsTried) {
    pthread_attr_t usual, huge; // stacks
    pthread_getattr_default_np(&usual);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 2);
    pthread_setattr_default_np(&huge);
    testing::internal::CaptureStderr();
    start(300, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "thread_init(): Could not start thread\n");
    pthread_setattr_default_np(&usual);
    EXPECT_EQ(pool->alive_count, 0);
}

TEST_F(Pool, DestructionWaitsForTheRunningJobsAndDropsTheRest) {
    static std::atomic<int> dropped;
    dropped = 0;
    start(2, false);
    add(5);
    ASSERT_TRUE(eventually([this] { return thpool_num_threads_working(pool) == 2; }));
    const std::jthread releaser([] {
        sleep_for(1500ms); // beyond the first second of destruction
        go_on = true;
    });
    thpool_destroy(std::exchange(pool, nullptr), [](void *) { dropped++; });
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(dropped, 3);
}

} // namespace
