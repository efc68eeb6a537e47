// The collections are ordered lists: a process has a handful of nodes in each, and a list keeps
// their order without the balancing of a tree.
extern "C" {
#include <libubox/avl.h>
}

// The first node that is not before `key`, or the list's head.
static list_head *first_not_before(const avl_tree *tree, const void *key) {
    list_head *at = tree->list_head.next;
    while (at != &tree->list_head &&
           tree->comp(container_of(at, avl_node, list)->key, key, tree->cmp_ptr) < 0)
        at = at->next;
    return at;
}

static bool is_equal(const avl_tree *tree, list_head *at, const void *key) {
    return at != &tree->list_head &&
           tree->comp(container_of(at, avl_node, list)->key, key, tree->cmp_ptr) == 0;
}

void avl_init(avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) {
    INIT_LIST_HEAD(&tree->list_head);
    tree->root = nullptr;
    tree->count = 0;
    tree->allow_dups = allow_dups;
    tree->comp = comp;
    tree->cmp_ptr = ptr;
}

avl_node *avl_find(const avl_tree *tree, const void *key) {
    list_head *at = first_not_before(tree, key);
    return is_equal(tree, at, key) ? container_of(at, avl_node, list) : nullptr;
}

int avl_insert(avl_tree *tree, avl_node *node) {
    list_head *at = first_not_before(tree, node->key);
    for (; is_equal(tree, at, node->key); at = at->next) // a new duplicate goes behind the others
        if (!tree->allow_dups)
            return -1;
    list_add_tail(&node->list, at);
    tree->count++;
    return 0;
}

void avl_delete(avl_tree *tree, avl_node *node) {
    list_del(&node->list);
    tree->count--;
}
