#pragma once

// Has the process keep some megabytes of freed memory for its own use. Buffers of hundreds of
// kilobytes come and go with every read of the bus; the C library would give each one back to the
// kernel, and to get it again costs more than all else that is done with a small record.
void keepFreedMemory();
