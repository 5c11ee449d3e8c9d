// TraceTaskNames: the task identifiers of the loop's trace events, and the names they stand for.
#include "mosk/kelvo/trace_task_names.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "time_trace_rings.h"

namespace mosk {
namespace kelvo {

namespace {

// Retired names that make retire() prune, at the least.
constexpr size_t kMinimumPruneThreshold = 64;

struct Entry {
  std::string name;
  // 0 while the task is live; then the number of its retirement, so that a prune drops only
  // the retirement it saw.
  uint64_t retirement = 0;
};

struct NameMap {
  std::mutex mutex;
  std::unordered_map<uint64_t, Entry> entries;
  size_t retired = 0;  // entries with a retirement
  uint64_t retirements = 0;
  size_t pruneThreshold = kMinimumPruneThreshold;
};

// Never destroyed: wrappers may still die while the process exits.
NameMap& nameMap() {
  static NameMap* map = new NameMap();
  return *map;
}

}  // namespace

void TraceTaskNames::add(uint64_t taskId, const std::string& name) {
  if (taskId == 0) return;
  NameMap& map = nameMap();
  std::lock_guard<std::mutex> lock(map.mutex);
  Entry& entry = map.entries[taskId];
  entry.name = name;
  if (entry.retirement != 0) {
    entry.retirement = 0;
    --map.retired;
  }
}

void TraceTaskNames::retire(uint64_t taskId) {
  NameMap& map = nameMap();
  {
    std::lock_guard<std::mutex> lock(map.mutex);
    const auto found = map.entries.find(taskId);
    if (found == map.entries.end() || found->second.retirement != 0) return;
    found->second.retirement = ++map.retirements;
    if (++map.retired < map.pruneThreshold) return;
    // Others retiring meanwhile need not prune as well.
    map.pruneThreshold = 2 * map.retired;
  }
  prune();
}

std::string TraceTaskNames::find(uint64_t taskId) {
  NameMap& map = nameMap();
  std::lock_guard<std::mutex> lock(map.mutex);
  const auto found = map.entries.find(taskId);
  return found == map.entries.end() ? std::string() : found->second.name;
}

bool TraceTaskNames::contains(uint64_t taskId) {
  NameMap& map = nameMap();
  std::lock_guard<std::mutex> lock(map.mutex);
  return map.entries.count(taskId) != 0;
}

size_t TraceTaskNames::size() {
  NameMap& map = nameMap();
  std::lock_guard<std::mutex> lock(map.mutex);
  return map.entries.size();
}

size_t TraceTaskNames::prune() {
  NameMap& map = nameMap();
  std::unordered_map<uint64_t, uint64_t> retirements;  // task -> its retirement
  std::unordered_set<uint64_t> candidates;
  {
    std::lock_guard<std::mutex> lock(map.mutex);
    for (const auto& [taskId, entry] : map.entries) {
      if (entry.retirement == 0) continue;
      retirements.emplace(taskId, entry.retirement);
      candidates.insert(taskId);
    }
  }
  // The rings are read without the map's lock. A retired task records no more events, so what
  // the rings no longer show now, they never show again.
  const std::unordered_set<uint64_t> stillShown =
      candidates.empty() ? candidates : internal::taskIdsStillInRings(candidates);
  std::lock_guard<std::mutex> lock(map.mutex);
  size_t dropped = 0;
  for (const uint64_t taskId : candidates) {
    if (stillShown.count(taskId) != 0) continue;
    const auto found = map.entries.find(taskId);
    // Added again (and perhaps retired again) meanwhile: it may have recorded since the rings
    // were read.
    if (found == map.entries.end() || found->second.retirement != retirements[taskId]) continue;
    map.entries.erase(found);
    --map.retired;
    ++dropped;
  }
  map.pruneThreshold = std::max(kMinimumPruneThreshold, 2 * map.retired);
  return dropped;
}

}  // namespace kelvo
}  // namespace mosk
