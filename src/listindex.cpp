#include "listindex.h"

#include "node.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Lookups meet patterns in these four roles; a pattern of any other mode never matches and is in
// the chain alone.
enum Role { CONTAINS, ENDS, BEGINS, EXACT, ROLES, NO_ROLE = ROLES };

struct Slot {
    uint32_t hash;
    uint32_t sequence; // grows along the chain among nodes of one length
    Node *node;        // null: free
};

struct Length {
    Node *tail; // last node of this length in the chain, null when there is none
    uint32_t patterns[ROLES];
};

} // namespace

static constexpr size_t LENGTHS = LONGEST_INDEXED + 1;
static constexpr uint32_t WORD_BITS = 32;

// Slots are taken up to three quarters. A word of the bitmap serves two slots, and each pattern
// sets two of its bits: at most one miss in a hundred gets past it.
static constexpr uint32_t SMALLEST_CAPACITY = 128;
static constexpr uint32_t SLOTS_PER_WORD = 2;

// Base of the polynomial: a multiplier modulo 2^32 with a good spectrum (Steele and Vigna, 2021).
static constexpr uint32_t BASE = 0x915f77f5;

static constexpr auto POWERS = [] {
    std::array<uint32_t, LENGTHS> powers{};
    uint32_t power = 1;
    for (uint32_t &entry : powers) {
        entry = power;
        power *= BASE;
    }
    return powers;
}();

static uint32_t extend(uint32_t hash, char c) {
    return hash * BASE + static_cast<unsigned char>(c);
}

// The k low bits of the polynomial depend on the k low bits of the characters only; the high bits
// of the mixed value, which choose slot and bit, depend on all of it.
static uint32_t mix(uint32_t hash) {
    return (hash ^ hash >> 15) * 0x9e3779b1;
}

// Maps a mixed hash evenly to 0..count-1, by its high bits.
static uint32_t scale(uint32_t mixed, uint32_t count) {
    return static_cast<uint32_t>((uint64_t{mixed} * count) >> WORD_BITS);
}

// The two bits of its word that a mixed hash sets, by its low bits.
static uint32_t bits_of(uint32_t mixed) {
    return uint32_t{1} << (mixed % WORD_BITS) | uint32_t{1} << (mixed / WORD_BITS % WORD_BITS);
}

static Role role_of(int8_t opt) {
    switch (opt) {
    case MATCH_CONTAINS:
        return CONTAINS;
    case MATCH_ENDS_WITH:
        return ENDS;
    case MATCH_BEGINS_WITH:
        return BEGINS;
    case MATCH_EXACT:
        return EXACT;
    default:
        return NO_ROLE;
    }
}

struct ListIndex {
    Slot *slots;      // one block with the bitmap behind them
    uint32_t *bitmap; // words with the bits of all patterns whose home is one of their slots
    uint32_t capacity;
    uint32_t used;
    uint32_t next_sequence;
    uint32_t searched[LENGTHS / WORD_BITS]; // lengths that a lookup tries
    Length lengths[LENGTHS];

    uint32_t home(uint32_t mixed) const { return scale(mixed, capacity); }
    uint32_t after(uint32_t slot) const { return slot + 1 == capacity ? 0 : slot + 1; }
    bool may_hold(uint32_t mixed) const {
        const uint32_t bits = bits_of(mixed);
        return (bitmap[home(mixed) / SLOTS_PER_WORD] & bits) == bits;
    }
    void place(const Slot &entry) {
        const uint32_t mixed = mix(entry.hash);
        uint32_t at = home(mixed);
        bitmap[at / SLOTS_PER_WORD] |= bits_of(mixed);
        while (slots[at].node)
            at = after(at);
        slots[at] = entry;
    }
    bool resize(uint32_t wanted);
    void close_gap(uint32_t gap);
    void renew_word(uint32_t word);
};

static_assert(LENGTHS % WORD_BITS == 0 && SMALLEST_CAPACITY % SLOTS_PER_WORD == 0);

