// libFuzzer target: the firmware's device side reading a UART (SLIP, then the device layer);
// the body is fuzz/firmware_input.c, which the firmware tests also replay over the corpus.
#include <cstddef>
#include <cstdint>

extern "C" int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return qlt_fuzz_firmware_input(data, size);
}
