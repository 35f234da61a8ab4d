#!/bin/sh
# Run a command on a private system bus served by a mock bluetoothd (mock_bluez.py).
# Usage: tests/platform/bluez/run_with_mock_bus.sh [harness options] [--] CMD [ARGS...]
# Exits with CMD's exit code (125 when the bus or the mock could not be started).
# See README.md beside this script.
here=$(CDPATH= cd -- "$(dirname -- "$0")" && pwd)
exec /usr/bin/python3 "$here/bus_harness.py" "$@"
