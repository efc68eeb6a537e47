// The reader accepts what programs on the router are used to getting away with: single quotes,
// comments, a comma before a closing bracket, leading zeros, NaN and Infinity, literals in any
// case, control characters in strings, and anything after the object.
extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <strings.h>
#include <unordered_map>
#include <vector>

// Values may be nested this deep in a text (the outermost one counts), and containers this deep in
// a message; what a message has below that is printed as empty. Both bound the recursion.
static constexpr int MAX_TEXT_DEPTH = 32;
static constexpr int MAX_MESSAGE_DEPTH = 256;
static constexpr int MAX_TABS = 16;

// --- text to message -----------------------------------------------------------------------------

namespace {

struct Value {
    int type = BLOBMSG_TYPE_UNSPEC;
    int64_t integer = 0;
    double real = 0;
    std::string text;
    std::vector<Value> members; // of a table or array
    std::string name;           // in a table
};

// Where the reader is in the text. A text ends with a zero byte, which no rule accepts, so nothing
// is read behind it.
using Position = const char *;

} // namespace

// Skips white space and comments. An unfinished comment runs to the end of the text.
void skip_space(Position &at) {
    for (;;) {
        at += strspn(at, " \t\n\r");
        if (strncmp(at, "//", 2) == 0) {
            at += strcspn(at, "\n");
        } else if (strncmp(at, "/*", 2) == 0) {
            const char *end = strstr(at + 2, "*/");
            at = end ? end + 2 : at + strlen(at);
        } else {
            return;
        }
    }
}

bool read_word(Position &at, std::string_view word) {
    if (strncasecmp(at, word.data(), word.size()) != 0)
        return false;
    at += word.size();
    return true;
}

