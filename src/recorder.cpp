#include "recorder.h"

#include "config.h"
#include "guards.h"
#include "netutils.h"
#include "prune.h"
#include "statsdb.h"
#include "utils.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <sys/prctl.h>
#include <syslog.h>
#include <utility>

static constexpr size_t CAPACITY = 4096;
static constexpr size_t MANY = CAPACITY / 4 * 3;

// All times are milliseconds of the monotonic clock.
static constexpr int64_t NEVER = INT64_MAX;
static constexpr int64_t RETRY_INTERVAL = 1000;
static constexpr int64_t RETRY_INTERVAL_AT_END = 100;
static constexpr int64_t MAX_END = 10000;
static constexpr int64_t WARNING_INTERVAL = 60000;
// A writer that has not finished a row for that long is not getting on.
static constexpr int64_t STALL = 1000;

// The size of the database is looked at after that many rows of a batch, and of those that are
// written at once.
static constexpr size_t ROWS_TO_LOOK = 500;
static constexpr unsigned ROWS_TO_LOOK_AT_ONCE = 16; // fewer than one step of pruning deletes
static constexpr int64_t PAUSE_OF_PRUNING = 1;       // in which others get at the connection
static constexpr int MAX_STEPS_AT_ONCE = 64;

namespace {

enum class Kind : uint8_t { QUERY, HIT, SUMMARY };

// One row that waits. Its texts follow it in the same block.
struct Row {
    Kind kind;
    int64_t queued;
    const char *name;
    char ip[INET_ADDRSTRLEN];
};

struct Hit {
    Row row;
    int64_t time; // of the query, seconds since the epoch
    const char *table, *frag;
};

struct Summary {
    Row row;
    uint64_t numbers[COUNTERS];
    bool (*complete)(uint64_t (&)[COUNTERS]);
};

// Guarded by `mutex`, but for the rows that were taken: those are the writer's, who has the
// connection. A mutex of its own, behind all others, and never held while something is written.
struct Recorder {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t work, room;
    pthread_t thread;
    bool is_running;

    Row *rows[CAPACITY]; // a ring
    size_t first, count;
    size_t taken;   // of the first ones, which are being written
    bool is_edited; // a list; then only so many of the first rows may be written:
    size_t before_edit;

    bool flush;      // without regard for the delay
    bool is_stuck;   // the last attempt had to be taken back
    bool is_stalled; // the attempt under way takes too long to wait for
    int64_t retry_at;
    unsigned dropped; // since the last warning
    int64_t warned_at;
    void (*task)();
    bool look_at_size;
    int64_t prune_at;
    int64_t end_at; // when the thread gives up
};

} // namespace

static Recorder recorder;
static std::atomic<bool> is_late;
static std::atomic<unsigned> progress; // counts what the thread does: whether it gets on

static void wait_until(pthread_cond_t &condition, int64_t time) {
    if (time == NEVER) {
        pthread_cond_wait(&condition, &recorder.mutex);
        return;
    }
    timespec until = {};
    until.tv_sec = static_cast<time_t>(time / 1000);
    until.tv_nsec = static_cast<long>(time % 1000 * 1000000);
    pthread_cond_timedwait(&condition, &recorder.mutex, &until);
}

// --- the queue -----------------------------------------------------------------------------------

static Row *row_at(size_t index) {
    return recorder.rows[(recorder.first + index) % CAPACITY];
}

// How many of the first rows may be written now.
static size_t count_writable() {
    return recorder.is_edited ? recorder.before_edit : recorder.count;
}

static void remove_first(size_t count) {
    for (size_t i = 0; i < count; i++)
        free(row_at(i));
    recorder.first = (recorder.first + count) % CAPACITY;
    recorder.count -= count;
    recorder.before_edit -= std::min(count, recorder.before_edit);
}

static bool is_getting_on() {
    return !recorder.is_stuck && !recorder.is_stalled &&
           (recorder.taken > 0 || count_writable() > 0);
}

// Waits for room as long as the writer gets on, and otherwise makes some. False when there is none:
// the oldest rows are being written, and that takes its time.
static bool make_room() {
    unsigned before = progress;
    for (int64_t until = now_ms() + STALL; recorder.count == CAPACITY && is_getting_on();) {
        recorder.flush = true;
        pthread_cond_signal(&recorder.work);
        wait_until(recorder.room, until);
        if (const unsigned now = progress; now != before) {
            before = now;
            until = now_ms() + STALL;
        } else if (now_ms() >= until) {
            recorder.is_stalled = true;
        }
    }
    if (recorder.count < CAPACITY)
        return true;
    recorder.dropped++;
    if (recorder.taken > 0)
        return false;
    remove_first(1);
    return true;
}

