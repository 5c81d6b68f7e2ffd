#include "daemon/RestartPolicy.h"

#include <gmock/gmock.h>
#include <limits>
#include <string>

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Optional;

namespace {

constexpr bool HasRun = true;

class RestartPolicies : public testing::Test {
protected:
    RestartPolicies() {
        options.delay = milliseconds(1000);
        options.longest = milliseconds(5000);
        options.limit = 5;
        options.quiet = milliseconds(60000);
    }

    /// Podman runs from now on for so long and is lost then.
    std::optional<milliseconds> RunFor(RestartPolicy& policy, milliseconds time) {
        policy.Running(now);
        now += time;
        return policy.Lost(now, "ended", HasRun);
    }

    RestartPolicy::Options options;
    RestartPolicy::Clock::time_point now{hours(500000)};
};

TEST_F(RestartPolicies, DoubleTheWaitUpToTheLongest) {
    RestartPolicy policy(options);
    for (const int expected : {1000, 2000, 4000, 5000, 5000}) {
        EXPECT_THAT(RunFor(policy, seconds(1)), Optional(milliseconds(expected)));
    }
    EXPECT_EQ(RunFor(policy, seconds(1)), std::nullopt) << "that is enough";
    EXPECT_EQ(RunFor(policy, seconds(1)), std::nullopt);
}

TEST_F(RestartPolicies, WaitNoLongerThanTheLongestFromTheBeginning) {
    options.delay = milliseconds(9000);
    RestartPolicy policy(options);
    EXPECT_THAT(RunFor(policy, seconds(1)), Optional(milliseconds(5000)));
}

TEST_F(RestartPolicies, NeverOverflow) {
    options.limit = 200;
    options.longest = milliseconds(std::numeric_limits<int>::max());
    RestartPolicy policy(options);
    for (int at = 0; at < 199; ++at) {
        RunFor(policy, seconds(1));
    }
    EXPECT_THAT(RunFor(policy, seconds(1)), Optional(options.longest));
}

TEST_F(RestartPolicies, CountTheRestartsInARow) {
    RestartPolicy policy(options);
    EXPECT_EQ(policy.InARow(), 0U);
    RunFor(policy, seconds(1));
    RunFor(policy, seconds(1));
    EXPECT_EQ(policy.InARow(), 2U);
}

TEST_F(RestartPolicies, BeginAnewAfterATimeOfQuiet) {
    RestartPolicy policy(options);
    RunFor(policy, seconds(1));
    EXPECT_THAT(RunFor(policy, options.quiet - milliseconds(1)), Optional(milliseconds(2000)));
    EXPECT_THAT(RunFor(policy, options.quiet), Optional(milliseconds(1000)));
    EXPECT_EQ(policy.InARow(), 1U);
}

TEST_F(RestartPolicies, BeginAnewAlsoWhenTheyHadGivenUp) {
    options.limit = 1;
    RestartPolicy policy(options);
    EXPECT_NE(RunFor(policy, seconds(1)), std::nullopt);
    EXPECT_EQ(RunFor(policy, seconds(1)), std::nullopt);
    EXPECT_THAT(RunFor(policy, options.quiet), Optional(milliseconds(1000)));
}

/// Each answer of Podman says that it runs; only the first one tells since when.
TEST_F(RestartPolicies, CountTheQuietFromItsBeginning) {
    RestartPolicy policy(options);
    RunFor(policy, seconds(1));
    policy.Running(now);
    policy.Running(now + options.quiet - seconds(1));
    EXPECT_THAT(policy.Lost(now + options.quiet, "ended", HasRun), Optional(milliseconds(1000)));
}

TEST_F(RestartPolicies, DoNotTakeTheTimeBetweenLossesForQuiet) {
    RestartPolicy policy(options);
    RunFor(policy, seconds(1));
    EXPECT_THAT(policy.Lost(now + 2 * options.quiet, "no start", HasRun), Optional(milliseconds(2000)));
}

TEST_F(RestartPolicies, RestartOnFailureOnlyWhatHadRun) {
    options.rule = RestartPolicy::Rule::OnFailure;
    RestartPolicy policy(options);
    EXPECT_EQ(policy.Lost(now, "no start", !HasRun), std::nullopt);
    EXPECT_EQ(policy.InARow(), 0U);
    EXPECT_THAT(policy.Lost(now, "ended", HasRun), Optional(milliseconds(1000)));
}

TEST_F(RestartPolicies, RestartAlwaysAlsoWhatHadNotRun) {
    options.rule = RestartPolicy::Rule::Always;
    RestartPolicy policy(options);
    EXPECT_THAT(policy.Lost(now, "no start", !HasRun), Optional(milliseconds(1000)));
    EXPECT_THAT(policy.Lost(now, "ended", HasRun), Optional(milliseconds(2000)));
}

TEST_F(RestartPolicies, NeverRestartWhenTheyMustNot) {
    options.rule = RestartPolicy::Rule::Never;
    RestartPolicy policy(options);
    EXPECT_EQ(policy.Lost(now, "ended", HasRun), std::nullopt);
    EXPECT_EQ(policy.Lost(now, "no start", !HasRun), std::nullopt);
    EXPECT_EQ(policy.History().size(), 2U);
}

TEST_F(RestartPolicies, NeverRestartWithALimitOfNone) {
    options.limit = 0;
    RestartPolicy policy(options);
    EXPECT_EQ(RunFor(policy, seconds(1)), std::nullopt);
}

TEST_F(RestartPolicies, ForgetWhatWasWhenSomebodyIntervenes) {
    RestartPolicy policy(options);
    RunFor(policy, seconds(1));
    RunFor(policy, seconds(1));
    policy.Running(now);
    policy.Reset();
    EXPECT_EQ(policy.InARow(), 0U);
    EXPECT_EQ(policy.History().size(), 2U);
    EXPECT_THAT(policy.Lost(now, "ended", HasRun), Optional(milliseconds(1000)));
    EXPECT_THAT(policy.Lost(now + options.quiet, "ended", HasRun), Optional(milliseconds(2000)))
        << "what ran before is over";
}

TEST_F(RestartPolicies, RememberTheLastLosses) {
    RestartPolicy policy(options);
    for (int at = 1; at <= 25; ++at) {
        policy.Lost(now + seconds(at), "cause " + std::to_string(at), HasRun);
    }
    ASSERT_EQ(policy.History().size(), 20U);
    EXPECT_EQ(policy.History().front().cause, "cause 6");
    EXPECT_EQ(policy.History().back().cause, "cause 25");
    EXPECT_EQ(policy.History().back().time, now + seconds(25));
}

TEST_F(RestartPolicies, TellTheirRules) {
    EXPECT_EQ(RestartPolicy(options).Rules().longest, milliseconds(5000));
}

}  // namespace
