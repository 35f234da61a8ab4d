/*
 * The wide window, negotiated: a Promela model of docs/wide-window.md.
 *
 * Two ends, a central (end 0) and a device (end 1), joined by two FIFO links
 * that may lose frames (budget LOSS) and hand the frame at their head over
 * twice (budget DUPS).  Each end may send a stream of segments (NSEG0 from the
 * central, NSEG1 from the device); segment k carries k, so a receiver asserts
 * that it delivers 0, 1, 2, ... exactly once and in order.
 *
 * Each end is one process, as the protocol core is: a frame handled, or one
 * step of a round, is one atomic step.  What is modelled:
 *
 *   Negotiation.  The central writes OFFER first (before any segment), again
 *   at any moment while it waits (at most 3 in all), and gives up (CLASSIC) at
 *   any moment after the first: the wait W is abstracted.  The device answers
 *   every OFFER (the same answer every time), or declines (-DDEV_DECLINES);
 *   repeats its ANSWER at most twice while no CONFIRM came; takes CONFIRM, or
 *   any extended frame from the central, as the confirmation.  The central
 *   answers an ANSWER with CONFIRM when it took it, DECLINE when it gave up.
 *   A classic end (-DCLASSIC_DEVICE, -DCLASSIC_CENTRAL) ignores control types
 *   3-7 and asserts that it never receives anything but OFFERs and classic
 *   frames.
 *
 *   Switching.  An end switches its send direction when it knows the peer
 *   accepts extended frames (the central on taking an ANSWER, the device when
 *   confirmed): no new classic segment, wait until the classic ones in flight
 *   are acknowledged, then extended from the next segment on.
 *
 *   Classic window (simplified: the full rules are slidewindow.pml's): window
 *   3, sequences modulo 4, cumulative acknowledgements of every segment,
 *   the oldest unacknowledged segment sent again when the timer expires.
 *
 *   Extended window: sequences modulo XMOD, at most XWIN segments in flight,
 *   a receiver with RSLOTS slots that advertises room (RSLOTS minus what the
 *   application has not read) and an ACK with a received map and a poll's
 *   token; the sender's loss rules (a later once-sent segment acknowledged;
 *   an answer to a poll that leaves out a segment sent before it), POLLs when
 *   quiet, a window edge that never moves back; the application reads at any
 *   moment (-DSLOW_READER: only while the sender is stopped by a closed
 *   window).  SPURIOUS extra retransmissions of any
 *   segment in flight stand for a retransmission rule that errs: safety must
 *   not depend on the rule being exact.
 *
 *   A restart (budget RESTARTS): the device restarts, the link drops, and a
 *   new one starts: both links are emptied, both ends start afresh
 *   (negotiation and streams); -DRESTART_CLASSIC makes the device come back
 *   classic.  Frames of an old link never reach the new one (the driver's
 *   duty, see docs/wide-window.md).
 *
 * Timing is abstracted as in slidewindow.pml: a timer (classic resend, POLL)
 * expires only when both links are empty and the peer owes nothing, which
 * keeps polls from piling up.
 *
 * Properties: the delivery assertions; no end receives a frame it did not
 * agree to (an extended frame at a classic end or before agreement, a
 * CONFIRM/DECLINE/ANSWER out of role); nothing released that was not
 * delivered; at the end (global timeout), everything delivered and released;
 * progress (with -DNP): no cycle without a delivery or a release.
 *
 * Mutants (each must fail): -DTWO_WAY (the device switches on answering,
 * without waiting for CONFIRM), -DNO_DRAIN (extended segments start while
 * classic ones are in flight), -DXMOD=2*XWIN-1 (a sequence space smaller than
 * twice the window), -DANNOUNCE (the device writes its ANSWER unasked).
 */

