// kelvo-latency's histogram in cyclictest's -h format: bucket lines, summary lines, overflows.
#include "cyclictest_histogram.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string histogram(const std::vector<uint64_t>& latencyNs, size_t buckets) {
  char* text = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&text, &size);
  kelvo_bench::writeCyclictestHistogram(out, latencyNs.data(), latencyNs.size(), buckets);
  std::fclose(out);
  std::string result(text, size);
  std::free(text);
  return result;
}

TEST(CyclictestHistogram, OneLinePerMicrosecondBucketThenTheSummaryLines) {
  // 1.5 us, 1.9 us, 3.0 us, 0.2 us: buckets 0, 1, 1, 3 (cut to whole microseconds).
  EXPECT_EQ(histogram({1500, 1900, 3000, 200}, 4),
            "# Histogram\n"
            "000000 000001\n"
            "000001 000002\n"
            "000002 000000\n"
            "000003 000001\n"
            "# Total: 000000004\n"
            "# Min Latencies: 00000\n"
            "# Avg Latencies: 00001\n"
            "# Max Latencies: 00003\n"
            "# Histogram Overflows: 00000\n"
            "# Histogram Overflow at cycle number:\n"
            "# Thread 0:\n"
            "\n");
}

TEST(CyclictestHistogram, OverflowsListTheirCycleNumbersUpToTheBucketCount) {
  // Cycles 1, 2, 4 and 5 overflow two buckets: two are listed, two counted as others.
  const std::string text = histogram({1000, 5000, 7000, 0, 2000, 9000}, 2);
  EXPECT_NE(text.find("# Total: 000000002\n"), std::string::npos) << text;
  EXPECT_NE(text.find("# Max Latencies: 00009\n"), std::string::npos) << text;
  EXPECT_NE(text.find("# Avg Latencies: 00004\n"), std::string::npos) << text;  // 24 / 6
  EXPECT_NE(text.find("# Histogram Overflows: 00004\n"), std::string::npos) << text;
  EXPECT_NE(text.find("# Thread 0: 00001 00002 # 00002 others\n"), std::string::npos) << text;
}

TEST(CyclictestHistogram, AllOverflowsListedWhenTheyFit) {
  const std::string text = histogram({9000, 0, 9000}, 3);
  EXPECT_NE(text.find("# Thread 0: 00000 00002\n"), std::string::npos) << text;
}

TEST(CyclictestHistogram, NoSamplesGiveEmptyBucketsAndZeroSummaries) {
  const std::string text = histogram({}, 1);
  EXPECT_EQ(text,
            "# Histogram\n000000 000000\n# Total: 000000000\n# Min Latencies: 00000\n"
            "# Avg Latencies: 00000\n# Max Latencies: 00000\n# Histogram Overflows: 00000\n"
            "# Histogram Overflow at cycle number:\n# Thread 0:\n\n");
}

TEST(CyclictestHistogram, CountsWiderThanSixDigitsKeepAllTheirDigits) {
  std::vector<uint64_t> many(1234567, 0);
  EXPECT_NE(histogram(many, 1).find("000000 1234567\n"), std::string::npos);
}

}  // namespace
