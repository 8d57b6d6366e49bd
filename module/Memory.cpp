#include "Memory.h"

#include <malloc.h>

namespace {
constexpr int keptBytes = 16'777'216; // enough for a frame of 10 MB
}

void keepFreedMemory()
{
    ::mallopt(M_TRIM_THRESHOLD, keptBytes);
    ::mallopt(M_MMAP_THRESHOLD, keptBytes);
}
