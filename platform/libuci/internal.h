// What the sources of the configuration library share: the private side of the public structures,
// the scanner of both file formats, and the steps that the public functions are made of. Functions
// that return int give a result code of uci.h; the public functions store it in the context.
#pragma once

#include "uci.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace uci {

struct Context : uci_context {
    size_t parse_line; // of a parse error in a file, for its text
};

struct Package : uci_package {
    unsigned sections_made; // ever, named ones too: the number in a generated name
    std::string pending;    // noted changes that are not saved yet, as delta lines
};

inline Context &own(uci_context *ctx) {
    return *static_cast<Context *>(ctx);
}
inline Package &own(uci_package *p) {
    return *static_cast<Package *>(p);
}

// What every public function does around its step: a missing context or argument is an error, and
// the context remembers the result.
template <typename Step>
int finish(uci_context *ctx, bool valid, Step step) {
    if (!ctx)
        return UCI_ERR_INVAL;
    own(ctx).parse_line = 0;
    return ctx->err = valid ? step(own(ctx)) : UCI_ERR_INVAL;
}

// --- model.cpp: texts, lists and objects ---------------------------------------------------------

void free_package(Package &package);
struct FreePackage {
    void operator()(Package *package) const { free_package(*package); }
};
using OwnedPackage = std::unique_ptr<Package, FreePackage>;

char *copy(std::string_view text);
// Puts a copy of `text`, which may lie in the old one, into a text on the heap.
void assign(char *&slot, std::string_view text);

bool is_printable(std::string_view text);                    // not empty, bytes 33 to 126 only
bool is_plain_name(std::string_view text, char extra = '_'); // not empty, A-Z a-z 0-9 _ and `extra`

void clear(uci_list &head);
void insert_before(uci_list &next, uci_list &node);
void detach(uci_list &node);

// An empty package that no context holds yet.
OwnedPackage new_package(Context &ctx, std::string_view name, std::string_view path,
                         bool has_delta);
// A null name makes an anonymous section and generates one.
uci_section &add_section(Package &package, const char *type, const char *name);
uci_option &add_option(uci_section &section, const char *name);
void set_string(uci_option &option, const char *text);  // replaces a list too
void append_item(uci_option &option, const char *text); // turns a string into the first item
uci_element &add_element(uci_list &list, uci_type type, const char *name);

void free_element(uci_element &e);
void free_option(uci_option &option);
void free_section(uci_section &section);

// --- parser.cpp: the configuration file ----------------------------------------------------------

// Reads a text line by line; a line is all there is to see until a quote or a backslash at its end
// needs the next one.
class Scanner {
    std::string_view text_;
    size_t pos_ = 0;  // the next byte
    size_t end_ = 0;  // the end of what is seen of the text
    size_t next_ = 0; // the start of the next line
    size_t line_ = 0; // its number

    int peek() const;
    bool extend();
    void escaped(std::string &word);
    bool quoted(std::string &word, char quote);
    bool unquoted(std::string &word);

  public:
    explicit Scanner(std::string_view text) : text_(text) {}
    bool next_line();
    size_t line() const { return line_; }
    bool at_end() const { return pos_ == end_; }
    void skip_white();
    // Takes one of the bytes `any` if it is next, otherwise gives 0.
    char take(std::string_view any);
    // The text up to the next blank or the end of the line, which belongs to it.
    std::string_view keyword();
    // One argument without its quotes, empty if there is none. False: an unterminated quote or a
    // NUL byte.
    bool argument(std::string &result);
};

int parse_config(Context &ctx, Package &package, std::string_view text);

// --- writer.cpp: texts that the parsers read back ------------------------------------------------

void append_quoted(std::string &out, std::string_view text); // without the outer quotes
std::string export_package(const Package &package);

// --- lookup.cpp ----------------------------------------------------------------------------------

// Splits a key in place. False, with everything zero: it is malformed.
bool split_key(uci_ptr &ptr, char *key);
int lookup(Context &ctx, uci_ptr &ptr, bool extended);

// --- change.cpp: a change is noted for the next save when `noted` and the package has_delta ------

int set(Context &ctx, uci_ptr &ptr, bool noted);
int remove(Context &ctx, uci_ptr &ptr, bool noted);
int add_list(Context &ctx, uci_ptr &ptr, bool noted);
int del_list(Context &ctx, uci_ptr &ptr, bool noted);

// --- delta.cpp: files of pending changes ---------------------------------------------------------

// Adds one line to the pending changes; `prefix` 0, `option` and `value` may be missing.
void note(Package &package, char prefix, const char *section, const char *option,
          const char *value);
// Applies a whole file and gives the number of its lines that were accepted.
size_t apply_delta(Context &ctx, Package &package, std::string_view text);

// --- store.cpp: directories and files ------------------------------------------------------------

// The package that a lookup of this name or path uses, or null.
uci_package *find_loaded(Context &ctx, const char *name);
int load(Context &ctx, const char *name, uci_package *&package);

} // namespace uci
