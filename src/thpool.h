// A fixed-size pool of detached worker threads that run queued jobs in the order of their arrival.
//
// The server makes one pool at start and queues a job for every datagram that it does not answer at
// once. SIGUSR1 pauses a worker: it sleeps wherever the signal caught it, in the middle of a job
// included, until it sees a flag cleared. A SIGUSR1 from outside thus holds one worker until a
// resume or the end of the pool, and with it the whole service if that worker was in the middle of
// a request.
// All messages go to standard error, not to the log.
//
// Ownership: the pool owns its threads, its queue and the job records. It never frees a job's
// argument: the job function does, and the arguments of jobs that never ran are lost unless their
// owner keeps track of them.
#pragma once

#include <atomic>
#include <pthread.h>
#include <semaphore.h>

// Process-wide, shared by all pools: 1 while workers must keep running, and 1 while paused workers
// must sleep.
extern std::atomic<int> threads_keepalive;
extern std::atomic<int> threads_on_hold;

// A semaphore whose value is 0 or 1: several posts collapse into one. Posting never waits for a
// worker that a pause signal holds in its wait, as signalling a condition variable may.
struct bsem {
    sem_t semaphore;
};

struct job {
    job *next_job; // the job queued after this one
    void *(*function)(void *arg);
    void *arg;
};

struct jobqueue {
    pthread_mutex_t queue_lock;
    job *head;
    job *tail;
    bsem *jobs_available;
    std::atomic<int> len;      // written under queue_lock, read anywhere
    std::atomic<bool> in_turn; // likewise; see thpool_run_in_turn()
    bool turn_taken;           // its holder runs a job and will see to the next one
};

struct thpool;

struct thread {
    int id; // from 0
    pthread_t handle;
    thpool *pool;
};

struct thpool {
    struct thread **threads;
    std::atomic<int> alive_count; // both counts are written under count_lock, read anywhere
    std::atomic<int> working_count;
    pthread_mutex_t count_lock;
    pthread_cond_t all_idle;
    struct jobqueue jobqueue;
};

// Starts `num_threads` workers (a negative count is 0) and returns when all of them run; null when
// memory ran out. At the first worker that cannot be started it says so and tries no other: the
// pool then has those before it, perhaps none. Workers inherit the caller's signal mask and open
// SIGUSR1.
thpool *thpool_init(int num_threads);

// From now on jobs run one at a time, in the order of their arrival, however many workers there
// are: for jobs that would only wait for each other, where every worker that is woken early costs
// two switches of context. The counts at the end of this file tell what they would otherwise. To be
// called before the first job.
void thpool_run_in_turn(thpool *pool);

// Whether no job runs or waits, and there are workers, none of them held. It stays so until the
// next job is queued: who alone queues jobs may do one itself, without the switches of context that
// a worker costs. Any thread.
bool thpool_is_idle(const thpool *pool);

// Queues function(arg). Returns 0, or -1 when there is no pool or no memory for the job. Any
// thread.
int thpool_add_work(thpool *pool, void *(*function)(void *), void *arg);

// Blocks until the queue is empty and no worker is busy. Not from a worker.
void thpool_wait(thpool *pool);

// Sends the pause signal to every worker and returns at once; a worker may still be on its way.
// A worker that the signal reaches behind a resume is not held.
void thpool_pause(thpool *pool);

// Lets held workers, of every pool, go on within a second, and those whose pause signal is still on
// its way too. The argument is not used.
void thpool_resume(thpool *pool);

// Stops the workers, each after the job it runs, and frees the pool. Jobs still queued are freed
// unrun; `drop`, if given, receives the argument of each. Held workers are released, or a stray
// pause signal could keep the process from ending. Not from a worker.
void thpool_destroy(thpool *pool, void (*drop)(void *arg) = nullptr);

// Busy workers and waiting jobs at this moment; both 0 without a pool. A job that waits for its
// turn counts as held by a worker as long as there are workers. Any thread.
int thpool_num_threads_working(thpool *pool);
int thpool_jobqueue_length(thpool *pool);
