#!/usr/bin/env bash
# The README's table of goodput against the link's physical limit: qlt bench on every named
# link profile whose ATT MTU carries a classic frame, the classic window beside the extended
# one, at 0 %, 1 % and 5 % host drops, as an echo and one way (the source device's stream),
# every byte checked; printed as Markdown rows. The share is goodput / the link's limit (values
# as large as a write may be, each with a 3-byte header); "resent per lost" is the extended
# window's segments sent again per segment the radio dropped (the host's in an echo, the
# device's one way). Usage: scripts/link-figures.sh [BUILD_DIR] [BYTES] (default
# build/default, 256KiB), built already.
set -euo pipefail
cd "$(dirname "$0")/.."
qlt=${1:-build/default}/tools/qlt/qlt
bytes=${2:-256KiB}
profiles=$("$qlt" bench --help | sed -n '/--profile/,/--interval-ms/ s/^ *\([a-z0-9-]*\): .*/\1/p')

bench() {  # profile direction loss window -> one JSON line, or nothing
  local args=(bench --platform sim --profile "$1" --bytes "$bytes" --pings 0 --json --loss "$3")
  [ "$2" = "one way" ] && args+=(-R)
  [ "$4" = classic ] && args+=(--classic-window)
  "$qlt" "${args[@]}" 2>/dev/null || true
}

echo "| profile | traffic | drops | link limit | classic | extended | extended resent per lost |"
echo "| --- | --- | --- | --- | --- | --- | --- |"
for profile in $profiles; do
  for direction in echo "one way"; do
    for loss in 0 0.01 0.05; do
      classic=$(bench "$profile" "$direction" "$loss" classic)
      extended=$(bench "$profile" "$direction" "$loss" extended)
      if [ -z "$classic$extended" ]; then  # the profile's MTU refuses the window: one row
        echo "| $profile | | | refused: the link's MTU is below the classic frame's 124 | | | |"
        continue 3
      fi
      python3 - "$profile" "$direction" "$loss" "$classic" "$extended" <<'PY'
import json, sys
profile, direction, loss, classic, extended = sys.argv[1:]
def load(text):
    try:
        return json.loads(text)
    except ValueError:
        return None
c, e = load(classic), load(extended)
def share(j):
    if j is None or not j["verified"]:
        return "NOT verified" + ("" if j is None else ": " + j.get("problem", ""))
    limit = j["link_limit_Bps"]
    return f"{j['goodput_Bps'] / 1000:.1f} kB/s ({j['goodput_Bps'] / limit:.2f})" if limit else ""
limit = (e or c)["link_limit_Bps"]
window = "" if e is None or e["window"] == "extended" else f" [{e['window']}]"
resent = "" if e is None or not e["segments_lost"] else \
    f"{e['resent_per_lost']:.2f} ({e['segments_lost']} lost)"
print(f"| {profile} | {direction} | {float(loss):.0%} | {limit / 1000:.1f} kB/s | {share(c)} "
      f"| {share(e)}{window} | {resent} |")
PY
    done
  done
done
