#!/usr/bin/python3
"""Sliding-window echoes over the BlueZ backend against the mock bluetoothd under seeded air loss.

The mock's device end is the independent Python peer (tests/platform/bluez/slide_window.py),
which keeps the protocol's literal rules (a rejection for every segment out of order, polls
0.3 s after its last transmission). Each run is `qlt bench` on a private bus of its own; the
mock reports what its peer sent and received. Prints one JSON line per run and a summary per
loss setting; exits 1 if a run did not complete or if more than one segment was sent again
(both ends together) per segment delivered.

    bench/mock_bus_loss.py [--seeds 10] [--bytes 100000] [--loss write=0.05,notify=0.05 ...]
"""
import argparse, json, os, statistics, subprocess, sys, tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_LOSS = ['notify=0.05', 'write=0.05,notify=0.05', 'write=0.2,notify=0.2']


def run(qlt, loss, seed, size, work):
    report = os.path.join(work, 'mock.json')
    env = dict(os.environ, QLT_MOCK_LOSS='%s,seed=%d' % (loss, seed), QLT_MOCK_REPORT=report)
    cmd = [os.path.join(ROOT, 'tests/platform/bluez/run_with_mock_bus.sh'), '--', qlt, 'bench', '--platform',
           'bluez', '--device', 'QLT-Echo', '--bytes', str(size), '--pings', '0', '--timeout', '60', '--json']
    try:
        done = subprocess.run(cmd, env=env, capture_output=True, text=True, timeout=900)
        lines, code = done.stdout.strip().splitlines(), done.returncode
    except subprocess.TimeoutExpired:
        lines, code = [], -1
    q = json.loads(lines[-1]) if lines else {}
    try:
        with open(report, encoding='utf-8') as f:
            m = json.load(f).get('QLT-Echo', {})
        os.remove(report)
    except (OSError, ValueError):
        m = {}
    resent = q.get('retransmissions', 0) + m.get('resent', 0)
    delivered = m.get('accepted', 0) + m.get('sent', 0) - m.get('resent', 0)  # both ways
    return {'loss': loss, 'seed': seed, 'completed': code == 0 and q.get('verified', False),
            'seconds': q.get('seconds', 0), 'goodput_Bps': q.get('goodput_Bps', 0),
            'resent_library': q.get('retransmissions', 0), 'resent_device': m.get('resent', 0),
            'delivered': delivered, 'resent_per_delivered': round(resent / delivered, 3) if delivered else None,
            'lost_writes': m.get('lost-writes', 0), 'lost_notifications': m.get('lost-notifications', 0),
            'polls_library': q.get('polls_sent', 0), 'polls_device': m.get('polls', 0)}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    parser.add_argument('--seeds', type=int, default=10, help='runs per loss setting (seeds 1..N)')
    parser.add_argument('--bytes', type=int, default=100000, help='bytes echoed per run')
    parser.add_argument('--loss', action='append', help='a QLT_MOCK_LOSS setting (repeatable)')
    parser.add_argument('--qlt', default=os.environ.get('QLT_BIN', os.path.join(ROOT, 'build/default/tools/qlt/qlt')))
    args = parser.parse_args()
    if not os.access(args.qlt, os.X_OK):
        print('mock_bus_loss: no qlt binary at %s (build it, or pass --qlt)' % args.qlt, file=sys.stderr)
        return 2
    runs = []
    with tempfile.TemporaryDirectory() as work:
        for loss in args.loss or DEFAULT_LOSS:
            for seed in range(1, args.seeds + 1):
                runs.append(run(args.qlt, loss, seed, args.bytes, work))
                print(json.dumps(runs[-1]), flush=True)
    bad = 0
    print('%-22s %4s %9s %24s %28s' % ('loss', 'runs', 'completed', 'seconds min / med / max',
                                       'resent per delivered med / max'))
    for loss in dict.fromkeys(r['loss'] for r in runs):
        rs = [r for r in runs if r['loss'] == loss]
        ok = [r for r in rs if r['completed']]
        ratios, secs = [r['resent_per_delivered'] or 0 for r in ok] or [0], [r['seconds'] for r in ok] or [0]
        bad += len(rs) - len(ok) + sum(x > 1 for x in ratios)
        print('%-22s %4d %9d %7.2f / %5.2f / %5.2f %17.3f / %.3f' % (
            loss, len(rs), len(ok), min(secs), statistics.median(secs), max(secs), statistics.median(ratios),
            max(ratios)))
    return 1 if bad else 0


if __name__ == '__main__':
    sys.exit(main())
