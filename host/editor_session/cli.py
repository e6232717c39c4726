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
from .store import DEFAULT_BUSY_TIMEOUT, SessionError, remove_store

EPILOG = ("exit status: 0 success, 1 refusal or unusable session, 2 usage error, "
          "3 a problem reported (syntax breakage in a receipt, findings from the check)")


class _Uncoloured(argparse.HelpFormatter):
    def _set_color(self, color: bool) -> None:
        pass


class _Parser(argparse.ArgumentParser):
    def _get_validation_formatter(self) -> argparse.HelpFormatter:
        # Checking arguments as they are added needs no colours: their module costs ~8 ms at
        # every start, and is now loaded only to print help or a usage error.
        return _Uncoloured(prog=self.prog)


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="editor-session", epilog=EPILOG,
                     description="Edit a project through the editor module, one tool call per run.")
    parser.add_argument("--root", required=True, help="the project directory")
    parser.add_argument("--json", action="store_true", help="print the full result as JSON")
    parser.add_argument("--allow-hard-links", action="store_true",
                        help="edit files that have other hard links (changes every copy)")
    parser.add_argument("--busy-timeout", type=float, default=DEFAULT_BUSY_TIMEOUT, metavar="SECONDS",
                        help="how long to wait for another call on the same project (default %(default)s)")
    parser.add_argument("--debug", action="store_true", help="show tracebacks of internal errors")
    parser.add_argument("--keep-line-ends", choices=("yes", "no"), default="yes",
                        help="keep each file's CRLF/CR line ends and BOM across writes (default yes)")
    # Given its prog, the tool's parser is made without formatting a usage line (colours again).
    tools = parser.add_subparsers(dest="tool", required=True, prog=parser.prog)
    read = tools.add_parser("read", help="numbered lines of a file, its line count and its tag")
    read.add_argument("path")
    read.add_argument("--start", type=int, default=1)
    read.add_argument("--end", type=int)
    edit = tools.add_parser("edit", help="put a block into a file (content from --content or stdin)")
    edit.add_argument("path")
    edit.add_argument("--start", type=int)
    edit.add_argument("--end", type=int)
    edit.add_argument("--mode", default="replace")
    edit.add_argument("--anchor")
    edit.add_argument("--content")
    edit.add_argument("--tag", help="the tag from read: refuse the edit if the file changed since")
    edit.add_argument("--blocks", metavar="FILE",
                      help="a JSON list of blocks ({start_line, end_line | anchor, mode, content}); - for stdin")
    edit.add_argument("--dry-run", action="store_true", help="show the diff and syntax verdict, write nothing")
    create = tools.add_parser("create", help="create a file (content from --content or stdin)")
    create.add_argument("path")
    create.add_argument("--content")
    tools.add_parser("delete", help="delete a file or directory (one step: rollback puts it back)").add_argument("path")
    tools.add_parser("rollback", help="undo the newest STEPS writes").add_argument("steps", type=int)
    tools.add_parser("redo", help="re-apply the STEPS steps the last rollbacks undid").add_argument("steps", type=int)
    tools.add_parser("check", help="compiler and pyflakes errors the session introduced")
    tools.add_parser("diff", help="unified diff of the session's changes").add_argument(
        "--patch", action="store_true", help="a patch git apply accepts (a/REL, b/REL, /dev/null)")
    tools.add_parser("ledger", help="the ledger's steps")
    tools.add_parser("status", help="steps, touched files and anything recovered")
    tools.add_parser("reset", help="forget the session (files stay as they are)")
    return parser


def _blocks(args: argparse.Namespace) -> list | None:
    if getattr(args, "blocks", None) is None:
        return None
    text = sys.stdin.read() if args.blocks == "-" else open(args.blocks, encoding="utf-8").read()
    return json.loads(text)


