#include "LogLineTime.h"

#include <gtest/gtest.h>

using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

namespace {

system_clock::time_point At(long long sec, long long nsec) {
    return system_clock::time_point(seconds(sec) + nanoseconds(nsec));
}

TEST(LogLineTime, IsReadAsSecondsSinceTheEpoch) {
    EXPECT_EQ(TimeOfLogLine("1718000000"), At(1718000000, 0));
    EXPECT_EQ(TimeOfLogLine("1718000000.25 line"), At(1718000000, 250000000));
    EXPECT_EQ(TimeOfLogLine("1718000000.123456789"), At(1718000000, 123456789));
    EXPECT_EQ(TimeOfLogLine("1718000000.1234567891 more digits"), At(1718000000, 123456789));
}

TEST(LogLineTime, IsReadAsADate) {
    EXPECT_EQ(TimeOfLogLine("2024-06-10T06:13:20Z"), At(1718000000, 0));
    EXPECT_EQ(TimeOfLogLine("2024-06-10T06:13:20.5Z text"), At(1718000000, 500000000));
    EXPECT_EQ(TimeOfLogLine("2024-06-10T08:13:20+02:00"), At(1718000000, 0));
    EXPECT_EQ(TimeOfLogLine("2024-06-10T00:43:20.000000001-05:30"), At(1718000000, 1));
}

TEST(LogLineTime, OfOtherTextIsNone) {
    for (const char* line :
         {"", "text", "12", "-1718000000", "99999999999", "2024-06-10", "2024-06-10T06:13:20",
          "2024-06-10T06:13:20+2:00", "2024-13-10T06:13:20Z", "99999999999999999999999999"}) {
        EXPECT_FALSE(TimeOfLogLine(line).has_value()) << line;
    }
}

}  // namespace