void append_utf8(std::string &out, uint32_t code) {
    const auto tail = [&](int shift) { out += static_cast<char>(0x80 | (code >> shift & 0x3f)); };
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xc0 | code >> 6);
        tail(0);
    } else if (code < 0x10000) {
        out += static_cast<char>(0xe0 | code >> 12);
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xf0 | code >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

// Four hexadecimal digits, or -1.
int read_hex4(Position &at) {
    int value = 0;
    for (int i = 0; i < 4; i++, at++) {
        const char lower = static_cast<char>(*at | 0x20);
        if (*at >= '0' && *at <= '9')
            value = value * 16 + (*at - '0');
        else if (lower >= 'a' && lower <= 'f')
            value = value * 16 + (lower - 'a' + 10);
        else
            return -1;
    }
    return value;
}

// What follows "\u". A surrogate without its partner becomes the replacement character.
bool read_unicode_escape(Position &at, std::string &out) {
    constexpr uint32_t REPLACEMENT = 0xfffd;
    const int unit = read_hex4(at);
    if (unit < 0)
        return false;
    auto code = static_cast<uint32_t>(unit);
    if (code >= 0xd800 && code < 0xe000) {
        Position behind = at;
        const bool pair = code < 0xdc00 && strncmp(at, "\\u", 2) == 0;
        const int low = pair ? read_hex4(behind += 2) : -1;
        if (low >= 0xdc00 && low < 0xe000) {
            code = 0x10000 + ((code - 0xd800) << 10) + (static_cast<uint32_t>(low) - 0xdc00);
            at = behind;
        } else {
            code = REPLACEMENT;
        }
    }
    append_utf8(out, code);
    return true;
}

bool read_escape(Position &at, std::string &out) {
    static constexpr char LETTERS[] = "\"\\/bnrtf", MEANINGS[] = "\"\\/\b\n\r\t\f";
    const char letter = *at;
    if (letter == 'u')
        return read_unicode_escape(++at, out);
    const char *known = letter ? strchr(LETTERS, letter) : nullptr;
    if (!known)
        return false;
    out += MEANINGS[known - LETTERS];
    at++;
    return true;
}

// A string in single or double quotes, cut at an embedded zero byte.
bool read_string(Position &at, std::string &out) {
    const char quote = *at;
    if (quote != '"' && quote != '\'')
        return false;
    at++;
    const char stops[] = {quote, '\\', '\0'};
    for (;;) {
        const size_t plain = strcspn(at, stops);
        out.append(at, plain);
        at += plain;
        if (*at == quote)
            break;
        if (*at != '\\' || !read_escape(++at, out))
            return false;
    }
    at++;
    out.resize(strlen(out.c_str()));
    return true;
}

// The end of the characters that may belong to a number at `at`.
Position number_end(Position at, bool &is_real) {
    bool exponent = false;
    is_real = false;
    at += *at == '-';
    for (;; at++) {
        if (*at == '.' && !is_real) {
            is_real = true;
        } else if ((*at == 'e' || *at == 'E') && !exponent) {
            is_real = exponent = true;
            at += at[1] == '+' || at[1] == '-';
        } else if (*at < '0' || *at > '9') {
            return at;
        }
    }
}

bool read_number(Position &at, Value &out) {
    bool is_real;
    const char *end = number_end(at, is_real);
    if (!*end || !strchr(",]}/ \t\n\r", *end))
        return false;
    const char *last = end; // "1e" and "1e+" count as 1.0
    while (is_real && last > at && strchr("eE+-", last[-1]))
        last--;
    char *parsed;
    if (is_real)
        out.real = strtod(at, &parsed);
    else
        out.integer = strtoll(at, &parsed, 10); // clamps
    if (parsed != last || parsed == at)
        return false;
    out.type = is_real                                                ? BLOBMSG_TYPE_DOUBLE
               : out.integer >= INT32_MIN && out.integer <= INT32_MAX ? BLOBMSG_TYPE_INT32
                                                                      : BLOBMSG_TYPE_INT64;
    at = end;
    return true;
}

bool read_literal(Position &at, Value &out) {
    static constexpr struct {
        std::string_view word;
        int type;
        int64_t integer;
        double real;
    } LITERALS[] = {
        {"true", BLOBMSG_TYPE_BOOL, 1, 0},
        {"false", BLOBMSG_TYPE_BOOL, 0, 0},
        {"null", BLOBMSG_TYPE_UNSPEC, 0, 0},
        {"nan", BLOBMSG_TYPE_DOUBLE, 0, __builtin_nan("")},
        {"infinity", BLOBMSG_TYPE_DOUBLE, 0, __builtin_inf()},
        {"-infinity", BLOBMSG_TYPE_DOUBLE, 0, -__builtin_inf()},
    };
    for (const auto &literal : LITERALS) {
        if (!read_word(at, literal.word))
            continue;
        out.type = literal.type;
        out.integer = literal.integer;
        out.real = literal.real;
        return true;
    }
    return false;
}

bool read_value(Position &at, Value &out, int depth);

// "name": value
bool read_member(Position &at, Value &out, int depth) {
    if (!read_string(at, out.name))
        return false;
    skip_space(at);
    if (*at != ':')
        return false;
    at++;
    skip_space(at);
    return read_value(at, out, depth);
}

// What is between the brackets of an object or array, and the closing one. A repeated key keeps its
// first place and its last value.
bool read_members(Position &at, Value &out, char closing, int depth) {
    std::unordered_map<std::string, size_t> places;
    const bool table = out.type == BLOBMSG_TYPE_TABLE;
    at++;
    skip_space(at);
    while (*at != closing) {
        Value member;
        if (!(table ? read_member : read_value)(at, member, depth))
            return false;
        const size_t end = out.members.size();
        const size_t place = table ? places.try_emplace(member.name, end).first->second : end;
        if (place == end)
            out.members.push_back(std::move(member));
        else
            out.members[place] = std::move(member);
        skip_space(at);
        if (*at == ',') {
            at++;
            skip_space(at);
        } else if (*at != closing) {
            return false;
        }
    }
    at++;
    return true;
}

bool read_value(Position &at, Value &out, int depth) {
    if (depth >= MAX_TEXT_DEPTH)
        return false;
    switch (*at) {
    case '{':
        out.type = BLOBMSG_TYPE_TABLE;
        return read_members(at, out, '}', depth + 1);
    case '[':
        out.type = BLOBMSG_TYPE_ARRAY;
        return read_members(at, out, ']', depth + 1);
    case '"':
    case '\'':
        out.type = BLOBMSG_TYPE_STRING;
        return read_string(at, out.text);
    default:
        return read_literal(at, out) ||
               ((*at == '-' || (*at >= '0' && *at <= '9')) && read_number(at, out));
    }
}

bool add_value(blob_buf *buf, const char *name, const Value &value);

bool add_members(blob_buf *buf, const Value &value) {
    for (const Value &member : value.members)
        if (!add_value(buf, member.name.c_str(), member))
            return false;
    return true;
}

bool add_nested(blob_buf *buf, const char *name, const Value &value) {
    void *cookie = blobmsg_open_nested(buf, name, value.type == BLOBMSG_TYPE_ARRAY);
    if (!cookie || !add_members(buf, value))
        return false;
    blob_nest_end(buf, cookie);
    return true;
}

bool add_value(blob_buf *buf, const char *name, const Value &value) {
    switch (value.type) {
    case BLOBMSG_TYPE_TABLE:
    case BLOBMSG_TYPE_ARRAY:
        return add_nested(buf, name, value);
    case BLOBMSG_TYPE_STRING:
        return blobmsg_add_string(buf, name, value.text.c_str()) == 0;
    case BLOBMSG_TYPE_DOUBLE:
        return blobmsg_add_double(buf, name, value.real) == 0;
    case BLOBMSG_TYPE_INT32:
        return blobmsg_add_u32(buf, name, static_cast<uint32_t>(value.integer)) == 0;
    case BLOBMSG_TYPE_INT64:
        return blobmsg_add_u64(buf, name, static_cast<uint64_t>(value.integer)) == 0;
    case BLOBMSG_TYPE_BOOL:
        return blobmsg_add_u8(buf, name, static_cast<uint8_t>(value.integer)) == 0;
    default:
        return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    }
}

// --- message to text -----------------------------------------------------------------------------

struct Writer {
    std::string out;
    blobmsg_json_format_t format;
    void *priv;
    bool indented;
    int level; // of indentation
    int depth; // of containers
};

void new_line(Writer &to) {
    if (!to.indented)
        return;
    to.out += '\n';
    to.out.append(static_cast<size_t>(std::min(to.level, MAX_TABS)), '\t');
}

void write_string(Writer &to, const char *text) {
    static constexpr char ESCAPED[] = "\"\\\b\n\t\r", LETTERS[] = "\"\\bntr";
    to.out += '"';
    for (; *text; text++) {
        if (const char *special = strchr(ESCAPED, *text)) {
            to.out += '\\';
            to.out += LETTERS[special - ESCAPED];
        } else if (static_cast<unsigned char>(*text) < 0x20) {
            char code[8];
            snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned int>(*text));
            to.out += code;
        } else {
            to.out += *text;
        }
    }
    to.out += '"';
}

