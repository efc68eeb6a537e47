// When signals are handled in the main thread.
#include "sigmask.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

std::vector<int> handled;

TEST(SignalWindow, DefersUntilItOpens) {
    for (const int number : {SIGTERM, SIGUSR2})
        signal(number, [](int met) {
            if (!is_deferred(met))
                handled.push_back(met);
        });
    handled.clear();
    handled.reserve(8); // a handler must not allocate
    block_daemon_signals();
    raise(SIGUSR2);
    {
        const SignalWindow window;
        defer_signals(true); // met at once, but not handled before the next window
        EXPECT_TRUE(handled.empty());
        raise(SIGTERM);
    }
    const std::vector both{SIGTERM, SIGUSR2};
    {
        const SignalWindow window;
        EXPECT_EQ(handled, both);
        raise(SIGUSR2);
        EXPECT_EQ(handled.size(), 3u);
    }
    raise(SIGUSR2);
    EXPECT_EQ(handled.size(), 3u);
    { const SignalWindow window; }
    EXPECT_EQ(handled.size(), 4u);
    block_daemon_signals();
}

} // namespace
