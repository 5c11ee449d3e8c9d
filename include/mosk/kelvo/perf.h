// Measurement helpers and general utilities.
//
// File-system and version helpers: mkdir_p creates a directory with its missing ancestors,
// ensureParents creates the directories a file path needs, versionIntToString renders an
// encoded version (major * 1000000 + minor * 1000 + patch) as "major.minor.patch".
//
// Threading: no shared state; every function may be called from any thread.
#ifndef MOSK_KELVO_PERF_H_
#define MOSK_KELVO_PERF_H_

#include <cstdint>
#include <string>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// Creates `path` and every missing ancestor with `mode`. Returns 0 on success, also when the
// directory exists already; -1 with errno set on failure. An existing non-directory entry on
// the way is accepted by the walk, so the failure surfaces at the next level. Paths longer
// than 4095 characters fail with ENAMETOOLONG and create nothing. An empty path fails with
// errno ENOENT (it is handed to mkdir, which refuses it).
KELVO_EXPORT int mkdir_p(const char* path, uint32_t mode);

// Creates the directories that the file `path` needs: mkdir_p of everything before the last
// '/'. A path without a '/' after its first character is itself created as a directory (so
// "results.csv" becomes a directory), and a trailing '/' counts as the separator ("a/b/"
// creates a/b). Returns mkdir_p's result.
KELVO_EXPORT int ensureParents(const char* path, uint32_t mode);

// "%d.%d.%d" of version / 1000000, (version / 1000) % 1000 and version % 1000, with C++'s
// truncating division: 1002003 gives "1.2.3", 12034 gives "0.12.34", -1 gives "0.0.-1".
KELVO_EXPORT std::string versionIntToString(int version);

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_PERF_H_
