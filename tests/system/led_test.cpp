// The LEDs: the pin multiplexer's registers, and what the chain shows during a run.
#include "gpiomux.h"
#include "guards.h"
#include "harness.h"
#include "ledutils.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace harness;

namespace {

constexpr char chain_file[] = "/dev/ledchain0";
constexpr off_t registers_at = 0x10000000 + 96;
constexpr uint64_t all_ones = ~uint64_t{0};

// The two mode registers, the first one in the low half.
void set_registers(uint64_t pair) {
    std::fstream("/dev/mem").seekp(registers_at).write(reinterpret_cast<char *>(&pair), 8);
}

uint64_t registers() {
    uint64_t pair = 0;
    std::ifstream("/dev/mem").seekg(registers_at).read(reinterpret_cast<char *>(&pair), 8);
    return pair;
}

// The frames as hexadecimal digits of their first LED, in one text; a run of equal ones counts
// once.
std::string frames() {
    const std::string bytes = read_file(chain_file);
    std::string seen, last;
    for (size_t at = 0; at < bytes.size(); at += 12) {
        const std::string led = bytes.substr(at, 3);
        EXPECT_EQ(bytes.substr(at, 9), bytes.substr(at + 3, 9));
        char text[8] = "";
        for (size_t i = 0; i < led.size(); i++)
            snprintf(text + 2 * i, 4, "%02x ", static_cast<uint8_t>(led[i]));
        seen += led == last ? "" : text;
        last = led;
    }
    return seen;
}

struct LedTest : SystemTest {
    void SetUp() override {
        SystemTest::SetUp();
        openlog("led_test", LOG_PID, LOG_LOCAL0);
        write_file(chain_file, "");
        set_registers(all_ones);
    }
};

TEST_F(LedTest, MuxWritesOneFieldAndLeavesTheRest) {
    constexpr struct {
        const char *group, *function;
        uint64_t mask, value; // of the pair
    } cases[] = {
        {"pwm0", "pwm", 3ULL << 28, 0},
        {"uart2", "pwm23", 3ULL << 26, 2ULL << 26},
        {"wled", "gpio", 3ULL << 32, 1ULL << 32},
        {"i2c", "pwm", 0, 0}, // has no such function
        {"pwm", "pwm", 0, 0},
        {"spi_s", "", 0, 0},
    };
    for (const auto &[group, function, mask, value] : cases)
        for (const uint64_t before : {uint64_t{0}, all_ones}) {
            set_registers(before);
            ASSERT_EQ(gpiomux_mmap_open(), 0);
            EXPECT_EQ(gpiomux_set(group, function), mask ? 0 : 1) << group;
            gpiomux_mmap_close();
            EXPECT_EQ(registers(), (before & ~mask) | value) << group;
        }
    EXPECT_EQ(gpiomux_set("pwm0", "pwm"), 1) << "without a mapping";
}

TEST_F(LedTest, TroubleAtStartIsLoggedAndCostsTheChainAtMost) {
    constexpr uint64_t set = all_ones & ~(3ULL << 28);
    constexpr struct {
        const char *lost, *in_its_place, *option;
        int priority;
        const char *text, *shown;
        uint64_t registers;
    } cases[] = {
        {"", "", "pwm_group 'pwm0'", 4, "set gpiomux pwm0 -> pwm", "00ff00 000000 ", set},
        {"", "", "pwm_group 'i2c'", 3, "unknown group/function combination", "00ff00 000000 ",
         all_ones},
        {chain_file, "/nowhere", "x ''", 3,
         "Error opening Led Chain device /dev/ledchain0. Leds will be disabled", "", set},
        {"/dev/mem", "/nowhere", "x ''", 4, "Unable to open mmap file: /dev/mem", "", all_ones},
        {"/dev/mem", "/dev/null", "x ''", 3, // opens, but cannot be mapped
         "Error Opening mmap. Check devmem is installed and enabled", "", all_ones},
    };
    syslog(LOG_INFO, "the log's own descriptor");
    const int free_descriptor = dup(0);
    close(free_descriptor);
    for (const auto &[lost, in_its_place, option, priority, text, shown, pair] : cases) {
        SetUp();
        write_file("/etc/config/vantrelle",
                   "config main\nconfig ledchain\n\toption " + std::string(option) + "\n");
        if (*lost) {
            fs::rename(lost, "/dev/kept");
            fs::create_symlink(in_its_place, lost);
        }
        start_init_leds();
        shutdown_multi_led();
        if (*lost)
            fs::rename("/dev/kept", lost);
        EXPECT_EQ(log_priority(text), priority) << text;
        EXPECT_EQ(registers(), pair) << text;
        EXPECT_EQ(frames(), shown) << text;
    }
    EXPECT_EQ(dup(0), free_descriptor);
}

TEST_F(LedTest, AChainThatTakesNoFrameStopsNothing) {
    fs::remove(chain_file);
    ASSERT_EQ(mkfifo(chain_file, 0600), 0);
    const UniqueFd full(open(chain_file, O_RDWR | O_NONBLOCK));
    while (write(full.get(), "frame", 1) == 1)
        continue;
    configure();
    const Upstream upstream(1);
    PrimedDaemon daemon;
    EXPECT_TRUE(passes("www.example"));
    fs::remove(chain_file);
}

void chain_follows_the_run(bool at_once) {
    configure({{"concurrent_queries", at_once ? "300" : "0"},
               {"first_boot", "1"},
               {"dns_timeout", "200"},
               {"stats_db_path", "/etc/vantrelle"}});
    write_file("/etc/vantrelle/black.lst", "ads.example\n");
    const Upstream upstream(1);
    PrimedDaemon daemon;
    EXPECT_EQ(frames(), "660066 fff000 ff0000 0000ff ");
    const Client client;
    EXPECT_TRUE(client.ask(query("ads.example")));
    client.send(query("silent.example"));
    EXPECT_TRUE(wait_for_log("Response timed out"));
    EXPECT_TRUE(client.ask(query("www.example")));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(frames(), "660066 fff000 ff0000 0000ff ff0000 0000ff cc6600 0000ff 000000 ");
}

TEST_F(LedTest, ChainFollowsTheRunInBothWaysOfForwarding) {
    chain_follows_the_run(false);
    SetUp();
    chain_follows_the_run(true);
}

} // namespace
