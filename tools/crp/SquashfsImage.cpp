#include "SquashfsImage.h"

#include "Programs.h"
#include "ToolError.h"

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <functional>

namespace SquashfsImage {

namespace {

/// Reads lines from a descriptor until its end.
void ForEachLine(int descriptor, const std::function<void(std::string_view)>& take) {
    std::array<char, 65536> buffer;
    std::string pending;
    for (;;) {
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        pending.append(buffer.data(), static_cast<std::size_t>(count));
        std::size_t start = 0;
        for (std::size_t end = 0; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
            take(std::string_view(pending).substr(start, end - start));
        }
        pending.erase(0, start);
    }
}

/// @return the text behind the next blank-separated field
std::string_view SkipField(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    text.remove_prefix(std::min(text.find(' '), text.size()));
    return text;
}

}  // namespace

std::optional<std::uint64_t> BytesUsed(int file) {
    constexpr std::size_t SuperblockSize = 96;
    constexpr std::size_t BytesUsedOffset = 40;
    std::array<char, SuperblockSize> superblock{};
    if (pread(file, superblock.data(), SuperblockSize, 0) != ssize_t{SuperblockSize} ||
        !std::string_view(superblock.data(), SuperblockSize).starts_with("hsqs")) {
        return std::nullopt;
    }
    std::uint64_t used = 0;
    memcpy(&used, superblock.data() + BytesUsedOffset, sizeof(used));
    return used;
}

std::optional<Entry> ParseListingLine(std::string_view line, std::string& path) {
    constexpr std::size_t ModeLength = 10;
    constexpr std::size_t OwnerMayExecute = 3;
    if (line.size() < ModeLength || line.find(' ') != ModeLength) {
        return std::nullopt;
    }
    const Entry entry{line[0], line[OwnerMayExecute] == 'x' || line[OwnerMayExecute] == 's'};
    for (int field = 0; field < 5; ++field) {  // mode, owner, size, date, time
        line = SkipField(line);
    }
    if (!line.starts_with(' ')) {
        return std::nullopt;
    }
    line.remove_prefix(1);
    if (entry.type == 'l') {
        line = line.substr(0, line.find(" -> "));
    }
    line.remove_prefix(line.starts_with('/') ? 1 : 0);
    path = line;
    return entry;
}

LookupResult Find(const std::string& file, const std::string& path) {
    const std::optional<std::string> program = Programs::Find("unsquashfs");
    if (!program) {
        return {Lookup::NoTool};
    }
    LookupResult result{Lookup::Missing};
    // A path that begins with a dash would be taken for an option.
    const std::string absolute = std::filesystem::absolute(file);
    const Programs::ReadProgram listing =
        Programs::StartForReading(*program, {"unsquashfs", "-lls", "-d", "", absolute});
    ForEachLine(listing.output.Get(), [&](std::string_view line) {
        std::string listed;
        const std::optional<Entry> entry = ParseListingLine(line, listed);
        if (entry && listed == path) {
            result = {Lookup::Found, *entry};
        } else if (entry && entry->type == 'l' && path.starts_with(listed + "/")) {
            result.lookup = Lookup::Unclear;
        }
    });
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(listing.pid, &status, 0)) < 0 || status != 0) {
        return {Lookup::Unreadable};
    }
    return result;
}

}  // namespace SquashfsImage
