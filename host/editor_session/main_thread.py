"""Runs the session's calls one at a time on the main thread, for a protocol served on another.

The session is not safe to call from two threads at once, and its guard for the commit check
installs signal handlers, which only the main thread may do. So the MCP server's event loop
runs on a thread of its own and hands every session call to the main thread through a queue;
the awaiting request waits shielded, because a session call stopped half way would leave the
session and the files out of step.
"""

import asyncio
import queue
import threading
from collections.abc import Callable
from typing import Any

import anyio


class _Job:
    def __init__(self, fn: Callable[[], Any], loop: asyncio.AbstractEventLoop, done: anyio.Event):
        self.fn, self.loop, self.done = fn, loop, done
        self.value: Any = None
        self.error: BaseException | None = None

    def run(self) -> None:
        try:
            self.value = self.fn()
        except Exception as exc:
            self.error = exc
        finally:
            self.loop.call_soon_threadsafe(self.done.set)

    def result(self) -> Any:
        if self.error is not None:
            raise self.error
        return self.value


class MainThreadCalls:
    def __init__(self) -> None:
        self._jobs: queue.SimpleQueue[_Job | None] = queue.SimpleQueue()

    def serve_until_stopped(self) -> None:
        """Runs submitted calls on the calling (main) thread until `stop`."""
        while (job := self._jobs.get()) is not None:
            job.run()

    def stop(self) -> None:
        self._jobs.put(None)

    async def call(self, fn: Callable[[], Any], cancelled: threading.Event | None = None) -> Any:
        """`fn()` on the main thread; its exception is raised here. When the request is cancelled
        meanwhile, `cancelled` is set (for `fn` to notice and stop) and the call still runs out."""
        job = _Job(fn, asyncio.get_running_loop(), anyio.Event())
        self._jobs.put(job)
        async with anyio.create_task_group() as watchers:
            if cancelled is not None:
                watchers.start_soon(_flag_cancellation, job.done, cancelled)
            with anyio.CancelScope(shield=True):
                await job.done.wait()
        return job.result()


async def _flag_cancellation(done: anyio.Event, cancelled: threading.Event) -> None:
    try:
        await done.wait()
    except anyio.get_cancelled_exc_class():
        cancelled.set()
        raise
