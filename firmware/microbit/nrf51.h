/* The few nRF51 registers this firmware uses (nRF51 Series Reference Manual v3.0: UART
 * chapter 29, TIMER chapter 18; the Cortex-M0 NVIC and SCB from the ARMv6-M Architecture
 * Reference Manual). QEMU's `microbit` machine models the UART (a 6-byte receive FIFO) and the
 * TIMERs, not the RTC, so the clock is TIMER0. */
#ifndef QLT_NRF51_H
#define QLT_NRF51_H

#include <stdint.h>

#define QLT_REG(address) (*(volatile uint32_t*)(uintptr_t)(address))

#define UART0_BASE 0x40002000u
#define UART0_STARTRX QLT_REG(UART0_BASE + 0x000u)
#define UART0_STARTTX QLT_REG(UART0_BASE + 0x008u)
#define UART0_EVENTS_RXDRDY QLT_REG(UART0_BASE + 0x108u)
#define UART0_EVENTS_TXDRDY QLT_REG(UART0_BASE + 0x11Cu)
#define UART0_EVENTS_ERROR QLT_REG(UART0_BASE + 0x124u)
#define UART0_INTENSET QLT_REG(UART0_BASE + 0x304u)
#define UART0_ERRORSRC QLT_REG(UART0_BASE + 0x480u)
#define UART0_ENABLE QLT_REG(UART0_BASE + 0x500u)
#define UART0_PSELTXD QLT_REG(UART0_BASE + 0x50Cu)
#define UART0_PSELRXD QLT_REG(UART0_BASE + 0x514u)
#define UART0_RXD QLT_REG(UART0_BASE + 0x518u)
#define UART0_TXD QLT_REG(UART0_BASE + 0x51Cu)
#define UART0_BAUDRATE QLT_REG(UART0_BASE + 0x524u)
#define UART_INTEN_RXDRDY (1u << 2)
#define UART_ENABLE_ENABLED 4u
#define UART_BAUDRATE_115200 0x01D7E000u
#define MICROBIT_PIN_TX 24u /* P0.24: the interface chip's serial line */
#define MICROBIT_PIN_RX 25u /* P0.25 */

#define TIMER0_BASE 0x40008000u
#define TIMER0_START QLT_REG(TIMER0_BASE + 0x000u)
#define TIMER0_CAPTURE(n) QLT_REG(TIMER0_BASE + 0x040u + 4u * (n))
#define TIMER0_EVENTS_COMPARE(n) QLT_REG(TIMER0_BASE + 0x140u + 4u * (n))
#define TIMER0_INTENSET QLT_REG(TIMER0_BASE + 0x304u)
#define TIMER0_MODE QLT_REG(TIMER0_BASE + 0x504u)
#define TIMER0_BITMODE QLT_REG(TIMER0_BASE + 0x508u)
#define TIMER0_PRESCALER QLT_REG(TIMER0_BASE + 0x510u)
#define TIMER0_CC(n) QLT_REG(TIMER0_BASE + 0x540u + 4u * (n))
#define TIMER_BITMODE_32 3u
#define TIMER_PRESCALER_1MHZ 4u /* 16 MHz >> 4 */
#define TIMER_INTEN_COMPARE(n) (1u << (16u + (n)))

#define IRQ_UART0 2u
#define IRQ_TIMER0 8u
#define NVIC_ISER QLT_REG(0xE000E100u)
#define NVIC_ICPR QLT_REG(0xE000E280u)
#define SCB_AIRCR QLT_REG(0xE000ED0Cu)
#define SCB_AIRCR_SYSRESET 0x05FA0004u /* VECTKEY | SYSRESETREQ */

#endif /* QLT_NRF51_H */
