// Pattern lists: the store behind the six filter lists.
//
// A list is a chain of patterns in ascending order of length, and among equally long ones in order
// of age. A lookup reports the first pattern of the chain that matches; long lists keep an index
// beside the chain (listindex.h) that gives the same answer without the walk. Comparisons are
// byte-wise and case-sensitive. Every removal marks the pattern's row in the list's database table
// disabled.
//
// Any function here may be called from any thread. Each list has a mutex of its own, which guards
// chain, index and counts and is never held across a database call; each function takes it inside.
// A list that other threads can reach through a variable is kept alive by a ListHold while it is
// in use. Only a list that no other thread knows may be read through its fields.
#pragma once

#include "node.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <utility>

struct ListIndex;

// Results of list edits. The bus passes the numbers on to its callers.
enum ListResult {
    LIST_OK = 0,
    LIST_IS_NULL = 1,         // there is no such list
    LIST_EXISTS = 2,          // some pattern of the list already matches the item
    LIST_EMPTY_ITEM = 3,      // null, empty or a comment
    LIST_INSERT_FAILED = 4,   // there is no such list, or no memory
    LIST_GENERAL_FAILURE = 5, // for callers
    LIST_WRITE_FAILED = 6,    // for callers
    LIST_NOT_FOUND = 7,
};

struct List {
    Node *head;
    std::atomic<uint16_t> size;     // number of nodes modulo 65536: nothing limits a list
    int tables_ready;               // 1 when the list's tables exist
    bool is_locked_out;             // empty only because another process held the table
    std::atomic<uint32_t> tried_at; // when the table was last read, by its loader's clock
    char *name;                     // also the table's name; null for a list that was not loaded
    pthread_mutex_t mutex;
    std::atomic<uint32_t> references;
    ListIndex *index;  // null while the list is walked
    uint32_t nodes;    // their true number
    uint32_t expiring; // nodes that can expire; the index knows no time, so none may be in it
    uint32_t index_at; // number of nodes from which on an index is made
};

// --- lists and nodes -----------------------------------------------------------------------------

// A new empty list with one reference, for the variable that takes it; null without memory.
List *create_list();

// Lets go of the list in the caller's own variable, which becomes null. Nodes and record are freed
// at once, or when the last ListHold goes.
void free_list(List *&variable);

// Puts `fresh` into a variable that other threads read and lets go of the list that it held.
void publish_list(std::atomic<List *> &variable, List *fresh);

uint16_t get_list_size(const List *list); // 0 for null
bool _is_empty(List *list);               // true for null

// A new unlinked node with a copy of `frag`; null for a null text or without memory.
Node *create_node(const char *frag, int8_t opt);

// Frees a node that is in no list and clears the variable.
void free_node(Node *&node);

// Keeps a list alive, whatever happens to the variable that it was taken from. Holds nothing when
// the variable is null.
class ListHold {
    List *list_ = nullptr;

  public:
    ListHold() = default;
    explicit ListHold(const std::atomic<List *> &variable);
    ListHold(ListHold &&other) noexcept : list_(std::exchange(other.list_, nullptr)) {}
    ListHold &operator=(ListHold &&) = delete;
    ~ListHold();
    List *get() const { return list_; }
    List *operator->() const { return list_; }
    explicit operator bool() const { return list_; }
};

// --- lookups and edits ---------------------------------------------------------------------------

// Whether `key` matches a pattern of the list: 1 or 0. `matched`, unless null, receives a heap copy
// of that pattern, the first of the chain that matches. `flag` has no effect. Nodes found expired
// on the way are removed.
int find_in_list(const char *key, List *list, int flag, char **matched);

// Adds a pattern, unless the list matches its text as if that were a key, whatever the modes. Line
// feeds in `item` are replaced by NUL in place, so the pattern ends at the first. Returns
// LIST_OK, LIST_EXISTS, LIST_EMPTY_ITEM or LIST_INSERT_FAILED.
ListResult add_item(char *item, int8_t opt, List *list);

// The same for an item that must not be changed.
ListResult add_item_copy(const char *item, int8_t opt, List *list);

// Links a node in without regard for duplicates. 1 when the list took it; 0 when list, node or text
// is null, and the node stays the caller's.
int add_node(Node *node, List *list);

// Removes the first node whose text equals `frag`, which must not be a node's own text. Returns
// LIST_OK, LIST_IS_NULL or LIST_NOT_FOUND.
ListResult remove_item(const char *frag, List *list);

// The same for the text that row `id` of the list's table holds, disabled or not.
ListResult remove_item_by_id(long id, List *list);

// Disables, counts down and frees a node that is unlinked already, and clears the variable.
void remove_node(Node *&node, List *list);

// Disables the row of a node in the list's table; returns 1, or 0 when that failed.
int deactivate_node(const Node *node, const List *list);

// A new list with copies of the patterns `start` to `start + count - 1`, counted from 1; null when
// the list is null or empty. Free it with free_list(). Copies that a pattern copied before matches
// are left out, and a start of 0 gives one pattern less.
List *get_sub_list(List *list, int start, int count);

// --- diagnostics, without a caller in the daemon -------------------------------------------------

void print_node(const Node *node);
void print_all(List *list);
void print_list(List *list);
