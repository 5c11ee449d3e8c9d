// The ELF reading behind the loader's refusal of truncated files and behind kelvo-plugin-check,
// on real plug-in files and on copies of them that are cut short or damaged.
#include "plugin_elf.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "plugin_test_support.h"

namespace mosk::kelvo::internal::elf {
namespace {

using test_support::pluginPath;
using test_support::readFile;
using test_support::ScratchFile;

// Every symbol of a table, and how the walk ended.
struct Walk {
  WalkResult result;
  std::vector<Symbol> symbols;

  const Symbol* find(const std::string& name) const {
    for (const Symbol& symbol : symbols) {
      if (symbol.name == name) return &symbol;
    }
    return nullptr;
  }
};

Walk walk(const Bytes& file, SymbolTable table) {
  Walk walk;
  walk.result = forEachSymbol(file, table, [&walk](const Symbol& symbol) {
    walk.symbols.push_back(symbol);
    return true;
  });
  return walk;
}

Walk walk(const std::string& bytes, SymbolTable table) {
  MemoryBytes memory(bytes.data(), bytes.size());
  return walk(memory, table);
}

template <typename Field>
void patch(std::string& bytes, uint64_t offset, Field value) {
  ASSERT_LE(offset + sizeof(value), bytes.size());
  std::memcpy(&bytes[offset], &value, sizeof(value));
}

Elf64_Ehdr headerOf(const std::string& bytes) {
  Elf64_Ehdr header;
  std::memcpy(&header, bytes.data(), sizeof(header));
  return header;
}

// The offset of the header of the first section of `type`.
uint64_t sectionHeaderOffset(const std::string& bytes, uint32_t type) {
  const Elf64_Ehdr header = headerOf(bytes);
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    const uint64_t offset = header.e_shoff + i * sizeof(section);
    std::memcpy(&section, bytes.data() + offset, sizeof(section));
    if (section.sh_type == type) return offset;
  }
  ADD_FAILURE() << "no section of type " << type;
  return 0;
}

Elf64_Shdr sectionAt(const std::string& bytes, uint64_t offset) {
  Elf64_Shdr section;
  std::memcpy(&section, bytes.data() + offset, sizeof(section));
  return section;
}

class PluginElfTest : public testing::Test {
 protected:
  const std::string good_ = readFile(pluginPath("good"));
};

// ---------------------------------------------------------------------------------------------
// Symbols of real plug-ins
// ---------------------------------------------------------------------------------------------

TEST_F(PluginElfTest, DynamicTableOfAPluginHasItsRecordAndItsReferences) {
  ASSERT_GT(good_.size(), sizeof(Elf64_Ehdr));
  const Walk dynamic = walk(good_, SymbolTable::kDynamic);
  ASSERT_EQ(dynamic.result, WalkResult::kOk);
  const Symbol* exports = dynamic.find("exports");
  ASSERT_NE(exports, nullptr);
  EXPECT_TRUE(exports->defined);
  EXPECT_EQ(exports->binding, STB_GLOBAL);
  EXPECT_EQ(exports->type, STT_OBJECT);
  EXPECT_EQ(exports->visibility, STV_DEFAULT);
  EXPECT_EQ(exports->size, 104u);
  const Symbol* record = dynamic.find("kelvo_test_record");  // defined by the test program
  ASSERT_NE(record, nullptr);
  EXPECT_FALSE(record->defined);
}

// kelvo_add_plugin leaves the record as the only symbol a plug-in defines for the dynamic
// linker, however the record is written.
TEST_F(PluginElfTest, PluginsBuiltWithKelvoAddPluginDefineOnlyTheirRecord) {
  for (const char* name : {"good", "plain", "unresolved", "provider", "api2"}) {
    const Walk dynamic = walk(readFile(pluginPath(name)), SymbolTable::kDynamic);
    ASSERT_EQ(dynamic.result, WalkResult::kOk) << name;
    std::vector<std::string> defined;
    for (const Symbol& symbol : dynamic.symbols) {
      if (symbol.defined) defined.push_back(symbol.name);
    }
    EXPECT_EQ(defined, std::vector<std::string>{"exports"}) << name;
  }
  const Walk none = walk(readFile(pluginPath("no_exports")), SymbolTable::kDynamic);
  ASSERT_EQ(none.result, WalkResult::kOk);
  ASSERT_FALSE(none.symbols.empty()) << "its references to other objects are there";
  for (const Symbol& symbol : none.symbols) EXPECT_FALSE(symbol.defined) << symbol.name;
}

TEST_F(PluginElfTest, HiddenRecordIsALocalSymbolOfTheStaticTableOnly) {
  const std::string hidden = readFile(pluginPath("hidden_exports"));
  const Walk dynamic = walk(hidden, SymbolTable::kDynamic);
  ASSERT_EQ(dynamic.result, WalkResult::kOk);
  EXPECT_EQ(dynamic.find("exports"), nullptr);
  const Walk all = walk(hidden, SymbolTable::kStatic);
  ASSERT_EQ(all.result, WalkResult::kOk);
  const Symbol* exports = all.find("exports");
  ASSERT_NE(exports, nullptr);
  EXPECT_TRUE(exports->defined);
  EXPECT_EQ(exports->binding, STB_LOCAL);
}

TEST_F(PluginElfTest, FileAndMemoryReadTheSame) {
  FileBytes file(pluginPath("good"));
  ASSERT_TRUE(file.ok());
  EXPECT_EQ(file.size(), good_.size());
  for (SymbolTable table : {SymbolTable::kDynamic, SymbolTable::kStatic}) {
    const Walk fromFile = walk(file, table);
    const Walk fromMemory = walk(good_, table);
    EXPECT_EQ(fromFile.result, fromMemory.result);
    ASSERT_EQ(fromFile.symbols.size(), fromMemory.symbols.size());
    for (size_t i = 0; i < fromFile.symbols.size(); ++i) {
      EXPECT_EQ(fromFile.symbols[i].name, fromMemory.symbols[i].name);
    }
  }
}

TEST_F(PluginElfTest, VisitorStopsTheWalk) {
  MemoryBytes memory(good_.data(), good_.size());
  int visited = 0;
  EXPECT_EQ(forEachSymbol(memory, SymbolTable::kDynamic,
                          [&visited](const Symbol&) {
                            ++visited;
                            return false;
                          }),
            WalkResult::kOk);
  EXPECT_EQ(visited, 1);
}

TEST_F(PluginElfTest, StrippedFileHasNoStaticTable) {
  ScratchFile copy(good_);
  const std::string stripped = copy.path() + ".stripped";
  const std::string command = "strip -o " + stripped + " " + copy.path() + " 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "strip (binutils) is not available";
  const std::string bytes = readFile(stripped);
  unlink(stripped.c_str());
  EXPECT_EQ(walk(bytes, SymbolTable::kStatic).result, WalkResult::kNoTable);
  const Walk dynamic = walk(bytes, SymbolTable::kDynamic);
  EXPECT_EQ(dynamic.result, WalkResult::kOk);
  EXPECT_NE(dynamic.find("exports"), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Files that are not what they claim
// ---------------------------------------------------------------------------------------------

TEST_F(PluginElfTest, FilesThatAreNotLittleEndian64BitElf) {
  for (const std::string& bytes : {std::string(),
                                   std::string("\x7f"
                                               "ELF"),
                                   std::string(100, 'x'), good_.substr(0, 63)}) {
    EXPECT_EQ(walk(bytes, SymbolTable::kDynamic).result, WalkResult::kNotElf64) << bytes.size();
  }
  std::string otherClass = good_;
  otherClass[EI_CLASS] = ELFCLASS32;
  EXPECT_EQ(walk(otherClass, SymbolTable::kDynamic).result, WalkResult::kNotElf64);
  std::string bigEndian = good_;
  bigEndian[EI_DATA] = ELFDATA2MSB;
  EXPECT_EQ(walk(bigEndian, SymbolTable::kDynamic).result, WalkResult::kNotElf64);
}

TEST_F(PluginElfTest, NoSectionHeadersMeansNoTable) {
  std::string bytes = good_;
  patch<Elf64_Off>(bytes, offsetof(Elf64_Ehdr, e_shoff), 0);
  EXPECT_EQ(walk(bytes, SymbolTable::kDynamic).result, WalkResult::kNoTable);
}

TEST_F(PluginElfTest, EveryCutOfAPluginIsReadWithinBounds) {
  // Whatever the cut, the walk ends in one of its results, never outside the bytes it has (the
  // sanitizer builds check the reads).
  const size_t step = good_.size() / 1500 + 1;
  for (size_t length = 0; length < good_.size(); length += length < 256 ? 1 : step) {
    const std::string cut = good_.substr(0, length);
    for (SymbolTable table : {SymbolTable::kDynamic, SymbolTable::kStatic}) {
      const WalkResult result = walk(cut, table).result;
      EXPECT_NE(result, WalkResult::kOk) << length << " bytes: the section headers come last";
    }
  }
}

TEST_F(PluginElfTest, DamagedSectionHeadersAreBroken) {
  const Elf64_Ehdr header = headerOf(good_);
  {
    std::string bytes = good_;
    patch<Elf64_Half>(bytes, offsetof(Elf64_Ehdr, e_shentsize), 40);
    EXPECT_EQ(walk(bytes, SymbolTable::kDynamic).result, WalkResult::kBroken);
  }
  for (Elf64_Off offset : {Elf64_Off{good_.size()}, Elf64_Off{~0ull}, Elf64_Off{~0ull - 63}}) {
    std::string bytes = good_;
    patch<Elf64_Off>(bytes, offsetof(Elf64_Ehdr, e_shoff), offset);
    EXPECT_EQ(walk(bytes, SymbolTable::kDynamic).result, WalkResult::kBroken) << offset;
  }
  {
    std::string bytes = good_;
    patch<Elf64_Half>(bytes, offsetof(Elf64_Ehdr, e_shnum), header.e_shnum + 1);
    EXPECT_EQ(walk(bytes, SymbolTable::kDynamic).result, WalkResult::kBroken);
  }
}

// A file with more sections than e_shnum can hold keeps their count in section 0's sh_size.
TEST_F(PluginElfTest, SectionCountInSectionZeroIsRead) {
  const Elf64_Ehdr header = headerOf(good_);
  std::string bytes = good_;
  patch<Elf64_Half>(bytes, offsetof(Elf64_Ehdr, e_shnum), 0);
  patch<Elf64_Xword>(bytes, header.e_shoff + offsetof(Elf64_Shdr, sh_size), header.e_shnum);
  const Walk extended = walk(bytes, SymbolTable::kDynamic);
  EXPECT_EQ(extended.result, WalkResult::kOk);
  EXPECT_EQ(extended.symbols.size(), walk(good_, SymbolTable::kDynamic).symbols.size());
  for (Elf64_Xword count : {Elf64_Xword{0}, Elf64_Xword{~0ull}, Elf64_Xword{1ull << 58}}) {
    patch<Elf64_Xword>(bytes, header.e_shoff + offsetof(Elf64_Shdr, sh_size), count);
    const WalkResult result = walk(bytes, SymbolTable::kDynamic).result;
    EXPECT_TRUE(result == WalkResult::kBroken || result == WalkResult::kNoTable) << count;
  }
}

TEST_F(PluginElfTest, DamagedSymbolTablesAreBroken) {
  const uint64_t dynsym = sectionHeaderOffset(good_, SHT_DYNSYM);
  const Elf64_Shdr table = sectionAt(good_, dynsym);
  const auto broken = [&](auto field, auto value) {
    std::string bytes = good_;
    patch(bytes, dynsym + field, value);
    return walk(bytes, SymbolTable::kDynamic).result == WalkResult::kBroken;
  };
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_link), Elf64_Word{60000}));
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_link), Elf64_Word{0}));  // not a string table
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_entsize), Elf64_Xword{16}));
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_size), Elf64_Xword{table.sh_size + 1}));
  // Whole numbers of entries, but more than the file or the reading limit holds.
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_size), Elf64_Xword{~0ull / 24 * 24}));
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_size), Elf64_Xword{uint64_t{24} << 36}));
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_offset), Elf64_Off{good_.size()}));
  EXPECT_TRUE(broken(offsetof(Elf64_Shdr, sh_offset), Elf64_Off{~0ull}));
  // An entry size of 0 is taken as the size of one symbol, as linkers mean it.
  std::string zeroEntrySize = good_;
  patch<Elf64_Xword>(zeroEntrySize, dynsym + offsetof(Elf64_Shdr, sh_entsize), 0);
  EXPECT_EQ(walk(zeroEntrySize, SymbolTable::kDynamic).result, WalkResult::kOk);
}

