// The index of a list against the walk: two lists get the same edits, one keeps an index as soon as
// it may, the other never does.
#include "list_helpers.h"
#include "listindex.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

struct Twins {
    const TestList indexed, walked;

    Twins() {
        indexed->index_at = 1;
        walked->index_at = UINT32_MAX;
    }
    void add(const std::string &text, int8_t opt, bool skip_duplicates = true) const {
        for (List *list : {indexed.get(), walked.get()})
            if (skip_duplicates)
                add_item_copy(text.c_str(), opt, list);
            else
                add_node(create_node(text.c_str(), opt), list);
    }
    void remove(const std::string &text) const {
        EXPECT_EQ(remove_item(text.c_str(), indexed), remove_item(text.c_str(), walked));
    }
    std::string find(const std::string &key) const {
        EXPECT_EQ(found(key, indexed), found(key, walked)) << "key " << key;
        return found(key, indexed);
    }
};

struct Mix {
    std::string alphabet;
    size_t shortest, longest; // patterns
    size_t key, edits;
};

const Mix MIXES[] = {
    {"ab", 6, 10, 14, 3000},
    {"abcde.", 3, 12, 40, 3000},
    {"\x01\xff\x80z", 2, 5, 12, 3000},
    {"ab", LONGEST_INDEXED - 4, LONGEST_INDEXED + 4, LONGEST_INDEXED + 8, 800},
};

TEST(ListIndexTest, AnswersAsTheWalkDoes) {
    constexpr int8_t MODES[] = {0, 1, 1, 2, 2, 4, 4, 4, 3, 5, -1};
    const auto seed = std::random_device()();
    std::mt19937 random(seed);
    for (const Mix &mix : MIXES) {
        SCOPED_TRACE(mix.alphabet + ", seed " + std::to_string(seed));
        const auto text = [&](size_t shortest, size_t longest) {
            std::string result(shortest + random() % (longest - shortest + 1), ' ');
            for (char &c : result)
                c = mix.alphabet[random() % mix.alphabet.size()];
            return result;
        };
        const Twins twins;
        std::vector<std::string> texts = {""};
        for (size_t i = 0; i < mix.edits && !testing::Test::HasFailure(); i++) {
            // It grows, then shrinks to nearly nothing, then grows again.
            const bool shrinks = i > mix.edits / 2 && i < mix.edits * 3 / 4;
            const std::string known = texts[random() % texts.size()];
            if (random() % 8 < (shrinks ? 6 : 2)) {
                twins.remove(known);
            } else {
                // A pattern shorter than the others hides many of them, until it is removed.
                const size_t shortest = random() % 200 ? mix.shortest : 0;
                texts.push_back(random() % 4 ? text(shortest, mix.longest) : known);
                twins.add(texts.back(), MODES[random() % std::size(MODES)], random() % 2);
            }
            for (const auto &key : {text(0, mix.key), known, text(0, 3) + known + text(0, 3)})
                twins.find(key);
            if (i % 64 == 0 || i + 1 == mix.edits) {
                EXPECT_EQ(chain(twins.indexed), chain(twins.walked));
            }
        }
        EXPECT_NE(twins.indexed->index, nullptr);
    }
}

// Words of Thue and Morse and their complements have equal polynomial hashes modulo 2^32, whatever
// the odd base is.
TEST(ListIndexTest, EqualHashesAreToldApart) {
    std::string word = "a", other = "b";
    while (word.size() < 256)
        std::tie(word, other) = std::pair(word + other, other + word);
    const Twins twins;
    twins.add(word, MATCH_EXACT);
    EXPECT_EQ(twins.find(other), "-");
    twins.add(other, MATCH_ENDS_WITH);
    EXPECT_EQ(twins.find(word), word);
    EXPECT_EQ(twins.find("x" + other), other);
    EXPECT_EQ(twins.find("x" + word), "-");
    twins.remove(word);
    EXPECT_EQ(twins.find(word) + twins.find(other), "-" + other);
}

} // namespace
