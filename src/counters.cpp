#include "counters.h"

#include "config.h"
#include "guards.h"
#include "recorder.h"
#include "statsdb.h"
#include "thpool.h"
#include "utils.h"

#include <syslog.h>

// Guards the counters for as long as it takes to add to them or read one.
static pthread_mutex_t counting = PTHREAD_MUTEX_INITIALIZER;

static uint64_t *const ALL[COUNTERS] = {&oDNS.requests, &oDNS.blocked, &oDNS.resets, &oDNS.errors};

// Whether the counters hold what earlier runs counted, as far as the database has it.
static bool is_restored = true;     // until there is a database
static uint64_t restored[COUNTERS]; // from an earlier run

uint64_t read_counter(const uint64_t &counter) {
    const MutexGuard guard(counting);
    return counter;
}

bool is_report_due(uint64_t requests) {
    const auto interval = static_cast<uint64_t>(static_cast<int64_t>(oDNS.log_stats_interval));
    return interval != 0 && requests % interval == 0; // an interval of 0 means never
}

static void add_to_counters(uint64_t requests, uint64_t blocked, uint64_t resets, uint64_t errors) {
    oDNS.requests += requests;
    oDNS.blocked += blocked;
    oDNS.resets += resets;
    oDNS.errors += errors;
}

bool count_only(int32_t requests, int32_t blocked, int32_t resets, int32_t errors) {
    const auto widened = [](int32_t change) { return static_cast<uint64_t>(int64_t{change}); };
    const MutexGuard guard(counting);
    add_to_counters(widened(requests), widened(blocked), widened(resets), widened(errors));
    // Asked after every call: a reset at a multiple of the interval writes and logs once more.
    return is_report_due(oDNS.requests);
}

void report_stats() {
    write_stats();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    // Where a long has 32 bits this shows the halves of the first counters: log readers know the
    // text so.
    syslog(LOG_INFO,
           "[ Req: %lu ] [ Blocked: %lu ] [ Resets: %lu ] [ Errors: %lu ] [ Threads: %d ]",
           read_counter(oDNS.requests), read_counter(oDNS.blocked), read_counter(oDNS.resets),
           read_counter(oDNS.errors), thpool_num_threads_working(oDNS.pool));
#pragma GCC diagnostic pop
}

void update_stats(int32_t requests, int32_t blocked, int32_t resets, int32_t errors) {
    if (count_only(requests, blocked, resets, errors))
        report_stats();
}

// Adds the newest row's numbers to the counters, once. False when there may be a row that cannot
// be read now.
static bool restore_counters() {
    uint64_t read[COUNTERS] = {};
    const bool unread = get_stats_summary(&read[0], &read[1], &read[2], &read[3]) == READ_LATER;
    const MutexGuard guard(counting);
    if (!unread && !is_restored) {
        for (int i = 0; i < COUNTERS; i++)
            *ALL[i] += restored[i] = read[i];
    }
    is_restored = is_restored || !unread;
    return is_restored;
}

static bool are_counters_restored() {
    const MutexGuard guard(counting);
    return is_restored;
}

// For a row that was queued before earlier totals could be read.
static bool add_restored(uint64_t (&numbers)[COUNTERS]) {
    if (!are_counters_restored() && !restore_counters())
        return false;
    const MutexGuard guard(counting);
    for (int i = 0; i < COUNTERS; i++)
        numbers[i] += restored[i];
    return true;
}

static void queue_stats() {
    uint64_t numbers[COUNTERS];
    bool is_complete;
    {
        const MutexGuard guard(counting);
        for (int i = 0; i < COUNTERS; i++)
            numbers[i] = *ALL[i];
        is_complete = is_restored;
    }
    record_summary(numbers, is_complete ? nullptr : add_restored);
    syslog(LOG_DEBUG, "Finished writing stats");
}

void write_stats() {
    if (!oDNS.db)
        return;
    if (records_late()) {
        queue_stats();
        return;
    }
    // A row over totals that were not read would take them away for good.
    if (!are_counters_restored() && !restore_counters())
        return;
    insert_stats_summary_record(read_counter(oDNS.requests), read_counter(oDNS.blocked),
                                read_counter(oDNS.resets), read_counter(oDNS.errors));
    syslog(LOG_DEBUG, "Finished writing stats"); // also when the insert failed
}

void read_stats() {
    syslog(LOG_DEBUG, "Before create/read stats summary");
    create_stats_summary_table();
    syslog(LOG_DEBUG, "Before reading stats");
    {
        const MutexGuard guard(counting);
        is_restored = false;
    }
    restore_counters();
    syslog(LOG_INFO, "Finished reading stats");
}

void reload_stats() {
    read_stats();
}

int init_stats() {
    const int opened = open_stats_database();
    if (opened) {
        create_stats_summary_table();
        reload_stats();
    }
    create_traffic_table();
    return opened;
}

void log_stats() {
    syslog(LOG_INFO, "Message Count: %s", commaprint(read_counter(oDNS.requests)));
    syslog(LOG_INFO, "Sites blocked: %s", commaprint(read_counter(oDNS.blocked)));
    syslog(LOG_INFO, "Connection Reset Count: %s", commaprint(read_counter(oDNS.resets)));
    syslog(LOG_INFO, "Error Count: %s", commaprint(read_counter(oDNS.errors)));
    write_stats();
}

double get_block_rate() {
    return 0.0;
}
