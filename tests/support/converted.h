// The converter's lists and patterns as texts.
#pragma once

#include "guards.h"
#include "listlines.h"
#include "patterns.h"

#include <string>
#include <string_view>

inline OwnedFile open_text(std::string_view text) {
    return OwnedFile(fmemopen(const_cast<char *>(text.data()), text.size(), "r"));
}

inline bool read_text(std::string_view text, Lists &lists) {
    lists.wants_white = true;
    return text.empty() || read_list(open_text(text).get(), lists);
}

// The output of an earlier run.
inline bool read_output(std::string_view text, Names &names, uint32_t &bad_line) {
    return text.empty() || read_patterns(open_text(text).get(), names, bad_line);
}

inline std::string written(const Names &names, const Names &others = {},
                           LineKind kind = LineKind::ADDED) {
    char *text = nullptr;
    size_t size = 0;
    OwnedFile out(open_memstream(&text, &size));
    write_patterns(out.get(), names, others, kind);
    out.reset();
    const OwnedText owner(text);
    return {text, size};
}
