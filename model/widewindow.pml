/*
 * The wide window, negotiated, and its session across dropped links: a Promela
 * model of docs/wide-window.md.
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
 *   3, sequences modulo 4 from 0 on every link, cumulative acknowledgements of
 *   every segment, the oldest unacknowledged segment sent again when the
 *   timer expires.
 *
 *   Extended window: sequences modulo XMOD, at most XWIN segments in flight,
 *   a receiver with RSLOTS slots that advertises room (RSLOTS minus what the
 *   application has not read) and an ACK with a received map and a poll's
 *   token; the sender's loss rules (a later once-sent segment acknowledged;
 *   an answer to a poll that leaves out a segment sent before it), POLLs when
 *   quiet, a window edge that never moves back; the application reads at any
 *   moment (-DSLOW_READER: only while the sender is stopped by a closed
 *   window; -DEAGER_READER: at once).  SPURIOUS extra retransmissions of any
 *   segment in flight stand for a retransmission rule that errs: safety must
 *   not depend on the rule being exact.
 *
 *   The session.  Each end keeps, across links, its stream (segments queued
 *   and not acknowledged), the session's identity (the two nonces) and the
 *   core's offsets: `acked` (this end's stream acknowledged in the session),
 *   `sent_end`, `received` (the peer's stream accepted in the session).  The
 *   link drops at any moment (budget DROPS, chosen at the start: a run may use
 *   fewer): both ends end the link (qlt_sw_link_lost), a held session may be
 *   forgotten (qlt_sw_forget_session, the hold time passed, budget FORGETS;
 *   -DRESTART_CLASSIC: the device that forgot comes back without the
 *   extension), and both start the next link (qlt_sw_link_up).  Frames in
 *   transit are lost with the hosts' queues, or (-DSTALE) handed over on the
 *   next link, where the driver refuses them by their link number.  On the
 *   next link the central offers RESUME with its received offset and holds its
 *   data until the answer or W; the device holding a session holds its data
 *   until the central's first frame or W, resumes only when the nonces match
 *   and the offset lies in its acked .. sent_end, answers RESUMED with its own
 *   received offset and holds its data until confirmed; the central takes
 *   RESUMED when its offset fits likewise.  Otherwise a new session: the bytes
 *   sent and not acknowledged are in doubt and dropped, the rest goes on.
 *
 * Timing is abstracted as in slidewindow.pml: a timer (classic resend, POLL)
 * expires only when both links are empty and the peer owes nothing, which
 * keeps polls from piling up; the waits W (the central's for an answer, the
 * device's for the central's first frame) end at any moment.
 *
 * Properties: each delivery is the next segment, or the first segment after
 * a range its sender dropped as in doubt when the delivered one lies in it
 * (nothing twice, nothing out of order, nothing skipped that was not reported);
 * a session is lost only with what the peer has between the acknowledged
 * offset and sent_end (the bytes in doubt are exactly the ones it may or may
 * not have); no end receives a frame it did not agree to (an extended frame at
 * a classic end or before agreement, a CONFIRM/DECLINE/ANSWER out of role);
 * nothing released that was not delivered; at the end (global timeout),
 * everything released and delivered (up to a range in doubt at the end of a
 * stream); progress (with -DNP): no cycle without a delivery or a release.
 *
 * Mutants (each must fail): -DTWO_WAY (the device switches on answering,
 * without waiting for CONFIRM), -DNO_DRAIN (extended segments start while
 * classic ones are in flight), -DXMOD=2*XWIN-1 (a sequence space smaller than
 * twice the window), -DANNOUNCE (the device writes its ANSWER unasked),
 * -DRESUME_OWN_VIEW (the device resumes from its own acknowledged offset, not
 * the central's received one), -DNO_LINK_FILTER with -DSTALE (a driver hands
 * the core frames of an earlier link).  The core's rules before three fixes
 * (each must fail too): -DSENT_END_RESET (a drop recomputes sent_end from the
 * current link alone), -DOFFSETS_FROM_SESSION (a new session's offsets count
 * from where each end lost its last one), -DANSWER_REPEATS_BOUNDED (a resumed
 * device that holds its data writes its ANSWER three times at most).
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
#ifndef DROPS
#define DROPS 0         /* links that drop, at most */
#endif
#ifndef FORGETS
#define FORGETS 0       /* sessions forgotten while the link is down, at most */
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
 * up to four small numbers (XACK: next, room, map, token; OFFER: resume,
 * central nonce, device nonce, received; ANSWER: ok + 2 * resumed, central
 * nonce, device nonce, received). */
