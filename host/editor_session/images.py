"""Images of a path as bytes: what a deleted file or tree held, so that undoing the deletion
can put it back exactly, and so that a redo can tell whether a path is still as a rollback left
it. An image is JSON-friendly: {"kind": "file", "blob": hex} or {"kind": "directory", "dirs":
[...], "files": {sub: hex}, "links": {sub: target}}, or None for nothing there; the bytes live
in the store under the hex keys.
"""

import os
import shutil
from collections.abc import Callable

from editor_session import journal

Image = dict | None
Put = Callable[[bytes], bytes]
Get = Callable[[bytes], bytes]


def capture(abs_path: str, put: Put) -> Image:
    if os.path.islink(abs_path) or os.path.isfile(abs_path):
        if os.path.islink(abs_path):
            return {"kind": "link", "target": os.readlink(abs_path)}
        return {"kind": "file", "blob": put(journal.read_bytes(abs_path) or b"").hex()}
    if not os.path.isdir(abs_path):
        return None
    dirs, files, links = [], {}, {}
    for folder, subdirs, names in os.walk(abs_path):
        subdirs.sort()  # the same tree gives the same image, however its folders are listed
        for name in sorted(subdirs + names):
            path = os.path.join(folder, name)
            sub = os.path.relpath(path, abs_path)
            if os.path.islink(path):
                links[sub] = os.readlink(path)
            elif os.path.isdir(path):
                dirs.append(sub)
            else:
                files[sub] = put(journal.read_bytes(path) or b"").hex()
    return {"kind": "directory", "dirs": dirs, "files": files, "links": links}


def restore(abs_path: str, image: Image, get: Get) -> None:
    """Puts the image back at `abs_path`, where nothing is now."""
    if image is None:
        return
    if image["kind"] == "link":
        os.symlink(image["target"], abs_path)
        return
    if image["kind"] == "file":
        os.makedirs(os.path.dirname(abs_path), exist_ok=True)
        journal.write_back(abs_path, get(bytes.fromhex(image["blob"])))
        return
    os.makedirs(abs_path, exist_ok=True)
    for sub in image["dirs"]:
        os.makedirs(os.path.join(abs_path, sub), exist_ok=True)
    for sub, key in image["files"].items():
        journal.write_back(os.path.join(abs_path, sub), get(bytes.fromhex(key)))
    for sub, target in image["links"].items():
        os.symlink(target, os.path.join(abs_path, sub))


def blobs(image: Image) -> list[str]:
    """The hex keys an image refers to."""
    if image is None:
        return []
    if image["kind"] == "file":
        return [image["blob"]]
    return list(image.get("files", {}).values())


def remove(abs_path: str) -> None:
    """Takes away whatever is at `abs_path` (the images' own undo; the session's deletions go
    through the module)."""
    if os.path.islink(abs_path) or os.path.isfile(abs_path):
        os.unlink(abs_path)
    elif os.path.isdir(abs_path):
        shutil.rmtree(abs_path)
