#pragma once

#include "Recording.h"

#include <gtest/gtest.h>

#include <string>

/// A test of plugins. Of everything that they log, only errors and the loading of a plugin may reach the
/// message manager.
class CrpTest : public testing::Test {
protected:
    ~CrpTest() override {
        for (const std::string& message : Recording::Messages()) {
            EXPECT_TRUE(message.starts_with("3 Quolex Container ") ||
                        message.starts_with("1 Quolex Container Runtime: Loading plugin '"))
                << message;
        }
    }
};
