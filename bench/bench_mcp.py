"""What the MCP server adds to a tool call: a client's call through `editor-mcp` (request, JSON,
the hop to the session's thread, result, text rendering) beside the same Session call made
directly in this process, alternating on the same input — two copies of one project, the
server's and this process's, each edited the same way. The overhead row is the median of the
per-round differences; target: at most 5 ms for each tool on a 1k-line file.
"""

import os
import shutil
import statistics
import sys
import tempfile
import time
from pathlib import Path

import anyio

from harness import ROOT, row

sys.path.insert(0, str(ROOT / "tests"))
from mcp_client import connect  # noqa: E402

from editor_session.session import Session  # noqa: E402

ROUNDS = 41
TARGET_MS = 5.0
FILE = "app/big_module.py"
LINES = 1000


def make_project(root: Path) -> None:
    (root / "app").mkdir(parents=True)
    body = "".join(f"def handler_{n}(value):\n    return value + {n}\n\n\n" for n in range(LINES // 4))
    (root / FILE).write_text(body[: body.rindex("\n\n\n")] + "\n")
    (root / "app" / "__init__.py").write_text("")


def edit_arguments(i: int) -> dict:
    # A different value each round keeps the file's size and line count as they are.
    return {"path": FILE, "start_line": 2, "content": f"    return value + {i}\n"}


# Each tool with the arguments of round i; the Session method takes the same names.
CASES = {"edit": edit_arguments, "read": lambda i: {"path": FILE, "start": 1, "end": LINES}}


async def measure(client, session, tool, arguments_of):
    through_server, direct = [], []
    for i in range(ROUNDS):
        arguments = arguments_of(i)
        start = time.perf_counter()
        answer = await client.call_tool(tool, arguments)
        middle = time.perf_counter()
        result = getattr(session, tool)(**arguments)
        through_server.append(middle - start)
        direct.append(time.perf_counter() - middle)
        assert not answer.is_error and "error" not in result, (answer.content, result)
    return through_server, direct


def main():
    with tempfile.TemporaryDirectory(prefix="editor_bench_mcp_") as scratch:
        scratch = Path(scratch)
        os.environ["EDITOR_STATE_HOME"] = str(scratch / "state")
        served, local = scratch / "served" / "proj", scratch / "local" / "proj"
        make_project(served)
        shutil.copytree(served, local)
        session = Session.open(str(local))

        async def run():
            with open(scratch / "server-stderr.txt", "w") as errlog:
                async with connect(served, scratch, errlog) as client:
                    return {tool: await measure(client, session, tool, arguments_of)
                            for tool, arguments_of in CASES.items()}

        try:
            results = anyio.run(run)
        finally:
            session.close()
        for tool, (through_server, direct) in results.items():
            row(f"mcp {tool} round trip", f"{LINES} lines", statistics.median(through_server),
                statistics.median(direct))
            overhead = statistics.median(a - b for a, b in zip(through_server, direct))
            row(f"  mcp {tool} overhead (target <= {TARGET_MS:g} ms)", f"{LINES} lines", overhead, None)


if __name__ == "__main__":
    main()
