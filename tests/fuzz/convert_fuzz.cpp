// Two lists from anyone, the byte 0xff between them: the patterns of each are names of several
// labels in pairs, none within another, and the difference leads from the first output to the
// second.
#include "converted.h"
#include "fuzz.h"

#include <regex.h>
#include <set>

using Set = std::set<std::string, std::less<>>;

static regex_t compiled(const std::string &form) {
    regex_t regex;
    check(regcomp(&regex, form.c_str(), REG_EXTENDED | REG_NOSUB) == 0);
    return regex;
}

static bool matches(const std::string &text, const regex_t &form) {
    return regexec(&form, text.c_str(), 0, nullptr, 0) == 0;
}

// Labels as RFC 1123 has them and with underscores, at least two, the last one not a number.
static bool is_name(const std::string &name) {
    static const std::string label = "[a-z0-9_]([a-z0-9_-]{0,61}[a-z0-9_])?";
    static const regex_t form = compiled("^(" + label + "\\.)+" + label + "$");
    static const regex_t number_at_end = compiled("\\.[0-9]+$");
    return name.size() <= LONGEST_STORED_NAME && name.find('\0') == name.npos &&
           matches(name, form) && !matches(name, number_at_end);
}

// The lines of an output, each once.
static Set lines_of(std::string_view text) {
    Set lines;
    for (size_t end; !text.empty(); text.remove_prefix(end + 1)) {
        end = text.find('\n');
        check(end != text.npos && lines.emplace(text.substr(0, end)).second);
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

// Puts names in order and takes those below others out, and no others. The patterns.
static Set settle(Names &names) {
    check(arrange(names));
    const Set all = lines_of(written(names));
    drop_covered(names);
    const Set kept = lines_of(written(names));
    for (const std::string &line : all)
        check(kept.contains(line) != is_covered(line, kept));
    for (const std::string &line : kept) {
        const bool is_below = line[0] == '.';
        const std::string name = line.substr(is_below, line.size() - 2 - is_below);
        check(line.ends_with(is_below ? ",1" : ",4") && is_name(name) &&
              kept.contains('.' + name + ",1"));
    }
    return kept;
}

// The patterns of the first set that the second lacks, as lines of a kind.
static Set difference(const Set &one, const Set &other, LineKind kind) {
    Set lines;
    for (const std::string &line : one)
        if (!other.contains(line))
            lines.insert(kind == LineKind::ADDED ? line : '~' + line.substr(0, line.size() - 2));
    return lines;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view input = text_of(data, size);
    const size_t middle = std::min(input.find('\xff'), size);
    Lists before;
    Lists after;
    check(read_text(input.substr(0, middle), before) && before.known <= before.lines &&
          read_text(input.substr(std::min(middle + 1, size)), after));
    const Set lines = settle(before.black);
    const Set next = settle(after.black);
    settle(after.white);

    const std::string output = written(before.black);
    Names old;
    uint32_t bad_line = 0;
    check(read_output(output, old, bad_line) && arrange(old) && written(old) == output);
    check(lines_of(written(old, after.black, LineKind::REMOVED)) ==
              difference(lines, next, LineKind::REMOVED) &&
          lines_of(written(after.black, old)) == difference(next, lines, LineKind::ADDED));

    // Anyone's text as the output of an earlier run.
    Names foreign;
    if (read_output(input, foreign, bad_line))
        check(arrange(foreign));
    return 0;
}
