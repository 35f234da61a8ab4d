#!/usr/bin/env bash
# Model-checks the sliding-window protocol model (slidewindow.pml) with spin.
#
# Checks, each with the verdict it must reach:
#   1. safety, window 3                       no assertion fails, no bad end state
#   2. safety, window 3, queue filled late    same
#   3. progress, window 3                     no non-progress cycle
#   4. mutant: window 4                       a safety counterexample is found
#   5. mutant: polls answered only by acks    a non-progress cycle is found
#   6. rejection rewinding during a transfer  a safety counterexample is found
#      round (receive: without the lock)      (a race of the engine; see README)
#   7. mutant: a rejection for every          the bound on rejections per gap fails
#      out-of-order segment (the older rule)
#
# Then the wide window, negotiated (widewindow.pml):
#   8. safety and progress of the negotiation with data both ways, a classic device,
#      a classic central, a declining device, the extended window alone with two losses and
#      a slow reader
#   9. mutants: a two-way handshake, no drain before switching, a sequence space
#      smaller than twice the window, a device that answers unasked
#
# And the session across dropped links (widewindow.pml with DROPS):
#  10. safety across two drops (a segment each way, a loss), two drops with a hold time
#      passing while down, a device that forgets and comes back classic, frames of the old
#      link refused on the next; progress
#  11. mutants: a device that resumes from its own offset, a driver that hands the core
#      frames of an earlier link; and the core's rules before three fixes the model found
#      (sent_end recomputed at every drop, offsets counted from the session's start, a
#      resumed device that stops asking after three ANSWERs)
#
# Exit status 0 means every check reached its expected verdict.
# Set KEEP_TMP=1 to keep the work directory (pan sources and trails). The checks run
# MODEL_JOBS at a time (default: the CPUs), each in a directory of its own; their reports
# come in the order above once all have ended.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
model=slidewindow.pml

