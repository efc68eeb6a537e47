// Text tests of the pattern lists and the list loader. All functions are pure but for isNumeric's
// debug traces, keep no state and may be called from any thread.
#pragma once

// Returns its argument untouched: it trims nothing. Without a caller in the daemon.
char *rtrim(char *text);

// Cuts the last extension off a path text in place: "a.tar.gz" becomes "a.tar"; ".hidden",
// "dir/.hidden" and "dir.d/file" stay as they are. `*text` keeps its address.
void strip_ext(char **text);

// 1 when every character is an ASCII digit, else 0. The empty text yields 1, so that removing an
// empty item from a list asks the database for row 0.
int isOnlyDigits(const char *text);

// 1 when the first occurrence of `prefix` in `text` is at its start, else 0.
int startsWith(const char *text, const char *prefix);

// 1 when `text` ends with exactly `suffix`, else 0.
int endsWith(const char *text, const char *suffix);

// 1 when `text` holds digits and blanks only and at least one digit, else 0; null yields 0.
int isNumeric(const char *text);

// The plain decimal value of a text: leading blanks, a sign and digits, whatever follows is
// ignored and a text without digits is 0. Never fails; a value beyond 32 bits keeps its low bits.
int decimal(const char *text);
