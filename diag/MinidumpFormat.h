// The on-disk records of a minidump file (the public Microsoft minidump
// layout, little-endian, packed) and the stream ids used for Linux dumps.
// Promise: every struct here has exactly the size of the file record.
#pragma once

#include <cstdint>

namespace minidump {

constexpr uint32_t kSignature = 0x504d444d;  // "MDMP"
constexpr uint32_t kVersion = 0xa793;

enum StreamType : uint32_t {
    kThreadListStream = 3,
    kModuleListStream = 4,
    kMemoryListStream = 5,
    kExceptionStream = 6,
    kSystemInfoStream = 7,
    kLinuxCpuInfo = 0x47670003,
    kLinuxProcStatus = 0x47670004,
    kLinuxLsbRelease = 0x47670005,
    kLinuxCmdLine = 0x47670006,
    kLinuxEnviron = 0x47670007,
    kLinuxAuxv = 0x47670008,
    kLinuxMaps = 0x47670009,
    kLinuxDsoDebug = 0x4767000A,
};

constexpr uint16_t kCpuArchitectureAmd64 = 9;
constexpr uint32_t kOsLinux = 0x8201;

constexpr uint32_t kContextAmd64 = 0x00100000;
constexpr uint32_t kContextAmd64Control = kContextAmd64 | 0x1;
constexpr uint32_t kContextAmd64Integer = kContextAmd64 | 0x2;
constexpr uint32_t kContextAmd64Segments = kContextAmd64 | 0x4;
constexpr uint32_t kContextAmd64Float = kContextAmd64 | 0x8;
constexpr uint32_t kContextAmd64Full = kContextAmd64Control | kContextAmd64Integer | kContextAmd64Float;

constexpr uint32_t kCvSignaturePdb70 = 0x53445352;  // "RSDS"
constexpr uint32_t kCvSignatureElf = 0x4270454c;    // "BpEL": the whole ELF build id follows

#pragma pack(push, 1)

struct LocationDescriptor {
    uint32_t dataSize;
    uint32_t rva;
};

struct MemoryDescriptor {
    uint64_t startOfMemoryRange;
    LocationDescriptor memory;
};

struct Header {
    uint32_t signature;
    uint32_t version;
    uint32_t numberOfStreams;
    uint32_t streamDirectoryRva;
    uint32_t checksum;
    uint32_t timeDateStamp;
    uint64_t flags;
};

struct Directory {
    uint32_t streamType;
    LocationDescriptor location;
};

struct Uint128 {
    uint64_t low;
    uint64_t high;
};

struct ContextAmd64 {
    uint64_t pHome[6];
    uint32_t contextFlags;
    uint32_t mxCsr;
    uint16_t cs, ds, es, fs, gs, ss;
    uint32_t eflags;
    uint64_t dr0, dr1, dr2, dr3, dr6, dr7;
    uint64_t rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi;
    uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
    uint64_t rip;
    uint8_t fltSave[512];  // FXSAVE layout
    Uint128 vectorRegister[26];
    uint64_t vectorControl;
    uint64_t debugControl;
    uint64_t lastBranchToRip;
    uint64_t lastBranchFromRip;
    uint64_t lastExceptionToRip;
    uint64_t lastExceptionFromRip;
};

struct Thread {
    uint32_t threadId;
    uint32_t suspendCount;
    uint32_t priorityClass;
    uint32_t priority;
    uint64_t teb;
    MemoryDescriptor stack;
    LocationDescriptor threadContext;
};

struct FixedFileInfo {
    uint32_t signature, strucVersion, fileVersionHi, fileVersionLo, productVersionHi, productVersionLo, fileFlagsMask,
        fileFlags, fileOs, fileType, fileSubtype, fileDateHi, fileDateLo;
};

struct Module {
    uint64_t baseOfImage;
    uint32_t sizeOfImage;
    uint32_t checksum;
    uint32_t timeDateStamp;
    uint32_t moduleNameRva;
    FixedFileInfo versionInfo;
    LocationDescriptor cvRecord;
    LocationDescriptor miscRecord;
    uint64_t reserved0;
    uint64_t reserved1;
};

struct Exception {
    uint32_t exceptionCode;
    uint32_t exceptionFlags;
    uint64_t exceptionRecord;
    uint64_t exceptionAddress;
    uint32_t numberParameters;
    uint32_t unusedAlignment;
    uint64_t exceptionInformation[15];
};

struct ExceptionStream {
    uint32_t threadId;
    uint32_t alignment;
    Exception exceptionRecord;
    LocationDescriptor threadContext;
};

struct SystemInfo {
    uint16_t processorArchitecture;
    uint16_t processorLevel;
    uint16_t processorRevision;
    uint8_t numberOfProcessors;
    uint8_t productType;
    uint32_t majorVersion;
    uint32_t minorVersion;
    uint32_t buildNumber;
    uint32_t platformId;
    uint32_t csdVersionRva;
    uint16_t suiteMask;
    uint16_t reserved2;
    uint32_t vendorId[3];
    uint32_t versionInformation;
    uint32_t featureInformation;
    uint32_t amdExtendedCpuFeatures;
};

struct CvInfoPdb70Head {
    uint32_t cvSignature;
    uint8_t signature[16];
    uint32_t age;
    // followed by the zero-terminated file name
};

struct CvInfoElfHead {
    uint32_t cvSignature;
    // followed by the build id bytes
};

#pragma pack(pop)

static_assert(sizeof(Header) == 32, "header");
static_assert(sizeof(Directory) == 12, "directory");
static_assert(sizeof(ContextAmd64) == 1232, "amd64 context");
static_assert(sizeof(Thread) == 48, "thread");
static_assert(sizeof(Module) == 108, "module");
static_assert(sizeof(ExceptionStream) == 168, "exception stream");
static_assert(sizeof(SystemInfo) == 56, "system info");

}  // namespace minidump
