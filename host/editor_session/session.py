"""The session's tool calls: the road every edit takes through `editor`, on the durable store.

Each call holds the session lock from start to end, picks up what another process changed,
recovers a call that a killed process left half done, and ends in one transaction that records
its outcome. A write goes resolve -> guards -> snapshot and write-ahead mark -> module call ->
re-index -> static diff -> ledger entry -> step recorded and mark cleared; a refused call leaves
no step, and snapshot records and ledger entries stay one-to-one.
"""

from __future__ import annotations

import json
import os
import sqlite3
import time
from typing import Any, Callable

import editor
import projstore

from . import blocks as block_edits
from . import dangling, gate, guards, images, journal, ledger, lineends, patch, reading
from .live_index import LiveIndex
from .store import DEFAULT_BUSY_TIMEOUT, SessionError, Store, digest, remove_store

LIVE_RAW, GENERATION, LAST_RECOVERY = "live_raw", "generation", "last_recovery"
LINE_ENDS = "line_ends"
IMAGE = "image"
REDO = "redo"


def describe(exc: BaseException, rel: str) -> str:
    """One line naming the file and the reason, for a host exception."""
    if isinstance(exc, UnicodeDecodeError):
        return f"{rel} is not UTF-8 text ({exc.reason} at byte {exc.start})"
    if isinstance(exc, IsADirectoryError):
        return f"{rel} is a directory, not a file"
    if isinstance(exc, OSError) and exc.strerror:
        return f"{rel}: {exc.strerror}"
    text = " ".join(str(exc).split()) or type(exc).__name__
    return f"{rel}: {type(exc).__name__}: {text}"


def _as_text(data: bytes | None) -> str | None:
    """A file's first-touch text, line ends made "\\n"; None when it is not UTF-8 text."""
    try:
        return (data or b"").decode("utf-8").replace("\r\n", "\n").replace("\r", "\n")
    except UnicodeDecodeError:
        return None


def _dangling(before: dict, after: dict) -> dict:
    found = dangling.dangling(before, after)
    return {"dangling": found} if found else {}