chan link[2] = [CAP] of { mtype, byte, byte, byte, byte };
byte stale[2];                   /* frames at the head of link[i] written on an earlier link */

byte losses = LOSS;
byte dups = DUPS;
byte spurious = SPURIOUS;
byte drops, forgets = FORGETS;
byte linkNo = 1;                 /* the link's number: also the fresh nonce of both ends */

bit  capable[2];
byte neg[2];
byte offers, answerRepeats;
bit  answerOwed, confirmOwed, declineOwed;
byte offRes, offCn, offDn, offRcv;   /* the central's OFFER on this link */
byte tookCn, tookRcv, ansA, ansRcv;  /* the device's: the OFFER taken, its ANSWER */

/* sender, per end; indices into the end's whole stream */
byte nseg[2];
byte smode[2];
byte cUna[2], cNext[2];          /* classic (cUna is the queue's head until extended) */
byte base[2];                    /* the first segment of this link's sequence 0 */
byte xUna[2], xNext[2], edge[2]; /* extended */
byte acked[2];                   /* bit k: segment k acknowledged */
byte twice[2];                   /* bit k: segment k sent more than once */
byte stamp[16];                  /* [end * 8 + k]: last transmission's stamp */
byte ctr[2], seen[2], pollStamp[2];

/* the session, per end */
bit  sess[2];                    /* an identity is held */
bit  hold[2];                    /* no data on this link yet */
bit  resumeOff;                  /* the central's OFFER resumes */
byte cn[2], dn[2];               /* the identity */
byte sOrg[2];                    /* segment index where this end's session offsets count from */
byte sentEnd[2];                 /* sent_end, as an index */
byte rcv[2];                     /* received: the peer's segments accepted in the session */
byte rcv0[2];                    /* received when this link began */
/* ghosts: the last range dropped as in doubt, the most ever sent */
byte doubtLo[2], doubtHi[2], maxSent[2];

/* receiver, per end (of the peer's stream) */
byte delivered[2];               /* the index the application expects next */
byte cR[2];
bit  xStarted[2];
byte rNext[2];                   /* sequence expected */
byte held[2];                    /* bit s: sequence s held */
byte heldK[16];                  /* [end * 8 + s]: its payload */
byte unread[2], lastEdge[2];
bit  ackOwed[2], cackOwed[2];
byte tokOwed[2];

#define PEER(e) (1 - (e))
#define HEAD(e) (smode[e] == SEXT -> xUna[e] : cUna[e])
#define ROOM(e) (RSLOTS - unread[e])
#define QUIET(e) (len(link[0]) == 0 && len(link[1]) == 0 && !ackOwed[PEER(e)] && \
                  !cackOwed[PEER(e)] && !answerOwed && !confirmOwed && !declineOwed)
#define CAN_TAKE_EXT(e) ((e == DEV && (neg[DEV] == ANSWERED || neg[DEV] == CONFIRMED)) || \
                         (e == CEN && neg[CEN] == EXTENDED))
/* A round has something to send (the timers expire only when it has not). */
#define CAN_SEND_CLASSIC(e) (smode[e] == SCLASSIC && !hold[e] && cNext[e] < nseg[e] && \
                             cNext[e] - cUna[e] < CWIN && (e == DEV || !capable[CEN] || offers > 0))
#define CAN_SEND_NEW(e) (smode[e] == SEXT && xNext[e] < nseg[e] && xNext[e] < edge[e] && \
                         xNext[e] - xUna[e] < XWIN)
#define SEQ(e, k) (((k) - base[e]) % XMOD)
#define ISLOST(e, k) ((k) >= xUna[e] && (k) < xNext[e] && ((acked[e] >> (k)) & 1) == 0 && \
                      stamp[(e) * 8 + (k)] < seen[e])
#define LOSTANY(e) (ISLOST(e, 0) || ISLOST(e, 1) || ISLOST(e, 2) || ISLOST(e, 3) || \
                    ISLOST(e, 4) || ISLOST(e, 5) || ISLOST(e, 6) || ISLOST(e, 7))
