// Circular doubly linked lists, threaded through the structures that are listed. A head is itself a
// `struct list_head`; an empty list is a head that points at itself. Nothing here allocates.
//
// These headers declare what this project's programs call of the router's library; they add nothing
// to it. None has an `extern "C"` of its own: C++ sources wrap their includes.
#pragma once

#include <stdbool.h>
#include <stddef.h>

struct list_head {
    struct list_head *next, *prev;
};

// The structure of type `type` whose member `member` is at `ptr`.
#define container_of(ptr, type, member)                                                            \
    __extension__({                                                                                \
        const __typeof__(((type *)NULL)->member) *member_ptr_ = (ptr);                             \
        (type *)((char *)member_ptr_ - offsetof(type, member));                                    \
    })

#undef LIST_HEAD // <sys/queue.h> has another one
#define LIST_HEAD_INIT(name)                                                                       \
    { &(name), &(name) }
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)
#define prefetch(x)

static inline void INIT_LIST_HEAD(struct list_head *list) {
    list->next = list->prev = list;
}

static inline bool list_empty(const struct list_head *head) {
    return head->next == head;
}

// Puts `entry` right after `head`, that is first in the list.
static inline void list_add(struct list_head *entry, struct list_head *head) {
    entry->next = head->next;
    entry->prev = head;
    head->next->prev = entry;
    head->next = entry;
}

// Puts `entry` right before `head`, that is last in the list.
static inline void list_add_tail(struct list_head *entry, struct list_head *head) {
    list_add(entry, head->prev);
}

static inline void list_del(struct list_head *entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = entry->prev = NULL;
}

// Unlinks `entry` and leaves it an empty head, so that it may be unlinked again.
static inline void list_del_init(struct list_head *entry) {
    list_del(entry);
    INIT_LIST_HEAD(entry);
}

#define list_first_entry(head, type, member) container_of((head)->next, type, member)

#define list_for_each_entry(pos, head, member)                                                     \
    for (pos = list_first_entry(head, __typeof__(*pos), member); &pos->member != (head);           \
         pos = container_of(pos->member.next, __typeof__(*pos), member))

// As above; the body may unlink or free `pos`.
#define list_for_each_entry_safe(pos, tmp, head, member)                                           \
    for (pos = list_first_entry(head, __typeof__(*pos), member),                                   \
        tmp = container_of(pos->member.next, __typeof__(*pos), member);                            \
         &pos->member != (head);                                                                   \
         pos = tmp, tmp = container_of(pos->member.next, __typeof__(*pos), member))
