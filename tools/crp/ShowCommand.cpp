#include "Commands.h"
#include "ToolError.h"
#include "TrailerText.h"
#include "crp/InitCommand.h"
#include "crp/PluginFile.h"
#include "crp/PluginHeader.h"
#include "crp/PluginSelection.h"
#include "crp/PluginVersion.h"

#include <cstdio>

namespace {

CrpPluginHeader ReadTrailer(const std::string& file, std::uint64_t& fileSize) {
    CrpPluginHeader trailer{};
    const auto refuse = [&](const char* reason) {
        throw ToolError(ExitCode::Problem, "'" + file + "' " + reason);
    };
    switch (CRP::readPluginFile(file, trailer, &fileSize)) {
        case CRP::PluginFileStatus::CannotOpen:
            ThrowSystemError("cannot open '" + file + "'");
        case CRP::PluginFileStatus::CannotRead:
            throw ToolError(ExitCode::InputOutput, "cannot read '" + file + "'; is it a regular file?");
        case CRP::PluginFileStatus::TooShort:
            refuse("is no plugin: it is shorter than the 2048 bytes of a trailer");
            break;
        case CRP::PluginFileStatus::WrongMagic:
            refuse(
                "is no plugin: its last 2048 bytes do not begin with the magic number; make one with 'crp "
                "pack'");
            break;
        case CRP::PluginFileStatus::IncompatibleHeader:
            refuse(("has a trailer of " + std::to_string(trailer.header_size) +
                    " bytes, where 2048 are expected: it was made for another version of the format")
                       .c_str());
            break;
        case CRP::PluginFileStatus::Plugin:
            break;
    }
    return trailer;
}

void Print(const char* label, const std::string& value) { printf("%-14s %s\n", label, value.c_str()); }

std::string ComparedAs(const std::string& text) {
    const CRP::PluginVersion version = CRP::parseVersion(text);
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.patch);
}

std::string InWords(const CrpPluginHeader& trailer, std::uint64_t fileSize) {
    const std::string sizes = std::to_string(trailer.imageSize) + " bytes";
    if (!IsImageComplete(trailer, fileSize)) {
        return sizes + ", but the file has only " + std::to_string(fileSize - CRP_HEADER_SIZE) +
               " in front of its trailer: it is cut off";
    }
    const std::uint64_t unused = fileSize - CRP_HEADER_SIZE - trailer.imageSize;
    return unused == 0 ? sizes : sizes + ", followed by " + std::to_string(unused) + " unused";
}

void PrintText(const std::string& file, const CrpPluginHeader& trailer, std::uint64_t fileSize) {
    const std::string name = CRP::textOf(trailer.name);
    const std::string version = CRP::textOf(trailer.version);
    const std::string compatibleOs = CRP::textOf(trailer.compatibleOs);
    const std::string initCommand = CRP::textOf(trailer.initCommand);
    char magic[16];
    snprintf(magic, sizeof(magic), "0x%08x", trailer.magic);

    Print("file", Quoted(file));
    Print("magic", magic);
    Print("trailer size", std::to_string(trailer.header_size) + " bytes");
    Print("name", Quoted(name));
    Print("version", Quoted(version) + ", compared as " + ComparedAs(version));
    Print("OS release", compatibleOs.empty() ? "any" : "must contain " + Quoted(compatibleOs));
    Print("init command", initCommand.empty() ? "none"
                                              : "runs as " + Quoted(CRP::initCommandLine(
                                                                 CRP::mountPointOf(name), initCommand)));
    Print("priority", std::to_string(trailer.initPriority));
    Print("type",
          std::to_string(trailer.pluginType) +
              (trailer.pluginType == CRP_PLUGIN_TYPE_SQUASHFS ? ", squashfs" : ", which no board loads"));
    Print("image size", InWords(trailer, fileSize));
    Print("file size", std::to_string(fileSize) + " bytes");
    Print("mount point", CRP::mountPointOf(name));
}

void PrintJson(const std::string& file, const CrpPluginHeader& trailer, std::uint64_t fileSize) {
    QxNJson::json result = QxNJson::json::object();
    result["file"] = file;
    result["magic"] = trailer.magic;
    result["headerSize"] = trailer.header_size;
    result.update(DescribeTrailer(trailer));
    result["fileSize"] = fileSize;
    result["isImageComplete"] = IsImageComplete(trailer, fileSize);
    result["mountPoint"] = CRP::mountPointOf(CRP::textOf(trailer.name));
    printf("%s\n", result.dump(4).c_str());
}

}  // namespace

int Show(const ShowOptions& options) {
    std::uint64_t fileSize = 0;
    const CrpPluginHeader trailer = ReadTrailer(options.file, fileSize);
    if (options.json) {
        PrintJson(options.file, trailer, fileSize);
    } else {
        PrintText(options.file, trailer, fileSize);
    }
    return IsImageComplete(trailer, fileSize) ? ExitCode::Fine : ExitCode::Problem;
}