#ifndef NSEG0
#define NSEG0 3
#endif
#ifndef NSEG1
#define NSEG1 0
#endif
#ifndef LOSS
#define LOSS 1
#endif
#ifndef DUPS
#define DUPS 1
#endif
#ifndef XWIN
#define XWIN 2          /* the sender's send slots */
#endif
#ifndef RSLOTS
#define RSLOTS 2        /* the receiver's slots: its advertised window */
#endif
#ifndef XMOD
#define XMOD (2 * XWIN) /* extended sequence space */
#endif
#ifndef SPURIOUS
#define SPURIOUS 1
#endif
#ifndef RESTARTS
#define RESTARTS 0
#endif
#ifndef CAP
#define CAP 3
#endif
#ifndef OFFERS
#define OFFERS 3        /* OFFERs a central writes at most */
#endif
#ifndef REPEATS
#define REPEATS 2       /* ANSWERs a device writes again at most */
#endif

#define CEN 0
#define DEV 1
#define CMOD 4
#define CWIN 3

/* negotiation states; central: OFFERING, EXTENDED, CLASSIC;
 * device: WAITING, ANSWERED, CONFIRMED, DECLINED */
#define OFFERING 0
#define EXTENDED 1
#define CLASSIC 2
#define WAITING 0
#define ANSWERED 1
#define CONFIRMED 2
#define DECLINED 3
/* send modes */
#define SCLASSIC 0
#define SDRAIN 1
#define SEXT 2

mtype = { OFFER, ANSWER, CONFIRM, DECLINE, CSEG, CACK, XSEG, XACK, XPOLL };

/* link[0]: central -> device; link[1]: device -> central.  Fields: kind and
 * up to four small numbers (XACK: next, room, map, token; ANSWER: ok). */
chan link[2] = [CAP] of { mtype, byte, byte, byte, byte };

byte losses = LOSS;
byte dups = DUPS;
byte spurious = SPURIOUS;
byte restarts = RESTARTS;

bit  capable[2];
byte neg[2];
byte offers, answerRepeats;
bit  answerOwed, confirmOwed, declineOwed;

/* sender, per end */
byte nseg[2];
byte smode[2];
byte cUna[2], cNext[2];          /* classic: segment indices */
byte base[2];                    /* the first extended segment's index */
byte xUna[2], xNext[2], edge[2]; /* extended: indices */
byte acked[2];                   /* bit k: segment k acknowledged */
byte twice[2];                   /* bit k: segment k sent more than once */
byte stamp[16];                  /* [end * 8 + k]: last transmission's stamp */
byte ctr[2], seen[2], pollStamp[2];

/* receiver, per end (of the peer's stream) */
byte delivered[2];
byte cR[2];
bit  xStarted[2];
byte rNext[2];                   /* sequence expected */
byte held[2];                    /* bit s: sequence s held */
byte heldK[16];                  /* [end * 8 + s]: its payload */
byte unread[2], lastEdge[2];
bit  ackOwed[2], cackOwed[2];
byte tokOwed[2];

#define PEER(e) (1 - (e))
#define ROOM(e) (RSLOTS - unread[e])
#define QUIET(e) (len(link[0]) == 0 && len(link[1]) == 0 && !ackOwed[PEER(e)] && \
                  !cackOwed[PEER(e)] && !answerOwed && !confirmOwed && !declineOwed)
#define CAN_TAKE_EXT(e) ((e == DEV && (neg[DEV] == ANSWERED || neg[DEV] == CONFIRMED)) || \
                         (e == CEN && neg[CEN] == EXTENDED))
/* A round has something to send (the timers expire only when it has not). */
#define CAN_SEND_CLASSIC(e) (smode[e] == SCLASSIC && cNext[e] < nseg[e] && cNext[e] - cUna[e] < CWIN && \
                             (e == DEV || !capable[CEN] || offers > 0))
#define CAN_SEND_NEW(e) (smode[e] == SEXT && xNext[e] < nseg[e] && xNext[e] < edge[e] && \
                         xNext[e] - xUna[e] < XWIN)
#define SEQ(e, k) (((k) - base[e]) % XMOD)
#define ISLOST(e, k) ((k) >= xUna[e] && (k) < xNext[e] && ((acked[e] >> (k)) & 1) == 0 && \
                      stamp[(e) * 8 + (k)] < seen[e])
