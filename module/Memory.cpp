#include "Memory.h"

#include <malloc.h>

namespace {
constexpr int keptBytes = 16'777'216; // a frame of 10 MB fits; more than that goes back
}

void keepFreedMemory()
{
    ::mallopt(M_TRIM_THRESHOLD, keptBytes);
    ::mallopt(M_MMAP_THRESHOLD, keptBytes);
}
