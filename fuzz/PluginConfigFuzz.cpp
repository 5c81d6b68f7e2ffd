// Any bytes as the plugin configuration file: what the loader takes from it, and what edits leave of it.

#include "CrpPluginHeader.h"
#include "PlainJson.h"
#include "QxCRPHandler.h"
#include "Recording.h"
#include "Support.h"
#include "crp/PluginConfig.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace {

using Fuzz::Require;
using QxNJson::json;

constexpr const char* Key = "deactivated_plugins";
constexpr const char* Name = "x";
constexpr const char* Version = "1.0.0";

/// Results of the edits.
enum EditResult { Changed = 0, NothingToDo = 1, FileFailed = 4 };

/// @return a handler that has found one plugin, whose directory is gone again
std::unique_ptr<CRP::QxCRPHandler> MakeHandler(const std::string& configFile) {
    CrpPluginHeader trailer{};
    trailer.magic = CRP_PLUGIN_MAGIC;
    trailer.header_size = CRP_HEADER_SIZE;
    std::strcpy(trailer.name, Name);
    std::strcpy(trailer.version, Version);
    char directory[] = "/tmp/plugins-XXXXXX";
    Require(mkdtemp(directory) != nullptr);
    std::ofstream(std::string(directory) + "/x.crp", std::ios::binary)
        .write(reinterpret_cast<const char*>(&trailer), sizeof(trailer));
    auto handler = std::make_unique<CRP::QxCRPHandler>(directory, configFile);
    handler->scanPluginsDir();
    std::filesystem::remove_all(directory);
    return handler;
}

// The rules are told once more here, in other words than those under test.

bool IsEntry(const json& element) {
    const auto isText = [&](const char* key) {
        return element.find(key) != element.end() && element.at(key).is_string();
    };
    return element.is_object() && isText("name") && isText("version");
}

bool NamesThePlugin(const json& element) {
    return IsEntry(element) && element.at("name") == Name && element.at("version") == Version;
}

bool HasList(const json& config) {
    return config.is_object() && config.find(Key) != config.end() && config.at(Key).is_array();
}

std::size_t Count(const json& config, bool (*counts)(const json&)) {
    return HasList(config)
               ? static_cast<std::size_t>(std::count_if(config.at(Key).begin(), config.at(Key).end(), counts))
               : 0;
}

json WithThePlugin(json config) {
    if (!config.is_object()) {
        config = json::object();
    }
    if (!HasList(config)) {
        config[Key] = json::array();
    }
    config[Key].push_back({{"name", Name}, {"version", Version}});
    return config;
}

json WithoutThePlugin(json config) {
    json kept = json::array();
    for (const auto& element : config.at(Key)) {
        if (!NamesThePlugin(element)) {
            kept.push_back(element);
        }
    }
    config[Key] = kept;
    return config;
}

int Add(CRP::QxCRPHandler& handler) { return handler.addPluginToConfig(" x\n", Version); }
int Remove(CRP::QxCRPHandler& handler) { return handler.removePluginFromConfig(" x\n", Version); }

json Read(const CRP::QxCRPHandler& handler) {
    json config;
    Require(handler.readConfig(config));
    return config;
}

void CheckEditsOfWhatIsNoJson(CRP::QxCRPHandler& handler, const Fuzz::MemoryFile& file) {
    const std::string content = file.Content();
    Require(Add(handler) == FileFailed && Remove(handler) == FileFailed);
    Require(file.Content() == content);
}

void CheckEdits(CRP::QxCRPHandler& handler, const json& config) {
    json expected = config;
    if (!config.is_object() && !config.empty()) {
        Require(Add(handler) == FileFailed && Remove(handler) == NothingToDo);
        Require(Read(handler) == config);
        return;
    }
    if (Count(config, NamesThePlugin) == 0) {
        Require(Remove(handler) == NothingToDo);
        Require(Add(handler) == Changed);
        expected = WithThePlugin(expected);
    }
    Require(Add(handler) == NothingToDo);
    Require(Read(handler) == expected);
    Require(Remove(handler) == Changed);
    Require(Read(handler) == WithoutThePlugin(expected));
    Require(Remove(handler) == NothingToDo);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static const Fuzz::MemoryFile file;
    static const auto handler = MakeHandler(file.Path());
    file.Write(data, size);
    Recording::Forget();

    CRP::QxCRPLoader loader;
    const bool isJson = loader.init(file.Path());
    const std::string text(data, data + size);
    const auto plain = Fuzz::ReadJson<json::Base>(text);
    Require(isJson == !plain.is_discarded());
    const json config = json::parse(text);
    Require(!isJson || static_cast<const json::Base&>(config) == plain);
    const auto& entries = loader.getDeactivatedPlugins();
    Require(entries.size() == (isJson ? Count(config, IsEntry) : 0));

    json read;
    Require(handler->readConfig(read) == isJson);
    if (!isJson) {
        CheckEditsOfWhatIsNoJson(*handler, file);
        return 0;
    }
    Require(read == config);
    // Written and read once more it says the same; only bytes that are not UTF-8 could change, and those are no JSON.
    Require(handler->writeConfig(read));
    Require(Read(*handler) == read);
    CRP::QxCRPLoader second;
    Require(second.init(file.Path()) && second.getDeactivatedPlugins().size() == entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Require(second.getDeactivatedPlugins()[i].name == entries[i].name);
        Require(second.getDeactivatedPlugins()[i].version == entries[i].version);
    }
    CheckEdits(*handler, config);
    return 0;
}
