// GPIO pins through the kernel's sysfs interface (Documentation/ABI/obsolete/sysfs-gpio): a pin is
// exported by writing its number to /sys/class/gpio/export and then has a directory with the files
// "direction" and "value". Used by the single status LEDs (ledutils.h).
//
// The directory is named by the bare number here, /sys/class/gpio/5, as this board's kernel has it;
// a kernel that names it gpio5 makes every access fail, which costs the LEDs and nothing else.
//
// Pins are 0 to 29; any other number is never exported and every call with it fails. All calls
// belong to the main thread: the table of exported pins has no lock.
#pragma once

// Marks the pin as exported and exports it. Returns 0, or 1 when the export file cannot be opened
// (the pin stays marked, so that gpio_close_all() still tries to give it back).
int gpio_open(int pin);

// Gives the pin back to the kernel, whether it is marked or not; the mark stays. Returns 0, or 1
// when the unexport file cannot be opened, which standard output is told.
int gpio_close(int pin);

// Gives back every marked pin and clears the marks. Returns 0.
int gpio_close_all();

// Returns the level of an exported pin, 0 or 1 (the first character of its value file less '0'),
// and 1 on any failure.
int gpio_get(int pin);

// Writes `direction` ("in" or "out") for an exported pin. Returns 0, or 1 when the pin is not
// marked or its file cannot be opened.
int gpio_set_direction(int pin, const char *direction);

// Writes the level of an exported pin: any positive `value` as 1, zero and negative ones as they
// are. Returns as gpio_set_direction().
int gpio_set(int pin, int value);