TEST_F(PluginElfTest, NameOutsideTheStringTableEndsTheWalkAfterTheSymbolsBefore) {
  const uint64_t dynsym = sectionHeaderOffset(good_, SHT_DYNSYM);
  const Elf64_Shdr table = sectionAt(good_, dynsym);
  ASSERT_GE(table.sh_size / sizeof(Elf64_Sym), 4u);
  std::string bytes = good_;
  patch<Elf64_Word>(bytes, table.sh_offset + 3 * sizeof(Elf64_Sym) + offsetof(Elf64_Sym, st_name),
                    0xfffffff0u);
  const Walk damaged = walk(bytes, SymbolTable::kDynamic);
  EXPECT_EQ(damaged.result, WalkResult::kBroken);
  EXPECT_EQ(damaged.symbols.size(), 2u) << "symbols 1 and 2 were visited";
}

TEST_F(PluginElfTest, NamesEndAtTheEndOfTheStringTableOrAtTheLengthLimit) {
  const uint64_t dynsym = sectionHeaderOffset(good_, SHT_DYNSYM);
  const Elf64_Shdr table = sectionAt(good_, dynsym);
  const Elf64_Shdr strings =
      sectionAt(good_, headerOf(good_).e_shoff + table.sh_link * sizeof(Elf64_Shdr));
  ASSERT_GE(strings.sh_size, 2u);
  // The first symbol's name moved to the table's last byte, and its NUL overwritten: the name
  // runs to the end of the table and no further.
  std::string bytes = good_;
  bytes[strings.sh_offset + strings.sh_size - 1] = 'Z';
  patch<Elf64_Word>(bytes, table.sh_offset + sizeof(Elf64_Sym) + offsetof(Elf64_Sym, st_name),
                    static_cast<Elf64_Word>(strings.sh_size - 1));
  const Walk unterminated = walk(bytes, SymbolTable::kDynamic);
  EXPECT_EQ(unterminated.result, WalkResult::kOk);
  ASSERT_FALSE(unterminated.symbols.empty());
  EXPECT_EQ(unterminated.symbols[0].name, "Z");
  // The string table moved to a run of letters longer than the limit appended to the file:
  // every name is cut at the limit.
  std::string longNames = good_ + std::string(kMaxNameLength + 100, 'n') + '\0';
  const uint64_t stringsHeader = headerOf(good_).e_shoff + table.sh_link * sizeof(Elf64_Shdr);
  patch<Elf64_Off>(longNames, stringsHeader + offsetof(Elf64_Shdr, sh_offset), good_.size());
  patch<Elf64_Xword>(longNames, stringsHeader + offsetof(Elf64_Shdr, sh_size),
                     kMaxNameLength + 101);
  const Walk cut = walk(longNames, SymbolTable::kDynamic);
  EXPECT_EQ(cut.result, WalkResult::kOk);
  ASSERT_FALSE(cut.symbols.empty());
  size_t longest = 0;
  for (const Symbol& symbol : cut.symbols) {
    EXPECT_GE(symbol.name.size(), 100u);
    longest = std::max(longest, symbol.name.size());
  }
  EXPECT_EQ(longest, kMaxNameLength);
}

