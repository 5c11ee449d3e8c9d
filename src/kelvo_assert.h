// The check helper of every unit that aborts on a broken invariant (co, shm, thread): one set of
// macros, one message format, one rule for the line numbers the messages carry.
//
// A failed check adds one to the unit's failure counter `__assert_failures`, writes
// "Assertion error: <expression> (<path>:<line>)\n" to standard error (the not-null checks:
// "Assertion error: <name> is not NULL (<path>:<line>)\n"; the errno checks then add
// "\n<errno>: <text>"), flushes standard error and aborts. The format is part of the library's
// observable behaviour: users and tests match these messages.
//
// The line rule. A check passes its line explicitly, and it is one of two kinds:
// - `__LINE__`: the message points at the check itself, and moves when the source is edited
//   (the shared-memory unit's checks; tests match any number there);
// - a frozen number: the message keeps a line that users and tests match, whatever is edited
//   around the check. Each frozen number is named once, in the source that holds its check, as
//   `constexpr int kLine<What> = <n>;` under a comment saying that it is frozen, and is never
//   changed. Units that report lines in messages of their own (aco's allocation failures, the
//   cycles clock's read failures) follow the same rule.
//
// A unit that uses these checks defines, in the source that holds them (a unit's checks stay in
// one source, so that the counter and the path stay private to it):
//   int __assert_failures = 0;                   // the unit's failure counter
//   constexpr char kAssertPath[] = "src/<unit>"; // the path its messages print
//
// Threading rules: a failing check ends the process; the counter is only ever written just
// before abort().
#ifndef KELVO_SRC_KELVO_ASSERT_H_
#define KELVO_SRC_KELVO_ASSERT_H_

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mosk {
namespace kelvo {
namespace internal {

// Reports a failed check and aborts: "Assertion error: <expression><qualifier> (<path>:<line>)\n",
// then, when `error` is given, "\n<errno>: <text>".
[[noreturn]] inline void reportFailedCheck(int* failures, const char* expression,
                                           const char* qualifier, const char* path, int line,
                                           const int* error) {
  ++*failures;
  std::fprintf(stderr, "Assertion error: %s%s (%s:%d)\n", expression, qualifier, path, line);
  if (error != nullptr) std::fprintf(stderr, "\n%d: %s", *error, std::strerror(*error));
  std::fflush(stderr);
  std::abort();
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

// Checks `condition`; on failure reports `expression_text` at `line` of the unit's path.
#define KELVO_ASSERT(condition, expression_text, line)                                    \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      ::mosk::kelvo::internal::reportFailedCheck(&__assert_failures, expression_text, "", \
                                                 kAssertPath, line, nullptr);             \
    }                                                                                     \
  } while (0)

// Checks that `pointer` is not null; on failure reports "<name> is not NULL".
#define KELVO_ASSERT_NOT_NULL(pointer, name, line)                                         \
  do {                                                                                     \
    if ((pointer) == nullptr) {                                                            \
      ::mosk::kelvo::internal::reportFailedCheck(&__assert_failures, name, " is not NULL", \
                                                 kAssertPath, line, nullptr);              \
    }                                                                                      \
  } while (0)

// KELVO_ASSERT for a condition that a failing system call makes false: adds errno's report.
#define KELVO_ASSERT_ERRNO(condition, expression_text, line)                              \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      const int kelvo_assert_errno = errno;                                               \
      ::mosk::kelvo::internal::reportFailedCheck(&__assert_failures, expression_text, "", \
                                                 kAssertPath, line, &kelvo_assert_errno); \
    }                                                                                     \
  } while (0)

// KELVO_ASSERT_NOT_NULL for a pointer that a failing system call left null: adds errno's report.
#define KELVO_ASSERT_NOT_NULL_ERRNO(pointer, name, line)                                   \
  do {                                                                                     \
    if ((pointer) == nullptr) {                                                            \
      const int kelvo_assert_errno = errno;                                                \
      ::mosk::kelvo::internal::reportFailedCheck(&__assert_failures, name, " is not NULL", \
                                                 kAssertPath, line, &kelvo_assert_errno);  \
    }                                                                                      \
  } while (0)

#endif  // KELVO_SRC_KELVO_ASSERT_H_
