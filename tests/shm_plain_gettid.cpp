// Compiled without _GNU_SOURCE, where the C library declares no gettid(): here shm.h declares
// the library's own global gettid(), which must link to the same function as shm_gettid().
#undef _GNU_SOURCE
#include <unistd.h>

#include <cstdint>

#include "mosk/kelvo/shm.h"

uint32_t threadIdFromPlainGettid() { return gettid(); }
