"""Stand-in for the host's deep-stack runner.

`run_deep(fn)` returns a callable that runs `fn` on a fresh worker thread with a large stack,
waits for it, and returns its result or re-raises its exception in the caller.
"""

import functools
import threading

STACK_SIZE = 512 * 1024 * 1024

# threading.stack_size is process-wide: hold it only while starting our own thread.
_stack_lock = threading.Lock()


def run_deep(fn):
    @functools.wraps(fn)
    def deep(*args, **kwargs):
        outcome = {}

        def work():
            try:
                outcome["value"] = fn(*args, **kwargs)
            except BaseException as exc:  # handed back to the caller below
                outcome["error"] = exc

        with _stack_lock:
            previous = threading.stack_size(STACK_SIZE)
            try:
                worker = threading.Thread(target=work, name="deeprun")
                worker.start()
            finally:
                threading.stack_size(previous)
        worker.join()
        if "error" in outcome:
            error = outcome.pop("error")
            try:
                raise error
            finally:
                del error
        return outcome["value"]

    return deep
