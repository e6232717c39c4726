import difflib as difflib
import json as json
import os as os
import re as re
import shutil as shutil
import subprocess as subprocess
import tempfile as tempfile
import time as time
from pathlib import Path as Path
from typing import Any, Final

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

_GCC_DIAG: Final[re.Pattern[str]]
_JAVAC_DIAG: Final[re.Pattern[str]]
_CPP_SRC_EXT: Final[set[str]]

def _find_exe(names: tuple[str, ...]) -> str | None: ...
def _repo_root(start: Path) -> Path: ...
def _cpp_context(abs_path: str): ...

_PKG_RE: Final[re.Pattern[str]]

def _java_context(abs_path: str): ...

_COMPILER_LANGS: Final[dict[str, dict[str, Any]]]

def _compile_errors(exe: str, lang: str, cfg: dict, abs_path: str, ctx) -> list | None: ...

_PYFLAKES_ERROR_TYPES: Final[set[str]]

def _pyflakes_errors(abs_path: str) -> list | None: ...
def _semantic_errfn(abs_path: str, lang: str): ...
def _semantic_delta_check(abs_path: str, lang: str, before_text: str | None) -> str | None: ...
def commit_time_check(touched: dict) -> list[str]: ...

def create_file(root: str, abs_path: str, content: str) -> dict: ...
def delete_file(root: str, abs_path: str) -> dict: ...
