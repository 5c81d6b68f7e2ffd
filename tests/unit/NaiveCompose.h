#pragma once

#include <string>
#include <utility>
#include <vector>

/// What a compose command did to containers, told in another way than the product's: the nth container of a name after
/// belongs to the nth of that name before.
namespace NaiveCompose {

using Container = std::pair<std::string, std::string>;  // name, state
using Containers = std::vector<Container>;

struct Verdict {
    int transition;
    Containers reported;
};

/// @return the entry of the list that is the nth of that name, or null
inline const Container* NthOf(const Containers& list, const std::string& name, long n) {
    for (const Container& container : list) {
        if (container.first == name && n-- == 0) {
            return &container;
        }
    }
    return nullptr;
}

/// @return how many of that name precede an entry in its list
inline long EarlierOf(const Containers& list, const Container& entry) {
    long count = 0;
    for (const Container* other = list.data(); other != &entry; ++other) {
        count += other->first == entry.first;
    }
    return count;
}

inline Containers As(const char* state, const Containers& list) {
    Containers all;
    for (const Container& container : list) {
        all.emplace_back(container.first, state);
    }
    return all;
}

inline Verdict Compare(int cmdType, const std::string& expected, const Containers& before,
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

}  // namespace NaiveCompose
