"""Stand-in for the host's deep-stack runner.

`run_deep(fn)` returns a callable that runs `fn` on a worker thread with a large stack, waits
for it, and returns its result or re-raises its exception in the caller.

One long-lived worker serves every call. A fresh thread per call would be simpler, but each new
thread gets a fresh malloc arena from the C library, and the page faults of filling it cost
about a fifth of a `compile` of a thousand-line file; the long-lived worker keeps its arena and
its stack pages warm. Calls from several threads take turns on the worker, and a call made on
the worker itself (already on the large stack) runs in place instead of waiting on itself.
"""

import functools
import queue
import threading
from collections.abc import Callable

STACK_SIZE = 512 * 1024 * 1024

# threading.stack_size is process-wide: hold it only while starting our own thread.
_start_lock = threading.Lock()
_worker = None
_jobs: queue.SimpleQueue[Callable[[], None] | None] = queue.SimpleQueue()  # None tells the worker to stop


def _serve():
    while (job := _jobs.get()) is not None:
        job()


def _stop():
    _jobs.put(None)


def _running_worker():
    global _worker
    with _start_lock:
        # A fork leaves the child without the thread; is_alive() then reports it gone.
        if _worker is None or not _worker.is_alive():
            previous = threading.stack_size(STACK_SIZE)
            try:
                # Not a daemon (isolated sub-interpreters refuse daemon threads): the worker is
                # told to stop when the interpreter shuts down, before it joins its threads.
                _worker = threading.Thread(target=_serve, name="deeprun")
                _worker.start()
                threading._register_atexit(_stop)
            finally:
                threading.stack_size(previous)
        return _worker


def run_deep(fn):
    @functools.wraps(fn)
    def deep(*args, **kwargs):
        worker = _running_worker()
        if threading.current_thread() is worker:
            return fn(*args, **kwargs)
        outcome = {}
        done = threading.Event()

        def job():
            try:
                outcome["value"] = fn(*args, **kwargs)
            except BaseException as exc:  # handed back to the caller below
                outcome["error"] = exc
            finally:
                done.set()

        _jobs.put(job)
        done.wait()
        if "error" in outcome:
            error = outcome.pop("error")
            try:
                raise error
            finally:
                del error
        return outcome["value"]

    return deep
