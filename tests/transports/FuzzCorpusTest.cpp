// Every input of the fuzz corpus, run through the fuzzers' own entry functions: an input
// that once broke an invariant stays fixed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "support/SlideWindowFuzz.h"
#include "support/TestSupport.h"

namespace {

size_t replay(const char* mode, int (*entry)(const uint8_t*, size_t)) {
  size_t n = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(std::filesystem::path(QLT_FUZZ_CORPUS_DIR) / mode)) {
    std::ifstream in(file.path(), std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    SCOPED_TRACE(file.path().string());
    EXPECT_EQ(entry(bytes.data(), bytes.size()), 0);
    ++n;
  }
  return n;
}

}  // namespace

TEST(TheFuzzCorpus, ReplaysCleanInBothModes) {
  qlt::test::LogCapture quiet;
  EXPECT_GE(replay("raw", qlt::fuzz::runRaw), 4u);
  EXPECT_GE(replay("structured", qlt::fuzz::runStructured), 4u);
  // The empty input and a few hand-made edges.
  const uint8_t edges[] = {0xFF, 0x80, 0x00, 0x7F};
  EXPECT_EQ(qlt::fuzz::runRaw(nullptr, 0), 0);
  EXPECT_EQ(qlt::fuzz::runStructured(nullptr, 0), 0);
  EXPECT_EQ(qlt::fuzz::runRaw(edges, sizeof edges), 0);
  EXPECT_EQ(qlt::fuzz::runStructured(edges, sizeof edges), 0);
}
