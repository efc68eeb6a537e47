#include "lines.h"

bool next_line(LineReader &reader, std::string_view &line) {
    size_t length = 0;
    reader.is_cut = false;
    int c = getc(reader.file);
    if (c == EOF)
        return false;
    for (; c != EOF && c != '\n'; c = getc(reader.file))
        if (length < LONGEST_LINE)
            reader.text[length++] = static_cast<char>(c);
        else
            reader.is_cut = true;
    line = {reader.text, length};
    return true;
}
