// libFuzzer target: a firmware's UART input (SLIP, then the device layer): firmware_input.c.
#include <cstddef>
#include <cstdint>

extern "C" int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return qlt_fuzz_firmware_input(data, size);
}
