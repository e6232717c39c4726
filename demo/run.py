"""Path resolution and confinement on a copy of the bundled sample project.

Copies demo/sample_project to a temporary directory, then resolves the paths a model might
write: file ids, basenames, backslash paths, new files, and escapes (including a symbolic link
that leads out of the project), printing what the module answers for each.
"""

import os
import shutil
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "host"), str(HERE.parent / "build")]

import editor  # noqa: E402


def section(title):
    print(f"\n== {title} " + "=" * max(0, 70 - len(title)))


def known_files(root):
    return sorted(p.relative_to(root).as_posix() for p in root.rglob("*") if p.is_file())


def show(root, path_str, known):
    answer = editor.resolve_target(str(root), path_str, known)
    if isinstance(answer, dict):
        print(f"  {path_str!r:36} -> refused: {answer['error']}")
        for candidate in answer.get("candidates", []):
            print(f"  {'':36}    candidate: {candidate}")
    else:
        print(f"  {path_str!r:36} -> {os.path.relpath(answer, root)}")


def main():
    with tempfile.TemporaryDirectory(prefix="editor-demo-") as scratch:
        root = Path(scratch) / "sample_project"
        shutil.copytree(HERE / "sample_project", root)
        outside = Path(scratch) / "outside"
        outside.mkdir()
        (root / "escape").symlink_to(outside, target_is_directory=True)
        known = known_files(root)

        section("The project the index knows")
        for entry in known:
            print(f"  {entry}")

        section("Resolving what a model wrote")
        for path_str in ["pricing.py", "INVENTORY/Models.py", "native\\src\\checksum.c",
                         "Stock.java", "inventory/new_module.py"]:
            show(root, path_str, known)

        section("Ambiguous names are refused with the candidates")
        show(root, "util.py", known)

        section("Nothing outside the root")
        for path_str in ["../outside/notes.txt", str(outside / "notes.txt"), "escape/notes.txt"]:
            show(root, path_str, known)

        section("The confinement test itself")
        for path in [root, root / "inventory" / "models.py", Path(str(root) + "2") / "x.py",
                     root / "escape" / "notes.txt"]:
            inside = editor._within_root(str(root), str(path))
            print(f"  {os.path.relpath(path, scratch):36} inside: {inside}")


if __name__ == "__main__":
    main()
