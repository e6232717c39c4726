"""A reference session layer: the road every edit takes through `editor`.

`Session(root)` holds exactly what lives across a model's tool calls: the snapshot stack, the
first-touch texts (`touched`), and the live index with its raw IR. Each write goes resolve ->
snapshot -> first-touch record -> operation -> re-index -> static diff -> ledger entry; a
refused operation takes its snapshot back, so snapshots and ledger entries stay one-to-one.
A reported syntax breakage is handed back to the caller, who decides whether to roll back.

Run as a command (`scripts/editor-session --root DIR TOOL ...`) to use the same tools on a
project of your own; between commands the session is kept in the project's state directory.
"""

import argparse
import json
import os
import sys

import editor
import projstore
import srcatlas

SESSION_FILE = "session.json"


class Session:
    def __init__(self, root, state=None):
        self.root = os.path.abspath(root)
        if state is None:
            self.snapshots, self.touched = [], {}
            self.raw = srcatlas.build(self.root)
        else:
            self.snapshots, self.touched, self.raw = state["snapshots"], state["touched"], state["raw"]
        self.index = srcatlas.enrich(self.raw)

    # --- the tools a model calls --------------------------------------------------------

    def edit(self, path, start_line=None, end_line=None, content="", mode="replace", anchor=None):
        """Puts one block into an existing file, by lines or by anchor."""
        def operation(target):
            return editor.apply_block(self.root, target, start_line, end_line, content, mode, anchor)
        return self._write("edit", path, operation, mode=mode, anchor=anchor)

    def create(self, path, content):
        """Creates a new file (and its parent directories)."""
        return self._write("create", path, lambda target: editor.create_file(self.root, target, content))

    def delete(self, path):
        """Deletes a file or directory. Not undoable, so it takes no snapshot and no ledger step."""
        target = editor.resolve_target(self.root, path, self.known_paths())
        if isinstance(target, dict):
            return target
        first_touch = _read_text(target) if os.path.isfile(target) else None
        result = editor.delete_file(self.root, target)
        if "error" not in result:
            if first_touch is not None:
                self.touched.setdefault(target, first_touch)
            self._reindex(target)
        return result

    def rollback(self, steps):
        """Undoes the newest `steps` writes and installs the index as it was before them."""
        result = editor.rollback_steps(self.snapshots, steps)
        if "error" in result:
            return result
        self.raw = result["raw"]
        # A deletion is never undone: drop what it removed from the restored index too.
        for rel in [rel for rel in self.raw["files"] if not os.path.isfile(os.path.join(self.root, rel))]:
            self.raw = srcatlas.update(self.raw, self.root, os.path.join(self.root, rel))
        self.index = srcatlas.enrich(self.raw)
        editor.ledger_mark_rolled_back(self.root, steps)
        return {"restored": result["restored"]}

    def commit_check(self):
        """Edit-introduced compiler and pyflakes errors over every file this session touched."""
        return editor.commit_time_check(self.touched)

    def diff(self):
        """One unified diff of everything this session changed."""
        return editor.session_diff(self.touched)

    def ledger(self):
        return editor.ledger_load(self.root)

    def ledger_path(self):
        return str(projstore.project_dir(self.root) / editor.LEDGER_NAME)

    def known_paths(self):
        return list(self.raw["files"])

    # --- the road of one write ---------------------------------------------------------

    def _write(self, tool, path, operation, **details):
        target = editor.resolve_target(self.root, path, self.known_paths())
        if isinstance(target, dict):
            return target
        snapshot = editor.take_snapshot(self.raw, target)
        self.snapshots.append(snapshot)
        first_touch = target not in self.touched
        if first_touch:
            self.touched[target] = snapshot["text_before"]
        receipt = operation(target)
        if "error" in receipt:
            self.snapshots.pop()
            if first_touch:
                del self.touched[target]
            return receipt
        changes = self._reindex(target)
        entry = {"tool": tool, "file": os.path.relpath(target, self.root),
                 **{k: v for k, v in details.items() if v is not None},
                 **{k: receipt[k] for k in ("at", "replaced") if k in receipt},
                 "syntax": receipt.get("syntax"), "static_diff": changes}
        step = editor.ledger_append(self.root, entry)
        return {**receipt, "static_diff": changes, "step": step}

    def _reindex(self, abs_path):
        before = self.index
        self.raw = srcatlas.update(self.raw, self.root, abs_path)
        self.index = srcatlas.enrich(self.raw)
        return editor.static_diff(before, self.index)

    # --- persistence for the command line ----------------------------------------------

    def state(self):
        return {"snapshots": self.snapshots, "touched": self.touched, "raw": self.raw}


def _read_text(path):
    with open(path, encoding="utf-8", errors="replace") as handle:
        return handle.read()


def _parser():
    parser = argparse.ArgumentParser(prog="editor-session", description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", required=True, help="the project directory")
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
    tools.add_parser("delete", help="delete a file or directory").add_argument("path")
    tools.add_parser("rollback", help="undo the newest STEPS writes").add_argument("steps", type=int)
    tools.add_parser("check", help="compiler and pyflakes errors the session introduced")
    tools.add_parser("diff", help="unified diff of the session's changes")
    tools.add_parser("ledger", help="the ledger's steps")
    tools.add_parser("reset", help="forget the session (files stay as they are)")
    return parser


def main(argv=None):
    args = _parser().parse_args(argv)
    state_file = projstore.ensure_orvel_dir(os.path.abspath(args.root)) / SESSION_FILE
    if args.tool == "reset":
        state_file.unlink(missing_ok=True)
        return 0
    state = json.loads(state_file.read_text(encoding="utf-8")) if state_file.exists() else None
    session = Session(args.root, state)
    content = args.content if getattr(args, "content", None) is not None else None
    if content is None and args.tool in ("edit", "create"):
        content = sys.stdin.read()
    result = {
        "edit": lambda: session.edit(args.path, args.start, args.end, content, args.mode, args.anchor),
        "create": lambda: session.create(args.path, content),
        "delete": lambda: session.delete(args.path),
        "rollback": lambda: session.rollback(args.steps),
        "check": session.commit_check,
        "diff": session.diff,
        "ledger": session.ledger,
    }[args.tool]()
    state_file.write_text(json.dumps(session.state()), encoding="utf-8")
    if isinstance(result, dict) and "error" in result:
        print(f"editor-session: {result['error']}", file=sys.stderr)
        if "candidates" in result:
            print("candidates: " + ", ".join(result["candidates"]), file=sys.stderr)
        return 1
    print(result if isinstance(result, str) else json.dumps(result, indent=1))
    return 0


if __name__ == "__main__":
    sys.exit(main())
