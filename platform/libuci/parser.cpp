#include "internal.h"

#include <algorithm>

namespace uci {

static constexpr int AT_LINE_END = -1;

static bool is_white(int c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int Scanner::peek() const {
    return pos_ < end_ ? static_cast<unsigned char>(text_[pos_]) : AT_LINE_END;
}

// Makes one more line visible; false at the end of the text.
bool Scanner::extend() {
    if (next_ == text_.size())
        return false;
    const size_t newline = text_.find('\n', next_);
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
    const auto seen = text_.substr(0, end_);
    pos_ = std::min(seen.find_first_not_of(" \t", pos_), end_);
    const size_t stop = std::min(seen.find_first_of(" \t", pos_), end_);
    const auto result = seen.substr(pos_, stop - pos_);
    pos_ = std::min(stop + 1, end_);
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
    while (!at_end() || extend()) {
        if (text_[pos_] == '\\' && quote == '"') {
            escaped(word);
            continue;
        }
        if (text_[pos_++] == quote)
            return true;
        word += text_[pos_ - 1];
    }
    return false; // the text ended inside
}

bool Scanner::unquoted(std::string &word) {
    bool verbatim = true; // no quote or backslash yet
    for (int c; (c = peek()) != AT_LINE_END && !is_white(c);) {
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
    return unquoted(result) && result.find('\0') == std::string::npos;
}

namespace {

struct Reader {
    Scanner in;
    Context &ctx;
    Package &package;
    uci_section *section = nullptr; // the one that options belong to

    // A name that was used before continues that section, if the type is the same.
    bool config_statement(const std::string &type, const std::string &name) {
        if (!is_printable(type) || (!name.empty() && !is_plain_name(name)))
            return false;
        section = name.empty() ? nullptr : uci_lookup_section(&ctx, &package, name.c_str());
        if (!section)
            section = &add_section(package, type.c_str(), name.empty() ? nullptr : name.c_str());
        return section->type == type;
    }

    bool option_statement(const std::string &name, const std::string &value, bool list) {
        if (!section || !is_plain_name(name))
            return false;
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

    // The first letter of a keyword is enough.
    bool statement(std::string_view keyword) {
        char kind = 0;
        for (const std::string_view word : {"package", "config", "option", "list"}) {
            if (keyword == word || keyword == word.substr(0, 1))
                kind = word[0];
        }
        std::string first, second, extra;
        if (!kind || !in.argument(first) || first.empty() ||
            (kind != 'p' && !in.argument(second)) || !in.argument(extra) || !extra.empty())
            return false;
        if (kind == 'p') // one file is one package, whatever it calls itself
            return is_plain_name(first, '-');
        return kind == 'c' ? config_statement(first, second)
                           : option_statement(first, second, kind == 'l');
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
                ctx.parse_line = reader.in.line();
                return UCI_ERR_PARSE;
            }
        }
    }
    return UCI_OK;
}

} // namespace uci
