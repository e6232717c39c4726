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
