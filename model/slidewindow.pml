/*
 * Go-back-N sliding window of the slide-window transport, as a Promela model.
 *
 * One direction of traffic is modelled: a sender (the engine's worker loop
 * and its receive: handler) sends NSEG "TCP" segments to a receiver (the
 * peer's receive: handler and its worker loop).  The payload of segment k is
 * k itself, so the receiver can assert that it delivers 0, 1, 2, ... in
 * order, with no gap and no repeat.
 *
 * Wire frames (payload bytes, datagrams and the header encoding are
 * abstracted away; a frame is a kind plus up to two small numbers):
 *   SEG(seq, k)   "TCP" segment with sequence seq carrying segment number k
 *   POLL(a, b)    status poll: oldest unacknowledged, next send sequence
 *   ACK(x)        cumulative acknowledgement of every segment before x
 *   REJ(x)        rejection: segment x is missing, send again from x
 *
 * Loss recovery follows the engine's rules against rejection storms:
 *   - the receiver sends one rejection per gap (an out-of-order segment opens
 *     a gap at R; it closes when R arrives), owes it once more if the gap
 *     persists (at most MAXREJ unsolicited rejections per gap, besides the
 *     answers to polls), and takes a copy of the segment accepted last
 *     (sequence R - 1) for no gap;
 *   - what the receiver owes (acknowledgement, rejection) waits in one slot
 *     that its worker writes with the receive sequence as it is then; a
 *     rejection whose gap has closed is dropped;
 *   - the sender honours a rejection once: after rewinding to segment i it
 *     ignores rejections of i or later until a hold expires (timing is
 *     abstracted: the hold may expire at any moment, and has expired when
 *     the retransmission timer does, which waits at least as long);
 *   - when the timer expires the sender sends the oldest unacknowledged
 *     segment again, then the poll.
 * The receiver asserts the bound: rejections written for one gap, other than
 * answers to polls, are at most MAXREJ.
 *
 * Both links keep order, but each may lose frames (shared budget LOSS) and
 * may hand the frame at their head over twice in a row (budget DUPS).  A
 * link also holds at most CAP frames and drops a frame put on it when full.
 * The budgets keep the state space finite and are what makes the progress
 * check meaningful: the link cannot choose to lose for ever, so every
 * infinite run ends up on a link that only drops what congestion forces it
 * to, and there the protocol must keep delivering and releasing segments
 * (progress labels mark both).  No fairness assumption is needed: the
 * progress check passes without weak fairness.
 *
 * Compile-time parameters (spin -DNAME=value):
 *   WINDOW  segments in flight at most (3 in the engine; 4 is the mutant
 *           that 2-bit sequence numbers cannot support)
 *   NSEG    segments the application sends
 *   LOSS    frames the links may lose, both directions together
 *   DUPS    frames the links may duplicate, both directions together
 *   CAP     frames a link holds; a frame put on a full link is dropped
 *   TRICKLE the application queues segments one by one while the transfer
 *           runs, instead of all of them before the first round
 *   POLL_ACK_ONLY  mutant: a poll whose window does not end at R goes
 *           unanswered instead of drawing a rejection
 *   MAXREJ  unsolicited rejections per gap (2 in the engine)
 *   LITERAL_REJECT  mutant: every out-of-order segment draws a rejection
 *           (the protocol's older rule); breaks the bound on rejections
 *   UNLOCKED_REWIND  let a rejection rewind the send sequence in the middle
 *           of a transfer round (receive: writes ackWindow without the
 *           queue lock); without it, handling a frame and a transfer round
 *           exclude each other
 */

#ifndef WINDOW
#define WINDOW 3
#endif
#ifndef NSEG
#define NSEG 6
#endif
#ifndef LOSS
#define LOSS 2
#endif
#ifndef DUPS
#define DUPS 1
#endif
#ifndef CAP
#define CAP WINDOW      /* frames a link holds: one window's worth */
#endif
#ifndef MAXREJ
#define MAXREJ 2
#endif

#define MOD 4

mtype = { SEG, POLL, ACK, REJ };

chan s2r = [CAP] of { mtype, byte, byte };   /* sender -> receiver */
chan r2s = [CAP] of { mtype, byte, byte };   /* receiver -> sender */

byte losses = LOSS;
byte dups = DUPS;

/* Sender: the queue holds segments readPos .. queued-1; the one at index i
 * carries sequence (readPos + i) mod 4.  ackWindow is the sequence the next
 * segment put on the wire will carry. */
#ifdef TRICKLE
byte queued = 0;        /* segments handed to sendTCP so far */
#else
byte queued = NSEG;     /* all of them before the first round */
#endif
byte readPos = 0;
byte ackWindow = 0;
bit  locked = 0;        /* the queue lock, held by transfer and ackReceived */
bit  hold = 0;          /* rejections of segment `rewound` or later are ignored */
byte rewound = 0;       /* the segment last rewound to */