for tool in spin gcc; do
    command -v "$tool" >/dev/null || { echo "check.sh: $tool not found" >&2; exit 2; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/slidewindow.XXXXXX")
if [[ "${KEEP_TMP:-0}" == 1 ]]; then
    echo "work directory: $work"
else
    trap 'rm -rf "$work"' EXIT
fi
cp "$here/$model" "$here/widewindow.pml" "$work/"
cd "$work"

# pan memory limit in MB; the largest check stores about 8 million states.
memlim=4096
failures=0

jobs=${MODEL_JOBS:-$(nproc 2>/dev/null || echo 1)}

# run_check NAME EXPECT MODE MODEL_DEFINES...
#   EXPECT: pass (no error allowed) or a pattern the error report must match
#   MODE:   safety or progress
#   opt=-O0 before it: compile pan unoptimised (seconds less for a search of a few
#   hundred thousand states or fewer)
# Starts the check in the background once fewer than $jobs run; its report goes to
# check<N>/report, and check<N>/failed marks a wrong verdict.
run_check() {
    local dir="check$((++count))"
    mkdir "$dir"
    cp "$model" "$dir/"
    while (($(jobs -rp | wc -l) >= jobs)); do wait -n || true; done
    check_in "$dir" "$@" >"$dir/report" 2>&1 &
}

check_in() {
    local dir=$1 name=$2 expect=$3 mode=$4
    shift 4
    local cflags=("${opt:--O2}" "-DMEMLIM=$memlim" ${extra_cflags:-}) runflags=(-m2000000)
    if [[ $mode == safety ]]; then
        cflags+=(-DSAFETY)
    else
        cflags+=(-DNP)
        runflags+=(-l)
    fi

    local start out status=0 verdict detail
    start=$(date +%s%N)
    (cd "$dir" && spin "$@" -a "$model" >spin.log 2>&1) \
        || { echo "FAIL  $name: spin -a failed:"; cat "$dir/spin.log"; touch "$dir/failed"; return; }
    (cd "$dir" && gcc "${cflags[@]}" -o pan pan.c >gcc.log 2>&1) \
        || { echo "FAIL  $name: pan did not compile:"; cat "$dir/gcc.log"; touch "$dir/failed"; return; }
    out=$(cd "$dir" && ./pan "${runflags[@]}" 2>&1) || status=$?
    printf '%s\n' "$out" >"$dir/pan.log"
    local ms=$((($(date +%s%N) - start) / 1000000))

    local errors states first
    errors=$(grep -oE 'errors: [0-9]+' <<<"$out" | grep -oE '[0-9]+' || true)
    states=$(grep -oE '[0-9.e+]+ states, stored' <<<"$out" | grep -oE '^[0-9.e+]+' || true)
    first=$(grep -m1 -E '^pan:[0-9]+: ' <<<"$out" | sed -E 's/^pan:[0-9]+: //' || true)

    if [[ -z $errors || -z $states ]]; then
        verdict=FAIL
        detail="pan ended abnormally (status $status); see below"
    elif grep -qE 'reached -DMEMLIM bound|out of memory|max search depth too small' <<<"$out"; then
        verdict=FAIL
        detail="search incomplete (memory or depth limit)"
    elif [[ $expect == pass ]]; then
        if [[ $errors == 0 ]]; then
            verdict=PASS
            detail="no errors"
        else
            verdict=FAIL
            detail="unexpected error: $first"
        fi
    else
        if [[ $errors != 0 ]] && grep -qE "$expect" <<<"$first"; then
            verdict=PASS
            detail="caught: $first"
        elif [[ $errors != 0 ]]; then
            verdict=FAIL
            detail="wrong error: $first"
        else
            verdict=FAIL
            detail="not caught"
        fi
    fi
    printf '%-4s  %s: %s; %s states stored; %d.%01d s\n' \
        "$verdict" "$name" "$detail" "$states" $((ms / 1000)) $((ms % 1000 / 100))
    if [[ $verdict != PASS ]]; then
        touch "$dir/failed"
        tail -n 40 "$dir/pan.log"
        echo "      replay (with KEEP_TMP=1): cd $work/$dir && spin $* -t -p $model"
    fi
}
count=0

delivery='assertion violated .*(y==delivered|readPos<=delivered)'

run_check "safety, window 3 (5 segments, 1 loss, 1 duplicate)" \
    pass safety -DWINDOW=3 -DNSEG=5 -DLOSS=1 -DDUPS=1
run_check "safety, window 3, segments queued one by one (4, 1 loss, 1 duplicate)" \
    pass safety -DWINDOW=3 -DNSEG=4 -DLOSS=1 -DDUPS=1 -DTRICKLE
run_check "progress, window 3 (5 segments, 1 loss, 1 duplicate)" \
    pass progress -DWINDOW=3 -DNSEG=5 -DLOSS=1 -DDUPS=1
run_check "mutant window 4" \
    "$delivery" safety -DWINDOW=4 -DNSEG=6 -DLOSS=2 -DDUPS=1
run_check "mutant: polls answered only by acknowledgements" \
    'non-progress cycle' progress -DWINDOW=3 -DNSEG=6 -DLOSS=1 -DDUPS=1 -DPOLL_ACK_ONLY
run_check "engine race: rejection rewinds ackWindow during a transfer round" \
    "$delivery" safety -DWINDOW=3 -DNSEG=6 -DLOSS=1 -DDUPS=0 -DUNLOCKED_REWIND
run_check "mutant: a rejection for every out-of-order segment" \
    'assertion violated .*gapSent' safety -DWINDOW=3 -DNSEG=5 -DLOSS=1 -DDUPS=1 -DLITERAL_REJECT

# The wide window: larger state vectors, so pan stores them compressed.
model=widewindow.pml
extra_cflags=-DCOLLAPSE
nego_any='assertion violated'
run_check "wide: negotiation, 2 segments from the central (1 loss, 1 duplicate)" \
    pass safety -DNSEG0=2 -DSPURIOUS=0
run_check "wide: negotiation, 1 segment each way (1 loss, 1 duplicate)" \
    pass safety -DNSEG0=1 -DNSEG1=1 -DSPURIOUS=0
run_check "wide: progress, negotiation, 1 segment each way (1 loss)" \
    pass progress -DNSEG0=1 -DNSEG1=1 -DSPURIOUS=0 -DDUPS=0
run_check "wide: a classic device" \
    pass safety -DNSEG0=2 -DCLASSIC_DEVICE
run_check "wide: a classic central" \
    pass safety -DNSEG0=0 -DNSEG1=2 -DCLASSIC_CENTRAL
run_check "wide: a device that declines" \
    pass safety -DNSEG0=1 -DNSEG1=1 -DDEV_DECLINES -DSPURIOUS=0
run_check "wide: extended window, 4 segments, 2 losses, 1 duplicate, 1 spurious resend" \
    pass safety -DSTART_EXTENDED -DNSEG0=4 -DLOSS=2
run_check "wide: extended window, a slow reader (flow control)" \
    pass safety -DSTART_EXTENDED -DNSEG0=4 -DSLOW_READER
run_check "wide: progress, extended window, 3 segments, 3 slots" \
    pass progress -DSTART_EXTENDED -DNSEG0=3 -DRSLOTS=3 -DXMOD=6
run_check "wide mutant: the device switches on answering (no CONFIRM)" \
    'assertion violated .*neg\[0\]==1' safety -DNSEG0=1 -DNSEG1=1 -DTWO_WAY -DSPURIOUS=0
run_check "wide mutant: extended segments before the classic ones are acknowledged" \
    "$nego_any" safety -DNSEG0=2 -DNO_DRAIN -DSPURIOUS=0
run_check "wide mutant: sequence space 3 for a window of 2" \
    'assertion violated .*heldK' safety -DSTART_EXTENDED -DNSEG0=4 -DXMOD=3
run_check "wide mutant: a device that answers unasked, to a classic central" \
    'assertion violated .*k==5' safety -DNSEG0=0 -DNSEG1=1 -DCLASSIC_CENTRAL -DANNOUNCE

# The session across dropped links: the application takes each delivery at once and the
# negotiation repeats less (the extended window's flow control and repeats are checked
# above), so that two drops fit.
session=(-DEAGER_READER -DSPURIOUS=0 -DOFFERS=2 -DREPEATS=1 -DDUPS=0)
delivered_once='assertion violated .*(heldK|delivered|sentEnd)'
run_check "session: resumed across two drops, a segment each way (1 loss)" \
    pass safety "${session[@]}" -DNSEG0=1 -DNSEG1=1 -DLOSS=1 -DDROPS=2
run_check "session: two drops, a hold time passes at either end while down" \
    pass safety "${session[@]}" -DNSEG0=1 -DNSEG1=1 -DLOSS=0 -DDROPS=2 -DFORGETS=1
opt=-O0 run_check "session: the device forgets and comes back classic (1 loss)" \
    pass safety "${session[@]}" -DNSEG0=1 -DNSEG1=1 -DLOSS=1 -DDROPS=1 -DFORGETS=1 -DRESTART_CLASSIC
opt=-O0 run_check "session: frames of the old link arrive on the next and are refused" \
    pass safety "${session[@]}" -DNSEG0=1 -DNSEG1=1 -DLOSS=0 -DDROPS=1 -DSTALE
run_check "session: progress across a drop (1 loss)" \
    pass progress "${session[@]}" -DNSEG0=1 -DNSEG1=1 -DLOSS=1 -DDROPS=1
opt=-O0 run_check "session mutant: the device resumes from its own acknowledged offset" \
    "$delivered_once" safety "${session[@]}" -DNSEG0=0 -DNSEG1=2 -DLOSS=0 -DDROPS=1 -DRESUME_OWN_VIEW
opt=-O0 run_check "session mutant: the driver hands the core a frame of an earlier link" \
    'assertion violated .*xUna\[e\]<=delivered' safety "${session[@]}" -DNSEG0=2 -DLOSS=0 -DDROPS=1 \
    -DSTALE -DNO_LINK_FILTER
opt=-O0 run_check "session, the core's old rule: sent_end recomputed at every drop" \
    "$delivered_once" safety "${session[@]}" -DNSEG0=0 -DNSEG1=2 -DLOSS=0 -DDROPS=2 -DSENT_END_RESET
opt=-O0 run_check "session, the core's old rule: offsets counted from the session's start" \
    'assertion violated' safety "${session[@]}" -DNSEG0=0 -DNSEG1=2 -DLOSS=0 -DDROPS=2 -DFORGETS=1 \
    -DOFFSETS_FROM_SESSION
opt=-O0 run_check "session, the core's old rule: a resumed device stops asking after its repeats" \
    'assertion violated .*nseg\[0\]' safety "${session[@]}" -DNSEG0=0 -DNSEG1=1 -DLOSS=2 -DDROPS=1 \
    -DANSWER_REPEATS_BOUNDED

wait
for ((i = 1; i <= count; i++)); do
    cat "check$i/report"
    if [[ -e "check$i/failed" ]]; then failures=$((failures + 1)); fi
done

if ((failures > 0)); then
    echo "check.sh: $failures check(s) did not reach the expected verdict"
    exit 1
fi
echo "check.sh: all checks reached the expected verdict"
