import os
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# The built module (EDITOR_BUILD names another build, e.g. a sanitizer one) and the host
# stand-ins, ahead of anything installed.
for entry in (ROOT / "host", Path(os.environ.get("EDITOR_BUILD", ROOT / "build"))):
    if str(entry) not in sys.path:
        sys.path.insert(0, str(entry))
