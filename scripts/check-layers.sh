#!/usr/bin/env bash
# The layers hold: builds the probe translation units of src/CMakeLists.txt in a configured
# build tree. Each upward #include must fail to compile because the header is not found;
# each control (a header of the layer's own or of a layer below) must compile.
# Usage: scripts/check-layers.sh [build-dir]   (default build/default)
set -uo pipefail
build=${1:-build/default}
list=$build/layer-probes.txt
if [ ! -f "$list" ]; then
  echo "check-layers: $list not found; configure the build first" >&2
  exit 2
fi
failures=0
# A relative include that climbs out of its folder would go round the include path.
if grep -rn '#include "\.\./' src; then
  echo "FAIL  an #include climbs out of its folder with ../" >&2
  failures=$((failures + 1))
fi
while read -r target expect layer header; do
  output=$(cmake --build "$build" --target "$target" 2>&1)
  status=$?
  if [ "$expect" = FAILS ]; then
    if [ $status -ne 0 ] && grep -q 'No such file or directory\|file not found' <<<"$output"; then
      echo "ok    $layer cannot include $header"
    else
      echo "FAIL  $layer includes $header, which belongs to a layer above it" >&2
      failures=$((failures + 1))
    fi
  elif [ $status -eq 0 ]; then
    echo "ok    $layer includes $header"
  else
    echo "FAIL  $layer cannot include its own $header:" >&2
    echo "$output" | tail -5 >&2
    failures=$((failures + 1))
  fi
done <"$list"
if [ $failures -ne 0 ]; then
  echo "check-layers: $failures probe(s) failed" >&2
  exit 1
fi
echo "check-layers: every layer sees only itself and the layers below"
