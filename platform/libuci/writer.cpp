#include "internal.h"

namespace uci {

void append_quoted(std::string &out, std::string_view text) {
    for (const char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
}

static void append_line(std::string &out, const char *keyword, const char *name,
                        const char *value) {
    out += keyword;
    // Names stand without quotes: a section type with a quote or a semicolon does not survive.
    append_quoted(out, name);
    if (value) {
        out += " '";
        append_quoted(out, value);
        out += '\'';
    }
    out += '\n';
}

std::string export_package(const Package &package) {
    std::string out;
    uci_element *s, *o, *item;
    uci_foreach_element(&package.sections, s) {
        const uci_section &section = *uci_to_section(s);
        out += '\n';
        append_line(out, "config ", section.type, section.anonymous ? nullptr : s->name);
        uci_foreach_element(&section.options, o) {
            const uci_option &option = *uci_to_option(o);
            if (option.type == UCI_TYPE_STRING) {
                append_line(out, "\toption ", o->name, option.v.string);
                continue;
            }
            uci_foreach_element(&option.v.list, item) {
                append_line(out, "\tlist ", o->name, item->name);
            }
        }
    }
    out += '\n';
    return out;
}

} // namespace uci
