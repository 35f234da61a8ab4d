/* The kit's example device: a UART-service echo whose radio is a serial line.
 *
 * Each value the central writes arrives as one SLIP frame (RFC 1055) on the serial line; each
 * notification leaves as one SLIP frame. In between sit the device layer (qlt_nus) and an echo
 * application: every "TCP" byte comes back once, in order, every datagram as a datagram.
 * The notifications go through an emulated stack buffer, as a BLE stack's: it holds
 * `stack_buffers` notifications and frees one every `buffer_free_ms` (a connection event), and
 * refuses a notification while it is full. Shared by the host build (stdin/stdout) and the
 * micro:bit image (its UART): only the serial line and the clock differ.
 *
 * With `link_events` the serial line also carries the connections' starts and ends, as a
 * stack's connected and disconnected events: every frame, both ways, begins with a type byte
 * (ECHO_FRAME_*), and the device keeps its session from one connection to the next
 * (qlt_nus_connected / qlt_nus_disconnected). Without it a frame is a bare value and the line
 * is one connection from start to end.
 *
 * One device per program (its state is static, as a firmware's is). */
#ifndef QLT_ECHO_DEVICE_H
#define QLT_ECHO_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include "qlt_nus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The type byte that begins every frame when the line carries link events. */
#define ECHO_FRAME_VALUE 0x00u     /* a value written (in), a notification (out) */
#define ECHO_FRAME_LINK_UP 0x01u   /* a connection began (in) */
#define ECHO_FRAME_LINK_DOWN 0x02u /* it ended (in) */

typedef struct echo_device_options {
  void (*serial_write)(const uint8_t* bytes, size_t length); /* the whole buffer, in order */
  uint8_t stack_buffers;   /* notifications the emulated stack holds (>= 1) */
  uint32_t buffer_free_ms; /* one of them frees up this often (0: at once) */
  uint32_t restart_after;  /* "TCP" bytes after which the device restarts (0: never) */
  uint32_t nonce;          /* random, nonzero: the wide window's session identity */
  uint8_t link_events;     /* frames carry a type byte and connections come and go */
} echo_device_options;

void echo_device_init(const echo_device_options* options, uint32_t now_ms);
/* One byte from the serial line. */
void echo_device_serial_byte(uint8_t byte, uint32_t now_ms);
/* Does what is due; returns the ms until it must be called again (QLT_NUS_IDLE: none). */
uint32_t echo_device_tick(uint32_t now_ms);
/* True once `restart_after` bytes have arrived: the caller restarts the device. */
int echo_device_restart_due(void);

const qlt_nus* echo_device_layer(void);
/* Frames dropped: by the SLIP decoder (too long, bad escape), or of an unknown type. */
uint32_t echo_device_bad_frames(void);

#ifdef __cplusplus
}
#endif

#endif /* QLT_ECHO_DEVICE_H */
