// Names as in real block lists, the same ones in every run and on every machine.
#pragma once

#include <random>
#include <string>

inline std::string random_label(std::mt19937 &random, size_t shortest, size_t longest) {
    std::string label(shortest + random() % (longest - shortest + 1), 'a');
    for (char &c : label)
        c = static_cast<char>('a' + random() % 26);
    return label;
}

// Like the entries of real lists: 10 to 28 bytes, two or three labels.
inline std::string random_name(std::mt19937 &random) {
    std::string name = random_label(random, 6, 15) + '.' + random_label(random, 3, 3);
    if (random() % 3 == 0)
        name = random_label(random, 2, 8) + '.' + name;
    return name;
}