#define LOSTANY(e) (ISLOST(e, 0) || ISLOST(e, 1) || ISLOST(e, 2) || ISLOST(e, 3) || \
                    ISLOST(e, 4) || ISLOST(e, 5) || ISLOST(e, 6) || ISLOST(e, 7))

inline put(e, k, a, b, c, d) {
    if
    :: losses > 0 -> losses--
    :: len(link[e]) >= CAP -> skip
    :: len(link[e]) < CAP -> link[e]!k, a, b, c, d
    fi
}

inline take(e, k, a, b, c, d) {
    if
    :: dups > 0 -> dups--; link[e]?<k, a, b, c, d>
    :: true -> link[e]?k, a, b, c, d
    fi
}

/* Start an end's connection afresh. */
inline fresh(e) {
    neg[e] = 0; smode[e] = SCLASSIC; cUna[e] = 0; cNext[e] = 0; base[e] = 0;
    xUna[e] = 0; xNext[e] = 0; edge[e] = 0; acked[e] = 0; twice[e] = 0;
    ctr[e] = 0; seen[e] = 0; pollStamp[e] = 0;
    delivered[e] = 0; cR[e] = 0; xStarted[e] = 0; rNext[e] = 0; held[e] = 0;
    unread[e] = 0; lastEdge[e] = RSLOTS; ackOwed[e] = 0; cackOwed[e] = 0; tokOwed[e] = 0;
    i = 0;
    do
    :: i < 8 -> stamp[e * 8 + i] = 0; heldK[e * 8 + i] = 0; i++
    :: else -> break
    od;
    i = 0
}

inline startSwitch(e) {
#ifdef NO_DRAIN
    smode[e] = SEXT; base[e] = cNext[e]; xUna[e] = base[e]; xNext[e] = base[e];
    edge[e] = base[e] + RSLOTS
#else
    smode[e] = SDRAIN
#endif
}

/* Send segment k again. */
inline resend(e, k) {
    ctr[e]++; stamp[e * 8 + k] = ctr[e]; twice[e] = twice[e] | (1 << k);
    put(e, XSEG, SEQ(e, k), k, 0, 0);
    i = 0
}

/* Deliver the held run from rNext on. */
inline deliverRun(e) {
    do
    :: (held[e] >> rNext[e]) & 1 ->
        assert(heldK[e * 8 + rNext[e]] == delivered[e]);
        delivered[e]++;
        unread[e]++;
        held[e] = held[e] & ~(1 << rNext[e]);
        rNext[e] = (rNext[e] + 1) % XMOD;
        got = 1
    :: else -> break
    od
}

