#include "blockedlist.h"

#include "config.h"
#include "filterlist.h"
#include "netutils.h"

#include <climits>
#include <cstdio>

List *blocked_device_list;

static const FilterList DEVICES{blocked_device_list, _load_blocked_device_list};

int _load_blocked_device_list() {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%s", oDNS.path, "blocked_device.lst");
    return load_filter_list(blocked_device_list, path);
}

void init_blocked_device_list() {
    load_if_missing(DEVICES);
}

void blocked_device_list_cleanup() {
    unload(DEVICES);
}

int is_blocked_device(const char *name, sockaddr_in client) {
    const Query query{name, socket2ip(client)};
    init_blocked_device_list();
    return is_hit(DEVICES, query, Subject::CLIENT, "%s is blocked client, %s");
}

int add_blocked_device_list(const char *item, int opt) {
    return add_to(DEVICES, item, opt);
}

int del_blocked_device_list(const char *item) {
    return remove_from(DEVICES, item);
}

uint16_t get_blocked_device_list_size() {
    return loaded_size(DEVICES);
}

ListHold get_blocked_device_list() {
    return ListHold(blocked_device_list);
}
