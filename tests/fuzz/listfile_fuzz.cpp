// List files from anyone: a file is consumed, and what it left makes an ordered list in which each
// pattern is found, with an index.
#include "config.h"
#include "fuzz.h"
#include "list.h"
#include "listload.h"
#include "log.h"
#include "statsdb.h"

#include <cstdio>
#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

static std::string open_store() {
    set_logged_priorities(LOG_MASK(LOG_EMERG));
    char directory[] = "/dev/shm/listfile-fuzz-XXXXXX";
    check(mkdtemp(directory) && open_database(":memory:", &oDNS.db) == SQLITE_OK &&
          create_list_stats_table("black"));
    static char *const made = strdup(directory);
    atexit([] { rmdir(made); });
    return std::string(directory) + "/black.lst";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string path = open_store();
    FILE *file = fopen(path.c_str(), "w");
    check(file && fwrite(data, 1, size, file) == size && fclose(file) == 0);
    List *list = create_list();
    list->index_at = 1;
    list->name = strdup("black");
    list->tables_ready = 1;
    check(_load_list_file(list, path.c_str()) == 1);
    check(size == 0 || access(path.c_str(), F_OK) != 0);
    check(_load_list_db(list, path.c_str()) == 1);
    for (const Node *node = list->head; node; node = node->next) {
        check(!node->next || strlen(node->frag) <= strlen(node->next->frag));
        const bool matches_itself = node->opt == MATCH_CONTAINS || node->opt == MATCH_ENDS_WITH ||
                                    node->opt == MATCH_BEGINS_WITH || node->opt == MATCH_EXACT;
        check(!matches_itself || find_in_list(node->frag, list, 0, nullptr));
    }
    free_list(list);
    unlink(path.c_str()); // an empty file is left
    sqlite3_exec(oDNS.db, "delete from black", nullptr, nullptr, nullptr);
    return 0;
}
