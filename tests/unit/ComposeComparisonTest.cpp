#include "NaiveCompose.h"
#include "compose/ComposeStatus.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

using NaiveCompose::Container;
using NaiveCompose::Containers;
using QxNJson::json;

// The comparison of random lists with a second way of saying the same.

namespace {

json AsJson(const Containers& list) {
    json array = json::array();
    for (const auto& [name, state] : list) {
        array.push_back({{"Name", name}, {"State", state}});
    }
    return array;
}

class ComposeComparison : public testing::TestWithParam<unsigned int> {};

TEST_P(ComposeComparison, AgreesWithTheNaiveOneOnRandomLists) {
    std::mt19937 random(GetParam());
    const auto below = [&](unsigned int limit) { return random() % limit; };
    const std::vector<std::string> names{"a", "b", "web-1", "web-2", "A", "\xc3\xa4"};
    const std::vector<std::string> states{"created", "running", "exited", "", "paused", "removing"};
    const auto randomList = [&] {
        Containers list(below(4) == 0 ? 0 : below(8));
        for (Container& container : list) {
            container = {names[below(static_cast<unsigned int>(names.size()))],
                         states[below(static_cast<unsigned int>(states.size()))]};
        }
        return list;
    };

    for (int round = 0; round < 4000; ++round) {
        const int cmdType = static_cast<int>(1 + below(4));
        const std::string expected = states[below(4)];
        const Containers before = randomList();
        const Containers after = randomList();
        json reported = json::array();

        const int transition =
            QxNCompose::CompareStates(cmdType, expected, AsJson(before), AsJson(after), reported);

        const NaiveCompose::Verdict naive = NaiveCompose::Compare(cmdType, expected, before, after);
        ASSERT_EQ(transition, naive.transition) << cmdType << AsJson(before) << AsJson(after);
        ASSERT_EQ(reported.dump(), AsJson(naive.reported).dump())
            << cmdType << AsJson(before) << AsJson(after);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ComposeComparison, testing::Values(1U, 20U, 300U, 4000U, 50000U));

}  // namespace
