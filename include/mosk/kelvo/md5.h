// Placeholder: this unit's interface is being written.
#ifndef MOSK_KELVO_MD5_H_
#define MOSK_KELVO_MD5_H_
#include "mosk/kelvo/export.h"
#endif  // MOSK_KELVO_MD5_H_
