#include "list.h"

#include "guards.h"
#include "listindex.h"
#include "log.h"
#include "statsdb.h"
#include "strutils.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>
#include <syslog.h>

// Below this number of nodes a walk is as fast as the index and takes no memory.
static constexpr uint32_t INDEX_FROM = 48;

// Guards the variables that hold lists: between reading one and counting the reference, nobody may
// let the list go.
static pthread_mutex_t variables = PTHREAD_MUTEX_INITIALIZER;

// --- lists and nodes -----------------------------------------------------------------------------

List *create_list() {
    void *memory = malloc(sizeof(List));
    if (!memory)
        return nullptr;
    List *list = ::new (memory) List{};
    pthread_mutex_init(&list->mutex, nullptr);
    list->references = 1;
    list->index_at = INDEX_FROM;
    return list;
}

static void release(List *list) {
    if (!list || list->references.fetch_sub(1) != 1)
        return;
    while (Node *node = list->head) {
        list->head = node->next;
        free_node(node);
    }
    free_index(list->index);
    free(list->name);
    pthread_mutex_destroy(&list->mutex);
    free(list);
}

void publish_list(std::atomic<List *> &variable, List *fresh) {
    List *old = nullptr;
    {
        const MutexGuard guard(variables);
        old = variable.exchange(fresh);
    }
    release(old);
}

void free_list(List *&variable) {
    release(std::exchange(variable, nullptr));
}

ListHold::ListHold(const std::atomic<List *> &variable) {
    const MutexGuard guard(variables);
    list_ = variable;
    if (list_)
        list_->references++;
}

ListHold::~ListHold() {
    release(list_);
}

uint16_t get_list_size(const List *list) {
    return list ? list->size.load() : 0;
}

bool _is_empty(List *list) {
    if (!list)
        return true;
    const MutexGuard guard(list->mutex);
    return !list->head;
}

static Node *make_node(std::string_view text, int8_t opt) {
    void *memory = malloc(sizeof(Node) + text.size() + 1);
    if (!memory)
        return nullptr;
    char *frag = static_cast<char *>(memory) + sizeof(Node);
    memcpy(frag, text.data(), text.size());
    frag[text.size()] = '\0';
    return ::new (memory) Node{frag, opt, -1, nullptr};
}

Node *create_node(const char *frag, int8_t opt) {
    return frag ? make_node(frag, opt) : nullptr;
}

void free_node(Node *&node) {
    free(node);
    node = nullptr;
}

// --- the index -----------------------------------------------------------------------------------

// The index of a list, made now if the list has grown long enough or got rid of its last expiring
// node; null when the list is to be walked. Takes a list whose mutex is held, as do all functions
// below down to the next heading.
static ListIndex *index_of(List *list) {
    if (list->index || list->expiring || list->nodes < list->index_at)
        return list->index;
    list->index = create_index(list->head);
    // Without memory for it the list is walked. The next attempt comes when it has doubled, so
    // that attempts cost nothing in the long run.
    if (!list->index)
        list->index_at = list->nodes * 2;
    return list->index;
}

static void drop_index(List *list) {
    free_index(list->index);
    list->index = nullptr;
}

// --- chain ---------------------------------------------------------------------------------------

static bool is_longer(const Node *node, size_t length) {
    return strlen(node->frag) > length;
}

static void link_node(Node *node, List *list) {
    if (node->exp_time >= 0) {
        list->expiring++;
        drop_index(list);
    }
    ListIndex *index = index_of(list);
    const size_t length = strlen(node->frag);
    Node *previous = index ? index_last(*index, length) : nullptr;
    Node **link = previous ? &previous->next : &list->head;
    while (*link && !is_longer(*link, length))
        link = &(*link)->next;
    node->next = *link;
    *link = node;
    list->nodes++;
    list->size++;
    if (index && !index_insert(*index, node))
        drop_index(list);
}

// Takes the node at `link` out of the chain; list->size is left to remove_node().
static Node *unlink_node(Node *&link, List *list) {
    Node *node = link;
    link = node->next;
    list->nodes--;
    if (node->exp_time >= 0 && list->expiring > 0)
        list->expiring--;
    return node;
}

static void log_expiry(const char *format, const Node *node) {
    const auto expiry = static_cast<time_t>(node->exp_time);
    struct tm local {};
    char text[80] = "";
    localtime_r(&expiry, &local);
    strftime(text, sizeof text, "%c", &local);
    syslog(LOG_INFO, format, node->frag, text, static_cast<long>(node->exp_time));
}

// If the node under the cursor has expired, moves it to the chain `expired`, for removal once the
// mutex is free; the cursor is the link to the node and so is at the next node then.
static void is_expired_node(Node *&cursor, List *list, Node *&expired) {
    if (is_sql_debug())
        log_expiry("Checking Expiry for %s, Exp_time: %s (%ld)", cursor);
    if (cursor->exp_time < 0 || time(nullptr) < cursor->exp_time)
        return;
    log_expiry("Expiring node: %s, expiry is: %s (%ld)", cursor);
    Node *node = unlink_node(cursor, list);
    node->next = expired;
    expired = node;
}