// Takes the row, which is null without memory.
static void add(Row *row) {
    const MutexGuard guard(recorder.mutex);
    if (!row || (recorder.count == CAPACITY && !make_room())) {
        recorder.dropped += !row;
        free(row);
        return;
    }
    row->queued = now_ms();
    recorder.rows[(recorder.first + recorder.count++) % CAPACITY] = row;
    const bool is_due = row->kind == Kind::SUMMARY || recorder.count == MANY;
    recorder.flush = recorder.flush || row->kind == Kind::SUMMARY;
    if (recorder.count == 1 || is_due)
        pthread_cond_signal(&recorder.work);
}

// A row with room for its texts behind it, which `text` receives; null without memory.
template <typename Record>
static Record *make_row(Kind kind, size_t room, char *&text) {
    auto *record = static_cast<Record *>(calloc(1, sizeof(Record) + room));
    if (!record)
        return nullptr;
    reinterpret_cast<Row *>(record)->kind = kind;
    text = reinterpret_cast<char *>(record + 1);
    return record;
}

// Copies a text to where `at` leads and moves that behind it.
static const char *put(char *&at, const char *text, size_t size) {
    const char *copy = static_cast<char *>(memcpy(at, text, size));
    at += size;
    return copy;
}

static void set_ip(Row &row, const char *ip) {
    strncat(row.ip, ip, sizeof row.ip - 1);
}

// --- recording -----------------------------------------------------------------------------------

// After a row that was written at once: the thread may have to prune. When it does not keep up, the
// caller helps.
static void look_at_size() {
    static std::atomic<unsigned> rows;
    if (oDNS.stats_max_size == 0 || ++rows % ROWS_TO_LOOK_AT_ONCE != 0)
        return;
    const StatsSize size = watch_stats_size();
    if (size == StatsSize::GROWING)
        prune_stats();
    if (size == StatsSize::FITS)
        return;
    const MutexGuard guard(recorder.mutex);
    recorder.look_at_size = true;
    pthread_cond_signal(&recorder.work);
}

bool records_late() {
    return is_late;
}

void record_query(const char *name, sockaddr_in client) {
    if (!is_late) {
        record_request(name, client);
        look_at_size();
        return;
    }
    const size_t size = strlen(name) + 1;
    char *text = nullptr;
    Row *row = make_row<Row>(Kind::QUERY, size, text);
    if (row) {
        row->name = put(text, name, size);
        set_ip(*row, socket2ip(client));
    }
    add(row);
}

void record_hit(const char *fqdn, const char *table, const char *frag, const char *ip) {
    if (!is_late) {
        insert_list_record(fqdn, table, frag, ip);
        look_at_size();
        return;
    }
    if (!oDNS.record_traffic || !table || !frag)
        return;
    const size_t name_size = strlen(fqdn) + 1, table_size = strlen(table) + 1,
                 frag_size = strlen(frag) + 1;
    char *text = nullptr;
    Hit *hit = make_row<Hit>(Kind::HIT, name_size + table_size + frag_size, text);
    if (hit) {
        hit->time = time(nullptr);
        hit->row.name = put(text, fqdn, name_size);
        hit->table = put(text, table, table_size);
        hit->frag = put(text, frag, frag_size);
        set_ip(hit->row, ip);
    }
    add(reinterpret_cast<Row *>(hit));
}

void record_summary(const uint64_t (&numbers)[COUNTERS], bool (*complete)(uint64_t (&)[COUNTERS])) {
    char *text = nullptr;
    auto *summary = make_row<Summary>(Kind::SUMMARY, 0, text);
    if (summary) {
        std::copy(std::begin(numbers), std::end(numbers), summary->numbers);
        summary->complete = complete;
    }
    add(reinterpret_cast<Row *>(summary));
}

bool leave_to_recorder(void (*task)()) {
    if (!is_late)
        return false;
    const MutexGuard guard(recorder.mutex);
    recorder.task = task;
    pthread_cond_signal(&recorder.work);
    return true;
}

// --- writing -------------------------------------------------------------------------------------

static void write_summary(const Summary &summary) {
    uint64_t numbers[COUNTERS]; // the row may have to be written again
    std::copy(std::begin(summary.numbers), std::end(summary.numbers), numbers);
    if (!summary.complete || summary.complete(numbers))
        insert_stats_summary_record(numbers[0], numbers[1], numbers[2], numbers[3]);
}

