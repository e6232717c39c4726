"""The command line: each call opens the session store, makes one tool call, and commits.

Exit status: 0 success, 1 refusal (or a session that cannot be used), 2 usage error, 3 a
problem reported (a syntax breakage in a receipt, findings from the check).
"""

from __future__ import annotations

import argparse
import json
import os
import sys
from typing import Any, Callable

import projstore

from .session import Session
from .store import DEFAULT_BUSY_TIMEOUT, SessionError, store_files

EPILOG = ("exit status: 0 success, 1 refusal or unusable session, 2 usage error, "
          "3 a problem reported (syntax breakage in a receipt, findings from the check)")


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="editor-session", epilog=EPILOG,
                                     description="Edit a project through the editor module, one tool call per run.")
    parser.add_argument("--root", required=True, help="the project directory")
    parser.add_argument("--json", action="store_true", help="print the full result as JSON")
    parser.add_argument("--allow-hard-links", action="store_true",
                        help="edit files that have other hard links (changes every copy)")
    parser.add_argument("--busy-timeout", type=float, default=DEFAULT_BUSY_TIMEOUT, metavar="SECONDS",
                        help="how long to wait for another call on the same project (default %(default)s)")
    parser.add_argument("--debug", action="store_true", help="show tracebacks of internal errors")
    tools = parser.add_subparsers(dest="tool", required=True)
    edit = tools.add_parser("edit", help="put a block into a file (content from --content or stdin)")
    edit.add_argument("path")
    edit.add_argument("--start", type=int)
    edit.add_argument("--end", type=int)
    edit.add_argument("--mode", default="replace")
    edit.add_argument("--anchor")
    edit.add_argument("--content")
    create = tools.add_parser("create", help="create a file (content from --content or stdin)")
    create.add_argument("path")
    create.add_argument("--content")
    tools.add_parser("delete", help="delete a file or directory (not undoable)").add_argument("path")
    tools.add_parser("rollback", help="undo the newest STEPS writes").add_argument("steps", type=int)
    tools.add_parser("check", help="compiler and pyflakes errors the session introduced")
    tools.add_parser("diff", help="unified diff of the session's changes")
    tools.add_parser("ledger", help="the ledger's steps")
    tools.add_parser("status", help="steps, touched files and anything recovered")
    tools.add_parser("reset", help="forget the session (files stay as they are)")
    return parser


def _call(session: Session, args: argparse.Namespace) -> dict:
    content: str = getattr(args, "content", None) or ""
    if getattr(args, "content", None) is None and args.tool in ("edit", "create"):
        content = sys.stdin.read()
    calls: dict[str, Callable[[], dict]] = {
        "edit": lambda: session.edit(args.path, args.start, args.end, content, args.mode, args.anchor),
        "create": lambda: session.create(args.path, content),
        "delete": lambda: session.delete(args.path),
        "rollback": lambda: session.rollback(args.steps),
        "check": session.check,
        "diff": session.diff,
        "ledger": session.ledger,
        "status": session.status,
        "reset": session.reset,
    }
    return calls[args.tool]()


def _reports_problem(result: dict) -> bool:
    syntax = result.get("syntax")
    return bool(result.get("findings")) or (isinstance(syntax, str) and syntax != "ok")


def _lines(tool: str, result: dict) -> list[str]:
    """The result as a person reads it."""
    if tool in ("edit", "create"):
        where = f" at line {result['at']}" if "at" in result else ""
        lines = [f"step {result['step']}: {tool} {result['file']}{where}"]
        lines += [f"  - {line}" for line in result.get("replaced", [])]
        lines.append(f"syntax: {result.get('syntax')}")
        for kind, items in (result.get("static_diff") or {}).items():
            lines += [f"{kind}: {item}" for item in items]
        return lines
    if tool == "rollback":
        return [f"restored {item}" for item in result["restored"]]
    if tool == "check":
        return result["findings"] or ["no errors introduced by this session"]
    if tool == "diff":
        return [result["diff"]] if result["diff"] else ["no changes"]
    if tool == "ledger":
        return [f"{step.get('n')}. {step.get('tool')} {step.get('file')}"
                + (f" at line {step['at']}" if "at" in step else "") + f": syntax {step.get('syntax')}"
                + ("  (rolled back)" if step.get("rolled_back") else "") for step in result["entries"]]
    if tool == "status":
        lines = [f"session of {result['root']}: {result['depth']} step(s) on the stack",
                 f"store: {result['store']}", f"ledger: {result['ledger']}"]
        lines += [f"{step['step']}. {step['tool']} {step['file']}" + ("  (rolled back)" if "rolled_back" in step else "")
                  for step in result["steps"]]
        lines += [f"touched: {', '.join(result['touched'])}"] if result["touched"] else []
        lines += [f"last recovery: {note}" for note in result["recovered"]]
        return lines
    return [f"session store removed: {result['reset']}"]


def _print(args: argparse.Namespace, result: dict) -> None:
    if args.json:
        print(json.dumps(result, ensure_ascii=False, indent=1))
        return
    for note in result.get("recovered", []) + result.get("notes", []):
        print(f"editor-session: {note}", file=sys.stderr)
    if "error" in result:
        print(f"editor-session: {result['error']}", file=sys.stderr)
        if "candidates" in result:
            print("candidates: " + ", ".join(result["candidates"]), file=sys.stderr)
        return
    for line in _lines(args.tool, result):
        print(line)
    for line in result.get("skipped", []):
        print(f"skipped: {line}", file=sys.stderr)


def main(argv: list[str] | None = None) -> int:
    args = _parser().parse_args(argv)
    result: dict[str, Any]
    try:
        session = Session.open(args.root, allow_hard_links=args.allow_hard_links, busy_timeout=args.busy_timeout)
        try:
            result = _call(session, args)
        finally:
            session.close()
    except SessionError as e:
        if args.tool != "reset":
            result = {"error": str(e)}
        else:  # a store that cannot be opened can still be forgotten
            result = {"reset": str(_remove_store(args.root))}
    except Exception as e:
        if args.debug:
            raise
        result = {"error": f"internal error: {type(e).__name__}: {' '.join(str(e).split())}"}
    _print(args, result)
    if "error" in result:
        return 1
    return 3 if _reports_problem(result) else 0


def _remove_store(root: str) -> str:
    state_dir = projstore.project_dir(os.path.abspath(root))
    for path in store_files(state_dir):
        path.unlink(missing_ok=True)
    return str(store_files(state_dir)[0])
