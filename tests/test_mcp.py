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

TOOLS = {"read", "edit", "create", "delete", "rollback", "redo", "check", "diff", "ledger", "status"}
MODELS = "inventory/models.py"


@pytest.fixture
def setting(tmp_path):
    """(project copy, state directory, stderr file of the servers)."""
    project = tmp_path / "proj"
    shutil.copytree(ROOT / "demo" / "sample_project", project)
    state = tmp_path / "state"
    state.mkdir()
    return project, state, tmp_path / "server-stderr.txt"


def drive(setting, scenario, command=None):
    """Runs `scenario(client)` against a fresh server on the project, bounded in time."""
    project, state, errors = setting

    async def run():
        with anyio.fail_after(4 * CALL_TIMEOUT), open(errors, "a") as errlog:
            async with connect(command or checkout_command(project), state, errlog, checkout_env()) as client:
                return await scenario(client)
    return anyio.run(run)


def succeeded(result):
    assert not result.is_error, result.content[0].text
    return result.structured_content


def test_tools_their_schemas_and_the_instructions(setting):
    async def scenario(client):
        return (await client.list_tools()).tools, (await client.initialize()).instructions

    listed, instructions = drive(setting, scenario)
    tools = {tool.name: tool for tool in listed}
    assert TOOLS <= set(tools)
    for tool in tools.values():
        assert tool.description and all(spec.get("description") for spec in tool.input_schema["properties"].values())
    edit = tools["edit"].input_schema
    assert edit["required"] == ["path"]
    assert edit["properties"]["mode"]["enum"] == ["replace", "insert_before", "insert_after"]
    assert {"type": "integer"} in edit["properties"]["start_line"]["anyOf"]
    steps = tools["rollback"].input_schema["properties"]["steps"]
    assert (steps["type"], steps["minimum"]) == ("integer", 1)
    assert tools["check"].input_schema["properties"] == {}
    assert 0 < len(instructions.splitlines()) <= 5


def test_read_edit_stale_break_rollback_create_diff_delete_redo(setting):
    project, _, _ = setting
    original = tree_texts(project)

    async def scenario(client):
        read = succeeded(await client.call_tool("read", {"path": MODELS, "start": 3, "end": 3}))
        fixed = succeeded(await client.call_tool("edit", {"path": MODELS, "start_line": 3, "tag": read["tag"],
                                                          "content": "MAX_ITEMS = 800\n"}))
        stale = await client.call_tool("edit", {"path": MODELS, "start_line": 3, "tag": read["tag"],
                                                "content": "MAX_ITEMS = 900\n"})
        broken = succeeded(await client.call_tool("edit", {"path": MODELS, "anchor": "class Item:\n",
                                                           "content": "class Item(:\n"}))
        undone = succeeded(await client.call_tool("rollback", {"steps": 1}))
        created = succeeded(await client.call_tool("create", {"path": "inventory/extra.py", "content": "X = 1\n"}))
        diff = succeeded(await client.call_tool("diff", {"form": "patch"}))
        deleted = succeeded(await client.call_tool("delete", {"path": MODELS}))
        succeeded(await client.call_tool("rollback", {"steps": 1}))
        succeeded(await client.call_tool("redo", {"steps": 1}))
        succeeded(await client.call_tool("rollback", {"steps": 2}))
        return read, fixed, stale, broken, diff, deleted

    read, fixed, stale, broken, diff, deleted = drive(setting, scenario)
    assert read["text"] == "3\tMAX_ITEMS = 500" and fixed["replaced"] == ["MAX_ITEMS = 500"]
    assert fixed["syntax"] == "ok" and fixed["tag"] != read["tag"]
    assert stale.is_error and stale.structured_content["lines"] == "3\tMAX_ITEMS = 800"
    assert broken["syntax"] not in ("ok", None) and deleted["deleted"] == MODELS
    assert "+MAX_ITEMS = 800" in diff["diff"] and "--- /dev/null\n+++ b/inventory/extra.py" in diff["diff"]
    assert tree_texts(project) == {**original, MODELS: original[MODELS].replace("500", "800", 1)}


def test_refusal_is_a_tool_result_and_changes_nothing(setting):
    project, _, _ = setting
    before = tree_digest(project)

    async def scenario(client):
        return await client.call_tool("edit", {"path": MODELS, "start_line": 999, "content": "x\n"})

    refused = drive(setting, scenario)
    assert refused.is_error and refused.content[0].text == refused.structured_content["error"]
    assert tree_digest(project) == before


