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
                anchor="    return f\"<style>{REPORT_STYLE}</style>\""))
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


def main():
    with tempfile.TemporaryDirectory(prefix="editor-demo-") as scratch:
        # The ledger lives in the project's state directory: keep it inside the scratch space.
        os.environ["EDITOR_STATE_HOME"] = os.path.join(scratch, "state")
        root = copy_sample(scratch)
        print(f"A copy of the sample project: {root}")
        scripted_session(root)


if __name__ == "__main__":
    main()
