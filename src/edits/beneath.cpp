#include <Python.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <vector>

#include "edits/beneath.hpp"

namespace editor::edits {
namespace {

// As many links as the kernel follows in one resolution before it gives ELOOP.
constexpr int max_links = 40;

Opened failed(int error) { return {Fd(), error}; }

Opened open_at(int directory, const char* name, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = ::openat(directory, name, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd >= 0 ? Opened{Fd(fd), 0} : failed(errno);
}

// The kernel's own confinement: every step, links and ".." included, checked as it resolves.
Opened open_with_openat2(const Root& root, std::string_view relative, int flags, mode_t mode) {
    const std::string path = relative.empty() ? std::string(".") : std::string(relative);
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    long fd = -1;
    do {
        fd = ::syscall(SYS_openat2, root.fd.get(), path.c_str(), &how, sizeof how);
    } while (fd < 0 && errno == EINTR);
    return fd >= 0 ? Opened{Fd(static_cast<int>(fd)), 0} : failed(errno);
}

// The text of the link `name` in `directory`, or nothing when it is not a link.
std::optional<std::string> link_text(int directory, const char* name) {
    std::string text(256, '\0');
    while (true) {
        const ssize_t size = ::readlinkat(directory, name, text.data(), text.size());
        if (size < 0) return std::nullopt;
        if (static_cast<std::size_t>(size) < text.size()) {
            text.resize(static_cast<std::size_t>(size));
            return text;
        }
        text.resize(text.size() * 2);
    }
}

// An absolute link target as a path below the root: written below the root as the caller
// spelled it, or below the root's real path. Anything else leaves the root.
std::optional<std::string> absolute_below(const Root& root, const std::string& target) {
    if (!root.path.empty() && root.path.front() == '/') {
        if (auto inside = below(root.path, target)) return inside;
    }
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(root.path.c_str(), nullptr), &std::free);
    if (!real) return std::nullopt;
    return below(real.get(), target);
}

// One component at a time from the root, each opened with O_NOFOLLOW: a link is read and its
// target spliced into the rest of the path, so every step is again checked against the root.
// The directories entered are held open, so ".." is the one entered before, never the parent
// the kernel would find, and ".." at the root is an escape.
Opened walk(const Root& root, std::string_view relative, int flags, mode_t mode) {
    std::string rest(relative);
    std::vector<Fd> entered;
    int links = 0;
    const auto here = [&] { return entered.empty() ? root.fd.get() : entered.back().get(); };
    while (true) {
        const std::size_t start = rest.find_first_not_of('/');
        if (start == std::string::npos) return open_at(here(), ".", flags, mode);
        const std::size_t end = rest.find('/', start);
        const std::string name = rest.substr(start, end == std::string::npos ? end : end - start);
        const bool last = end == std::string::npos;
        if (last) {
            rest.clear();
        } else if (rest.find_first_not_of('/', end) == std::string::npos) {
            rest.assign(1, '.');  // a trailing "/": the component must be a directory, links followed
        } else {
            rest.erase(0, end + 1);
        }
        if (name == "." || name == "..") {
            if (name == "..") {
                if (entered.empty()) return failed(EXDEV);
                entered.pop_back();
            }
            if (last) return open_at(here(), ".", flags, mode);
            continue;
        }
        Opened step = last ? open_at(here(), name.c_str(), flags | O_NOFOLLOW, mode)
                           : open_at(here(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW, 0);
        if (step.error == 0) {
            if (last) return step;
            entered.push_back(std::move(step.fd));
            continue;
        }
        // O_NOFOLLOW meets a link as ELOOP, or as ENOTDIR where a directory was asked for.
        const bool maybe_link = step.error == ELOOP || step.error == ENOTDIR;
        if (!maybe_link || (last && (flags & O_NOFOLLOW) != 0)) return step;
        std::optional<std::string> target = link_text(here(), name.c_str());
        if (!target) return step;
        if (++links > max_links) return failed(ELOOP);
        if (target->empty()) return failed(ENOENT);
        if (target->front() == '/') {
            target = absolute_below(root, *target);
            if (!target) return failed(EXDEV);
            entered.clear();
        }
        if (!rest.empty()) target->append("/").append(rest);
        rest = std::move(*target);
    }
}

}  // namespace

std::optional<std::string> below(std::string_view base, std::string_view path) {
    while (base.size() > 1 && base.back() == '/') base.remove_suffix(1);
    if (!path.starts_with(base)) return std::nullopt;
    std::string_view rest = path.substr(base.size());
    if (base != "/" && !rest.empty() && rest.front() != '/') return std::nullopt;
    const std::size_t start = rest.find_first_not_of('/');
    if (start == std::string_view::npos) return std::string();
    return std::string(rest.substr(start));
}

Opened open_root(const std::string& path) {
    return open_at(AT_FDCWD, path.c_str(), O_PATH | O_DIRECTORY, 0);
}

Opened open_beneath(const Root& root, std::string_view relative, int flags, mode_t mode) {
    Opened opened = open_with_openat2(root, relative, flags, mode);
    switch (opened.error) {
    case ENOSYS:  // a kernel before openat2
    case EPERM:   // a seccomp filter that refuses it (or a real EPERM, which the walk meets again)
    case EXDEV:   // an absolute link back into the root, which the kernel refuses as it stands
    case EAGAIN:  // a rename elsewhere raced the resolution
        return walk(root, relative, flags, mode);
    default:
        return opened;
    }
}

int make_directories(const Root& root, std::string_view relative) {
    std::string reached;  // the part of `relative` found or made so far
    Fd here;              // the directory it names; none for the root itself
    std::size_t start = 0;
    while ((start = relative.find_first_not_of('/', start)) != std::string_view::npos) {
        const std::size_t end = std::min(relative.find('/', start), relative.size());
        const std::string name(relative.substr(start, end - start));
        start = end;
        if (name == ".") continue;
        if (!reached.empty()) reached += '/';
        reached += name;
        int made = 0;
        if (name != ".." && ::mkdirat(here ? here.get() : root.fd.get(), name.c_str(), 0777) != 0) made = errno;
        if (made != 0 && made != EEXIST) return made;
        Opened next = open_beneath(root, reached, O_PATH | O_DIRECTORY);
        // What exists but is no directory (or a link to none) is os.makedirs' EEXIST.
        if (next.error != 0) return made == EEXIST && next.error != EXDEV ? EEXIST : next.error;
        here = std::move(next.fd);
    }
    return 0;
}

}  // namespace editor::edits
