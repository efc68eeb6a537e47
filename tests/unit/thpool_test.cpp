// The worker pool: order, pause, resume, destruction.
#include "sigmask.h"
#include "thpool.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

template <typename Condition>
static bool eventually(Condition condition) {
    for (int i = 0; i < 500 && !condition(); i++)
        std::this_thread::sleep_for(10ms);
    return condition();
}

class Pool : public testing::Test {
  protected:
    void SetUp() override { block_daemon_signals(); }
    void TearDown() override { thpool_destroy(pool); }
    thpool *pool = nullptr;
};

static std::vector<long> ran; // written by one worker at a time, read after thpool_wait()
static std::atomic<int> count;
static std::atomic<bool> go_on;

static void *note(void *arg) {
    ran.push_back(reinterpret_cast<long>(arg));
    return nullptr;
}
static void *add_one(void *) {
    count++;
    return nullptr;
}
static void *block(void *) {
    while (!go_on)
        std::this_thread::sleep_for(1ms);
    count++;
    return nullptr;
}

TEST_F(Pool, OneWorkerRunsJobsInQueueOrder) {
    ran.clear();
    pool = thpool_init(1);
    for (long i = 0; i < 1000; i++)
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the job is its number
        ASSERT_EQ(thpool_add_work(pool, note, reinterpret_cast<void *>(i)), 0);
    thpool_wait(pool);
    ASSERT_EQ(ran.size(), 1000u);
    for (long i = 0; i < 1000; i++)
        EXPECT_EQ(ran[static_cast<size_t>(i)], i);
    EXPECT_EQ(thpool_num_threads_working(pool), 0);
}

TEST_F(Pool, CountsBusyWorkersAndWaitingJobs) {
    count = 0;
    go_on = false;
    pool = thpool_init(2);
    for (int i = 0; i < 2000; i++)
        thpool_add_work(pool, block, nullptr);
    EXPECT_TRUE(eventually([&] {
        return thpool_num_threads_working(pool) == 2 && thpool_jobqueue_length(pool) == 1998;
    }));
    go_on = true;
    thpool_wait(pool);
    EXPECT_EQ(count, 2000);
    EXPECT_EQ(thpool_jobqueue_length(pool), 0);
}

TEST_F(Pool, PausedWorkersSleepUntilResumed) {
    count = 0;
    pool = thpool_init(3);
    std::this_thread::sleep_for(200ms); // until all of them wait for a job
    thpool_pause(pool);
    ASSERT_TRUE(eventually([] { return threads_on_hold == 1; }));
    std::this_thread::sleep_for(200ms); // until the signal has reached all of them
    for (int i = 0; i < 10; i++)
        thpool_add_work(pool, add_one, nullptr);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(count, 0);
    thpool_resume(pool);
    EXPECT_TRUE(eventually([] { return count == 10; }));
    thpool_pause(pool);
    ASSERT_TRUE(eventually([] { return threads_on_hold == 1; }));
    // Held workers do not keep the pool from ending with the test.
}

TEST_F(Pool, DestructionWaitsForTheRunningJobAndDropsTheRest) {
    static std::atomic<int> dropped;
    count = dropped = 0;
    go_on = false;
    pool = thpool_init(1);
    for (int i = 0; i < 4; i++)
        thpool_add_work(pool, block, nullptr);
    ASSERT_TRUE(eventually([&] { return thpool_num_threads_working(pool) == 1; }));
    std::thread releaser([] {
        std::this_thread::sleep_for(1500ms); // beyond the first second of destruction
        go_on = true;
    });
    thpool_destroy(pool, [](void *) { dropped++; });
    pool = nullptr;
    EXPECT_EQ(count, 1);
    EXPECT_EQ(dropped, 3);
    releaser.join();
}
