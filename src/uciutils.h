// Reading and writing single options of the configuration store.
//
// Every call uses a context of its own and gives it back on every path, so calls on different
// threads do not disturb each other. No failure is fatal: it is logged here, and the caller gets
// null, -1 or the default. A key is an extended path such as "vantrelle.@main[0].port": the first
// section of type main of the package vantrelle, option port. Any thread.
#pragma once

// The text of an option as a heap copy that the caller frees, or null. Keys are cut at 99
// characters.
char *get_uci_string(const char *key);

// The option as a plain decimal number, -1 when it is missing; a text without digits is 0.
int get_uci_int(const char *key);

// The option, or `fallback` when get_uci_int() gives -1: so an option stored as "-1" yields the
// fallback too.
int get_uci_int_with_default(const char *key, int fallback);

// The option, or `fallback` when it is missing, of which nothing is logged: for options that older
// settings files do not have.
int get_new_uci_int(const char *key, int fallback);

// The text of an option as get_uci_string() gives it, of which nothing is logged: for options that
// older settings files do not have.
char *get_new_uci_string(const char *key);

// A heap copy of the option or, when it is missing or empty, of `fallback`; null only without
// memory.
char *get_uci_string_with_default(const char *key, const char *fallback);

// A heap copy of upstream address n = 1..4, or of the built-in default address; null only without
// memory.
char *get_upstream_dns(int n);

// The directory of the statistics database as a heap copy, or null.
char *get_stats_db_location();

// Whether the system logs to a remote host ("system.@system[0].log_remote" reads as 1).
bool isRemoteLog();

// Whether the device was never set up ("vantrelle.@main[0].first_boot" reads as 1).
bool isFirstBoot();

// The writers change one option and commit its package at once; oDNS is left to the caller. A
// commit changes the configuration file only when the option's value changes. The file then holds
// what the store makes of it: comments and layout are gone. A missing section is a failure.
//
// These four store a number as unsigned decimal text (so -1 as 4294967295) and return 0, or 5 on
// any failure, which is logged.
int set_loglevel(int level);
int set_disabled_data(int flag);
int set_track_data(int flag);
int set_remote_log(int flag); // in the system's own package

// Stores upstream address n: 0, or 1 when the section is not found, 2 when setting and 3 when
// committing fails.
int set_dns(int n, const char *address);

// Meant to store the directory of the statistics database: the library reports success and stores
// nothing.
void set_stats_db_location(const char *directory);
