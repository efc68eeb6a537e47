// Gives SQLite the C library's heap where a sanitizer has replaced it: SQLite is not what is
// watched, and takes most of the time otherwise. Before the first call of SQLite.
#pragma once

#include "fuzz.h"

#include <malloc.h>
#include <sqlite3.h>

extern "C" {
void *__libc_malloc(size_t size);
void __libc_free(void *memory);
void *__libc_realloc(void *memory, size_t size);
}

// Each block begins with its size.
inline void take_own_heap() {
    static constexpr auto start = [](void *block, int size) {
        *static_cast<int64_t *>(block) = size;
        return static_cast<void *>(static_cast<int64_t *>(block) + 1);
    };
    static constexpr auto block = [](void *memory) { return static_cast<int64_t *>(memory) - 1; };
    static const sqlite3_mem_methods methods = {
        [](int size) { return start(__libc_malloc(static_cast<size_t>(size) + 8), size); },
        [](void *memory) { __libc_free(block(memory)); },
        [](void *memory, int size) {
            return start(__libc_realloc(block(memory), static_cast<size_t>(size) + 8), size);
        },
        [](void *memory) { return static_cast<int>(*block(memory)); },
        [](int size) { return (size + 7) & ~7; },
        [](void *) { return SQLITE_OK; },
        [](void *) {},
        nullptr};
    check(sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK);
}
