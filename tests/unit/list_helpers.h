// What the tests of the pattern lists see of a list.
#pragma once

#include "guards.h"
#include "list.h"

#include <string>

// "text:mode text:mode " along the chain.
inline std::string chain(const List *list) {
    std::string text;
    for (const Node *node = list ? list->head : nullptr; node; node = node->next)
        text += std::string(node->frag) + ':' + std::to_string(node->opt) + ' ';
    return text;
}

// The pattern that a lookup reports, or "-".
inline std::string found(const std::string &key, List *list) {
    char *matched = nullptr;
    const int result = find_in_list(key.c_str(), list, 0, &matched);
    const OwnedText owner(matched);
    return result ? matched : "-";
}

struct FreeList {
    void operator()(List *list) const { free_list(list); }
};

// A list for the life of a scope, that may be missing.
struct TestList : std::unique_ptr<List, FreeList> {
    explicit TestList(List *list = create_list()) : unique_ptr(list) {}
    operator List *() const { return get(); }
};
