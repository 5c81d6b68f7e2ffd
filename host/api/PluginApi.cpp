#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "api/Interface.h"
#include "api/Names.h"
#include "http/UploadFile.h"

#include <filesystem>

namespace fs = std::filesystem;
using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

constexpr std::chrono::seconds ListDeadline{5};

const std::string& Directory() { return QxNContainer::QxNContainerPaths::PLUGINS_DIR; }

/// The library's plugin operations belong to its control thread.
Task<json> Rescan(Ground& ground) {
    co_return co_await ground.keeper.OnControlThread([&] {
        ground.keeper.Service().scanContainerPluginsDir();
        return ground.keeper.Service().listPlugins();
    });
}

/// @param directory  "user" or "system"; empty: the first that has such a file, as for the library
/// @return the plugin in the file of that name; null when the scan found none
json FindFile(const json& list, const std::string& fileName, const std::string& directory) {
    for (const auto& plugin : list["plugins"]) {
        if (plugin["fileName"] == fileName && (directory.empty() || plugin["directory"] == directory)) {
            return plugin;
        }
    }
    return nullptr;
}

Task<Reply> Upload(Ground& ground, Request& request) {
    const std::string name = FileName(request.segments[3]);
    RequireUserStorage(ground.keeper);
    QxNHttp::UploadedFile file = co_await request.body->ToFile(Directory(), ground.largestUpload);
    // Whether it is a plugin is for the library's own reader to say, which does not look at hidden files.
    const std::string visibleName = fs::path(file.Path()).filename().string().substr(1);
    co_await QxNHttp::Place(file, Directory() + "/" + visibleName);
    QxNHttp::UploadedFile visible(Directory() + "/" + visibleName, file.Size());
    const json found = co_await Rescan(ground);
    if (FindFile(found, visibleName, "user").is_null()) {
        co_await QxNHttp::Discard(visible);
        throw Problem(Status::unprocessable_entity,
                      "This is no plugin file: it does not end in a plugin's trailer. Nothing was kept.");
    }
    const bool replaces = co_await QxNHttp::Place(visible, Directory() + "/" + name);
    co_await Rescan(ground);
    co_return Reply::Empty(replaces ? Status::no_content : Status::created);
}

Task<Reply> Remove(Ground& ground, const std::string& name) {
    FileName(name);
    const std::string path = Directory() + "/" + name;
    const std::string notFound = "There is no plugin file '" + name + "' in the user directory.";
    co_await RemoveFile(path, notFound);
    co_await Rescan(ground);
    co_return Reply::Empty();
}

Task<Reply> Switch(Ground& ground, const Request& request) {
    const std::string& name = request.segments[3];
    const std::string& action = request.segments[4];
    const std::string directory = request.Parameter("directory");
    if (action != "activate" && action != "deactivate") {
        throw Problem(Status::not_found, "A plugin can be activated and deactivated.");
    }
    if (!directory.empty() && directory != "user" && directory != "system") {
        throw Problem(Status::bad_request, "The directory of a plugin is 'user' or 'system'.");
    }
    const json list = co_await Rescan(ground);
    const json plugin = FindFile(list, name, directory);
    if (plugin.is_null()) {
        throw Problem(Status::not_found, "There is no plugin in a file '" + name + "'.");
    }
    const int code = co_await ground.keeper.OnControlThread([&] {
        const std::string id = plugin["name"].get<std::string>();
        const std::string version = plugin["version"].get<std::string>();
        return action == "activate" ? ground.keeper.Service().removePluginFromConfig(id, version)
                                    : ground.keeper.Service().addPluginToConfig(id, version);
    });
    if (code > 1) {
        throw Problem(
            code == 4 ? Status::internal_server_error : Status::unprocessable_entity,
            code == 4 ? "The list of deactivated plugins cannot be read or written; the log file says why."
                      : "The plugin has no name or version by which it could be told apart.");
    }
    ground.switchedPlugins[{plugin["name"].get<std::string>(), plugin["version"].get<std::string>()}] =
        action == "deactivate";
    co_return Reply::Empty();
}

/// The library lists what held at its start; with what was switched since.
Reply ListReply(const Ground& ground, const json& list) {
    json plugins = json::array();
    for (const auto& listed : list["plugins"]) {
        json plugin = listed;
        const auto switched =
            ground.switchedPlugins.find({TextMember(plugin, "name"), TextMember(plugin, "version")});
        plugin["deactivatedNext"] =
            switched == ground.switchedPlugins.end() ? json(plugin["isDeactivated"]) : json(switched->second);
        plugins.push_back(std::move(plugin));
    }
    json answer = list;
    answer["plugins"] = std::move(plugins);
    return JsonReply(answer);
}

}  // namespace

void AddPluginRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/plugins", Right::Look, [&ground](Request&) -> Task<Reply> {
        auto listing = [&keeper = ground.keeper] { return keeper.Service().listPlugins(); };
        const json list = co_await ground.keeper.OnControlThreadWithin(ListDeadline, listing);
        co_return ListReply(ground, list);
    });
    router.Add(Verb::post, "/plugins/rescan", Right::Act, [&ground](Request&) -> Task<Reply> {
        const json list = co_await Rescan(ground);
        co_return ListReply(ground, list);
    });
    router.Add(Verb::put, "/plugins/{file}", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await Upload(ground, request); });
    router.Add(Verb::delete_, "/plugins/{file}", Right::Act, [&ground](Request& request) -> Task<Reply> {
        co_return co_await Remove(ground, request.segments[3]);
    });
    router.Add(Verb::post, "/plugins/{file}/{action}", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await Switch(ground, request); });
}
