#include "blacklist.h"

#include "blockedlist.h"
#include "config.h"
#include "filterlist.h"
#include "netutils.h"
#include "uciutils.h"

#include <cstdio>

// Longer paths of the black lists are cut, file and list name with them.
static constexpr int BLACK_PATH_SIZE = 100;

List *black_list;
List *local_black_list;

static const FilterList MAIN{black_list, _load_black_list};
static const FilterList LOCAL{local_black_list, _load_local_black_list};

int _load_black_list() {
    char path[BLACK_PATH_SIZE];
    snprintf(path, sizeof path, "%s/%s", oDNS.path, "black.lst");
    return load_filter_list(black_list, path);
}

int _load_local_black_list() {
    const MutexGuard guard(list_loading);
    char path[BLACK_PATH_SIZE];
    snprintf(path, sizeof path, "%s/local_%s", oDNS.path, "black.lst");
    const int result = load_filter_list(local_black_list, path);
    init_blocked_device_list();
    return result;
}

void init_black_list() {
    load_if_missing(MAIN);
    load_if_missing(LOCAL);
}

void black_list_cleanup() {
    unload(MAIN);
    unload(LOCAL);
}

int is_blacklisted(const char *name, sockaddr_in client) {
    const Query query{name, socket2ip(client)};
    init_black_list();
    return is_hit(LOCAL, query, Subject::NAME, "%s locally blacklisted (%s)") ||
           is_hit(MAIN, query, Subject::NAME, "%s blacklisted (%s)");
}

int add_local_black_list(const char *item, int opt) {
    return add_to(LOCAL, item, opt, is_sql_debug());
}

int del_local_black_list(const char *item) {
    return remove_from(LOCAL, item);
}

uint16_t get_black_list_size() {
    return loaded_size(MAIN);
}

uint16_t get_local_black_list_size() {
    return loaded_size(LOCAL);
}

ListHold get_local_black_list() {
    return ListHold(local_black_list);
}
