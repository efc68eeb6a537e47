#include "internal.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace uci {

char *copy(std::string_view text) {
    auto *result = static_cast<char *>(malloc(text.size() + 1));
    if (!result)
        abort();
    std::copy(text.begin(), text.end(), result);
    result[text.size()] = '\0';
    return result;
}

void assign(char *&slot, std::string_view text) {
    char *old = slot;
    slot = copy(text);
    free(old);
}

bool is_plain_name(std::string_view text, char extra) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [extra](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == extra;
    });
}

bool is_printable(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127; });
}

void clear(uci_list &head) {
    head.next = head.prev = &head;
}

void insert_before(uci_list &next, uci_list &node) {
    node.next = &next;
    node.prev = next.prev;
    next.prev->next = &node;
    next.prev = &node;
}

void detach(uci_list &node) {
    node.prev->next = node.next;
    node.next->prev = node.prev;
    clear(node);
}

static void init_element(uci_element &e, uci_list &list, uci_type type, std::string_view name) {
    e.type = type;
    e.name = copy(name);
    insert_before(list, e.list);
}

// "cfg", the number of the section and a hash of its type. Delta files refer to sections by these
// names, so they must come out the same in every process.
static std::string generated_name(const Package &package, const char *type) {
    uint32_t hash = 5381;
    for (; *type; ++type)
        hash = hash * 33 + static_cast<unsigned char>(*type);
    char name[32];
    snprintf(name, sizeof name, "cfg%02x%04x", package.sections_made, hash & 0xffff);
    return name;
}

OwnedPackage new_package(Context &ctx, std::string_view name, std::string_view path,
                         bool has_delta) {
    OwnedPackage package(new Package{});
    clear(package->sections);
    package->ctx = &ctx;
    package->has_delta = has_delta;
    package->path = copy(path);
    package->e.type = UCI_TYPE_PACKAGE;
    package->e.name = copy(name);
    clear(package->e.list);
    return package;
}

uci_section &add_section(Package &package, const char *type, const char *name) {
    ++package.sections_made;
    auto *section = new uci_section{};
    section->anonymous = !name;
    section->package = &package;
    section->type = copy(type);
    clear(section->options);
    init_element(section->e, package.sections, UCI_TYPE_SECTION,
                 name ? name : generated_name(package, type));
    return *section;
}

uci_option &add_option(uci_section &section, const char *name) {
    auto *option = new uci_option{};
    option->section = &section;
    init_element(option->e, section.options, UCI_TYPE_OPTION, name);
    return *option;
}

uci_element &add_element(uci_list &list, uci_type type, const char *name) {
    auto *e = new uci_element{};
    init_element(*e, list, type, name);
    return *e;
}

static void free_value(uci_option &option) {
    if (option.type == UCI_TYPE_STRING) {
        free(option.v.string);
        return;
    }
    uci_element *e, *next;
    uci_foreach_element_safe(&option.v.list, next, e) {
        free_element(*e);
    }
}

void set_string(uci_option &option, const char *text) {
    char *string = copy(text);
    free_value(option);
    option.type = UCI_TYPE_STRING;
    option.v.string = string;
}

void append_item(uci_option &option, const char *text) {
    char *first = nullptr;
    if (option.type == UCI_TYPE_STRING) {
        first = option.v.string;
        option.type = UCI_TYPE_LIST;
        clear(option.v.list);
        if (first)
            add_element(option.v.list, UCI_TYPE_ITEM, first);
    }
    add_element(option.v.list, UCI_TYPE_ITEM, text);
    free(first);
}

template <typename Object>
static void destroy(Object &object, uci_element &e) {
    detach(e.list);
    free(e.name);
    delete &object;
}

void free_element(uci_element &e) {
    destroy(e, e);
}

void free_option(uci_option &option) {
    free_value(option);
    destroy(option, option.e);
}

void free_section(uci_section &section) {
    uci_element *e, *next;
    uci_foreach_element_safe(&section.options, next, e) {
        free_option(*uci_to_option(e));
    }
    free(section.type);
    destroy(section, section.e);
}

void free_package(Package &package) {
    uci_element *e, *next;
    uci_foreach_element_safe(&package.sections, next, e) {
        free_section(*uci_to_section(e));
    }
    free(package.path);
    destroy(package, package.e);
}

} // namespace uci

bool uci_validate_text(const char *str) {
    if (!str)
        return false;
    for (; *str; ++str) {
        if (static_cast<unsigned char>(*str) < 32 && !strchr("\t\n\r", *str))
            return false;
    }
    return true;
}
