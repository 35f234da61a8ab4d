// SLIP framing (RFC 1055) as the firmware and the simulated radio's external devices use it,
// and the firmware fuzzer's corpus.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "qlt_slip.h"

extern "C" int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kEnd = QLT_SLIP_END, kEsc = QLT_SLIP_ESC;

Bytes encode(const Bytes& frame) {
  Bytes out(QLT_SLIP_ENCODED_MAX(frame.size()));
  out.resize(qlt_slip_encode(frame.data(), frame.size(), out.data(), out.size()));
  return out;
}

std::vector<Bytes> decode(qlt_slip_decoder& d, const Bytes& stream) {
  std::vector<Bytes> frames;
  for (uint8_t b : stream) {
    if (size_t n = qlt_slip_decode_byte(&d, b)) frames.emplace_back(d.buffer, d.buffer + n);
  }
  return frames;
}

TEST(Slip, CarriesEveryByteValueAndFramesSplitAnywhere) {
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<uint8_t>(i));
  const Bytes second{kEsc, 1, kEnd};
  Bytes stream = encode(all);
  EXPECT_EQ(stream.size(), 256u + 2 + 2) << "END and ESC take two bytes each, plus two ENDs";
  const Bytes more = encode(second);
  stream.insert(stream.end(), more.begin(), more.end());
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    Bytes buffer(300);
    qlt_slip_decoder d;
    qlt_slip_decoder_init(&d, buffer.data(), buffer.size());
    auto frames = decode(d, Bytes(stream.begin(), stream.begin() + cut));
    const auto rest = decode(d, Bytes(stream.begin() + cut, stream.end()));
    frames.insert(frames.end(), rest.begin(), rest.end());
    ASSERT_EQ(frames, (std::vector<Bytes>{all, second})) << "cut at " << cut;
  }
  uint8_t small[5];
  EXPECT_EQ(qlt_slip_encode(second.data(), 3, small, sizeof small), 0u) << "6 bytes, room for 5";
}

TEST(Slip, DropsLongOrBadlyEscapedFramesWholeAndGoesOnAtTheNextEnd) {
  const Bytes stream{kEnd, kEnd,                       // empty frames: ignored
                     1,    2,    3,    4, 5,    kEnd,  // one byte too long
                     7,    kEsc, 9,    8, kEnd,   // ESC followed by neither ESC_END nor ESC_ESC
                     6,    kEsc, kEnd,            // ESC right before END
                     1,    2,    3,    4, kEnd};  // exactly the capacity
  uint8_t buffer[4];
  qlt_slip_decoder d;
  qlt_slip_decoder_init(&d, buffer, sizeof buffer);
  EXPECT_EQ(decode(d, stream), (std::vector<Bytes>{{1, 2, 3, 4}}));
  EXPECT_EQ(d.dropped, 3u);
}

TEST(TheFirmwareFuzzCorpus, RunsClean) {
  for (const auto& entry : std::filesystem::directory_iterator(QLT_FW_FUZZ_CORPUS)) {
    std::ifstream in(entry.path(), std::ios::binary);
    const Bytes input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(qlt_fuzz_firmware_input(input.data(), input.size()), 0) << entry.path();
  }
}

}  // namespace