/* Receiver */
byte remoteAck = 0;     /* next sequence expected */
byte delivered = 0;     /* segments delivered to the application */
bit  pending = 0;       /* an acknowledgement is owed */
byte rejOwed = 0;       /* a rejection is owed: bit 0 unsolicited, bit 1 a poll's answer */
byte rejSeq = 0;        /* ... for the gap at this sequence */
bit  gap = 0;           /* a gap stands at remoteAck */
byte gapRej = 0;        /* unsolicited rejections owed for it */
byte gapSent = 0;       /* unsolicited rejections written for it */

/* Segments in flight, as the engine computes it: modulo 4. */
#define INFLIGHT ((ackWindow + MOD - (readPos % MOD)) % MOD)
#define SOMETHING_IN_FLIGHT (ackWindow != readPos % MOD)
#define CAN_TRANSFER (readPos < queued && INFLIGHT < WINDOW && INFLIGHT < queued - readPos)
/* Every frame sent has arrived or been lost, and the receiver's worker has
 * written what it owed (its round is short against the poll's wait). */
#define QUIET (len(s2r) == 0 && len(r2s) == 0 && !pending && rejOwed == 0)

/* Put a frame on a link, or lose it while the loss budget lasts.  A link
 * holds at most CAP frames and drops what does not fit (see the note on
 * rejection storms in the README). */
inline put(ch, k, x, y) {
    if
    :: losses > 0 -> losses--
    :: len(ch) >= CAP -> skip
    :: len(ch) < CAP -> ch!k, x, y
    fi
}

/* Take the frame at the head of a link; while the duplication budget lasts
 * the link may leave it there, so that it is handed over again next. */
inline take(ch, k, x, y) {
    if
    :: dups > 0 -> dups--; ch?<k, x, y>
    :: true -> ch?k, x, y
    fi
}

/* The sender's worker loop: transfer, then checkControl.  (Its third step,
 * doPendingWork, concerns the reverse direction, which is not modelled.) */
proctype SenderWorker() {
    byte i, a;
end_idle:
    do
#ifndef UNLOCKED_REWIND
    /* transfer: every queued segment that fits in the window, in one step
     * with respect to frame handling. */
    :: atomic {
        CAN_TRANSFER ->
        i = INFLIGHT;
        do
        :: readPos + i >= queued || i >= WINDOW -> break
        :: else ->
            put(s2r, SEG, ackWindow, readPos + i);
            i++;
            ackWindow = (ackWindow + 1) % MOD
        od;
        i = 0
       }
#else
    /* transfer as the engine does it: inFlight is computed once under the
     * queue lock, but a rejection may rewind ackWindow between sends. */
    :: atomic { CAN_TRANSFER && !locked -> locked = 1; i = INFLIGHT };
        do
        :: readPos + i >= queued || i >= WINDOW -> break
        :: else ->
            /* the header is read and the frame written in one step */
            atomic { put(s2r, SEG, ackWindow, readPos + i) };
            i++;
            /* One step here.  In the engine a rewind landing inside this
             * read-modify-write is overwritten, which is no worse than a
             * lost rejection. */
            ackWindow = (ackWindow + 1) % MOD
        od;
        atomic { locked = 0; i = 0 }
#endif
    /* checkControl: the retransmission timer expires.
     *
     * Timing is abstracted: the timer may expire at any moment at which
     * something is in flight, the round's transfer had nothing to send, and
     * both links are quiet (every frame sent has arrived or been lost).  The
     * engine's timeout (0.3 s, restarted by every transmission and every
     * honoured answer) is long against a link round trip, so a poll that
     * overtakes the frames it asks about does not occur; allowing expiry
     * only on a quiet link also keeps polls from piling up without bound,
     * which would give non-progress cycles in which the sender does nothing
     * but poll.  Requiring that the round had nothing to send stands for
     * the timer restart on every transmission (and on every honoured
     * rejection, which is always followed by a resend); other restarts need
     * no modelling, since the expiry is nondeterministic anyway.  The two
     * reads of the poll are separate, as in the engine (no lock). */
    :: atomic {
        SOMETHING_IN_FLIGHT && !CAN_TRANSFER && QUIET ->
        a = readPos % MOD; hold = 0;
        /* the oldest segment goes again ahead of the poll */
        put(s2r, SEG, a, readPos)
       };
        atomic { put(s2r, POLL, a, ackWindow); a = 0 }
    /* the hold after a rewind expires (about a round trip later) */
    :: atomic { hold -> hold = 0 }
    od
}

