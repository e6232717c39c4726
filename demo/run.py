"""The main job, end to end: a scripted agent session on a copy of the bundled sample project.

Every step goes the road a host takes: resolve the path, snapshot, edit, read the receipt
(replaced lines, syntax verdict), re-index, static diff, ledger entry. The session ends with
the commit-time check, the session diff, the ledger, and a two-step rollback.

Run with `make demo`. Nothing outside a temporary directory is touched.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "host"), str(HERE.parent / "build")]

from editor_session.session import Session  # noqa: E402


def section(title):
    print(f"\n== {title} " + "=" * max(0, 74 - len(title)))


def show(result):
    print("   " + json.dumps(result, indent=1).replace("\n", "\n   "))
    return result


def copy_sample(scratch):
    """The sample project in `scratch`, marked as a repository so compilers find its headers."""
    root = Path(scratch) / "sample_project"
    shutil.copytree(HERE / "sample_project", root)
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    return root


def scripted_session(root):
    """Runs the demo's session on `root`, printing as it goes; returns the key results."""
    s = Session.open(str(root))
    results = {}

    section("An ambiguous file name is refused with its candidates")
    print("   edit util.py line 1")
    results["ambiguous"] = show(s.edit("util.py", 1, None, "def round_money(amount):"))

    section("A line edit: its receipt echoes what it replaced")
    print("   edit models.py line 3 -> MAX_ITEMS = 800")
    results["line_edit"] = show(s.edit("models.py", 3, None, "MAX_ITEMS = 800\n"))

    section("An anchor edit: addressed by quoting the text instead of counting lines")
    print("   replace the line holding 'def render(warehouse, page_size=20):'")
    results["anchor_edit"] = show(s.edit("report.py", None, None, "def render(warehouse, page_size=50):\n",
                                         anchor="def render(warehouse, page_size=20):"))

    section("A mis-aimed edit breaks the syntax: reported, then rolled back")
    print("   edit pricing.py line 7 -> 'def net_value(warehouse:'")
    broken = s.edit("pricing.py", 7, None, "def net_value(warehouse:\n")
    print(f"   syntax: {broken['syntax']}")
    print(f"   replaced: {broken['replaced']}")
    results["broken"] = broken
    print("   rollback 1 step")
    results["undo_broken"] = show(s.rollback(1))

    section("A new file")
    results["created"] = show(s.create("inventory/discounts.py",
                                       "from .util import round_money\n\n\n"
                                       "def discounted(amount, percent):\n"
                                       "    return round_money(amount * (1 - percent / 100))\n"))

    section("Edits the commit-time check should catch")
    print("   report.py: call a helper that does not exist")
    show(s.edit("report.py", None, None,
                "    return f\"<style>{REPORT_STYLE}</style>\" + \"\".join(pages) + format_total(warehouse)\n",
                anchor="    return f\"<style>{REPORT_STYLE}</style>\" + \"\".join(pages) + f\"<p>{total_value(warehouse)}</p>\"\n"))
    print("   checksum.c: use an undeclared identifier")
    show(s.edit("checksum.c", 9, None, "        b = (b + a + carry) % 65521u;\n"))

    section("Commit-time check: only the errors this session introduced")
    findings = s.check()["findings"]
    results["findings"] = findings
    for finding in findings:
        print(f"   {finding}")

    section("Session diff: everything this session changed")
    results["diff"] = s.diff()["diff"]
    print("   " + results["diff"].replace("\n", "\n   "))

    section("The ledger")
    print(f"   {s.status()['ledger']}")
    results["ledger"] = s.ledger()["entries"]
    for step in results["ledger"]:
        flag = "  (rolled back)" if step.get("rolled_back") else ""
        where = f" at line {step['at']}" if "at" in step else ""
        print(f"   {step['n']}. {step['tool']} {step['file']}{where}: syntax {step['syntax']}{flag}")

    section("Roll back two steps")
    results["rollback"] = show(s.rollback(2))
    print(f"   ledger flags: {[(st['n'], bool(st.get('rolled_back'))) for st in s.ledger()['entries']]}")
    results["findings_after_rollback"] = s.check()["findings"]
    print(f"   commit-time check now: {results['findings_after_rollback'] or 'clean'}")
    results["session"] = s
    return results


def agent_tools(root):
    """Reading with a tag, a stale tag, a multi-block edit, kept CRLF line ends, a delete that
    is undone and redone, and a created file whose errors the check catches."""
    s = Session.open(str(root))
    results = {}
    section("Read with a tag; an edit against a stale tag is refused")
    results["read"] = s.read("models.py", 1, 4)
    print(results["read"]["text"])
    print(f"   tag {results['read']['tag']}")
    path = root / "inventory" / "models.py"
    path.write_text(path.read_text() + "# touched by someone else\n")
    results["stale"] = show(s.edit("models.py", 1, None, "# models\n", tag=results["read"]["tag"]))

    section("A multi-block edit: all blocks against the same text, one step")
    fresh = s.read("models.py")["tag"]
    results["blocks"] = show(s.edit("models.py", blocks=[
        {"start_line": 1, "mode": "insert_before", "content": "# Inventory models.\n"},
        {"anchor": "# touched by someone else\n", "content": "# reviewed\n"}], tag=fresh))

    section("A CRLF file keeps its line ends")
    bat = root / "tools" / "build.bat"
    bat.write_bytes(b"@echo off\r\nset MODE=debug\r\ncall make %MODE%\r\n")
    results["crlf"] = show(s.edit("tools/build.bat", 2, None, "set MODE=release\n"))
    results["crlf_bytes"] = bat.read_bytes()
    print(f"   bytes now: {results['crlf_bytes']!r}")

    section("A delete is a step: rolled back, then redone")
    results["delete"] = show(s.delete("tools/build.bat"))
    results["undelete"] = show(s.rollback(1))
    print(f"   bytes back: {bat.read_bytes()!r}")
    results["redo"] = show(s.redo(1))
    print(f"   exists after the redo: {bat.exists()}")

    section("A created file is checked whole: every error in it counts")
    show(s.create("inventory/slugs.py", "def slug(title):\n    words = titel.split()\n    return slugify(words)\n"))
    results["created_check"] = s.check()["structured"]
    for finding in results["created_check"]:
        print(f"   {finding['path']}:{finding['line']}: {finding['analyser']}: {finding['message']}")
    s.close()
    return results


def main():
    with tempfile.TemporaryDirectory(prefix="editor-demo-") as scratch:
        # The ledger lives in the project's state directory: keep it inside the scratch space.
        os.environ["EDITOR_STATE_HOME"] = os.path.join(scratch, "state")
        root = copy_sample(scratch)
        print(f"A copy of the sample project: {root}")
        scripted_session(root)
        agent_tools(root)


if __name__ == "__main__":
    main()
