// The LEDs: the pin multiplexer's registers, and what the chain shows during a run.
#include "gpiomux.h"
#include "guards.h"
#include "harness.h"
#include "ledutils.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace harness;

namespace {

constexpr char CHAIN[] = "/dev/ledchain0";
constexpr off_t REGISTERS = 0x10000000 + 96;
constexpr uint64_t ALL_ONES = ~uint64_t{0};

// The two mode registers, the first one in the low half.
void set_registers(uint64_t pair) {
    std::fstream("/dev/mem").seekp(REGISTERS).write(reinterpret_cast<char *>(&pair), 8);
}

uint64_t registers() {
    uint64_t pair = 0;
    std::ifstream("/dev/mem").seekg(REGISTERS).read(reinterpret_cast<char *>(&pair), 8);
    return pair;
}

// The colours that the LEDs of the chain showed, each once while it stays the same.
std::string colours() {
    Process list("/bin/sh", {"-c", "od -An -v -tx1 -w3 /dev/ledchain0 | uniq | tr '\\n' ','"});
    list.wait();
    return list.output();
}

struct LedTest : SystemTest {
    void SetUp() override {
        SystemTest::SetUp();
        openlog("led_test", LOG_PID, LOG_LOCAL0);
        write_file(CHAIN, "");
        set_registers(ALL_ONES);
    }
};

TEST_F(LedTest, MuxWritesItsFieldsAndLeavesTheRest) {
    constexpr uint64_t FIELDS = 3ULL << 26 | 3ULL << 32, VALUES = 2ULL << 26 | 1ULL << 32;
    for (const uint64_t before : {uint64_t{0}, ALL_ONES}) {
        set_registers(before);
        ASSERT_EQ(gpiomux_mmap_open(), 0);
        EXPECT_EQ(gpiomux_set("uart2", "pwm23") + gpiomux_set("wled", "gpio"), 0);
        EXPECT_EQ(gpiomux_set("pwm", "pwm") + gpiomux_set("spi_s", ""), 2) << "are not there";
        gpiomux_mmap_close();
        EXPECT_EQ(registers(), (before & ~FIELDS) | VALUES);
    }
    EXPECT_EQ(gpiomux_set("pwm0", "pwm"), 1) << "without a mapping";
}

TEST_F(LedTest, TroubleAtStartIsLoggedAndCostsTheChainAtMost) {
    constexpr uint64_t SET = ALL_ONES & ~(3ULL << 28);
    constexpr struct {
        const char *lost, *in_its_place, *option;
        int priority;
        const char *text;
        uint64_t registers;
    } cases[] = {
        {"", "", "x ''", LOG_WARNING, "set gpiomux pwm0 -> pwm", SET},
        {"", "", "pwm_group 'i2c'", LOG_ERR, "unknown group/function combination", ALL_ONES},
        {CHAIN, "/nowhere", "x ''", LOG_ERR,
         "Error opening Led Chain device /dev/ledchain0. Leds will be disabled", SET},
        {"/dev/mem", "/nowhere", "x ''", LOG_WARNING, "Unable to open mmap file: /dev/mem",
         ALL_ONES},
        {"/dev/mem", "/dev/null", "x ''", LOG_ERR, // opens, but cannot be mapped
         "Error Opening mmap. Check devmem is installed and enabled", ALL_ONES},
    };
    syslog(LOG_INFO, "the log's own descriptor");
    const int free_descriptor = dup(0);
    close(free_descriptor);
    for (const auto &[lost, in_its_place, option, priority, text, pair] : cases) {
        SetUp();
        write_file("/etc/config/vantrelle",
                   "config main\nconfig ledchain\n\toption "s + option + "\n");
        if (*lost) {
            fs::rename(lost, "/dev/kept");
            fs::create_symlink(in_its_place, lost);
        }
        start_init_leds();
        shutdown_multi_led();
        if (*lost)
            fs::rename("/dev/kept", lost);
        expect_logged(priority, {text});
        EXPECT_EQ(registers(), pair) << text;
        EXPECT_EQ(colours(), *lost ? "" : " 00 ff 00, 00 00 00,") << text;
    }
    EXPECT_EQ(dup(0), free_descriptor);
}

TEST_F(LedTest, AChainThatTakesNoFrameStopsNothing) {
    fs::remove(CHAIN);
    ASSERT_EQ(mkfifo(CHAIN, 0600), 0);
    const UniqueFd full(open(CHAIN, O_RDWR | O_NONBLOCK));
    while (write(full.get(), "frame", 1) == 1)
        continue;
    configure();
    const Upstream upstream(1);
    const PrimedDaemon daemon;
    EXPECT_TRUE(passes("www.example"));
    fs::remove(CHAIN);
}

TEST_F(LedTest, ChainFollowsTheRunInBothWaysOfForwarding) {
    const Upstream upstream(1);
    const Client client;
    for (const char *queries : {"0", "300"}) {
        SetUp();
        configure({{"concurrent_queries", queries},
                   {"first_boot", "1"},
                   {"dns_timeout", "1000"},
                   {"stats_db_path", "/etc/vantrelle"}});
        write_file("/etc/vantrelle/black.lst", "ads.example\n");
        PrimedDaemon daemon;
        EXPECT_FALSE(passes("ads.example"));
        client.send(query("silent.example"));
        EXPECT_TRUE(wait_for_log("Response timed out"));
        EXPECT_TRUE(passes("www.example"));
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(colours(), " 66 00 66, ff f0 00, ff 00 00, 00 00 ff, ff 00 00, 00 00 ff, "
                             "cc 66 00, 00 00 ff, 00 00 00,");
    }
}

} // namespace
