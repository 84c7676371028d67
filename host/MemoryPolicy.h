// Memory policy of a long-running server process.
#pragma once

// Bounds the memory the allocator keeps for reuse: blocks freed by one thread
// are reused by others instead of every busy thread keeping its own pool, so
// a burst of concurrent transfers in large chunks leaves at most about
// `arenas` pools of the largest recent chunks behind. Large blocks are kept
// for reuse rather than handed back at once: a fresh multi-MiB block per file
// chunk costs more in page faults than the chunk's copy. Call once, early in
// main. Returns false when the platform has no such setting.
bool BoundAllocatorPools(int arenas);
