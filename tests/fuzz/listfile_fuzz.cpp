// List files from anyone: a file is consumed, and what it left makes an ordered list whose index
// and walk agree.
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

static int add_row(void *list, int, char **row, char **) {
    add_item_copy(row[0], static_cast<int8_t>(atoi(row[1])), static_cast<List *>(list));
    return 0;
}

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
    List *walked = create_list();
    list->index_at = 1;
    walked->index_at = UINT32_MAX;
    list->name = strdup("black");
    list->tables_ready = 1;
    check(_load_list_file(list, path.c_str()) == 1);
    check(size == 0 || access(path.c_str(), F_OK) != 0);
    sqlite3_exec(oDNS.db, "select frag, opt from black where disabled = 0", add_row, walked,
                 nullptr);
    check(_load_list_db(list, path.c_str()) == 1 && list->nodes == walked->nodes);
    const Node *other = walked->head;
    for (const Node *node = list->head; node; node = node->next, other = other->next) {
        check(!node->next || strlen(node->frag) <= strlen(node->next->frag));
        check(strcmp(node->frag, other->frag) == 0 && node->opt == other->opt);
        check(find_in_list(node->frag, list, 0, nullptr) ==
              find_in_list(node->frag, walked, 0, nullptr));
    }
    free_list(list);
    free_list(walked);
    unlink(path.c_str()); // an empty file is left
    sqlite3_exec(oDNS.db, "delete from black", nullptr, nullptr, nullptr);
    return 0;
}
