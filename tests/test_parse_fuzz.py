# Random input through every entry point of the parse checks: answers of the documented shape,
# only the documented exceptions, and never a crash of the interpreter.

import langtable
from hypothesis import HealthCheck, given, settings, strategies as st

import editor

WHATS = {"missing bracket/token", "unexpected syntax"}
FAST = settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])


@FAST
@given(st.sampled_from(["c", "cpp", "java", "javascript", "css", "html", "python", "no-such-grammar"]), st.text())
def test_any_text_under_any_grammar(language, text):
    error = editor._treesitter_error(language, text)
    assert error is None or (type(error[0]) is int and error[0] >= 1 and error[1] in WHATS)
    counts, sample = editor._treesitter_error_counts(language, text)
    assert set(counts) == set(sample) <= WHATS and (error is None) == (not counts)
    assert error is None or sample[error[1]] == error[0]  # both scans meet the same first node


@FAST
@given(st.sampled_from([".py", ".c", ".js", ".css", ".html", ".java", ".xyz", ""]), st.text(), st.none() | st.text())
def test_any_file_through_the_syntax_check_and_any_text_through_the_web_count(tmp_path, ext, text, before):
    counts, sample = editor._web_error_counts(text)
    assert set(counts) == set(sample) and all(n >= 1 for n in counts.values())
    known = (None, *editor._WEB_EXT_LANG.values(), *langtable.EXTENSION_TO_LANGUAGE.values())
    assert editor._native_language(text) in known
    path = tmp_path / f"f{ext}"
    path.write_text(text, encoding="utf-8")
    result = editor.syntax_check(str(path), before_text=before)
    assert (result is None) == (ext in (".xyz", "")) and (result is None or isinstance(result, str))