// ---------------------------------------------------------------------------------------------
// The loader's rule for files cut inside their segments
// ---------------------------------------------------------------------------------------------

TEST_F(PluginElfTest, WholePluginDoesNotReachPastItsEnd) {
  MemoryBytes memory(good_.data(), good_.size());
  EXPECT_FALSE(segmentsPastEnd(memory));
  EXPECT_FALSE(isTruncatedElf(pluginPath("good")));
}

TEST_F(PluginElfTest, CutsInsideTheSegmentsReachPastTheEnd) {
  const Elf64_Ehdr header = headerOf(good_);
  uint64_t lastSegmentEnd = 0;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    std::memcpy(&segment, good_.data() + header.e_phoff + i * sizeof(segment), sizeof(segment));
    if (segment.p_type == PT_LOAD) lastSegmentEnd = segment.p_offset + segment.p_filesz;
  }
  for (uint64_t length : {uint64_t{64}, uint64_t{100}, lastSegmentEnd / 2, lastSegmentEnd - 1}) {
    const std::string cut = good_.substr(0, length);
    MemoryBytes memory(cut.data(), cut.size());
    EXPECT_TRUE(segmentsPastEnd(memory)) << length;
  }
  // Too short for the file header: the dynamic linker says so itself.
  const std::string stub = good_.substr(0, 63);
  MemoryBytes memory(stub.data(), stub.size());
  EXPECT_FALSE(segmentsPastEnd(memory));
}