static bool matches(const char *key, const Node *node) {
    const char *frag = node->frag;
    if (is_debug())
        syslog(LOG_DEBUG, "Check Match: %s (%d)", frag, node->opt);
    switch (node->opt) {
    case MATCH_EXACT:
        return strcmp(key, frag) == 0;
    case MATCH_BEGINS_WITH:
        if (is_debug())
            syslog(LOG_DEBUG, "Check %s Begins With %s", key, frag);
        return startsWith(key, frag);
    case MATCH_CONTAINS:
        if (is_sql_debug())
            syslog(LOG_DEBUG, "Check %s contains %s", frag, key);
        return strstr(key, frag);
    case MATCH_ENDS_WITH:
        if (is_sql_debug())
            syslog(LOG_DEBUG, "Check %s ends with %s", key, frag);
        return endsWith(key, frag);
    default:
        return false;
    }
}

static void trace_match(const char *key, const Node *node) {
    if (!is_debug())
        return;
    const char *frag = node->frag;
    if (node->opt == MATCH_EXACT)
        syslog(LOG_DEBUG, "Found Exact Match: %s", frag);
    else if (node->opt == MATCH_BEGINS_WITH)
        syslog(LOG_DEBUG, "Found %s Begins With: %s", key, frag);
    else if (node->opt == MATCH_CONTAINS)
        syslog(LOG_DEBUG, "Found any match: %s", frag);
    else
        syslog(LOG_DEBUG, "Found %s Ends With: %s", key, frag);
}

// The first node that matches. Patterns longer than the key cannot, and from the first of them on
// all are longer.
static Node *walk(const char *key, size_t length, const List *list) {
    for (Node *node = list->head; node && !is_longer(node, length); node = node->next)
        if (matches(key, node))
            return node;
    return nullptr;
}

// The same, removing what has expired on the way. The node behind an expired one is tested whatever
// its own length and expiry are.
static Node *walk_and_expire(const char *key, size_t length, List *list, Node *&expired) {
    for (Node **link = &list->head; *link && !is_longer(*link, length); link = &(*link)->next) {
        is_expired_node(*link, list, expired);
        if (!*link)
            break;
        if (matches(key, *link))
            return *link;
    }
    return nullptr;
}

// Whether traces of a lookup, which are those of a walk, would reach the log.
static bool is_traced() {
    return (is_debug() && is_logged(LOG_DEBUG)) ||
           (is_sql_debug() && is_logged(LOG_INFO)); // that of the expiry
}

static Node *search(const char *key, List *list, Node *&expired) {
    const size_t length = strlen(key);
    if (list->expiring || is_traced())
        return walk_and_expire(key, length, list, expired);
    const ListIndex *index = length > LONGEST_INDEXED ? nullptr : index_of(list);
    return index ? index_find(*index, {key, length}) : walk(key, length, list);
}

static Node *find_node(const char *key, List *list, Node *&expired) {
    Node *node = search(key, list, expired);
    if (node)
        trace_match(key, node);
    return node;
}

// --- lookups and edits ---------------------------------------------------------------------------

static void remove_nodes(Node *chain, List *list) {
    while (Node *node = chain) {
        chain = node->next;
        remove_node(node, list);
    }
}

int find_in_list(const char *key, List *list, int /*flag*/, char **matched) {
    if (!key || !list)
        return 0;
    Node *expired = nullptr;
    bool found = false;
    {
        const MutexGuard guard(list->mutex);
        const Node *node = find_node(key, list, expired);
        found = node;
        if (node && matched)
            *matched = strdup(node->frag);
    }
    remove_nodes(expired, list);
    return found;
}

// Whether an item is nothing to add, with the trace that says so.
static bool is_skipped(const char *item) {
    if (!item)
        syslog(LOG_DEBUG, "Line is NULL");
    else if (*item == '#' || !*item)
        syslog(LOG_DEBUG, "Skip commented or empty line: %s", item);
    else
        return false;
    return true;
}

// Links a node in, or frees it when some pattern of the list matches its text.
static ListResult add_or_free(Node *node, List *list) {
    Node *expired = nullptr;
    bool exists = false;
    {
        const MutexGuard guard(list->mutex);
        exists = find_node(node->frag, list, expired);
        if (!exists)
            link_node(node, list);
    }
    remove_nodes(expired, list);
    if (!exists)
        return LIST_OK;
    if (is_sql_debug())
        syslog(LOG_DEBUG, "%s is already in the list", node->frag);
    free_node(node);
    return LIST_EXISTS;
}

static ListResult add_text(std::string_view text, int8_t opt, List *list) {
    if (!list) {
        syslog(LOG_NOTICE, "List is NULL!!");
        return LIST_INSERT_FAILED;
    }
    Node *node = make_node(text, opt);
    return node ? add_or_free(node, list) : LIST_INSERT_FAILED;
}

ListResult add_item(char *item, int8_t opt, List *list) {
    if (is_skipped(item))
        return LIST_EMPTY_ITEM;
    for (char *end = item; (end = strchr(end, '\n')); end++)
        *end = '\0';
    // An item that begins with a line feed becomes the empty pattern, which most modes match with
    // any key.
    return add_text(item, opt, list);
}

