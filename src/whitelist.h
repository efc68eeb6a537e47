// The white lists: names whose queries are forwarded whatever the black lists say, and the excluded
// devices, whose queries all are. The main list comes from its file alone; the local one and the
// devices are edited over the bus.
//
// Workers and the receive loop ask, the bus thread edits, the server loads at start and cleans up.
// Any thread.
#pragma once

#include "filterlist.h"

// Loads the main list if its variable is null, then the local one if its is.
void init_white_list();

// load_filter_list() of each list.
int _load_white_list();
int _load_local_white_list();
int _load_local_device_list();

// Frees the three lists.
void white_list_cleanup();

// Whether the client is an excluded device or the name is white-listed: 1 or 0. A hit is logged and
// recorded.
int is_whitelisted(const Query &query);

// Results are those of add_to() and remove_from(). add_white_list() has no caller in the daemon.
int add_white_list(const char *item, int opt);
int add_local_white_list(const char *item, int opt);
int add_local_device_list(const char *item, int opt);
int del_local_white_list(const char *item);
int del_local_device_list(const char *item);

// The numbers of patterns modulo 65536; 0 when the list is not loaded.
uint16_t get_white_list_size();
uint16_t get_local_white_list_size();
uint16_t get_local_device_list_size();

// The local list, kept alive for paging through it; empty when it is not loaded.
ListHold get_local_white_list();
