#include "internal.h"

#include <cstdlib>
#include <cstring>

namespace uci {

void note(Package &package, char prefix, const char *section, const char *option,
          const char *value) {
    std::string &out = package.pending;
    if (prefix)
        out += prefix;
    out.append(package.e.name).append(1, '.').append(section);
    if (option)
        out.append(1, '.').append(option);
    if (value) {
        out += "='";
        append_quoted(out, value);
        out += '\'';
    }
    out += '\n';
}

// The operations that only other programs write. The pointer has been looked up.

static bool rename(uci_ptr &ptr) {
    if (!is_plain_name(ptr.value) || !(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return false;
    assign(ptr.o ? ptr.o->e.name : ptr.s->e.name, ptr.value);
    if (!ptr.o)
        ptr.s->anonymous = false;
    return true;
}

static bool move(uci_ptr &ptr) {
    if (!ptr.s || ptr.option)
        return false;
    uci_list &sections = ptr.p->sections;
    detach(ptr.s->e.list);
    uci_list *place = sections.next;
    for (long n = strtol(ptr.value, nullptr, 10); n > 0 && place != &sections; --n)
        place = place->next;
    insert_before(*place, ptr.s->e.list);
    return true;
}

static bool apply(Context &ctx, uci_ptr &ptr, char prefix) {
    lookup(ctx, ptr, false);
    switch (prefix) {
    case '-':
        return remove(ctx, ptr, false) == UCI_OK;
    case '|':
        return add_list(ctx, ptr, false) == UCI_OK;
    case '@':
        return rename(ptr);
    case '^':
        return move(ptr);
    case '~':
        return del_list(ctx, ptr, false) == UCI_OK;
    default:
        if (set(ctx, ptr, false) != UCI_OK)
            return false;
        if (prefix == '+' && !ptr.option && ptr.s)
            ptr.s->anonymous = true;
        return true;
    }
}

// Whether the line, with any that it runs on to, is a change of this package that could be made.
static bool apply_line(Context &ctx, Package &package, Scanner &in) {
    in.skip_white();
    const char prefix = in.take("+-@^|~");
    std::string line;
    uci_ptr ptr;
    if (!in.argument(line) || !in.at_end() || !split_key(ptr, line.data()))
        return false;
    if (strcmp(ptr.package, package.e.name) != 0 || !ptr.section ||
        (ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED) || (!ptr.value && prefix != '-'))
        return false;
    ptr.p = &package;
    return apply(ctx, ptr, prefix);
}

size_t apply_delta(Context &ctx, Package &package, std::string_view text) {
    size_t accepted = 0;
    for (Scanner in(text); in.next_line();)
        accepted += apply_line(ctx, package, in);
    return accepted;
}

} // namespace uci
