// Two lists from anyone, the byte 0xff between them: the patterns of each are names of several
// labels in pairs, none within another, and the difference leads from the first output to the
// second.
#include "fuzz.h"
#include "guards.h"
#include "listlines.h"
#include "patterns.h"

#include <set>
#include <vector>

using Set = std::set<std::string, std::less<>>;

static std::string patterns(const Names &names, const Names &others, LineKind kind) {
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    write_patterns(out, names, others, kind);
    check(fclose(out) == 0);
    const OwnedText owner(text);
    return {text, size};
}

static FILE *open_text(std::string_view text) {
    return fmemopen(const_cast<char *>(text.data()), text.size(), "r");
}

// A check of its own: labels as RFC 1123 has them, at least two.
static bool is_name(std::string_view name) {
    size_t labels = 0;
    bool is_number = false;
    for (size_t begin = 0; begin <= name.size(); labels++) {
        const size_t end = std::min(name.find('.', begin), name.size());
        const std::string_view label = name.substr(begin, end - begin);
        static constexpr char DIGITS[] = "0123456789";
        is_number = label.find_first_not_of(DIGITS) == label.npos;
        const bool has_others =
            label.find_first_not_of("abcdefghijklmnopqrstuvwxyz_-0123456789") != label.npos;
        if (label.empty() || label.size() > 63 || has_others || label[0] == '-' ||
            label[label.size() - 1] == '-')
            return false;
        begin = end + 1;
    }
    return labels > 1 && !is_number && name.size() <= LONGEST_STORED_NAME;
}

// The lines of an output, each ended.
static std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        check(end != text.npos);
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    return lines;
}

// Whether a pattern for what is below a name that this one is below is among them.
static bool is_covered(std::string_view line, const Set &all) {
    const std::string_view name = line.substr(line[0] == '.', line.find(',') - (line[0] == '.'));
    for (size_t dot = name.find('.'); dot != name.npos; dot = name.find('.', dot + 1))
        if (all.contains(std::string(name.substr(dot)) + ",1"))
            return true;
    return false;
}

// The patterns of a whole output.
static Set checked(const std::string &output) {
    Set all;
    for (std::string_view line : lines_of(output)) {
        const bool is_below = line[0] == '.';
        check(line.ends_with(is_below ? ",1" : ",4") && all.emplace(line).second);
        check(is_name(line.substr(is_below, line.size() - 2 - is_below)));
    }
    for (const std::string_view line : all)
        check(!is_covered(line, all) &&
              (line[0] == '.' || all.contains('.' + std::string(line, 0, line.size() - 1) + '1')));
    return all;
}

// Puts names in order and takes those below others out, and no others.
static Set settle(Names &names) {
    check(arrange(names));
    const std::string all = patterns(names, {}, LineKind::ADDED);
    drop_covered(names);
    Set kept = checked(patterns(names, {}, LineKind::ADDED));
    for (const std::string_view line : lines_of(all))
        check(kept.contains(line) || is_covered(line, kept));
    return kept;
}

static void read_text(std::string_view text, Lists &lists) {
    lists.wants_white = true;
    const OwnedFile file(text.empty() ? nullptr : open_text(text));
    check(!file || read_list(file.get(), lists));
    check(lists.known <= lists.lines);
}

static Set apply(Set lines, const Set &next, const std::string &gone, const std::string &added) {
    for (const std::string_view line : lines_of(gone)) {
        const std::string pattern = std::string(line.substr(1)) + (line[1] == '.' ? ",1" : ",4");
        check(line[0] == '~' && !next.contains(pattern) && lines.erase(pattern) == 1);
    }
    for (const std::string_view line : lines_of(added))
        check(lines.emplace(line).second);
    return lines;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t middle = std::min(input.find('\xff'), size);
    Lists before;
    Lists after;
    read_text(input.substr(0, middle), before);
    read_text(input.substr(std::min(middle + 1, size)), after);
    const Set lines = settle(before.black);
    const Set next = settle(after.black);
    settle(after.white);

    const std::string output = patterns(before.black, {}, LineKind::ADDED);
    Names old;
    uint32_t bad_line = 0;
    const OwnedFile file(output.empty() ? nullptr : open_text(output));
    check((!file || read_patterns(file.get(), old, bad_line)) && arrange(old));
    check(patterns(old, {}, LineKind::ADDED) == output);
    check(apply(lines, next, patterns(old, after.black, LineKind::REMOVED),
                patterns(after.black, old, LineKind::ADDED)) == next);

    // Anyone's text as the output of an earlier run.
    Names foreign;
    const OwnedFile text(size ? open_text(input) : nullptr);
    if (text && read_patterns(text.get(), foreign, bad_line))
        check(arrange(foreign));
    return 0;
}
