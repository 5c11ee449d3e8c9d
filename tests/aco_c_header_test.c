/* Compiles the coroutine runtime's header as C11. */
#include "mosk/kelvo/aco.h"

int kelvo_aco_header_is_c11(void) { return 0; }
