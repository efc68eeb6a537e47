#include "whitelist.h"

void init_white_list() {
    load_if_missing(ListId::WHITE);
    load_if_missing(ListId::LOCAL_WHITE);
}

int _load_white_list() {
    return load_filter_list(ListId::WHITE);
}

int _load_local_white_list() {
    return load_filter_list(ListId::LOCAL_WHITE);
}

int _load_local_device_list() {
    return load_filter_list(ListId::LOCAL_DEVICE);
}

void white_list_cleanup() {
    unload(ListId::WHITE);
    unload(ListId::LOCAL_WHITE);
    unload(ListId::LOCAL_DEVICE);
}

int is_whitelisted(const Query &query) {
    init_white_list();
    return try_list(ListId::LOCAL_DEVICE, query) || try_list(ListId::LOCAL_WHITE, query) ||
           try_list(ListId::WHITE, query);
}

int add_white_list(const char *item, int opt) {
    return add_to(ListId::WHITE, item, opt);
}

int add_local_white_list(const char *item, int opt) {
    return add_to(ListId::LOCAL_WHITE, item, opt);
}

int add_local_device_list(const char *item, int opt) {
    return add_to(ListId::LOCAL_DEVICE, item, opt);
}

int del_local_white_list(const char *item) {
    return remove_from(ListId::LOCAL_WHITE, item);
}

int del_local_device_list(const char *item) {
    return remove_from(ListId::LOCAL_DEVICE, item);
}

uint16_t get_white_list_size() {
    return loaded_size(ListId::WHITE);
}

uint16_t get_local_white_list_size() {
    return loaded_size(ListId::LOCAL_WHITE);
}

uint16_t get_local_device_list_size() {
    return loaded_size(ListId::LOCAL_DEVICE);
}

ListHold get_local_white_list() {
    return hold_list(ListId::LOCAL_WHITE);
}