static size_t table_bytes(uint32_t capacity) {
    return capacity * sizeof(Slot) + capacity / SLOTS_PER_WORD * sizeof(uint32_t);
}

// Moves all entries to a table of `wanted` slots, whole words; false when there is no memory.
bool ListIndex::resize(uint32_t wanted) {
    void *block = calloc(1, table_bytes(wanted));
    if (!block)
        return false;
    Slot *const old = slots;
    const uint32_t old_capacity = capacity;
    slots = static_cast<Slot *>(block);
    bitmap = reinterpret_cast<uint32_t *>(slots + wanted);
    capacity = wanted;
    for (uint32_t i = 0; i < old_capacity; i++)
        if (old[i].node)
            place(old[i]);
    free(old);
    return true;
}

// Frees a slot and moves later entries of its cluster back, so that deletions leave no trace: each
// entry stays reachable from its home without a free slot between.
void ListIndex::close_gap(uint32_t gap) {
    for (uint32_t at = after(gap); slots[at].node; at = after(at)) {
        const uint32_t from = home(mix(slots[at].hash));
        const uint32_t distance = (at + capacity - from) % capacity;
        if (distance >= (at + capacity - gap) % capacity) {
            slots[gap] = slots[at];
            gap = at;
        }
    }
    slots[gap].node = nullptr;
}

// Computes a word of the bitmap anew, after a deletion. All patterns that belong to it stand
// between its first slot and the first free one from its last slot on.
void ListIndex::renew_word(uint32_t word) {
    const uint32_t first = word * SLOTS_PER_WORD;
    const uint32_t last = first + SLOTS_PER_WORD - 1;
    uint32_t bits = 0;
    const auto add = [&](uint32_t at) {
        if (!slots[at].node)
            return false;
        const uint32_t mixed = mix(slots[at].hash);
        if (home(mixed) / SLOTS_PER_WORD == word)
            bits |= bits_of(mixed);
        return true;
    };
    for (uint32_t at = first; at < last; at++)
        add(at);
    for (uint32_t at = last; add(at); at = after(at))
        ;
    bitmap[word] = bits;
}

ListIndex *create_index(Node *head) {
    auto *index = static_cast<ListIndex *>(calloc(1, sizeof(ListIndex)));
    if (!index)
        return nullptr;
    bool whole = index->resize(SMALLEST_CAPACITY);
    for (Node *node = head; whole && node; node = node->next)
        whole = index_insert(*index, node);
    if (whole)
        return index;
    free_index(index);
    return nullptr;
}

void free_index(ListIndex *index) {
    if (!index)
        return;
    free(index->slots);
    free(index);
}

// --- lookup --------------------------------------------------------------------------------------

namespace {

// One lookup: the key and the hashes of its prefixes.
class Search {
    const ListIndex &index_;
    const std::string_view key_;
    std::array<uint32_t, LENGTHS> prefix_; // only the first key_.size() + 1 are set

    // Whether the pattern, which equals the key's text at `at`, matches the key there.
    bool fits(const Node *node, size_t at, size_t length) const {
        switch (role_of(node->opt)) {
        case CONTAINS:
            return true;
        case ENDS:
            return at + length == key_.size();
        case BEGINS:
            return at == 0;
        default:
            return length == key_.size();
        }
    }
    // Replaces `oldest` by an older pattern that equals the `length` bytes of the key at `at`.
    void probe(size_t at, size_t length, Slot &oldest) const {
        const uint32_t hash = prefix_[at + length] - prefix_[at] * POWERS[length];
        const uint32_t mixed = mix(hash);
        if (!index_.may_hold(mixed))
            return;
        for (uint32_t i = index_.home(mixed); index_.slots[i].node; i = index_.after(i)) {
            const Slot &slot = index_.slots[i];
            if (slot.hash != hash || (oldest.node && slot.sequence > oldest.sequence))
                continue;
            // Another pattern of the same hash may have another length.
            const char *frag = slot.node->frag;
            if (strncmp(frag, key_.data() + at, length) == 0 && frag[length] == '\0' &&
                fits(slot.node, at, length))
                oldest = slot;
        }
    }