/* The sender's receive: for acknowledgements and rejections. */
proctype SenderRx() {
    mtype k;
    byte x, y, a, b, n;
end_idle:
    do
    :: atomic {
        nempty(r2s) ->
        take(r2s, k, x, y);
        a = readPos % MOD; b = ackWindow;
        if :: b < a -> b = b + MOD :: else -> skip fi;
        if :: x < a -> x = x + MOD :: else -> skip fi;
        if
        :: k == ACK && a <= x && x <= b -> n = x - a
        :: k == REJ && a <= x && x < b ->
            /* honour a rejection once: not again for the same segment or a
             * later one while the hold lasts */
            if
            :: hold && readPos + x - a >= rewound -> skip
            :: else -> ackWindow = x % MOD; rewound = readPos + x - a; hold = 1
            fi
        :: else -> skip
        fi;
        k = 0; x = 0; y = 0; a = 0; b = 0
       }
        if
        :: n > 0 ->
            /* ackReceived: release n segments from the head of the queue */
            atomic {
                !locked ->
                readPos = readPos + n;
                /* nothing is released that the receiver has not delivered */
                assert(readPos <= delivered);
                n = 0
            };
progress_release:
            skip
        :: else -> skip
        fi
    od
}

/* The receiver's receive: for segments and polls.  Rejections and poll
 * answers leave at once; acknowledgements of accepted segments are owed to
 * the worker loop. */
proctype Receiver() {
    mtype k;
    byte x, y, r;
    bit got;
end_idle:
    do
    :: atomic {
        nempty(s2r) ->
        take(s2r, k, x, y);
        if
        :: k == SEG && x == remoteAck ->
            remoteAck = (remoteAck + 1) % MOD;
            /* exactly 0, 1, 2, ... : no gap, no repeat */
            assert(y == delivered);
            delivered++;
            pending = 1;
            got = 1;
            /* the gap closes; a rejection still owed for it is stale */
            gap = 0; gapRej = 0; gapSent = 0; rejOwed = 0; rejSeq = 0
        :: k == SEG && x != remoteAck ->
#ifdef LITERAL_REJECT
            gap = 1; rejOwed = rejOwed | 1; rejSeq = remoteAck
#else
            if
            :: x == (remoteAck + MOD - 1) % MOD -> pending = 1   /* a copy */
            :: x != (remoteAck + MOD - 1) % MOD && !gap ->
                gap = 1; gapRej = 1; rejOwed = rejOwed | 1; rejSeq = remoteAck
            :: x != (remoteAck + MOD - 1) % MOD && gap -> skip
            fi
#endif
        :: k == POLL ->
            /* answered only if a <= R <= b after unwrapping */
            r = remoteAck;
            if :: y < x -> y = y + MOD :: else -> skip fi;
            if :: r < x -> r = r + MOD :: else -> skip fi;
            if
            :: x <= r && r == y -> pending = 1
#ifndef POLL_ACK_ONLY
            :: x <= r && r < y ->
                if :: !gap -> gap = 1; gapRej = 0; gapSent = 0 :: else -> skip fi;
                rejOwed = rejOwed | 2; rejSeq = remoteAck
#endif
            :: else -> skip
            fi
        fi;
        k = 0; x = 0; y = 0; r = 0
       }
        if
        :: got ->
progress_deliver:
            got = 0
        :: else -> skip
        fi
    od
}

/* The receiver's worker loop, doPendingWork: a gap that persists owes one
 * more rejection, up to MAXREJ (timing abstracted: at any moment); then the
 * slot is taken and what it owes written with the receive sequence as it is
 * now, a rejection only if its gap still stands. */
proctype ReceiverWorker() {
end_idle:
    do
    :: atomic {
        gap && gapRej < MAXREJ && (rejOwed & 1) == 0 ->
        gapRej++; rejOwed = rejOwed | 1; rejSeq = remoteAck
       }
    :: atomic {
        pending || rejOwed != 0 ->
        if :: pending -> put(r2s, ACK, remoteAck, 0) :: else -> skip fi;
        if
        :: rejOwed != 0 && gap && rejSeq == remoteAck ->
            put(r2s, REJ, remoteAck, 0);
            if
            :: rejOwed & 1 ->
                gapSent++;
                /* the bound on rejections per gap */
                assert(gapSent <= MAXREJ)
            :: else -> skip
            fi
        :: else -> skip
        fi;
        pending = 0; rejOwed = 0; rejSeq = 0
       }
    od
}

#ifdef TRICKLE
/* The application queues one segment at a time, at any moment (sendTCP
 * appends under the queue lock). */
proctype App() {
    do
    :: atomic { queued < NSEG && !locked -> queued++ }
    :: queued == NSEG -> break
    od
}
#endif

init {
    atomic {
#ifdef TRICKLE
        run App();
#endif
        run SenderWorker();
        run SenderRx();
        run Receiver();
        run ReceiverWorker()
    };
    /* Nothing can move any more: every segment must have been delivered
     * and acknowledged. */
    timeout ->
    assert(readPos == NSEG && delivered == NSEG)
}
