// What the plug-in loader checks in a plug-in's "exports" record before it starts the plug-in,
// and the words it uses when it refuses one. Private to the library and shared with
// kelvo-plugin-check, so that the tool's verdicts and the messages it quotes are the loader's
// own and cannot drift from load().
#ifndef KELVO_SRC_PLUGIN_RECORD_H_
#define KELVO_SRC_PLUGIN_RECORD_H_

#include <string>

namespace mosk {
namespace kelvo {
namespace internal {
namespace plugin_record {

// The only record layout (and PluginActivator interface) there is.
constexpr int kApiVersion = 1;

// printf formats of the loader's messages on standard output.
constexpr char kApiVersionInvalid[] = "Api version %d is invalid!\n";
constexpr char kMasterMismatch[] = "Master version %s does not match %s with version %s!\n";

// The start of the error text of a library that cannot be opened.
constexpr char kCannotLoadLibrary[] = "Cannot load library";

// Encoded versions are major*1000000 + minor*1000 + patch, split with truncating division.
inline int majorOf(int version) { return version / 1000000; }
inline int minorOf(int version) { return (version / 1000) % 1000; }

// Whether a host of version `master` takes a plug-in built for `target`: the same major and a
// minor no higher than the host's; the patch is not compared.
inline bool fitsMaster(int master, int target) {
  return minorOf(master) >= minorOf(target) && majorOf(master) == majorOf(target);
}

// The error text (and exception message) of a file the loader refuses as truncated.
inline std::string truncatedFileError(const std::string& path) {
  return std::string(kCannotLoadLibrary) + ": " + path + ": file too short";
}

}  // namespace plugin_record
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PLUGIN_RECORD_H_
