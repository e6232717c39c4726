import gc
import linecache
import os
import re
import sys
from pathlib import Path

import pytest
from _pytest.runner import runtestprotocol

ROOT = Path(__file__).resolve().parent.parent
# The built module (EDITOR_BUILD names another build, e.g. a sanitizer one) and the host
# stand-ins, ahead of anything installed.
for entry in (ROOT / "host", Path(os.environ.get("EDITOR_BUILD", ROOT / "build"))):
    if str(entry) not in sys.path:
        sys.path.insert(0, str(entry))


@pytest.fixture
def project(tmp_path):
    """A project root, with a sibling directory `outside` that must never change."""
    root = tmp_path / "proj"
    root.mkdir()
    (tmp_path / "outside").mkdir()
    (tmp_path / "outside" / "secret.txt").write_bytes(b"keep\n")
    return root


@pytest.fixture
def checker(monkeypatch):
    """A syntax check that records its calls and answers "ok"; installed on the module."""
    import editor

    calls = []

    def check(*args, **kwargs):
        calls.append((args, kwargs))
        return "ok"

    monkeypatch.setattr(editor, "syntax_check", check, raising=False)
    return calls


def module_functions(module):
    """(name, function) of every function the module defines, in namespace order."""
    return [(name, value) for name, value in vars(module).items()
            if callable(value) and not isinstance(value, type) and getattr(value, "__module__", None) == module.__name__]


# The leak pass (`--leaks`, on a debug interpreter): every test marked `leaks` runs WARMUPS times,
# then RUNS more, and fails if the reference total or the live memory blocks grew after every one
# of those (noise comes and goes, a leak grows every time). Tests marked `leaks(only=True)` make
# hostile calls in-process and run in the leak pass alone.
WARMUPS, RUNS = 1, 3


def pytest_addoption(parser):
    parser.addoption("--leaks", action="store_true", help="re-run tests marked leaks under reference and block counters")


def pytest_configure(config):
    if config.getoption("leaks"):
        if not hasattr(sys, "gettotalrefcount"):
            raise pytest.UsageError("--leaks needs a debug build of the interpreter")
        config.pluginmanager.register(LeakCheck(), "leak-check")


def pytest_collection_modifyitems(config, items):
    # Hypothesis tests and state machines, different examples on every run, are left out of the leak pass.
    hypothesis = lambda test: getattr(test, "is_hypothesis_test", False) or "run_state_machine_as_test" in test.__code__.co_names
    drop = [item for item in items if (mark := item.get_closest_marker("leaks")) and (
        hypothesis(item.obj) if config.getoption("leaks") else mark.kwargs.get("only"))]
    if drop:
        config.hook.pytest_deselected(items=drop)
        items[:] = [item for item in items if item not in drop]


def clean_caches():
    re.purge()
    linecache.clearcache()
    sys._clear_internal_caches()
    gc.collect()


def tree_sitter_imbalance():
    """tree-sitter 0.25.2's binding never drops the reference its Node and Tree objects (and
    others) take to their heap type, so each one it makes raises the total for good. The gain per
    class reference is measured on plain tree-sitter calls and taken out, nothing of the module's."""
    import tree_sitter
    from tree_sitter_language_pack import get_language
    language = get_language("python")
    parser = tree_sitter.Parser(language)
    tree = parser.parse(b"x = (\n")
    makers = {tree_sitter.Language: lambda: get_language("python"), tree_sitter.Parser: lambda: tree_sitter.Parser(language),
              tree_sitter.Tree: lambda: parser.parse(b"x = (\n"), tree_sitter.Node: lambda: tree.root_node}
    ratios = {}
    for cls, make in makers.items():
        for _ in range(50):
            make()
        clean_caches()
        total, held = sys.gettotalrefcount(), sys.getrefcount(cls)
        for _ in range(1000):
            make()
        clean_caches()
        gained = sys.getrefcount(cls) - held
        ratios[cls] = (sys.gettotalrefcount() - total) / gained if gained else 0.0
    return ratios


class LeakCheck:
    TOOL = 3  # a sys.monitoring tool id no debugger, coverage or profiler claims

    def __init__(self):
        import editor
        self.functions, self.called, self.imbalance = dict(module_functions(editor)), set(), tree_sitter_imbalance()
        self.names = {id(function): name for name, function in self.functions.items()}
        sys.monitoring.use_tool_id(self.TOOL, "leak-check")
        sys.monitoring.register_callback(self.TOOL, sys.monitoring.events.CALL, self.on_call)
        sys.monitoring.set_events(self.TOOL, sys.monitoring.events.CALL)

    def on_call(self, code, offset, function, arg0):
        name = self.names.get(id(function))
        if name is None:
            return sys.monitoring.DISABLE  # this call site calls something else: stop watching it
        self.called.add(name)

    def counts(self):
        clean_caches()
        foreign = sum(ratio * sys.getrefcount(cls) for cls, ratio in self.imbalance.items())
        return round(sys.gettotalrefcount() - foreign), sys.getallocatedblocks()

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtest_protocol(self, item, nextitem):
        if item.get_closest_marker("leaks") is None:
            return None
        item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
        refs, blocks, last = [0] * RUNS, [0] * RUNS, None  # made up front: the bookkeeping stays level
        for run in range(WARMUPS + RUNS):  # each run with fresh fixtures, torn down to the session
            reports = runtestprotocol(item, log=False, nextitem=None)
            item._report_sections.clear()
            if any(report.outcome != "passed" for report in reports):
                break
            if run < WARMUPS - 1:
                continue
            if run == WARMUPS - 1:
                gc.freeze()  # what lives after the warm-ups: the collections below only walk what came since
            now = self.counts()
            if run >= WARMUPS:
                refs[run - WARMUPS], blocks[run - WARMUPS] = now[0] - last[0], now[1] - last[1]
            last = now
        else:
            if all(delta > 0 for delta in refs) or all(delta > 0 for delta in blocks):
                call = next(report for report in reports if report.when == "call")
                call.outcome, call.longrepr = "failed", f"leak: references {refs}, memory blocks {blocks} over {RUNS} runs"
        gc.unfreeze()
        for report in reports:
            item.ihook.pytest_runtest_logreport(report=report)
        item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
        return True

    def pytest_sessionfinish(self, session):
        sys.monitoring.set_events(self.TOOL, 0)
        sys.monitoring.free_tool_id(self.TOOL)
        missed = sorted(set(self.functions) - self.called)
        if missed and session.config.args_source == pytest.Config.ArgsSource.TESTPATHS and not session.config.option.keyword:
            session.config.pluginmanager.get_plugin("terminalreporter").write_line(f"leak pass never called: {missed}", red=True)
            session.exitstatus = pytest.ExitCode.TESTS_FAILED
