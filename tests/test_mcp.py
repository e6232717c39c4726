"""`editor-mcp` over the real protocol: the server as a child process, driven by the SDK's stdio
client on a copy of the sample project."""

import contextlib
import os
import shutil
import signal
import sys

import anyio
import pytest

from helpers import tree_digest, tree_texts
from mcp_client import CALL_TIMEOUT, ROOT, checkout_command, checkout_env, connect

pytestmark = pytest.mark.heavy
MODELS = "inventory/models.py"


@pytest.fixture
def setting(tmp_path):
    """(project copy, state directory, stderr file of the servers)."""
    shutil.copytree(ROOT / "demo" / "sample_project", tmp_path / "proj")
    (tmp_path / "state").mkdir()
    return tmp_path / "proj", tmp_path / "state", tmp_path / "server-stderr.txt"


def drive(setting, scenario, command=None):
    """Runs `scenario(call, client)` against a fresh server on the project, bounded in time."""
    project, state, errors = setting

    async def run():
        with anyio.fail_after(4 * CALL_TIMEOUT), open(errors, "a") as errlog:
            async with connect(command or checkout_command(project), state, errlog, checkout_env()) as client:
                async def call(name, **arguments):
                    return await client.call_tool(name, arguments)
                return await scenario(call, client)
    return anyio.run(run)


def ok(result):
    assert not result.is_error, result.content[0].text
    return result.structured_content


def test_a_conversation_through_every_tool(setting):
    project, _, errors = setting
    original = tree_texts(project)
    malformed = [("edit", {"path": MODELS, "start_line": "third"}), ("edit", {"start_line": 1}),
                 ("edit", {"path": MODELS, "start_line": 1, "mode": "sideways"}),
                 ("edit", {"path": MODELS, "start_line": 999, "content": "x\n"}),
                 ("rollback", {"steps": 0}), ("rollback", {"steps": [1]}), ("no_such_tool", {}),
                 ("edit", {"path": MODELS, "blocks": [{"start_line": "one"}]}), ("read", {"path": MODELS, "start": 0}),
                 ("redo", {"steps": 1}), ("diff", {"form": "git"})]

    async def scenario(call, client):
        r = {"tools": {tool.name for tool in (await client.list_tools()).tools}, "before": tree_digest(project)}
        r["malformed"] = [await call(name, **arguments) for name, arguments in malformed]
        r["after"] = tree_digest(project)
        r["read"] = ok(await call("read", path=MODELS, start=3, end=3))
        r["fixed"] = ok(await call("edit", path=MODELS, start_line=3, tag=r["read"]["tag"], content="MAX_ITEMS = 800\n"))
        r["stale"] = await call("edit", path=MODELS, start_line=3, tag=r["read"]["tag"], content="MAX_ITEMS = 9\n")
        r["broken"] = ok(await call("edit", path=MODELS, anchor="class Item:\n", content="class Item(:\n"))
        ok(await call("rollback", steps=1))
        ok(await call("create", path="inventory/extra.py", content="print(undefined_in_check)\n"))
        ok(await call("edit", path="inventory/util.py", start_line=1, mode="insert_before",
                      content="print(undefined_in_check)\n"))
        r["edited"], r["seen"] = tree_texts(project), []

        async def progress(done, total, message):
            r["seen"].append((done, total, message))
        r["report"] = ok(await client.call_tool("check", {}, progress_callback=progress))
        with anyio.fail_after(CALL_TIMEOUT):  # notifications are delivered beside the result
            while len(r["seen"]) < 3:
                await anyio.sleep(0.01)
        with anyio.move_on_after(CALL_TIMEOUT) as scope:
            async def cancel_at_first(done, total, message):
                scope.cancel()
            await client.call_tool("check", {}, progress_callback=cancel_at_first)
        # Calls run one at a time: this one waits for the cancelled check to finish restoring.
        ok(await call("status"))
        r["cancelled"], r["after_cancel"] = scope.cancelled_caught, tree_texts(project)
        r["diff"] = ok(await call("diff", form="patch"))["diff"]
        r["deleted"] = ok(await call("delete", path=MODELS))
        ok(await call("rollback", steps=1))
        ok(await call("redo", steps=1))
        ok(await call("rollback", steps=3))
        return r

    r = drive(setting, scenario)
    assert {"read", "edit", "create", "delete", "rollback", "redo", "check", "diff", "ledger", "status"} <= r["tools"]
    for (name, _), answer in zip(malformed, r["malformed"]):
        assert answer.is_error and len(answer.content[0].text.splitlines()) == 1, (name, answer.content)
    assert r["malformed"][3].content[0].text == r["malformed"][3].structured_content["error"]
    assert r["after"] == r["before"] and "Traceback" not in errors.read_text()
    assert r["read"]["text"] == "3\tMAX_ITEMS = 500" and r["fixed"]["replaced"] == ["MAX_ITEMS = 500"]
    assert r["fixed"]["syntax"] == "ok" and r["fixed"]["tag"] != r["read"]["tag"]
    assert r["stale"].is_error and r["stale"].structured_content["lines"] == "3\tMAX_ITEMS = 800"
    assert r["broken"]["syntax"] not in ("ok", None) and r["deleted"]["deleted"] == MODELS
    assert sorted(message for *_, message in r["seen"]) == ["inventory/extra.py", MODELS, "inventory/util.py"]
    assert sorted((done, total) for done, total, _ in r["seen"]) == [(1, 3), (2, 3), (3, 3)]
    assert "undefined_in_check" in str(r["report"]) and r["cancelled"] and r["after_cancel"] == r["edited"]
    assert "+MAX_ITEMS = 800" in r["diff"] and "--- /dev/null\n+++ b/inventory/extra.py" in r["diff"]
    assert tree_texts(project) == {**original, MODELS: original[MODELS].replace("500", "800", 1)}


