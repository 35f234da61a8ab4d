#!/bin/sh
# qlt on the BlueZ backend against the mock bluetoothd, all in one run of the mock (started
# by tests/platform/bluez/run_with_mock_bus.sh): scans (the UART filter keeps the heart-rate
# sensor out; addresses and manufacturer data), an echo bench over each transport, a bench from
# the source, the adapters (and a missing one: exit 2), the known store, a chat with a device named by its address, and a bridge.
# Usage: on_mock_bluez.sh PATH-TO-QLT
set -eu
qlt=$1
export QLT_STORE_PATH="${QLT_MOCK_BLUEZ_DIR:-/tmp}/known.json"
$qlt scan --platform bluez --timeout 2 --json --manufacturer 0x59 |
  grep -q '"address":"C0:FF:EE:00:00:01".*"manufacturerData":{"0x0059":"0102","0xFFFF":"514c54"}.*"name":"QLT-Echo"'
nus=$(QLT_PLATFORM=bluez $qlt scan --nus --json --timeout 1.5)
echo "$nus" | grep -q '"name":"QLT-Chunk"'
if echo "$nus" | grep -q 'HR-Sensor'; then echo "scan --nus shows HR-Sensor" >&2; exit 1; fi
$qlt bench --platform bluez --device QLT-Echo --bytes 6000 --pings 3 --json |
  grep -q '"link":{"att_mtu":185,.*"max_write":182,.*"verified":true'
$qlt scan --platform bluez --adapters | grep -q '^hci1  00:01:02:03:04:06  off$'
code=0
$qlt scan --platform bluez --adapter hci7 --timeout 0.3 2>/dev/null || code=$?
test "$code" -eq 2
$qlt bench --platform bluez --device QLT-Chunk --transport nus --bytes 10k --pings 5 --json |
  grep -q '"verified":true'
$qlt bench --platform bluez -R --device QLT-Source -t 1 -i 0.5 --json | grep -q '"verified":true'
$qlt known add --platform bluez QLT-Echo | grep -q added
test "$($qlt known list | wc -l)" -eq 1
echo hello | $qlt chat --platform bluez c0:ff:ee:00:00:01 | grep -q '^< hello$'
bytes="${QLT_MOCK_BLUEZ_DIR:-/tmp}/bridge.bin"
head -c 20000 /dev/urandom >"$bytes"
$qlt bridge --platform bluez QLT-Echo <"$bytes" | cmp -s - "$bytes"
echo "qlt on the mock bluez: ok"
