#include "Sandbox.h"

#include <gmock/gmock.h>

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        Sandbox::Enter();
    }
    return RUN_ALL_TESTS();
}
