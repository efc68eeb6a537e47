// The index that a long pattern list keeps beside its chain of nodes.
//
// It answers what a walk along the chain would answer, without the walk: the shortest pattern that
// matches a key and, among equally long ones, the oldest; and the place of a new node in the chain.
// Only the store (list.cpp) calls it, with the list's mutex held; it knows nothing of databases and
// logs nothing.
//
// How a lookup works: a polynomial hash of every prefix of the key gives the hash of each of its
// substrings in constant time (Karp and Rabin, 1987). One open-addressing table holds all patterns
// by their hash, and a bitmap in front of it turns nearly all misses away. Only lengths that some
// pattern has are tried, shortest first, and of each length only the positions that its patterns'
// match modes allow. The cost depends on the key and on the number of lengths, not on the number
// of patterns.
#pragma once

#include <cstddef>
#include <string_view>

struct Node;
struct ListIndex;

// Longest pattern that the index finds and longest key that it takes. Names have up to 255 bytes
// (RFC 1035, 2.3.4) and lines of a list file 262, so only texts from the bus can be longer.
inline constexpr size_t LONGEST_INDEXED = 319;

// Indexes the chain that begins at `head`; null when there is no memory for it. free_index()
// releases it and takes null.
ListIndex *create_index(Node *head);
void free_index(ListIndex *index);

// The node that a walk would report for `key`, of at most LONGEST_INDEXED bytes without a NUL;
// null when nothing matches. Ignores expiry times.
Node *index_find(const ListIndex &index, std::string_view key);

// The last node of the chain whose pattern is at most `length` long and not longer than
// LONGEST_INDEXED; null when there is none.
Node *index_last(const ListIndex &index, size_t length);

// Takes in a node that is linked behind all nodes of its length, or is about to be. False when
// there is no memory or no sequence number left: the index must then be given up.
bool index_insert(ListIndex &index, Node *node);

// Forgets a node; `previous` is its predecessor in the chain, null for the head.
void index_erase(ListIndex &index, const Node *node, Node *previous);
