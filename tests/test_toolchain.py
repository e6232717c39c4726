"""The pinned grammar pack parses every language the checks use, with no network at all."""

import subprocess
import sys

OFFLINE = """
import socket
def refuse(*args, **kwargs):
    raise OSError("network used")
socket.socket = socket.create_connection = socket.getaddrinfo = refuse
from tree_sitter_language_pack import get_parser
for language, source in [
    ("python", b"def f(:\\n"), ("c", b"int main( {"), ("cpp", b"class A {"),
    ("java", b"class A { void f( }"), ("javascript", b"let x = ;"),
    ("css", b"a { color: }"), ("html", b"<p><b></p>"),
]:
    tree = get_parser(language).parse(source)
    print(language, tree.root_node.type, tree.root_node.has_error)
"""


def test_grammars_are_bundled_and_parse_offline():
    result = subprocess.run([sys.executable, "-c", OFFLINE], capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    rows = [line.split() for line in result.stdout.splitlines()]
    assert [row[0] for row in rows] == ["python", "c", "cpp", "java", "javascript", "css", "html"]
    assert all(row[2] == "True" for row in rows[:-1])
