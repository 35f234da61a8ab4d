import asyncio
import os

import pytest

import quelt


def test_two_links_at_once_on_one_loop(device):
    a, b = device(), device()
    payloads = {a.name: os.urandom(3000), b.name: os.urandom(3000)}

    async def echo(name):
        # A send buffer smaller than the payload: send() waits on the descriptor for room.
        async with quelt.aio.UartLink(name, send_buffer=512) as link:
            await link.send(payloads[name])
            got = b""
            async for chunk in link:
                got += chunk
                if len(got) >= len(payloads[name]):
                    break
            assert await link.flush(timeout=10)
            return name, got

    async def both():
        return await asyncio.wait_for(asyncio.gather(echo(a.name), echo(b.name)), 30)

    assert dict(asyncio.run(both())) == payloads


def test_read_times_out_and_a_lost_link_raises(device, radio):
    d = device(behaviour="sink")

    async def run():
        async with quelt.aio.UartLink(d.name) as link:
            assert await link.read(timeout=0.2) == b""
            asyncio.get_running_loop().call_later(0.2, radio.drop_link, d.identifier)
            with pytest.raises(quelt.LinkLost):
                await asyncio.wait_for(link.read(), 10)

    asyncio.run(run())
