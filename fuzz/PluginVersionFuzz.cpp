// Any text as a plugin version, against the C library's scan with the same format.

#include "Support.h"
#include "crp/PluginVersion.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

using CRP::parseVersion;
using CRP::PluginVersion;
using Fuzz::Require;
using Limits = std::numeric_limits<std::int32_t>;

/// The C library leaves numbers beyond the type undefined, so it is asked for a type that none of a version's
/// texts goes beyond; longer digit runs are not compared.
bool ScanPlainly(const std::string& text, std::array<std::int32_t, 3>& version) {
    std::size_t run = 0;
    for (const char c : text) {
        run = c >= '0' && c <= '9' ? run + 1 : 0;
        if (run > 18) {
            return false;
        }
    }
    std::array<long long, 3> numbers{};
    // NOLINTNEXTLINE(cert-err34-c): what could not be converted stays 0, which is the rule under test
    (void)sscanf(text.c_str(), "%lld.%lld.%lld", &numbers[0], &numbers[1], &numbers[2]);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const long long number = numbers[i];
        version[i] = number > Limits::max()   ? Limits::max()
                     : number < Limits::min() ? Limits::min()
                                              : static_cast<std::int32_t>(number);
    }
    return true;
}

std::array<std::int32_t, 3> NumbersOf(const PluginVersion& version) {
    return {version.major, version.minor, version.patch};
}

std::string TextOf(const PluginVersion& version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.patch);
}

}  // namespace

// The input is two versions with a line feed between them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    const std::string input(data, data + size);
    const std::size_t parting = std::min(input.find('\n'), input.size());
    const std::string texts[] = {input.substr(0, parting), input.substr(std::min(parting + 1, input.size()))};
    PluginVersion versions[2];
    for (int i = 0; i < 2; ++i) {
        versions[i] = parseVersion(texts[i]);
        std::array<std::int32_t, 3> plain{};
        Require(!ScanPlainly(texts[i], plain) || plain == NumbersOf(versions[i]));
        Require(parseVersion(TextOf(versions[i])) == versions[i]);
        Require(parseVersion(texts[i].substr(0, texts[i].find('\0'))) == versions[i]);
    }
    // Which of two is the newer one.
    Require((versions[0] > versions[1]) == (NumbersOf(versions[0]) > NumbersOf(versions[1])));
    Require((versions[0] == versions[1]) == (TextOf(versions[0]) == TextOf(versions[1])));
    return 0;
}
