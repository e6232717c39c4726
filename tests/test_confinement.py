"""Writes stay under the root when the tree changes under them, and never block on a named pipe."""

import concurrent.futures
import errno
import os
import shutil
import subprocess
import sys
import threading
import types
from pathlib import Path

import pytest

import editor
from helpers import immutable, tree_digest, write

OUTSIDE_TEXT = b"outside\n"
# shutil.rmtree's refusal of a link to a directory, as the host prints it (the filename is set
# on an error that has no errno).
LINK_REFUSED = "could not delete {path}: [Errno None] None: '{path}'"
ARGS = {"apply_block": (1, None, "written\n"), "create_file": ("written\n",), "delete_file": ()}


@pytest.fixture
def layout(project, checker):
    # `sub/b.txt` under the root, and an `outside/b.txt` a misdirected write would land on.
    write(project / "sub" / "b.txt", "inside\n")
    (project.parent / "outside" / "b.txt").write_bytes(OUTSIDE_TEXT)
    return project


def within(seconds, call):
    """call()'s result (an OSError: its errno); a TimeoutError when it has not returned after `seconds`."""
    outcome = concurrent.futures.Future()

    def run():
        try:
            outcome.set_result(call())
        except Exception as error:  # handed to the test's thread
            outcome.set_result(getattr(error, "errno", error))

    threading.Thread(target=run, daemon=True).start()
    return outcome.result(seconds)


def after_existence_test(monkeypatch, change):
    # Runs change() right after the operation's existence test, the module's last look before
    # it writes: the module's `os` is replaced by one whose os.path.exists does that.
    def exists(path):
        return [os.path.exists(path), change()][0]

    path = types.SimpleNamespace(**vars(os.path) | {"exists": exists})
    monkeypatch.setattr(editor, "os", types.SimpleNamespace(path=path))


# `sub` is moved aside (still under the root) and a link to `outside` put in its place.
@pytest.mark.parametrize("spelling", ["/outside", "../outside"])
@pytest.mark.parametrize(
    ("operation", "relative", "expected"),
    [
        ("apply_block", "sub/b.txt", errno.EXDEV),
        ("create_file", "sub/new.txt", errno.EXDEV),
        ("create_file", "sub/deeper/new.txt", errno.EXDEV),
        ("delete_file", "sub/b.txt", "could not delete {path}: [Errno 18] Invalid cross-device link: '{path}'"),
        ("delete_file", "sub", LINK_REFUSED),
    ],
)
def test_a_link_out_swapped_in_after_the_checks_is_not_followed(layout, monkeypatch, spelling, operation,
                                                                relative, expected):
    swapped, path = [], str(layout / relative)
    after_existence_test(monkeypatch, lambda: (
        os.rename(layout / "sub", layout / "moved"),
        os.symlink(str(layout.parent) + spelling if spelling[0] == "/" else spelling, layout / "sub"),
        swapped.append(tree_digest(layout.parent))))
    expected = expected if isinstance(expected, int) else {"error": expected.format(path=path)}
    assert within(10, lambda: getattr(editor, operation)(str(layout), path, *ARGS[operation])) == expected
    assert [tree_digest(layout.parent)] == swapped


@pytest.mark.parametrize("target", ["absolute", "relative"])
@pytest.mark.parametrize("slash", ["", "/"])
def test_a_link_to_a_directory_is_refused_however_it_is_written(layout, target, slash):
    (layout / "sub" / "deep").mkdir()
    os.symlink(layout / "sub" if target == "absolute" else "sub", layout / "pkg_link")
    digest, path = tree_digest(layout.parent), f"{layout}/pkg_link{slash}"
    assert editor.delete_file(str(layout), path) == {"error": LINK_REFUSED.format(path=path)}
    assert tree_digest(layout.parent) == digest


# First with a directory in it that refuses the removal, then unlocked.
@pytest.mark.parametrize("locked", ["nested", "nested/inner"])
def test_removing_a_tree_takes_its_links_and_pipes_and_nothing_behind_them(layout, locked):
    tree = layout / "tree"
    write(tree / "nested" / "inner" / "file.txt", "x\n")
    os.symlink(layout.parent / "outside", tree / "out_dir")
    os.symlink(layout.parent / "outside" / "secret.txt", tree / "nested" / "out_file")
    os.symlink("../../sub", tree / "nested" / "sub_link")
    os.mkfifo(tree / "nested" / "pipe")
    kept = tree_digest(layout.parent / "outside"), tree_digest(layout / "sub")
    with immutable(tree / locked):
        refusal, digest = within(10, lambda: editor.delete_file(str(layout), str(tree))), tree_digest(layout.parent)
        # The host's own removal of what is left stops at the same place. Once the refusal named the
        # top of the tree where the host names the directory it failed in.
        with pytest.raises(OSError) as caught:
            shutil.rmtree(tree)
        assert refusal == {"error": f"could not delete {tree}: {caught.value}"}
        assert tree_digest(layout.parent) == digest and any((tree / locked).iterdir())
    assert within(10, lambda: editor.delete_file(str(layout), str(tree))) == {"deleted": str(tree), "was": "directory"}
    assert not tree.exists() and (tree_digest(layout.parent / "outside"), tree_digest(layout / "sub")) == kept


