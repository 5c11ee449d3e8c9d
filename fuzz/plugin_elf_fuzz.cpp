// The ELF reading of plug-in files (src/plugin_elf) against arbitrary bytes, read as the loader
// and kelvo-plugin-check read a file. The seeds in fuzz/corpus/plugin_elf are a 3 KB shared
// object with an "exports" record and a function it does not define (gcc -shared -nostdlib), the
// same with the record hidden, a stripped copy, and copies cut after the header and before the
// section headers.
#include <elf.h>

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "plugin_elf.h"

namespace elf = mosk::kelvo::internal::elf;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const elf::MemoryBytes file(data, size);
  elf::segmentsPastEnd(file);
  for (elf::SymbolTable table : {elf::SymbolTable::kDynamic, elf::SymbolTable::kStatic}) {
    size_t visited = 0;
    elf::forEachSymbol(file, table, [&](const elf::Symbol& symbol) {
      kelvo_fuzz::check(symbol.name.size() <= elf::kMaxNameLength, "names are cut at the limit");
      kelvo_fuzz::check(++visited <= size / sizeof(Elf64_Sym), "every symbol is in the bytes");
      return true;
    });
  }
  return 0;
}