/* a received offset `r` (of this end's stream) lies in acked .. sent_end */
#define FITS(e, r) (sOrg[e] + (r) >= cUna[e] && sOrg[e] + (r) <= sentEnd[e])

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

/* The application gets segment k: the next one, or the first after a range its
 * sender dropped as in doubt, when the next one lies in that range. */
inline deliver(e, k) {
    assert(k == delivered[e] ||
           (k > delivered[e] && doubtLo[PEER(e)] <= delivered[e] && k == doubtHi[PEER(e)]));
    delivered[e] = k + 1;
    rcv[e]++;
    got = 1
}

/* A new segment leaves: the ghost of the most ever sent follows. */
inline sentNew(e, k) {
    if :: k + 1 > maxSent[e] -> maxSent[e] = k + 1 :: else -> skip fi
}

/* The queue's head moves to segment h (nothing of the stream is on the link). */
inline headAt(e, h) {
    cUna[e] = h; cNext[e] = h; base[e] = h; xUna[e] = h; xNext[e] = h
}

/* The session ends: what was sent and not acknowledged is in doubt, and
 * dropped; what was never sent goes on.  The peer's application has every
 * segment before the acknowledged offset (or before an earlier range in doubt
 * that ends there) and none at or after sent_end. */
inline loseSession(e) {
    assert(smode[e] == SCLASSIC && cNext[e] == cUna[e] && cUna[e] <= sentEnd[e]);
    if
    :: delivered[PEER(e)] < cUna[e] ->
        /* the peer is still in the last range in doubt, which ends where this one begins */
        assert(doubtLo[e] <= delivered[PEER(e)] && doubtHi[e] == cUna[e])
    :: else -> doubtLo[e] = cUna[e]
    fi;
    assert(delivered[PEER(e)] <= sentEnd[e] && sentEnd[e] <= maxSent[e]);
    doubtHi[e] = sentEnd[e];
    headAt(e, sentEnd[e]);
    sOrg[e] = sentEnd[e]; rcv[e] = 0; rcv0[e] = 0;
    sess[e] = 0; hold[e] = 0;
    if :: e == CEN -> resumeOff = 0 :: else -> skip fi
}

/* The session goes on: the peer has `r` of this end's stream. */
inline resumeAt(e, r) {
#ifdef RESUME_OWN_VIEW
    if :: e == DEV -> sentEnd[e] = cUna[e] :: else -> sentEnd[e] = sOrg[e] + r fi;
#else
    sentEnd[e] = sOrg[e] + r;
#endif
    headAt(e, sentEnd[e])
}

/* The link is gone (qlt_sw_link_lost): sent_end is what was sent; the
 * classic window and the extended one start again, with the queue kept;
 * held out-of-order segments go, accepted ones stay. */
inline linkDown(e) {
    n = (smode[e] == SEXT -> xNext[e] : cNext[e]);
#ifdef SENT_END_RESET
    sentEnd[e] = n;
#else
    /* what an earlier link sent stays sent (the link may drop before resuming) */
    if :: n > sentEnd[e] -> sentEnd[e] = n :: else -> skip fi;
#endif
    m = HEAD(e); headAt(e, m); m = 0;
    n = 0;
    neg[e] = 0; smode[e] = SCLASSIC; edge[e] = 0; acked[e] = 0; twice[e] = 0;
    ctr[e] = 0; seen[e] = 0; pollStamp[e] = 0;
    cR[e] = 0; xStarted[e] = 0; rNext[e] = 0; held[e] = 0;
    lastEdge[e] = delivered[e] + ROOM(e); ackOwed[e] = 0; cackOwed[e] = 0; tokOwed[e] = 0;
    i = 0;
    do
    :: i < 8 -> stamp[e * 8 + i] = 0; heldK[e * 8 + i] = 0; i++
    :: else -> break
    od;
    i = 0
}

/* The next link is up (qlt_sw_link_up): without a session, what was sent on
 * the old link and not acknowledged is in doubt. */
inline linkUp(e) {
    if :: !sess[e] && sentEnd[e] != cUna[e] -> loseSession(e) :: else -> skip fi;
#ifndef OFFSETS_FROM_SESSION
    /* a session that begins on this link counts its offsets from the link's start */
    if :: !sess[e] -> sOrg[e] = cUna[e]; rcv[e] = 0 :: else -> skip fi;
    rcv0[e] = rcv[e];
#endif
    hold[e] = sess[e];
    if :: e == CEN -> resumeOff = sess[CEN] :: else -> skip fi
}

