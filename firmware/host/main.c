/* The kit's example device as a host program: the UART-service echo (echo_device.c) with SLIP
 * frames on stdin and stdout, so any peer (the simulated radio's external device, a test, a
 * serial bridge) can talk to the same firmware sources that run on the chip.
 *
 *   qlt-fw-echo [--buffers N] [--buffer-free-ms MS] [--restart-after BYTES] [--link-events]
 *
 * Ends at the end of stdin (exit 0), printing its counters on stderr; --restart-after ends it
 * with exit status 3 after that many received bytes, as a device that reboots drops its link.
 * --link-events: every frame begins with a type byte and the connections' starts and ends come
 * on the line too (echo_device.h), so one run serves many connections and keeps its session
 * across them (the simulated radio's external devices with keepRunning). */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "echo_device.h"

static uint32_t now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint32_t)((uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u);
}

static void serial_write(const uint8_t* bytes, size_t length) {
  while (length > 0) {
    const ssize_t n = write(STDOUT_FILENO, bytes, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) exit(1); /* the peer is gone */
    bytes += n;
    length -= (size_t)n;
  }
}

static int number(const char* text, unsigned long max, unsigned long* out) {
  char* end = NULL;
  errno = 0;
  *out = strtoul(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && *out <= max && text[0] != '-';
}

static void report(void) {
  const qlt_nus_counters* c = qlt_nus_get_counters(echo_device_layer());
  const qlt_sw_counters* p = qlt_nus_protocol_counters(echo_device_layer());
  fprintf(stderr,
          "qlt-fw-echo: %lu values written, %lu notifications, %lu refused by the stack, "
          "%lu bytes received, %lu left unread, %lu segments resent, %lu bad SLIP frames, "
          "%lu sessions resumed, %lu sessions lost\n",
          (unsigned long)c->values_written, (unsigned long)c->notifications,
          (unsigned long)c->notify_refused, (unsigned long)c->bytes_received,
          (unsigned long)c->values_left_unread, (unsigned long)p->segments_resent,
          (unsigned long)echo_device_bad_frames(), (unsigned long)p->sessions_resumed,
          (unsigned long)p->sessions_lost);
}

int main(int argc, char** argv) {
  /* A new nonce every run: a restarted device begins a new session. */
  echo_device_options options = {serial_write, 4, 1, 0,
                                 (uint32_t)getpid() * 2654435761u ^ now_ms() ^ 1u, 0};
  unsigned long v;
  int i;
  for (i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (strcmp(arg, "--link-events") == 0) {
      options.link_events = 1;
      continue;
    }
    if (strcmp(arg, "--buffers") == 0 && number(value, 255, &v) && v > 0) {
      options.stack_buffers = (uint8_t)v;
    } else if (strcmp(arg, "--buffer-free-ms") == 0 && number(value, 60000, &v)) {
      options.buffer_free_ms = (uint32_t)v;
    } else if (strcmp(arg, "--restart-after") == 0 && number(value, 0xFFFFFFFFul, &v)) {
      options.restart_after = (uint32_t)v;
    } else {
      fprintf(stderr,
              "usage: %s [--buffers 1-255] [--buffer-free-ms MS] [--restart-after BYTES] "
              "[--link-events]\n",
              argv[0]);
      return 2;
    }
    ++i;
  }

  echo_device_init(&options, now_ms());
  for (;;) {
    const uint32_t wait = echo_device_tick(now_ms());
    struct pollfd in = {STDIN_FILENO, POLLIN, 0};
    uint8_t buffer[512];
    ssize_t n;
    int ready = poll(&in, 1, wait == QLT_NUS_IDLE ? -1 : (int)(wait > 60000 ? 60000 : wait));
    if (ready < 0 && errno != EINTR) return 1;
    if (ready <= 0) continue;
    n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t k = 0; k < n; ++k) echo_device_serial_byte(buffer[k], now_ms());
    if (echo_device_restart_due()) {
      report();
      fprintf(stderr, "qlt-fw-echo: restarting, as asked\n");
      return 3;
    }
  }
  report();
  return 0;
}
