// Any bytes as the settings file: what is read, and what is still there after saving and reading again.

#include "PlainJson.h"
#include "QxCCTESettings.h"
#include "QxNContainerPaths.h"
#include "Recording.h"
#include "Support.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

namespace {

using Fuzz::Require;
using nlohmann::json;
using QxNContainer::QxNContainerPaths::SETTINGS_FILE;

/// What the file keeps, apart from the computed maximum of cores.
struct Kept {
    bool enabled;
    std::uint32_t port;
    std::uint32_t cores;
    std::int32_t state;

    bool operator==(const Kept&) const = default;
};

constexpr Kept Before{true, 70, 4, 3};
constexpr Kept Other{false, 7, 2, 1};
constexpr unsigned MaxCores = 5;

void WriteFile(const std::string& text) { std::ofstream(SETTINGS_FILE, std::ios::binary) << text; }

std::string FileText() {
    std::ifstream file(SETTINGS_FILE, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Kept InMemory(QxCCTESettings& settings) {
    const auto user = settings.getServiceUserSettings(false);
    return {settings.getEnabled(false), user.tcpPort, user.coresNum, settings.getState(false)};
}

/// Whole numbers count modulo 2 to the power of 32, others without their fraction and within the signed range.
std::uint32_t Low32(const json& number) {
    if (number.is_number_unsigned()) {
        return static_cast<std::uint32_t>(number.get<std::uint64_t>() & 0xffffffff);
    }
    if (number.is_number_integer()) {
        return static_cast<std::uint32_t>(number.get<std::int64_t>() & 0xffffffff);
    }
    using Limits = std::numeric_limits<std::int32_t>;
    const double whole = std::clamp<double>(std::trunc(number.get<double>()), Limits::min(), Limits::max());
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(whole));
}

Kept ReadPlainly(const json& file, Kept kept) {
    if (!file.is_object()) {
        return kept;
    }
    for (const auto& [name, value] : file.items()) {
        if (name == "enabled" && value.is_boolean()) {
            kept.enabled = value == true;
        } else if (name == "tcp_port" && value.is_number()) {
            kept.port = Low32(value);
        } else if (name == "cores_num" && value.is_number()) {
            kept.cores = Low32(value);
        } else if (name == "state" && value.is_number()) {
            kept.state = static_cast<std::int32_t>(Low32(value));
        }
    }
    return kept;
}

json AsFile(const Kept& kept) {
    return {{"enabled", kept.enabled},
            {"tcp_port", kept.port},
            {"cores_num", kept.cores},
            {"state", kept.state},
            {"max_cpu_core_count", MaxCores}};
}

/// Brings the settings in memory to known values.
void Load(QxCCTESettings& settings, const std::string& text) {
    WriteFile(text);
    settings.getEnabled(true);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    Fuzz::Hide("/mnt");
    std::filesystem::create_directories(std::filesystem::path(SETTINGS_FILE).parent_path());
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static QxCCTESettings& settings = *QxCCTESettings::GetInstance();
    const std::string text(data, data + size);
    const json file = Fuzz::ReadJson(text);
    const Kept expected = ReadPlainly(file, Before);
    static const std::string before = AsFile(Before).dump();
    static const std::string other = AsFile(Other).dump();
    Load(settings, before);
    Require(InMemory(settings) == Before);
    Recording::Forget();

    Load(settings, text);
    Require(InMemory(settings) == expected);
    Require(FileText() == text);
    const auto logs = Recording::Logs();
    Require(logs.size() == 1 && logs[0].starts_with(file.is_discarded() ? "[WARNING] " : "[DEBUG_VERBOSE] "));
    Require(Recording::Messages().empty());

    Require(settings.setState(expected.state));
    const std::string saved = FileText();
    Require(json::parse(saved) == AsFile(expected));
    Load(settings, other);
    Require(InMemory(settings) == Other);
    Load(settings, saved);
    Require(InMemory(settings) == expected);
    Recording::Forget();
    return 0;
}
