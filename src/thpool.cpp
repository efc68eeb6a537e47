#include "thpool.h"

#include "guards.h"
#include "sigmask.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/prctl.h>

std::atomic<int> threads_keepalive;
std::atomic<int> threads_on_hold;

template <typename Record>
static Record *allocate(size_t count = 1) {
    return static_cast<Record *>(
        calloc(count, sizeof(Record))); // NOLINT(bugprone-sizeof-expression): of pointers too
}

// --- binary semaphore ----------------------------------------------------------------------------

static void bsem_init(bsem *s, int value) {
    if (value < 0 || value > 1) {
        fputs("bsem_init(): Binary semaphore can take only values 1 or 0", stderr);
        exit(EXIT_FAILURE);
    }
    sem_init(&s->semaphore, 0, static_cast<unsigned>(value));
}

static void bsem_destroy(bsem *s) {
    sem_destroy(&s->semaphore);
}

// Two posts at once may both count. A worker that then finds no job waits again.
static void bsem_post(bsem *s) {
    int value = 0;
    sem_getvalue(&s->semaphore, &value);
    if (value < 1)
        sem_post(&s->semaphore);
}

static void bsem_post_all(bsem *s, int waiters) {
    while (waiters-- > 0)
        sem_post(&s->semaphore);
}

static void bsem_wait(bsem *s) {
    // Under load the next post is a moment away: whoever makes it gets the processor now, and both
    // are spared a sleep and a wake-up.
    sched_yield();
    while (sem_wait(&s->semaphore) != 0) // a pause signal interrupts the wait
        continue;
}

// --- job queue -----------------------------------------------------------------------------------

static int jobqueue_init(jobqueue *queue) {
    queue->len = 0;
    queue->head = queue->tail = nullptr;
    queue->in_turn = queue->turn_taken = false;
    queue->jobs_available = allocate<bsem>();
    if (!queue->jobs_available)
        return -1;
    pthread_mutex_init(&queue->queue_lock, nullptr);
    bsem_init(queue->jobs_available, 0);
    return 0;
}

static void jobqueue_push(jobqueue *queue, job *added) {
    const MutexGuard guard(queue->queue_lock);
    added->next_job = nullptr;
    if (queue->len == 0)
        queue->head = added;
    else
        queue->tail->next_job = added;
    queue->tail = added;
    queue->len++;
    if (!queue->turn_taken)
        bsem_post(queue->jobs_available);
}

// The oldest job, null when there is none or another worker has the turn; `again` when the caller
// has it. Without turns it posts when more are waiting, so that wake-ups chain from worker to
// worker.
static job *jobqueue_pull(jobqueue *queue, bool again) {
    const MutexGuard guard(queue->queue_lock);
    if (queue->turn_taken && !again)
        return nullptr;
    job *taken = queue->head;
    queue->turn_taken = queue->in_turn && taken;
    if (!taken)
        return nullptr;
    queue->head = taken->next_job;
    if (!queue->head)
        queue->tail = nullptr;
    if (--queue->len > 0 && !queue->in_turn)
        bsem_post(queue->jobs_available);
    return taken;
}

static void jobqueue_clear(jobqueue *queue, void (*drop)(void *)) {
    while (job *left = jobqueue_pull(queue, true)) {
        if (drop)
            drop(left->arg);
        free(left);
    }
}

static void jobqueue_destroy(jobqueue *queue, void (*drop)(void *)) {
    jobqueue_clear(queue, drop);
    bsem_destroy(queue->jobs_available);
    free(queue->jobs_available);
    pthread_mutex_destroy(&queue->queue_lock);
}

// --- workers -------------------------------------------------------------------------------------

// The pause signal's handler: the worker sleeps here, wherever it was. thpool_pause() sets the flag
// itself, before it sends, so that its signals hold nobody whom they reach behind the resume; a
// signal from outside sets it here. The end of the pool ends the hold, also one that begins late.
static void thread_hold(int, siginfo_t *info, void *) {
    const int saved = errno;
    const bool is_from_pause = info->si_code == SI_TKILL && info->si_pid == getpid();
    if (!is_from_pause)
        threads_on_hold = 1;
    while (threads_on_hold && threads_keepalive)
        sleep(1);
    errno = saved;
}

static void install_thread_hold() {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = thread_hold;
    action.sa_flags = SA_SIGINFO;
    if (sigaction(SIGUSR1, &action, nullptr) != 0)
        fputs("thread_do(): cannot handle SIGUSR1", stderr);
}

static void count_working(thpool *pool, int change) {
    const MutexGuard guard(pool->count_lock);
    pool->working_count += change;
    if (pool->working_count == 0)
        pthread_cond_signal(&pool->all_idle);
}

// Runs the next job, and with turns all that follow.
static void run_jobs(thpool *pool) {
    count_working(pool, +1);
    bool again = false;
    do {
        job *taken = jobqueue_pull(&pool->jobqueue, again);
        if (!taken)
            break;
        taken->function(taken->arg);
        free(taken);
        again = pool->jobqueue.in_turn;
    } while (again && threads_keepalive);
    count_working(pool, -1);
}

