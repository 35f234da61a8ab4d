#include <gtest/gtest.h>

#include "platform/sim/LinkModel.h"

using qlt::sim::LinkConfig;
using qlt::sim::LinkModel;

TEST(ALinkModel, KeepsFifoOrderUnderJitterAndDuplication) {
  LinkModel link({.lossProbability = 0.2,
                  .duplicationProbability = 0.3,
                  .delaySeconds = 0.005,
                  .jitterSeconds = 0.02},
                 7);
  double last = 0;
  int lost = 0, dup = 0;
  for (int i = 0; i < 5000; ++i) {
    const double t = i * 0.0005;
    auto fate = link.transmit(t, 20);
    if (fate.lost()) {
      ++lost;
      continue;
    }
    for (int c = 0; c < fate.copies; ++c) {
      EXPECT_GE(fate.at[c], last);
      EXPECT_GE(fate.at[c], t + 0.005);
      last = fate.at[c];
    }
    if (fate.copies == 2) ++dup;
  }
  EXPECT_NEAR(lost / 5000.0, 0.2, 0.03);
  EXPECT_NEAR(dup / 4000.0, 0.3, 0.04);
  EXPECT_EQ(link.framesLost(), static_cast<uint64_t>(lost));
}

TEST(ALinkModel, GivesTheSameAnswersForTheSameSeed) {
  LinkConfig config{.lossProbability = 0.1, .duplicationProbability = 0.1, .jitterSeconds = 0.01};
  LinkModel a(config, 42), b(config, 42), c(config, 43);
  bool differs = false;
  for (int i = 0; i < 200; ++i) {
    auto fa = a.transmit(i * 0.001, 10), fb = b.transmit(i * 0.001, 10),
         fc = c.transmit(i * 0.001, 10);
    ASSERT_EQ(fa.copies, fb.copies);
    if (fa.copies) {
      ASSERT_EQ(fa.at[0], fb.at[0]);
    }
    differs |= fa.copies != fc.copies || (fa.copies && fa.at[0] != fc.at[0]);
  }
  EXPECT_TRUE(differs);
}

TEST(ALinkModel, QueuesFramesBehindTheWriteRateLimit) {
  // 100 frames per second and 1000 bytes per second: a 20-byte frame takes 20 ms of air.
  LinkModel link({.delaySeconds = 0.001, .framesPerSecond = 100, .bytesPerSecond = 1000}, 1);
  auto f1 = link.transmit(0.0, 5);   // 10 ms (frame limit wins)
  auto f2 = link.transmit(0.0, 20);  // 20 ms, behind the first
  auto f3 = link.transmit(1.0, 5);   // the link is idle again by then
  EXPECT_DOUBLE_EQ(f1.at[0], 0.011);
  EXPECT_DOUBLE_EQ(f2.at[0], 0.031);
  EXPECT_DOUBLE_EQ(f3.at[0], 1.011);
}

TEST(ALinkModel, DropsWhatFindsItsQueueFull) {
  LinkModel link({.framesPerSecond = 100, .queueLimit = 2}, 1);
  EXPECT_FALSE(link.transmit(0.0, 1).lost());  // on air until 10 ms
  EXPECT_FALSE(link.transmit(0.0, 1).lost());  // until 20 ms
  EXPECT_TRUE(link.transmit(0.0, 1).lost());   // two still waiting: dropped
  EXPECT_EQ(link.framesDropped(), 1u);
  auto later = link.transmit(0.015, 1);  // the first has left
  ASSERT_FALSE(later.lost());
  EXPECT_DOUBLE_EQ(later.at[0], 0.03);
}
