"""`editor-mcp --root DIR`: the session's tools for a coding agent, as an MCP server on stdio.

One long-lived session serves every call, so snapshots and the index stay in memory between
calls, over the durable store. Each tool answers with the session's result as structured
content plus a short text; a refusal is a result flagged as an error; a host exception is one
line naming the file and the reason. Logs go to stderr; stdout carries only the protocol.
"""

import argparse
import asyncio
import json
import logging
import sys
import threading
from collections.abc import Callable
from typing import Annotated, Any, Literal, TypedDict

from mcp.server.mcpserver import Context, MCPServer
from mcp.server.mcpserver.exceptions import ToolError
from mcp_types import CallToolResult, TextContent, ToolAnnotations
from pydantic import Field, ValidationError

from editor_session import patch
from editor_session.main_thread import MainThreadCalls
from editor_session.session import Session, describe
from editor_session.store import SessionError

log = logging.getLogger("editor_session.server")

INSTRUCTIONS = """\
These tools edit the project at {root}; paths are relative to it.
Take line numbers only from a `read` or from the latest receipt; quote a short `anchor` instead when unsure.
Every receipt echoes the lines it replaced and a syntax verdict: if either is wrong, `rollback` 1 step.
Finish every change with `check` (errors your edits introduced), then review it with `diff`."""

# Progress for `check` is best-effort: a client that stopped reading must not hold the session.
PROGRESS_TIMEOUT = 10.0

FilePath = Annotated[str, Field(description=(
    "The file, relative to the project root or absolute inside it; a unique file name alone also "
    "works (an ambiguous one is refused with the candidates)."))]
StartLine = Annotated[int | None, Field(description=(
    "First line addressed (1-based), taken from a `read` or the latest receipt of this file. "
    "Leave out when giving `anchor`."))]
EndLine = Annotated[int | None, Field(description=(
    "Last line replaced, inclusive; leave out to replace start_line alone. Ignored by the insert modes."))]
Content = Annotated[str, Field(description=(
    "The whole block to put in, as lines of text; empty with mode 'replace' deletes the lines."))]
Mode = Annotated[Literal["replace", "insert_before", "insert_after"], Field(description=(
    "'replace' the addressed lines, or put the block above ('insert_before') or below "
    "('insert_after') them."))]
Anchor = Annotated[str | None, Field(description=(
    "Instead of line numbers: a snippet of the file's current text that occurs exactly once; it "
    "addresses the lines it spans. Use it when the lines may have moved since you last read them."))]
NewContent = Annotated[str, Field(description="The new file's whole text.")]
Steps = Annotated[int, Field(ge=1, description="How many of the newest steps to undo.")]
RedoSteps = Annotated[int, Field(ge=1, description=(
    "How many of the steps the latest rollbacks undid to apply again, the last undone first."))]
Start = Annotated[int, Field(ge=1, description="First line to show (1-based).")]
End = Annotated[int | None, Field(ge=1, description=(
    "Last line to show, inclusive; leave out to read to the end (long ranges are cut, with a note "
    "saying where to read on)."))]
Tag = Annotated[str | None, Field(description=(
    "The file's tag from your last `read` or receipt of it: if the file changed since, the edit is "
    "refused with the current tag and the current text of the addressed lines, so you can re-aim it."))]
DryRun = Annotated[bool, Field(description=(
    "Only show the unified diff the edit would make and its syntax verdict; write nothing."))]
DiffForm = Annotated[patch.Form, Field(description=(
    "'unified' to read, or 'patch' for a patch `git apply` accepts (/dev/null for created and "
    "deleted files)."))]


class Block(TypedDict, total=False):
    """One block of a multi-block edit, addressed against the file as it is before the edit."""
    start_line: StartLine
    end_line: EndLine
    anchor: Anchor
    mode: Mode
    content: Content


Blocks = Annotated[list[Block] | None, Field(description=(
    "Several blocks put in at once, all addressed against the current text (no shifting of line "
    "numbers between them), applied all or none, as one step. When given, the single-block "
    "parameters are not used."))]

READ_ONLY = ToolAnnotations(read_only_hint=True)
WRITES = ToolAnnotations(read_only_hint=False, destructive_hint=False)
DESTRUCTIVE = ToolAnnotations(read_only_hint=False, destructive_hint=True)


