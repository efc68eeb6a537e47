#include "ledutils.h"

#include "gpio.h"
#include "gpiomux.h"
#include "guards.h"
#include "uciutils.h"

#include <atomic>
#include <fcntl.h>
#include <syslog.h>

namespace {

// Pins of the single LEDs.
enum : int { RED_PIN = 0, BLUE_PIN = 1, GREEN_PIN = 2 };

// The single LEDs hang between supply and pin: a low pin lights them.
enum : int { LED_ON = 0, LED_OFF = 1 };

} // namespace

// Descriptor of the chain. Atomic because workers write frames while nothing but the order of
// shutdown keeps the main thread from closing it.
static std::atomic<int> chain_fd{-1};

static constexpr LedFrame whole_chain(uint8_t red, uint8_t green, uint8_t blue) {
    LedFrame frame{};
    for (size_t at = 0; at < frame.size(); at += 3) {
        frame[at] = red;
        frame[at + 1] = green;
        frame[at + 2] = blue;
    }
    return frame;
}

// The colour is a template argument so that each frame is built by the compiler.
template <uint8_t red, uint8_t green, uint8_t blue>
static void show() {
    static constexpr LedFrame FRAME = whole_chain(red, green, blue);
    multi_led(FRAME);
}

void start_init_leds() {
    init_multi_led();
    if (isFirstBoot())
        multi_led_purple();
    else
        multi_led_green();
}

void init_multi_led() {
    syslog(LOG_DEBUG, "Initialising LED chain");
    if (gpiomux_mmap_open() != 0) {
        syslog(LOG_ERR, "Error Opening mmap. Check devmem is installed and enabled");
        return;
    }
    syslog(LOG_DEBUG, "devmem opened successfully");
    const OwnedText group(get_uci_string_with_default("vantrelle.@ledchain[0].pwm_group", "pwm0"));
    syslog(LOG_DEBUG, "GPIO Mux returned %d", gpiomux_set(group.get(), "pwm"));
    gpiomux_mmap_close();

    // The configured number is read and then not used: the board has one chain, and it is device 0.
    get_uci_int_with_default("vantrelle.@ledchain[0].device_no", 0);
    char path[32];
    snprintf(path, sizeof path, "/dev/ledchain%d", 0);
    chain_fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (chain_fd < 0)
        syslog(LOG_ERR, "Error opening Led Chain device %s. Leds will be disabled", path);
}

void multi_led(const LedFrame &frame) {
    // Zero counts as no chain; a daemon started without standard input stays dark.
    const int fd = chain_fd;
    if (fd <= 0)
        return;
    // A device that does not take a frame, or is not ready for it, keeps its old colour; there is
    // nobody to tell.
    [[maybe_unused]] const ssize_t written = write(fd, frame.data(), frame.size());
}

void multi_led_red() {
    show<0xff, 0x00, 0x00>();
}
void multi_led_crimson() {
    show<0xdc, 0x14, 0x3c>();
}
void multi_led_blue() {
    show<0x00, 0x00, 0xff>();
}
void multi_led_yellow() {
    show<0xff, 0xf0, 0x00>();
}
void multi_led_green() {
    show<0x00, 0xff, 0x00>();
}
void multi_led_purple() {
    show<0x66, 0x00, 0x66>();
}
void multi_led_orange() {
    show<0xcc, 0x66, 0x00>();
}
void multi_led_light_blue() {
    show<0x00, 0xda, 0xff>();
}
void multi_led_light_green() {
    show<0x33, 0xff, 0x33>();
}

void shutdown_multi_led() {
    show<0, 0, 0>();
    const int fd = chain_fd.exchange(-1);
    if (fd >= 0)
        close(fd);
    gpio_close_all();
}

void init_leds() {
    for (const int pin : {RED_PIN, BLUE_PIN, GREEN_PIN}) {
        gpio_open(pin);
        gpio_set_direction(pin, "out");
    }
}

void set_red_led_on() {
    gpio_set(RED_PIN, LED_ON);
}
void set_red_led_off() {
    gpio_set(RED_PIN, LED_OFF);
}
void set_blue_led_on() {
    gpio_set(BLUE_PIN, LED_ON);
}
void set_blue_led_off() {
    gpio_set(BLUE_PIN, LED_OFF);
}
void set_green_led_on() {
    gpio_set(GREEN_PIN, LED_ON);
}
void set_green_led_off() {
    gpio_set(GREEN_PIN, LED_OFF);
}

void shutdown_leds() {
    gpio_close_all();
}
