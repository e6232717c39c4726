"""Reads the sanitizer log files of one run (scripts/check-asan) and reports what concerns the
module; exits 1 when there is anything.

- Every AddressSanitizer error and every UndefinedBehaviorSanitizer report counts, whatever
  process it came from.
- A leak counts when its allocation stack holds a frame of the module (its shared object or a
  function of its `editor` namespace). Leaks without one belong to the interpreter and its
  libraries at exit; they are counted and listed by their first frames, not judged. The stacks are
  unwound through frame pointers, which the interpreter is built without: a Python object
  leaked by the module is recorded with the interpreter's allocation frames only, and is caught by
  `make check-refleaks` instead.
"""

import re
import sys
from collections import Counter
from pathlib import Path

MODULE_FRAME = re.compile(r"/editor\.cpython-[^/\s]*\.so|\bin (?:PyInit_)?editor(?:::|\b)")
LEAK_START = re.compile(r"^(?:Direct|Indirect) leak of \d+ byte", re.M)


def leak_blocks(report):
    """The leak paragraphs of one LeakSanitizer report."""
    starts = [match.start() for match in LEAK_START.finditer(report)]
    if not starts:
        return []
    summary = report.find("SUMMARY:", starts[-1])
    ends = starts[1:] + [summary if summary >= 0 else len(report)]
    return [report[start:end].strip() for start, end in zip(starts, ends)]


def first_frames(block, count=3):
    frames = [line.strip() for line in block.splitlines() if line.strip().startswith("#")]
    return " | ".join(frame.split(" in ", 1)[-1][:80] for frame in frames[1:count + 1])


def main(directory):
    findings, foreign = [], Counter()
    for log in sorted(Path(directory).iterdir()):
        text = log.read_text(errors="replace")
        if "ERROR: LeakSanitizer" in text:
            for block in leak_blocks(text):
                if MODULE_FRAME.search(block):
                    findings.append(f"{log.name}:\n{block}")
                else:
                    foreign[first_frames(block)] += 1
            text = text[:text.find("ERROR: LeakSanitizer")]
        if "ERROR: AddressSanitizer" in text or "runtime error:" in text:
            findings.append(f"{log.name}:\n{text.strip()}")
    for finding in findings:
        print(finding, end="\n\n")
    if foreign:
        print(f"{sum(foreign.values())} leak(s) at exit without a frame of the module (not judged):")
        for frames, count in foreign.most_common():
            print(f"  {count} x {frames}")
    print(f"sanitizers: {len(findings)} report(s) concerning the module")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
