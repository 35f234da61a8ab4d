"""quelt for asyncio: the same UartLink, awaited.

::

    async with quelt.aio.UartLink("QLT-Echo") as link:
        await link.send(b"hello")
        print(await link.read(timeout=5))
        async for chunk in link:      # until the link ends
            ...

Waiting for data never holds the event loop: a read waits on the link's file descriptor
(readable while received data or a change of state waits) with loop.add_reader, so any
number of links share one loop and no thread is started per call.
"""

import asyncio
import concurrent.futures
import threading

from . import _quelt

__all__ = ["UartLink", "scan"]

_worker_lock = threading.Lock()
_worker = None


def _shared_worker():
    """One thread for the calls that have no descriptor to wait on (connect, scan)."""
    global _worker
    with _worker_lock:
        if _worker is None:
            _worker = concurrent.futures.ThreadPoolExecutor(
                max_workers=1, thread_name_prefix="quelt.aio")
        return _worker


async def scan(timeout=5.0, name=None, service=None):
    """quelt.scan() without blocking the loop."""
    loop = asyncio.get_running_loop()
    return await loop.run_in_executor(
        _shared_worker(), lambda: _quelt.scan(timeout, name, service))


class UartLink:
    """An asyncio UartLink: ``async with``, ``await link.read()``, ``async for chunk in link``.

    The arguments are those of quelt.UartLink. Callbacks (on_receive, on_state_change) are
    those of the underlying quelt.UartLink, reachable as ``link.sync``.
    """

    def __init__(self, device, timeout=5.0, sliding_window=True):
        self.sync = _quelt.UartLink(device, timeout, sliding_window)

    async def connect(self):
        """Finds the device and connects; raises as quelt.UartLink.connect does."""
        loop = asyncio.get_running_loop()
        await loop.run_in_executor(_shared_worker(), self.sync.connect)

    async def disconnect(self):
        self.sync.disconnect()

    close = disconnect

    async def send(self, data):
        """Queues bytes for the device (it does not wait for them to leave)."""
        self.sync.send(data)

    async def read(self, timeout=None):
        """Waits up to `timeout` seconds (None: without end) for received bytes; b"" when
        none came in time. Raises LinkLost once the link is lost and nothing is left."""
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        while True:
            data = self.sync.read(0)
            if data:
                return data
            left = None if deadline is None else deadline - loop.time()
            if left is not None and left <= 0:
                return b""
            if hasattr(self.sync, "fileno"):
                await self._wait_readable(loop, left)
            else:
                # No descriptor to wait on: short waits on the shared worker.
                data = await loop.run_in_executor(
                    _shared_worker(), self.sync.read, 0.05 if left is None else min(0.05, left))
                if data:
                    return data

    async def _wait_readable(self, loop, timeout):
        fd = self.sync.fileno()
        ready = loop.create_future()
        loop.add_reader(fd, lambda: ready.done() or ready.set_result(None))
        try:
            await asyncio.wait_for(ready, timeout)
        except asyncio.TimeoutError:
            pass
        finally:
            loop.remove_reader(fd)

    @property
    def state(self):
        return self.sync.state

    @property
    def info(self):
        return self.sync.info

    async def __aenter__(self):
        if self.sync.state != _quelt.State.CONNECTED:
            await self.connect()
        return self

    async def __aexit__(self, *exc):
        self.sync.disconnect()
        return False

    def __aiter__(self):
        return self

    async def __anext__(self):
        """The next received bytes; the iteration ends when the link is disconnected, and
        raises LinkLost when it is lost."""
        try:
            return await self.read()
        except _quelt.NotConnected:
            raise StopAsyncIteration from None