static void write_row(const Row *row) {
    switch (row->kind) {
    case Kind::QUERY:
        record_request(row->name, row->ip);
        break;
    case Kind::HIT: {
        const auto *hit = reinterpret_cast<const Hit *>(row);
        insert_past_list_record(row->name, hit->table, hit->frag, row->ip, hit->time);
        break;
    }
    case Kind::SUMMARY:
        write_summary(*reinterpret_cast<const Summary *>(row));
        break;
    }
}

// Whether this is a row of a batch behind which its size is looked at, and then found too large.
static bool is_batch_too_large(size_t number) {
    return oDNS.stats_max_size > 0 && number % ROWS_TO_LOOK == 0 &&
           watch_stats_size() == StatsSize::GROWING;
}

// Writes the rows that were taken in one transaction, or fewer of them, if they make the database
// too large. Returns how many, none when they have to wait.
static size_t write_taken(size_t count) {
    RowBatch batch;
    size_t done = 0;
    while (done < count && !batch.is_held_up()) {
        write_row(row_at(done++));
        progress++;
        if (is_batch_too_large(done))
            break;
    }
    return batch.commit() || !batch.is_held_up() ? done : 0;
}

// At most `most` of the oldest rows, as one transaction. Returns how many, -1 when they have to
// wait.
static ssize_t write_part(size_t most) {
    const DatabaseHold one_at_a_time;
    size_t count = 0;
    {
        const MutexGuard guard(recorder.mutex);
        recorder.taken = count = std::min(most, count_writable());
    }
    const size_t done = count > 0 ? write_taken(count) : 0;
    const MutexGuard guard(recorder.mutex);
    recorder.taken = 0;
    recorder.is_stalled = false;
    recorder.is_stuck = count > 0 && done == 0;
    if (recorder.is_stuck)
        recorder.retry_at =
            now_ms() + (recorder.end_at == NEVER ? RETRY_INTERVAL : RETRY_INTERVAL_AT_END);
    remove_first(done);
    pthread_cond_broadcast(&recorder.room);
    return recorder.is_stuck ? -1 : static_cast<ssize_t>(done);
}

// Deletes as much as was added to a database that is too large already.
static void undo_growth() {
    for (int steps = 0; steps < MAX_STEPS_AT_ONCE && watch_stats_size() == StatsSize::GROWING;
         steps++, progress++)
        if (!prune_stats())
            return;
}

// Writes what is queued now, and in an edit what came before it. False when it has to wait.
static bool write_rows() {
    size_t left = 0;
    {
        const MutexGuard guard(recorder.mutex);
        left = count_writable();
        recorder.flush = recorder.flush && recorder.is_edited; // for what comes behind the edit
    }
    while (left > 0) {
        const ssize_t done = write_part(left);
        if (done < 0)
            return false;
        if (done == 0) // another thread has written them
            return true;
        left -= static_cast<size_t>(done);
        undo_growth();
    }
    return true;
}

// --- edits ---------------------------------------------------------------------------------------

// Rows that come from now on are written when the edit is over.
static void begin_edit() {
    const MutexGuard guard(recorder.mutex);
    recorder.is_edited = true;
    recorder.before_edit = recorder.count;
}

static void end_edit() {
    const MutexGuard guard(recorder.mutex);
    recorder.is_edited = false;
    pthread_cond_signal(&recorder.work);
}

static constexpr EditHooks EDIT_HOOKS = {begin_edit, write_rows, end_edit};

// --- the thread ----------------------------------------------------------------------------------

static int64_t rows_due_at(int64_t now) {
    if (count_writable() == 0)
        return NEVER;
    if (recorder.is_stuck)
        return recorder.retry_at;
    if (recorder.flush || recorder.count >= MANY || recorder.end_at != NEVER)
        return now;
    return row_at(0)->queued + int64_t{oDNS.stats_write_delay} * 1000;
}

static bool is_over(int64_t now) {
    return recorder.end_at != NEVER && (recorder.count == 0 || now >= recorder.end_at);
}

// Waits until there is something to do. False when there never will be.
static bool await_work() {
    const MutexGuard guard(recorder.mutex);
    for (;;) {
        const int64_t now = now_ms();
        if (is_over(now))
            return false;
        const int64_t warning_at =
            recorder.dropped > 0 ? recorder.warned_at + WARNING_INTERVAL : NEVER;
        const int64_t wake_at =
            std::min({rows_due_at(now), recorder.prune_at, warning_at, recorder.end_at});
        if (wake_at <= now || recorder.task || recorder.look_at_size)
            return true;
        wait_until(recorder.work, wake_at);
    }
}

