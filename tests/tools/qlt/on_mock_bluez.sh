#!/bin/sh
# qlt on the BlueZ backend against the mock bluetoothd (run by tests/platform/bluez/run_with_mock_bus.sh).
# Usage: on_mock_bluez.sh PATH-TO-QLT
set -eu
qlt=$1
export QLT_STORE_PATH="${QLT_MOCK_BLUEZ_DIR:-/tmp}/known.json"
$qlt scan --platform bluez --timeout 2 --json | grep -q '"name":"QLT-Echo"'
$qlt bench --platform bluez --device QLT-Echo --bytes 6000 --pings 3 --json | grep -q '"verified":true'
$qlt known add --platform bluez QLT-Echo | grep -q added
test "$($qlt known list | wc -l)" -eq 1
echo hello | $qlt chat --platform bluez QLT-Echo | grep -q '^< hello$'
echo "qlt on the mock bluez: ok"
