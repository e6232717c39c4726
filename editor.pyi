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
def _first_error_node(node): ...
def _all_error_nodes(node, out): ...
def _treesitter_error(language: str, text: str): ...
def _treesitter_error_counts(language: str, text: str): ...

_WEB_KIND_LANG: dict[str, str]
_WEB_EXT_LANG: dict[str, str]

def _native_language(ext: str) -> str | None: ...
def _web_error_counts(text: str): ...
def syntax_check(abs_path: str, before_text: str | None = None) -> str | None: ...
def create_file(root: str, abs_path: str, content: str) -> dict: ...
def delete_file(root: str, abs_path: str) -> dict: ...
