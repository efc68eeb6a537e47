#include "internal.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace uci {

bool split_key(uci_ptr &ptr, char *key) {
    ptr = {};
    if (char *equals = strchr(key, '=')) {
        *equals = '\0';
        ptr.value = equals + 1;
    }
    const char **const parts[] = {&ptr.package, &ptr.section, &ptr.option};
    size_t count = 0;
    while (key && count < std::size(parts))
        *parts[count++] = strsep(&key, ".");
    const bool good = !key && is_printable(ptr.package) &&
                      (!ptr.option || is_plain_name(ptr.option)) &&
                      (!ptr.value || uci_validate_text(ptr.value));
    if (!good) {
        ptr = {};
        return false;
    }
    ptr.target = static_cast<uci_type>(UCI_TYPE_PACKAGE + count - 1);
    if (ptr.section && !is_plain_name(ptr.section))
        ptr.flags = uci_ptr::UCI_LOOKUP_EXTENDED;
    return true;
}

// Finds @TYPE[INDEX]: the index counts sections of this type, or of any type if it is empty, in
// file order; a negative one counts from the end. False: the text has another shape.
static bool find_indexed(uci_package &package, const char *text, uci_section *&found) {
    found = nullptr;
    const char *bracket = strchr(text, '[');
    if (*text != '@' || !bracket)
        return false;
    const std::string_view type(text + 1, static_cast<size_t>(bracket - text - 1));
    if (!type.empty() && !is_printable(type))
        return false;
    char *tail;
    long index = strtol(bracket + 1, &tail, 10);
    if (strcmp(tail, "]") != 0)
        return false;

    std::vector<uci_section *> matches;
    uci_element *e;
    uci_foreach_element(&package.sections, e) {
        if (type.empty() || uci_to_section(e)->type == type)
            matches.push_back(uci_to_section(e));
    }
    const auto count = static_cast<long>(matches.size());
    if (index < 0)
        index += count;
    if (index >= 0 && index < count)
        found = matches[static_cast<size_t>(index)];
    return true;
}

static void add_flag(uci_ptr &ptr, int flag) {
    ptr.flags = static_cast<decltype(ptr.flags)>(ptr.flags | flag);
}

static int find_section(uci_ptr &ptr, bool extended) {
    if (ptr.s)
        return UCI_OK;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED)) {
        ptr.s = uci_lookup_section(nullptr, ptr.p, ptr.section);
        return UCI_OK;
    }
    if (!extended)
        return UCI_ERR_INVAL;
    if (!find_indexed(*ptr.p, ptr.section, ptr.s)) {
        ptr = {};
        return UCI_ERR_INVAL;
    }
    if (ptr.s)
        ptr.section = ptr.s->e.name;
    return UCI_OK;
}

int lookup(Context &ctx, uci_ptr &ptr, bool extended) {
    add_flag(ptr, uci_ptr::UCI_LOOKUP_DONE);
    ptr.last = nullptr;
    if (!ptr.p) {
        if (!ptr.package)
            return UCI_ERR_INVAL;
        ptr.p = find_loaded(ctx, ptr.package);
        if (!ptr.p) {
            if (const int rc = load(ctx, ptr.package, ptr.p))
                return rc;
        }
    }
    ptr.last = &ptr.p->e;
    if (ptr.section || ptr.s) {
        if (const int rc = find_section(ptr, extended))
            return rc;
        if (!ptr.s)
            return UCI_OK;
        ptr.last = &ptr.s->e;
        if (ptr.option) {
            ptr.o = uci_lookup_option(&ctx, ptr.s, ptr.option);
            if (!ptr.o)
                return UCI_OK;
            ptr.last = &ptr.o->e;
        }
    }
    add_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

} // namespace uci

int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended) {
    return uci::finish(ctx, ptr, [&](uci::Context &own) -> int {
        if (str && !uci::split_key(*ptr, str))
            return UCI_ERR_PARSE;
        return uci::lookup(own, *ptr, extended);
    });
}
