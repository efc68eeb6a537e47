// The status LEDs: what the board shows while the daemon starts, serves, fails over and stops.
//
// The board carries a chain of four RGB LEDs behind one character device. init_multi_led() routes
// the pins to it (gpiomux.h) and opens it; from then on every change of state is one short write.
// An older board has three single LEDs on GPIO pins instead (gpio.h); their functions stay for it.
//
// LEDs are decoration: a failure is logged once at start and ignored ever after.
#pragma once

#include <array>
#include <cstdint>

// One frame of the chain: four LEDs, each as red, green and blue.
using LedFrame = std::array<uint8_t, 12>;

// Sets up the chain and shows purple on a first boot, green otherwise. Main thread, after
// load_config() and before any other thread exists.
void start_init_leds();

// Switches the pins to the chain and opens its device. Without access to /dev/mem or without the
// device the chain stays dark; the log says why. Main thread, once.
void init_multi_led();

// Writes `frame` to the chain, when there is one; a frame for which the device would have to be
// waited for is dropped. Any thread, without a lock: a frame is a single write.
void multi_led(const LedFrame &frame);

// Show one colour on the whole chain; any thread, as multi_led().
void multi_led_red();         // start-up: lists loaded; later: a query diverted as blocked
void multi_led_crimson();     // not used yet
void multi_led_blue();        // sockets open; a query forwarded
void multi_led_yellow();      // start-up: before database and lists are loaded
void multi_led_green();       // LED set-up done; a query diverted without being blocked
void multi_led_purple();      // LED set-up done on a first boot
void multi_led_orange();      // upstream switched or its socket reset
void multi_led_light_blue();  // not used yet
void multi_led_light_green(); // not used yet

// Turns the chain off, closes it and gives back every exported GPIO pin. Main thread, at the end
// of shutdown, when no worker is left to show anything.
void shutdown_multi_led();

// The single LEDs of the older board, active low: exports their pins as outputs, switches each of
// them, and gives the pins back. Failures are silent. Main thread.
void init_leds();
void set_red_led_on();
void set_red_led_off();
void set_blue_led_on();
void set_blue_led_off();
void set_green_led_on();
void set_green_led_off();
void shutdown_leds();
