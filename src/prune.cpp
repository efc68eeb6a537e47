#include "prune.h"

#include "config.h"
#include "statsdb.h"
#include "utils.h"

#include <cstdio>
#include <iterator>
#include <memory>
#include <sqlite3.h>
#include <syslog.h>

static constexpr int64_t KIB = 1024, MIB = 1024 * KIB;

// Of one step, and in the statements below: 500 rows, or 50 hits. A hit is three rows, and its name
// has a page of its own in the index of names: many more in one step would fill the log, so that
// every step ended with copying it into the file, and waiting for the disk.
static constexpr int MAX_HITS = 50;

// How far rows that come may outrun the deletion, see StatsSize.
static constexpr int64_t MAX_GROWTH = 256 * KIB;

namespace {

enum class Kind : uint8_t { TRAFFIC, LIST, SUMMARY };

struct Table {
    const char *name;
    Kind kind;
};

struct Finalize {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

} // namespace

static constexpr Table TABLES[] = {
    {"dns_traffic", Kind::TRAFFIC}, {"black", Kind::LIST},      {"local_black", Kind::LIST},
    {"blocked_device", Kind::LIST}, {"white", Kind::LIST},      {"local_white", Kind::LIST},
    {"local_device", Kind::LIST},   {"summary", Kind::SUMMARY},
};

// Guarded by the connection.
static struct {
    bool is_under_way;
    size_t table;    // whose turn it is
    int64_t up_to;   // the id that its tenth ends with; 0 before it is known
    size_t in_vain;  // tables in a row that had nothing to delete
    int64_t lowest;  // bytes in use
    int64_t too_few; // to begin again: so many were left when nothing more could be deleted
    int64_t begun, rows;
    bool has_failed; // a statement of this step, which the database refused
} pruning;

// --- statements ----------------------------------------------------------------------------------

// The format takes the table's name and then the number. Null when there is no such table.
static Statement prepare(sqlite3 *db, const char *format, const char *table, int64_t number) {
    char sql[160];
    snprintf(sql, sizeof sql, format, table, static_cast<long long>(number));
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    return Statement(statement);
}

// The number that a query gives; 0 for none.
static int64_t ask(sqlite3 *db, const char *format, const char *table = "", int64_t number = 0) {
    const Statement statement = prepare(db, format, table, number);
    const bool has_row = statement && sqlite3_step(statement.get()) == SQLITE_ROW;
    return has_row ? sqlite3_column_int64(statement.get(), 0) : 0;
}

// Runs a statement that deletes. Returns how many rows are gone.
static int erase(sqlite3 *db, sqlite3_stmt *statement) {
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    pruning.has_failed = pruning.has_failed || !done;
    return done ? sqlite3_changes(db) : 0;
}

static int erase(sqlite3 *db, const char *format, const char *table, int64_t up_to) {
    const Statement statement = prepare(db, format, table, up_to);
    return statement ? erase(db, statement.get()) : 0;
}

static int64_t bytes_in_use(sqlite3 *db) {
    return (ask(db, "pragma page_count") - ask(db, "pragma freelist_count")) *
           ask(db, "pragma page_size");
}

// --- the size ------------------------------------------------------------------------------------

static int64_t limit() {
    return oDNS.stats_max_size * MIB;
}

static void begin(int64_t in_use) {
    pruning.is_under_way = true;
    pruning.in_vain = 0;
    pruning.up_to = 0;
    pruning.rows = 0;
    pruning.lowest = in_use;
    pruning.begun = now_ms();
    syslog(LOG_INFO, "Statistics take %lld KiB, more than %lld, deleting the oldest",
           static_cast<long long>(in_use / KIB), static_cast<long long>(limit() / KIB));
}

static void end(int64_t in_use) {
    pruning.is_under_way = false;
    syslog(LOG_INFO, "Deleted %lld rows of statistics in %lld ms, %lld KiB are left",
           static_cast<long long>(pruning.rows), static_cast<long long>(now_ms() - pruning.begun),
           static_cast<long long>(in_use / KIB));
}

StatsSize watch_stats_size() {
    const ImpatientHold hold;
    if (oDNS.stats_max_size == 0 || !hold.get())
        return StatsSize::FITS;
    const int64_t in_use = bytes_in_use(hold.get());
    if (!pruning.is_under_way && in_use > limit() && in_use > pruning.too_few)
        begin(in_use);
    if (!pruning.is_under_way)
        return StatsSize::FITS;
    if (in_use < pruning.lowest)
        pruning.lowest = in_use;
    const int64_t expected = pruning.lowest < limit() ? limit() : pruning.lowest;
    return in_use > expected + MAX_GROWTH ? StatsSize::GROWING : StatsSize::PRUNING;
}

// --- one step ------------------------------------------------------------------------------------

// The id that the oldest tenth of a table ends with; 0 when nothing of it may be deleted.
static int64_t find_tenth(sqlite3 *db, const Table &table) {
    // Each by itself: both in one query would be a scan.
    const char *rows = table.kind == Kind::LIST ? "_stats" : "";
    char name[32];
    snprintf(name, sizeof name, "%s%s", table.name, rows);
    const int64_t first = ask(db, "select min(id) from %s", name);
    const int64_t last =
        table.kind == Kind::SUMMARY
            ? ask(db, "select id - 1 from %s order by id desc limit 1 offset 999", name)
            : ask(db, "select max(id) from %s", name);
    return first > last ? 0 : first + (last - first) / 10;
}

// Hits have ids in the order of what they link, so that the oldest ones are those of the oldest
// rows of clients. Names are deleted by their ids: one that was asked for again has a newer row.
// Returns how many rows are gone; `up_to` is lowered to the last client whose hits all are.
static int erase_hits(sqlite3 *db, const char *list, int64_t &up_to) {
    const Statement hit = prepare(
        db, "select id, fqdn_id, stats_id from %s_hit order by id limit %lld", list, MAX_HITS);
    const Statement name = prepare(db, "delete from %s_fqdn where id = ?", list, 0);
    int64_t last = 0, client = 0;
    int rows = 0, hits = 0;
    while (hit && name && sqlite3_step(hit.get()) == SQLITE_ROW &&
           sqlite3_column_int64(hit.get(), 2) <= up_to) {
        last = sqlite3_column_int64(hit.get(), 0);
        client = sqlite3_column_int64(hit.get(), 2);
        sqlite3_bind_int64(name.get(), 1, sqlite3_column_int64(hit.get(), 1));
        rows += erase(db, name.get());
        sqlite3_reset(name.get());
        hits++;
    }
    if (hits == MAX_HITS && client < up_to)
        up_to = client;
    sqlite3_reset(hit.get());
    return rows + erase(db, "delete from %s_hit where id <= %lld", list, last);
}

// Deletes some rows of a table, up to that id; how many are gone.
static int erase_oldest(sqlite3 *db, const Table &table, int64_t up_to) {
    if (table.kind != Kind::LIST) {
        up_to = ask(
            db, "select max(id) from (select id from %s where id <= %lld order by id limit 500)",
            table.name, up_to);
        return erase(db, "delete from %s where id <= %lld", table.name, up_to);
    }
    up_to = ask(
        db, "select max(id) from (select id from %s_stats where id <= %lld order by id limit 50)",
        table.name, up_to);
    const int rows = erase_hits(db, table.name, up_to);
    return rows + erase(db, "delete from %s_stats where id <= %lld", table.name, up_to);
}

// Deletes some rows of the table whose turn it is, and hands the turn on when its tenth is gone.
static int erase_in_turn(sqlite3 *db) {
    const Table &table = TABLES[pruning.table];
    if (pruning.up_to == 0)
        pruning.up_to = find_tenth(db, table);
    const int rows = pruning.up_to > 0 ? erase_oldest(db, table, pruning.up_to) : 0;
    pruning.in_vain = rows > 0 ? 0 : pruning.in_vain + 1;
    if (rows == 0) {
        pruning.table = (pruning.table + 1) % std::size(TABLES);
        pruning.up_to = 0;
    }
    return rows;
}

static bool is_nothing_left() {
    return pruning.in_vain > std::size(TABLES); // each one's tenth, and the rest of each
}

bool prune_stats() {
    RowBatch batch;
    if (batch.is_held_up() || !batch.get())
        return false;
    if (!pruning.is_under_way)
        return true;
    pruning.has_failed = false;
    int rows = 0;
    while (rows == 0 && !pruning.has_failed && !is_nothing_left())
        rows = erase_in_turn(batch.get());
    if (pruning.has_failed || !batch.commit())
        return false;
    pruning.rows += rows;
    const int64_t in_use = bytes_in_use(batch.get());
    if (in_use <= limit() / 10 * 9) {
        pruning.too_few = 0;
        end(in_use);
    } else if (is_nothing_left()) {
        pruning.too_few = in_use + MAX_GROWTH;
        end(in_use);
        syslog(LOG_WARNING, "stats_max_size %d is too small for the lists", oDNS.stats_max_size);
    }
    return true;
}
