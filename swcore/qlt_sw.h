/* qlt_sw: the sliding-window protocol as a state machine, for both ends of a link.
 *
 * Portable C99. It does no I/O, takes no lock, reads no clock, starts no thread, allocates
 * nothing and uses no floating point: the caller feeds it received frames, bytes to send
 * and the time, and asks it for the frames to write. One implementation for both ends:
 * the central and the device run the same rules, so there is no role to choose (only the
 * wide window's negotiation, below, gives them one).
 *
 * Frames (one characteristic value each; no length field, no checksum):
 *
 *   header bit 0      1 = control frame, 0 = data frame
 *   header bit 1      data frames: 1 = "UDP" datagram, 0 = "TCP" segment
 *   header bits 1-3   control frames: 0 = status poll, 1 = acknowledgement, 2 = rejection,
 *                     3-7 = not used yet (ignored, see qlt_sw_receive)
 *   header bits 4-7   a sequence number (segments, acknowledgements, rejections)
 *
 *   segment          seq*16, then 1..S payload bytes
 *   datagram         0x02, then 0..S-1 payload bytes
 *   status poll      0x01, oldest unacknowledged seq, next send seq (3 bytes)
 *   acknowledgement  0x03 | R*16: every segment before R arrived
 *   rejection        0x05 | R*16: segment R is missing, go back to it
 *
 * Sequence numbers count modulo 4 and at most 3 segments are in flight (go-back-N).
 *
 * Use (a firmware's main loop, or a host driver on one serial queue):
 *
 *   static uint8_t slots[QLT_SW_STORAGE(120, 4)];
 *   static qlt_sw sw;
 *   qlt_sw_config cfg = { 120, 300000, 1000, slots, 4 };  (the rest zero: classic)
 *   qlt_sw_init(&sw, &cfg);
 *   on a value notified/written by the peer:   qlt_sw_receive(&sw, v, n, now, &d);
 *   to send bytes:                             accepted = qlt_sw_send(&sw, p, n);
 *   then, and whenever qlt_sw_next_due says:   while ((n = qlt_sw_poll_frame(&sw, now,
 *                                                  out, sizeof out)) > 0) write(out, n);
 *
 * Time: `now` is a uint32_t count of microseconds from any origin, supplied by the caller
 * (a firmware with a millisecond tick passes ms * 1000). It wraps every 71.6 minutes, and
 * may: every wait the core keeps (at most the poll time-out) is judged by the time elapsed
 * since it began, now - start in unsigned arithmetic, so a wait begun long ago reads as
 * over (the one exception, a link silent for a multiple of 71.6 minutes to within a poll
 * time-out, costs at most one poll time-out). `now` must never go backwards.
 *
 * Memory: the qlt_sw struct (448 bytes on a 32-bit target) plus the caller's segment slots,
 * QLT_SW_STORAGE(segment_size, slot_count) bytes; 3 slots of 120 bytes are 363 bytes; and
 * with the wide window on, its storage (QLT_SW_WIDE_STORAGE).
 * Threads: none. All calls on one qlt_sw must come from one thread (or one serial queue).
 */
#ifndef QLT_SW_H
#define QLT_SW_H

#include <stddef.h>
#include <stdint.h>

