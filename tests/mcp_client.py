"""Drives `editor-mcp` as a coding agent would: a child process spoken to through the SDK's own
stdio client. Shared by the protocol tests, the packaging test and the benchmark."""

import os
import sys
from contextlib import asynccontextmanager
from pathlib import Path

from mcp.client.session import ClientSession
from mcp.client.stdio import StdioServerParameters, stdio_client

ROOT = Path(__file__).resolve().parent.parent
# A tool call that takes longer than this is a hang, not a slow machine.
CALL_TIMEOUT = 60


def checkout_command(root):
    """The server of this checkout: the built module and host/ on the path."""
    return [sys.executable, "-m", "editor_session.server", "--root", str(root)]


def checkout_env():
    build = os.environ.get("EDITOR_BUILD", str(ROOT / "build"))
    return {"PYTHONPATH": os.pathsep.join([str(ROOT / "host"), build])}


@asynccontextmanager
async def connect(command, state_home, errlog, env=None):
    """An initialised client session with a server started by `command`; its stderr goes to
    the open file `errlog`."""
    params = StdioServerParameters(command=command[0], args=command[1:], cwd=str(state_home),
                                   env={"EDITOR_STATE_HOME": str(state_home), **(env or {})})
    async with stdio_client(params, errlog=errlog) as (read, write):
        async with ClientSession(read, write, read_timeout_seconds=CALL_TIMEOUT) as client:
            await client.initialize()
            yield client
