#include "names.h"

#include <algorithm>
#include <cstring>

static constexpr size_t LONGEST_LABEL = 63;
static constexpr uint32_t SMALLEST_BLOCK = 65536;

// --- host names ----------------------------------------------------------------------------------

static char lower(char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 'a' - 'A' : c);
}

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

static bool is_label(std::string_view label) {
    return !label.empty() && label.size() <= LONGEST_LABEL && label.front() != '-' &&
           label.back() != '-' && std::all_of(label.begin(), label.end(), [](char c) {
               return (lower(c) >= 'a' && lower(c) <= 'z') || is_digit(c) || c == '-' || c == '_';
           });
}

bool is_host_name(std::string_view name) {
    if (name.size() > LONGEST_NAME)
        return false;
    for (size_t dot = name.find('.'); dot != std::string_view::npos; dot = name.find('.')) {
        if (!is_label({name.data(), dot}))
            return false;
        name.remove_prefix(dot + 1);
    }
    return is_label(name) && !std::all_of(name.begin(), name.end(), is_digit);
}

// --- sets ----------------------------------------------------------------------------------------

// The block grows by half: a large one moves without a copy, and what is not written to takes no
// memory.
static bool make_room(Names &names, uint32_t size) {
    if (size <= names.capacity - names.used)
        return true;
    const uint64_t wanted =
        std::max<uint64_t>(SMALLEST_BLOCK, uint64_t{names.capacity} + names.capacity / 2);
    if (wanted > UINT32_MAX)
        return false;
    auto *text = static_cast<char *>(realloc(names.text, static_cast<size_t>(wanted)));
    if (!text)
        return false;
    names.text = text;
    names.capacity = static_cast<uint32_t>(wanted);
    return true;
}

bool add_name(Names &names, std::string_view name, uint8_t cover) {
    const auto size = static_cast<uint32_t>(name.size() + 2);
    if (!make_room(names, size))
        return false;
    const uint32_t place = names.used + 1;
    char *text = names.text + place;
    text[-1] = static_cast<char>(cover);
    for (size_t i = name.size(); i-- > 0;)
        *text++ = name[i] == '.' ? LABEL_END : lower(name[i]);
    *text = '\0';
    // The two lines of one name in a list file follow each other.
    if (names.count > 0 && strcmp(names.text + names.last, names.text + place) == 0) {
        names.text[names.last - 1] |= static_cast<char>(cover);
        names.merged++;
        return true;
    }
    names.last = place;
    names.used += size;
    names.count++;
    return true;
}

bool arrange(Names &names) {
    names.order = static_cast<uint32_t *>(calloc(size_t{names.count} + 1, sizeof(uint32_t)));
    if (!names.order)
        return false;
    char *const text = names.text;
    uint32_t place = 1;
    for (uint32_t i = 0; i < names.count; i++) {
        names.order[i] = place;
        place += static_cast<uint32_t>(strlen(text + place)) + 2;
    }
    std::sort(names.order, names.order + names.count, [text](uint32_t one, uint32_t other) {
        return strcmp(text + one, text + other) < 0;
    });
    uint32_t kept = 0;
    for (uint32_t i = 0; i < names.count; i++) {
        const uint32_t current = names.order[i];
        if (kept > 0 && strcmp(text + names.order[kept - 1], text + current) == 0)
            text[names.order[kept - 1] - 1] |= text[current - 1];
        else
            names.order[kept++] = current;
    }
    names.merged += names.count - kept;
    names.count = kept;
    return true;
}

static bool is_below(const char *key, const char *above) {
    const size_t length = strlen(above);
    return (above[-1] & BELOW) && strncmp(key, above, length) == 0 && key[length] == LABEL_END;
}

void drop_covered(Names &names) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < names.count; i++)
        if (kept == 0 || !is_below(name_key(names, i), name_key(names, kept - 1)))
            names.order[kept++] = names.order[i];
    names.covered += names.count - kept;
    names.count = kept;
}
