#include "blockedlist.h"

void init_blocked_device_list() {
    load_if_missing(ListId::BLOCKED_DEVICE);
}

int _load_blocked_device_list() {
    return load_filter_list(ListId::BLOCKED_DEVICE);
}

void blocked_device_list_cleanup() {
    unload(ListId::BLOCKED_DEVICE);
}

int is_blocked_device(const Query &query) {
    return try_list(ListId::BLOCKED_DEVICE, query);
}

int add_blocked_device_list(const char *item, int opt) {
    return add_to(ListId::BLOCKED_DEVICE, item, opt);
}

int del_blocked_device_list(const char *item) {
    return remove_from(ListId::BLOCKED_DEVICE, item);
}

uint16_t get_blocked_device_list_size() {
    return loaded_size(ListId::BLOCKED_DEVICE);
}

ListHold get_blocked_device_list() {
    return hold_list(ListId::BLOCKED_DEVICE);
}
