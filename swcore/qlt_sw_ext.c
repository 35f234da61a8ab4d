/* qlt_sw_ext: the wide window's negotiation, extended window and session. See qlt_sw.h
 * and docs/wide-window.md. Not running yet: these calls are the API's first cut. */
#include <string.h>

#include "qlt_sw.h"

void qlt_sw_get_wide_info(const qlt_sw* sw, qlt_sw_wide_info* info) {
  memset(info, 0, sizeof *info);
  info->state = (qlt_sw_wide_state)sw->ext.state;
}

int qlt_sw_set_value_limit(qlt_sw* sw, uint16_t limit) {
  if (limit < 20) return -1;
  sw->ext.value_limit = limit;
  return 0;
}

size_t qlt_sw_frame_max(const qlt_sw* sw) { return (size_t)sw->cfg.segment_size + 1u; }

int qlt_sw_take_delivery(qlt_sw* sw, qlt_sw_delivery* delivery) {
  (void)sw;
  (void)delivery;
  return 0;
}

void qlt_sw_consume(qlt_sw* sw, uint32_t count, uint32_t now) {
  (void)sw;
  (void)count;
  (void)now;
}

void qlt_sw_link_lost(qlt_sw* sw) { (void)sw; }
void qlt_sw_link_up(qlt_sw* sw, uint32_t nonce) {
  (void)sw;
  (void)nonce;
}
void qlt_sw_forget_session(qlt_sw* sw) { (void)sw; }
