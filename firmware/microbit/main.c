/* The kit's example device on the BBC micro:bit (nRF51822): the UART-service echo
 * (echo_device.c) with SLIP frames on the UART, sleeping between bytes and deadlines. Under
 * QEMU (`-M microbit`), the UART is the machine's first serial port.
 *
 * QLT_FW_RESTART_AFTER (a build option for tests) restarts the chip after that many received
 * bytes: the host sees a device that reboots in the middle of a transfer. QLT_FW_LINK_EVENTS=1
 * (the -events image) makes the UART carry the connections' starts and ends as well
 * (echo_device.h): one run of the chip serves many connections and keeps its session. */
#include "board.h"
#include "echo_device.h"

#ifndef QLT_FW_RESTART_AFTER
#define QLT_FW_RESTART_AFTER 0u
#endif
#ifndef QLT_FW_LINK_EVENTS
#define QLT_FW_LINK_EVENTS 0u
#endif

/* Milliseconds that keep counting across the microsecond clock's wrap. */
static uint32_t now_ms(void) {
  static uint32_t last_us, ms, part_us;
  const uint32_t us = board_now_us();
  part_us += us - last_us;
  last_us = us;
  ms += part_us / 1000u;
  part_us %= 1000u;
  return ms;
}

int main(void) {
  /* A small stack: 2 notification buffers, one freed every 2 ms, so a busy link sees it full. */
  echo_device_options options = {board_uart_write, 2, 2, QLT_FW_RESTART_AFTER, 0,
                                 QLT_FW_LINK_EVENTS};
  board_init();
  /* The session's nonce from the time since reset; a product takes it from the chip's RNG. */
  options.nonce = board_now_us() * 2654435761u | 1u;
  echo_device_init(&options, now_ms());
  for (;;) {
    uint8_t byte;
    uint32_t wait;
    while (board_uart_read(&byte)) echo_device_serial_byte(byte, now_ms());
    if (echo_device_restart_due()) board_restart();
    wait = echo_device_tick(now_ms());
    /* The clock wraps after 2^32 us: sleep at most a minute at a time. */
    board_wait(wait > 60000u ? 60000000u : wait * 1000u);
  }
}
