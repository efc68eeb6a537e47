// The configuration library of OpenWrt, as far as this project and its tools call it: the same
// names, nesting, result codes, file format and pending-change files, so that one source builds
// against either. The layout of the structures is not the same: programs must be compiled anew.
// There is no override directory.
//
// A package is one file of the configuration directory: an ordered list of sections, each an
// ordered list of options. A context caches the packages it has loaded. Changes that are saved but
// not committed lie in one file per package in the save directory; every load applies them.
//
// Every int function returns UCI_OK or an error code and leaves the same code in ctx->err; a null
// context gives UCI_ERR_INVAL. One context serves one thread at a time; contexts are independent of
// each other. Lack of memory ends the process: UCI_ERR_MEM is never returned.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,
    UCI_ERR_INVAL,
    UCI_ERR_NOTFOUND,
    UCI_ERR_IO,
    UCI_ERR_PARSE,
    UCI_ERR_DUPLICATE,
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA,
    UCI_TYPE_PACKAGE,
    UCI_TYPE_SECTION,
    UCI_TYPE_OPTION,
    UCI_TYPE_PATH,
    UCI_TYPE_BACKEND,
    UCI_TYPE_ITEM,
    UCI_TYPE_HOOK
};

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

// Kept in a context for the sources that name them; they change nothing here.
enum uci_flags {
    UCI_FLAG_STRICT = 1 << 0,
    UCI_FLAG_PERROR = 1 << 1,
    UCI_FLAG_EXPORT_NAME = 1 << 2,
    UCI_FLAG_SAVED_DELTA = 1 << 3
};

// Circular, with a bare head node.
struct uci_list {
    struct uci_list *next, *prev;
};

struct uci_element {
    struct uci_list list;
    enum uci_type type;
    char *name;
};

struct uci_context {
    struct uci_list root; // the loaded packages
    enum uci_flags flags;
    char *confdir, *savedir;
    struct uci_list delta_path; // directories of pending changes; later ones win
    int err;
};

struct uci_package {
    struct uci_element e;
    struct uci_list sections;
    struct uci_context *ctx;
    bool has_delta; // false for a package that was loaded by its path
    char *path;
};

struct uci_section {
    struct uci_element e;
    struct uci_list options;
    struct uci_package *package;
    bool anonymous; // e.name is generated and not written to the file
    char *type;
};

struct uci_option {
    struct uci_element e;
    struct uci_section *section;
    enum uci_option_type type;
    union {
        struct uci_list list; // elements whose names are the items
        char *string;
    } v;
};

// What a lookup asks for and finds. The texts belong to the caller's key or to the objects found.
struct uci_ptr {
    enum uci_type target; // how deep the key goes, found or not
    enum {
        UCI_LOOKUP_DONE = 1 << 0,
        UCI_LOOKUP_COMPLETE = 1 << 1, // everything asked for was found
        UCI_LOOKUP_EXTENDED = 1 << 2  // the section is not a plain name
    } flags;
    struct uci_package *p;
    struct uci_section *s;
    struct uci_option *o;
    struct uci_element *last; // the deepest object found
    const char *package, *section, *option, *value;
};

// The caller frees the context with uci_free_context(), which drops unsaved changes.
struct uci_context *uci_alloc_context(void);
void uci_free_context(struct uci_context *ctx);

// The texts are copied; nothing is checked. The save directory becomes the last of the delta path,
// where the former ones stay.
int uci_set_confdir(struct uci_context *ctx, const char *dir);
int uci_set_savedir(struct uci_context *ctx, const char *dir);

// `package` may be null. A name that starts with "/" or "./" is a path: no pending changes apply.
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);
int uci_unload(struct uci_context *ctx, struct uci_package *p);

// Splits `str` (PACKAGE[.SECTION[.OPTION]][=VALUE]; written to, and kept by the caller as long as
// `ptr` is used) and finds what it names, loading the package when needed. With `extended`, a
// section may be written @TYPE[INDEX]. A missing section or option is no error: the result is
// UCI_OK without UCI_LOOKUP_COMPLETE. A null `str` takes the fields of `ptr` as they are.
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

// These change memory only. Neither names nor values are checked: a bad one is dropped, silently,
// when the change is read back, at the latest by uci_commit(). uci_set() with an empty value
// deletes. An item of a list cannot be deleted by its index: UCI_ERR_INVAL.
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type,
                    struct uci_section **res);
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr); // all items of that value

// Save appends own changes to the pending ones; commit merges all pending ones into the file, which
// keeps its bytes when there is none. A commit without `overwrite` reads the package anew: pointers
// into the old one die, and *p is null if that failed.
int uci_save(struct uci_context *ctx, struct uci_package *p);
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);

// The text of the last error, "PREFIX: " before it if `str` is given. The caller frees *dest.
void uci_perror(struct uci_context *ctx, const char *str);
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *str);

// Whether a value can be stored: no control characters but tab, newline and carriage return.
bool uci_validate_text(const char *str);

#ifndef container_of
#define container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))
#endif

#define list_to_element(ptr) container_of(ptr, struct uci_element, list)
#define uci_to_package(ptr) container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) container_of(ptr, struct uci_option, e)

#define uci_list_empty(ptr) ((ptr)->next == (ptr))

// Loops over the elements of a list; the safe one allows the removal of `_ptr`.
#define uci_foreach_element(_list, _ptr)                                                           \
    for ((_ptr) = list_to_element((_list)->next); &(_ptr)->list != (_list);                        \
         (_ptr) = list_to_element((_ptr)->list.next))
#define uci_foreach_element_safe(_list, _tmp, _ptr)                                                \
    for ((_ptr) = list_to_element((_list)->next), (_tmp) = list_to_element((_ptr)->list.next);     \
         &(_ptr)->list != (_list); (_ptr) = (_tmp), (_tmp) = list_to_element((_ptr)->list.next))

// The object of this name among those in memory, or null.
static inline struct uci_element *uci_find_element(struct uci_list *list, const char *name) {
    struct uci_element *e;
    uci_foreach_element(list, e) {
        if (strcmp(e->name, name) == 0)
            return e;
    }
    return nullptr;
}

static inline struct uci_package *uci_lookup_package(struct uci_context *ctx, const char *name) {
    struct uci_element *e = uci_find_element(&ctx->root, name);
    return e ? uci_to_package(e) : nullptr;
}

static inline struct uci_section *uci_lookup_section(struct uci_context *ctx, struct uci_package *p,
                                                     const char *name) {
    struct uci_element *e = uci_find_element(&p->sections, name);
    (void)ctx;
    return e ? uci_to_section(e) : nullptr;
}

static inline struct uci_option *uci_lookup_option(struct uci_context *ctx, struct uci_section *s,
                                                   const char *name) {
    struct uci_element *e = uci_find_element(&s->options, name);
    (void)ctx;
    return e ? uci_to_option(e) : nullptr;
}

static inline const char *uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s,
                                                   const char *name) {
    struct uci_option *o = uci_lookup_option(ctx, s, name);
    return o && o->type == UCI_TYPE_STRING ? o->v.string : nullptr;
}

#ifdef __cplusplus
}
#endif
