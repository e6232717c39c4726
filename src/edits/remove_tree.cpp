#include <Python.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "edits/remove_tree.hpp"

namespace editor::edits {
namespace {

struct CloseDir {
    void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};

struct Entry {
    std::string name;
    unsigned char type;  // readdir's d_type; DT_UNKNOWN where the file system does not say
};

// One directory being emptied: held open, its entries still to remove, its name in its parent.
struct Level {
    std::unique_ptr<DIR, CloseDir> dir;
    std::vector<Entry> entries;
    std::string name;
};

// Opens `name` in `parent` as a directory, never through a link, and lists it onto `levels`.
// The whole listing is read first, so removals do not disturb the reading. The entries are
// taken from the back, in shutil.rmtree's order, so a failure names what the host's would:
// the other entries in listing order first, then the directories, the last listed first.
int enter(std::vector<Level>& levels, int parent, const std::string& name) {
    const int fd = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return errno;
    std::unique_ptr<DIR, CloseDir> dir(::fdopendir(fd));
    if (!dir) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    Level level{std::move(dir), {}, name};
    std::vector<Entry> others;
    while (true) {
        errno = 0;
        const dirent* entry = ::readdir(level.dir.get());
        if (entry == nullptr) {
            if (errno != 0) return errno;
            break;
        }
        const std::string_view entry_name(entry->d_name);
        if (entry_name == "." || entry_name == "..") continue;
        (entry->d_type == DT_DIR ? level.entries : others).push_back({std::string(entry_name), entry->d_type});
    }
    level.entries.insert(level.entries.end(), others.rbegin(), others.rend());
    levels.push_back(std::move(level));
    return 0;
}

// The path below the target of the directory being emptied, or of `name` inside it.
std::string below_target(const std::vector<Level>& levels, std::string_view name = {}) {
    std::string path;
    for (std::size_t depth = 1; depth < levels.size(); ++depth) {
        if (!path.empty()) path += '/';
        path += levels[depth].name;
    }
    if (!name.empty() && !path.empty()) path += '/';
    path += name;
    return path;
}

// Removes the directory `name` in `parent` and everything below it, depth first, without
// recursion (a deep tree costs one descriptor per level, not C stack). Entries that vanish while
// it runs are skipped, as shutil.rmtree skips them.
int remove_tree(int parent, const std::string& name, std::string& failed_at) {
    std::vector<Level> levels;
    if (const int error = enter(levels, parent, name)) return error;
    while (!levels.empty()) {
        const int here = ::dirfd(levels.back().dir.get());
        if (levels.back().entries.empty()) {
            const std::string emptied = std::move(levels.back().name);
            levels.pop_back();
            const int at = levels.empty() ? parent : ::dirfd(levels.back().dir.get());
            if (::unlinkat(at, emptied.c_str(), AT_REMOVEDIR) != 0 && (levels.empty() || errno != ENOENT)) {
                const int error = errno;
                failed_at = levels.empty() ? std::string() : below_target(levels, emptied);
                return error;
            }
            continue;
        }
        const Entry entry = std::move(levels.back().entries.back());
        levels.back().entries.pop_back();
        bool directory = entry.type == DT_DIR;
        if (entry.type == DT_UNKNOWN) {
            struct stat info {};
            if (::fstatat(here, entry.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) continue;
                const int error = errno;
                failed_at = below_target(levels, entry.name);
                return error;
            }
            directory = S_ISDIR(info.st_mode);
        }
        if (directory) {
            const int error = enter(levels, here, entry.name);
            if (error == 0 || error == ENOENT) continue;
            // Anything else but a link or a file swapped in since the listing is a failure;
            // those lose their name below, and nothing behind them.
            if (error != ELOOP && error != ENOTDIR) {
                failed_at = below_target(levels, entry.name);
                return error;
            }
        }
        if (::unlinkat(here, entry.name.c_str(), 0) != 0 && errno != ENOENT) {
            const int error = errno;
            failed_at = below_target(levels);  // as the host names it: the directory being emptied
            return error;
        }
    }
    return 0;
}

}  // namespace

Removal remove_beneath(const Root& root, std::string_view relative) {
    Removal removal;
    std::string_view path = relative;
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    const std::size_t cut = path.rfind('/');
    const std::string name(cut == std::string_view::npos ? path : path.substr(cut + 1));
    // "." and ".." name no entry of their own to remove.
    if (name.empty() || name == "." || name == "..") {
        removal.error = EINVAL;
        return removal;
    }
    const Opened parent = open_beneath(root, cut == std::string_view::npos ? "" : path.substr(0, cut),
                                       O_PATH | O_DIRECTORY);
    if (parent.error != 0) {
        removal.error = parent.error;
        return removal;
    }
    struct stat info {};
    if (::fstatat(parent.fd.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        removal.error = errno;
        return removal;
    }
    if (S_ISLNK(info.st_mode)) {
        // Written with a trailing "/" or not, the link's own name is what would go; refused
        // rather than read as the directory it leads to.
        struct stat target {};
        if (::fstatat(parent.fd.get(), name.c_str(), &target, 0) == 0 && S_ISDIR(target.st_mode)) {
            removal.link_to_directory = true;
            return removal;
        }
    }
    removal.directory = S_ISDIR(info.st_mode);
    if (removal.directory) {
        removal.error = remove_tree(parent.fd.get(), name, removal.failed_at);
    } else if (::unlinkat(parent.fd.get(), name.c_str(), 0) != 0) {
        removal.error = errno;
    }
    return removal;
}

}  // namespace editor::edits