def test_killed_mid_edit_the_restarted_server_finds_the_session_intact(setting):
    project, _, _ = setting
    # Text, so that the write itself (megabytes) is what the kill interrupts, not a parse.
    big = "".join(f"value {n}\n" for n in range(300_000))
    (project / "big.txt").write_text(big)
    original = tree_texts(project)
    pid_file = project.parent / "server.pid"
    recorder = [sys.executable, "-c", "import os, sys, runpy; open(sys.argv.pop(1), 'w').write(str(os.getpid()));"
                "sys.argv[0] = 'editor-mcp'; runpy.run_module('editor_session.server', run_name='__main__')",
                str(pid_file), "--root", str(project)]

    async def inspect(call, client):
        big_now = (project / "big.txt").read_text()
        steps = sum(1 for entry in ok(await call("ledger"))["entries"] if not entry.get("rolled_back"))
        ok(await call("status"))
        ok(await call("rollback", steps=steps))
        return big_now, steps

    async def lost(call, *args, **kwargs):
        with contextlib.suppress(Exception):  # the server dies under it: its answer is lost
            await call(*args, **kwargs)

    for delay in (0.0, 0.05, 0.2):
        async def killed_mid_edit(call, client):
            ok(await call("edit", path=MODELS, start_line=3, content="MAX_ITEMS = 9\n"))
            async with anyio.create_task_group() as calls:
                calls.start_soon(lambda: lost(call, "edit", path="big.txt", start_line=1, content="value -1\n"))
                await anyio.sleep(delay)
                os.kill(int(pid_file.read_text()), signal.SIGKILL)

        with contextlib.suppress(Exception):
            drive(setting, killed_mid_edit, recorder)
        big_after, steps = drive(setting, inspect)
        assert big_after in (big, big.replace("value 0\n", "value -1\n", 1)) and steps in (1, 2)
        assert tree_texts(project) == original
