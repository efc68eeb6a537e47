#include "blacklist.h"

void init_black_list() {
    load_if_missing(ListId::BLACK);
    load_if_missing(ListId::LOCAL_BLACK);
}

int _load_black_list() {
    return load_filter_list(ListId::BLACK);
}

int _load_local_black_list() {
    return load_filter_list(ListId::LOCAL_BLACK);
}

void black_list_cleanup() {
    unload(ListId::BLACK);
    unload(ListId::LOCAL_BLACK);
}

int is_blacklisted(const Query &query) {
    init_black_list();
    return try_list(ListId::LOCAL_BLACK, query) || try_list(ListId::BLACK, query);
}

int add_local_black_list(const char *item, int opt) {
    return add_to(ListId::LOCAL_BLACK, item, opt);
}

int del_local_black_list(const char *item) {
    return remove_from(ListId::LOCAL_BLACK, item);
}

uint16_t get_black_list_size() {
    return loaded_size(ListId::BLACK);
}

uint16_t get_local_black_list_size() {
    return loaded_size(ListId::LOCAL_BLACK);
}

ListHold get_local_black_list() {
    return hold_list(ListId::LOCAL_BLACK);
}
