// List files from anyone: a file is consumed, and what it left makes an ordered list whose index
// and walk agree.
#include "config.h"
#include "list.h"
#include "listload.h"
#include "statsdb.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sqlite3.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

static void check(bool holds) {
    if (!holds)
        abort();
}

static std::string open_store() {
    setlogmask(LOG_MASK(LOG_EMERG));
    char directory[] = "/tmp/listfile-fuzz-XXXXXX";
    check(mkdtemp(directory) && open_database(":memory:", &oDNS.db) == SQLITE_OK);
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
    check(_load_list(list, path.c_str()) == 1);
    check(size == 0 || access(path.c_str(), F_OK) != 0);
    check(_load_list_db(walked, path.c_str()) == 1 && list->nodes == walked->nodes);
    const Node *other = walked->head;
    for (const Node *node = list->head; node; node = node->next, other = other->next) {
        check(!node->next || strlen(node->frag) <= strlen(node->next->frag));
        check(strcmp(node->frag, other->frag) == 0 && node->opt == other->opt);
        char *by_index = nullptr;
        char *by_walk = nullptr;
        check(find_in_list(node->frag, list, 0, &by_index) ==
              find_in_list(node->frag, walked, 0, &by_walk));
        check(!by_index || strcmp(by_index, by_walk) == 0);
        free(by_index);
        free(by_walk);
    }
    free_list(list);
    free_list(walked);
    unlink(path.c_str()); // an empty file is left
    sqlite3_exec(oDNS.db, "delete from black", nullptr, nullptr, nullptr);
    return 0;
}
