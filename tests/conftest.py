import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# The built module and the host stand-ins, ahead of anything installed.
for entry in (ROOT / "host", ROOT / "build"):
    if str(entry) not in sys.path:
        sys.path.insert(0, str(entry))
