// Each test beside a private JACK server, with an alarm rather than a hang.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "KROJACKTestServer.h"

class KROJACKServerTest : public ::testing::Test {
public:
    // Long enough for a 30 s run under a sanitizer.
    static constexpr unsigned watchdogSeconds = 120;

protected:
    void SetUp() override {
        alarm(watchdogSeconds);
        ASSERT_TRUE(server_.start()) << "jackd did not start";
    }
    void TearDown() override {
        server_.stop();
        alarm(0);
    }

    KROJACKTestServer server_;
};
