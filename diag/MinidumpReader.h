// MinidumpReader: reads a minidump file (x86-64, as MinidumpWriter writes it)
// back into plain values: the exception, the threads with their registers,
// the modules with their ids, the saved memory ranges and the Linux text
// streams. Every offset and size is checked against the file: a truncated or
// garbled file is refused with a reason (error()), never read out of bounds.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "diag/MinidumpFormat.h"

class MinidumpReader {
public:
    struct ThreadInfo {
        uint32_t id = 0;
        bool hasContext = false;
        minidump::ContextAmd64 context{};
        uint64_t stackStart = 0;
        uint32_t stackSize = 0;
    };
    struct ModuleInfo {
        uint64_t base = 0;
        uint64_t size = 0;
        std::string name;
        std::string id;  // hex text of the build id or text hash; "" when none
        bool isBuildId = false;
    };
    struct ExceptionInfo {
        uint32_t threadId = 0;
        uint32_t signal = 0;
        uint32_t code = 0;
        uint64_t address = 0;
        bool hasContext = false;
        minidump::ContextAmd64 context{};
    };

    bool load(const std::string& path);
    bool parse(std::vector<uint8_t> bytes);
    const std::string& error() const { return m_error; }

    bool hasException() const { return m_hasException; }
    const ExceptionInfo& exception() const { return m_exception; }
    const std::vector<ThreadInfo>& threads() const { return m_threads; }
    const std::vector<ModuleInfo>& modules() const { return m_modules; }
    const minidump::SystemInfo& systemInfo() const { return m_system; }
    // Text of a Linux stream (e.g. minidump::kLinuxMaps); "" when absent.
    std::string linuxStream(uint32_t type) const;

    // The module that holds address, or nullptr.
    const ModuleInfo* moduleAt(uint64_t address) const;
    // Copies saved memory; false when [address, address+size) was not saved.
    bool readMemory(uint64_t address, size_t size, void* out) const;
    // The crashing thread's instruction pointer (0 without an exception context).
    uint64_t crashInstructionPointer() const;
    // Names of the modules the crashing thread ran in: the module of the
    // instruction pointer, then those of the return addresses found on its
    // saved stack, each once, innermost first.
    std::vector<std::string> crashModules() const;

private:
    bool fail(const std::string& why);
    bool located(const minidump::LocationDescriptor& loc) const;
    bool readString(uint32_t rva, std::string& out) const;
    bool parseThreads(const minidump::LocationDescriptor& loc);
    bool parseModules(const minidump::LocationDescriptor& loc);
    bool parseMemory(const minidump::LocationDescriptor& loc);
    bool parseException(const minidump::LocationDescriptor& loc);
    bool readContext(const minidump::LocationDescriptor& loc, minidump::ContextAmd64& out) const;

    std::vector<uint8_t> m_bytes;
    std::string m_error;
    bool m_hasException = false;
    ExceptionInfo m_exception;
    std::vector<ThreadInfo> m_threads;
    std::vector<ModuleInfo> m_modules;
    std::vector<minidump::MemoryDescriptor> m_memory;
    minidump::SystemInfo m_system{};
    std::map<uint32_t, minidump::LocationDescriptor> m_linux;
};