static void do_task() {
    void (*task)() = nullptr;
    {
        const MutexGuard guard(recorder.mutex);
        task = std::exchange(recorder.task, nullptr);
    }
    if (!task)
        return;
    write_rows(); // what came before what the task changes
    task();
}

static void write_due_rows() {
    bool is_due = false;
    {
        const MutexGuard guard(recorder.mutex);
        const int64_t now = now_ms();
        is_due = rows_due_at(now) <= now;
        recorder.look_at_size = recorder.look_at_size || is_due;
    }
    if (is_due)
        write_rows();
}

// Looks at the size behind rows that were written, and makes one step if there is to be one.
static void tend_size() {
    {
        const MutexGuard guard(recorder.mutex);
        const bool is_due = recorder.look_at_size || recorder.prune_at <= now_ms();
        recorder.look_at_size = false;
        if (recorder.end_at != NEVER)
            recorder.prune_at = NEVER;
        if (!is_due || recorder.end_at != NEVER)
            return;
    }
    const bool is_pruning = watch_stats_size() != StatsSize::FITS;
    const bool waits = is_pruning && !prune_stats();
    progress++;
    const MutexGuard guard(recorder.mutex);
    recorder.prune_at =
        !is_pruning ? NEVER : now_ms() + (waits ? RETRY_INTERVAL : PAUSE_OF_PRUNING);
}

static void warn_of_dropped_rows(bool at_end) {
    unsigned dropped = 0;
    {
        const MutexGuard guard(recorder.mutex);
        const int64_t now = now_ms();
        if (recorder.dropped == 0 || (now - recorder.warned_at < WARNING_INTERVAL && !at_end))
            return;
        recorder.warned_at = now;
        dropped = std::exchange(recorder.dropped, 0U);
    }
    syslog(LOG_WARNING, "Queue of statistics is full, %u rows dropped", dropped);
}

static void *recorder_main(void *) {
    prctl(PR_SET_NAME, "recorder");
    while (await_work()) {
        do_task();
        write_due_rows();
        tend_size();
        warn_of_dropped_rows(false);
    }
    return nullptr;
}

// --- start and end -------------------------------------------------------------------------------

// Delays are counted by a clock that nobody sets.
static void make_condition(pthread_cond_t &condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

static void reset_queue() {
    recorder.first = recorder.count = recorder.taken = recorder.before_edit = 0;
    recorder.is_edited = recorder.flush = recorder.is_stuck = recorder.is_stalled = false;
    recorder.dropped = 0;
    recorder.warned_at = -WARNING_INTERVAL;
    recorder.task = nullptr;
    recorder.look_at_size = oDNS.stats_max_size > 0; // the file may have grown before
    recorder.prune_at = recorder.end_at = NEVER;
}

static bool start_thread() {
    const MutexGuard guard(recorder.mutex);
    reset_queue();
    make_condition(recorder.work);
    make_condition(recorder.room);
    recorder.is_running = pthread_create(&recorder.thread, nullptr, recorder_main, nullptr) == 0;
    return recorder.is_running;
}

void start_recorder() {
    if (oDNS.stats_write_delay == 0 && oDNS.stats_max_size == 0)
        return;
    if (!start_thread()) {
        syslog(LOG_ERR, "Cannot start the thread that writes statistics");
        return;
    }
    if (oDNS.stats_write_delay == 0)
        return;
    let_queries_wait(false);
    set_edit_hooks(&EDIT_HOOKS);
    is_late = true;
}

void end_recorder() {
    {
        const MutexGuard guard(recorder.mutex);
        if (!recorder.is_running)
            return;
        recorder.end_at = now_ms() + MAX_END;
        recorder.is_edited = false; // such an edit is stuck
        recorder.retry_at = 0;
        pthread_cond_signal(&recorder.work);
    }
    pthread_join(recorder.thread, nullptr);
    set_edit_hooks(nullptr);
    is_late = false;
    let_queries_wait(true);
    warn_of_dropped_rows(true);
    const MutexGuard guard(recorder.mutex);
    recorder.is_running = false;
    if (recorder.count > 0)
        syslog(LOG_ERR, "Cannot write statistics, %zu rows are lost", recorder.count);
    remove_first(recorder.count);
}
