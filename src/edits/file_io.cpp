#include <Python.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "edits/file_io.hpp"
#include "editor/host.hpp"

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

int rewrite(const char* native_path, std::span<iovec> pending) noexcept {
    const int fd = ::open(native_path, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return errno;
    const int written = write_all(fd, pending);
    const int closed = ::close(fd) == 0 ? 0 : errno;
    return written ? written : closed;
}

}  // namespace

bool path_is(PyObject* module, const char* test, PyObject* path) {
    Ref answer = call(ns_attr(module, "os", "path", test).get(), path);
    return check_bool(PyObject_IsTrue(answer.get()));
}

std::string_view utf8_of(PyObject* text) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(text, &size);
    if (data == nullptr) throw PyError::fetch();
    return {data, static_cast<std::size_t>(size)};
}

void write_in_place(PyObject* path, std::span<const std::string_view> pieces) {
    // The host's path encoding, which also refuses an embedded NUL with its ValueError.
    Ref native;
    if (!PyUnicode_FSConverter(path, native.out())) throw PyError::fetch();
    std::vector<iovec> pending;
    for (std::string_view piece : pieces) {
        if (!piece.empty()) pending.push_back({const_cast<char*>(piece.data()), piece.size()});
    }
    int error = 0;
    {
        Detached detached;
        error = rewrite(PyBytes_AS_STRING(native.get()), pending);
    }
    if (error != 0) {
        errno = error;
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, path);
        throw PyError::fetch();
    }
}

}  // namespace editor::edits
