#!/usr/bin/python3
# -*- coding: utf-8 -*-
"""Private system bus with a mock bluetoothd, for tests of the BlueZ backend.

As a module:

    with MockBus() as mb:                  # dbus-daemon + mock_bluez.py, default devices
        env = mb.env                       # os.environ + DBUS_SYSTEM_BUS_ADDRESS etc.
        subprocess.run(cmd, env=env)
        mb.restart_mock()                  # kill bluetoothd and start it again

As a program (see run_with_mock_bus.sh):

    bus_harness.py [--no-default-devices] [--device A,N,B,R ...] [--keep-dir] [--] CMD [ARGS...]

starts the bus and the mock, runs CMD with DBUS_SYSTEM_BUS_ADDRESS pointing at the
private bus, tears everything down (also on failure or a signal) and exits with
CMD's exit code. Harness failures exit with 125.

Variables exported to CMD:
    DBUS_SYSTEM_BUS_ADDRESS   unix:path=<tmpdir>/system_bus_socket
    QLT_MOCK_BLUEZ_DIR        the temporary directory (bus config, logs)
    QLT_MOCK_BLUEZ_LOG        the mock's log file
    QLT_MOCK_BLUEZ_PID        the mock's process id (stable across its Restart() method)
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON = '/usr/bin/python3'
MOCK_SCRIPT = os.path.join(HERE, 'mock_bluez.py')
DBUS_DAEMON = shutil.which('dbus-daemon') or '/usr/bin/dbus-daemon'
HARNESS_FAILURE = 125

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<!-- Private system-like bus for tests: anyone may own, send and receive anything. -->
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow send_destination="*"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


class HarnessError(RuntimeError):
    pass


def _bus_call(address, method, *args, signature=''):
    """Call a method of the bus daemon itself; returns the reply arguments (no main loop needed)."""
    import dbus  # deferred: only /usr/bin/python3 has it
    conn = dbus.bus.BusConnection(address)
    try:
        return conn.call_blocking('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus',
                                  method, signature, args, timeout=2.0)
    finally:
        conn.close()


def _wait(predicate, timeout, what, proc=None):
    deadline = time.monotonic() + timeout
    while True:
        try:
            if predicate():
                return
        except Exception:  # the bus may not accept connections yet
            pass
        if proc is not None and proc.poll() is not None:
            raise HarnessError(f'{what}: process exited with code {proc.returncode}')
        if time.monotonic() > deadline:
            raise HarnessError(f'timed out after {timeout:.0f} s waiting for {what}')
        time.sleep(0.02)


def _stop_process(proc, grace=3.0):
    if proc is None or proc.poll() is not None:
        return
    proc.terminate()
    try:
        proc.wait(grace)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


def _stop_group(proc, grace=3.0):
    """Terminate the process group led by proc (then kill it if it lingers)."""
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(proc.pid, sig)
        except ProcessLookupError:
            return
        try:
            proc.wait(grace)
        except subprocess.TimeoutExpired:
            continue
        # The leader is gone; give the rest of its group the same signal's chance.
        time.sleep(0.05)
        try:
            os.killpg(proc.pid, 0)
        except ProcessLookupError:
            return


class MockBus:
    """A private dbus-daemon with mock_bluez.py on it.

    devices: list of (address, name, behaviour, rssi) put on the air in addition
    to the default set (QLT-Echo, QLT-Chunk, HR-Sensor) unless default_devices is False.
    """

    def __init__(self, default_devices=True, devices=(), keep_dir=False, startup_timeout=20.0):
        self.default_devices = default_devices
        self.devices = list(devices)
        self.keep_dir = keep_dir
        self.startup_timeout = startup_timeout
        self.dir = None
        self.address = None
        self.daemon = None
        self.mock = None
        self.mock_log = None
        self._mock_log_file = None

    # ------------------------------------------------------------------ life cycle

    def start(self):
        try:
            self.dir = tempfile.mkdtemp(prefix='qlt-bluez-')
            socket_path = os.path.join(self.dir, 'system_bus_socket')
            config = os.path.join(self.dir, 'bus.conf')
            with open(config, 'w', encoding='utf-8') as f:
                f.write(BUS_CONFIG.format(socket=socket_path))
            self.address = 'unix:path=' + socket_path
            with open(os.path.join(self.dir, 'dbus-daemon.log'), 'wb') as daemon_log:
                self.daemon = subprocess.Popen(
                    [DBUS_DAEMON, '--config-file=' + config, '--nofork', '--nopidfile', '--nosyslog'],
                    stdin=subprocess.DEVNULL, stdout=daemon_log, stderr=subprocess.STDOUT)
            _wait(lambda: _bus_call(self.address, 'GetId'), self.startup_timeout,
                  'the private dbus-daemon', self.daemon)
            self.mock_log = os.path.join(self.dir, 'mock_bluez.log')
            self.start_mock()
        except BaseException:
            self.stop()
            raise
        return self

    def start_mock(self):
        """Start mock_bluez.py and wait until it owns org.bluez."""
        args = [PYTHON, '-u', MOCK_SCRIPT]
        if self.default_devices:
            args.append('--default-devices')
        for dev in self.devices:
            args += ['--device', ','.join(str(x) for x in dev)]
        self._mock_log_file = open(self.mock_log, 'ab')  # pylint: disable=consider-using-with
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address)
        env.pop('QLT_MOCK_BLUEZ_WORLD', None)
        self.mock = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=self._mock_log_file,
                                     stderr=subprocess.STDOUT, env=env)
        self.wait_for_bluez()

    def wait_for_bluez(self, timeout=None):
        _wait(lambda: self.name_has_owner('org.bluez'), timeout or self.startup_timeout,
              'org.bluez on the private bus (see ' + str(self.mock_log) + ')', self.mock)

    def name_has_owner(self, name):
        return bool(_bus_call(self.address, 'NameHasOwner', name, signature='s'))

    def stop_mock(self):
        _stop_process(self.mock)
        self.mock = None
        if self._mock_log_file is not None:
            self._mock_log_file.close()
            self._mock_log_file = None

    def restart_mock(self, downtime=0.2):
        """Kill bluetoothd outright (as a crash would), wait, start it again; returns once it is back."""
        if self.mock is not None:
            self.mock.kill()
            self.mock.wait()
        self.stop_mock()
        _wait(lambda: not self.name_has_owner('org.bluez'), 5.0, 'org.bluez to vanish')
        time.sleep(downtime)
        self.start_mock()

    def stop(self):
        self.stop_mock()
        _stop_process(self.daemon)
        self.daemon = None
        if self.dir and not self.keep_dir:
            shutil.rmtree(self.dir, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
        return False

    # ------------------------------------------------------------------ for clients

    @property
    def env(self):
        env = dict(os.environ)
        env.update({
            'DBUS_SYSTEM_BUS_ADDRESS': self.address,
            'QLT_MOCK_BLUEZ_DIR': self.dir,
            'QLT_MOCK_BLUEZ_LOG': self.mock_log,
            'QLT_MOCK_BLUEZ_PID': str(self.mock.pid if self.mock else ''),
        })
        return env

    def log_tail(self, lines=40):
        try:
            with open(self.mock_log, encoding='utf-8', errors='replace') as f:
                return ''.join(f.readlines()[-lines:])
        except OSError:
            return ''

    def run(self, cmd):
        """Run cmd on the private bus; returns its exit code (128+N for signal N).

        cmd runs in a process group of its own, which is killed whole if the
        harness is interrupted, so nothing it started outlives the bus.
        """
        child = subprocess.Popen(cmd, env=self.env, process_group=0)  # pylint: disable=consider-using-with
        try:
            code = child.wait()
        except BaseException:
            _stop_group(child)
            raise
        return 128 - code if code < 0 else code


class _Terminated(Exception):
    pass


def _on_signal(signum, _frame):
    raise _Terminated(signum)


def main(argv=None):
    import argparse
    parser = argparse.ArgumentParser(
        description='Run a command on a private system bus served by a mock bluetoothd.')
    parser.add_argument('--no-default-devices', action='store_true',
                        help='do not put QLT-Echo, QLT-Chunk and HR-Sensor on the air')
    parser.add_argument('--device', action='append', default=[], metavar='ADDR,NAME,BEHAVIOUR,RSSI',
                        help='an extra device on the air (repeatable)')
    parser.add_argument('--keep-dir', action='store_true', help='keep the temporary directory (logs)')
    parser.add_argument('cmd', nargs=argparse.REMAINDER, help='command to run')
    args = parser.parse_args(argv)
    cmd = args.cmd[1:] if args.cmd[:1] == ['--'] else args.cmd
    if not cmd:
        parser.error('no command given')

    signal.signal(signal.SIGTERM, _on_signal)
    signal.signal(signal.SIGHUP, _on_signal)
    devices = [d.split(',') for d in args.device]
    bus = MockBus(default_devices=not args.no_default_devices, devices=devices, keep_dir=args.keep_dir)
    code = HARNESS_FAILURE
    try:
        bus.start()
        code = bus.run(cmd)
        if code != 0:
            sys.stderr.write(f'bus_harness: command exited with {code}; last lines of the mock log:\n'
                             f'{bus.log_tail()}')
    except HarnessError as e:
        sys.stderr.write(f'bus_harness: {e}\n')
        if bus.mock_log:
            sys.stderr.write(bus.log_tail())
    except (_Terminated, KeyboardInterrupt) as e:
        sys.stderr.write(f'bus_harness: interrupted ({e}), tearing down\n')
        code = 130
    finally:
        bus.stop()
        if args.keep_dir and bus.dir:
            sys.stderr.write(f'bus_harness: kept {bus.dir}\n')
    return code


if __name__ == '__main__':
    sys.exit(main())
