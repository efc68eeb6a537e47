// vantrelle-lists: sources of all kinds, and what a cut at any moment leaves.
#include "router.h"
#include "transcript.h"

using namespace harness;

namespace {

constexpr char TOOLS[] = "TOOLS=" ROUTER_FILES "/lists.sh; . $TOOLS\n";

struct Lists : Router {
    std::optional<Process> server;

    void SetUp() override {
        Router::SetUp();
        configure();
        run(TOOLS + "prepare"s);
        server.emplace("busybox", std::vector<std::string>{"httpd", "-f", "-p", "127.0.0.1:8080",
                                                           "-h", "/tmp/www"});
    }
};

TEST_F(Lists, FollowTheirSources) {
    run("printf '#!/bin/sh\nwhile :; do sleep 1; done' >/tmp/vantrelled; chmod +x /tmp/vantrelled");
    const Process daemon("/tmp/vantrelled", {});
    expect_transcript("lists-follow", TOOLS);
}

TEST_F(Lists, SurviveTheirSources) {
    expect_transcript("lists-fail", TOOLS);
}

TEST_F(Lists, SurviveCuts) {
    expect_transcript("lists-cut", TOOLS);
}

TEST_F(Lists, SurviveAFullDisk) {
    expect_transcript("lists-full-disk", TOOLS);
}

} // namespace