def test_malformed_calls_are_tool_errors_and_the_server_keeps_serving(setting):
    project, _, errors = setting
    before = tree_digest(project)
    malformed = [("edit", {"path": MODELS, "start_line": "third"}), ("edit", {"start_line": 1}),
                 ("edit", {"path": MODELS, "start_line": 1, "mode": "sideways"}),
                 ("rollback", {"steps": 0}), ("rollback", {"steps": [1]}), ("no_such_tool", {}),
                 ("edit", {"path": MODELS, "blocks": [{"start_line": "one"}]}), ("read", {"path": MODELS, "start": 0}),
                 ("redo", {"steps": 1}), ("diff", {"form": "git"})]

    async def scenario(client):
        answers = [await client.call_tool(name, arguments) for name, arguments in malformed]
        return answers, await client.call_tool("ledger", {})

    answers, ledger = drive(setting, scenario)
    for (name, _), answer in zip(malformed, answers):
        assert answer.is_error and len(answer.content[0].text.splitlines()) == 1, (name, answer.content)
    succeeded(ledger)
    assert tree_digest(project) == before
    assert "Traceback" not in errors.read_text()


def test_check_reports_progress_and_a_cancelled_check_leaves_the_files(setting):
    project, _, _ = setting
    touched = ["inventory/models.py", "inventory/pricing.py", "inventory/report.py", "inventory/util.py"]

    async def scenario(client):
        for rel in touched:
            succeeded(await client.call_tool("edit", {"path": rel, "start_line": 1, "mode": "insert_before",
                                                      "content": "print(undefined_in_check)\n"}))
        edited = tree_texts(project)
        seen = []

        async def progress(done, total, message):
            seen.append((done, total, message))

        report = succeeded(await client.call_tool("check", {}, progress_callback=progress))
        with anyio.fail_after(CALL_TIMEOUT):  # notifications are delivered beside the result
            while len(seen) < len(touched):
                await anyio.sleep(0.01)
        with anyio.move_on_after(CALL_TIMEOUT) as scope:
            async def cancel_at_first(done, total, message):
                scope.cancel()
            await client.call_tool("check", {}, progress_callback=cancel_at_first)
        # Calls run one at a time: this one waits for the cancelled check to finish restoring.
        status = await client.call_tool("status", {})
        return seen, report, scope.cancelled_caught, edited, tree_texts(project), status

    seen, report, cancelled, edited, after_cancel, status = drive(setting, scenario)
    assert sorted(message for _, _, message in seen) == touched
    assert sorted(done for done, _, _ in seen) == list(range(1, len(touched) + 1))
    assert {total for _, total, _ in seen} == {len(touched)}
    assert "undefined_in_check" in str(report)
    assert cancelled and after_cancel == edited
    succeeded(status)


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

    async def inspect(client):
        big_now = (project / "big.txt").read_text()
        ledger = succeeded(await client.call_tool("ledger", {}))
        steps = sum(1 for entry in ledger["entries"] if not entry.get("rolled_back"))
        succeeded(await client.call_tool("status", {}))
        succeeded(await client.call_tool("rollback", {"steps": steps}))
        return big_now, steps

    for delay in (0.0, 0.05, 0.2):
        async def killed_mid_edit(client):
            succeeded(await client.call_tool("edit", {"path": MODELS, "start_line": 3, "content": "MAX_ITEMS = 9\n"}))
            async with anyio.create_task_group() as calls:
                calls.start_soon(_call_ignoring_loss, client, "edit", {"path": "big.txt", "start_line": 1,
                                                                        "content": "value -1\n"})
                await anyio.sleep(delay)
                os.kill(int(pid_file.read_text()), signal.SIGKILL)

        with contextlib.suppress(Exception):
            drive(setting, killed_mid_edit, recorder)
        big_after, steps = drive(setting, inspect)
        assert big_after in (big, big.replace("value 0\n", "value -1\n", 1))
        assert steps in (1, 2)
        assert tree_texts(project) == original


async def _call_ignoring_loss(client, name, arguments):
    """A call whose server is killed under it: its answer is lost, which is the point."""
    with contextlib.suppress(Exception):
        await client.call_tool(name, arguments)