proctype End(byte e) {
    mtype k;
    byte a, b, c, d, d2, i, m, n;
    bit got, rel;
    byte p = PEER(e);

end_idle:
    do
    /* ---------- a frame from the peer ---------- */
    :: atomic {
        nempty(link[p]) ->
        take(p, k, a, b, c, d);
        if
        :: !capable[e] ->
            /* a classic end: only classic frames, and OFFERs at a device */
            assert(k == CSEG || k == CACK || (k == OFFER && e == DEV))
        :: else -> skip
        fi;
        if
        :: k == OFFER && capable[e] ->
            assert(e == DEV);
            if
            :: neg[DEV] == WAITING ->
#ifdef DEV_DECLINES
                neg[DEV] = DECLINED;
#else
                neg[DEV] = ANSWERED;
#ifdef TWO_WAY
                startSwitch(DEV);
#endif
#endif
                answerOwed = 1
            :: neg[DEV] != WAITING -> answerOwed = 1
            fi
        :: k == ANSWER ->
            assert(e == CEN && capable[CEN] && offers > 0);
            if
            :: neg[CEN] == OFFERING && a -> neg[CEN] = EXTENDED; confirmOwed = 1; startSwitch(CEN)
            :: neg[CEN] == OFFERING && !a -> neg[CEN] = CLASSIC
            :: neg[CEN] == EXTENDED && a -> confirmOwed = 1
            :: neg[CEN] == CLASSIC && a -> declineOwed = 1
            :: else -> skip
            fi
        :: k == CONFIRM ->
            assert(e == DEV && capable[DEV]);
            if
            :: neg[DEV] == ANSWERED -> neg[DEV] = CONFIRMED;
#ifndef TWO_WAY
                startSwitch(DEV)
#endif
            :: else -> skip
            fi
        :: k == DECLINE ->
            assert(e == DEV && capable[DEV]);
            assert(neg[DEV] != CONFIRMED);
            if
            :: neg[DEV] == ANSWERED -> neg[DEV] = DECLINED
            :: else -> skip
            fi
        :: k == CSEG ->
            if
            :: xStarted[e] -> skip     /* classic copies after the switch */
            :: !xStarted[e] && a == cR[e] ->
                assert(b == delivered[e]);
                delivered[e]++; got = 1;
                cR[e] = (cR[e] + 1) % CMOD; cackOwed[e] = 1
            :: !xStarted[e] && a != cR[e] -> cackOwed[e] = 1
            fi
        :: k == CACK ->
            /* in the window: from cUna up to cNext */
            n = (a + CMOD - cUna[e] % CMOD) % CMOD;
            if
            :: n > 0 && n <= cNext[e] - cUna[e] ->
                cUna[e] = cUna[e] + n; rel = 1;
                assert(cUna[e] <= delivered[p])
            :: else -> skip
            fi
        :: k == XSEG ->
            /* only to an end that agreed; the device takes it as the confirmation */
            assert(CAN_TAKE_EXT(e));
            if
            :: e == DEV && neg[DEV] == ANSWERED -> neg[DEV] = CONFIRMED;
#ifndef TWO_WAY
                startSwitch(DEV)
#endif
            :: else -> skip
            fi;
            xStarted[e] = 1;
            n = (a + XMOD - rNext[e]) % XMOD;
            if
            :: n >= ROOM(e) || ((held[e] >> a) & 1) -> skip   /* a copy, or beyond the edge */
            :: else ->
                held[e] = held[e] | (1 << a); heldK[e * 8 + a] = b;
                deliverRun(e)
            fi;
            ackOwed[e] = 1
        :: k == XPOLL ->
            assert(CAN_TAKE_EXT(e));
            if
            :: e == DEV && neg[DEV] == ANSWERED -> neg[DEV] = CONFIRMED;
#ifndef TWO_WAY
                startSwitch(DEV)
#endif
            :: else -> skip
            fi;
            ackOwed[e] = 1; tokOwed[e] = a
        :: k == XACK ->
            /* only an end whose send direction is extended is answered so */
            assert(smode[e] == SEXT);
            n = (a + XMOD - SEQ(e, xUna[e])) % XMOD;   /* segments released by `next` */
            m = xUna[e] + n;                            /* their end, as an index */
            /* map bits for segments never sent make the ACK contradictory */
            if
            :: n <= xNext[e] - xUna[e] && m < xNext[e] -> d2 = c >> (xNext[e] - m - 1)
            :: n <= xNext[e] - xUna[e] && m >= xNext[e] -> d2 = c
            :: else -> d2 = 1
            fi;
            if
            :: d2 == 0 ->
                /* release up to m; the map marks m + 1 + i */
                i = xUna[e];
                do
                :: i < xNext[e] ->
                    if
                    :: (i < m || (i > m && ((c >> (i - m - 1)) & 1))) && ((acked[e] >> i) & 1) == 0 ->
                        acked[e] = acked[e] | (1 << i);
                        if
                        :: ((twice[e] >> i) & 1) == 0 && stamp[e * 8 + i] > seen[e] ->
                            seen[e] = stamp[e * 8 + i]
                        :: else -> skip
                        fi
                    :: else -> skip
                    fi;
                    i++
                :: else -> break
                od;
                i = 0;
                if
                :: m > xUna[e] -> xUna[e] = m; rel = 1; assert(xUna[e] <= delivered[p])
                :: else -> skip
                fi;
                if :: m + b > edge[e] -> edge[e] = m + b :: else -> skip fi;
                /* an answer to the last poll: what was sent before it and is not acknowledged is lost */
                if
                :: d != 0 && d == pollStamp[e] && pollStamp[e] > seen[e] -> seen[e] = pollStamp[e]
                :: else -> skip
                fi
            :: else -> skip   /* outside the window, or contradictory */
            fi
        :: else -> skip       /* a classic end ignores control types 3-7 */
        fi;
        k = 0; a = 0; b = 0; c = 0; d = 0; d2 = 0; n = 0; m = 0
       }
        if
        :: got -> got = 0;
progress_deliver:
            skip
        :: rel -> rel = 0;
progress_release:
            skip
        :: else -> skip
        fi

    /* ---------- negotiation writes ---------- */
    :: atomic {
        e == CEN && capable[CEN] && neg[CEN] == OFFERING && offers < OFFERS ->
        offers++; put(CEN, OFFER, 0, 0, 0, 0)
       }
    :: atomic { e == CEN && capable[CEN] && neg[CEN] == OFFERING && offers > 0 -> neg[CEN] = CLASSIC }
    :: atomic { e == CEN && confirmOwed -> confirmOwed = 0; put(CEN, CONFIRM, 0, 0, 0, 0) }
    :: atomic { e == CEN && declineOwed -> declineOwed = 0; put(CEN, DECLINE, 0, 0, 0, 0) }
    :: atomic {
        e == DEV && answerOwed ->
        answerOwed = 0; put(DEV, ANSWER, neg[DEV] != DECLINED, 0, 0, 0)
       }
    :: atomic { e == DEV && neg[DEV] == ANSWERED && answerRepeats < REPEATS -> answerRepeats++; answerOwed = 1 }
#ifdef ANNOUNCE
    :: atomic { e == DEV && capable[DEV] && neg[DEV] == WAITING -> neg[DEV] = ANSWERED; answerOwed = 1 }
#endif

    /* ---------- the classic send direction ---------- */
    :: atomic {
        CAN_SEND_CLASSIC(e) ->
        put(e, CSEG, cNext[e] % CMOD, cNext[e], 0, 0); cNext[e]++
       }
    :: atomic {
        smode[e] != SEXT && cNext[e] > cUna[e] && QUIET(e) && !CAN_SEND_CLASSIC(e) ->
        put(e, CSEG, cUna[e] % CMOD, cUna[e], 0, 0)
       }
    :: atomic {
        smode[e] == SDRAIN && cUna[e] == cNext[e] ->
        smode[e] = SEXT; base[e] = cNext[e]; xUna[e] = base[e]; xNext[e] = base[e];
        edge[e] = base[e] + RSLOTS
       }

    /* ---------- the extended send direction ---------- */
    :: atomic {
        /* the lowest lost segment goes again */
        smode[e] == SEXT && LOSTANY(e) ->
        i = xUna[e];
        do
        :: ISLOST(e, i) -> break
        :: else -> i++
        od;
        resend(e, i)
       }
    :: atomic {
        /* a retransmission rule that errs: any segment in flight again (budget) */
        smode[e] == SEXT && xUna[e] < xNext[e] && spurious > 0 ->
        spurious--; i = xUna[e];
        do
        :: break
        :: i + 1 < xNext[e] -> i++
        od;
        if
        :: ((acked[e] >> i) & 1) == 0 -> resend(e, i)
        :: else -> i = 0
        fi
       }
    :: atomic {
        CAN_SEND_NEW(e) ->
        ctr[e]++; stamp[e * 8 + xNext[e]] = ctr[e];
        put(e, XSEG, SEQ(e, xNext[e]), xNext[e], 0, 0);
        xNext[e]++
       }
    :: atomic {
        /* the poll: something in flight (it takes a stamp: what was sent before it
         * and is not in its answer is lost) */
        smode[e] == SEXT && QUIET(e) && !LOSTANY(e) && !CAN_SEND_NEW(e) && xUna[e] < xNext[e] ->
        ctr[e]++; pollStamp[e] = ctr[e];
        put(e, XPOLL, ctr[e], 0, 0, 0)
       }
    :: atomic {
        /* the poll against a closed window, nothing in flight (no new stamp: it
         * can find nothing lost, and the model stays finite however long the
         * application does not read) */
        smode[e] == SEXT && QUIET(e) && xUna[e] == xNext[e] && xNext[e] < nseg[e] &&
        xNext[e] >= edge[e] ->
        pollStamp[e] = ctr[e];
        put(e, XPOLL, ctr[e], 0, 0, 0)
       }

    /* ---------- the receiving side's owed frames, and the application ---------- */
    :: atomic {
        ackOwed[e] ->
        /* the map: bit i for sequence rNext + 1 + i */
        m = 0; i = 0;
        do
        :: i < XMOD - 1 ->
            if :: (held[e] >> ((rNext[e] + 1 + i) % XMOD)) & 1 -> m = m | (1 << i) :: else -> skip fi;
            i++
        :: else -> break
        od;
        put(e, XACK, rNext[e], ROOM(e), m, tokOwed[e]);
        lastEdge[e] = delivered[e] + ROOM(e);
        ackOwed[e] = 0; tokOwed[e] = 0; m = 0; i = 0
       }
    :: atomic { cackOwed[e] -> cackOwed[e] = 0; put(e, CACK, cR[e], 0, 0, 0) }
    :: atomic {
#ifdef SLOW_READER
        unread[e] > 0 && xNext[p] >= edge[p] && xNext[p] < nseg[p] ->
#else
        unread[e] > 0 ->
#endif
        unread[e]--;
        if
        :: xStarted[e] && delivered[e] + ROOM(e) >= lastEdge[e] + (RSLOTS + 1) / 2 -> ackOwed[e] = 1
        :: else -> skip
        fi
       }

    /* ---------- the device restarts; a new link ---------- */
    :: atomic {
        e == DEV && restarts > 0 ->
        restarts--;
        do
        :: nempty(link[0]) -> link[0]?k, a, b, c, d
        :: nempty(link[1]) -> link[1]?k, a, b, c, d
        :: empty(link[0]) && empty(link[1]) -> break
        od;
        k = 0; a = 0; b = 0; c = 0; d = 0;
        fresh(CEN); fresh(DEV);
        offers = 0; answerRepeats = 0; answerOwed = 0; confirmOwed = 0; declineOwed = 0;
#ifdef RESTART_CLASSIC
        capable[DEV] = 0
#endif
       }
    od
}

init {
    atomic {
        capable[CEN] = 1; capable[DEV] = 1;
#ifdef CLASSIC_DEVICE
        capable[DEV] = 0;
#endif
#ifdef CLASSIC_CENTRAL
        capable[CEN] = 0;
#endif
        nseg[CEN] = NSEG0; nseg[DEV] = NSEG1;
        lastEdge[0] = RSLOTS; lastEdge[1] = RSLOTS;
#ifdef START_EXTENDED
        /* the negotiation is over before the first segment: both directions extended */
        neg[CEN] = EXTENDED; neg[DEV] = CONFIRMED; offers = 1;
        smode[CEN] = SEXT; smode[DEV] = SEXT;
        edge[CEN] = RSLOTS; edge[DEV] = RSLOTS;
#endif
        run End(CEN);
        run End(DEV)
    };
    timeout ->
    /* nothing can move any more: every segment delivered and released */
    assert(delivered[DEV] == nseg[CEN] && delivered[CEN] == nseg[DEV]);
    assert(cUna[CEN] + xUna[CEN] - base[CEN] == nseg[CEN]);
    assert(cUna[DEV] + xUna[DEV] - base[DEV] == nseg[DEV])
}