class Session:
    def __init__(self, root: str, state_dir: Any, allow_hard_links: bool, busy_timeout: float,
                 keep_line_ends: bool = True):
        self.root = root
        self.keep_line_ends = keep_line_ends
        self.state_dir = state_dir
        self.allow_hard_links = allow_hard_links
        self.busy_timeout = busy_timeout
        self.store = Store.open(root, state_dir, busy_timeout)
        self._store_id = self._store_identity()
        self._live: LiveIndex | None = None
        self._generation = -1
        self._recovered: list[str] = []
        self._notes: list[str] = []

    @classmethod
    def open(cls, root: str, *, allow_hard_links: bool = False,
             busy_timeout: float = DEFAULT_BUSY_TIMEOUT, keep_line_ends: bool = True) -> "Session":
        """Opens (or starts) the session of the project at `root`; raises SessionError with a
        one-line message when its store cannot be used."""
        root = os.path.abspath(root)
        if not os.path.isdir(root):
            raise SessionError(f"{root} is not a directory")
        try:
            state_dir = projstore.ensure_orvel_dir(root)
        except OSError as e:
            raise SessionError(f"the state directory of {root} cannot be created: {e}")
        session = cls(root, state_dir, allow_hard_links, busy_timeout, keep_line_ends)
        try:
            with session.store.locked():
                session._sync()
        except BaseException:
            session.close()
            raise
        return session

    def close(self) -> None:
        self.store.close()

    # --- the tools a model calls --------------------------------------------------------

    def read(self, path: str, start: int = 1, end: int | None = None) -> dict:
        """Lines `start`..`end` of a file with their numbers, its line count and its tag."""
        return self._call(lambda: self._read(path, start, end))

    def edit(self, path: str, start_line: int | None = None, end_line: int | None = None, content: str = "",
             mode: str = "replace", anchor: str | None = None, tag: str | None = None,
             blocks: list | None = None, dry_run: bool = False) -> dict:
        """Puts one block (or every block of `blocks`, all or none) into an existing file, by
        lines or by anchor; refused when `tag` is not the file's current tag. `dry_run` shows
        the diff and the syntax verdict and writes nothing."""
        one = {"start_line": start_line, "end_line": end_line, "content": content, "mode": mode, "anchor": anchor}
        return self._call(lambda: self._edit(path, one, tag, blocks, dry_run))
    def create(self, path: str, content: str) -> dict:
        """Creates a new file (and its parent directories)."""
        return self._call(lambda: self._write("create", path, lambda target: editor.create_file(
            self.root, target, content), {}, post=content))

    def delete(self, path: str) -> dict:
        """Deletes a file or directory as one step: rollback puts back every byte of it."""
        return self._call(lambda: self._delete(path))

    def rollback(self, steps: int) -> dict:
        """Undoes the newest `steps` writes and installs the index as it was before them."""
        return self._call(lambda: self._rollback(steps))

    def redo(self, steps: int) -> dict:
        """Re-applies the newest `steps` undone steps while their files are as the rollback left
        them; each comes back as a new step."""
        return self._call(lambda: self._redo(steps))

    def check(self, progress: gate.Progress | None = None, cancel: gate.Cancel = None) -> dict:
        """Compiler and pyflakes errors over every file this session touched: those its edits
        introduced, and every error of a file it created. `cancel` (an Event or a callable) stops
        the check between files ("cancelled" in the result); every file is left as it was."""
        return self._call(lambda: self._check(progress, cancel))

    def diff(self, form: str = "unified") -> dict:
        """One diff of everything this session changed: "unified", or "patch" for `git apply`."""
        return self._call(lambda: self._diff(form))

    def ledger(self) -> dict:
        return self._call(lambda: {"entries": editor.ledger_load(self.root)})

    def status(self) -> dict:
        return self._call(self._status)

    def reset(self) -> dict:
        """Forgets the session (files stay as they are); the next call starts a new one."""
        return self._call(self._reset)

    # --- one call ----------------------------------------------------------------------

    def _call(self, body: Callable[[], dict]) -> dict:
        try:
            with self.store.locked():
                self._sync()
                result = body()
        except SessionError as e:
            return {"error": str(e)}
        except sqlite3.Error as e:
            self._live = None
            return {"error": f"session store {self.store.path}: {e}"}
        except BaseException:
            self._live = None  # unsaved index changes: reload from the store next time
            raise
        for key, notes in (("recovered", self._recovered), ("notes", self._notes)):
            if notes:
                result = {**result, key: list(notes)}
                notes.clear()
        return result

    def _reset(self) -> dict:
        # Under the lock, after a call cut short was settled: its journal may go now.
        if self._live is not None:
            self._live.materialise()  # the new index reuses its records
        self.store.checkpoint()
        self.store.close()
        remove_store(self.state_dir)
        self.store = Store.open(self.root, self.state_dir, self.busy_timeout, lock_held=True)
        self._store_id, self._generation = self._store_identity(), -1
        self._build_index(generation=0)  # unchanged files keep their records: nothing re-parsed
        return {"reset": str(self.store.path)}

    def _store_identity(self) -> tuple[int, int]:
        info = os.stat(self.store.path)
        return info.st_dev, info.st_ino

    def _sync(self) -> None:
        """Under the lock: start the session, follow other processes, recover a killed call."""
        if self._store_identity() != self._store_id:  # another process reset the session
            self.store.close()
            self.store = Store.open(self.root, self.state_dir, self.busy_timeout)
            self._store_id, self._live, self._generation = self._store_identity(), None, -1
        store = self.store
        if store.get_meta(LIVE_RAW) is None:
            self._build_index(generation=0)
        generation = store.get_meta(GENERATION)
        if self._live is None or generation != self._generation:
            self._live = LiveIndex.load(store, self.root, store.get_meta(LIVE_RAW), like=self._live)
            self._generation = generation
        if not self._live.current:  # made by an older indexer
            self._build_index(generation + 1)
        intent = store.get_meta(journal.PENDING)
        if intent is not None:
            self._recover(intent)

    def _build_index(self, generation: int) -> None:
        with self.store.conn:
            live = LiveIndex.build(self.store, self.root, like=self._live)
            self.store.set_meta(LIVE_RAW, live.raw_id)
            self.store.set_meta(GENERATION, generation)
        self._live, self._generation = live, generation

    def _commit(self) -> None:
        """Ends a call's transaction: the live raw saved, the mark cleared, other processes told."""
        store = self.store
        assert self._live is not None
        store.set_meta(LIVE_RAW, self._live.save(store))
        store.set_meta(journal.PENDING, None)
        self._generation = store.get_meta(GENERATION, 0) + 1
        store.set_meta(GENERATION, self._generation)

    def _drop_journal(self, intent: dict) -> None:
        self.store.drop_unreferenced_blobs([key for entry in intent["files"] for key in journal.journal_blobs(entry)])

    def _rel(self, abs_path: str) -> str:
        return guards.rel_of(self.root, abs_path)

    # --- recovery ----------------------------------------------------------------------

    def _recover(self, intent: dict) -> None:
        kind = intent["kind"]
        # A redo's steps and redo stack are one store transaction that the kill undid: its ledger
        # entries go with them.
        ledger_note = (ledger.put_back(self.root) if kind == "redo"
                       else ledger.restore_cut(self.root) if kind != "check" else None)
        outcome = journal.settle(self.store, self.root, intent, ledger.unflagged(editor.ledger_load(self.root)))
        if ledger_note is not None:
            outcome.notes.append(ledger_note)
        live, store = self._live, self.store
        assert live is not None
        with store.conn:
            if kind in ("edit", "create", "delete"):
                appended = len(editor.ledger_load(self.root)) > intent["ledger_len"]
                if outcome.finished:
                    step = intent["step"]
                    receipt = {"recovered": outcome.notes[0]} if kind == "delete" else {
                        "syntax": None, "recovered": outcome.notes[0]}
                    n = intent["ledger_len"] + 1 if appended else editor.ledger_append(
                        self.root, {"tool": kind, "file": step["rel"], **receipt})
                    if kind == "delete":
                        self._record_deletion(step, {"deleted": step["rel"], **receipt}, n)
                    else:
                        self._record_step(step, receipt, n)
                    store.set_meta(REDO, None)
                elif appended:  # the entry of a write that was undone
                    editor.ledger_mark_rolled_back(self.root, 1)
            elif kind == "rollback" and outcome.finished:
                if ledger.unflagged(editor.ledger_load(self.root)) == intent["unflagged"]:
                    editor.ledger_mark_rolled_back(self.root, outcome.consumed)
                store.mark_rolled_back(intent["steps"][:outcome.consumed])
            elif kind == "rollback":  # undone: its steps were never undone, so nothing of it can be redone
                store.set_meta(REDO, intent.get("redo"))
            if kind != "check":
                live.reindex(outcome.paths)
            self._commit()
            self._drop_journal(intent)
            store.set_meta(LAST_RECOVERY, outcome.notes)
        self._recovered += outcome.notes

    def _record_step(self, step: dict, receipt: dict, ledger_n: int | None) -> None:
        text_hash = None if step["text_hash"] is None else bytes.fromhex(step["text_hash"])
        self.store.add_step(step["tool"], step["rel"], step["ts"], text_hash, step["raw_id"], ledger_n, receipt)
        if step["first"]:
            self.store.add_touched(step["rel"], text_hash)

    def _record_deletion(self, step: dict, receipt: dict, ledger_n: int) -> None:
        store, image = self.store, step["image"]
        if step["text_hash"] is not None:
            store.add_touched(step["rel"], bytes.fromhex(step["text_hash"]))
        elif image is not None and image["kind"] == "directory":
            # Each text file of a deleted tree counts as touched, so diff, patch and status show it gone.
            for sub, blob in image["files"].items():
                text = _as_text(store.get_blob(bytes.fromhex(blob)))
                if text is not None:
                    store.add_touched(os.path.join(step["rel"], sub), store.put_blob(text.encode("utf-8")))
        store.add_step("delete", step["rel"], step["ts"], None, step["raw_id"], ledger_n, {**receipt, IMAGE: image})

    # --- writes ------------------------------------------------------------------------

    def _prepare_ledger(self) -> list:
        """Before a call that will make the module rewrite the ledger: its steps now."""
        steps, note = ledger.prepare(self.root)
        if note is not None:
            self._notes.append(note)
        return steps

    def _text_file(self, path: str) -> tuple[str, str, bytes] | dict:
        """(absolute path, relative path, bytes) of an existing text file, or a refusal."""
        assert self._live is not None
        target = editor.resolve_target(self.root, path, self._live.known_paths())
        if isinstance(target, dict):
            return patch.relative(target, self.root)
        rel = self._rel(target)
        problem = guards.file_problem(self.root, target, self.allow_hard_links)
        if problem is not None:
            return {"error": problem}
        data = reading.load(target, rel)
        return data if isinstance(data, dict) else (target, rel, data)

    def _read(self, path: str, start: int, end: int | None) -> dict:
        found = self._text_file(path)
        if isinstance(found, dict):
            return found
        _, rel, data = found
        return {"file": rel, **reading.read(data, start, end)}

    def _edit(self, path: str, one: dict, tag: str | None, blocks: list | None, dry_run: bool) -> dict:
        if tag is not None and (problem := reading.tag_form_error(tag)) is not None:
            return problem
        found = self._text_file(path)
        if isinstance(found, dict):
            return found
        target, rel, data = found
        specs = [one] if blocks is None else blocks
        if tag is not None and tag != reading.tag_of(data):
            addressed = block_edits.addressed(data, specs if isinstance(specs, list) else [])
            return reading.stale_refusal(rel, data, tag, addressed)
        if dry_run:
            return {"file": rel, **block_edits.edit_blocks(self.root, target, rel, data, specs, dry_run=True)}

        ends = lineends.profile(data) if self.keep_line_ends else False

        def operation(abs_path: str) -> dict:
            if blocks is None:
                receipt = block_edits.edit_one(self.root, abs_path, data, one, ends=ends)
            else:
                receipt = block_edits.edit_blocks(self.root, abs_path, rel, data, blocks, ends=ends)
            if ends and "error" not in receipt:
                receipt[LINE_ENDS] = ends  # for the step, not for the model: _write takes it out
            return patch.relative(receipt, self.root)
        details = {"mode": one["mode"], "anchor": one["anchor"]} if blocks is None else {}
        return self._write("edit", path, operation, details)

    def _guarded_target(self, path: str, allow_hard_links: bool) -> str | dict:
        """The resolved absolute path, or the refusal of resolution or of the guards."""
        assert self._live is not None
        target = editor.resolve_target(self.root, path, self._live.known_paths())
        if isinstance(target, dict):
            return target
        problem = guards.file_problem(self.root, target, allow_hard_links)
        return target if problem is None else {"error": problem}

    def _write(self, tool: str, path: str, operation: Callable[[str], dict], details: dict,
               post: str | None = None) -> dict:
        live, store = self._live, self.store
        assert live is not None
        target = self._guarded_target(path, self.allow_hard_links)
        if isinstance(target, dict):
            return target
        rel = self._rel(target)
        ledger_steps = self._prepare_ledger()
        try:
            pre = journal.read_bytes(target)
            snapshot = editor.take_snapshot(live.raw, target)
        except (OSError, ValueError) as e:
            return {"error": describe(e, rel)}
        text_before = snapshot["text_before"]
        with store.conn:
            text_hash = None if text_before is None else store.put_blob(text_before.encode("utf-8"))
            expected = journal.UNKNOWN if post is None else digest(post.encode("utf-8", "surrogatepass")).hex()
            intent: dict[str, Any] = {"kind": tool, "files": [journal.file_entry(store, rel, pre, expected)],
                      "ledger_len": len(ledger_steps),
                      "step": {"tool": tool, "rel": rel, "ts": snapshot["ts"],
                               "text_hash": None if text_hash is None else text_hash.hex(),
                               "raw_id": live.raw_id, "first": not store.is_touched(rel)}}
            store.set_meta(journal.PENDING, intent)
        try:
            receipt = operation(target)
        except Exception as e:
            if journal.read_bytes(target) == pre:
                return self._abandon(intent, {"error": describe(e, rel)})
            # The module wrote, then raised (the compiler's own limits): the step stands, with
            # the exception in place of the syntax result, so that it can be rolled back.
            receipt = {"syntax": describe(e, rel)}
        if "error" in receipt:
            return self._abandon(intent, receipt)
        ends = receipt.pop(LINE_ENDS, None)
        changes, loose = self._reindex(target, rel)
        entry = {"tool": tool, "file": rel, **{k: v for k, v in details.items() if v is not None},
                 **{k: receipt[k] for k in ("at", "replaced", "blocks") if k in receipt},
                 "syntax": receipt.get("syntax"), "static_diff": changes}
        n = editor.ledger_append(self.root, entry)
        with store.conn:
            self._record_step(intent["step"], {**receipt, **({LINE_ENDS: ends} if ends else {})}, n)
            store.set_meta(REDO, None)
            self._commit()
            self._drop_journal(intent)
        if "created" in receipt:
            receipt = {**receipt, "created": rel}
        return {"file": rel, **receipt, "static_diff": changes, **loose, "step": n}

    def _reindex(self, target: str, rel: str) -> tuple[dict, dict]:
        """The static diff of a write and, under "dangling", what it removed that other files
        still call; an indexer that fails on the new text keeps the file's old record and says
        why instead."""
        assert self._live is not None
        try:
            before, after = self._live.reindex([target])
        except Exception as e:
            return {"error": f"not re-indexed: {describe(e, rel)}"}, {}
        return editor.static_diff(before, after), _dangling(before, after)

    def _abandon(self, intent: dict, result: dict) -> dict:
        """Clears the mark of a call that wrote nothing."""
        with self.store.conn:
            self.store.set_meta(journal.PENDING, None)
            self._drop_journal(intent)
        return result

    def _delete(self, path: str) -> dict:
        live, store = self._live, self.store
        assert live is not None
        # Deleting one name of a hard-linked file leaves the other copies as they are.
        target = self._guarded_target(path, allow_hard_links=True)
        if isinstance(target, dict):
            return target
        rel = self._rel(target)
        is_file = os.path.isfile(target) and not os.path.islink(target)
        pre = journal.read_bytes(target) if is_file else None
        first_touch = _as_text(pre) if is_file else None
        ledger_steps = self._prepare_ledger()
        with store.conn:
            text_hash = None if first_touch is None else store.put_blob(first_touch.encode("utf-8"))
            image = images.capture(target, store.put_blob)  # what undoing the deletion puts back
            raw_before = live.raw_id
            assert raw_before is not None  # every call ends by saving the live raw
            entry = (journal.file_entry(store, rel, pre, None) if is_file
                     else journal.tree_entry(rel, image, None))
            step = {"rel": rel, "text_hash": None if text_hash is None else text_hash.hex(), "ts": time.time(),
                    "raw_id": raw_before, "image": image}
            intent = {"kind": "delete", "files": [entry], "ledger_len": len(ledger_steps), "step": step}
            store.set_meta(journal.PENDING, intent)
        try:
            result = editor.delete_file(self.root, target)
        except Exception as e:
            result = {"error": describe(e, rel)}
        deleted = "error" not in result
        with store.conn:
            before, after = live.reindex([target])
            if deleted:
                result = {"deleted": rel, "was": result["was"]}
                changes = editor.static_diff(before, after)
                n = editor.ledger_append(self.root, {"tool": "delete", "file": rel, "was": result["was"],
                                                     "static_diff": changes})
                self._record_deletion(step, result, n)
                store.set_meta(REDO, None)
                result = {**result, "static_diff": changes, **_dangling(before, after), "step": n}
            self._commit()
            self._drop_journal(intent)
        return patch.relative(result, self.root)

    # --- rollback ----------------------------------------------------------------------

    def _rollback(self, steps: int) -> dict:
        live, store = self._live, self.store
        assert live is not None
        if isinstance(steps, bool) or not isinstance(steps, int):
            return {"error": "steps must be a whole number >= 1"}
        depth = store.depth()
        if not 1 <= steps <= depth:
            return editor.rollback_steps([{}] * depth, steps)  # the module's refusal; it pops nothing
        rows = store.live_steps(steps)  # newest first
        paths = list(dict.fromkeys(os.path.join(self.root, row["rel"]) for row in rows))
        problem = guards.rollback_problem(self.root, paths, self.allow_hard_links)
        if problem is not None:
            return {"error": problem}
        ledger_steps = self._prepare_ledger()
        records = [{"ts": row["ts"], "path": None if row["tool"] == "delete" else os.path.join(self.root, row["rel"]),
                    "text_before": None if row["text_hash"] is None else store.get_blob(row["text_hash"]).decode(),
                    "raw": row["raw_id"]} for row in reversed(rows)]
        final: dict[str, str | None] = {}
        trees: dict[str, images.Image] = {}  # a tree the rollback puts back, as it will end
        exact: dict[str, bytes] = {}  # the bytes a restored file ends as, line ends included
        for record, row in zip(records, reversed(rows)):  # oldest first: a path ends as its first record
            text, path = record["text_before"], os.path.join(self.root, row["rel"])
            if path in final:
                continue
            if row["tool"] == "delete":
                image = json.loads(row["receipt"])[IMAGE]
                final[path] = image["blob"] if image and image["kind"] == "file" else journal.DIRECTORY
                trees[path] = image
                continue
            if text is not None:
                exact[path] = lineends.encoded(text, json.loads(row["receipt"]).get(LINE_ENDS))
            final[path] = None if text is None else digest(exact[path]).hex()
        with store.conn:
            intent = {"kind": "rollback", "steps": [row["id"] for row in rows],
                      "unflagged": ledger.unflagged(ledger_steps), "redo": store.get_meta(REDO),
                      "files": [self._mark_entry(p, final, trees.get(p)) for p in paths]}
            store.set_meta(journal.PENDING, intent)
        try:
            result = self._undo(rows, records)
            if "error" not in result:
                journal.restore_exact(exact)
        except Exception as e:
            failing = records[-1]["path"] if records else rows[-1]["rel"]
            result = {"error": describe(e, self._rel(failing))}
        popped = rows[:steps - len(records)]
        if popped:
            editor.ledger_mark_rolled_back(self.root, len(popped))
        target = None if "error" in result else LiveIndex.load(store, self.root, rows[-1]["raw_id"], like=live)
        if target is None or not target.current:
            live.reindex([os.path.join(self.root, row["rel"]) for row in popped])
        else:
            before_files = live.raw["files"]
            live.adopt(target.raw, rows[-1]["raw_id"], target.manifest)
            live.drop_missing([rel for rel in target.raw["files"] if rel not in before_files])
        with store.conn:
            store.mark_rolled_back([row["id"] for row in popped])
            self._commit()
            self._drop_journal(intent)
        if "error" not in result:
            return {"restored": [self._restored_name(item) for item in result["restored"]]}
        undone = [row["ledger_n"] for row in popped if row["ledger_n"] is not None]
        return {"error": f"rollback of {steps} step(s) stopped: {result['error']}; {len(popped)} step(s) were "
                         f"consumed and marked rolled back in the ledger ({', '.join(map(str, undone)) or 'none'})",
                "consumed": len(popped),
                "restored": [row["rel"] for row in popped[:-1]]}

    def _mark_entry(self, path: str, final: dict[str, str | None], tree: images.Image) -> dict:
        """A path's entry in a rollback's mark; a tree put back is marked by its images, with the
        files that older steps inside it end as."""
        if final[path] != journal.DIRECTORY:
            return journal.file_entry(self.store, self._rel(path), journal.read_bytes(path), final[path])
        if tree is not None and tree["kind"] == "directory":
            files = dict(tree["files"])
            for inner, state in final.items():
                if inner.startswith(path + os.sep) and state != journal.DIRECTORY:
                    files.pop(os.path.relpath(inner, path), None)
                    if state is not None:
                        files[os.path.relpath(inner, path)] = state
            tree = {**tree, "files": files}
        return journal.tree_entry(self._rel(path), images.capture(path, self.store.put_blob), tree)

    def _undo(self, rows: list, records: list[dict]) -> dict:
        """Undoes `rows` (newest first) one at a time through the module's rollback, which pops
        their `records`; a deletion's record touches no file, and its image is put back here,
        in turn, so that older steps inside a deleted tree find their folders again. Each undone
        step goes on the redo stack with the images of its path after and before it."""
        restored: list[str] = []
        result: dict = {}
        undone = []
        for row in rows:
            path = os.path.join(self.root, row["rel"])
            with self.store.conn:  # each store write commits, so a call killed later holds no lock
                after = images.capture(path, self.store.put_blob)
            result = editor.rollback_steps(records, 1)
            if "error" in result:
                break
            receipt = json.loads(row["receipt"])
            if row["tool"] == "delete":
                images.restore(path, receipt[IMAGE], self.store.get_blob)
                result["restored"] = [path]
            elif row["text_hash"] is not None and receipt.get(LINE_ENDS):
                text = self.store.get_blob(row["text_hash"]).decode()
                journal.restore_exact({path: lineends.encoded(text, receipt[LINE_ENDS])})
            with self.store.conn:
                undone.append({"id": row["id"], "before": images.capture(path, self.store.put_blob), "after": after})
            restored += result["restored"]
        with self.store.conn:
            self.store.set_meta(REDO, self.store.get_meta(REDO, []) + undone)
        if "error" in result:
            return result
        return {"restored": restored, "raw": result.get("raw")}

    def _redo(self, steps: int) -> dict:
        live, store = self._live, self.store
        assert live is not None
        stack = store.get_meta(REDO, [])
        if isinstance(steps, bool) or not isinstance(steps, int) or not 1 <= steps <= len(stack):
            return {"error": f"cannot redo {steps!r} step(s): {len(stack)} undone step(s) can be redone -- "
                             "a redo follows a rollback, until the next write"}
        entries = stack[::-1][:steps]  # the last undone first: steps come back in their own order
        rows = [store.step(entry["id"]) for entry in entries]
        expected: dict[str, Any] = {}
        for entry, row in zip(entries, rows):
            path = os.path.join(self.root, row["rel"])
            now = expected[path] if path in expected else images.capture(path, digest)
            if now != entry["before"]:
                return {"error": f"redo refused, nothing was changed: {row['rel']} is no longer as the rollback "
                                 "left it -- read it and edit it instead"}
            expected[path] = entry["after"]
        paths = list(dict.fromkeys(os.path.join(self.root, row["rel"]) for row in rows))
        self._prepare_ledger()  # its bytes are kept: a redo cut short takes its entries back
        with store.conn:
            intent = {"kind": "redo", "files": [journal.tree_entry(self._rel(p), images.capture(p, store.put_blob),
                                                                   journal.UNKNOWN) for p in paths]}
            store.set_meta(journal.PENDING, intent)
        redone = []
        with store.conn:  # the steps and the stack in one transaction; a kill leaves the mark to recovery
            for entry, row in zip(entries, rows):
                path, rel = os.path.join(self.root, row["rel"]), row["rel"]
                raw_before = live.save(store)
                snapshot = None if row["tool"] == "delete" else editor.take_snapshot(live.raw, path)
                if row["tool"] == "delete":
                    editor.delete_file(self.root, path)
                else:
                    images.remove(path)
                    images.restore(path, entry["after"], store.get_blob)
                before, after = live.reindex([path])
                changes = editor.static_diff(before, after)
                n = editor.ledger_append(self.root, {"tool": row["tool"], "file": rel, "redo_of": row["ledger_n"],
                                                     "static_diff": changes})
                text = None if snapshot is None else snapshot["text_before"]
                text_hash = None if text is None else store.put_blob(text.encode("utf-8"))
                store.add_step(row["tool"], rel, time.time(), text_hash, raw_before, n,
                               {**json.loads(row["receipt"]), "redo_of": row["ledger_n"]})
                redone.append({"step": n, "tool": row["tool"], "file": rel, "static_diff": changes,
                               **_dangling(before, after)})
            store.set_meta(REDO, stack[:-steps] or None)
            self._commit()
            self._drop_journal(intent)
        return {"redone": redone}

    def _restored_name(self, item: str) -> str:
        suffix = " (deleted)"
        if item.endswith(suffix):
            return self._rel(item[:-len(suffix)]) + suffix
        return self._rel(item)

    # --- reading calls -----------------------------------------------------------------

    def _touched_texts(self) -> dict[str, str | None]:
        return {os.path.join(self.root, rel): None if key is None else self.store.get_blob(key).decode("utf-8")
                for rel, key in self.store.touched()}

    def _first_touch_texts(self) -> dict[str, str | None]:
        """Each touched file's text at first touch with the line ends it had on disk."""
        texts = {}
        for path, text in self._touched_texts().items():
            if text is not None:
                text = self._first_touch_bytes(self._rel(path), text).decode("utf-8")
            texts[path] = text
        return texts

    def _first_touch_bytes(self, rel: str, text: str) -> bytes:
        """The bytes behind a touched text: from its first step, or, for a file first touched by
        the deletion of a tree around it, from that tree's image."""
        store, inside = self.store, rel
        while (first := store.first_step(inside)) is None and inside:
            inside = os.path.dirname(inside)
        tool, receipt = first if first is not None else ("", "{}")
        kept = json.loads(receipt)
        image = kept.get(IMAGE) if tool == "delete" else None
        if image and image["kind"] == "file" and inside == rel:
            return store.get_blob(bytes.fromhex(image["blob"]))
        if image and image["kind"] == "directory" and (blob := image["files"].get(os.path.relpath(rel, inside))):
            return store.get_blob(bytes.fromhex(blob))
        # Its own step records its line ends; a file no step or image holds keeps the stored text.
        return lineends.encoded(text, kept.get(LINE_ENDS)) if inside == rel else text.encode("utf-8")

    def _check(self, progress: gate.Progress | None, cancel: gate.Cancel) -> dict:
        store = self.store
        kept, skipped = guards.split_checkable(self.root, self._touched_texts(), self.allow_hard_links)
        current = {path: data for path in kept if (data := journal.read_bytes(path)) is not None}
        with store.conn:
            intent = {"kind": "check", "files": [journal.file_entry(store, self._rel(p), data, digest(data).hex())
                                                 for p, data in current.items()]}
            store.set_meta(journal.PENDING, intent)
        try:
            with journal.restoring_on_signal(current):
                created = [path for path, text in kept.items() if text is None]
                outcome = gate.check(self.root, kept, created, progress=progress, cancel=cancel)
        finally:
            journal.restore_exact(current)
            self._abandon(intent, {})
        skipped += [f"{item['path']}: {item['reason']}" for item in outcome["skipped"]]
        return {"findings": outcome["findings"], "structured": outcome["structured"],
                **({"skipped": skipped} if skipped else {}), **({"cancelled": True} if outcome["cancelled"] else {})}

    def _diff(self, form: str) -> dict:
        if form not in patch.FORMS:
            return {"error": f"unknown diff form {form!r} ({' | '.join(patch.FORMS)})"}
        kept, skipped = guards.split_checkable(self.root, self._first_touch_texts(), True, confine=False)
        readable = {}
        for path, text in kept.items():
            try:
                with open(path, encoding="utf-8") as handle:
                    handle.read()
            except (OSError, ValueError) as e:
                if not isinstance(e, (FileNotFoundError, IsADirectoryError)):
                    skipped.append(describe(e, self._rel(path)))
                    continue
            readable[path] = text
        notes: list[str] = []
        text = patch.FORMS[form](self.root, readable, notes)
        return {"diff": text, **({"skipped": skipped} if skipped else {}), **({"notes": notes} if notes else {})}

    def _status(self) -> dict:
        steps = [{"step": n, "tool": tool, "file": rel, **({"rolled_back": True} if gone else {})}
                 for _, tool, rel, n, gone in self.store.step_summaries()]
        return {"root": self.root, "store": str(self.store.path), "ledger": str(ledger.path_of(self.root)),
                "depth": self.store.depth(), "steps": steps,
                "touched": [rel for rel, _ in self.store.touched()],
                "recovered": self.store.get_meta(LAST_RECOVERY, [])}
