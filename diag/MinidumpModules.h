// The crashed process's memory map and the ELF modules mapped in it, for the
// minidump writer in the helper process. Modules are identified by their GNU
// build id; a file without one gets an MD5 of its .text section instead.
// Heap-free: all tables live in caller-provided memory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace minidump {

struct Mapping {
    uint64_t start;
    uint64_t end;
    uint64_t offset;
    uint64_t inode;
    bool readable;
    bool executable;
    const char* path;  // points into the maps text; "" for anonymous mappings
};

// Parses /proc/<pid>/maps text (modified in place: lines are cut at their end)
// into `out`; returns the number of mappings stored.
int parseMaps(char* text, Mapping* out, int max);

// The mapping that holds `address`, or nullptr.
const Mapping* findMapping(const Mapping* maps, int count, uint64_t address);

struct ModuleInfo {
    uint64_t base;
    uint64_t size;
    const char* path;
    uint8_t id[40];  // build id, or the 16-byte text hash
    size_t idSize;   // 0 when the file could not be identified
    bool isBuildId;  // false: id is the hash of the text section
};

// Groups the file-backed mappings that start with an ELF header into modules.
int collectModules(const Mapping* maps, int mapCount, ModuleInfo* out, int max);

// Reads the build id of an ELF file, or hashes its .text section; false when
// the file cannot be read as ELF.
bool identifyElfFile(const char* path, ModuleInfo& module);

}  // namespace minidump
