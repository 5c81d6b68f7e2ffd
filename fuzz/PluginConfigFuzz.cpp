// Any bytes as the plugin configuration file: what the loader takes from it, and what an edit leaves of it.

#include "QxCRPHandler.h"
#include "Recording.h"
#include "crp/PluginConfig.h"

#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using QxNJson::json;

void Require(bool holds) {
    if (!holds) {
        abort();
    }
}

class MemoryFile {
public:
    MemoryFile() : _file(memfd_create("config.json", MFD_CLOEXEC)) { Require(_file >= 0); }
    void Write(const std::uint8_t* data, std::size_t size) const {
        Require(ftruncate(_file, 0) == 0);
        Require(pwrite(_file, data, size, 0) == static_cast<ssize_t>(size));
    }
    std::string Path() const { return "/proc/self/fd/" + std::to_string(_file); }

private:
    int _file;
};

/// @return how many elements of the list name a plugin, judged without the rules under test
std::size_t CountEntries(const json& config) {
    const auto list = config.is_object() ? config.find("deactivated_plugins") : config.end();
    if (list == config.end() || !list->is_array()) {
        return 0;
    }
    std::size_t count = 0;
    for (const auto& element : *list) {
        const auto isText = [&](const char* key) {
            return element.find(key) != element.end() && element.at(key).is_string();
        };
        count += element.is_object() && isText("name") && isText("version") ? 1U : 0U;
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static const MemoryFile file;
    file.Write(data, size);
    Recording::Forget();

    CRP::QxCRPLoader loader;
    const bool isJson = loader.init(file.Path());
    const std::string text(data, data + size);
    const json config = json::parse(text);
    Require(isJson == !config.is_invalid());
    const auto& entries = loader.getDeactivatedPlugins();
    Require(entries.size() == (isJson ? CountEntries(config) : 0));

    CRP::QxCRPHandler handler("/none", file.Path());
    json read;
    Require(handler.readConfig(read) == isJson);
    if (!isJson) {
        return 0;
    }
    Require(read == config);
    // Written and read once more it says the same; only bytes that are not UTF-8 could change, and those are no JSON.
    Require(handler.writeConfig(read));
    json again;
    Require(handler.readConfig(again) && again == read);
    CRP::QxCRPLoader second;
    Require(second.init(file.Path()) && second.getDeactivatedPlugins().size() == entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Require(second.getDeactivatedPlugins()[i].name == entries[i].name);
        Require(second.getDeactivatedPlugins()[i].version == entries[i].version);
    }
    return 0;
}
