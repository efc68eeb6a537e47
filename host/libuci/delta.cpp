#include "internal.h"

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

// The operation of a line, by its prefix; 0 sets.
static int apply(Context &ctx, uci_ptr &ptr, char prefix) {
    switch (prefix) {
    case '-':
        return remove(ctx, ptr, false);
    case '@':
        return is_plain_name(ptr.value) ? rename(ctx, ptr) : UCI_ERR_INVAL;
    case '^':
        return ptr.option ? UCI_ERR_INVAL : move(ctx, ptr);
    case '|':
        return add_list(ctx, ptr, false);
    case '~':
        return remove_from_list(ctx, ptr);
    default:
        if (const int rc = set(ctx, ptr, false))
            return rc;
        if (prefix == '+' && !ptr.option && ptr.s)
            ptr.s->anonymous = true;
        return UCI_OK;
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
    if (std::strcmp(ptr.package, package.e.name) != 0 || !ptr.section ||
        (ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED) || (!ptr.value && prefix != '-'))
        return false;
    ptr.p = &package;
    return apply(ctx, ptr, prefix) == UCI_OK;
}

size_t apply_delta(Context &ctx, Package &package, std::string_view text) {
    size_t accepted = 0;
    for (Scanner in(text); in.next_line();)
        accepted += apply_line(ctx, package, in);
    return accepted;
}

} // namespace uci
