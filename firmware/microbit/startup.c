/* Reset and the vector table of the nRF51 (Cortex-M0). No handler does any work: the main loop
 * runs with interrupts masked and sleeps in WFI, which a pending interrupt still ends (ARMv6-M
 * Architecture Reference Manual, B1.5.19: WFI wakes on an interrupt that PRIMASK keeps from
 * being taken), so nothing runs behind the loop's back. */
#include <stddef.h>
#include <stdint.h>

extern uint32_t __data_start, __data_end, __data_load, __bss_start, __bss_end, __stack_top;
int main(void);

void qlt_reset_handler(void);
void qlt_fault_handler(void);

void qlt_fault_handler(void) {
  /* A fault or a stray interrupt: restart the chip (the link drops, as on any reset). */
  *(volatile uint32_t*)0xE000ED0Cu = 0x05FA0004u;
  for (;;) {
  }
}

void qlt_reset_handler(void) {
  uint32_t* dst = &__data_start;
  const uint32_t* src = &__data_load;
  __asm volatile("cpsid i" ::: "memory");
  while (dst < &__data_end) *dst++ = *src++;
  for (dst = &__bss_start; dst < &__bss_end;) *dst++ = 0;
  (void)main();
  qlt_fault_handler();
}

/* 16 system exceptions, then the nRF51's 32 interrupts: the stack's top, reset, and 46 more
 * that all restart the chip. */
#define F4 qlt_fault_handler, qlt_fault_handler, qlt_fault_handler, qlt_fault_handler
__attribute__((section(".vectors"), used)) static void (*const vectors[16 + 32])(void) = {
    (void (*)(void))(uintptr_t)&__stack_top,
    qlt_reset_handler,
    qlt_fault_handler,
    qlt_fault_handler,
    F4, F4, F4, F4, F4, F4, F4, F4, F4, F4, F4,
};
