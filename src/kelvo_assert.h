// Internal assertion support shared by the units that abort on broken invariants.
//
// Each unit keeps its own failure counter and reports its own source path and line, so that a
// failure message points at the invariant that broke. The message format is part of the
// library's observable behaviour: "Assertion error: <expression> (<path>:<line>)".
#ifndef KELVO_SRC_KELVO_ASSERT_H_
#define KELVO_SRC_KELVO_ASSERT_H_

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mosk::kelvo::internal {

[[noreturn]] inline void assertFailed(int* failures, const char* expression, const char* path,
                                      int line) {
  ++*failures;
  std::fprintf(stderr, "Assertion error: %s (%s:%d)\n", expression, path, line);
  std::fflush(stderr);
  std::abort();
}

[[noreturn]] inline void assertNotNullFailed(int* failures, const char* expression,
                                             const char* path, int line) {
  ++*failures;
  std::fprintf(stderr, "Assertion error: %s is not NULL (%s:%d)\n", expression, path, line);
  std::fflush(stderr);
  std::abort();
}

// The same two reports followed by "\n<errno>: <text>", for checks whose failure the system
// explains through errno. `error` is errno as it was right after the failed call.
[[noreturn]] inline void assertFailedWithErrno(int* failures, const char* expression,
                                               const char* path, int line, int error) {
  ++*failures;
  std::fprintf(stderr, "Assertion error: %s (%s:%d)\n", expression, path, line);
  std::fprintf(stderr, "\n%d: %s", error, std::strerror(error));
  std::fflush(stderr);
  std::abort();
}

[[noreturn]] inline void assertNotNullFailedWithErrno(int* failures, const char* expression,
                                                      const char* path, int line, int error) {
  ++*failures;
  std::fprintf(stderr, "Assertion error: %s is not NULL (%s:%d)\n", expression, path, line);
  std::fprintf(stderr, "\n%d: %s", error, std::strerror(error));
  std::fflush(stderr);
  std::abort();
}

}  // namespace mosk::kelvo::internal

// Checks `condition`; on failure counts it in the unit's `__assert_failures`, prints
// `expression_text` with the given source path and line, and aborts.
#define KELVO_ASSERT_AT(condition, expression_text, path, line)                               \
  do {                                                                                        \
    if (!(condition)) {                                                                       \
      ::mosk::kelvo::internal::assertFailed(&__assert_failures, expression_text, path, line); \
    }                                                                                         \
  } while (0)

#endif  // KELVO_SRC_KELVO_ASSERT_H_
