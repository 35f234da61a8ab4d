/* qlt_sw_priv: what the classic rules (qlt_sw.c) and the wide window (qlt_sw_ext.c,
 * qlt_sw_window.c) share inside the core. Not installed; C only. */
#ifndef QLT_SW_PRIV_H
#define QLT_SW_PRIV_H

#include "qlt_sw.h"

/* Wrap-safe time: what is left of a wait of `wait` us begun at `since` (0: over). */
uint32_t qlt_swi_left(uint32_t now, uint32_t since, uint32_t wait);
/* A round-trip sample: SRTT, RTTVAR, rto and the poll wait follow. */
void qlt_swi_sample(qlt_sw* sw, uint32_t us);
void qlt_swi_set_poll_wait(qlt_sw* sw);
void qlt_swi_trace(qlt_sw* sw, qlt_sw_event event, uint32_t a, uint32_t b);
/* The send queue's slot `offset` places from its head: a length byte, then the bytes. */
uint8_t* qlt_swi_slot(const qlt_sw* sw, uint32_t offset);
/* Drops `bytes` from the head of the send queue (a partial slot keeps its tail). */
void qlt_swi_drop_bytes(qlt_sw* sw, uint32_t bytes);

/* A new link: the classic window starts again from sequence 0, its queue kept. */
void qlt_swi_classic_restart(qlt_sw* sw);

/* The wide window's hooks into the classic core: only when it is built and configured. */
#define WIDE_ON(sw) (QLT_SW_WIDE && (sw)->cfg.wide_role)
int qlt_swi_ext_init(qlt_sw* sw);
/* A received value the wide window takes (1: handled, *kind set), or leaves to the classic
 * rules (0). */
int qlt_swi_ext_receive(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now,
                        qlt_sw_delivery* d);
/* The classic rules may write new segments / take classic segments. */
int qlt_swi_classic_may_send(const qlt_sw* sw);
/* Frames before the classic ones (negotiation) and after them (the extended window). */
size_t qlt_swi_ext_first(qlt_sw* sw, uint32_t now, uint8_t* out, size_t cap);
size_t qlt_swi_ext_last(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap);
uint32_t qlt_swi_ext_due(const qlt_sw* sw, uint32_t now);
void qlt_swi_fault(qlt_sw* sw, qlt_sw_fault fault);

/* The extended window (qlt_sw_window.c). */
void qlt_swi_win_start_send(qlt_sw* sw, uint32_t now);
void qlt_swi_win_reset(qlt_sw* sw);
int qlt_swi_win_receive(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now,
                        qlt_sw_delivery* d);
size_t qlt_swi_win_frame(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap);
uint32_t qlt_swi_win_due(const qlt_sw* sw, uint32_t now);
uint16_t qlt_swi_win_room(const qlt_sw* sw);

#endif /* QLT_SW_PRIV_H */
