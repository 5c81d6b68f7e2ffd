#include "BoardView.h"
#include "Commands.h"
#include "ImageChecks.h"
#include "ToolError.h"
#include "TrailerText.h"
#include "crp/PluginConfig.h"
#include "crp/PluginHeader.h"

#include <sys/utsname.h>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;
using BoardView::Finding;
using BoardView::Verdict;

namespace {

/// Everything that is reported.
struct Report {
    std::string osRelease;
    std::vector<Finding> files;
    std::vector<std::string> failures;  ///< what could not be read
    std::vector<std::string> problems;  ///< that belong to no single file
    std::vector<std::string> notes;
};

std::string RunningRelease() {
    utsname system{};
    if (uname(&system) != 0) {
        ThrowSystemError("cannot tell the running OS release; give one with --os-release");
    }
    return system.release;
}

void Collect(const std::string& path, Report& report) {
    if (!fs::is_directory(path)) {
        report.files.push_back(BoardView::Examine(path, report.osRelease));
        report.files.back().isExpected = false;
    } else if (!BoardView::ExamineDirectory(path, report.osRelease, report.files)) {
        report.failures.push_back("cannot read directory " + Quoted(path) + ": " + strerror(errno));
    }
}

CRP::DeactivationList ReadDeactivations(const std::string& path, Report& report) {
    CRP::DeactivationList list;
    QxNJson::json config;
    const CRP::ConfigStatus status = CRP::readConfigFile(path, config);
    if (status == CRP::ConfigStatus::CannotOpen || fs::is_directory(path)) {
        throw ToolError(ExitCode::InputOutput, "cannot read --deactivated '" + path + "'; is it a file?");
    }
    if (status == CRP::ConfigStatus::NoJson) {
        report.problems.push_back(Quoted(path) +
                                  " is no JSON: a board would deactivate nothing and refuse to edit it");
    } else if (!CRP::hasDeactivationList(config)) {
        report.notes.push_back(Quoted(path) +
                               " has no array \"deactivated_plugins\": nothing is deactivated");
    } else {
        for (const auto& element : config[CRP::DeactivatedPluginsKey]) {
            if (const auto plugin = CRP::parseDeactivation(element)) {
                list.push_back(*plugin);
            } else {
                report.problems.push_back(
                    Quoted(path) +
                    " has a malformed entry, which a board passes over: " + QxNJson::json(element).dump());
            }
        }
    }
    return list;
}

/// An entry that names nothing is often a version that was written differently.
void NoteUnusedDeactivations(const CRP::DeactivationList& list, Report& report) {
    for (const auto& entry : list) {
        const bool isUsed = std::any_of(report.files.begin(), report.files.end(), [&](const Finding& file) {
            return file.isPlugin && CRP::isDeactivated({entry}, file.plugin);
        });
        if (!isUsed) {
            report.notes.push_back("the configuration deactivates " + Quoted(entry.name) + " version " +
                                   Quoted(entry.version) + ", which none of the files is");
        }
    }
}

/// Drops files that were named twice, for instance once by themselves and once by their directory.
void DropRepeated(std::vector<Finding>& files) {
    std::set<fs::path> seen;
    std::erase_if(files, [&](const Finding& file) {
        const fs::path path = fs::absolute(file.plugin.path);
        return !seen.insert(fs::weakly_canonical(path.parent_path()) / path.filename()).second;
    });
}

Report MakeReport(const CheckOptions& options) {
    Report report;
    report.osRelease = options.osRelease ? *options.osRelease : RunningRelease();
    for (const std::string& path : options.paths) {
        Collect(path, report);
    }
    if (!options.systemDirectory.empty()) {
        if (!fs::is_directory(options.systemDirectory)) {
            throw ToolError(ExitCode::InputOutput,
                            "--system '" + options.systemDirectory + "' is no directory");
        }
        Collect(options.systemDirectory, report);
    }
    DropRepeated(report.files);
    CRP::DeactivationList deactivated;
    if (!options.deactivationConfig.empty()) {
        deactivated = ReadDeactivations(options.deactivationConfig, report);
    }
    BoardView::Judge(report.files, deactivated);
    NoteUnusedDeactivations(deactivated, report);
    for (Finding& file : report.files) {
        if (file.isPlugin) {
            CheckImage(file, report.notes);
        }
    }
    return report;
}

QxNJson::json Describe(const Finding& file) {
    QxNJson::json object = QxNJson::json::object();
    object["file"] = file.plugin.path;
    object["verdict"] = BoardView::TextOf(file.verdict);
    object["reason"] = file.reason;
    if (file.order != 0) {
        object["order"] = file.order;
        object["mountPoint"] = CRP::mountPointOf(CRP::textOf(file.plugin.header.name));
    }
    if (!file.supersededBy.empty()) {
        object["supersededBy"] = file.supersededBy;
    }
    if (file.isPlugin) {
        object.update(DescribeTrailer(file.plugin.header));
    }
    object["fileSize"] = file.fileSize;
    object["problems"] = file.problems;
    return object;
}

void PrintJson(const Report& report, int exitCode) {
    QxNJson::json result = QxNJson::json::object();
    result["isFine"] = exitCode == ExitCode::Fine;
    result["osRelease"] = report.osRelease;
    QxNJson::json files = QxNJson::json::array();
    for (const Finding& file : report.files) {
        files.push_back(Describe(file));
    }
    result["files"] = std::move(files);
    result["failures"] = report.failures;
    result["problems"] = report.problems;
    result["notes"] = report.notes;
    printf("%s\n", result.dump(4).c_str());
}

void PrintFile(const Finding& file) {
    std::string line = BoardView::TextOf(file.verdict);
    if (file.order != 0) {
        line += " as number " + std::to_string(file.order);
    }
    if (file.isPlugin) {
        line += ": " + Quoted(CRP::textOf(file.plugin.header.name)) + " version " +
                Quoted(CRP::textOf(file.plugin.header.version)) + ", priority " +
                std::to_string(file.plugin.header.initPriority);
    }
    printf("%s\n    %s\n", Quoted(file.plugin.path).c_str(), line.c_str());
    if (!file.reason.empty()) {
        printf("    %s\n", file.reason.c_str());
    }
    for (const std::string& problem : file.problems) {
        printf("    problem: %s\n", problem.c_str());
    }
}

void PrintText(const Report& report) {
    printf("on a board with OS release %s:\n", Quoted(report.osRelease).c_str());
    for (const Finding& file : report.files) {
        PrintFile(file);
    }
    for (const std::string& problem : report.problems) {
        printf("problem: %s\n", problem.c_str());
    }
    for (const std::string& note : report.notes) {
        printf("note: %s\n", note.c_str());
    }
}

int Judgement(const Report& report) {
    const auto any = [&](const auto& isSo) {
        return std::any_of(report.files.begin(), report.files.end(), isSo);
    };
    if (!report.failures.empty() ||
        any([](const Finding& file) { return file.isFailure && !file.isExpected; })) {
        return ExitCode::InputOutput;
    }
    const bool hasProblem = any([](const Finding& file) {
        return !file.problems.empty() || (file.verdict != Verdict::Load && !file.isExpected);
    });
    return hasProblem || !report.problems.empty() ? ExitCode::Problem : ExitCode::Fine;
}

}  // namespace

int Check(const CheckOptions& options) {
    const Report report = MakeReport(options);
    const int exitCode = Judgement(report);
    if (options.json) {
        PrintJson(report, exitCode);
    } else {
        PrintText(report);
    }
    for (const std::string& failure : report.failures) {
        fprintf(stderr, "crp: %s\n", failure.c_str());
    }
    return exitCode;
}