static void *thread_do(void *record) {
    const auto *self = static_cast<struct thread *>(record);
    thpool *pool = self->pool;
    char name[128] = "";
    snprintf(name, sizeof name, "thread-pool-%d", self->id);
    prctl(PR_SET_NAME, name);
    install_thread_hold();
    {
        const MutexGuard guard(pool->count_lock);
        pool->alive_count++;
    }
    open_pause_signal(); // only now: a worker held before it is counted would hold up the start
    while (threads_keepalive) {
        bsem_wait(pool->jobqueue.jobs_available);
        if (threads_keepalive)
            run_jobs(pool);
    }
    block_daemon_signals(); // a pause signal must not catch a worker that is gone from the pool
    const MutexGuard guard(pool->count_lock);
    pool->alive_count--;
    pthread_cond_signal(&pool->all_idle); // for the end of the pool
    return nullptr;
}

// Starts worker `id`. Returns 0, or -1 when there was no memory or no thread for it.
static int thread_init(thpool *pool, struct thread **slot, int id) {
    *slot = allocate<struct thread>();
    if (!*slot) {
        fputs("thread_init(): Could not allocate memory for thread\n", stderr);
        return -1;
    }
    (*slot)->pool = pool;
    (*slot)->id = id;
    if (pthread_create(&(*slot)->handle, nullptr, thread_do, *slot) != 0) {
        fputs("thread_init(): Could not start thread\n", stderr);
        free(*slot);
        return -1;
    }
    pthread_detach((*slot)->handle);
    return 0;
}

// --- the pool ------------------------------------------------------------------------------------

// Every job that has not ended; in turn, all but the first of them could as well be waiting in a
// worker each.
static int jobs_of(const thpool *pool) {
    return pool->working_count + pool->jobqueue.len;
}

thpool *thpool_init(int num_threads) {
    threads_on_hold = 0;
    threads_keepalive = 1;
    if (num_threads < 0)
        num_threads = 0;
    auto *pool = allocate<thpool>();
    if (!pool) {
        fputs("thpool_init(): Could not allocate memory for thread pool\n", stderr);
        return nullptr;
    }
    if (jobqueue_init(&pool->jobqueue) != 0) {
        fputs("thpool_init(): Could not allocate memory for job queue\n", stderr);
        free(pool);
        return nullptr;
    }
    pool->threads = allocate<struct thread *>(num_threads > 0 ? num_threads : 1);
    if (!pool->threads) {
        fputs("thpool_init(): Could not allocate memory for threads\n", stderr);
        jobqueue_destroy(&pool->jobqueue, nullptr);
        free(pool);
        return nullptr;
    }
    pthread_mutex_init(&pool->count_lock, nullptr);
    pthread_cond_init(&pool->all_idle, nullptr);
    int started = 0;
    while (started < num_threads && thread_init(pool, &pool->threads[started], started) == 0)
        started++;
    while (pool->alive_count != started)
        sched_yield();
    return pool;
}

void thpool_run_in_turn(thpool *pool) {
    if (pool)
        pool->jobqueue.in_turn = true;
}

bool thpool_is_idle(const thpool *pool) {
    return pool && pool->alive_count > 0 && !threads_on_hold && jobs_of(pool) == 0;
}

int thpool_add_work(thpool *pool, void *(*function)(void *), void *arg) {
    if (!pool)
        return -1;
    auto *added = allocate<job>();
    if (!added) {
        fputs("thpool_add_work(): Could not allocate memory for new job\n", stderr);
        return -1;
    }
    added->function = function;
    added->arg = arg;
    jobqueue_push(&pool->jobqueue, added);
    return 0;
}

void thpool_wait(thpool *pool) {
    const MutexGuard guard(pool->count_lock);
    while (pool->jobqueue.len != 0 || pool->working_count != 0)
        pthread_cond_wait(&pool->all_idle, &pool->count_lock);
}

void thpool_pause(thpool *pool) {
    threads_on_hold = 1;
    for (int n = 0; n < pool->alive_count; n++)
        pthread_kill(pool->threads[n]->handle, SIGUSR1);
}

void thpool_resume(thpool *) {
    threads_on_hold = 0;
}

void thpool_destroy(thpool *pool, void (*drop)(void *)) {
    if (!pool)
        return;
    const int started = pool->alive_count;
    threads_keepalive = 0;
    bsem_post_all(pool->jobqueue.jobs_available, started);
    {
        const MutexGuard guard(pool->count_lock);
        while (pool->alive_count != 0)
            pthread_cond_wait(&pool->all_idle, &pool->count_lock);
    }
    jobqueue_destroy(&pool->jobqueue, drop);
    pthread_cond_destroy(&pool->all_idle);
    pthread_mutex_destroy(&pool->count_lock);
    for (int n = 0; n < started; n++)
        free(pool->threads[n]);
    free(pool->threads);
    free(pool);
}

int thpool_num_threads_working(thpool *pool) {
    if (!pool)
        return 0;
    return pool->jobqueue.in_turn ? std::min<int>(jobs_of(pool), pool->alive_count)
                                  : pool->working_count.load();
}

int thpool_jobqueue_length(thpool *pool) {
    if (!pool)
        return 0;
    return pool->jobqueue.in_turn ? std::max<int>(jobs_of(pool) - pool->alive_count, 0)
                                  : pool->jobqueue.len.load();
}
