// What a sender waits on before it calls its bytes delivered: unacknowledged(), and the
// handler called when it falls to 0, for the sliding window and for the chunker.
#include <gtest/gtest.h>

#include <atomic>

#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/SWTransport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using test::bytes;

TEST(Unacknowledged, CountsBytesUntilThePeerAcknowledgesThemEvenBeyondTheCoresQueue) {
  auto sw = SWTransport::create(std::make_shared<ManualClock>());
  auto wire = std::make_shared<test::FrameSink>();
  sw->setSenderDelegate(wire);
  std::atomic<int> calls{0};
  sw->setAllAcknowledgedHandler([&] { ++calls; });
  // 41 segments, more than the core's queue holds, then a message of its own.
  const Data big = bytes(40 * 120 + 7), small = bytes(5, 50);
  sw->sendTCP(big.bytes(), big.length());
  sw->sendTCP(small.bytes(), small.length());
  EXPECT_EQ(sw->unacknowledged(), big.length() + small.length());
  EXPECT_EQ(sw->queuedSegments(), 42u);
  std::vector<size_t> lengths;
  for (int round = 0; round < 100; ++round) {
    sw->transfer();
    auto frames = wire->take();
    if (frames.empty()) break;
    for (const auto& f : frames) lengths.push_back(f.length() - 1);
    const uint8_t next = static_cast<uint8_t>(((frames.back()[0] >> 4) + 1) & 3);
    sw->receive(Data(std::vector<uint8_t>{static_cast<uint8_t>(0x03 | next << 4)}));
    if (lengths.size() < 42) {
      EXPECT_EQ(calls, 0) << "after " << lengths.size();
    }
  }
  std::vector<size_t> expected(40, 120);
  expected.push_back(7);
  expected.push_back(5);
  EXPECT_EQ(lengths, expected) << "in order, each message starting a segment of its own";
  EXPECT_EQ(sw->counters().bytesQueued, 0u);  // also waits for the last receive
  EXPECT_EQ(sw->unacknowledged(), 0u);
  EXPECT_EQ(calls, 1);
}

TEST(Unacknowledged, CountsTheChunkersBytesUntilWritten) {
  auto nus = NUSTransport::create();
  int calls = 0;
  nus->setAllAcknowledgedHandler([&] { ++calls; });
  nus->sendTCP(bytes(45).bytes(), 45);
  for (uint64_t left : {25u, 5u, 0u}) {
    EXPECT_EQ(calls, 0);
    nus->transfer();
    EXPECT_EQ(nus->unacknowledged(), left);
  }
  EXPECT_EQ(calls, 1);
}
