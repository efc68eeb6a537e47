#include "internal.h"

namespace uci {

namespace {

constexpr int at_line_end = -1;

bool is_white(int c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

} // namespace

int Scanner::peek() const {
    return pos_ < end_ ? static_cast<unsigned char>(text_[pos_]) : at_line_end;
}

// Makes one more line visible; false at the end of the text.
bool Scanner::extend() {
    if (next_ == text_.size())
        return false;
    const size_t newline = text_.find('\n', next_);
    line_start_ = next_;
    next_ = end_ = newline == std::string_view::npos ? text_.size() : newline + 1;
    ++line_;
    return true;
}

bool Scanner::next_line() {
    pos_ = end_ = next_;
    return extend();
}

void Scanner::skip_white() {
    while (is_white(peek()))
        ++pos_;
}

char Scanner::take(std::string_view any) {
    if (at_end() || any.find(text_[pos_]) == std::string_view::npos)
        return 0;
    return text_[pos_++];
}

std::string_view Scanner::keyword() {
    while (take(" \t")) {
    }
    const size_t start = pos_;
    while (!at_end() && text_[pos_] != ' ' && text_[pos_] != '\t')
        ++pos_;
    const auto result = text_.substr(start, pos_ - start);
    take(" \t");
    return result;
}

// A backslash: the next byte is literal, or the next line is joined on.
void Scanner::escaped(std::string &word) {
    ++pos_;
    const auto rest = text_.substr(pos_, end_ - pos_);
    if (rest.empty() || rest == "\n" || rest == "\r\n") {
        pos_ = end_;
        extend();
    } else {
        word += text_[pos_++];
    }
}

bool Scanner::quoted(std::string &word, char quote) {
    ++pos_;
    for (;;) {
        const int c = peek();
        if (c == at_line_end) {
            if (!extend())
                return fail(quote == '"' ? "EOF with unterminated \"" : "EOF with unterminated '");
        } else if (c == quote) {
            ++pos_;
            return true;
        } else if (c == '\\' && quote == '"') {
            escaped(word);
        } else {
            word += static_cast<char>(c);
            ++pos_;
        }
    }
}

bool Scanner::unquoted(std::string &word) {
    bool verbatim = true; // no quote or backslash yet
    for (int c; (c = peek()) != at_line_end && !is_white(c);) {
        switch (c) {
        case '\'':
        case '"':
            verbatim = false;
            if (!quoted(word, static_cast<char>(c)))
                return false;
            break;
        case '\\':
            verbatim = false;
            escaped(word);
            break;
        case ';':
            // After a word without quotes it takes the rest of the line with it; otherwise it is
            // left for the next argument, an empty one.
            if (verbatim)
                end_ = pos_;
            return true;
        case '#':
            end_ = pos_;
            return true;
        default:
            word += static_cast<char>(c);
            ++pos_;
        }
    }
    if (!at_end())
        ++pos_; // the white space that ended the word
    return true;
}

bool Scanner::argument(std::string &result) {
    result.clear();
    skip_white();
    if (take(";"))
        return true;
    if (!unquoted(result))
        return false;
    return result.find('\0') == std::string::npos || fail("NUL byte");
}

bool Scanner::fail(const char *reason) {
    reason_ = reason;
    return false;
}

void Scanner::report(Context &ctx) const {
    ctx.reason = reason_;
    ctx.line = line_;
    ctx.byte = pos_ - line_start_;
}

namespace {

struct Reader {
    Scanner in;
    Context &ctx;
    Package &package;
    uci_section *section = nullptr; // the one that options belong to

    bool config_statement(const std::string &type, const std::string &name) {
        if (!is_printable(type))
            return in.fail("invalid character in type field");
        if (name.empty()) {
            section = &add_section(package, type.c_str(), nullptr);
            return true;
        }
        if (!is_plain_name(name))
            return in.fail("invalid character in name field");
        section = uci_lookup_section(&ctx, &package, name.c_str());
        if (!section)
            section = &add_section(package, type.c_str(), name.c_str());
        return section->type == type ||
               in.fail("section of different type overwrites prior section with same name");
    }

    bool option_statement(const std::string &name, const std::string &value, bool list) {
        if (!section)
            return in.fail("option/list command found before the first section");
        if (!is_plain_name(name))
            return in.fail("invalid character in name field");
        if (!list && value.empty())
            return true; // an empty option does not exist, nor does it remove an earlier one
        uci_option *option = uci_lookup_option(&ctx, section, name.c_str());
        if (!option)
            option = &add_option(*section, name.c_str());
        if (list)
            append_item(*option, value.c_str());
        else
            set_string(*option, value.c_str());
        return true;
    }

    bool statement(std::string_view keyword) {
        char kind = 0;
        for (const std::string_view word : {"package", "config", "option", "list"}) {
            if (keyword == word || keyword == word.substr(0, 1))
                kind = word[0];
        }
        if (!kind)
            return in.fail("invalid command");

        std::string first, second, extra;
        if (!in.argument(first) || (kind != 'p' && !in.argument(second)))
            return false;
        if (first.empty())
            return in.fail("insufficient arguments");
        if (!in.argument(extra))
            return false;
        if (!extra.empty())
            return in.fail("too many arguments");

        if (kind == 'p') // one file is one package, whatever it calls itself
            return is_plain_name(first, '-') || in.fail("invalid character in name field");
        if (kind == 'c')
            return config_statement(first, second);
        return option_statement(first, second, kind == 'l');
    }
};

} // namespace

int parse_config(Context &ctx, Package &package, std::string_view text) {
    Reader reader{Scanner(text), ctx, package};
    while (reader.in.next_line()) {
        reader.in.skip_white();
        for (;;) {
            const auto keyword = reader.in.keyword();
            if (keyword.empty() || keyword.front() == '#')
                break;
            if (!reader.statement(keyword)) {
                reader.in.report(ctx);
                return UCI_ERR_PARSE;
            }
        }
    }
    return UCI_OK;
}

} // namespace uci
