#include "listload.h"

#include "guards.h"
#include "ioutils.h"
#include "list.h"
#include "log.h"
#include "statsdb.h"
#include "strutils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

// With the terminator: a longer line falls apart into several records.
static constexpr int RECORD_SIZE = 263;

// Names the list after its file: "/dir/black.lst" gives "black".
static void name_list(List *list, const char *path) {
    const char *slash = strrchr(path, '/');
    free(list->name);
    list->name = strdup(slash ? slash + 1 : path);
    if (list->name)
        strip_ext(&list->name);
}

// --- list files ----------------------------------------------------------------------------------

// Opens a regular file; anything else could keep the daemon waiting. Null on failure.
static OwnedFile open_list_file(const char *path, struct stat &status) {
    UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    OwnedFile file(fdopen(fd.get(), "r"));
    if (file)
        fd.release();
    return file;
}

// Writes one record into the table. False when the database, and not the record, made that fail.
static bool import_record(char *record, const char *table, EntryImport &import) {
    syslog(LOG_DEBUG, "Line: %s", record);
    record[strcspn(record, "\n")] = '\0';
    int8_t opt = MATCH_CONTAINS;
    if (char *option = strchr(record, ',')) {
        *option++ = '\0';
        syslog(LOG_DEBUG, "Option: %s", option);
        if (isNumeric(option))
            opt = static_cast<int8_t>(decimal(option));
    }
    return import.add(record, opt, table);
}

// Whether the path leads to another file than the one that was opened, or somebody has written on
// since. A file that is gone has not changed: what was read was all of it.
static bool has_changed(const char *path, const struct stat &opened) {
    struct stat now;
    if (stat(path, &now) != 0)
        return false;
    return now.st_dev != opened.st_dev || now.st_ino != opened.st_ino ||
           now.st_size != opened.st_size || now.st_mtim.tv_sec != opened.st_mtim.tv_sec ||
           now.st_mtim.tv_nsec != opened.st_mtim.tv_nsec;
}

static bool import_failed(const char *path, const char *reason) {
    syslog(LOG_ERR, "Failed to import list file %s, leaving it: %s", path, reason);
    return false;
}

// Imports all records in one transaction. False when that failed, and then nothing is changed.
static bool import_file(FILE *file, const char *path, const struct stat &opened,
                        const char *table) {
    EntryImport import;
    if (!import.has_begun())
        return import_failed(path, import.message());
    char record[RECORD_SIZE];
    while (fgets(record, sizeof record, file))
        if (!import_record(record, table, import))
            return import_failed(path, import.message());
    if (ferror(file))
        return import_failed(path, "cannot read it");
    // Half of its last line may have been read, which could be a pattern that blocks everything.
    if (has_changed(path, opened))
        return import_failed(path, "it changed meanwhile");
    return import.commit() || import_failed(path, import.message());
}

static void delete_file(const char *path, const struct stat &imported) {
    if (has_changed(path, imported)) // since the commit: the next start imports it
        syslog(LOG_ERR, "List file %s changed after its import, leaving it", path);
    else if (unlink(path) == 0)
        syslog(LOG_INFO, "%s file deleted successfully.", path);
    else
        syslog(LOG_ERR, "Error %d deleting file %s", errno, path);
}

int _load_list_file(List *&list, const char *path) {
    syslog(LOG_DEBUG, "About to load list file %s", path);
    if (!is_empty_file(path)) {
        syslog(LOG_DEBUG, "File %s is not empty", path);
        struct stat status;
        OwnedFile file = open_list_file(path, status);
        if (!file) {
            syslog(LOG_ERR, "Error opening file: %s", path);
            return 0;
        }
        const bool imported = import_file(file.get(), path, status, list->name);
        file.reset();
        if (imported) {
            syslog(LOG_DEBUG, "Finished loading list file %s (%d)", path, get_list_size(list));
            delete_file(path, status);
        }
    }
    // Closes every run, also after an import.
    syslog(LOG_DEBUG, "List file %s is empty or does not exist", path);
    return 1;
}

// --- tables --------------------------------------------------------------------------------------

// Adds one row. Rows that the list leaves out stay enabled in the table.
static void add_row(const char *frag, int opt, void *list) {
    if (!*frag)
        return;
    if (is_sql_debug())
        syslog(LOG_DEBUG, "Found frag record: %s, opt: %d", frag, opt);
    add_item_copy(frag, static_cast<int8_t>(opt), static_cast<List *>(list));
}

int _load_list_db(List *&list, const char *path) {
    name_list(list, path);
    list->tables_ready = create_list_stats_table(list->name);
    const int result = read_entries(list->name, add_row, list);
    list->is_locked_out = result == READ_LATER;
    return result == 1;
}

int _load_list(List *&list, const char *path) {
    name_list(list, path);
    syslog(LOG_INFO, "Loading %s list", shown(list->name));
    list->tables_ready = create_list_stats_table(list->name);
    _load_list_file(list, path);
    return _load_list_db(list, path);
}