void write_list(Writer &to, blob_attr *first, size_t len, bool array);

void write_container(Writer &to, blob_attr *attr) {
    const bool shown = to.depth < MAX_MESSAGE_DEPTH;
    write_list(to, static_cast<blob_attr *>(blobmsg_data(attr)), shown ? blobmsg_data_len(attr) : 0,
               blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
}

void write_double(Writer &to, double value) {
    char text[340]; // the largest one has 309 digits before the point
    snprintf(text, sizeof(text), "%lf", value);
    to.out += text;
}

void write_value(Writer &to, blob_attr *attr) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
        to.out += "null";
        break;
    case BLOBMSG_TYPE_BOOL:
        to.out += blobmsg_get_bool(attr) ? "true" : "false";
        break;
    case BLOBMSG_TYPE_STRING:
        write_string(to, blobmsg_get_string(attr));
        break;
    case BLOBMSG_TYPE_DOUBLE:
        write_double(to, blobmsg_get_double(attr));
        break;
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        write_container(to, attr);
        break;
    default:
        to.out += std::to_string(blobmsg_cast_s64(attr));
    }
}

// A well-formed field, with its name if it has one and is no element of an array.
void write_field(Writer &to, blob_attr *attr, bool in_array) {
    if (!in_array && *blobmsg_name(attr)) {
        write_string(to, blobmsg_name(attr));
        to.out += to.indented ? ": " : ":";
    }
    const char *text = to.format ? to.format(to.priv, attr) : nullptr;
    if (text)
        to.out += text;
    else
        write_value(to, attr);
}

// The fields in `len` bytes from `first`; malformed ones are left out.
void write_list(Writer &to, blob_attr *first, size_t len, bool array) {
    to.out += array ? '[' : '{';
    to.level++;
    to.depth++;
    new_line(to);
    bool is_first = true;
    blob_attr *attr;
    __blob_for_each_attr(attr, first, len) {
        if (!blobmsg_check_attr_len(attr, false, len))
            continue;
        if (!is_first) {
            to.out += ',';
            new_line(to);
        }
        is_first = false;
        write_field(to, attr, array);
    }
    to.depth--;
    to.level--;
    new_line(to);
    to.out += array ? ']' : '}';
}

bool blobmsg_add_json_from_string(blob_buf *b, const char *str) {
    Value value;
    skip_space(str);
    if (*str != '{' || !read_value(str, value, 0))
        return false;
    const auto head = reinterpret_cast<char *>(b->head) - static_cast<char *>(b->buf);
    const auto len = static_cast<unsigned int>(blob_raw_len(b->head));
    if (add_members(b, value))
        return true;
    b->head = reinterpret_cast<blob_attr *>(static_cast<char *>(b->buf) + head);
    blob_set_raw_len(b->head, len);
    return false;
}

char *blobmsg_format_json_with_cb(blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent) {
    if (!attr)
        return nullptr;
    Writer to{{}, cb, priv, indent >= 0, indent, 0};
    if (list)
        write_list(to, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr),
                   blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
    else if (blobmsg_check_attr(attr, false))
        write_field(to, attr, false);
    return strdup(to.out.c_str());
}
