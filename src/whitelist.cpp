#include "whitelist.h"

#include "config.h"
#include "filterlist.h"
#include "netutils.h"

#include <climits>
#include <cstdio>

List *white_list;
List *local_white_list;
List *device_list;

static const FilterList MAIN{white_list, _load_white_list};
static const FilterList LOCAL{local_white_list, _load_local_white_list};
static const FilterList DEVICES{device_list, _load_local_device_list};

static int load(List *&variable, const char *format, const char *file) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, format, oDNS.path, file);
    return load_filter_list(variable, path);
}

int _load_white_list() {
    return load(white_list, "%s/%s", "white.lst");
}

int _load_local_device_list() {
    return load(device_list, "%s/local_%s", "device.lst");
}

int _load_local_white_list() {
    const MutexGuard guard(list_loading);
    const int result = load(local_white_list, "%s/local_%s", "white.lst");
    _load_local_device_list();
    return result;
}

void init_white_list() {
    load_if_missing(MAIN);
    load_if_missing(LOCAL);
}

void white_list_cleanup() {
    unload(MAIN);
    unload(LOCAL);
    unload(DEVICES);
}

int is_whitelisted(const char *name, sockaddr_in client) {
    init_white_list();
    const Query query{name, socket2ip(client)};
    return is_hit(DEVICES, query, Subject::CLIENT, "%s is excluded device, forwarding %s") ||
           is_hit(LOCAL, query, Subject::NAME, "%s locally whitelisted (%s)") ||
           is_hit(MAIN, query, Subject::NAME, "%s whitelisted (%s)");
}

int add_white_list(const char *item, int opt) {
    return add_to(MAIN, item, opt);
}

int add_local_white_list(const char *item, int opt) {
    return add_to(LOCAL, item, opt);
}

int add_local_device_list(const char *item, int opt) {
    return add_to(DEVICES, item, opt);
}

int del_local_white_list(const char *item) {
    return remove_from(LOCAL, item);
}

int del_local_device_list(const char *item) {
    return remove_from(DEVICES, item);
}

uint16_t get_white_list_size() {
    return loaded_size(MAIN);
}

uint16_t get_local_white_list_size() {
    return loaded_size(LOCAL);
}

uint16_t get_local_device_list_size() {
    return loaded_size(DEVICES);
}

ListHold get_local_white_list() {
    return ListHold(local_white_list);
}
