"""The session's edit tools against the edits they build on, interleaved on the same input.

Line-end keeping: a one-line edit of a 100k-line CRLF file with its line ends kept, against the
same edit without (the module's plain behaviour: every line end becomes "\\n"); both return the
new tag. Before every run the file gets its CRLF bytes back, outside the timing.

Multi-block: fifty blocks spread over a 10k-line Python file in one edit, against one
single-block edit of the same file; both run the module's real syntax check (the one check
of the fifty-block edit included).
"""

import os
import shutil
import tempfile
from pathlib import Path

from harness import interleaved, row

from editor_session import blocks
from editor_session.session import Session

SCRATCH = Path(__file__).resolve().parent / ".scratch" / "tools"
LINE = "    value_{i:06d} = compute(value_{j:06d}, factor=3)  # keeps a running total of it\n"


def python_lines(count):
    return ["def body():\n"] + [LINE.format(i=i, j=max(i - 1, 0)) for i in range(1, count)]


def line_ends():
    path = SCRATCH / "crlf.txt"
    data = "".join(python_lines(100_000)).replace("\n", "\r\n").encode()
    root, target = str(SCRATCH), str(path)
    spec = {"start_line": 50_000, "end_line": None, "content": "    changed = 1\n", "mode": "replace",
            "anchor": None}

    def edit(keep):
        return lambda _: blocks.edit_one(root, target, data, spec, ends=keep)

    plain, kept = interleaved([edit(False), edit(True)], rounds=21, setup=lambda: path.write_bytes(data))
    assert path.read_bytes().count(b"\r\n") == 100_000, "the kept edit must leave CRLF on every line"
    size = f"{len(data) / 2**20:.1f} MiB"
    row("one-line edit, line ends kept", size, kept, plain)
    # The same through the session's tool call, which is what a model's edit costs.
    state = tempfile.mkdtemp(prefix="bench-state-")
    os.environ["EDITOR_STATE_HOME"] = state
    plain_session = Session.open(root, keep_line_ends=False)
    kept_session = Session.open(root)

    def call(session):
        return lambda _: session.edit("crlf.txt", 50_000, None, "    changed = 1\n")

    plain, kept = interleaved([call(plain_session), call(kept_session)], rounds=11,
                              setup=lambda: path.write_bytes(data))
    assert path.read_bytes().count(b"\r\n") == 100_000, "the kept edit must leave CRLF on every line"
    row("session edit, line ends kept", size, kept, plain)
    for session in (plain_session, kept_session):
        session.close()
    shutil.rmtree(state)
    path.unlink()


def multi_block():
    path = SCRATCH / "module.py"
    data = "".join(python_lines(10_000)).encode()
    root, target = str(SCRATCH), str(path)
    specs = [{"start_line": 200 * k + 2, "content": f"    block_{k} = {k}\n"} for k in range(50)]
    single = {"start_line": 5_000, "end_line": None, "content": "    changed = 1\n", "mode": "replace",
              "anchor": None}

    def one(_):
        assert blocks.edit_one(root, target, data, single)["syntax"] == "ok"

    def fifty(_):
        assert blocks.edit_blocks(root, target, "module.py", data, specs)["syntax"] == "ok"

    single_time, fifty_time = interleaved([one, fifty], rounds=31, setup=lambda: path.write_bytes(data))
    row("50-block edit vs one block, py 10k lines", f"{len(data) / 2**10:.0f} KiB", fifty_time, single_time)
    path.unlink()


def main():
    SCRATCH.mkdir(parents=True, exist_ok=True)
    line_ends()
    multi_block()


if __name__ == "__main__":
    main()
