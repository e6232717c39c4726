"""Drives `editor-mcp` through the SDK's own stdio client, for the protocol tests and the benchmark."""

import os
import sys
from contextlib import asynccontextmanager
from pathlib import Path

from mcp.client.session import ClientSession
from mcp.client.stdio import StdioServerParameters, stdio_client

ROOT = Path(__file__).resolve().parent.parent
CALL_TIMEOUT = 60  # a tool call that takes longer is a hang, not a slow machine


@asynccontextmanager
async def connect(root, state_home, errlog):
    path = os.pathsep.join([str(ROOT / "host"), os.environ.get("EDITOR_BUILD", str(ROOT / "build"))])
    params = StdioServerParameters(command=sys.executable, args=["-m", "editor_session.server", "--root", str(root)],
                                   cwd=str(state_home), env={"EDITOR_STATE_HOME": str(state_home), "PYTHONPATH": path})
    async with stdio_client(params, errlog=errlog) as (read, write):
        async with ClientSession(read, write, read_timeout_seconds=CALL_TIMEOUT) as client:
            await client.initialize()
            yield client
