// Reaching files below a root directory without ever leaving it.
//
// A path that was checked (realpath, then a prefix test) and is then opened by name can be
// redirected between the two steps: a directory swapped for a link to elsewhere sends the open
// outside although the check passed. So every write starts from a descriptor of the root, and
// the step that could leave it is refused at the moment of the open: by the kernel (openat2 with
// RESOLVE_BENEATH) where it has that, else by a walk that opens one component at a time with
// O_NOFOLLOW and follows a link itself only while its target stays below the root. Plain system
// calls only, no C API: these run with the interpreter released.
#pragma once
#include <Python.h>

#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace editor::edits {

// Owns one file descriptor (or none: -1).
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { close(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    // Closes now; 0 or the errno of close (a write's last chance to report a failure).
    int close() noexcept {
        const int fd = std::exchange(fd_, -1);
        return fd >= 0 && ::close(fd) != 0 ? errno : 0;
    }

private:
    int fd_ = -1;
};

// The project root held open. `path` is the root as the caller spelled it (file-system
// encoding): absolute links that lead back below it are followed, any other is an escape.
struct Root {
    Fd fd;
    std::string path;
};

// A descriptor, or the errno of the failure: EXDEV when the path would leave the root.
struct Opened {
    Fd fd;
    int error = 0;
};

// The part of `path` written below `base` ("" for `base` itself, a trailing "/" kept), when
// `path` starts with `base` as whole components; nothing is resolved.
std::optional<std::string> below(std::string_view base, std::string_view path);

// Opens the root directory itself; links in the root's own path are the caller's and followed.
Opened open_root(const std::string& path);

// openat(root, relative, flags, mode) resolved below the root: ".." never climbs above it and
// links are followed only while they stay below it (a link as the last component too, unless
// flags hold O_NOFOLLOW). An empty `relative` is the root itself.
Opened open_beneath(const Root& root, std::string_view relative, int flags, mode_t mode = 0);

// Makes each missing directory of `relative` below the root, as os.makedirs(..., exist_ok=True)
// would, each made inside a directory reached by open_beneath. 0 or the errno: EEXIST for a
// component that exists but is no directory.
int make_directories(const Root& root, std::string_view relative);

}  // namespace editor::edits
