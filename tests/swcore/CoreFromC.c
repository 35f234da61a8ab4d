/* The core as a C firmware uses it: static storage, a millisecond tick, no C++ anywhere.
 * Two cores talk over a wire that loses every seventh frame; every byte must arrive once,
 * in order, both ways, and both queues must drain. Exits non-zero on a failure. */
#include <stdio.h>
#include <string.h>

#include "swcore/qlt_sw.h"

#define SEGMENT 120
#define SLOTS 3
#define TOTAL 5000

static uint8_t slots[2][QLT_SW_STORAGE(SEGMENT, SLOTS)];
static qlt_sw ends[2];
static uint8_t sent[2][TOTAL], got[2][TOTAL];
static size_t queued[2], received[2];

static int fail(const char* what) {
  fprintf(stderr, "CoreFromC: %s\n", what);
  return 1;
}

int main(void) {
  uint32_t ms, frames = 0;
  int i;
  for (i = 0; i < 2; ++i) {
    size_t k;
    qlt_sw_config cfg;
    memset(&cfg, 0, sizeof cfg);
    cfg.segment_size = SEGMENT;
    cfg.poll_timeout_us = 300000;
    cfg.ack_delay_us = 1000;
    cfg.slots = slots[i];
    cfg.slot_count = SLOTS;
#if !QLT_SW_WIDE
    cfg.wide_role = QLT_SW_ROLE_DEVICE;
    if (qlt_sw_init(&ends[i], &cfg) == 0) return fail("a core built classic took a wide role");
    cfg.wide_role = QLT_SW_ROLE_OFF;
#endif
    if (qlt_sw_init(&ends[i], &cfg) != 0) return fail("init refused a good configuration");
    for (k = 0; k < TOTAL; ++k) sent[i][k] = (uint8_t)(k * 7 + (size_t)i);
  }
  if (sizeof(qlt_sw) + sizeof slots[0] > 1024) return fail("state and buffers exceed 1 KiB");
  for (ms = 0; ms < 60000; ++ms) {
    const uint32_t now = ms * 1000u; /* a firmware's millisecond tick */
    for (i = 0; i < 2; ++i) {
      uint8_t frame[QLT_SW_FRAME_MAX];
      size_t n;
      queued[i] += qlt_sw_send(&ends[i], sent[i] + queued[i], TOTAL - queued[i]);
      while ((n = qlt_sw_poll_frame(&ends[i], now, frame, sizeof frame)) > 0) {
        qlt_sw_delivery d;
        if (++frames % 7 == 0) continue; /* lost on the air */
        if (qlt_sw_receive(&ends[1 - i], frame, n, now, &d) == QLT_SW_TCP) {
          if (received[1 - i] + d.len > TOTAL) return fail("more bytes than were sent");
          memcpy(got[1 - i] + received[1 - i], d.payload, d.len);
          received[1 - i] += d.len;
        }
      }
    }
    if (received[0] == TOTAL && received[1] == TOTAL && qlt_sw_queued(&ends[0]) == 0 &&
        qlt_sw_queued(&ends[1]) == 0)
      break;
  }
  for (i = 0; i < 2; ++i) {
    if (received[i] != TOTAL) return fail("not every byte arrived");
    if (memcmp(got[i], sent[1 - i], TOTAL) != 0) return fail("bytes arrived changed or reordered");
    if (qlt_sw_queued(&ends[i]) != 0) return fail("a queue did not drain");
    if (qlt_sw_get_counters(&ends[i])->segments_resent == 0) return fail("no loss was recovered");
  }
  printf("CoreFromC: %u bytes each way in %u ms, %u frames\n", (unsigned)TOTAL, (unsigned)ms,
         (unsigned)frames);
  return 0;
}
