import itertools
import uuid

import pytest

import quelt

quelt.use_backend("sim")
_names = itertools.count(1)


@pytest.fixture
def radio():
    return quelt.sim.radio()


@pytest.fixture
def device(radio):
    """Adds devices to the shared simulated radio with names of their own; removes them after."""
    added = []

    def add(behaviour="sw-echo", **kwargs):
        name = kwargs.pop("name", None) or f"PyTest-{next(_names)}-{uuid.uuid4().hex[:6]}"
        d = quelt.sim.Device(name, behaviour=behaviour, **kwargs)
        added.append(radio.add_device(d))
        return d

    yield add
    for identifier in added:
        radio.remove_device(identifier)


def read_exactly(link, count, timeout=10.0):
    got = b""
    while len(got) < count:
        chunk = link.read(timeout=timeout)
        assert chunk, f"only {len(got)} of {count} bytes arrived"
        got += chunk
    return got
