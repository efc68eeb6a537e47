// The black lists: names whose queries are diverted. The main list comes from its file alone, the
// local one is edited over the bus and asked first.
//
// Workers and the receive loop ask, the bus thread edits, the server loads at start and cleans up.
// Any thread.
#pragma once

#include "list.h"

#include <netinet/in.h>

extern List *black_list;       // black.lst
extern List *local_black_list; // local_black.lst

// Loads the main list if its variable is null, then the local one if its is.
void init_black_list();

// Load a list afresh, in place of a loaded one. Loading the local list also loads the blocked
// devices if they are not loaded. 1, or 0 when the table could not be read.
int _load_black_list();
int _load_local_black_list();

// Frees both lists.
void black_list_cleanup();

// Whether `name` is black-listed: 1 or 0. A hit is logged and recorded for the client.
int is_blacklisted(const char *name, sockaddr_in client);

// Results are those of add_to() and remove_from().
int add_local_black_list(const char *item, int opt);
int del_local_black_list(const char *item);

// The numbers of patterns modulo 65536; 0 when the list is not loaded.
uint16_t get_black_list_size();
uint16_t get_local_black_list_size();

// The local list, kept alive for paging through it; empty when it is not loaded.
ListHold get_local_black_list();
