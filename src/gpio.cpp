#include "gpio.h"

#include "guards.h"

#include <array>
#include <cstring>
#include <fcntl.h>

static constexpr int PINS = 30;
static constexpr size_t PATH_LENGTH = 100;

static std::array<bool, PINS> exported{};

static bool is_pin(int pin) {
    return pin >= 0 && pin < PINS;
}

static bool is_exported(int pin) {
    return is_pin(pin) && exported[static_cast<size_t>(pin)];
}

// True when the file could be opened. What the kernel makes of the text is not looked at: a pin
// that is exported already cannot be exported again, and is ours all the same.
static bool write_text(const char *path, const char *text) {
    const UniqueFd file(open(path, O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file)
        return false;
    [[maybe_unused]] const ssize_t written = write(file.get(), text, strlen(text));
    return true;
}

static bool write_number(const char *path, int number) {
    char text[12];
    snprintf(text, sizeof text, "%d", number);
    return write_text(path, text);
}

namespace {

// The path of one of the pin's files.
struct PinPath {
    char text[PATH_LENGTH];
    PinPath(int pin, const char *file) {
        snprintf(text, sizeof text, "/sys/class/gpio/%d/%s", pin, file);
    }
};

} // namespace

int gpio_open(int pin) {
    if (!is_pin(pin))
        return 1;
    exported[static_cast<size_t>(pin)] = true;
    return write_number("/sys/class/gpio/export", pin) ? 0 : 1;
}

int gpio_close(int pin) {
    constexpr const char *PATH = "/sys/class/gpio/unexport";
    if (!is_pin(pin))
        return 1;
    if (write_number(PATH, pin))
        return 0;
    printf("Could not open %s\n", PATH);
    return 1;
}

int gpio_close_all() {
    for (int pin = 0; pin < PINS; pin++)
        if (std::exchange(exported[static_cast<size_t>(pin)], false))
            gpio_close(pin);
    return 0;
}

int gpio_get(int pin) {
    if (!is_exported(pin))
        return 1;
    const UniqueFd file(open(PinPath(pin, "value").text, O_RDONLY | O_CLOEXEC));
    char level;
    if (!file || read(file.get(), &level, 1) != 1)
        return 1;
    return level - '0';
}

int gpio_set_direction(int pin, const char *direction) {
    return is_exported(pin) && write_text(PinPath(pin, "direction").text, direction) ? 0 : 1;
}

int gpio_set(int pin, int value) {
    return is_exported(pin) && write_number(PinPath(pin, "value").text, value > 0 ? 1 : value) ? 0
                                                                                               : 1;
}
