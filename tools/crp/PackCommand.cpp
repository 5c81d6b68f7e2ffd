#include "Commands.h"

#include "Interruption.h"
#include "OutputFile.h"
#include "Programs.h"
#include "SquashfsImage.h"
#include "ToolError.h"
#include "TrailerMaker.h"
#include "TrailerText.h"
#include "crp/PluginSelection.h"
#include "support/ChildProcess.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;
using QxNSupport::UniqueFd;

namespace {

/// Shows on a terminal how far a copy has come.
class Progress {
public:
    explicit Progress(std::uint64_t total)
        : _total(total), _isShown(total > 0 && isatty(STDERR_FILENO) == 1) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() {
        if (_isShown) {
            fputs("\r      \r", stderr);
        }
    }

    void Show(std::uint64_t done) {
        const std::uint64_t percent = _total > 0 ? done * 100 / _total : 100;
        if (_isShown && percent != _percent) {
            fprintf(stderr, "\r%3u %%", static_cast<unsigned int>(percent));
            _percent = percent;
        }
    }

private:
    std::uint64_t _total;
    bool _isShown;
    std::uint64_t _percent = 101;
};

bool LiesIn(const fs::path& file, const fs::path& directory) {
    const fs::path relative = fs::weakly_canonical(file).lexically_relative(fs::canonical(directory));
    return !relative.empty() && *relative.begin() != "..";
}

/// Refuses what mksquashfs would take for something else than the content of a directory.
void CheckDirectory(const PackOptions& options) {
    std::error_code error;
    if (!fs::is_directory(options.directory, error)) {
        throw ToolError(ExitCode::InputOutput, "--dir '" + options.directory + "' is no directory" +
                                                   (error ? ": " + error.message() : std::string()));
    }
    if (LiesIn(options.output, options.directory)) {
        throw ToolError(ExitCode::Usage,
                        "the output lies in the directory that is to be packed; name one outside '" +
                            options.directory + "'");
    }
}

void BuildImage(const PackOptions& options, const OutputFile& output, const Interruption& interruption) {
    const std::optional<std::string> program = Programs::Find("mksquashfs");
    if (!program) {
        throw ToolError(
            ExitCode::InputOutput,
            "mksquashfs is not installed; install squashfs-tools, or pack a finished image with --image");
    }
    // Absolute paths, since one that begins with a dash would be taken for an option.
    std::vector<std::string> arguments{"mksquashfs", fs::absolute(options.directory),
                                       fs::absolute(output.TemporaryPath()), "-noappend", "-quiet"};
    if (isatty(STDERR_FILENO) != 1) {
        arguments.push_back("-no-progress");
    }
    const pid_t builder = Programs::StartWithOutputOnError(*program, arguments);
    const QxNSupport::WaitStatus result{interruption.WaitFor(builder)};
    if (result.WasKilled() || result.ExitCode() != 0) {
        throw ToolError(ExitCode::InputOutput,
                        "mksquashfs could not pack '" + options.directory + "'; it " +
                            (result.WasKilled() ? "was ended by signal " + std::to_string(result.Signal())
                                                : "exited with " + std::to_string(result.ExitCode())));
    }
}

UniqueFd OpenImage(const std::string& path, std::uint64_t& size) {
    // A FIFO must not hold the tool up before it is refused.
    UniqueFd image(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!image.IsOpen() || fstat(image.Get(), &status) != 0) {
        ThrowSystemError("cannot read --image '" + path + "'");
    }
    if (!S_ISREG(status.st_mode)) {
        throw ToolError(ExitCode::InputOutput, "--image '" + path + "' is no regular file");
    }
    size = static_cast<std::uint64_t>(status.st_size);
    return image;
}

void RefuseBrokenImage(const UniqueFd& image, const std::string& path, std::uint64_t size) {
    const std::optional<std::uint64_t> used = SquashfsImage::BytesUsed(image.Get());
    if (!used) {
        throw ToolError(ExitCode::Problem,
                        "--image '" + path + "' is no squashfs image, which is all that a board " +
                            "mounts; make one with mksquashfs, or pack the directory with --dir");
    }
    if (*used > size) {
        throw ToolError(ExitCode::Problem, "--image '" + path + "' is cut off: its file system has " +
                                               std::to_string(*used) + " bytes, the file only " +
                                               std::to_string(size));
    }
}

void CopyImage(const PackOptions& options, OutputFile& output, const Interruption& interruption) {
    std::uint64_t size = 0;
    const UniqueFd image = OpenImage(options.image, size);
    if (options.type == CRP_PLUGIN_TYPE_SQUASHFS) {
        RefuseBrokenImage(image, options.image, size);
    }
    Progress progress(size);
    std::vector<char> block(1U << 20);
    std::uint64_t done = 0;
    for (;;) {
        interruption.Check();
        const ssize_t count = read(image.Get(), block.data(), block.size());
        if (count < 0) {
            ThrowSystemError("cannot read --image '" + options.image + "'");
        }
        if (count == 0) {
            return;
        }
        output.Append({block.data(), static_cast<std::size_t>(count)});
        done += static_cast<std::uint64_t>(count);
        progress.Show(done);
    }
}

/// Loop devices end at a whole sector, so that an image with an odd end would lose it; squashfs itself reads
/// in pages.
void PadImage(OutputFile& output) {
    constexpr std::uint64_t Page = 4096;
    const std::uint64_t excess = output.Size() % Page;
    if (excess != 0) {
        output.Append(std::string(Page - excess, '\0'));
    }
}

void Report(const PackOptions& options, const CrpPluginHeader& trailer, std::uint64_t fileSize) {
    QxNJson::json result = QxNJson::json::object();
    result["file"] = options.output;
    result.update(DescribeTrailer(trailer));
    result["fileSize"] = fileSize;
    result["mountPoint"] = CRP::mountPointOf(options.name);
    const std::vector<std::string> doubts = DoubtsAbout(options);
    result["warnings"] = doubts;
    for (const std::string& doubt : doubts) {
        fprintf(stderr, "crp: warning: %s\n", doubt.c_str());
    }
    if (options.json) {
        printf("%s\n", result.dump(4).c_str());
    } else {
        printf("packed %s version %s into %s: %llu bytes, of which the image has %llu\n",
               Quoted(options.name).c_str(), Quoted(options.version).c_str(), Quoted(options.output).c_str(),
               static_cast<unsigned long long>(fileSize), static_cast<unsigned long long>(trailer.imageSize));
    }
}

}  // namespace

int Pack(const PackOptions& options) {
    MakeTrailer(options, 0);  // refuses what does not fit before there is any work
    const Interruption interruption;
    if (!options.directory.empty()) {
        CheckDirectory(options);
    }
    OutputFile output(options.output);
    if (!options.directory.empty()) {
        BuildImage(options, output, interruption);
    } else {
        CopyImage(options, output, interruption);
    }
    PadImage(output);
    const CrpPluginHeader trailer = MakeTrailer(options, output.Size());
    output.Append({reinterpret_cast<const char*>(&trailer), sizeof(trailer)});
    interruption.Check();
    const std::uint64_t fileSize = output.Size();
    output.Commit();
    Report(options, trailer, fileSize);
    return ExitCode::Fine;
}