#include "qlt_sw_wide.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Build options. QLT_SW_WIDE 0 leaves the wide window's code out (a classic-only firmware
 * links neither qlt_sw_ext.c nor qlt_sw_window.c, and qlt_sw_init refuses a wide_role); its
 * state stays in the struct, at zero. QLT_SW_COUNTER_BITS 32 makes the counters 32-bit, as
 * a small chip counts (they wrap after 4 G events: days at a link's full rate). */
#ifndef QLT_SW_WIDE
#define QLT_SW_WIDE 1
#endif
#if defined(QLT_SW_COUNTER_BITS) && QLT_SW_COUNTER_BITS == 32
typedef uint32_t qlt_sw_count;
#else
typedef uint64_t qlt_sw_count;
#endif

#define QLT_SW_MODULUS 4u                          /* sequence numbers 0..3 */
#define QLT_SW_WINDOW 3u                           /* segments in flight at most */
#define QLT_SW_MAX_SEGMENT 160u                    /* the largest segment size */
#define QLT_SW_FRAME_MAX (QLT_SW_MAX_SEGMENT + 1u) /* an out buffer this big always fits */
#define QLT_SW_POLL_LENGTH 3u
#define QLT_SW_IDLE 0xFFFFFFFFu /* qlt_sw_next_due: nothing is due */
/* Unsolicited rejections a receiver sends for one gap, at most (poll answers aside). */
#define QLT_SW_REJECTIONS_PER_GAP 2u
/* Bytes of slot storage for `count` segments of `segment` bytes (a length byte each). */
#define QLT_SW_STORAGE(segment, count) ((size_t)(count) * ((size_t)(segment) + 1u))

typedef struct qlt_sw_config {
  uint8_t segment_size;     /* payload bytes per segment, 1..160; datagrams must be shorter */
  uint32_t poll_timeout_us; /* the longest wait for an answer before a status poll (> 0) */
  uint32_t ack_delay_us;    /* how long an owed answer may wait to gather more (0: none) */
  uint8_t* slots;           /* QLT_SW_STORAGE(segment_size, slot_count) bytes, caller's */
  uint16_t slot_count;      /* segments the send queue holds (>= 1; 3 fill the window) */

  /* The wide window (docs/wide-window.md). All zero: the classic format only, exactly as
   * before; a core with wide_role set still runs the classic window until its peer agrees.
   * In the extended format the slots above are the send stream: bytes queued, cut into
   * segments of up to the negotiated size when they are sent, kept until acknowledged (and
   * for a session, from the acknowledged offset on). Give them room for the send window:
   * slot_count * segment_size >= wide_send_slots * wide_segment, or more. */
  uint8_t wide_role;           /* QLT_SW_ROLE_OFF (0), QLT_SW_ROLE_CENTRAL, QLT_SW_ROLE_DEVICE */
  uint8_t wide_manual_consume; /* 1: received bytes count against the window until
                                * qlt_sw_consume; 0: they are consumed when taken */
  uint16_t wide_segment;       /* largest extended payload this end sends and accepts, 16.. */
  uint16_t wide_send_slots;    /* extended segments in flight at most, 1..32767 */
  uint16_t wide_recv_slots;    /* segments held for reordering: the window offered, 1..32767 */
  uint32_t* wide_storage;      /* QLT_SW_WIDE_STORAGE(wide_segment, send, recv) words, caller's */
  uint16_t value_limit;        /* ATT_MTU - 3 of the link; 0: 20 (qlt_sw_set_value_limit) */
  uint32_t wide_wait_us;       /* W, the negotiation wait; 0: poll_timeout_us */
  uint32_t nonce;              /* this end's half of the session identity, nonzero, random */
} qlt_sw_config;

#define QLT_SW_ROLE_OFF 0u
#define QLT_SW_ROLE_CENTRAL 1u /* offers */
#define QLT_SW_ROLE_DEVICE 2u  /* answers */
/* uint32_t words of wide_storage: a 12-byte record per send slot, and per receive slot a
 * length word and `segment` bytes. 16 send and 8 receive slots of 241 bytes: 2 152 bytes. */
#define QLT_SW_WIDE_STORAGE(segment, send_slots, recv_slots) \
  ((size_t)(send_slots)*3u + (size_t)(recv_slots) +          \
   ((size_t)(recv_slots) * (size_t)(segment) + 3u) / 4u)

/* What the core has done so far. They only grow (bytes_queued aside) and never change
 * what goes on the wire. */
typedef struct qlt_sw_counters {
  qlt_sw_count frames_sent;         /* every frame handed out (poll_frame, datagram) */
  qlt_sw_count frames_received;     /* every value fed to qlt_sw_receive, malformed included */
  qlt_sw_count segments_sent;       /* segment frames, first sends and resends */
  qlt_sw_count segments_resent;     /* of those, segments that had been on the wire before */
  qlt_sw_count polls_sent;          /* status polls */
  qlt_sw_count acks_sent;           /* acknowledgements (owed ones and poll answers) */
  qlt_sw_count rejections_sent;     /* rejections (of unexpected segments, poll answers) */
  qlt_sw_count rejections_received; /* rejections read */
  qlt_sw_count rejections_honoured; /* of those, rejections that made the sender go back */
  qlt_sw_count acks_received;       /* acknowledgements read */
  qlt_sw_count malformed_ignored;   /* empty, short or unknown control frames */
  qlt_sw_count tcp_delivered;       /* "TCP" payloads delivered */
  qlt_sw_count udp_delivered;       /* "UDP" payloads delivered */
  qlt_sw_count bytes_queued;        /* payload bytes in the send queue now (sent or not) */
  /* The wide window. segments_sent/segments_resent, acks_* and polls_sent count its frames
   * too. */
  qlt_sw_count negotiation_frames_sent; /* OFFER, ANSWER, CONFIRM, DECLINE written */
  qlt_sw_count wide_faults;             /* frames refused or clamped by the checks (every one) */
  qlt_sw_count segments_lost;           /* extended segments found lost (by evidence) */
  qlt_sw_count segments_held;           /* extended segments received out of order and held */
  qlt_sw_count segments_dropped;        /* extended segments dropped: copies, outside the window */
  qlt_sw_count sessions_resumed;        /* links that went on with the session */
  qlt_sw_count sessions_lost;           /* sessions that ended with a new one (qlt_sw_wide_info) */
  qlt_sw_count bytes_in_doubt;          /* sent in lost sessions and never acknowledged, in all */
} qlt_sw_counters;

/* Things worth a trace line that no frame shows. */
typedef enum qlt_sw_event {
  QLT_SW_EV_RTT_SAMPLE,  /* a: the sample (us), b: the new retransmission time-out (us) */
  QLT_SW_EV_REJECT_HELD, /* a rejection of a segment already sent again: a = its seq */
  QLT_SW_EV_GAP_OPENED,  /* a: the sequence expected */
  QLT_SW_EV_GAP_CLOSED,  /* a: the sequence that filled it */
  /* The wide window. */
  QLT_SW_EV_WIDE_FAULT,      /* a: qlt_sw_fault, b: its count; first of its kind on a link */
  QLT_SW_EV_WIDE_STATE,      /* a: the new qlt_sw_wide_state */
  QLT_SW_EV_SEND_EXTENDED,   /* this end's send direction switched: a = segment, b = window */
  QLT_SW_EV_SESSION_RESUMED, /* a: bytes of our stream acknowledged, b: of the peer's taken */
  QLT_SW_EV_SESSION_LOST     /* a new session began: a = bytes in doubt (sent, unacknowledged) */
} qlt_sw_event;

/* Faults in what a peer wrote, one trace line per kind per link, every one counted. */
typedef enum qlt_sw_fault {
  QLT_SW_FAULT_MALFORMED = 0, /* an OFFER/ANSWER/SEGMENT/ACK/POLL too short, version 0 */
  QLT_SW_FAULT_ABSURD,        /* a segment under 16 bytes or a window of 0: refused */
  QLT_SW_FAULT_CLAMPED,       /* sizes beyond this end's: reduced to what it holds */
  QLT_SW_FAULT_CONTRADICTORY, /* an ANSWER/OFFER that differs from the one taken, a nonce */
  QLT_SW_FAULT_UNSOLICITED,   /* an ANSWER not asked for, CONFIRM/DECLINE out of turn */
  QLT_SW_FAULT_UNEXPECTED,    /* an extended frame before the extension was agreed */
  QLT_SW_FAULT_BAD_ACK,       /* an ACK outside una..next, or marking unsent segments */
  QLT_SW_FAULT_BAD_SEGMENT,   /* a SEGMENT beyond the window offered, empty or too long */
  QLT_SW_FAULT_KINDS
} qlt_sw_fault;
typedef void (*qlt_sw_trace_fn)(void* context, qlt_sw_event event, uint32_t a, uint32_t b);

/* The wide window's state (part of qlt_sw; the core's own, like the rest). */
typedef struct qlt_sw_ext {
  /* Negotiation, per link. */
  uint8_t state;       /* qlt_sw_wide_state */
  uint8_t send_mode;   /* 0 classic, 1 draining the classic window, 2 extended */
  uint8_t recv_mode;   /* 1: an extended segment arrived; classic segments are ignored */
  uint8_t repeats;     /* OFFERs written (central), ANSWERs written (device) */
  uint8_t owe_nego;    /* a negotiation frame owed now: its header, 0: none */
  uint8_t faults_seen; /* bit per qlt_sw_fault already traced on this link */
  uint8_t hold_data;   /* no data on this link until the peer's first word on the session */
  uint8_t resume;      /* 1: the OFFER resumes the session held */
  uint8_t started;     /* the link's first round has run */
  uint8_t echo;        /* the ANSWER owed answers a repeated OFFER */
  uint8_t session;     /* 1: a session identity is held */
  uint8_t token;       /* sender: of the last POLL */
  uint8_t polled;      /* sender: a POLL is unanswered */
  uint8_t timing;      /* sender: a first-sent segment is timed: timed_seq */
  uint8_t ack_owed;    /* receiver: 1 owed, 2 due at once */
  uint8_t answer_token, answer_owed;
  uint16_t value_limit;
  uint16_t own_segment;               /* the largest payload this end accepts on this link */
  uint16_t send_segment, send_window; /* what this end may send, once negotiated */
  /* Sender: sequences una..next-1 in flight, their records from sslot on. */
  uint16_t una, next, edge;
  uint16_t lost;  /* records marked lost */
  uint16_t sslot; /* the record of una */
  uint16_t timed_seq;
  /* Receiver: expected seq, deliveries waiting to be taken, held out of order. */
  uint16_t rnext;
  uint16_t rslot;               /* the receive slot of rnext */
  uint16_t pending;             /* accepted, not taken yet: seqs rnext - pending .. rnext - 1 */
  uint16_t held;                /* held out of order */
  uint16_t adv_edge;            /* the edge last advertised */
  uint32_t nego_at;             /* the first OFFER/ANSWER of the link was written */
  qlt_sw_wide_terms mine, peer; /* the terms written and the terms taken */
  uint32_t stamps;              /* transmissions so far */
  uint32_t seen;                /* latest stamp of a once-sent segment acknowledged */
  uint32_t poll_stamp;          /* stamps when the last POLL was written */
  uint32_t sent_end;            /* stream offset of the first byte never sent extended */
  uint32_t ack_owed_at;
  uint32_t unread;   /* taken but not consumed (wide_manual_consume) */
  uint32_t last_now; /* the latest time the core was told */
  /* Session: its identity; cfg.nonce is this end's half for the next new one. */
  uint32_t central_nonce, device_nonce;
  uint32_t acked;         /* bytes of this end's stream acknowledged in the session */
  uint32_t received;      /* bytes of the peer's stream accepted in the session */
  uint32_t in_doubt;      /* bytes in doubt when the last session was lost */
  uint32_t link_received; /* `received` when this link began (0 after a session was lost) */
} qlt_sw_ext;

/* The state. Defined here so that a firmware can allocate it statically; its fields are
 * the core's own: read them only through the functions below. */
typedef struct qlt_sw {
  qlt_sw_config cfg;
  qlt_sw_counters counters;
  qlt_sw_trace_fn trace; /* optional (qlt_sw_set_trace) */
  void* trace_context;

  /* Send queue: a ring of slot_count slots; head is the oldest unacknowledged. */
  uint32_t read_pos;  /* segments released since init (only grows, wraps); & 3 = its seq */
  uint16_t head;      /* slot index of the oldest queued segment */
  uint16_t queued;    /* segments in the queue, sent or not */
  uint16_t unsent;    /* offset (from head) of the first segment never sent */
  uint8_t ack_window; /* send sequence: the seq the next segment written carries */
  uint8_t remote_ack; /* receive sequence: the seq of the next segment expected */

  /* Round trip (RFC 6298, in integer microseconds). */
  uint8_t have_sample;
  uint8_t poll_backoff; /* unanswered polls in a row */
  uint8_t poll_next;    /* a probe went out: its poll is owed now */
  uint16_t timed;       /* offset of the segment being timed, or 0xFFFF */
  uint32_t timed_at;
  uint32_t srtt8;     /* smoothed round trip, us * 8 */
  uint32_t rttvar4;   /* its variation, us * 4 */
  uint32_t rto;       /* retransmission time-out, us */
  uint32_t timer_at;  /* last (re)start of the retransmission timer */
  uint32_t poll_wait; /* the timer's time-out now, us */
  int32_t rewound;    /* offset of the segment last rewound to; -1: none or released */
  uint32_t hold_at;   /* rejections at or beyond `rewound` are ignored for hold_for us */
  uint32_t hold_for;  /* from hold_at */

  /* Receiver: what is owed to the peer and the gap in what arrived. */
  uint8_t owed;     /* bit 0: an acknowledgement; bit 1: a rejection for seq in bits 4-5 */
  uint32_t owed_at; /* when the oldest owed answer became owed */
  uint8_t gap_open;
  uint8_t gap_seq;        /* the sequence expected when the gap opened */
  uint8_t gap_rejections; /* unsolicited rejections owed for it */
  uint8_t gap_timed;      /* only its first rejection: the round trip is a sample */
  uint8_t gap_written;    /* a rejection for it has been written */
  uint32_t rejected_at;   /* when the last rejection for it was written (or owed) */

  qlt_sw_ext ext;
} qlt_sw;

/* Sets up `sw` with `cfg` (copied; the slots stay the caller's). Returns 0, or -1 when the
 * configuration is unusable (segment size 0 or over 160, no slots, a zero poll time-out). */
int qlt_sw_init(qlt_sw* sw, const qlt_sw_config* cfg);

/* Empties the send queue and resets the send sequence and what was owed to the peer; the
 * receive sequence and the round-trip estimate stay. Once the send direction is extended,
 * it drops only the bytes not yet sent: the peer waits for the segments on the wire. */
void qlt_sw_reset_send(qlt_sw* sw);

/* Queues up to `len` bytes as segments of at most segment_size bytes, each call starting
 * a new segment (a message of 370 bytes is 120 + 120 + 120 + 10). Returns how many bytes
 * it accepted: all of them, or as many whole segments (and a last partial one only when
 * it ends the bytes) as there are free slots; 0 when full. */
size_t qlt_sw_send(qlt_sw* sw, const uint8_t* bytes, size_t len);
/* Bytes qlt_sw_send would accept now. */
size_t qlt_sw_send_space(const qlt_sw* sw);

/* Builds the datagram frame for `len` payload bytes into `out` and counts it as sent.
 * Returns the frame's length (1 + len), or 0 when refused: len >= segment_size, or `out`
 * shorter than the frame. Datagrams bypass the queue and the window. */
size_t qlt_sw_datagram(qlt_sw* sw, const uint8_t* payload, size_t len, uint8_t* out, size_t cap);

/* What a received frame delivered. */
typedef enum qlt_sw_kind {
  QLT_SW_NONE,   /* a control frame, a duplicate or out-of-order segment: nothing new */
  QLT_SW_TCP,    /* a "TCP" payload, in order */
  QLT_SW_UDP,    /* a datagram's payload (possibly empty) */
  QLT_SW_IGNORED /* malformed, or a control type this version does not know */
} qlt_sw_kind;
typedef struct qlt_sw_delivery {
  qlt_sw_kind kind;
  const uint8_t* payload; /* points into the frame: valid as long as the caller's frame */
  size_t len;
} qlt_sw_delivery;

/* Feeds one received value in. Acknowledgements and rejections inside the window act at
 * once; answers owed to the peer are recorded and written by qlt_sw_poll_frame. Any
 * `delivery` pointer may be NULL. Returns the delivery's kind. */
qlt_sw_kind qlt_sw_receive(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now,
                           qlt_sw_delivery* delivery);

/* What qlt_sw_poll_frame_of may write; qlt_sw_poll_frame writes all of them, in this
 * order: segments the window lets go, the oldest segment again and a status poll when
 * its answer is late, then owed acknowledgements and rejections. With the wide window on,
 * a negotiation frame owed goes first whenever segments or answers may be written, and
 * the extended window's segments, POLLs and ACKs follow the classic ones of their kind. */
#define QLT_SW_SEGMENTS 1u /* queued segments, as far as the window allows */
#define QLT_SW_POLLS 2u    /* a late answer: the oldest segment again, then a poll */
#define QLT_SW_ANSWERS 4u  /* owed acknowledgements and rejections */
#define QLT_SW_ALL 7u

/* Writes the next frame due at `now` into `out` and returns its length; 0 when nothing is
 * due (or `cap` is below segment_size + 1; QLT_SW_FRAME_MAX always fits). Call it until it
 * returns 0: one call, one frame. Owed answers are written whenever it is called, without
 * waiting for ack_delay (the delay only sets qlt_sw_next_due). */
size_t qlt_sw_poll_frame(qlt_sw* sw, uint32_t now, uint8_t* out, size_t cap);
size_t qlt_sw_poll_frame_of(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap);

/* Microseconds from `now` until qlt_sw_poll_frame has something to write if nothing else
 * happens (0: now); QLT_SW_IDLE when nothing is due. */
uint32_t qlt_sw_next_due(const qlt_sw* sw, uint32_t now);

/* Releases `count` segments from the head of the queue, as an acknowledgement would.
 * Classic format only: once the send direction is extended, only the peer's ACK does. */
void qlt_sw_release(qlt_sw* sw, uint32_t count, uint32_t now);

/* Reading the state. */
const qlt_sw_counters* qlt_sw_get_counters(const qlt_sw* sw);
uint8_t qlt_sw_in_flight(const qlt_sw* sw);   /* segments on the wire, unacknowledged */
uint16_t qlt_sw_queued(const qlt_sw* sw);     /* segments queued, sent or not */
uint32_t qlt_sw_rto(const qlt_sw* sw);        /* us; the poll time-out until a sample */
uint32_t qlt_sw_srtt(const qlt_sw* sw);       /* us; 0 until a first sample */
uint32_t qlt_sw_read_pos(const qlt_sw* sw);   /* segments released since init */
uint8_t qlt_sw_send_seq(const qlt_sw* sw);    /* seq of the next segment written */
uint8_t qlt_sw_receive_seq(const qlt_sw* sw); /* seq of the next segment expected */
/* What is owed to the peer: bit 0 an acknowledgement, bit 1 a rejection for the sequence
 * in bits 4-5. Setting it (tests, tools) owes exactly that from `now`. */
uint8_t qlt_sw_owed(const qlt_sw* sw);
void qlt_sw_set_owed(qlt_sw* sw, uint8_t bits, uint32_t now);
/* How long an owed answer may wait from now on (the configuration's ack_delay_us). */
void qlt_sw_set_ack_delay(qlt_sw* sw, uint32_t delay_us);
void qlt_sw_set_trace(qlt_sw* sw, qlt_sw_trace_fn fn, void* context);

/* ---- The wide window (docs/wide-window.md) --------------------------------------------
 *
 * With wide_role set, the central offers the extended format in its first round (and at
 * W/3, 2W/3), the device answers, and each end switches its send direction once it knows
 * the peer agreed and its classic segments in flight are acknowledged. Until then, and for
 * good with a classic peer, the classic window runs exactly as it does with wide_role 0: a
 * classic device sees at most 3 OFFERs more, a classic central nothing new. Faults in what
 * the peer wrote are refused or clamped, counted (wide_faults) and traced once per kind.
 *
 * Receiving: a segment received in order is delivered by qlt_sw_receive as before; when it
 * fills a gap, the segments held behind it follow through qlt_sw_take_delivery:
 *
 *   kind = qlt_sw_receive(&sw, v, n, now, &d);     deliver d if kind is TCP or UDP
 *   while (qlt_sw_take_delivery(&sw, &d)) ...      deliver d (always TCP)
 *
 * Segments taken count as consumed unless wide_manual_consume: then the window offered
 * shrinks by each until qlt_sw_consume gives it back (a device that keeps what it received
 * until it has processed it).
 *
 * Sending: qlt_sw_send queues bytes; once extended, segments are cut from the queued
 * stream when they are sent, up to the negotiated size, and small writes share slots. An
 * `out` buffer of qlt_sw_frame_max bytes fits every frame.
 *
 * Session: the core keeps the session's identity and, per direction, the stream offset
 * acknowledged / accepted. qlt_sw_link_lost ends the current link (the send stream from the
 * acknowledged offset stays queued, held out-of-order segments go); qlt_sw_link_up starts
 * the next one on the same core: the central offers to resume, the device resumes when the
 * nonces and offsets fit, else both begin a new session and report the bytes in doubt
 * (QLT_SW_EV_SESSION_LOST, counters). A driver must hand the core no frame received on an
 * earlier link. How long a session is held is the host's choice: qlt_sw_forget_session. */

typedef enum qlt_sw_wide_state {
  QLT_SW_STATE_OFF = 0,  /* wide_role 0: the classic format only */
  QLT_SW_STATE_OFFERING, /* central: offered, no answer taken yet */
  QLT_SW_STATE_WAITING,  /* device: no OFFER yet */
  QLT_SW_STATE_ANSWERED, /* device: answered, no CONFIRM yet */
  QLT_SW_STATE_EXTENDED, /* central: answer taken; device: confirmed */
  QLT_SW_STATE_CLASSIC,  /* the classic format for the rest of the link */
  QLT_SW_STATE_LINK_DOWN /* between qlt_sw_link_lost and qlt_sw_link_up */
} qlt_sw_wide_state;

typedef struct qlt_sw_wide_info {
  qlt_sw_wide_state state;
  uint8_t send_extended;    /* 0 classic, 1 draining the classic window, 2 extended */
  uint8_t receive_extended; /* 1: the peer's extended segments are arriving */
  uint16_t send_segment;    /* negotiated: the largest segment this end sends */
  uint16_t send_window;     /* negotiated: segments in flight at most */
  uint16_t in_flight;       /* extended segments unacknowledged now */
  uint16_t room;            /* receive window offered now */
  uint8_t session;          /* 1: a session identity is held */
  uint32_t central_nonce, device_nonce;
  uint32_t stream_acked;    /* bytes of this end's stream acknowledged in the session */
  uint32_t stream_received; /* bytes of the peer's stream accepted in the session */
  uint32_t in_doubt;        /* bytes in doubt when the last session was lost */
} qlt_sw_wide_info;

void qlt_sw_get_wide_info(const qlt_sw* sw, qlt_sw_wide_info* info);

/* The link's value limit (ATT_MTU - 3) changed: taken until the negotiation has fixed its
 * terms (the OFFER or ANSWER written); returns 0, or -1 once too late or below 20. Each link
 * negotiates afresh: between qlt_sw_link_up and its first round a resumed session takes
 * the new link's limit, and its unacknowledged bytes are cut again to the size agreed. The
 * buffers stay: a limit above wide_segment + 3 only reaches wide_segment. */
int qlt_sw_set_value_limit(qlt_sw* sw, uint16_t limit);

/* The longest frame qlt_sw_poll_frame may write: an `out` this big always fits. */
size_t qlt_sw_frame_max(const qlt_sw* sw);

/* The next delivery that a receive made possible (held segments behind a gap that filled),
 * in order. Returns 1 and fills `delivery` (kind QLT_SW_TCP, payload valid until the next
 * call on `sw`), or 0 when there is none. Always 0 in the classic format. */
int qlt_sw_take_delivery(qlt_sw* sw, qlt_sw_delivery* delivery);

/* With wide_manual_consume: `count` deliveries (the oldest) are processed; their room is
 * offered to the peer again (an ACK is owed when it opens the window enough). */
void qlt_sw_consume(qlt_sw* sw, uint32_t count, uint32_t now);

/* The link is gone: every frame in flight is. Bytes not acknowledged stay queued. */
void qlt_sw_link_lost(qlt_sw* sw);
/* A new link is up: the negotiation starts again. `nonce` (nonzero) is this end's half of
 * the identity if a new session begins on it (0 keeps the last one). Without a session to
 * resume (a classic link, or wide_role 0) the bytes sent on the old link and never
 * acknowledged are in doubt: reported as for a lost session, and dropped; the classic
 * window starts again from sequence 0 with the rest of the queue. */
void qlt_sw_link_up(qlt_sw* sw, uint32_t nonce);
/* Forget the session held (its hold time passed): the next link begins a new one. Bytes
 * sent and unacknowledged are in doubt: reported as for a lost session, and dropped. Only
 * between qlt_sw_link_lost and qlt_sw_link_up; on a live link, the negotiation settles it. */
void qlt_sw_forget_session(qlt_sw* sw);

#ifdef __cplusplus
}
#endif

#endif /* QLT_SW_H */
