// libFuzzer target: the input into a sliding-window engine's receive path, as raw values or as
// a script of mostly valid frames (QLT_FUZZ_ENTRY is runRaw or runStructured).
#include <cstddef>
#include <cstdint>

#include "QueltLibrary/Log.h"
#include "support/SlideWindowFuzz.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qlt::setLogSink([](std::string_view) {});  // malformed frames are logged one by one
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return qlt::fuzz::QLT_FUZZ_ENTRY(data, size);
}
