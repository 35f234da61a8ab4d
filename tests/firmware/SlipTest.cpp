// SLIP framing (RFC 1055) as the firmware and the simulated radio's external devices use it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qlt_slip.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes encode(const Bytes& frame) {
  Bytes out(QLT_SLIP_ENCODED_MAX(frame.size()));
  out.resize(qlt_slip_encode(frame.data(), frame.size(), out.data(), out.size()));
  return out;
}

struct Decoder {
  explicit Decoder(size_t capacity) : buffer(capacity) {
    qlt_slip_decoder_init(&d, buffer.data(), buffer.size());
  }
  std::vector<Bytes> feed(const Bytes& stream) {
    std::vector<Bytes> frames;
    for (uint8_t b : stream) {
      const size_t n = qlt_slip_decode_byte(&d, b);
      if (n) frames.emplace_back(d.buffer, d.buffer + n);
    }
    return frames;
  }
  Bytes buffer;
  qlt_slip_decoder d{};
};

TEST(Slip, CarriesEveryByteValueAndFramesSplitAnywhere) {
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<uint8_t>(i));
  const Bytes wire = encode(all);
  EXPECT_EQ(wire.front(), QLT_SLIP_END);
  EXPECT_EQ(wire.back(), QLT_SLIP_END);
  EXPECT_EQ(wire.size(), 256u + 2 + 2) << "END and ESC each take two bytes";
  for (size_t i = 1; i + 1 < wire.size(); ++i) EXPECT_NE(wire[i], QLT_SLIP_END);

  // Two frames back to back, fed in every possible split: both come out whole.
  const Bytes second{QLT_SLIP_ESC, 1, QLT_SLIP_END};
  Bytes stream = wire;
  const Bytes more = encode(second);
  stream.insert(stream.end(), more.begin(), more.end());
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    Decoder d(300);
    auto frames = d.feed(Bytes(stream.begin(), stream.begin() + cut));
    const auto rest = d.feed(Bytes(stream.begin() + cut, stream.end()));
    frames.insert(frames.end(), rest.begin(), rest.end());
    ASSERT_EQ(frames, (std::vector<Bytes>{all, second})) << "cut at " << cut;
  }
  EXPECT_EQ(encode({}), (Bytes{QLT_SLIP_END, QLT_SLIP_END}));
}

TEST(Slip, DropsLongOrBadlyEscapedFramesWholeAndGoesOnAtTheNextEnd) {
  Decoder d(4);
  const std::vector<Bytes> parts{
      {QLT_SLIP_END, QLT_SLIP_END},           // empty frames: ignored
      {1, 2, 3, 4, 5, QLT_SLIP_END},          // one byte too long
      {7, QLT_SLIP_ESC, 9, 8, QLT_SLIP_END},  // ESC followed by neither ESC_END nor ESC_ESC
      {6, QLT_SLIP_ESC, QLT_SLIP_END},        // ESC right before END
      {1, 2, 3, 4, QLT_SLIP_END},             // exactly the capacity
  };
  Bytes stream;
  for (const auto& part : parts) stream.insert(stream.end(), part.begin(), part.end());
  EXPECT_EQ(d.feed(stream), (std::vector<Bytes>{{1, 2, 3, 4}}));
  EXPECT_EQ(d.d.dropped, 3u);
  EXPECT_EQ(d.d.frames, 1u);

  uint8_t small[5];
  const uint8_t frame[] = {1, QLT_SLIP_END, 2};
  EXPECT_EQ(qlt_slip_encode(frame, 3, small, sizeof small), 0u) << "6 bytes do not fit in 5";
}

}  // namespace

extern "C" int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

namespace {

// The firmware fuzzer's corpus (fuzz/corpus/firmware) replayed: each input runs clean.
TEST(TheFirmwareFuzzCorpus, RunsClean) {
  size_t inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QLT_FW_FUZZ_CORPUS)) {
    std::ifstream in(entry.path(), std::ios::binary);
    const Bytes input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(qlt_fuzz_firmware_input(input.data(), input.size()), 0) << entry.path();
    ++inputs;
  }
  EXPECT_GE(inputs, 3u);
}

}  // namespace
