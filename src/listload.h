// Loading a pattern list: a list file that somebody dropped is imported into the list's database
// table and deleted, then the list is built from the table's enabled rows.
//
// A file is imported in one transaction and deleted only when that transaction is in the database:
// after a failure, or a kill at any moment, there is either the file or all of its rows. A file
// that is written while it is read is left for the next start.
//
// Lines of a list file are "PATTERN" or "PATTERN,MODE"; a MODE that is no number is 0. A line that
// begins with '#' is a comment, one that begins with '~' disables the pattern that follows. A line
// is cut into records of 262 bytes; blanks and carriage returns belong to the pattern.
//
// The loaders of the filter lists call _load_list(); the other two are its steps. Any thread, with
// a list that no other thread knows yet; the connection to the database is kept from other threads
// meanwhile.
#pragma once

struct List;

// Imports the file at `path`, if there is one, and fills the list, which takes its name from the
// file's. 1, or 0 when the table could not be read.
int _load_list(List *&list, const char *path);

// Imports the file into the table named by the list. 0 when the file has content but cannot be
// opened, else 1, also when the import failed and the file was left.
int _load_list_file(List *&list, const char *path);

// Names the list and fills it from the table alone. Result as of _load_list().
int _load_list_db(List *&list, const char *path);
