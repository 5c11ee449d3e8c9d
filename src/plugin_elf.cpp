// Bounds-checked reading of 64-bit ELF plug-in files.
#include "plugin_elf.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace mosk {
namespace kelvo {
namespace internal {
namespace elf {

namespace {

// Whether [offset, offset + count) lies inside a file of `size` bytes, without overflow.
bool inside(uint64_t offset, uint64_t count, uint64_t size) {
  return offset <= size && count <= size - offset;
}

// The file header, if the file is ELF of the 64-bit class. Byte order is checked by the caller
// where it matters: the loader's rule for truncated files predates the check and keeps it out.
bool readHeader(const Bytes& file, Elf64_Ehdr& header) {
  return file.read(0, &header, sizeof(header)) &&
         std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == ELFCLASS64;
}

// Tables are read whole, but never more than this: a symbol or string table of a real plug-in
// is a few megabytes at most, and a hostile size must not become a huge allocation.
constexpr uint64_t kMaxTableBytes = uint64_t{256} << 20;

bool readBlock(const Bytes& file, uint64_t offset, uint64_t size, std::vector<char>& block) {
  if (size > kMaxTableBytes || !inside(offset, size, file.size())) return false;
  block.resize(static_cast<size_t>(size));
  return size == 0 || file.read(offset, block.data(), block.size());
}

// The section headers of a file, with the count taken from section 0 when the header's field
// overflowed (e_shnum 0 with a section table present).
class Sections {
 public:
  WalkResult open(const Bytes& file) {
    Elf64_Ehdr header;
    if (!readHeader(file, header) || header.e_ident[EI_DATA] != ELFDATA2LSB) {
      return WalkResult::kNotElf64;
    }
    if (header.e_shoff == 0) return WalkResult::kNoTable;
    if (header.e_shentsize != sizeof(Elf64_Shdr)) return WalkResult::kBroken;
    file_ = &file;
    offset_ = header.e_shoff;
    count_ = header.e_shnum;
    if (count_ == 0) {
      Elf64_Shdr first;
      if (!at(0, first)) return WalkResult::kBroken;
      count_ = first.sh_size;
    }
    if (count_ > file.size() / sizeof(Elf64_Shdr) ||
        !inside(offset_, count_ * sizeof(Elf64_Shdr), file.size())) {
      return WalkResult::kBroken;
    }
    return WalkResult::kOk;
  }

  uint64_t count() const { return count_; }

  // Section `index`; before open() has checked the count, only section 0 is asked for.
  bool at(uint64_t index, Elf64_Shdr& section) const {
    return file_->read(offset_ + index * sizeof(Elf64_Shdr), &section, sizeof(section));
  }

 private:
  const Bytes* file_ = nullptr;
  uint64_t offset_ = 0;
  uint64_t count_ = 0;
};

// The name at `offset` of a string table: up to its NUL, or up to the end of the table.
bool nameAt(const std::vector<char>& strings, uint32_t offset, std::string& name) {
  if (offset >= strings.size()) return false;
  const char* start = strings.data() + offset;
  const size_t room = std::min(strings.size() - offset, kMaxNameLength);
  const void* end = std::memchr(start, '\0', room);
  name.assign(start,
              end == nullptr ? room : static_cast<size_t>(static_cast<const char*>(end) - start));
  return true;
}

}  // namespace

bool MemoryBytes::read(uint64_t offset, void* out, size_t count) const {
  if (!inside(offset, count, size_)) return false;
  if (count != 0) std::memcpy(out, data_ + offset, count);
  return true;
}

FileBytes::FileBytes(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    return;
  }
  fd_ = fd;
  size_ = static_cast<uint64_t>(status.st_size);
}

FileBytes::~FileBytes() {
  if (fd_ >= 0) close(fd_);
}

bool FileBytes::read(uint64_t offset, void* out, size_t count) const {
  if (fd_ < 0 || !inside(offset, count, size_)) return false;
  auto* bytes = static_cast<char*>(out);
  while (count > 0) {
    const ssize_t got = pread(fd_, bytes, count, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;  // an error, or the file shrank since it was opened
    bytes += got;
    offset += static_cast<uint64_t>(got);
    count -= static_cast<size_t>(got);
  }
  return true;
}

bool segmentsPastEnd(const Bytes& file) {
  Elf64_Ehdr header;
  if (!readHeader(file, header) || header.e_phentsize != sizeof(Elf64_Phdr)) return false;
  const uint64_t size = file.size();
  if (!inside(header.e_phoff, uint64_t{header.e_phnum} * sizeof(Elf64_Phdr), size)) return true;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (!file.read(header.e_phoff + i * sizeof(Elf64_Phdr), &segment, sizeof(segment))) {
      return true;
    }
    if ((segment.p_type == PT_LOAD || segment.p_type == PT_DYNAMIC) &&
        !inside(segment.p_offset, segment.p_filesz, size)) {
      return true;
    }
  }
  return false;
}

bool isTruncatedElf(const std::string& path) {
  if (path.find('/') == std::string::npos) return false;
  FileBytes file(path);
  return file.ok() && segmentsPastEnd(file);
}

WalkResult forEachSymbol(const Bytes& file, SymbolTable table,
                         const std::function<bool(const Symbol&)>& visit) {
  Sections sections;
  const WalkResult opened = sections.open(file);
  if (opened != WalkResult::kOk) return opened;
  const uint32_t wanted = table == SymbolTable::kDynamic ? SHT_DYNSYM : SHT_SYMTAB;
  Elf64_Shdr symbols;
  uint64_t index = 0;
  for (; index < sections.count(); ++index) {
    if (!sections.at(index, symbols)) return WalkResult::kBroken;
    if (symbols.sh_type == wanted) break;
  }
  if (index == sections.count()) return WalkResult::kNoTable;

  Elf64_Shdr strings;
  if (symbols.sh_link >= sections.count() || !sections.at(symbols.sh_link, strings) ||
      strings.sh_type != SHT_STRTAB) {
    return WalkResult::kBroken;
  }
  const uint64_t entrySize = symbols.sh_entsize == 0 ? sizeof(Elf64_Sym) : symbols.sh_entsize;
  if (entrySize != sizeof(Elf64_Sym) || symbols.sh_size % entrySize != 0) {
    return WalkResult::kBroken;
  }
  std::vector<char> entries, names;
  if (!readBlock(file, symbols.sh_offset, symbols.sh_size, entries) ||
      !readBlock(file, strings.sh_offset, strings.sh_size, names)) {
    return WalkResult::kBroken;
  }
  const size_t count = entries.size() / sizeof(Elf64_Sym);
  Symbol symbol;
  for (size_t i = 1; i < count; ++i) {
    Elf64_Sym entry;
    std::memcpy(&entry, entries.data() + i * sizeof(Elf64_Sym), sizeof(entry));
    if (!nameAt(names, entry.st_name, symbol.name)) return WalkResult::kBroken;
    symbol.binding = ELF64_ST_BIND(entry.st_info);
    symbol.type = ELF64_ST_TYPE(entry.st_info);
    symbol.visibility = ELF64_ST_VISIBILITY(entry.st_other);
    symbol.defined = entry.st_shndx != SHN_UNDEF;
    symbol.size = entry.st_size;
    if (!visit(symbol)) break;
  }
  return WalkResult::kOk;
}

}  // namespace elf
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk
