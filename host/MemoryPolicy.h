// Memory policy of a long-running server process.
#pragma once

#include <cstddef>

// Gives every block of at least `bytes` straight back to the system when it
// is freed, so transfers in large chunks do not leave the heap holding the
// high-water mark of earlier ones. Call once, early in main. Returns false
// when the platform has no such setting.
bool ReturnLargeBlocksToSystem(size_t bytes);