class Tools:
    """The MCP face of one session: every method is a tool of the same name, its docstring the
    tool's description and its annotated parameters the input schema."""

    ANNOTATIONS = {
        "read": READ_ONLY, "edit": WRITES, "create": WRITES, "delete": DESTRUCTIVE, "rollback": DESTRUCTIVE, "redo": DESTRUCTIVE,
        "check": READ_ONLY, "diff": READ_ONLY, "ledger": READ_ONLY, "status": READ_ONLY,
    }

    def __init__(self, session: Session, calls: MainThreadCalls):
        self.session, self.calls = session, calls

    async def read(self, path: FilePath, start: Start = 1, end: End = None) -> CallToolResult:
        """Read lines of a file, each with its number (the numbers `edit` takes), the file's line
        count and its tag (pass it to `edit` to be refused if the file changes meanwhile)."""
        return await self._call(path, lambda: self.session.read(path, start=start, end=end))

    async def edit(self, path: FilePath, start_line: StartLine = None, end_line: EndLine = None,
                   content: Content = "", mode: Mode = "replace", anchor: Anchor = None, tag: Tag = None,
                   blocks: Blocks = None, dry_run: DryRun = False) -> CallToolResult:
        """Put whole blocks of lines into an existing file, addressed by line numbers or by an
        anchor snippet of whole lines. The receipt echoes the exact lines replaced, the line it
        went to, a syntax verdict ("ok", the first breakage the edit added, or null when it cannot
        judge) and the file's new tag."""
        return await self._call(path, lambda: self.session.edit(
            path, start_line=start_line, end_line=end_line, content=content, mode=mode, anchor=anchor,
            tag=tag, blocks=None if blocks is None else [dict(block) for block in blocks], dry_run=dry_run))

    async def create(self, path: FilePath, content: NewContent) -> CallToolResult:
        """Create a new file (and its missing parent directories); an existing path is refused.
        Undone by `rollback`."""
        return await self._call(path, lambda: self.session.create(path, content))

    async def delete(self, path: FilePath) -> CallToolResult:
        """Delete a file or a directory tree of the project, as one step: `rollback` puts back
        every byte of it."""
        return await self._call(path, lambda: self.session.delete(path))

    async def rollback(self, steps: Steps) -> CallToolResult:
        """Undo the newest `steps` writes of this session: files get their earlier text back
        (created files go away) and the index is restored with them."""
        return await self._call("rollback", lambda: self.session.rollback(steps))

    async def redo(self, steps: RedoSteps) -> CallToolResult:
        """Apply again the newest `steps` steps that `rollback` undid, while their files are still as
        the rollback left them; any other write in between ends the chance to redo."""
        return await self._call("redo", lambda: self.session.redo(steps))

    async def check(self, ctx: Context) -> CallToolResult:
        """The end-of-change check: compiles and lints every file this session touched and reports
        only the errors the session's edits introduced (in a file it created, every error). Run it once a change is complete; it
        reports progress per file and can be cancelled, leaving every file as it was."""
        loop = asyncio.get_running_loop()
        cancelled = threading.Event()

        def progress(done: int, total: int, rel: str) -> None:
            sent = asyncio.run_coroutine_threadsafe(ctx.report_progress(done, total, rel), loop)
            try:
                sent.result(PROGRESS_TIMEOUT)
            except Exception as exc:
                log.debug("progress for %s not sent: %r", rel, exc)

        return await self._call("check", lambda: self.session.check(progress=progress, cancel=cancelled), cancelled)

    async def diff(self, form: DiffForm = "unified") -> CallToolResult:
        """One diff of everything this session changed, against each file's text at first touch."""
        return await self._call("diff", lambda: self.session.diff(form))

    async def ledger(self) -> CallToolResult:
        """The numbered steps of this session's ledger, with what each did and whether it was rolled back."""
        return await self._call("ledger", self.session.ledger)

    async def status(self) -> CallToolResult:
        """The session's state: how many steps it holds, the files it touched, anything recovered."""
        return await self._call("status", self.session.status)

    async def _call(self, subject: str, call: Callable[[], dict[str, Any]],
                    cancelled: threading.Event | None = None) -> CallToolResult:
        """`call()` on the session; `subject` (the path, or the tool for calls without one) names
        what a host exception concerns."""
        try:
            result = await self.calls.call(call, cancelled)
        except Exception as exc:
            log.warning("%s", describe(exc, subject))
            log.debug("traceback", exc_info=exc)
            return tool_error(describe(exc, subject))
        if result.get("cancelled"):
            return tool_error("cancelled; every file is as it was")
        return CallToolResult(content=[TextContent(type="text", text=render(result))],
                              structured_content=result, is_error="error" in result)


