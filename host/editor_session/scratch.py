"""Scratch folders for copies that the module edits or checks in place of the real file.

Memory-backed when the machine has a tmpfs at /dev/shm: a multi-block edit opens a scratch
file a few times per block, and on a disk-backed temporary directory each open costs about a
millisecond, more than the module's edit of a small piece.
"""

import os
import tempfile

_MEMORY = "/dev/shm"


def folder(prefix: str) -> tempfile.TemporaryDirectory:
    parent = _MEMORY if os.path.isdir(_MEMORY) and os.access(_MEMORY, os.W_OK) else None
    return tempfile.TemporaryDirectory(prefix=prefix, dir=parent)
