/* The micro:bit's board support for the firmware kit: the UART towards the host (P0.24/P0.25,
 * 115200 8N1; under QEMU, the machine's first serial port), a microsecond clock on TIMER0,
 * and a sleep that ends at a deadline or when a byte arrives. */
#ifndef QLT_MICROBIT_BOARD_H
#define QLT_MICROBIT_BOARD_H

#include <stddef.h>
#include <stdint.h>

void board_init(void);
/* Microseconds since board_init(), wrapping every 2^32 us (about 71 minutes). */
uint32_t board_now_us(void);
/* One received byte into *byte: 1, or 0 when none is waiting. */
int board_uart_read(uint8_t* byte);
/* Sends the bytes, waiting for the UART to take each one. */
void board_uart_write(const uint8_t* bytes, size_t length);
/* Sleeps until a byte arrives or `timeout_us` has passed (whichever first; may return early). */
void board_wait(uint32_t timeout_us);
/* Restarts the chip. */
void board_restart(void);

#endif /* QLT_MICROBIT_BOARD_H */
