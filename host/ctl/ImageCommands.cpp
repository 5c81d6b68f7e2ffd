#include "ApiPath.h"
#include "Format.h"
#include "Progress.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

using Answers::Value;

namespace {

constexpr size_t ShortId = 12;

/// One row for each name.
void AddImage(Table& table, const Value& image) {
    const auto addRow = [&](const std::string& name) {
        table.Add({{name},
                   {Answers::Text(image, "id").substr(0, ShortId)},
                   {SizeText(static_cast<std::uint64_t>(std::max(0LL, Answers::Number(image, "size"))))},
                   {LocalTimeText(Answers::Text(image, "created"))},
                   {std::to_string(Answers::Number(image, "containers"))}});
    };
    const Value& names = Answers::Array(image, "names");
    if (names.empty()) {
        addRow("<none>");
    }
    for (const Value& name : names) {
        if (!name.is_string()) {
            Answers::Malformed("the name of an image is no text");
        }
        addRow(name.get<std::string>());
    }
}

void PrintImages(const Tool& tool, const Value& answer) {
    Table table(
        {{"NAME"}, {"ID"}, {"SIZE", Table::Side::Right}, {"CREATED"}, {"CONTAINERS", Table::Side::Right}});
    for (const Value& image : Answers::Array(answer, "images")) {
        AddImage(table, image);
    }
    tool.Print(table.Text(tool.console));
}

void PrintLoaded(const Tool& tool, const Value& answer) {
    for (const Value& name : Answers::Array(answer, "names")) {
        if (!name.is_string()) {
            Answers::Malformed("the name of an image is no text");
        }
        tool.Print(Printable(name.get<std::string>()) + " loaded\n");
    }
}

void AddImages(CLI::App& app, Tool& tool) {
    CLI::App* const command = AddCommand(app, "images", "List all images", "qxctl images");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"images"})},
                         [&](const Value& answer) { PrintImages(tool, answer); });
    });
}

void AddLoad(CLI::App& app, Tool& tool) {
    const auto file = std::make_shared<std::string>();
    CLI::App* const command =
        AddCommand(app, "load", "Load images from an archive, as 'podman save' and 'docker save' make them",
                   "qxctl load busybox.tar");
    AddArgument(command, "FILE", *file, "Archive");
    OnCommand(command, tool, [&tool, file] {
        Progress progress("Sending " + *file, "Loading images");
        return tool.Show({.method = "POST",
                          .target = ApiPath({"images"}),
                          .contentType = "application/x-tar",
                          .file = *file,
                          .progress = &progress},
                         [&](const Value& answer) { PrintLoaded(tool, answer); });
    });
}

void AddRemove(CLI::App& app, Tool& tool) {
    struct Options {
        std::string image;
        bool isForced = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(app, "rmi", "Remove an image", "qxctl rmi localhost/busybox:1");
    AddArgument(command, "IMAGE", options->image, "Name or id");
    command->add_flag("--force", options->isForced, "Also when containers use it; they are removed too");
    OnCommand(command, tool, [&tool, options] {
        Progress progress("Removing " + options->image);
        return tool.Do(
            {.method = "DELETE",
             .target = ApiPath({"images", options->image}, {{"force", options->isForced ? "true" : ""}}),
             .progress = &progress},
            options->image + " removed");
    });
}

}  // namespace

void AddImageCommands(CLI::App& app, Tool& tool) {
    AddImages(app, tool);
    AddLoad(app, tool);
    AddRemove(app, tool);
}
