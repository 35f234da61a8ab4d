import os
import threading
import time

import pytest
from conftest import read_exactly

import quelt


def test_scan_reports_what_devices_advertise_and_filters(device):
    tagged = device(manufacturer_data={0x0059: b"\x01\x02"}, service_data={"180d": b"\x48"},
                    tx_power=-4, address="c0:ff:ee:12:34:56")
    hr = device(behaviour="none", heart_rate=True)

    seen = {d.name: d for d in quelt.scan(timeout=0.6)}
    d = seen[tagged.name]
    assert d.address == "C0:FF:EE:12:34:56"
    assert d.manufacturer_data == {0x0059: b"\x01\x02"}
    assert d.service_data == {"0000180d-0000-1000-8000-00805f9b34fb": b"\x48"}
    assert d.tx_power == -4
    assert "6e400001-b5a3-f393-e0a9-e50e24dcca9e" in d.service_uuids
    assert -80 < d.rssi < -40

    only = quelt.scan(timeout=0.4, name=tagged.name.lower())
    assert [x.name for x in only] == [tagged.name]
    assert hr.name in {x.name for x in quelt.scan(timeout=0.4, service="180D")}
    assert tagged.name not in {x.name for x in quelt.scan(timeout=0.4, service="180D")}
    with pytest.raises(ValueError):
        quelt.scan(timeout=0.1, service="not-a-uuid")


@pytest.mark.parametrize("behaviour,window", [("sw-echo", True), ("chunk-echo", False)])
def test_echo_arrives_whole_and_in_order(device, behaviour, window):
    d = device(behaviour=behaviour)
    payload = os.urandom(3000)  # many segments (120 bytes) or chunks (20 bytes)
    with quelt.UartLink(d.name, sliding_window=window) as link:
        assert link.state == quelt.State.CONNECTED
        assert link.info["transport"] == ("window" if window else "chunker")
        link.send(payload[:1000])
        link.send(bytearray(payload[1000:2000]))
        link.send(memoryview(payload)[2000:])
        assert read_exactly(link, len(payload)) == payload
    assert link.state == quelt.State.DISCONNECTED
    with pytest.raises(quelt.NotConnected):
        link.send(b"x")


def test_lost_link_wakes_a_waiting_read_with_link_lost(device, radio):
    d = device()
    states = []
    told = threading.Event()

    def on_state(state, error):
        # The callback may look at the link: it is not called under the link's lock.
        states.append((state, error, link.state))
        if state == quelt.State.LOST:
            told.set()

    with quelt.UartLink(d.name) as link:
        link.on_state_change(on_state)
        threading.Timer(0.3, radio.drop_link, (d.identifier,)).start()
        start = time.monotonic()
        with pytest.raises(quelt.LinkLost, match="lost") as lost:
            link.read(timeout=None)
        assert time.monotonic() - start >= 0.25
        assert isinstance(lost.value, quelt.Error)
        assert link.state == quelt.State.LOST
        assert "lost" in link.last_error
        assert told.wait(10)  # the callback runs on the link's queue, maybe after read woke
    assert any(s == quelt.State.LOST and "lost" in e for s, e, _ in states)


def test_received_bytes_reach_a_callback_instead_of_read(device):
    d = device()
    got = []
    arrived = threading.Event()

    def on_receive(data):
        got.append(data)
        if sum(map(len, got)) >= 500:
            arrived.set()

    with quelt.UartLink(d.name) as link:
        link.on_receive(on_receive)
        link.send(b"a" * 500)
        assert arrived.wait(10)
        assert b"".join(got) == b"a" * 500
        assert link.read(timeout=0.05) == b""
        link.on_receive(None)
        link.send(b"back to read")
        assert read_exactly(link, 12) == b"back to read"


def test_errors_carry_the_librarys_messages(radio):
    with pytest.raises(quelt.NotFound, match="no device named Nobody-Here within"):
        quelt.UartLink("Nobody-Here", timeout=0.3).connect()
    with pytest.raises(TypeError):
        quelt.UartLink("x").send(12)
    with pytest.raises(ValueError, match="behaviour"):
        quelt.sim.Device("x", behaviour="juggle")
    before = len(radio.devices)
    with pytest.raises(ValueError):
        radio.load_config_string("{ not json")
    assert len(radio.devices) == before


def test_sim_faults_are_survived_by_the_window(device, radio):
    d = device(identifier="0FA17000-0000-4000-8000-000000000001",
               faults=quelt.sim.Faults(seed=7, lost_writes=0.2, lost_notifications=0.2))
    payload = os.urandom(3000)
    with quelt.UartLink(d.name) as link:
        link.send(payload)
        assert read_exactly(link, len(payload), timeout=20) == payload
    stats = radio.stats(d.identifier)
    assert stats["writes_lost"] + stats["notifications_lost"] > 0, stats


def test_bounded_send_and_flush(device):
    d = device(behaviour="sw-sink", faults=quelt.sim.Faults(connection_interval=0.01))
    with quelt.UartLink(d.name, send_buffer=1000) as link:
        assert link.send(b"x" * 5000, timeout=0) == 1000  # what fits, without waiting
        assert link.try_send(b"y") == 0
        assert link.unacknowledged == 1000
        assert link.flush(timeout=10)
        assert link.unacknowledged == 0
        assert link.send(b"z" * 3000) == 3000  # waits for room as the device acknowledges
        assert link.info["att_mtu"] > 23


def test_reconnect_brings_a_dropped_link_back(device, radio):
    d = device()
    states = []
    back = threading.Event()

    def on_state(state, error):
        states.append(state)
        if state == quelt.State.CONNECTED:
            back.set()

    with quelt.UartLink(d.name, reconnect=True) as link:
        link.on_state_change(on_state)
        radio.drop_link(d.identifier)
        assert back.wait(10)
        link.send(b"after the drop")
        assert read_exactly(link, 14) == b"after the drop"
        assert (link.info["drops"], link.info["reconnects"]) == (1, 1)
    assert states[:2] == [quelt.State.RECONNECTING, quelt.State.CONNECTED]


def test_a_radio_from_a_json_file_and_its_power_switch(radio, tmp_path):
    saved, faults = radio.devices, radio.faults
    config = tmp_path / "radio.json"
    config.write_text('{"powered": true, "faults": {"seed": 3}, "devices": [{"identifier": '
                      '"51D0E001-0000-4000-8000-0000000000AA", "name": "From-Json", '
                      '"behaviour": "chunk-echo"}]}')
    try:
        radio.load_config(str(config))
        assert [d.name for d in radio.devices] == ["From-Json"]
        with quelt.UartLink("From-Json", sliding_window=False) as link:
            link.send(b"json")
            assert read_exactly(link, 4) == b"json"
        radio.powered = False
        with pytest.raises(quelt.Unavailable):
            quelt.scan(timeout=0.3)
    finally:
        radio.powered = True
        radio.remove_all_devices()
        for d in saved:
            radio.add_device(d)
        radio.faults = faults
