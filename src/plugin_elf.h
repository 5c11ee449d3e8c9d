// Reading what a plug-in file says about itself, as a 64-bit ELF file that may be truncated or
// hostile: whether its segments reach past its end (the loader refuses such a file before the
// dynamic linker maps it) and the symbols of its tables (kelvo-plugin-check looks there for a
// hidden "exports" and for functions that nobody defines).
//
// Every read names an offset and a size and fails unless the whole range lies inside the file;
// a table whose entries or names do not fit ends the walk with kBroken instead of being read
// past. Only little-endian 64-bit ELF is read (the files this library can load on x86-64).
//
// Threading: no shared state. A Bytes object is used by one thread at a time.
#ifndef KELVO_SRC_PLUGIN_ELF_H_
#define KELVO_SRC_PLUGIN_ELF_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace mosk {
namespace kelvo {
namespace internal {
namespace elf {

// Random access to the bytes of a file or of a buffer.
class Bytes {
 public:
  virtual ~Bytes() = default;
  virtual uint64_t size() const = 0;
  // Copies `count` bytes from `offset` into `out`; false (and `out` undefined) unless every one
  // of them lies inside.
  virtual bool read(uint64_t offset, void* out, size_t count) const = 0;
};

// A buffer that the caller keeps alive.
class MemoryBytes final : public Bytes {
 public:
  MemoryBytes(const void* data, size_t size) : data_(static_cast<const char*>(data)), size_(size) {}
  uint64_t size() const override { return size_; }
  bool read(uint64_t offset, void* out, size_t count) const override;

 private:
  const char* data_;
  size_t size_;
};

// A regular file, read with pread (never mapped: a file cut short while it is read gives a
// failed read, not SIGBUS). ok() is false when the path cannot be opened or is not a regular
// file; every read then fails.
class FileBytes final : public Bytes {
 public:
  explicit FileBytes(const std::string& path);
  ~FileBytes() override;
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  bool ok() const { return fd_ >= 0; }
  uint64_t size() const override { return size_; }
  bool read(uint64_t offset, void* out, size_t count) const override;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// Whether `file` is a 64-bit ELF file whose program header table, or one of whose loadable or
// dynamic segments, reaches past the end of the file. False for everything else, files that
// are not 64-bit ELF included (the dynamic linker rejects those itself).
bool segmentsPastEnd(const Bytes& file);

// The loader's refusal rule: whether `path` names (with a slash, so that it is not searched for
// in the library path) a regular file for which segmentsPastEnd holds.
bool isTruncatedElf(const std::string& path);

struct Symbol {
  std::string name;          // cut at kMaxNameLength bytes
  unsigned char binding;     // STB_LOCAL, STB_GLOBAL, STB_WEAK, ...
  unsigned char type;        // STT_NOTYPE, STT_OBJECT, STT_FUNC, ...
  unsigned char visibility;  // STV_DEFAULT, STV_HIDDEN, ...
  bool defined;              // false for a reference to a symbol of another object (SHN_UNDEF)
  uint64_t size;
};

constexpr size_t kMaxNameLength = 4096;

enum class SymbolTable {
  kDynamic,  // .dynsym: what the dynamic linker sees
  kStatic,   // .symtab: every symbol, local ones included; stripped files have none
};

enum class WalkResult {
  kOk,        // the whole table was visited (or the visitor stopped the walk)
  kNoTable,   // the file has no such table (or no section headers at all)
  kNotElf64,  // not a little-endian 64-bit ELF file
  kBroken,    // section headers, the table or its names do not fit in the file
};

// Calls `visit` for each symbol of the table but the null symbol at index 0, in table order,
// until it returns false. Symbols visited before a broken entry stay visited.
WalkResult forEachSymbol(const Bytes& file, SymbolTable table,
                         const std::function<bool(const Symbol&)>& visit);

}  // namespace elf
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PLUGIN_ELF_H_