def _call(session: Session, args: argparse.Namespace) -> dict:
    content = getattr(args, "content", None)
    blocks = _blocks(args)
    if content is None and (args.tool == "create" or args.tool == "edit" and blocks is None):
        content = sys.stdin.read()
    calls: dict[str, Callable[[], dict]] = {
        "read": lambda: session.read(args.path, args.start, args.end),
        "edit": lambda: session.edit(args.path, args.start, args.end, content or "", args.mode, args.anchor,
                                     args.tag, blocks, args.dry_run),
        "create": lambda: session.create(args.path, content or ""),
        "delete": lambda: session.delete(args.path),
        "rollback": lambda: session.rollback(args.steps),
        "redo": lambda: session.redo(args.steps),
        "check": session.check,
        "diff": lambda: session.diff("patch" if args.patch else "unified"),
        "ledger": session.ledger,
        "status": session.status,
        "reset": session.reset,
    }
    return calls[args.tool]()


def _reports_problem(result: dict) -> bool:
    syntax = result.get("syntax")
    return bool(result.get("findings")) or (isinstance(syntax, str) and syntax != "ok")


def _structure(result: dict) -> list[str]:
    """A write's static diff (a list per kind, or one note) and what it left dangling."""
    lines = []
    for kind, items in (result.get("static_diff") or {}).items():
        lines += [f"{kind}: {items}"] if isinstance(items, str) else [f"{kind}: {item}" for item in items]
    for loose in result.get("dangling", []):
        more = loose["caller_count"] - len(loose["callers"])
        lines.append(f"dangling: {loose['symbol']} is still called by {', '.join(loose['callers'])}"
                     + (f" and {more} more" if more else ""))
    return lines


def _lines(tool: str, result: dict) -> list[str]:
    """The result as a person reads it."""
    if tool == "read":
        return [result["text"]] + [f"({result['line_count']} lines, tag {result['tag']})"] + (
            [result["note"]] if "note" in result else [])
    if tool == "edit" and result.get("dry_run"):
        return [result["diff"] or "no change", f"syntax: {result.get('syntax')}"]
    if tool == "edit" and "blocks" in result:
        lines = [f"step {result['step']}: edit {result['file']}, {len(result['blocks'])} block(s)"]
        for block in result["blocks"]:
            lines.append(f" block {block['block']} at line {block['at']}")
            lines += [f"  - {line}" for line in block["replaced"]]
        return lines + [f"syntax: {result.get('syntax')}", f"tag: {result.get('tag')}"] + _structure(result)
    if tool in ("edit", "create"):
        where = f" at line {result['at']}" if "at" in result else ""
        lines = [f"step {result['step']}: {tool} {result['file']}{where}"]
        lines += [f"  - {line}" for line in result.get("replaced", [])]
        lines.append(f"syntax: {result.get('syntax')}")
        lines += [f"already broken before this edit: {result['syntax_before']}"] if "syntax_before" in result else []
        lines += [f"tag: {result['tag']}"] if "tag" in result else []
        return lines + _structure(result)
    if tool == "redo":
        return [f"step {step['step']}: {step['tool']} {step['file']} again" for step in result["redone"]]
    if tool == "delete":
        return [f"step {result['step']}: deleted {result['deleted']} ({result['was']})"] + _structure(result)
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
        for key in ("lines", "tag"):
            if key in result:
                print(f"{key}: {result[key]}" if key == "tag" else result[key], file=sys.stderr)
        return
    for line in _lines(args.tool, result):
        print(line)
    for line in result.get("skipped", []):
        print(f"skipped: {line}", file=sys.stderr)


def main(argv: list[str] | None = None) -> int:
    args = _parser().parse_args(argv)
    result: dict[str, Any]
    try:
        session = Session.open(args.root, allow_hard_links=args.allow_hard_links, busy_timeout=args.busy_timeout,
                               keep_line_ends=args.keep_line_ends == "yes")
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
    return str(remove_store(projstore.project_dir(os.path.abspath(root))))
