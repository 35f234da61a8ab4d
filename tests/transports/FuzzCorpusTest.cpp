// Every input of the fuzz corpus, run through the fuzzers' own entry functions: an input
// that once broke an invariant stays fixed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "support/SlideWindowFuzz.h"
#include "support/TestSupport.h"

TEST(TheFuzzCorpus, ReplaysCleanInBothModes) {
  qlt::test::LogCapture quiet;
  const std::pair<const char*, int (*)(const uint8_t*, size_t)> modes[] = {
      {"raw", qlt::fuzz::runRaw},
      {"structured", qlt::fuzz::runStructured},
      {"wide", qlt::fuzz::runWide}};
  for (auto [mode, entry] : modes) {
    size_t n = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(QLT_FUZZ_CORPUS_DIR) / mode)) {
      std::ifstream in(file.path(), std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
      EXPECT_EQ(entry(bytes.data(), bytes.size()), 0) << file.path();
      ++n;
    }
    EXPECT_GE(n, 4u) << mode;
    const uint8_t edges[] = {0xFF, 0x80, 0x00, 0x7F};  // and the empty input
    EXPECT_EQ(entry(nullptr, 0), 0) << mode;
    EXPECT_EQ(entry(edges, sizeof edges), 0) << mode;
  }
}
