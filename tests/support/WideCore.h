// A sliding-window core with the wide window on, its buffers beside it, as the tests and
// the fuzz target set it up: 120-byte classic segments, a 300 ms poll time-out.
#pragma once

#include <array>
#include <vector>

#include "swcore/qlt_sw.h"

namespace qlt::test {

struct WideParams {
  uint8_t role = QLT_SW_ROLE_CENTRAL;
  uint16_t segment = 512, sendSlots = 32, recvSlots = 16, valueLimit = 244;
  uint32_t nonce = 77;
  bool manualConsume = false;
};

struct WideCore {
  explicit WideCore(WideParams p)
      : storage(QLT_SW_WIDE_STORAGE(p.segment, p.sendSlots, p.recvSlots)) {
    config.segment_size = 120;
    config.poll_timeout_us = 300000;
    config.ack_delay_us = 1000;
    config.slots = slots.data();
    config.slot_count = 120;
    config.wide_role = p.role;
    config.wide_manual_consume = p.manualConsume;
    config.wide_segment = p.segment;
    config.wide_send_slots = p.sendSlots;
    config.wide_recv_slots = p.recvSlots;
    config.wide_storage = storage.data();
    config.value_limit = p.valueLimit;
    config.nonce = p.nonce;
    initialized = qlt_sw_init(&sw, &config) == 0;
  }
  qlt_sw_wide_info info() const {
    qlt_sw_wide_info i;
    qlt_sw_get_wide_info(&sw, &i);
    return i;
  }
  const qlt_sw_counters& c() const { return *qlt_sw_get_counters(&sw); }

  std::array<uint8_t, QLT_SW_STORAGE(120, 120)> slots{};
  std::vector<uint32_t> storage;
  qlt_sw_config config{};
  qlt_sw sw{};
  bool initialized = false;
};

}  // namespace qlt::test
