// A consumer of the installed library: includes the umbrella header and calls into it.
#include <mosk/kelvo.h>

#include <cstdio>

int main() {
  using mosk::kelvo::Cycles;
  if (Cycles::cyclesPerSec <= 0) return 1;
  std::printf("kelvo consumer: %.0f cycles per second, %s\n", Cycles::cyclesPerSec,
              mosk::kelvo::versionIntToString(1002003).c_str());
  return 0;
}
