"""QueltLibrary for Python: Bluetooth LE devices with the Nordic UART Service.

Scan, connect and talk to a device over a reliable, ordered stream (the library's sliding
window) or the plain 20-byte chunker, on real hardware through BlueZ or on a simulated
radio (quelt.sim) with faults of your choosing::

    import quelt

    for device in quelt.scan(timeout=2):
        print(device.address, device.name, device.rssi)
    with quelt.UartLink("QLT-Echo", timeout=5) as link:
        link.send(b"hello")
        print(link.read(timeout=5))

quelt.aio has the same link for asyncio. Errors are exceptions derived from quelt.Error
(NotFound, ConnectFailed, Unusable, LinkLost, NotConnected, NoAdapter,
Unavailable) carrying the
library's messages.
"""

import sys as _sys

from ._quelt import (
    ConnectFailed,
    Device,
    Error,
    LinkLost,
    NoAdapter,
    NotConnected,
    NotFound,
    State,
    UartLink,
    Unavailable,
    Unusable,
    backends,
    scan,
    sim,
    use_backend,
)

# `import quelt.sim` works as well as quelt.sim.
_sys.modules[__name__ + ".sim"] = sim

from . import aio  # noqa: E402  (needs the names above)

__all__ = [
    "ConnectFailed", "Device", "Error", "LinkLost", "NoAdapter", "NotConnected", "NotFound", "State",
    "UartLink", "Unavailable", "Unusable", "aio", "backends", "scan", "sim", "use_backend",
]