def render(result: dict[str, Any]) -> str:
    """The short text beside the structured result, for clients that show only text: a refusal
    is its message; otherwise one `key: value` line per member, long texts (a diff) as they are."""
    if "error" in result:
        candidates = result.get("candidates")
        return result["error"] + (f"\ncandidates: {', '.join(candidates)}" if candidates else "")
    lines = []
    for key, value in result.items():
        if isinstance(value, str):
            lines.append(f"{key}:\n{value}" if "\n" in value else f"{key}: {value}")
        else:
            lines.append(f"{key}: {json.dumps(value, ensure_ascii=False)}")
    return "\n".join(lines)


def tool_error(text: str) -> CallToolResult:
    return CallToolResult(content=[TextContent(type="text", text=text)], is_error=True)


class EditorServer(MCPServer):
    async def call_tool(self, name: str, arguments: dict[str, Any], context: Any = None) -> Any:
        """Arguments that fail the schema are refused in one line per call, naming each field,
        instead of pydantic's multi-line report with its links."""
        try:
            return await super().call_tool(name, arguments, context)
        except ToolError as exc:
            if not isinstance(exc.__cause__, ValidationError):
                raise
            fields = "; ".join(f"{'.'.join(map(str, error['loc'])) or 'arguments'}: {error['msg']}"
                               for error in exc.__cause__.errors())
            raise ToolError(f"invalid arguments for {name}: {fields}") from exc.__cause__


def build_server(session: Session, calls: MainThreadCalls) -> MCPServer:
    server = EditorServer("editor", instructions=INSTRUCTIONS.format(root=session.root), log_level="WARNING")
    tools = Tools(session, calls)
    for name, annotations in Tools.ANNOTATIONS.items():
        server.add_tool(getattr(tools, name), name=name, annotations=annotations)
    return server


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="editor-mcp", description="Serve the editing session of one project to a coding agent "
        "over the Model Context Protocol (stdio). Exit status: 0 when the client closes the "
        "connection, 1 when the session cannot be opened (the root is not a directory, its store is "
        "unusable), 2 for a usage error.")
    parser.add_argument("--root", required=True, help="the project directory")
    parser.add_argument("--allow-hard-links", action="store_true",
                        help="edit files that have other hard links (their other names change too)")
    parser.add_argument("--debug", action="store_true", help="log tracebacks of host exceptions to stderr")
    return parser


def main(argv: list[str] | None = None) -> int:
    args = _parser().parse_args(argv)
    logging.basicConfig(stream=sys.stderr, level=logging.DEBUG if args.debug else logging.WARNING,
                        format="editor-mcp: %(message)s")
    try:
        session = Session.open(args.root, allow_hard_links=args.allow_hard_links)
    except Exception as exc:
        reason = str(exc) if isinstance(exc, SessionError) else describe(exc, args.root)
        print(f"editor-mcp: {reason}", file=sys.stderr)
        return 1
    calls = MainThreadCalls()
    protocol = threading.Thread(target=_serve, args=(build_server(session, calls), calls),
                                name="editor-mcp protocol", daemon=True)
    protocol.start()
    try:
        calls.serve_until_stopped()
    except KeyboardInterrupt:
        return 130
    finally:
        session.close()
    return 0


def _serve(server: MCPServer, calls: MainThreadCalls) -> None:
    try:
        server.run("stdio")
    except Exception as exc:
        log.error("%s", describe(exc, "protocol"))
    finally:
        calls.stop()


if __name__ == "__main__":
    sys.exit(main())