TEST_F(PluginElfTest, DamagedProgramHeadersReachPastTheEnd) {
  const Elf64_Ehdr header = headerOf(good_);
  const auto pastEnd = [](const std::string& bytes) {
    MemoryBytes memory(bytes.data(), bytes.size());
    return segmentsPastEnd(memory);
  };
  std::string farTable = good_;
  patch<Elf64_Off>(farTable, offsetof(Elf64_Ehdr, e_phoff), ~0ull - 8);
  EXPECT_TRUE(pastEnd(farTable));
  std::string hugeSegment = good_;
  patch<Elf64_Xword>(hugeSegment, header.e_phoff + offsetof(Elf64_Phdr, p_filesz), ~0ull);
  patch<Elf64_Word>(hugeSegment, header.e_phoff + offsetof(Elf64_Phdr, p_type), PT_LOAD);
  EXPECT_TRUE(pastEnd(hugeSegment));
  std::string otherEntrySize = good_;
  patch<Elf64_Half>(otherEntrySize, offsetof(Elf64_Ehdr, e_phentsize), 32);
  EXPECT_FALSE(pastEnd(otherEntrySize)) << "left to the dynamic linker";
}

TEST_F(PluginElfTest, TruncatedFileRuleNeedsASlashAndARegularFile) {
  ScratchFile cut(good_.substr(0, 1024));
  EXPECT_TRUE(isTruncatedElf(cut.path()));
  // A name without a slash is searched for by the dynamic linker, not opened here.
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir("/tmp"), 0);
  EXPECT_FALSE(isTruncatedElf(cut.path().substr(std::string("/tmp/").size())));
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_FALSE(isTruncatedElf("/tmp"));
  EXPECT_FALSE(isTruncatedElf("/nonexistent/kelvo/x.so"));
  FileBytes missing("/nonexistent/kelvo/x.so");
  EXPECT_FALSE(missing.ok());
  char byte;
  EXPECT_FALSE(missing.read(0, &byte, 1));
}

TEST_F(PluginElfTest, ReadsOutsideTheBytesFail) {
  MemoryBytes memory(good_.data(), 10);
  char buffer[16];
  EXPECT_TRUE(memory.read(0, buffer, 10));
  EXPECT_TRUE(memory.read(10, buffer, 0));
  EXPECT_FALSE(memory.read(1, buffer, 10));
  EXPECT_FALSE(memory.read(11, buffer, 0));
  EXPECT_FALSE(memory.read(~0ull, buffer, 2));
  FileBytes file(pluginPath("good"));
  EXPECT_TRUE(file.read(file.size() - 1, buffer, 1));
  EXPECT_FALSE(file.read(file.size() - 1, buffer, 2));
  EXPECT_FALSE(file.read(~0ull - 1, buffer, 4));
}

}  // namespace
}  // namespace mosk::kelvo::internal::elf
