#include "listlines.h"

#include "lines.h"
#include "patterns.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <strings.h>

using std::string_view;

const char *const REASONS[LEFT_OUT_REASONS] = {
    "rules with other options",
    "rules for parts of pages",
    "records and routes of their own",
    "white entries, without -w",
    "no host names",
    "names longer than a list can store",
    "single labels",
    "lines in no known form",
    "lines that are too long",
};

// What hosts files say of the machine itself.
static constexpr string_view USUAL_NAMES[] = {
    "0.0.0.0",         "broadcasthost",
    "ip6-allhosts",    "ip6-allnodes",
    "ip6-allrouters",  "ip6-localhost",
    "ip6-localnet",    "ip6-loopback",
    "ip6-mcastprefix", "local",
    "localhost",       "localhost.localdomain",
    "localhost4",      "localhost4.localdomain4",
    "localhost6",      "localhost6.localdomain6",
};

// The options that do not keep a rule from holding for every query for the name.
static constexpr string_view RULE_OPTIONS[] = {"important", "all", "document"};

// The answers that mean "blocked". A missing one does, too.
static constexpr string_view BLOCKING_ANSWERS[] = {"#", "0.0.0.0", "127.0.0.1", "::", "::1"};

static constexpr string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

// --- texts ---------------------------------------------------------------------------------------

static bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

static string_view trim(string_view text) {
    while (!text.empty() && is_blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_blank(text.back()))
        text.remove_suffix(1);
    return text;
}

// Takes the text in front of the first separator off, and the separator.
static string_view take_until(string_view &text, char separator) {
    const size_t size = std::min(text.find(separator), text.size());
    const string_view taken(text.data(), size);
    text.remove_prefix(std::min(size + 1, text.size()));
    return taken;
}

// Takes the first word and the blanks behind it off a text that begins with none.
static string_view take_word(string_view &text) {
    const auto *end = std::find_if(text.begin(), text.end(), is_blank);
    const string_view word(text.data(), static_cast<size_t>(end - text.begin()));
    text.remove_prefix(word.size());
    text = trim(text);
    return word;
}

