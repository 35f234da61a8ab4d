#!/bin/sh
# Sliding-window echoes over the BlueZ backend against the mock bluetoothd, whose device end is
# the independent Python peer (tests/platform/bluez/slide_window.py), under seeded air loss.
# Each run is `qlt bench` on a private bus of its own; the mock reports what its peer sent.
#
# Usage: bench/mock_bus_loss.sh [SEEDS [BYTES [LOSS...]]]
#   SEEDS  runs per loss setting (default 10)      BYTES  echoed per run (default 100000)
#   LOSS   QLT_MOCK_LOSS settings (default: notify=0.05  write=0.05,notify=0.05
#          write=0.2,notify=0.2); the seed is added to each
# Prints one line per run and a summary per setting; exits 1 if a run did not complete or sent
# more than one segment again (both ends together) per segment delivered.
# QLT_BIN: the qlt binary (default build/default/tools/qlt/qlt).
set -u
root=$(cd "$(dirname -- "$0")/.." && pwd)
qlt=${QLT_BIN:-$root/build/default/tools/qlt/qlt}
seeds=${1:-10}
bytes=${2:-100000}
[ $# -gt 2 ] && shift 2 || set -- notify=0.05 write=0.05,notify=0.05 write=0.2,notify=0.2
[ -x "$qlt" ] || { echo "mock_bus_loss: no qlt binary at $qlt (build it, or set QLT_BIN)" >&2; exit 2; }
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
for loss in "$@"; do
  seed=1
  while [ "$seed" -le "$seeds" ]; do
    QLT_MOCK_LOSS="$loss,seed=$seed" QLT_MOCK_REPORT="$work/mock.json" timeout 600 \
      "$root/tests/platform/bluez/run_with_mock_bus.sh" -- "$qlt" bench --platform bluez \
      --device QLT-Echo --bytes "$bytes" --pings 0 --timeout 60 --json >"$work/qlt.json" 2>"$work/qlt.log"
    echo "$?" >"$work/rc"
    /usr/bin/python3 - "$loss" "$seed" "$work" <<'PY' | tee -a "$work/runs"
import json, sys
loss, seed, work = sys.argv[1:]
rc = int(open(work + '/rc').read())
try:
    q = json.loads(open(work + '/qlt.json').read().strip().splitlines()[-1])
except (IndexError, ValueError):
    q = {}
try:
    m = json.load(open(work + '/mock.json'))['QLT-Echo']
except (OSError, ValueError, KeyError):
    m = {}
ok = rc == 0 and q.get('verified', False)
resent = q.get('retransmissions', 0) + m.get('resent', 0)
delivered = m.get('accepted', 0) + m.get('sent', 0) - m.get('resent', 0)
print(json.dumps({'loss': loss, 'seed': int(seed), 'completed': ok, 'seconds': q.get('seconds', 0),
                  'goodput_Bps': q.get('goodput_Bps', 0), 'resent_library': q.get('retransmissions', 0),
                  'resent_device': m.get('resent', 0), 'delivered': delivered,
                  'resent_per_delivered': round(resent / delivered, 3) if delivered else None,
                  'lost_writes': m.get('lost-writes', 0), 'lost_notifications': m.get('lost-notifications', 0),
                  'polls_sent': q.get('polls_sent', 0), 'rejections_sent': q.get('rejections_sent', 0),
                  'rejections_received': q.get('rejections_received', 0)}))
PY
    seed=$((seed + 1))
  done
done
/usr/bin/python3 - "$work/runs" <<'PY'
import json, statistics, sys
runs = [json.loads(l) for l in open(sys.argv[1])]
bad = 0
print('%-22s %5s %9s %22s %26s' % ('loss', 'runs', 'completed', 'seconds min/med/max', 'resent per delivered med/max'))
for loss in dict.fromkeys(r['loss'] for r in runs):
    rs = [r for r in runs if r['loss'] == loss]
    done = [r for r in rs if r['completed']]
    ratios = [r['resent_per_delivered'] or 0 for r in done]
    secs = [r['seconds'] for r in done] or [0]
    bad += len(rs) - len(done) + sum(x > 1 for x in ratios)
    print('%-22s %5d %9d %6.2f /%6.2f /%6.2f %12.3f / %.3f' % (loss, len(rs), len(done), min(secs), statistics.median(secs),
                                                       max(secs), statistics.median(ratios or [0]), max(ratios or [0])))
sys.exit(1 if bad else 0)
PY
