import difflib as difflib
import json as json
import os as os
import re as re
import shutil as shutil
import subprocess as subprocess
import tempfile as tempfile
import time as time
from pathlib import Path as Path
from typing import Final

import projstore as projstore
from deeprun import run_deep as run_deep

LEDGER_NAME: Final[str]

def _within_root(root: str, path: str) -> bool: ...
def resolve_target(root: str, path_str: str, known_paths: list[str]) -> str | dict: ...
def apply_block(
    root: str,
    abs_path: str,
    start_line: int | None,
    end_line: int | None,
    content: str,
    mode: str = "replace",
    anchor: str | None = None,
) -> dict: ...
def create_file(root: str, abs_path: str, content: str) -> dict: ...
def delete_file(root: str, abs_path: str) -> dict: ...
