"""`editor-mcp` over the real protocol: a child process driven by the SDK's client on the sample project."""

import contextlib
import functools
import os
import shutil
import signal
import threading
from pathlib import Path

import anyio
import pytest

from helpers import tree_digest, tree_texts
from mcp_client import CALL_TIMEOUT, ROOT, connect

pytestmark = pytest.mark.heavy
MODELS = "inventory/models.py"


@pytest.fixture
def project(tmp_path):
    return shutil.copytree(ROOT / "demo" / "sample_project", tmp_path / "proj")


def drive(project, scenario):
    # `call` answers the structured result, or the whole result of a call expected to fail.
    async def run():
        with anyio.fail_after(4 * CALL_TIMEOUT), open(project.parent / "stderr.txt", "a") as errlog:
            async with connect(project, project.parent, errlog) as client:
                async def call(name, failing=False, **arguments):
                    result = await client.call_tool(name, arguments)
                    assert result.is_error == failing, (name, result.content)
                    return result if failing else result.structured_content
                return await scenario(call, client)
    return anyio.run(run)


def test_a_conversation_through_every_tool(project):
    original, before = tree_texts(project), tree_digest(project)
    # Malformed arguments, an unknown tool, and a refusal of the tool itself (redo).
    malformed = [("edit", {"path": MODELS, "start_line": "third"}), ("edit", {"start_line": 1}), ("no_such_tool", {}),
                 ("edit", {"path": MODELS, "blocks": [{"start_line": "one"}]}), ("redo", {"steps": 1})]

    async def scenario(call, client):
        for name, arguments in malformed:
            assert len((await call(name, True, **arguments)).content[0].text.splitlines()) == 1, name
        assert tree_digest(project) == before
        read = await call("read", path=MODELS, start=3, end=3)
        fixed = await call("edit", path=MODELS, anchor="MAX_ITEMS = 500", tag=read["tag"], content="MAX_ITEMS = 800\n")
        assert (read["text"], fixed["replaced"], fixed["syntax"]) == ("3\tMAX_ITEMS = 500", ["MAX_ITEMS = 500"], "ok")
        stale = await call("edit", True, path=MODELS, start_line=3, tag=read["tag"], content="MAX_ITEMS = 9\n")
        assert (stale.content[0].text, stale.structured_content["lines"]) == (
            stale.structured_content["error"], "3\tMAX_ITEMS = 800")
        await call("create", path="inventory/extra.py", content="print(undefined_in_check)\n")
        await call("edit", path="inventory/util.py", start_line=1, mode="insert_before", content="print(undefined_in_check)\n")
        edited, seen = tree_texts(project), []

        async def progress(done, total, message):
            seen.append((done, total, message))
        report = (await client.call_tool("check", {}, progress_callback=progress)).structured_content
        assert [(f["path"], f["line"], f["message"]) for f in report["structured"]] == [
            (rel, 1, "undefined name 'undefined_in_check'") for rel in ("inventory/extra.py", "inventory/util.py")]
        with anyio.fail_after(CALL_TIMEOUT):  # notifications are delivered beside the result
            while len(seen) < 3:
                await anyio.sleep(0.01)
        assert sorted((done, total) for done, total, _ in seen) == [(1, 3), (2, 3), (3, 3)] and {
            message for *_, message in seen} == {"inventory/extra.py", MODELS, "inventory/util.py"}
        with anyio.move_on_after(CALL_TIMEOUT) as scope:
            async def cancel_at_first(done, total, message):
                scope.cancel()
            await client.call_tool("check", {}, progress_callback=cancel_at_first)
        await call("status")  # calls run one at a time: this one waits for the cancelled check to restore
        assert scope.cancelled_caught and tree_texts(project) == edited
        assert "+MAX_ITEMS = 800" in (await call("diff", form="patch"))["diff"]
        assert (await call("delete", path=MODELS))["deleted"] == MODELS
        for tool, steps in (("rollback", 1), ("redo", 1), ("rollback", 3)):
            await call(tool, steps=steps)

    drive(project, scenario)
    assert tree_texts(project) == {**original, MODELS: original[MODELS].replace("500", "800", 1)}
    assert "Traceback" not in (project.parent / "stderr.txt").read_text()


def test_killed_mid_edit_the_restarted_server_finds_the_session_intact(project):
    # Text, so that the write itself (megabytes) is what the kill interrupts, not a parse.
    (project / "big.txt").write_text(big := "".join(f"value {n}\n" for n in range(300_000)))
    original, killed = tree_texts(project), []

    async def killed_mid_edit(call, client):
        await call("edit", path=MODELS, start_line=3, content="MAX_ITEMS = 9\n")
        [server] = Path(f"/proc/self/task/{threading.get_native_id()}/children").read_text().split()
        async with anyio.create_task_group() as calls:
            calls.start_soon(functools.partial(call, "edit", path="big.txt", start_line=1, content="value -1\n"))
            await anyio.sleep(delay)
            os.kill(int(server), signal.SIGKILL)
            killed.append(delay)

    async def inspect(call, client):
        assert (project / "big.txt").read_text() in (big, big.replace("value 0\n", "value -1\n", 1))
        steps = sum(1 for entry in (await call("ledger"))["entries"] if not entry.get("rolled_back"))
        await call("status")
        return steps, await call("rollback", steps=steps)

    for delay in (0.0, 0.05, 0.2):
        with contextlib.suppress(Exception):
            drive(project, killed_mid_edit)
        assert drive(project, inspect)[0] in (1, 2) and tree_texts(project) == original
    assert killed == [0.0, 0.05, 0.2]
