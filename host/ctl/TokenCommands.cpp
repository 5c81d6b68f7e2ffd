#include "ApiPath.h"
#include "Format.h"
#include "Table.h"
#include "Tool.h"

#include <unistd.h>

using Answers::Value;

namespace {

void AddCreate(CLI::App& group, Tool& tool) {
    struct Options {
        std::string name;
        bool mayAct = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(group, "create", "Make a token and print it; it is shown only now",
                                         "qxctl token create panel > panel.token\n"
                                         "qxctl token create --act operator");
    AddArgument(command, "NAME", options->name, "Name to know it by");
    command->add_flag("--act", options->mayAct, "Who has it may change things too; without, only look");
    OnCommand(command, tool, [&tool, options] {
        const QxNJson::json wish{{"name", options->name}, {"right", options->mayAct ? "act" : "look"}};
        return tool.Show({.method = "POST",
                          .target = ApiPath({"tokens"}),
                          .contentType = "application/json",
                          .body = wish.dump()},
                         [&](const Value& answer) {
                             tool.PrintText(Answers::Text(answer, "token"));
                             if (tool.console.IsTerminal()) {
                                 Tell("keep it: it is not shown again");
                             }
                         });
    });
}

void AddLs(CLI::App& group, Tool& tool) {
    CLI::App* const command =
        AddCommand(group, "ls", "List the tokens, without what they are", "qxctl token ls");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"tokens"})}, [&](const Value& answer) {
            Table table({{"NAME"}, {"RIGHT"}, {"CREATED"}});
            for (const Value& token : Answers::Array(answer, "tokens")) {
                table.Add({{Answers::Text(token, "name")},
                           {Answers::Text(token, "right")},
                           {LocalTimeText(Answers::Text(token, "created"))}});
            }
            tool.Print(table.Text(tool.console));
        });
    });
}

void AddRemove(CLI::App& group, Tool& tool) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(group, "rm", "Take a token back", "qxctl token rm panel");
    AddArgument(command, "TOKEN", *name, "Name of the token");
    OnCommand(command, tool, [&tool, name] {
        return tool.Do({.method = "DELETE", .target = ApiPath({"tokens", *name})}, *name + " removed");
    });
}

}  // namespace

void AddTokenCommands(CLI::App& app, Tool& tool) {
    CLI::App* const group =
        AddGroup(app, "token", "Tokens for clients on the network; only on the Unix socket");
    AddCreate(*group, tool);
    AddLs(*group, tool);
    AddRemove(*group, tool);
}
