#include "gpiomux.h"

#include "guards.h"

#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>

static constexpr const char *MEMORY_DEVICE = "/dev/mem";
static constexpr off_t REGISTERS_ADDRESS = 0x10000000;
static constexpr size_t REGISTERS_SIZE = 1024;
static constexpr size_t FIRST_MODE_REGISTER =
    96 / sizeof(uint32_t); // index; the second one follows

static constexpr uint32_t MAX_FUNCTIONS = 4;

namespace {

struct MuxGroup {
    const char *name;
    const char *functions[MAX_FUNCTIONS]; // the index is the field's value; null: no such function
    uint32_t shift;
    uint32_t mask;
};

} // namespace

static constexpr MuxGroup omega2GpioMux[] = {
    {"i2c", {"i2c", "gpio"}, 20, 3},
    {"uart0", {"uart", "gpio"}, 8, 3},
    {"uart1", {"uart", "gpio", "pwm01"}, 24, 3},
    {"uart2", {"uart", "gpio", "pwm23"}, 26, 3},
    {"pwm0", {"pwm", "gpio"}, 28, 3},
    {"pwm1", {"pwm", "gpio"}, 30, 3},
    {"refclk", {"refclk", "gpio"}, 18, 1},
    {"spi_s", {"spi_s", "gpio", nullptr, "pwm01_uart2"}, 2, 3},
    {"spi_cs1", {"spi_cs1", "gpio", "refclk"}, 4, 3},
    {"i2s", {"i2s", "gpio", "pcm"}, 6, 3},
    {"ephy", {"ephy", "gpio"}, 34, 3},
    {"wled", {"wled", "gpio"}, 32, 3},
};

// The mapping outlives no descriptor: both are taken and released together. Registers are read and
// written as whole 32-bit words, exactly as often as the code says, hence volatile.
static int memory_fd = -1;
static volatile uint32_t *registers = nullptr;

namespace {

// Where a field lies: its register and its shift within it.
struct Field {
    volatile uint32_t *word;
    uint32_t shift;
    explicit Field(uint32_t pair_shift)
        : word(registers + FIRST_MODE_REGISTER + pair_shift / 32), shift(pair_shift % 32) {}
};

} // namespace

int gpiomux_mmap_open() {
    gpiomux_mmap_close();
    UniqueFd device(open(MEMORY_DEVICE, O_RDWR | O_CLOEXEC));
    if (!device) {
        fprintf(stderr, "unable to open mmap file");
        syslog(LOG_WARNING, "Unable to open mmap file: %s", MEMORY_DEVICE);
        return 1;
    }
    void *area = mmap(nullptr, REGISTERS_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, device.get(),
                      REGISTERS_ADDRESS);
    if (area == MAP_FAILED) {
        perror("failed to mmap");
        fprintf(stderr, "failed to mmap");
        return 1;
    }
    memory_fd = device.release();
    registers = static_cast<volatile uint32_t *>(area);
    return 0;
}

void gpiomux_mmap_close() {
    if (registers)
        munmap(const_cast<uint32_t *>(registers), REGISTERS_SIZE);
    registers = nullptr;
    const UniqueFd closing(std::exchange(memory_fd, -1));
}

void __gpiomux_set(uint32_t mask, uint32_t shift, uint32_t value) {
    const Field field(shift);
    const uint32_t others = *field.word & ~(mask << field.shift);
    *field.word = others | value << field.shift;
}

int gpiomux_set(const char *group, const char *function) {
    for (const MuxGroup &entry : omega2GpioMux) {
        if (strcmp(entry.name, group) != 0)
            continue;
        for (uint32_t value = 0; value < MAX_FUNCTIONS; value++) {
            if (!entry.functions[value] || strcmp(entry.functions[value], function) != 0)
                continue;
            if (!registers)
                return 1;
            __gpiomux_set(entry.mask, entry.shift, value);
            syslog(LOG_WARNING, "set gpiomux %s -> %s\n", group, function);
            return 0;
        }
    }
    syslog(LOG_ERR, "unknown group/function combination\n");
    return 1;
}

void gpiomux_get() {
    if (!registers)
        return;
    for (const MuxGroup &entry : omega2GpioMux) {
        const Field field(entry.shift);
        const uint32_t current = *field.word >> field.shift & entry.mask;
        fprintf(stderr, "Group %s - ", entry.name);
        for (uint32_t value = 0; value < MAX_FUNCTIONS; value++)
            if (entry.functions[value])
                fprintf(stderr, value == current ? "[%s] " : "%s ", entry.functions[value]);
        fprintf(stderr, "\n");
    }
}