inline forget(e) {
    if :: sess[e] -> loseSession(e) :: else -> skip fi
}

/* A new session begins on this link: what this end accepted of the peer's
 * stream on it is the peer's new stream (the peer counts it too). */
inline newSession(e) {
#ifdef OFFSETS_FROM_SESSION
    forget(e);
#else
    n = rcv[e] - rcv0[e]; forget(e); rcv[e] = n; rcv0[e] = 0; n = 0;
#endif
    sess[e] = 1
}

inline startSwitch(e) {
    hold[e] = 0;
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

/* Accept the held run from rNext on. */
inline deliverRun(e) {
    do
    :: (held[e] >> rNext[e]) & 1 ->
        deliver(e, heldK[e * 8 + rNext[e]]);
#ifndef EAGER_READER
        unread[e]++;
#endif
        held[e] = held[e] & ~(1 << rNext[e]);
        rNext[e] = (rNext[e] + 1) % XMOD
    :: else -> break
    od
}

/* The central takes the device's ANSWER on this link. */
inline takeAnswer() {
    sess[CEN] = 1; cn[CEN] = offCn; dn[CEN] = c;
    neg[CEN] = EXTENDED; confirmOwed = 1; startSwitch(CEN)
}

proctype End(byte e) {
    mtype k;
    byte a, b, c, d, d2, i, m, n;
    bit got, rel, old;
    byte p = PEER(e);

end_idle:
    do
    /* ---------- a frame from the peer ---------- */
    :: atomic {
        nempty(link[p]) ->
        if
        :: stale[p] > 0 ->
            /* written on an earlier link: the driver refuses it by its number */
            stale[p]--; link[p]?k, a, b, c, d; old = 1;
#ifndef NO_LINK_FILTER
            k = 0
#endif
        :: else -> take(p, k, a, b, c, d)
        fi;
        if
        :: k != 0 && !capable[e] && !old ->
            /* a classic end: only classic frames, and OFFERs at a device */
            assert(k == CSEG || k == CACK || (k == OFFER && e == DEV))
        :: else -> skip
        fi;
        if
        :: k != 0 && e == DEV && neg[DEV] == WAITING && hold[DEV] && k != OFFER ->
            forget(DEV)          /* a central that is not resuming: a new stream */
        :: else -> skip
        fi;
        if
        :: k == OFFER && capable[e] ->
            assert(e == DEV || old);
            if
            :: e == CEN -> skip  /* unsolicited */
            :: e == DEV && neg[DEV] == WAITING ->
#ifdef DEV_DECLINES
                forget(DEV); neg[DEV] = DECLINED; ansA = 0;
#else
                tookCn = b; tookRcv = d;
                if
                :: a && sess[DEV] && b == cn[DEV] && c == dn[DEV] && FITS(DEV, d) ->
                    resumeAt(DEV, d); ansA = 3; ansRcv = rcv[DEV]; hold[DEV] = 1
                :: else ->
                    newSession(DEV); cn[DEV] = b; dn[DEV] = linkNo;
                    ansA = 1; ansRcv = 0
                fi;
                neg[DEV] = ANSWERED;
#ifdef TWO_WAY
                startSwitch(DEV);
#endif
#endif
                answerOwed = 1
            :: e == DEV && neg[DEV] != WAITING && neg[DEV] != CONFIRMED && b == tookCn &&
               d == tookRcv ->
                answerOwed = 1   /* the same OFFER: the same ANSWER */
            :: else -> skip
            fi
        :: k == ANSWER ->
            assert(old || (e == CEN && capable[CEN] && offers > 0));
            if
            :: e == CEN && capable[CEN] && offers > 0 ->
                if
                :: neg[CEN] == OFFERING && b == offCn && (a & 1) == 0 ->
                    forget(CEN); neg[CEN] = CLASSIC
                :: neg[CEN] == OFFERING && b == offCn && (a & 1) && (a & 2) == 0 ->
                    newSession(CEN); takeAnswer()
                :: neg[CEN] == OFFERING && b == offCn && (a & 1) && (a & 2) &&
                   resumeOff && c == dn[CEN] && FITS(CEN, d) ->
                    resumeAt(CEN, d); takeAnswer()
                :: neg[CEN] == OFFERING && b == offCn && (a & 1) && (a & 2) &&
                   !(resumeOff && c == dn[CEN] && FITS(CEN, d)) ->
                    /* contradictory: both treat the session as lost */
                    forget(CEN); neg[CEN] = CLASSIC; declineOwed = 1
                :: neg[CEN] == OFFERING && b != offCn -> skip
                :: neg[CEN] == EXTENDED && b == offCn && c == dn[CEN] -> confirmOwed = 1
                :: neg[CEN] == EXTENDED && !(b == offCn && c == dn[CEN]) -> skip
                :: neg[CEN] == CLASSIC -> declineOwed = 1
                fi
            :: else -> skip   /* unsolicited */
            fi
        :: k == CONFIRM ->
            assert(old || (e == DEV && capable[DEV]));
            if
            :: e == DEV && neg[DEV] == ANSWERED -> neg[DEV] = CONFIRMED;
#ifndef TWO_WAY
                startSwitch(DEV)
#endif
            :: else -> skip
            fi
        :: k == DECLINE ->
            assert(old || (e == DEV && capable[DEV] && neg[DEV] != CONFIRMED));
            if
            :: e == DEV && neg[DEV] == ANSWERED ->
                hold[DEV] = 0;
                if :: ansA & 2 -> forget(DEV) :: else -> skip fi;
                neg[DEV] = DECLINED
            :: else -> skip
            fi
        :: k == CSEG ->
            if
            :: xStarted[e] -> skip     /* classic copies after the switch */
            :: !xStarted[e] && a == cR[e] ->
                deliver(e, b);
                cR[e] = (cR[e] + 1) % CMOD; cackOwed[e] = 1
            :: !xStarted[e] && a != cR[e] -> cackOwed[e] = 1
            fi
        :: k == CACK ->
            /* in the window: from cUna up to cNext */
            n = (a + CMOD - (cUna[e] - base[e]) % CMOD) % CMOD;
            if
            :: smode[e] != SEXT && n > 0 && n <= cNext[e] - cUna[e] ->
                cUna[e] = cUna[e] + n; rel = 1;
                assert(cUna[e] <= delivered[p])
            :: else -> skip
            fi
        :: (k == XSEG || k == XPOLL || k == XACK) && !CAN_TAKE_EXT(e) ->
            /* only to an end that agreed */
            assert(old || CAN_TAKE_EXT(e))
        :: k == XSEG && CAN_TAKE_EXT(e) ->
            /* the device takes it as the confirmation */
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
        :: k == XPOLL && CAN_TAKE_EXT(e) ->
            if
            :: e == DEV && neg[DEV] == ANSWERED -> neg[DEV] = CONFIRMED;
#ifndef TWO_WAY
                startSwitch(DEV)
#endif
            :: else -> skip
            fi;
            ackOwed[e] = 1; tokOwed[e] = a
        :: k == XACK && CAN_TAKE_EXT(e) && smode[e] != SEXT ->
            /* only an end whose send direction is extended is answered so */
            assert(old || smode[e] == SEXT)
        :: k == XACK && CAN_TAKE_EXT(e) && smode[e] == SEXT ->
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
        :: else -> skip       /* refused, or a classic end ignores control types 3-7 */
        fi;
        k = 0; a = 0; b = 0; c = 0; d = 0; d2 = 0; n = 0; m = 0; old = 0
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
        if
        :: offers == 0 ->   /* the terms are fixed by the first */
            offRes = resumeOff; offCn = (sess[CEN] -> cn[CEN] : linkNo);
            offDn = (resumeOff -> dn[CEN] : 0); offRcv = (resumeOff -> rcv[CEN] : 0)
        :: else -> skip
        fi;
        offers++; put(CEN, OFFER, offRes, offCn, offDn, offRcv)
       }
    :: atomic {
        /* the wait W is over: a classic device, or none that answered */
        e == CEN && capable[CEN] && neg[CEN] == OFFERING && offers > 0 ->
        forget(CEN); neg[CEN] = CLASSIC
       }
    :: atomic { e == CEN && confirmOwed -> confirmOwed = 0; put(CEN, CONFIRM, 0, 0, 0, 0) }
    :: atomic { e == CEN && declineOwed -> declineOwed = 0; put(CEN, DECLINE, 0, 0, 0, 0) }
    :: atomic {
        e == DEV && answerOwed ->
        answerOwed = 0; put(DEV, ANSWER, ansA, tookCn, dn[DEV], ansRcv)
       }
    :: atomic {
        /* the ANSWER again, some time after the last one was written */
        e == DEV && neg[DEV] == ANSWERED && !answerOwed && answerRepeats < REPEATS ->
        answerRepeats++; answerOwed = 1
       }
#ifndef ANSWER_REPEATS_BOUNDED
    :: atomic {
        /* a resumed device holds its data for the answer: it asks again, on a quiet
         * link, for as long as it takes */
        e == DEV && neg[DEV] == ANSWERED && hold[DEV] && answerRepeats >= REPEATS && QUIET(e) ->
        answerOwed = 1
       }
#endif
    :: atomic {
        /* the device's wait W for the central's first frame is over: a new stream */
        e == DEV && neg[DEV] == WAITING && hold[DEV] -> forget(DEV)
       }
#ifdef ANNOUNCE
    :: atomic {
        e == DEV && capable[DEV] && neg[DEV] == WAITING ->
        neg[DEV] = ANSWERED; ansA = 1; answerOwed = 1
       }
#endif

    /* ---------- the classic send direction ---------- */
    :: atomic {
        CAN_SEND_CLASSIC(e) ->
        put(e, CSEG, (cNext[e] - base[e]) % CMOD, cNext[e], 0, 0); cNext[e]++;
        sentNew(e, cNext[e] - 1)
       }
    :: atomic {
        smode[e] != SEXT && cNext[e] > cUna[e] && QUIET(e) && !CAN_SEND_CLASSIC(e) ->
        put(e, CSEG, (cUna[e] - base[e]) % CMOD, cUna[e], 0, 0)
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
        xNext[e]++;
        sentNew(e, xNext[e] - 1)
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

    /* ---------- the link drops; the next one ---------- */
    :: atomic {
        e == DEV && drops > 0 ->
        drops--;
        linkDown(CEN); linkDown(DEV);
#ifdef STALE
        stale[0] = len(link[0]); stale[1] = len(link[1]);
#else
        do   /* the hosts' queues go with the link */
        :: nempty(link[0]) -> link[0]?k, a, b, c, d
        :: nempty(link[1]) -> link[1]?k, a, b, c, d
        :: empty(link[0]) && empty(link[1]) -> break
        od;
        k = 0; a = 0; b = 0; c = 0; d = 0;
#endif
        /* while it is down, a hold time may pass */
        if
        :: forgets > 0 -> forgets--; forget(DEV);
#ifdef RESTART_CLASSIC
            capable[DEV] = 0;
#endif
            skip
        :: forgets > 0 -> forgets--; forget(CEN)
        :: true -> skip
        fi;
        linkUp(CEN); linkUp(DEV);
        linkNo++;
        offers = 0; answerRepeats = 0; answerOwed = 0; confirmOwed = 0; declineOwed = 0;
        offRes = 0; offCn = 0; offDn = 0; offRcv = 0; tookCn = 0; tookRcv = 0; ansA = 0; ansRcv = 0
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
        sess[CEN] = 1; sess[DEV] = 1; cn[CEN] = 1; cn[DEV] = 1; dn[CEN] = 1; dn[DEV] = 1;
        offCn = 1; tookCn = 1; ansA = 1;
#endif
        /* how many times the link drops in this run (a stuck run is one that used them) */
        do
        :: drops < DROPS -> drops++
        :: break
        od;
        run End(CEN);
        run End(DEV)
    };
    timeout ->
    /* nothing can move any more: every segment released, and delivered unless it
     * was in doubt at the end of the stream */
    assert(HEAD(CEN) == nseg[CEN] && HEAD(DEV) == nseg[DEV]);
    assert(delivered[DEV] == nseg[CEN] ||
           (doubtHi[CEN] == nseg[CEN] && delivered[DEV] >= doubtLo[CEN]));
    assert(delivered[CEN] == nseg[DEV] ||
           (doubtHi[DEV] == nseg[DEV] && delivered[CEN] >= doubtLo[DEV]))
}
