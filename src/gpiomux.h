// The pin multiplexer of the board's SoC: which of its functions a group of pins carries.
//
// Two 32-bit mode registers hold one small field per group. They are reached through /dev/mem,
// which the kernel must have enabled. The field positions are those of the SoC's data sheet, taken
// as one 64-bit pair. Called by init_multi_led() alone, on the main thread: open, set, close.
#pragma once

#include <cstdint>

// Maps the register area. Returns 0; or 1 when /dev/mem cannot be opened or mapped, which standard
// error and the log are told. Opening twice releases the first mapping.
int gpiomux_mmap_open();

// Releases the mapping and its descriptor, if open.
void gpiomux_mmap_close();

// Switches a group to one of its functions, both by exact name. Returns 0 when set and 1 when the
// table has no such pair (logged) or the area is not mapped.
int gpiomux_set(const char *group, const char *function);

// Writes `value` into the field of `mask` at bit `shift` (0 to 63) of the register pair and leaves
// all other bits. The area must be mapped.
void __gpiomux_set(uint32_t mask, uint32_t shift, uint32_t value);

// Prints every group with its functions to standard error, the current one in brackets. Prints
// nothing when the area is not mapped.
void gpiomux_get();
