#include "MountTable.h"

#include <libmount/libmount.h>

#include <algorithm>
#include <map>
#include <memory>

namespace QxNLinuxPlatform {

namespace {

std::string textOrEmpty(const char* text) { return text != nullptr ? text : ""; }

bool isBelowOrSame(const std::string& path, const std::string& directory) {
    return directory == "/" || path == directory ||
           (path.starts_with(directory) && path[directory.size()] == '/');
}

/// Answers for each mount of a table whether a path reaches it.
class Reachability {
public:
    explicit Reachability(const std::vector<MountEntry>& table) {
        for (const MountEntry& mount : table) {
            _byId[mount.id] = &mount;
            _children[mount.parent].push_back(&mount);
        }
    }

    bool isVisible(const MountEntry& mount) const { return isReachable(mount) && !isCovered(mount); }

private:
    /// Whether something is mounted on the root of this mount. Looking up a path begins in the process's root
    /// directory itself, whatever is mounted over it.
    bool isCovered(const MountEntry& mount) const {
        return mount.target != "/" &&
               std::any_of(childrenOf(mount.id).begin(), childrenOf(mount.id).end(),
                           [&](const MountEntry* child) { return child->target == mount.target; });
    }

    /// Whether the path to the mount point stays within mounts that lead to this one.
    bool isReachable(const MountEntry& mount) const {
        const MountEntry* current = &mount;
        for (std::size_t steps = 0; steps <= _byId.size(); ++steps) {
            if (isCutOff(*current)) {
                return false;
            }
            const auto parent = _byId.find(current->parent);
            if (parent == _byId.end() || parent->second == current) {
                return true;
            }
            if (current->target == "/") {
                return false;
            }
            current = parent->second;
        }
        return false;
    }

    /// Whether the path to the mount point turns into a sibling before it gets there.
    bool isCutOff(const MountEntry& mount) const {
        const std::vector<const MountEntry*>& siblings = childrenOf(mount.parent);
        return std::any_of(siblings.begin(), siblings.end(), [&](const MountEntry* sibling) {
            const bool isLater = sibling > &mount;
            return sibling != &mount && sibling->target != "/" &&
                   isBelowOrSame(mount.target, sibling->target) &&
                   (isLater || sibling->target != mount.target);
        });
    }

    const std::vector<const MountEntry*>& childrenOf(int id) const {
        static const std::vector<const MountEntry*> none;
        const auto children = _children.find(id);
        return children == _children.end() ? none : children->second;
    }

    std::map<int, const MountEntry*> _byId;
    std::map<int, std::vector<const MountEntry*>> _children;
};

}  // namespace

std::optional<std::vector<MountEntry>> readMountTable() {
    const auto freeTable = [](libmnt_table* table) { mnt_unref_table(table); };
    const auto freeIterator = [](libmnt_iter* iterator) { mnt_free_iter(iterator); };
    const std::unique_ptr<libmnt_table, decltype(freeTable)> table(
        mnt_new_table_from_file("/proc/self/mountinfo"), freeTable);
    const std::unique_ptr<libmnt_iter, decltype(freeIterator)> iterator(mnt_new_iter(MNT_ITER_FORWARD),
                                                                        freeIterator);
    if (!table || !iterator) {
        return std::nullopt;
    }
    std::vector<MountEntry> entries;
    libmnt_fs* mount = nullptr;
    while (mnt_table_next_fs(table.get(), iterator.get(), &mount) == 0) {
        entries.push_back({mnt_fs_get_id(mount), mnt_fs_get_parent_id(mount),
                           textOrEmpty(mnt_fs_get_source(mount)), textOrEmpty(mnt_fs_get_target(mount)),
                           textOrEmpty(mnt_fs_get_fstype(mount)), textOrEmpty(mnt_fs_get_fs_options(mount))});
    }
    return entries;
}

std::vector<MountEntry> visibleMounts(const std::vector<MountEntry>& table) {
    const Reachability reachability(table);
    std::vector<MountEntry> visible;
    std::copy_if(table.begin(), table.end(), std::back_inserter(visible),
                 [&](const MountEntry& mount) { return reachability.isVisible(mount); });
    return visible;
}

bool hasOption(const std::string& options, const std::string& option) {
    return ("," + options + ",").find("," + option + ",") != std::string::npos;
}

}  // namespace QxNLinuxPlatform
