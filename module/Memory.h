#pragma once

// Makes the C library keep up to 16 MiB of freed memory instead of returning it to the kernel.
// Every read of the bus allocates and frees buffers of hundreds of kilobytes. Fetching them from
// the kernel each time would cost more than everything else that a small record needs.
void keepFreedMemory();
