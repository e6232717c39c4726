#include <Python.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <optional>
#include <string>
#include <vector>

#include "edits/beneath.hpp"
#include "edits/file_io.hpp"
#include "edits/remove_tree.hpp"
#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"

namespace editor::edits {
namespace {

// Lets other threads run while this one waits on the disk. Nothing inside may touch the C API.
class Detached {
public:
    Detached() noexcept : state_(PyEval_SaveThread()) {}
    ~Detached() { PyEval_RestoreThread(state_); }
    Detached(const Detached&) = delete;
    Detached& operator=(const Detached&) = delete;

private:
    PyThreadState* state_;
};

// Writes every byte of `pending` to `fd`, advancing through it; 0 or the errno of the failure.
int write_all(int fd, std::span<iovec> pending) noexcept {
    std::size_t first = 0;
    while (first < pending.size()) {
        const int count = static_cast<int>(std::min<std::size_t>(pending.size() - first, IOV_MAX));
        const ssize_t written = ::writev(fd, pending.data() + first, count);
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        // A short write: drop what went out and go on from there.
        auto left = static_cast<std::size_t>(written);
        while (first < pending.size() && left >= pending[first].iov_len) left -= pending[first++].iov_len;
        if (first < pending.size()) {
            pending[first].iov_base = static_cast<char*>(pending[first].iov_base) + left;
            pending[first].iov_len -= left;
        }
    }
    return 0;
}

// Opened for writing without waiting: a named pipe swapped in for the file fails at once (ENXIO)
// instead of blocking until something reads it; regular files ignore O_NONBLOCK.
constexpr int write_flags = O_WRONLY | O_TRUNC | O_NOCTTY | O_NONBLOCK;

// Writes every piece to the file just opened and closes it; 0 or the errno of the first failure.
int fill(Opened file, std::span<iovec> pending) {
    if (file.error != 0) return file.error;
    const int written = write_all(file.fd.get(), pending);
    const int closed = file.fd.close();
    return written != 0 ? written : closed;
}

std::vector<iovec> iovecs(std::span<const std::string_view> pieces) {
    std::vector<iovec> pending;
    for (std::string_view piece : pieces) {
        if (!piece.empty()) pending.push_back({const_cast<char*>(piece.data()), piece.size()});
    }
    return pending;
}

// The host's path encoding, which also refuses an embedded NUL with its ValueError.
std::string native(PyObject* path) {
    Ref encoded;
    if (!PyUnicode_FSConverter(path, encoded.out())) throw PyError::fetch();
    return {PyBytes_AS_STRING(encoded.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.get()))};
}

// The module's current os.path.realpath of an encoded path, encoded.
std::string host_realpath(PyObject* module, std::string_view path) {
    Ref encoded = check(PyBytes_FromStringAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
    Ref real = call(ns_attr(module, names::os, "path", "realpath").get(), encoded.get());
    return native(real.get());
}

// `path` below `root` as the host's confinement test sees it: the real path of its parent below
// the real path of the root. The last component stays as written, so a link there is the
// operation's to follow or not. Nothing when it is not below the root.
std::optional<std::string> resolved_below(PyObject* module, const std::string& root, std::string_view path) {
    std::string_view trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.remove_suffix(1);
    const bool slash = trimmed.size() < path.size();
    const std::size_t cut = trimmed.rfind('/');
    const std::string_view head = cut == std::string_view::npos ? "." : cut == 0 ? "/" : trimmed.substr(0, cut);
    const std::string_view last = cut == std::string_view::npos ? trimmed : trimmed.substr(cut + 1);
    std::optional<std::string> parent = below(host_realpath(module, root), host_realpath(module, head));
    if (!parent) return std::nullopt;
    if (!parent->empty()) *parent += '/';
    return *parent + std::string(last) + (slash ? "/" : "");
}

// Runs `attempt(root, relative)` with the interpreter released, on `path` as written below
// `root` (the common case: no lookup), and again on `path` as the host resolves it when the
// written form is not below the root or climbs out of it (the root spelled another way, a ".."
// above it). Gives the attempt's errno, or EXDEV when neither form stays below the root.
template <typename Attempt>
int beneath(PyObject* module, PyObject* root, PyObject* path, const Attempt& attempt) {
    const std::string target = native(path);
    Root held{Fd(), native(root)};
    std::optional<std::string> relative = below(held.path, target);
    int error = 0;
    {
        Detached detached;
        Opened opened = open_root(held.path);
        held.fd = std::move(opened.fd);
        error = opened.error;
        if (held.fd && relative) error = attempt(held, *relative);
    }
    if (!held.fd || (relative && error != EXDEV)) return error;
    relative = resolved_below(module, held.path, target);
    if (!relative) return EXDEV;
    Detached detached;
    return attempt(held, *relative);
}

[[noreturn]] void raise_errno(int error, PyObject* filename) {
    errno = error;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename);
    throw PyError::fetch();
}

}  // namespace

std::string_view utf8_of(PyObject* text) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(text, &size);
    if (data == nullptr) throw PyError::fetch();
    return {data, static_cast<std::size_t>(size)};
}

void write_in_place(PyObject* module, PyObject* root, PyObject* path, std::span<const std::string_view> pieces) {
    const std::vector<iovec> whole = iovecs(pieces);
    const int error = beneath(module, root, path, [&](const Root& held, std::string_view relative) {
        std::vector<iovec> pending = whole;  // write_all consumes its copy; a second attempt starts whole
        return fill(open_beneath(held, relative, write_flags), pending);
    });
    if (error != 0) raise_errno(error, path);
}

void write_new(PyObject* module, PyObject* root, PyObject* path, std::string_view content) {
    bool making_parents = false;
    const int error = beneath(module, root, path, [&](const Root& held, std::string_view relative) {
        const std::size_t cut = relative.rfind('/');
        making_parents = cut != std::string_view::npos;
        if (making_parents) {
            if (const int failed = make_directories(held, relative.substr(0, cut))) return failed;
            making_parents = false;
        }
        std::vector<iovec> pending = iovecs({&content, 1});
        return fill(open_beneath(held, relative, write_flags | O_CREAT, 0666), pending);
    });
    if (error == 0) return;
    // Named as os.makedirs names a directory it cannot make, or as open names the file.
    raise_errno(error, making_parents ? call(ns_attr(module, names::os, "path", "dirname").get(), path).get() : path);
}

bool remove_below(PyObject* module, PyObject* root, PyObject* path) {
    Removal removal;
    const int error = beneath(module, root, path, [&](const Root& held, std::string_view relative) {
        removal = remove_beneath(held, relative);
        return removal.error;
    });
    if (removal.link_to_directory) {
        // The host's own error for this refusal, shutil.rmtree's, filename and all, however the
        // link was written.
        Ref message = str("Cannot call rmtree on a symbolic link");
        Ref refused = call(PyExc_OSError, message.get());
        check(PyObject_SetAttrString(refused.get(), "filename", path));
        PyErr_SetRaisedException(refused.release());
        throw PyError::fetch();
    }
    if (error == 0) return removal.directory;
    if (removal.failed_at.empty()) raise_errno(error, path);
    Ref inner = check(PyUnicode_DecodeFSDefaultAndSize(removal.failed_at.data(),
                                                       static_cast<Py_ssize_t>(removal.failed_at.size())));
    raise_errno(error, call(ns_attr(module, names::os, "path", "join").get(), path, inner.get()).get());
}

}  // namespace editor::edits
