#include "mosk/kelvo/perf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <numeric>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace mosk::kelvo {
namespace {

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Runs each test in a unique directory under /tmp (the working directory for relative paths),
// removed afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kelvo_perf_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    savedCwd_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    std::filesystem::current_path(savedCwd_);
    std::filesystem::remove_all(dir_);
  }
  static bool isDirectory(const std::filesystem::path& path) {
    return std::filesystem::is_directory(path);
  }

  std::filesystem::path dir_;

 private:
  std::filesystem::path savedCwd_;
};

// ---- Statistics ----

TEST(StatisticsTest, IsAnAggregateOfEighteenFields) {
  static_assert(std::is_aggregate_v<Statistics>);
  EXPECT_EQ(sizeof(Statistics), 18 * sizeof(uint64_t));
  const Statistics s{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
  EXPECT_EQ(s.count, 1u);
  EXPECT_EQ(s.average, 2u);
  EXPECT_EQ(s.stddev, 3u);
  EXPECT_EQ(s.min, 4u);
  EXPECT_EQ(s.median, 5u);
  EXPECT_EQ(s.p10, 6u);
  EXPECT_EQ(s.p50, 10u);
  EXPECT_EQ(s.p90, 14u);
  EXPECT_EQ(s.p99, 15u);
  EXPECT_EQ(s.p999, 16u);
  EXPECT_EQ(s.p9999, 17u);
  EXPECT_EQ(s.max, 18u);
}

TEST(StatisticsTest, CompareOrdersAscending) {
  const uint64_t small = 1, big = UINT64_MAX, same = 1;
  EXPECT_EQ(compare(&small, &big), -1);
  EXPECT_EQ(compare(&big, &small), 1);
  EXPECT_EQ(compare(&small, &same), 0);
}

TEST(StatisticsTest, ThreeSamples) {
  uint64_t samples[] = {5, 1, 3};
  const Statistics s = computeStatistics(samples, 3);
  EXPECT_EQ(s.count, 3u);
  EXPECT_EQ(s.average, 3u);
  EXPECT_EQ(s.stddev, 1u);  // sum of squares 8, 8 / 3 = 2, sqrt truncated
  EXPECT_EQ(s.min, 1u);
  EXPECT_EQ(s.median, 3u);
  EXPECT_EQ(s.max, 5u);
  EXPECT_EQ(samples[0], 1u);
  EXPECT_EQ(samples[1], 3u);
  EXPECT_EQ(samples[2], 5u);
}

TEST(StatisticsTest, HundredSamples) {
  std::vector<uint64_t> samples(100);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = 100 - i;  // 100 .. 1, unsorted
  const Statistics s = computeStatistics(samples.data(), samples.size());
  EXPECT_EQ(s.count, 100u);
  EXPECT_EQ(s.average, 50u);  // 5050 / 100
  EXPECT_EQ(s.median, 51u);
  EXPECT_EQ(s.p10, 11u);
  EXPECT_EQ(s.p20, 21u);
  EXPECT_EQ(s.p50, 51u);
  EXPECT_EQ(s.p90, 91u);
  EXPECT_EQ(s.p99, 100u);
  EXPECT_EQ(s.p999, 100u);
  EXPECT_EQ(s.p9999, 100u);
  EXPECT_EQ(s.min, 1u);
  EXPECT_EQ(s.max, 100u);
  // Squares of |v - 50| summed: 1..49 and 0..50 squared = 40425 + 42925 = 83350; / 100 = 833.
  EXPECT_EQ(s.stddev, 28u);
}

TEST(StatisticsTest, ThousandSamplesPutP999AtIndex999) {
  std::vector<uint64_t> samples(1000);
  std::iota(samples.begin(), samples.end(), 0);
  samples[999] = 5000;
  const Statistics s = computeStatistics(samples.data(), samples.size());
  EXPECT_EQ(s.p999, 5000u);
  EXPECT_EQ(s.p99, 990u);
  EXPECT_EQ(s.median, 500u);
}

TEST(StatisticsTest, SingleSample) {
  uint64_t sample = 42;
  const Statistics s = computeStatistics(&sample, 1);
  for (uint64_t field :
       {s.average, s.min, s.median, s.p10, s.p50, s.p90, s.p99, s.p999, s.p9999, s.max}) {
    EXPECT_EQ(field, 42u);
  }
  EXPECT_EQ(s.count, 1u);
  EXPECT_EQ(s.stddev, 0u);
}

TEST(StatisticsTest, EvenCountTakesTheUpperMiddleAsMedian) {
  uint64_t samples[] = {4, 1, 3, 2};
  EXPECT_EQ(computeStatistics(samples, 4).median, 3u);
}

TEST(StatisticsTest, NoSamplesGiveZeros) {
  uint64_t untouched = 7;
  const Statistics s = computeStatistics(&untouched, 0);
  const uint64_t* fields = reinterpret_cast<const uint64_t*>(&s);
  for (int i = 0; i < 18; ++i) EXPECT_EQ(fields[i], 0u) << i;
  EXPECT_EQ(untouched, 7u);
}

TEST(StatisticsTest, SumWrapsInSixtyFourBits) {
  uint64_t samples[] = {UINT64_MAX, 3};
  // (2^64 - 1 + 3) mod 2^64 = 2, / 2 = 1.
  EXPECT_EQ(computeStatistics(samples, 2).average, 1u);
}

TEST(StatisticsTest, TransformAppliesToEveryFieldButCount) {
  const Statistics s{10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
  std::vector<uint64_t> seen;
  const Statistics t = transformStatistics(s, [&](uint64_t v) {
    seen.push_back(v);
    return v * 100;
  });
  EXPECT_EQ(t.count, 10u);
  const uint64_t* fields = reinterpret_cast<const uint64_t*>(&t);
  for (int i = 1; i < 18; ++i) EXPECT_EQ(fields[i], static_cast<uint64_t>(i) * 100) << i;
  std::vector<uint64_t> inOrder(17);
  std::iota(inOrder.begin(), inOrder.end(), 1);
  EXPECT_EQ(seen, inOrder);
}

// Prints two rows and exits with 0 if the output is the header followed by both rows.
[[noreturn]] void printTwoRowsAndCheck() {
  testing::internal::CaptureStdout();
  const Statistics s{3, 3, 1, 1, 3, 1, 1, 1, 1, 3, 3, 3, 5, 5, 5, 5, 5, 5};
  const int written = printStatistics("first", s);
  printStatistics("second", s);
  const std::string out = testing::internal::GetCapturedStdout();
  const std::string expected =
      "Benchmark,Count,Avg,Stddev,Median,Min,99%,99.9%,99.99%,Max\n"
      "first,3,3,1,3,1,5,5,5,5\n"
      "second,3,3,1,3,1,5,5,5,5\n";
  if (out != expected || written != 24) {
    std::fprintf(stderr, "got [%s] written %d", out.c_str(), written);
    std::exit(1);
  }
  std::exit(0);
}

// The header is printed once per process: check it in a fresh process (a death-test child),
// whatever ran before in this one.
TEST(StatisticsDeathTest, CsvHeaderOnlyBeforeTheFirstRowOfTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(printTwoRowsAndCheck(), testing::ExitedWithCode(0), "");
}

TEST(StatisticsTest, RowFormatAndResult) {
  printStatistics("warm-up", Statistics{});  // the header, if this process has not printed it
  testing::internal::CaptureStdout();
  const Statistics s{100, 50, 28, 1, 51, 11, 21, 31, 41, 51, 61, 71, 81, 91, 100, 100, 100, 100};
  const int written = printStatistics("loop", s);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "loop,100,50,28,51,1,100,100,100,100\n");
  EXPECT_EQ(written, static_cast<int>(out.size()));
}

TEST_F(TempDirTest, PrintStatisticsWritesSortedSamples) {
  printStatistics("warm-up", Statistics{});
  uint64_t samples[] = {30, 10, 20, 10};
  testing::internal::CaptureStdout();
  printStatistics("run1/latency.txt", samples, 4, (dir_ / "out").c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "run1/latency.txt,4,17,8,20,10,30,30,30,30\n");
  const std::filesystem::path file = dir_ / "out" / "run1" / "latency.txt";
  EXPECT_EQ(readFile(file), "10\n10\n20\n30\n");
  EXPECT_EQ(
      std::filesystem::status(dir_ / "out" / "run1").permissions() & std::filesystem::perms::all,
      std::filesystem::perms::owner_all);
  // A second run truncates.
  uint64_t fewer[] = {7};
  testing::internal::CaptureStdout();
  printStatistics("run1/latency.txt", fewer, 1, (dir_ / "out").c_str());
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(readFile(file), "7\n");
}

TEST_F(TempDirTest, PrintStatisticsWithoutDirectoryWritesNoFile) {
  uint64_t samples[] = {2, 1};
  testing::internal::CaptureStdout();
  printStatistics("nofile", samples, 2, nullptr);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(samples[0], 1u);  // sorted all the same
  EXPECT_TRUE(std::filesystem::is_empty(dir_));
}

TEST_F(TempDirTest, PrintStatisticsSkipsAFileItCannotOpen) {
  std::filesystem::create_directories(dir_ / "d" / "taken");  // a directory where the file goes
  uint64_t samples[] = {1};
  testing::internal::CaptureStdout();
  printStatistics("taken", samples, 1, (dir_ / "d").c_str());
  EXPECT_NE(testing::internal::GetCapturedStdout().find("taken,1,1,0,1,1,1,1,1,1\n"),
            std::string::npos);
  EXPECT_TRUE(isDirectory(dir_ / "d" / "taken"));
}

// ---- Histogram ----

std::string histogram(std::vector<uint64_t> samples, uint64_t min, uint64_t max, uint64_t width) {
  testing::internal::CaptureStdout();
  printHistogram(samples.data(), samples.size(), min, max, width);
  return testing::internal::GetCapturedStdout();
}

TEST(HistogramTest, SamplesBelowMinCountInTheFirstBucket) {
  EXPECT_EQ(histogram({5, 15, 25, 35}, 10, 30, 10), "10-20: 2\n20-30: 1\n30+: 1\n");
}

TEST(HistogramTest, UnevenRangeShowsTheOverflowCounterTwice) {
  EXPECT_EQ(histogram({0, 3, 4, 7, 8, 9, 10, 11, 12, 100}, 0, 10, 4),
            "0-4: 2\n4-8: 2\n8-12: 6\n10+: 6\n");
}

TEST(HistogramTest, EvenRange) {
  EXPECT_EQ(histogram({0, 1, 2, 3, 4, 5}, 0, 4, 2), "0-2: 2\n2-4: 2\n4+: 2\n");
}

TEST(HistogramTest, MaxNotAboveMinCountsEverythingAsOverflow) {
  EXPECT_EQ(histogram({1, 5, 50}, 5, 5, 1), "5+: 3\n");
  EXPECT_EQ(histogram({1, 5, 50}, 9, 5, 1), "5+: 3\n");
}

TEST(HistogramTest, ZeroWidthPrintsNothing) { EXPECT_EQ(histogram({1, 2, 3}, 0, 10, 0), ""); }

TEST(HistogramTest, NoSamples) { EXPECT_EQ(histogram({}, 0, 2, 1), "0-1: 0\n1-2: 0\n2+: 0\n"); }

TEST(HistogramTest, HugeValuesStayInRange) {
  const uint64_t top = UINT64_MAX;
  EXPECT_EQ(histogram({0, top, top - 1}, top - 3, top, 2),
            "18446744073709551612-18446744073709551614: 1\n"
            "18446744073709551614-0: 2\n"
            "18446744073709551615+: 2\n");
}

// ---- Benchmarks ----

TEST(BenchTest, MeasuresEveryCall) {
  int calls = 0;
  const Statistics s = bench([&] { ++calls; }, 50);
  EXPECT_EQ(calls, 50);
  EXPECT_EQ(s.count, 50u);
  EXPECT_LE(s.min, s.median);
  EXPECT_LE(s.median, s.max);
}

TEST(BenchTest, SlowCallsTakeMoreCycles) {
  const Statistics s = bench(
      [] {
        volatile uint64_t sink = 0;
        for (int i = 0; i < 10000; ++i) sink = sink + 1;
      },
      5);
  EXPECT_GE(s.min, 1000u);  // a generous lower bound: 10000 dependent stores
}

TEST(BenchTest, ZeroRepetitionsGiveZeros) {
  int calls = 0;
  const Statistics s = bench([&] { ++calls; }, 0);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(s.count, 0u);
  EXPECT_EQ(s.max, 0u);
}

TEST(BenchTest, NegativeRepetitionsThrowBadArrayLength) {
  EXPECT_THROW(bench([] {}, -1), std::bad_array_new_length);
  EXPECT_THROW(manualBench([](uint64_t*) {}, -1), std::bad_array_new_length);
}

TEST(BenchTest, ManualBenchReducesWhatTheFunctionStores) {
  uint64_t next = 10;
  std::vector<uint64_t*> slots;
  const Statistics s = manualBench(
      [&](uint64_t* slot) {
        EXPECT_EQ(*slot, 0u);
        slots.push_back(slot);
        *slot = next--;
      },
      10);
  ASSERT_EQ(slots.size(), 10u);
  for (size_t i = 1; i < slots.size(); ++i) EXPECT_EQ(slots[i], slots[i - 1] + 1);
  EXPECT_EQ(s.count, 10u);
  EXPECT_EQ(s.min, 1u);
  EXPECT_EQ(s.max, 10u);
  EXPECT_EQ(s.median, 6u);
  EXPECT_EQ(s.average, 5u);
}

// ---- File-system helpers ----

TEST_F(TempDirTest, MkdirPCreatesEveryLevelAndAcceptsExisting) {
  EXPECT_EQ(mkdir_p("a/b/c", 0755), 0);
  EXPECT_TRUE(isDirectory("a"));
  EXPECT_TRUE(isDirectory("a/b"));
  EXPECT_TRUE(isDirectory("a/b/c"));
  const mode_t mask = ::umask(0);
  ::umask(mask);
  struct stat info;
  ASSERT_EQ(::stat("a/b", &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0755u & ~mask);
  EXPECT_EQ(mkdir_p("a/b/c", 0755), 0);
}

TEST_F(TempDirTest, MkdirPAbsolutePath) {
  const std::string path = (dir_ / "x" / "y").string();
  EXPECT_EQ(mkdir_p(path.c_str(), 0700), 0);
  EXPECT_TRUE(isDirectory(path));
}

TEST_F(TempDirTest, MkdirPTrailingSlash) {
  EXPECT_EQ(mkdir_p("t/u/", 0700), 0);
  EXPECT_TRUE(isDirectory("t/u"));
}

TEST_F(TempDirTest, MkdirPFailsBelowARegularFile) {
  std::ofstream("file").put('x');
  errno = 0;
  EXPECT_EQ(mkdir_p("file/sub", 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(mkdir_p("file/sub/deeper", 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(TempDirTest, MkdirPOnAnExistingFileIsAccepted) {
  // EEXIST is accepted without checking the entry's kind.
  std::ofstream("plain").put('x');
  EXPECT_EQ(mkdir_p("plain", 0755), 0);
}

TEST_F(TempDirTest, MkdirPLengthLimit) {
  // 4095 characters: attempted (and refused by the kernel, each component being too long).
  const std::string attempted = "d/" + std::string(4093, 'n');
  ASSERT_EQ(attempted.size(), 4095u);
  errno = 0;
  EXPECT_EQ(mkdir_p(attempted.c_str(), 0755), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_TRUE(isDirectory("d"));  // the first level was created: the path was attempted

  // 4095 characters that the kernel accepts: components of 200 characters.
  std::string nested;
  while (nested.size() < 4095) {
    if (!nested.empty()) nested += '/';
    nested += std::string(std::min<size_t>(200, 4095 - nested.size()), 'e');
  }
  ASSERT_EQ(nested.size(), 4095u);
  EXPECT_EQ(mkdir_p(nested.c_str(), 0755), 0);
  EXPECT_TRUE(isDirectory(nested));
  // Its absolute name is too long for a recursive removal: remove it level by level.
  for (size_t end = nested.size();;) {
    EXPECT_EQ(::rmdir(nested.substr(0, end).c_str()), 0);
    const size_t slash = nested.rfind('/', end - 1);
    if (slash == std::string::npos) break;
    end = slash;
  }

  // 4096 characters: refused before anything is created.
  const std::string refused = "f/" + std::string(4094, 'n');
  ASSERT_EQ(refused.size(), 4096u);
  errno = 0;
  EXPECT_EQ(mkdir_p(refused.c_str(), 0755), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_FALSE(std::filesystem::exists("f"));
}

TEST_F(TempDirTest, MkdirPEmptyPathFails) {
  errno = 0;
  EXPECT_EQ(mkdir_p("", 0755), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(TempDirTest, MkdirPClearsErrnoOnSuccess) {
  errno = EINVAL;
  EXPECT_EQ(mkdir_p("fresh", 0755), 0);
  EXPECT_EQ(errno, 0);
}

TEST_F(TempDirTest, EnsureParentsCreatesTheDirectoriesOnly) {
  EXPECT_EQ(ensureParents("out/run1/stats.csv", 0755), 0);
  EXPECT_TRUE(isDirectory("out"));
  EXPECT_TRUE(isDirectory("out/run1"));
  EXPECT_FALSE(std::filesystem::exists("out/run1/stats.csv"));
}

TEST_F(TempDirTest, EnsureParentsWithoutSlashCreatesTheWholePath) {
  EXPECT_EQ(ensureParents("stats.csv", 0755), 0);
  EXPECT_TRUE(isDirectory("stats.csv"));
}

TEST_F(TempDirTest, EnsureParentsTrailingSlashIsTheSeparator) {
  EXPECT_EQ(ensureParents("a/b/", 0755), 0);
  EXPECT_TRUE(isDirectory("a/b"));
}

TEST_F(TempDirTest, EnsureParentsAbsolutePath) {
  const std::string path = (dir_ / "abs" / "file.txt").string();
  EXPECT_EQ(ensureParents(path.c_str(), 0755), 0);
  EXPECT_TRUE(isDirectory(dir_ / "abs"));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(TempDirTest, EnsureParentsPassesOnFailure) {
  std::ofstream("file").put('x');
  EXPECT_EQ(ensureParents("file/sub/x.csv", 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(VersionTest, RendersMajorMinorPatch) {
  EXPECT_EQ(versionIntToString(0), "0.0.0");
  EXPECT_EQ(versionIntToString(1002003), "1.2.3");
  EXPECT_EQ(versionIntToString(2000000), "2.0.0");
  EXPECT_EQ(versionIntToString(12034), "0.12.34");
  EXPECT_EQ(versionIntToString(-1), "0.0.-1");
  EXPECT_EQ(versionIntToString(INT32_MAX), "2147.483.647");
  EXPECT_EQ(versionIntToString(INT32_MIN), "-2147.-483.-648");
}

}  // namespace
}  // namespace mosk::kelvo