class PipeAfterRead(type(Path())):
    # The host's Path, except that reading a file replaces it with a named pipe afterwards.
    def read_text(self, *args, **kwargs):
        text = super().read_text(*args, **kwargs)
        self.unlink()
        os.mkfifo(self)
        return text


@pytest.mark.parametrize(("operation", "name"), [("apply_block", "b.txt"), ("create_file", "new.txt")])
def test_a_named_pipe_swapped_in_fails_the_write_instead_of_blocking_it(layout, monkeypatch, operation, name):
    target = layout / "sub" / name
    if operation == "apply_block":
        monkeypatch.setattr(editor, "Path", PipeAfterRead)
    else:
        after_existence_test(monkeypatch, lambda: os.mkfifo(target))
    result = within(10, lambda: getattr(editor, operation)(str(layout), str(target), *ARGS[operation]))
    assert result == errno.ENXIO and target.is_fifo()


SWAPPER = """
import ctypes, os, sys, time
libc = ctypes.CDLL(None, use_errno=True)
sub, link = os.fsencode(sys.argv[1]), os.fsencode(sys.argv[2])
deadline = time.monotonic() + float(sys.argv[3])
print("ready", flush=True)
while time.monotonic() < deadline:
    if libc.renameat2(-100, sub, -100, link, 2) != 0:  # AT_FDCWD, RENAME_EXCHANGE
        raise OSError(ctypes.get_errno(), "renameat2")
    time.sleep(0.00002)  # each layout holds a moment: calls that pass the checks meet the other
"""


# Another process swaps `sub` with a link to `outside` (atomically, RENAME_EXCHANGE) as fast as it
# can while `sub/b.txt` is edited: every write lands under the root or fails.
@pytest.mark.heavy
def test_block_edits_racing_a_directory_exchange_never_write_outside(layout):
    os.symlink(layout.parent / "outside", layout / "link")
    outside, failed_at_the_write = layout.parent / "outside" / "b.txt", 0
    with subprocess.Popen([sys.executable, "-c", SWAPPER, str(layout / "sub"), str(layout / "link"), "300"],
                          stdout=subprocess.PIPE, text=True) as swapper:
        try:
            assert swapper.stdout.readline() == "ready\n"
            for n in range(int(os.environ.get("EDITOR_RACE_ROUNDS", "2000"))):
                try:
                    editor.apply_block(str(layout), str(layout / "sub" / "b.txt"), 1, None, f"round {n}\n")
                except OSError:
                    failed_at_the_write += 1
                assert outside.read_bytes() == OUTSIDE_TEXT, f"round {n} wrote outside the root"
            assert swapper.poll() is None, "the swapping process stopped early"
        finally:
            swapper.kill()
    # Calls that passed every check and then met the link are the race itself: it must have run.
    assert failed_at_the_write > 0


WITHOUT_OPENAT2 = """
import ctypes, errno, struct, sys
import pytest

OPENAT2, refusal = 437, getattr(errno, sys.argv[1])
# seccomp: load the system call number; openat2 returns the refusal, anything else is allowed.
steps = ctypes.create_string_buffer(struct.pack("HBBI" * 4, 0x20, 0, 0, 0, 0x15, 0, 1, OPENAT2,
                                                0x06, 0, 0, 0x50000 | refusal, 0x06, 0, 0, 0x7FFF0000))
program = ctypes.create_string_buffer(struct.pack("HP", 4, ctypes.addressof(steps)))
libc = ctypes.CDLL(None, use_errno=True)
if libc.prctl(38, 1, 0, 0, 0) or libc.prctl(22, 2, program, 0, 0):  # no new privileges; seccomp filter
    raise OSError(ctypes.get_errno(), "installing the seccomp filter")
assert libc.syscall(OPENAT2, -100, b".", None, 0) == -1 and ctypes.get_errno() == refusal
sys.exit(pytest.main(["-q", "-p", "no:cacheprovider", "-m", "not heavy", *sys.argv[2:]]))
"""


# A kernel without openat2, or a seccomp filter that refuses it: the component walk alone passes
# the confinement cases and the edits' own cases.
@pytest.mark.heavy
@pytest.mark.parametrize("refusal", ["ENOSYS", "EPERM"])
def test_without_openat2_the_walk_confines_the_same(refusal):
    here = Path(__file__).resolve().parent
    run = subprocess.run([sys.executable, "-c", WITHOUT_OPENAT2, refusal, str(here / "test_confinement.py"),
                          str(here / "test_edits_block.py")], cwd=here.parent, capture_output=True, text=True,
                         timeout=300)
    assert run.returncode == 0, run.stdout[-3000:] + run.stderr[-3000:]
