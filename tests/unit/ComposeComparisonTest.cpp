#include "compose/ComposeStatus.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

using QxNJson::json;

// The comparison of random lists with a second way of saying the same: the nth container of a name after
// belongs to the nth of that name before.

namespace {

using Container = std::pair<std::string, std::string>;  // name, state
using Containers = std::vector<Container>;

struct Verdict {
    int transition;
    Containers reported;
};

/// @return the entry of the list that is the nth of that name, or null
const Container* NthOf(const Containers& list, const std::string& name, long n) {
    for (const Container& container : list) {
        if (container.first == name && n-- == 0) {
            return &container;
        }
    }
    return nullptr;
}

/// @return how many of that name precede an entry in its list
long EarlierOf(const Containers& list, const Container& entry) {
    long count = 0;
    for (const Container* other = list.data(); other != &entry; ++other) {
        count += other->first == entry.first;
    }
    return count;
}

Containers As(const char* state, const Containers& list) {
    Containers all;
    for (const Container& container : list) {
        all.emplace_back(container.first, state);
    }
    return all;
}

Verdict CompareNaively(int cmdType, const std::string& expected, const Containers& before,
                       const Containers& after) {
    const bool isCreate = cmdType == 3;
    if (after.empty()) {
        return {!before.empty() ? 5 : isCreate ? 1 : 3, As("removing", before)};
    }
    if (before.empty()) {
        return {4, after};
    }
    Containers reported;
    for (const Container& now : after) {
        const Container* then = NthOf(before, now.first, EarlierOf(after, now));
        const bool reached = then != nullptr && then->second != now.second && now.second == expected;
        if (isCreate ? then == nullptr : reached) {
            reported.push_back(now);
        }
    }
    Containers vanished;
    for (const Container& then : before) {
        if (NthOf(after, then.first, EarlierOf(before, then)) == nullptr) {
            vanished.emplace_back(then.first, "removing");
        }
    }
    int transition = reported.empty() ? 3 : isCreate ? 2 : 4;
    if (cmdType == 4 && !vanished.empty()) {
        reported.insert(reported.end(), vanished.begin(), vanished.end());
        transition = 5;
    }
    return {transition, reported};
}

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

        const Verdict naive = CompareNaively(cmdType, expected, before, after);
        ASSERT_EQ(transition, naive.transition) << cmdType << AsJson(before) << AsJson(after);
        ASSERT_EQ(reported.dump(), AsJson(naive.reported).dump())
            << cmdType << AsJson(before) << AsJson(after);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ComposeComparison, testing::Values(1U, 20U, 300U, 4000U, 50000U));

}  // namespace
