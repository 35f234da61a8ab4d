"""quelt for asyncio: the same UartLink, awaited.

::

    async with quelt.aio.UartLink("QLT-Echo") as link:
        await link.send(b"hello")
        print(await link.read(timeout=5))
        async for chunk in link:      # until the link ends
            ...

Waiting never holds the event loop and starts no thread per call: connect, read and send
wait on the link's file descriptor (readable while received bytes, a change of state or
room in the send buffer wait) with loop.add_reader, so any number of links share one loop.
scan() runs on one shared worker thread; flush() looks every 20 ms.
"""

import asyncio
import concurrent.futures
import threading

from . import _quelt

__all__ = ["UartLink", "scan"]

_worker_lock = threading.Lock()
_worker = None


def _shared_worker():
    """The one thread for scan(), which has no descriptor to wait on."""
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

    The arguments are those of quelt.UartLink; the blocking link itself is ``link.sync``
    (for on_receive, on_state_change, info and the rest).
    """

    def __init__(self, device, timeout=5.0, sliding_window=True, **options):
        self.sync = _quelt.UartLink(device, timeout, sliding_window, **options)

    async def _readable(self, timeout=None):
        """Waits until the link's descriptor is readable, or `timeout` seconds."""
        loop = asyncio.get_running_loop()
        fd = self.sync.fileno()
        ready = loop.create_future()
        loop.add_reader(fd, lambda: ready.done() or ready.set_result(None))
        try:
            await asyncio.wait_for(ready, timeout)
        except asyncio.TimeoutError:
            pass
        finally:
            loop.remove_reader(fd)

    async def connect(self):
        """Finds the device and connects; raises as quelt.UartLink.connect does."""
        self.sync.start_connect()
        try:
            while self.sync.state == _quelt.State.CONNECTING:  # reading it clears the fd
                await self._readable()
        except BaseException:  # cancelled: the attempt ends with the task
            self.sync.disconnect()
            raise
        self.sync.wait_until_connected()  # at once: returns, or raises why it failed

    async def disconnect(self):
        self.sync.disconnect()

    close = disconnect

    async def send(self, data):
        """Hands every byte to the transport, waiting (on the descriptor) while the send
        buffer is full or the link is reconnecting. Raises LinkLost or NotConnected."""
        if isinstance(data, str):
            data = data.encode()
        view = memoryview(data).cast("B")
        while view:
            self.sync.state  # noqa: B018  (clears a change of state from the descriptor)
            taken = self.sync.try_send(view)
            view = view[taken:]
            if view:
                await self._readable()

    async def flush(self, timeout=None):
        """Waits until the device has acknowledged everything; False when `timeout` ran out."""
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        while not self.sync.flush(0):
            if deadline is not None and loop.time() >= deadline:
                return False
            await asyncio.sleep(0.02)
        return True

    async def read(self, timeout=None):
        """Waits up to `timeout` seconds (None: without end) for received bytes; b"" when
        none came in time. Raises LinkLost once the link is lost and nothing is left."""
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        while True:
            self.sync.state  # noqa: B018  (first: a later change makes the fd readable again)
            data = self.sync.read(0)
            if data:
                return data
            left = None if deadline is None else deadline - loop.time()
            if left is not None and left <= 0:
                return b""
            await self._readable(left)

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
