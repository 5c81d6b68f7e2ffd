#include "CoreList.h"

#include "NumberText.h"

#include <algorithm>
#include <vector>

namespace QxNLinuxPlatform {

namespace {

// Far more than the kernel can be built for; keeps a damaged text from being expanded.
constexpr unsigned int HighestCore = 65535;

struct CoreRange {
    unsigned int first;
    unsigned int last;
};

std::optional<CoreRange> parseRange(std::string_view text) {
    const std::size_t dash = text.find('-');
    const auto first = parseNumber(text.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parseNumber(text.substr(dash + 1));
    if (!first || !last || *first > *last || *last > HighestCore) {
        return std::nullopt;
    }
    return CoreRange{*first, *last};
}

bool isSet(const QxTBitmap& mask, std::uint32_t bit) { return (mask.words[bit / 64] >> (bit % 64) & 1) != 0; }

}  // namespace

std::optional<unsigned int> countCores(std::string_view list) {
    if (!list.empty() && list.back() == '\n') {
        list.remove_suffix(1);
    }
    std::vector<bool> cores;
    while (!list.empty()) {
        const std::size_t comma = list.find(',');
        const auto range = parseRange(list.substr(0, comma));
        if (!range || comma == list.size() - 1) {
            return std::nullopt;
        }
        cores.resize(std::max<std::size_t>(cores.size(), range->last + 1));
        std::fill(cores.begin() + range->first, cores.begin() + range->last + 1, true);
        list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
    }
    return static_cast<unsigned int>(std::count(cores.begin(), cores.end(), true));
}

std::string formatCores(const QxTBitmap& mask) {
    std::string list;
    for (std::uint32_t core = 0; core < mask.bits; ++core) {
        if (!isSet(mask, core)) {
            continue;
        }
        const std::uint32_t first = core;
        while (core + 1 < mask.bits && isSet(mask, core + 1)) {
            ++core;
        }
        if (!list.empty()) {
            list += ',';
        }
        list += std::to_string(first);
        if (core > first) {
            list += '-';
            list += std::to_string(core);
        }
    }
    return list;
}

}  // namespace QxNLinuxPlatform
