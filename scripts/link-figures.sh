#!/usr/bin/env bash
# The README's table of goodput against the link's physical limit: qlt bench on every named
# link profile, for the sliding window and for the chunker (a 64 kB echo each, every byte
# checked), printed as Markdown rows. Usage: scripts/link-figures.sh [BUILD_DIR] [BYTES]
# (default build/default, 64KiB), built already.
set -euo pipefail
cd "$(dirname "$0")/.."
qlt=${1:-build/default}/tools/qlt/qlt
bytes=${2:-64KiB}
profiles=$("$qlt" bench --help | sed -n '/--profile/,/--interval-ms/ s/^ *\([a-z0-9-]*\): .*/\1/p')

echo "| profile | transport | goodput | physical limit | share of it | the transport's bound | |"
echo "| --- | --- | --- | --- | --- | --- | --- |"
for profile in $profiles; do
  for transport in sw nus; do
    out=$("$qlt" bench --platform sim --profile "$profile" --transport "$transport" \
      --bytes "$bytes" --pings 0 --json 2>/dev/null) || true
    python3 - "$profile" "$transport" "$out" <<'PY'
import json, sys
profile, transport, out = sys.argv[1:]
try:
    j = json.loads(out)
except ValueError:
    print(f"| {profile} | {transport} | refused: the link's MTU is below the window's 124 | | | | |")
    sys.exit()
g, p, b = j["goodput_Bps"], j["physical_limit_Bps"], j["bound_Bps"]
share = f"{g / p:.2f}" if p else ""
note = "" if j["verified"] else "NOT verified: " + j.get("problem", "")
print(f"| {profile} | {transport} | {g / 1000:.1f} kB/s | {p / 1000:.1f} kB/s | {share} "
      f"| {b / 1000:.1f} kB/s | {note} |")
PY
  done
done
