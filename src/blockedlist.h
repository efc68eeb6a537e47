// The blocked devices: clients whose queries are all diverted, before any other list is asked. The
// list is edited over the bus; a reload of lists leaves it alone.
//
// Workers and the receive loop ask, the bus thread edits, the server loads at start and cleans up.
// Any thread.
#pragma once

#include "filterlist.h"

// Loads the list if its variable is null.
void init_blocked_device_list();

// load_filter_list() of the list.
int _load_blocked_device_list();

void blocked_device_list_cleanup();

// Whether the client is a blocked device: 1 or 0. A hit is logged and recorded with the name that
// it asked for.
int is_blocked_device(const Query &query);

// Results are those of add_to() and remove_from().
int add_blocked_device_list(const char *item, int opt);
int del_blocked_device_list(const char *item);

// The number of patterns modulo 65536; 0 when the list is not loaded.
uint16_t get_blocked_device_list_size();

// The list, kept alive for paging through it; empty when it is not loaded.
ListHold get_blocked_device_list();
