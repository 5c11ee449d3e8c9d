// The periodic thread's error text on its own, without a real-time thread: the two-slot
// exchange between the loop (one writer) and getErrorString() (any reader).
#include "thread_error_mailbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace mosk::kelvo::internal {
namespace {

TEST(ErrorMailboxTest, NothingPublishedReadsEmpty) {
  ErrorMailbox mailbox;
  EXPECT_EQ(mailbox.take(), "");
}

TEST(ErrorMailboxTest, AMessageIsReadOnce) {
  ErrorMailbox mailbox;
  mailbox.publish("Task loop overshoot: 12us(limit: 10us) cnt: 1");
  EXPECT_EQ(mailbox.take(), "Task loop overshoot: 12us(limit: 10us) cnt: 1");
  EXPECT_EQ(mailbox.take(), "");
}

TEST(ErrorMailboxTest, OnlyTheLatestMessageIsKept) {
  ErrorMailbox mailbox;
  mailbox.publish("first");
  mailbox.publish("second");
  mailbox.publish("third");
  EXPECT_EQ(mailbox.take(), "third");
  EXPECT_EQ(mailbox.take(), "");
  mailbox.publish("fourth");
  EXPECT_EQ(mailbox.take(), "fourth");
}

TEST(ErrorMailboxTest, ALongMessageKeepsItsFirst1023Bytes) {
  ErrorMailbox mailbox;
  const std::string longText(2000, 'x');
  mailbox.publish(longText.c_str());
  EXPECT_EQ(mailbox.take(), std::string(kErrorTextSize - 1, 'x'));
}

TEST(ErrorMailboxTest, MessagesOfEveryLengthArriveWhole) {
  ErrorMailbox mailbox;
  for (size_t length = 1; length < kErrorTextSize; ++length) {
    const std::string text(length, static_cast<char>('a' + length % 26));
    mailbox.publish(text.c_str());
    ASSERT_EQ(mailbox.take(), text) << "length " << length;
  }
}

// A slot is reused every second message: a short message must not show the tail of the
// longer one that was in its slot before.
TEST(ErrorMailboxTest, AShortMessageShowsNothingOfALongerOneBefore) {
  ErrorMailbox mailbox;
  const std::string longText(1000, 'L');
  mailbox.publish(longText.c_str());
  mailbox.publish(longText.c_str());
  mailbox.publish("short");  // lands in the slot of the first long message
  EXPECT_EQ(mailbox.take(), "short");
}

// Message n reads "n=<n>;" followed by a filler whose length and letter follow from n, so that
// a reader can tell a whole message from a torn one.
std::string numberedMessage(uint64_t n) {
  char head[32];
  std::snprintf(head, sizeof(head), "n=%llu;", static_cast<unsigned long long>(n));
  return head + std::string(n % 1000, static_cast<char>('a' + n % 26));
}

uint64_t numberOf(const std::string& message) {
  unsigned long long n = 0;
  if (std::sscanf(message.c_str(), "n=%llu;", &n) != 1) return 0;
  return n;
}

// One writer publishing as fast as it can, two readers taking concurrently (run it under
// ThreadSanitizer too): every message read is whole, each is read at most once, and each
// reader sees the numbers rise.
TEST(ErrorMailboxTest, OneWriterAndTwoReadersNeverSeeATornOrRepeatedMessage) {
  constexpr uint64_t kMessages = 20000;
  ErrorMailbox mailbox;
  std::atomic<bool> writerDone{false};
  std::vector<uint64_t> seen[2];
  std::atomic<int> tornMessages{0};
  std::atomic<int> outOfOrder{0};
  const auto read = [&](std::vector<uint64_t>* numbers) {
    for (;;) {
      const bool lastRound = writerDone.load();
      const std::string message = mailbox.take();
      if (!message.empty()) {
        const uint64_t n = numberOf(message);
        if (n == 0 || message != numberedMessage(n)) tornMessages.fetch_add(1);
        if (!numbers->empty() && n <= numbers->back()) outOfOrder.fetch_add(1);
        numbers->push_back(n);
      }
      if (lastRound) return;
    }
  };
  std::thread reader0(read, &seen[0]);
  std::thread reader1(read, &seen[1]);
  std::thread writer([&] {
    for (uint64_t n = 1; n <= kMessages; ++n) mailbox.publish(numberedMessage(n).c_str());
    writerDone.store(true);
  });
  writer.join();
  reader0.join();
  reader1.join();

  EXPECT_EQ(tornMessages.load(), 0);
  EXPECT_EQ(outOfOrder.load(), 0);
  std::vector<uint64_t> all(seen[0]);
  all.insert(all.end(), seen[1].begin(), seen[1].end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a message read twice";
  // Once the writer is quiet nothing stops a read: the last message was read by someone.
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.back(), kMessages);
  EXPECT_EQ(mailbox.take(), "");
}

}  // namespace
}  // namespace mosk::kelvo::internal
