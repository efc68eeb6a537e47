#include "filterlist.h"

#include "config.h"
#include "guards.h"
#include "listload.h"
#include "log.h"
#include "recorder.h"
#include "statsdb.h"
#include "strutils.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <utility>

std::atomic<List *> black_list;
std::atomic<List *> local_black_list;
std::atomic<List *> blocked_device_list;
std::atomic<List *> white_list;
std::atomic<List *> local_white_list;
std::atomic<List *> device_list;

// Seconds after which a list whose table was locked is tried again.
static constexpr uint32_t RETRY_INTERVAL = 10;

// Longer paths of the black lists are cut, file and list name with them.
static constexpr size_t BLACK_PATH_SIZE = 100;

namespace {

enum class Subject : uint8_t { NAME, CLIENT };

struct FilterList {
    std::atomic<List *> &variable;
    const char *file; // below the base directory; the table has its name without extension
    size_t path_size;
    Subject subject;   // what patterns are compared with
    const char *hit;   // takes the subject, and then the other one of name and client
    bool is_add_shown; // to everybody, not only to those who trace the database
    ListId next;       // loaded behind this one,
    bool next_anew;    // even if it is loaded already
};

} // namespace

static const FilterList FILTER_LISTS[] = {
    {black_list, "black.lst", BLACK_PATH_SIZE, Subject::NAME, "%s blacklisted (%s)", true,
     ListId::NONE, false},
    {local_black_list, "local_black.lst", BLACK_PATH_SIZE, Subject::NAME,
     "%s locally blacklisted (%s)", false, ListId::BLOCKED_DEVICE, false},
    {blocked_device_list, "blocked_device.lst", PATH_MAX, Subject::CLIENT,
     "%s is blocked client, %s", true, ListId::NONE, false},
    {white_list, "white.lst", PATH_MAX, Subject::NAME, "%s whitelisted (%s)", true, ListId::NONE,
     false},
    {local_white_list, "local_white.lst", PATH_MAX, Subject::NAME, "%s locally whitelisted (%s)",
     true, ListId::LOCAL_DEVICE, true},
    {device_list, "local_device.lst", PATH_MAX, Subject::CLIENT,
     "%s is excluded device, forwarding %s", true, ListId::NONE, false},
};

static const FilterList &row_of(ListId id) {
    return FILTER_LISTS[static_cast<size_t>(id)];
}

// Held while lists are loaded or unloaded, also by loads that chain into each other. Lookups in
// loaded lists do not take it.
static RecursiveMutex list_loading;

static uint32_t monotonic_seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

// Whether what the variable holds can be used as it is.
static bool is_usable(const List *list) {
    return list && (!list->is_locked_out || monotonic_seconds() - list->tried_at < RETRY_INTERVAL);
}

// Fills a new list from the file and the table and puts it into the variable. One whose table is
// locked does not take the place of a list that is there already.
static int load_one(const FilterList &filter) {
    List *fresh = create_list();
    if (!fresh)
        return 0;
    char path[PATH_MAX];
    snprintf(path, filter.path_size, "%s/%s", oDNS.path, filter.file);
    const int result = _load_list(fresh, path);
    fresh->tried_at = monotonic_seconds();
    const ListHold old(filter.variable);
    if (old && fresh->is_locked_out) {
        old->tried_at = fresh->tried_at.load();
        free_list(fresh);
    } else {
        publish_list(filter.variable, fresh);
    }
    return result;
}

// The list, which is loaded first if it has to be. Empty only without memory.
static ListHold loaded(ListId id) {
    const FilterList &filter = row_of(id);
    if (ListHold list(filter.variable); is_usable(list.get()))
        return list;
    const MutexGuard guard(list_loading);
    if (ListHold list(filter.variable); is_usable(list.get()))
        return list;
    load_filter_list(id);
    return ListHold(filter.variable);
}

int load_filter_list(ListId id) {
    const MutexGuard guard(list_loading);
    const FilterList &filter = row_of(id);
    const int result = load_one(filter);
    if (filter.next != ListId::NONE && (filter.next_anew || !row_of(filter.next).variable))
        load_filter_list(filter.next);
    return result;
}

void load_if_missing(ListId id) {
    if (!row_of(id).variable)
        loaded(id);
}

void unload(ListId id) {
    const MutexGuard guard(list_loading);
    publish_list(row_of(id).variable, nullptr);
}

static void reload_locked_out() {
    const MutexGuard guard(list_loading);
    for (const FilterList &filter : FILTER_LISTS)
        if (const ListHold list(filter.variable); list && !is_usable(list.get()))
            load_filter_list(static_cast<ListId>(&filter - FILTER_LISTS));
}

// loaded() for a query, which makes do with a list that is there where it must not wait.
static ListHold usable(ListId id) {
    if (ListHold list(row_of(id).variable);
        is_usable(list.get()) || (list && leave_to_recorder(reload_locked_out)))
        return list;
    return loaded(id);
}

bool try_list(ListId id, const Query &query) {
    const FilterList &filter = row_of(id);
    const ListHold list = usable(id);
    const char *key = query.client;
    const char *other = query.name;
    if (filter.subject == Subject::NAME)
        std::swap(key, other);
    char *frag = nullptr;
    if (!find_in_list(key, list.get(), 1, &frag))
        return false;
    const OwnedText matched(frag);
    syslog(LOG_INFO, filter.hit, key, shown(other));
    record_hit(query.name, list->name, matched.get(), query.client);
    return true;
}

// The list is not held up while the row is written, which may take seconds. One that was loaded
// meanwhile may have missed the row, so it gets the entry too.
ListResult add_to(ListId id, const char *item, int opt) {
    const ListHold list = loaded(id);
    const char *name = list ? list->name : nullptr;
    if (row_of(id).is_add_shown || is_sql_debug())
        syslog(LOG_DEBUG, "Adding item to %s", shown(name));
    const auto mode = static_cast<int8_t>(opt);
    const EntryEdit edit(name, item);
    const ListResult result = add_item_copy(item, mode, list.get());
    if (result != LIST_OK)
        return result;
    // "~x" is a pattern like any other in memory, and disables x in the table.
    create_frag_key(item, mode, name);
    if (const ListHold now = hold_list(id); now && now.get() != list.get())
        add_item_copy(item, mode, now.get());
    return LIST_OK;
}

// The empty item counts as digits, and so as row 0, which no table has.
static ListResult remove_one(const char *item, List *list) {
    return item && isOnlyDigits(item) ? remove_item_by_id(strtol(item, nullptr, 10), list)
                                      : remove_item(item, list);
}

ListResult remove_from(ListId id, const char *item) {
    const ListHold list = loaded(id);
    const char *name = list ? list->name : nullptr;
    syslog(LOG_DEBUG, "Removing item %s from %s", shown(item), shown(name));
    const EntryEdit edit(name, item);
    const ListResult result = remove_one(item, list.get());
    if (const ListHold now = hold_list(id); result == LIST_OK && now && now.get() != list.get())
        remove_one(item, now.get());
    return result;
}

uint16_t loaded_size(ListId id) {
    return get_list_size(hold_list(id).get());
}

ListHold hold_list(ListId id) {
    return ListHold(row_of(id).variable);
}
