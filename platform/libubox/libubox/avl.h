// Ordered collections keyed by what `key` of each node points at. The bus structures have such
// members; programs seldom touch them.
#pragma once

#include "list.h"

#include <stdbool.h>

// Less than, equal to or greater than 0, as k1 is before, equal to or after k2.
typedef int (*avl_tree_comp)(const void *k1, const void *k2, void *ptr);

struct avl_node {
    struct list_head list;
    struct avl_node *parent, *left, *right;
    const void *key;
    signed char balance;
    bool leader;
};

struct avl_tree {
    struct list_head list_head; // all nodes in order of their keys
    struct avl_node *root;
    unsigned int count;
    bool allow_dups;
    avl_tree_comp comp;
    void *cmp_ptr;
};

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr);
// 0, or -1 when the key exists and duplicates are not allowed.
int avl_insert(struct avl_tree *tree, struct avl_node *node);
void avl_delete(struct avl_tree *tree, struct avl_node *node);
// The (first) node with that key, or null.
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);