ListResult add_item_copy(const char *item, int8_t opt, List *list) {
    if (is_skipped(item))
        return LIST_EMPTY_ITEM;
    return add_text({item, strcspn(item, "\n")}, opt, list);
}

int add_node(Node *node, List *list) {
    if (!list) {
        syslog(LOG_NOTICE, "List is NULL!!");
        return 0;
    }
    if (!node || !node->frag) {
        fputs("Found something NULL", stdout);
        return 0;
    }
    const MutexGuard guard(list->mutex);
    link_node(node, list);
    return 1;
}

// Unlinks the first node with text `frag`, null if there is none. With an index the search begins
// behind the last shorter pattern.
static Node *take_out(const char *frag, List *list, bool &was_head) {
    const MutexGuard guard(list->mutex);
    const size_t length = strlen(frag);
    ListIndex *index = index_of(list);
    Node *previous = index && length > 0 ? index_last(*index, length - 1) : nullptr;
    Node **link = previous ? &previous->next : &list->head;
    while (*link && !is_longer(*link, length) && strcmp((*link)->frag, frag) != 0) {
        previous = *link;
        link = &previous->next;
    }
    if (!*link || is_longer(*link, length))
        return nullptr;
    if (index)
        index_erase(*index, *link, previous);
    was_head = !previous;
    return unlink_node(*link, list);
}

ListResult remove_item(const char *frag, List *list) {
    if (!list)
        return LIST_IS_NULL;
    bool was_head = false;
    Node *node = frag ? take_out(frag, list, was_head) : nullptr;
    if (!node)
        return LIST_NOT_FOUND;
    remove_node(node, list);
    syslog(LOG_DEBUG, was_head ? "Removing header item %s" : "Removing item %s", frag);
    return LIST_OK;
}

ListResult remove_item_by_id(long id, List *list) {
    if (!list)
        return LIST_IS_NULL;
    const OwnedText frag(get_frag_by_id(id, list->name));
    if (frag && *frag)
        return remove_item(frag.get(), list);
    syslog(LOG_ERR, "Could not find %s item with id of %ld", shown(list->name), id);
    return LIST_NOT_FOUND;
}

void remove_node(Node *&node, List *list) {
    if (!node || !list)
        return;
    deactivate_node(node, list);
    list->size--;
    free_node(node);
}

int deactivate_node(const Node *node, const List *list) {
    return node && list ? remove_frag_key(node->frag, list->name) : 0;
}

namespace {

// The indices of a page's patterns. Wide enough for any start and count that a caller of the bus
// sends.
struct PageRange {
    int64_t first, end;

    bool has(int index) const { return index >= first && index < end; }
};

} // namespace

// Copies of a page's patterns as a chain. Counts the nodes that the walk meets.
static Node *copy_page(List *list, const PageRange &range, size_t &met) {
    Node *copies = nullptr;
    Node **link = &copies;
    const MutexGuard guard(list->mutex);
    uint16_t i = 0; // wraps: in a list of more than 65536 patterns, nodes share an index
    for (const Node *node = list->head; node; node = node->next) {
        met++;
        const int index = i++;
        if (range.has(index)) {
            *link = make_node(node->frag, node->opt);
            if (!*link)
                break; // out of memory: the page ends here
            link = &(*link)->next;
        }
        if (index >= range.end)
            break;
    }
    return copies;
}

// Adds a copy to the page as add_item_copy() would, or frees it.
static void add_copy(Node *copy, List *page) {
    if (is_skipped(copy->frag)) {
        free_node(copy);
        return;
    }
    copy->frag[strcspn(copy->frag, "\n")] = '\0';
    add_or_free(copy, page);
}

List *get_sub_list(List *list, int start, int count) {
    List *page = create_list();
    syslog(LOG_DEBUG, "Inside get sub list");
    if (!page || _is_empty(list)) {
        free_list(page);
        return nullptr;
    }
    syslog(LOG_DEBUG, "After empty check");
    const PageRange range{int64_t{start} - 1, int64_t{start} - 1 + count};
    size_t met = 0;
    Node *copies = copy_page(list, range, met);
    // The walk once more, without the list: its log takes long, and lookups would wait for it.
    for (uint16_t i = 0; met > 0; met--) {
        syslog(LOG_DEBUG, "Loop: i: %d, start: %d, count: %d", i, start, count);
        const int index = i++;
        if (copies && range.has(index))
            add_copy(std::exchange(copies, copies->next), page);
        if (index >= range.end)
            break;
        syslog(LOG_DEBUG, "After break");
    }
    return page;
}

// --- diagnostics ---------------------------------------------------------------------------------

void print_node(const Node *node) {
    if (!node)
        return;
    printf("Node: %s\n", node->frag);
    syslog(LOG_DEBUG, "Node: %s", node->frag);
}

void print_all(List *list) {
    if (!list)
        return;
    const MutexGuard guard(list->mutex);
    for (const Node *node = list->head; node; node = node->next)
        print_node(node);
}

void print_list(List *list) {
    print_all(list);
    puts("----");
}