static bool take_prefix(string_view &text, string_view prefix) {
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

template <size_t SIZE>
static bool is_one_of(const string_view (&texts)[SIZE], string_view text) {
    return std::find(texts, texts + SIZE, text) != texts + SIZE;
}

static bool is_same_word(string_view one, string_view other) {
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

// --- names ---------------------------------------------------------------------------------------

// Counts what is left out. True: left out on purpose is a known form.
static bool leave_out(Lists &lists, LeftOut reason) {
    lists.left_out[reason]++;
    return true;
}

// Takes in a name. False, counted, when it is not the name of a host.
static bool take_name(Lists &lists, Names &names, string_view name, uint8_t cover) {
    while (name.ends_with('.'))
        name.remove_suffix(1);
    if (std::any_of(std::begin(USUAL_NAMES), std::end(USUAL_NAMES),
                    [name](string_view usual) { return is_same_word(name, usual); }))
        return true;
    if (!is_host_name(name))
        return !leave_out(lists, NO_HOST_NAME);
    if (name.find('.') == string_view::npos)
        return leave_out(lists, SINGLE_LABEL);
    if (name.size() > LONGEST_STORED_NAME)
        return leave_out(lists, NAME_TOO_LONG);
    if (&names == &lists.white && !lists.wants_white)
        return leave_out(lists, WHITE_ENTRY);
    if (!add_name(names, name, cover))
        lists.is_out_of_memory = true;
    return true;
}

// --- forms ---------------------------------------------------------------------------------------
// Each reader says whether the text has the form that it is for.

static bool is_unknown(Lists &lists) {
    return !leave_out(lists, UNKNOWN_FORM);
}

// What follows "||": "NAME^" or "NAME^$OPTION,OPTION".
static bool read_rule(Lists &lists, Names &names, string_view text) {
    if (text.find('^') == string_view::npos)
        return is_unknown(lists);
    const string_view name = take_until(text, '^');
    if (take_prefix(text, "$")) {
        do
            if (!is_one_of(RULE_OPTIONS, take_until(text, ',')))
                return leave_out(lists, RULE_OPTION);
        while (!text.empty());
    } else if (!text.empty()) {
        return is_unknown(lists);
    }
    take_name(lists, names, name, BOTH);
    return true;
}

// What follows "address=/", "server=/" or "local=/": "NAME/NAME/ANSWER".
static bool read_setting(Lists &lists, string_view text, bool takes_answer) {
    const size_t end = text.rfind('/');
    if (end == string_view::npos)
        return is_unknown(lists);
    string_view answer = text;
    answer.remove_prefix(end + 1);
    if (!answer.empty() && !(takes_answer && is_one_of(BLOCKING_ANSWERS, answer)))
        return leave_out(lists, OTHER_ANSWER);
    string_view names(text.data(), end);
    while (!names.empty())
        take_name(lists, lists.black, take_until(names, '/'), BOTH);
    return true;
}

static bool read_plain_name(Lists &lists, string_view name) {
    take_prefix(name, "*.");
    return take_name(lists, lists.black, name, BOTH);
}

// An IPv6 address may have a scope: "fe80::1%lo0".
static bool is_address(string_view word) {
    const bool is_ipv6 = word.find(':') != string_view::npos;
    const string_view address = is_ipv6 ? take_until(word, '%') : word;
    char text[INET6_ADDRSTRLEN] = "";
    uint8_t binary[sizeof(in6_addr)];
    if (address.size() >= sizeof text)
        return false;
    memcpy(text, address.data(), address.size());
    return inet_pton(is_ipv6 ? AF_INET6 : AF_INET, text, binary) == 1;
}

// What follows the name of a record in a response policy zone: "CNAME ." and nothing else blocks.
static bool read_record(Lists &lists, string_view name, string_view record) {
    if (!is_same_word(take_word(record), "CNAME"))
        return is_unknown(lists);
    const string_view target = take_word(record);
    if (target.empty() || !record.empty())
        return is_unknown(lists);
    if (target != ".")
        return leave_out(lists, OTHER_ANSWER);
    const bool is_below = take_prefix(name, "*.");
    take_name(lists, lists.black, name, is_below ? BELOW : BOTH);
    return true;
}

static bool read_form(Lists &lists, string_view text) {
    if (take_prefix(text, "@@||"))
        return read_rule(lists, lists.white, text);
    if (take_prefix(text, "||"))
        return read_rule(lists, lists.black, text);
    if (take_prefix(text, "address=/"))
        return read_setting(lists, text, true);
    if (take_prefix(text, "server=/") || take_prefix(text, "local=/"))
        return read_setting(lists, text, false);
    const string_view word = take_word(text);
    if (text.empty())
        return read_plain_name(lists, word);
    if (!is_address(word))
        return read_record(lists, word, text);
    while (!text.empty())
        take_name(lists, lists.black, take_word(text), BOTH);
    return true;
}

// --- lines ---------------------------------------------------------------------------------------

// Whether a text that begins with '#' goes on as the mark of a rule for parts of pages does: "##",
// "#@#", "#?#", "#$#" and the like.
static bool is_page_mark(string_view text) {
    text.remove_prefix(1);
    const size_t end = text.find_first_not_of("@?$%");
    return end != string_view::npos && text[end] == '#';
}

// A rule that holds for all pages begins with its mark; "## a heading" and a line of '#' do not.
static bool is_rule_for_all_pages(string_view line) {
    const size_t end = line.find_first_not_of("#@?$%");
    return is_page_mark(line) && end != string_view::npos && !is_blank(line[end]);
}

// The line without a comment, and without blanks around it. Sets the flag for a rule for parts of
// pages, which could be taken for a name with a comment.
static string_view strip_comment(string_view line, bool &is_page_rule) {
    line = trim(line);
    if (line.starts_with('!') || line.starts_with('[') || line.starts_with(';'))
        return {};
    if (line.starts_with('#')) {
        is_page_rule = is_rule_for_all_pages(line);
        return is_page_rule ? line : string_view();
    }
    for (size_t i = 1; i < line.size(); i++) {
        if (line[i] != '#' && line[i] != ';')
            continue;
        if (is_blank(line[i - 1]))
            return trim({line.data(), i});
        if (line[i] == '#' && is_page_mark({line.data() + i, line.size() - i})) {
            is_page_rule = true;
            break;
        }
    }
    return line;
}

void read_list_line(string_view line, Lists &lists) {
    bool is_page_rule = false;
    const string_view text = strip_comment(line, is_page_rule);
    if (text.empty())
        return;
    lists.lines++;
    lists.known += is_page_rule ? leave_out(lists, PAGE_RULE) : read_form(lists, text);
}

// The end of such a line is missing, so it is not known what it is; a comment is one all the same.
static void count_cut_line(string_view line, Lists &lists) {
    bool is_page_rule = false;
    if (strip_comment(line, is_page_rule).empty())
        return;
    lists.lines++;
    leave_out(lists, LINE_TOO_LONG);
}

bool read_list(FILE *in, Lists &lists) {
    static LineReader reader;
    reader.file = in;
    bool is_first = true;
    for (string_view line; next_line(reader, line) && !lists.is_out_of_memory; is_first = false) {
        if (is_first)
            take_prefix(line, BYTE_ORDER_MARK);
        if (reader.is_cut)
            count_cut_line(line, lists);
        else
            read_list_line(line, lists);
    }
    if (lists.is_out_of_memory)
        errno = ENOMEM;
    return !lists.is_out_of_memory && !ferror(in);
}
