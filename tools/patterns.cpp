#include "patterns.h"

#include "lines.h"

#include <cstring>

// --- writing -------------------------------------------------------------------------------------

static void write_line(FILE *out, LineKind kind, const char *front, const char *name,
                       const char *mode) {
    if (kind == LineKind::REMOVED)
        putc('~', out);
    fputs(front, out);
    fputs(name, out);
    if (kind == LineKind::ADDED)
        fputs(mode, out);
    putc('\n', out);
}

static void write_name(FILE *out, LineKind kind, const char *key, unsigned cover) {
    char name[LONGEST_NAME + 1];
    const size_t length = strlen(key);
    for (size_t i = 0; i < length; i++)
        name[length - 1 - i] = key[i] == LABEL_END ? '.' : key[i];
    name[length] = '\0';
    if (cover & EXACT)
        write_line(out, kind, "", name, ",4");
    if (cover & BELOW)
        write_line(out, kind, ".", name, ",1");
}

void write_patterns(FILE *out, const Names &names, const Names &others, LineKind kind) {
    uint32_t other = 0;
    for (uint32_t i = 0; i < names.count; i++) {
        const char *key = name_key(names, i);
        int order = 1;
        while (other < others.count && (order = strcmp(name_key(others, other), key)) < 0)
            other++;
        const bool is_shared = other < others.count && order == 0;
        const unsigned shared = is_shared ? name_cover(others, other) : 0;
        write_name(out, kind, key, name_cover(names, i) & ~shared);
    }
}

// --- reading -------------------------------------------------------------------------------------

static bool read_pattern(std::string_view line, Names &names) {
    const bool is_below = line.starts_with('.') && line.ends_with(",1");
    if (!is_below && !line.ends_with(",4"))
        return false;
    line.remove_suffix(2);
    if (is_below)
        line.remove_prefix(1);
    return is_host_name(line) && add_name(names, line, is_below ? BELOW : EXACT);
}

bool read_patterns(FILE *in, Names &names, uint32_t &bad_line) {
    static LineReader reader;
    reader.file = in;
    std::string_view line;
    for (bad_line = 1; next_line(reader, line); bad_line++)
        if (!read_pattern(line, names))
            return false;
    bad_line = 0;
    return !ferror(in);
}