  public:
    // The rest of prefix_ is never read and setting it would cost as much as the lookup.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    Search(const ListIndex &index, std::string_view key) : index_(index), key_(key) {
        prefix_[0] = 0;
        for (size_t i = 0; i < key.size(); i++)
            prefix_[i + 1] = extend(prefix_[i], key[i]);
    }
    // The oldest matching pattern of one length, not longer than the key; null when none matches.
    Node *oldest_of(size_t length) const {
        const auto &patterns = index_.lengths[length].patterns;
        const size_t last = key_.size() - length;
        Slot oldest{};
        if (patterns[CONTAINS]) {
            for (size_t at = 0; at <= last; at++)
                probe(at, length, oldest);
            return oldest.node;
        }
        const bool at_start = patterns[BEGINS] || (patterns[EXACT] && last == 0);
        if (at_start)
            probe(0, length, oldest);
        if (patterns[ENDS] && !(at_start && last == 0))
            probe(last, length, oldest);
        return oldest.node;
    }
};

} // namespace

Node *index_find(const ListIndex &index, std::string_view key) {
    const Search search(index, key);
    for (size_t word = 0; word <= key.size() / WORD_BITS; word++) {
        for (uint32_t lengths = index.searched[word]; lengths; lengths &= lengths - 1) {
            const size_t length = word * WORD_BITS + static_cast<unsigned>(__builtin_ctz(lengths));
            if (length > key.size())
                return nullptr;
            if (Node *node = search.oldest_of(length))
                return node;
        }
    }
    return nullptr;
}

// --- changes -------------------------------------------------------------------------------------

static uint32_t hash_of(const char *text) {
    uint32_t hash = 0;
    for (; *text; text++)
        hash = extend(hash, *text);
    return hash;
}

Node *index_last(const ListIndex &index, size_t length) {
    size_t at = std::min(length, LONGEST_INDEXED);
    while (at > 0 && !index.lengths[at].tail)
        at--;
    return index.lengths[at].tail;
}

bool index_insert(ListIndex &index, Node *node) {
    const size_t length = strlen(node->frag);
    if (length > LONGEST_INDEXED)
        return true;
    index.lengths[length].tail = node;
    const Role role = role_of(node->opt);
    if (role == NO_ROLE)
        return true;
    // The last number stays unused: an index that came to it is built anew, which numbers the
    // nodes in the order of the chain again.
    if (index.next_sequence == UINT32_MAX)
        return false;
    if (index.used >= index.capacity / 4 * 3) {
        const uint32_t wanted = (index.capacity / 2 * 3 + 1) / SLOTS_PER_WORD * SLOTS_PER_WORD;
        if (wanted < index.capacity || !index.resize(wanted))
            return false;
    }
    index.place({hash_of(node->frag), index.next_sequence++, node});
    index.used++;
    index.lengths[length].patterns[role]++;
    index.searched[length / WORD_BITS] |= uint32_t{1} << (length % WORD_BITS);
    return true;
}

static void erase_slot(ListIndex &index, const Node *node) {
    const uint32_t home = index.home(mix(hash_of(node->frag)));
    uint32_t at = home;
    while (index.slots[at].node != node)
        at = index.after(at);
    index.close_gap(at);
    index.used--;
    index.renew_word(home / SLOTS_PER_WORD);
}

void index_erase(ListIndex &index, const Node *node, Node *previous) {
    const size_t length = strlen(node->frag);
    if (length > LONGEST_INDEXED)
        return;
    Length &entry = index.lengths[length];
    if (entry.tail == node)
        entry.tail = previous && strlen(previous->frag) == length ? previous : nullptr;
    const Role role = role_of(node->opt);
    if (role == NO_ROLE)
        return;
    erase_slot(index, node);
    entry.patterns[role]--;
    if (std::all_of(std::begin(entry.patterns), std::end(entry.patterns),
                    [](uint32_t count) { return count == 0; }))
        index.searched[length / WORD_BITS] &= ~(uint32_t{1} << (length % WORD_BITS));
}
