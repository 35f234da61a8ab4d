#!/bin/sh
# Runs a command on a private system bus served by the mock bluetoothd (see README.md here).
# Usage: tests/platform/bluez/run_with_mock_bus.sh [--] CMD [ARGS...]; exits with CMD's code.
exec /usr/bin/python3 "$(dirname -- "$0")/mock_bluez.py" "$@"
