#include "filterlist.h"

#include "guards.h"
#include "listload.h"
#include "statsdb.h"
#include "strutils.h"

#include <cstdlib>
#include <cstring>
#include <syslog.h>

RecursiveMutex list_loading;

static const char *shown(const char *text) {
    return text ? text : "(null)";
}

int load_filter_list(List *&variable, const char *path) {
    const MutexGuard guard(list_loading);
    List *fresh = create_list();
    if (!fresh)
        return 0;
    const int result = _load_list(fresh, path);
    publish_list(variable, fresh);
    return result;
}

ListHold loaded(const FilterList &filter) {
    if (ListHold list(filter.variable); list)
        return list;
    const MutexGuard guard(list_loading);
    if (ListHold list(filter.variable); list)
        return list;
    filter.load();
    return ListHold(filter.variable);
}

void load_if_missing(const FilterList &filter) {
    if (!is_published(filter.variable))
        loaded(filter);
}

void unload(const FilterList &filter) {
    const MutexGuard guard(list_loading);
    free_list(filter.variable);
}

bool is_hit(const FilterList &filter, const Query &query, Subject subject, const char *message) {
    const ListHold list = loaded(filter);
    const char *key = query.client;
    const char *other = query.name;
    if (subject == Subject::NAME)
        std::swap(key, other);
    char *frag = nullptr;
    if (!find_in_list(key, list.get(), 1, &frag))
        return false;
    const OwnedText matched(frag);
    syslog(LOG_INFO, message, key, shown(other));
    insert_list_record(query.name, list->name, matched.get(), query.client);
    return true;
}

ListResult add_to(const FilterList &filter, const char *item, int opt, bool traced) {
    const MutexGuard guard(list_loading);
    const ListHold list = loaded(filter);
    const char *name = list ? list->name : nullptr;
    if (traced)
        syslog(LOG_DEBUG, "Adding item to %s", shown(name));
    const auto mode = static_cast<int8_t>(opt);
    const ListResult result = add_item_copy(item, mode, list.get());
    // "~x" is a pattern like any other in memory, and disables x in the table.
    if (result == LIST_OK)
        create_frag_key(item, mode, name);
    return result;
}

ListResult remove_from(const FilterList &filter, const char *item) {
    const MutexGuard guard(list_loading);
    const ListHold list = loaded(filter);
    syslog(LOG_DEBUG, "Removing item %s from %s", shown(item), list ? shown(list->name) : "(null)");
    // The empty item counts as digits, and so as row 0, which no table has.
    if (item && isOnlyDigits(item))
        return remove_item_by_id(strtol(item, nullptr, 10), list.get());
    return remove_item(item, list.get());
}

uint16_t loaded_size(const FilterList &filter) {
    return get_list_size(ListHold(filter.variable).get());
}
