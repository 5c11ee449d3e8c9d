#include "mosk/kelvo/thread.h"

#include <gtest/gtest.h>
