#include "board.h"

#include "nrf51.h"

void board_init(void) {
  UART0_PSELTXD = MICROBIT_PIN_TX;
  UART0_PSELRXD = MICROBIT_PIN_RX;
  UART0_BAUDRATE = UART_BAUDRATE_115200;
  UART0_ENABLE = UART_ENABLE_ENABLED;
  UART0_EVENTS_RXDRDY = 0;
  UART0_EVENTS_TXDRDY = 0;
  UART0_STARTTX = 1;
  UART0_STARTRX = 1;
  UART0_INTENSET = UART_INTEN_RXDRDY;

  TIMER0_MODE = 0; /* timer */
  TIMER0_BITMODE = TIMER_BITMODE_32;
  TIMER0_PRESCALER = TIMER_PRESCALER_1MHZ;
  TIMER0_INTENSET = TIMER_INTEN_COMPARE(0);
  TIMER0_START = 1;

  /* Enabled in the NVIC so that they wake WFI; PRIMASK (set at reset) keeps them from being
   * taken. */
  NVIC_ISER = (1u << IRQ_UART0) | (1u << IRQ_TIMER0);
}

uint32_t board_now_us(void) {
  TIMER0_CAPTURE(1) = 1;
  return TIMER0_CC(1);
}

int board_uart_read(uint8_t* byte) {
  if (!UART0_EVENTS_RXDRDY) return 0;
  /* Clear the event before reading: the read sets it again when more bytes wait. */
  UART0_EVENTS_RXDRDY = 0;
  *byte = (uint8_t)UART0_RXD;
  return 1;
}

void board_uart_write(const uint8_t* bytes, size_t length) {
  size_t i;
  for (i = 0; i < length; ++i) {
    UART0_EVENTS_TXDRDY = 0;
    UART0_TXD = bytes[i];
    while (!UART0_EVENTS_TXDRDY) {
    }
  }
}

void board_wait(uint32_t timeout_us) {
  TIMER0_EVENTS_COMPARE(0) = 0;
  TIMER0_CC(0) = board_now_us() + (timeout_us ? timeout_us : 1u);
  NVIC_ICPR = (1u << IRQ_UART0) | (1u << IRQ_TIMER0);
  /* Anything that happened before the pending bits were cleared is seen here; anything after
   * leaves its interrupt pending, which ends the WFI at once. */
  if (UART0_EVENTS_RXDRDY || TIMER0_EVENTS_COMPARE(0)) return;
  __asm volatile("wfi" ::: "memory");
}

void board_restart(void) {
  SCB_AIRCR = SCB_AIRCR_SYSRESET;
  for (;;) {
  }
}
