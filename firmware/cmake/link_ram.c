/* One link's state as a firmware holds it, for the size report: the device layer (with the
 * core inside it) and a send queue of 3 segments of 120 bytes. */
#include "qlt_nus.h"

qlt_nus qlt_size_link;
uint8_t qlt_size_link_slots[QLT_NUS_SLOTS_BYTES(3)];
