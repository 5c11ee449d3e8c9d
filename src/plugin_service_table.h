// The plug-in context's service registry: names to pointers in an open-addressing hash table.
// Private to the library (and to the test that checks it on its own).
//
// Threading rules: none of its own. The context's registry takes no lock, so callers of
// RegisterService, UnregisterService and GetService keep them apart themselves.
#ifndef KELVO_SRC_PLUGIN_SERVICE_TABLE_H_
#define KELVO_SRC_PLUGIN_SERVICE_TABLE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mosk {
namespace kelvo {
namespace internal {

// The service registry: an open-addressing hash table of names (owned copies) to pointers.
// GetService is given a C string and has to measure it first; hashing it eight bytes at a time
// inline, into a power-of-two table, keeps the whole lookup as cheap as a find in a
// std::unordered_map keyed by an existing std::string. Iteration is in slot order.
class ServiceTable {
 public:
  // The pointer registered under `name`, or null if the name is not registered.
  void** find(std::string_view name) {
    Slot* slot = slotOf(name, hashOf(name));
    return slot == nullptr ? nullptr : &slot->service;
  }

  // Inserts unless the name is there already.
  // Kept: the first registration wins, and a second one is dropped silently.
  void insert(std::string&& name, void* service) {
    const uint64_t hash = hashOf(name);
    if (slotOf(name, hash) != nullptr) return;
    if ((used_ + removed_ + 1) * 2 > slots_.size()) rehash(std::max<size_t>(16, used_ * 4));
    place(std::move(name), service, hash);
  }

  void erase(std::string_view name) {
    Slot* slot = slotOf(name, hashOf(name));
    if (slot == nullptr) return;
    *slot = Slot{std::string(), nullptr, 0, kRemoved};  // keeps later probes going
    --used_;
    ++removed_;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> result;
    result.reserve(used_);
    for (const Slot& slot : slots_) {
      if (slot.state == kUsed) result.push_back(slot.name);
    }
    return result;
  }

 private:
  enum State : uint8_t { kFree, kUsed, kRemoved };
  struct Slot {
    std::string name;
    void* service;
    uint64_t hash;
    State state;
  };

  // Linear probing from the slot `hash` (hashOf(name)) picks; at most half the slots are taken
  // (used or removed), so a free slot ends every probe.
  Slot* slotOf(std::string_view name, uint64_t hash) {
    if (slots_.empty()) return nullptr;
    for (size_t i = hash & mask();; i = (i + 1) & mask()) {
      Slot& slot = slots_[i];
      if (slot.state == kFree) return nullptr;
      if (slot.state == kUsed && slot.hash == hash && slot.name == name) return &slot;
    }
  }

  static uint64_t hashOf(std::string_view name) {
    const char* bytes = name.data();
    const size_t size = name.size();
    uint64_t hash = 0x9e3779b97f4a7c15ull ^ size;
    size_t offset = 0;
    for (; offset + 8 <= size; offset += 8) hash = mix(hash, load8(bytes + offset));
    // The last bytes with fixed-size loads (overlapping what was mixed already where the name is
    // long enough): a variable-size copy into a word would stall on store forwarding.
    uint64_t tail = 0;
    if (offset == size) {
      tail = 0;
    } else if (size >= 8) {
      tail = load8(bytes + size - 8);
    } else if (size >= 4) {
      tail = load4(bytes) | uint64_t{load4(bytes + size - 4)} << 32;
    } else {
      tail = uint64_t{static_cast<unsigned char>(bytes[0])} |
             uint64_t{static_cast<unsigned char>(bytes[size / 2])} << 8 |
             uint64_t{static_cast<unsigned char>(bytes[size - 1])} << 16;
    }
    hash = mix(hash, tail);
    // Spread every input bit over the low bits that pick the slot.
    hash = (hash ^ (hash >> 33)) * 0xc4ceb9fe1a85ec53ull;
    return hash ^ (hash >> 33);
  }
  static uint64_t load8(const char* bytes) {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  }
  static uint32_t load4(const char* bytes) {
    uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  }
  static uint64_t mix(uint64_t hash, uint64_t word) {
    hash = (hash ^ word) * 0xff51afd7ed558ccdull;
    return hash ^ (hash >> 32);
  }

  size_t mask() const { return slots_.size() - 1; }

  // Puts a name that the table does not hold into the first slot of its probe that is not in
  // use. The caller has made room.
  void place(std::string&& name, void* service, uint64_t hash) {
    size_t i = hash & mask();
    while (slots_[i].state == kUsed) i = (i + 1) & mask();
    if (slots_[i].state == kRemoved) --removed_;
    slots_[i] = Slot{std::move(name), service, hash, kUsed};
    ++used_;
  }

  // A table of the next power of two of at least `minimum` slots, without removed slots.
  void rehash(size_t minimum) {
    size_t size = 16;
    while (size < minimum) size *= 2;
    std::vector<Slot> old(size);
    old.swap(slots_);
    used_ = removed_ = 0;
    for (Slot& slot : old) {
      if (slot.state == kUsed) place(std::move(slot.name), slot.service, slot.hash);
    }
  }

  std::vector<Slot> slots_;
  size_t used_ = 0;
  size_t removed_ = 0;
};

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PLUGIN_SERVICE_TABLE_H_
