#include "diag/MinidumpModules.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

// The low-level MD5 interface needs no heap, which the crash path requires.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <openssl/md5.h>

namespace minidump {

namespace {

uint64_t parseHex(char*& p) {
    uint64_t v = 0;
    for (;; ++p) {
        char c = *p;
        if (c >= '0' && c <= '9') v = v * 16 + static_cast<uint64_t>(c - '0');
        else if (c >= 'a' && c <= 'f') v = v * 16 + static_cast<uint64_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F') v = v * 16 + static_cast<uint64_t>(c - 'A' + 10);
        else break;
    }
    return v;
}

uint64_t parseDec(char*& p) {
    uint64_t v = 0;
    for (; *p >= '0' && *p <= '9'; ++p) v = v * 10 + static_cast<uint64_t>(*p - '0');
    return v;
}

void skipBlanks(char*& p) {
    while (*p == ' ' || *p == '\t') ++p;
}

void skipField(char*& p) {
    while (*p && *p != ' ' && *p != '\n') ++p;
}

bool preadAll(int fd, void* buf, size_t size, uint64_t offset) {
    char* b = static_cast<char*>(buf);
    while (size > 0) {
        ssize_t n = pread(fd, b, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        b += n;
        offset += static_cast<uint64_t>(n);
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool findBuildId(int fd, const Elf64_Ehdr& eh, ModuleInfo& m) {
    for (unsigned i = 0; i < eh.e_phnum && i < 256; ++i) {
        Elf64_Phdr ph;
        if (!preadAll(fd, &ph, sizeof ph, eh.e_phoff + uint64_t(i) * eh.e_phentsize)) return false;
        if (ph.p_type != PT_NOTE || ph.p_filesz > 65536) continue;
        uint8_t notes[4096];
        uint64_t size = ph.p_filesz < sizeof notes ? ph.p_filesz : sizeof notes;
        if (!preadAll(fd, notes, size, ph.p_offset)) continue;
        for (uint64_t off = 0; off + sizeof(Elf64_Nhdr) <= size;) {
            Elf64_Nhdr nh;
            memcpy(&nh, notes + off, sizeof nh);
            uint64_t name = off + sizeof nh;
            uint64_t desc = name + ((nh.n_namesz + 3u) & ~3u);
            uint64_t next = desc + ((nh.n_descsz + 3u) & ~3u);
            if (next > size) break;
            if (nh.n_type == NT_GNU_BUILD_ID && nh.n_namesz == 4 && memcmp(notes + name, "GNU", 4) == 0 &&
                nh.n_descsz > 0 && nh.n_descsz <= sizeof m.id) {
                memcpy(m.id, notes + desc, nh.n_descsz);
                m.idSize = nh.n_descsz;
                m.isBuildId = true;
                return true;
            }
            off = next;
        }
    }
    return false;
}

bool hashTextSection(int fd, const Elf64_Ehdr& eh, ModuleInfo& m) {
    if (eh.e_shoff == 0 || eh.e_shstrndx >= eh.e_shnum || eh.e_shentsize != sizeof(Elf64_Shdr)) return false;
    Elf64_Shdr strtab;
    if (!preadAll(fd, &strtab, sizeof strtab, eh.e_shoff + uint64_t(eh.e_shstrndx) * sizeof(Elf64_Shdr))) return false;
    for (unsigned i = 0; i < eh.e_shnum && i < 4096; ++i) {
        Elf64_Shdr sh;
        if (!preadAll(fd, &sh, sizeof sh, eh.e_shoff + uint64_t(i) * sizeof(Elf64_Shdr))) return false;
        char name[8] = {};
        if (sh.sh_name >= strtab.sh_size) continue;
        if (!preadAll(fd, name, 6, strtab.sh_offset + sh.sh_name)) continue;
        if (memcmp(name, ".text", 6) != 0 || sh.sh_type != SHT_PROGBITS) continue;
        MD5_CTX ctx;
        MD5_Init(&ctx);
        uint8_t chunk[4096];
        uint64_t left = sh.sh_size < (64u << 20) ? sh.sh_size : (64u << 20);
        uint64_t at = sh.sh_offset;
        while (left > 0) {
            size_t n = left < sizeof chunk ? static_cast<size_t>(left) : sizeof chunk;
            if (!preadAll(fd, chunk, n, at)) break;
            MD5_Update(&ctx, chunk, n);
            at += n;
            left -= n;
        }
        MD5_Final(m.id, &ctx);
        m.idSize = 16;
        m.isBuildId = false;
        return true;
    }
    return false;
}

}  // namespace

int parseMaps(char* text, Mapping* out, int max) {
    int count = 0;
    char* p = text;
    while (*p && count < max) {
        char* line = p;
        char* eol = strchr(line, '\n');
        if (eol) *eol = '\0';
        p = eol ? eol + 1 : line + strlen(line);
        char* q = line;
        Mapping m{};
        m.start = parseHex(q);
        if (*q != '-') continue;
        ++q;
        m.end = parseHex(q);
        skipBlanks(q);
        if (strlen(q) < 4) continue;
        m.readable = q[0] == 'r';
        m.executable = q[2] == 'x';
        skipField(q);
        skipBlanks(q);
        m.offset = parseHex(q);
        skipBlanks(q);
        skipField(q);  // device
        skipBlanks(q);
        m.inode = parseDec(q);
        skipBlanks(q);
        m.path = q;
        if (m.end > m.start) out[count++] = m;
    }
    return count;
}

const Mapping* findMapping(const Mapping* maps, int count, uint64_t address) {
    for (int i = 0; i < count; ++i)
        if (address >= maps[i].start && address < maps[i].end) return &maps[i];
    return nullptr;
}

bool identifyElfFile(const char* path, ModuleInfo& m) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    Elf64_Ehdr eh;
    bool ok = preadAll(fd, &eh, sizeof eh, 0) && memcmp(eh.e_ident, ELFMAG, SELFMAG) == 0 &&
              eh.e_ident[EI_CLASS] == ELFCLASS64 && eh.e_phentsize == sizeof(Elf64_Phdr);
    if (ok && !findBuildId(fd, eh, m)) hashTextSection(fd, eh, m);
    close(fd);
    return ok;
}

int collectModules(const Mapping* maps, int mapCount, ModuleInfo* out, int max) {
    int count = 0;
    for (int i = 0; i < mapCount && count < max; ++i) {
        const Mapping& first = maps[i];
        if (first.offset != 0 || first.path[0] != '/' || first.inode == 0 || !first.readable) continue;
        // Only real ELF files; a data file mapped at offset 0 is not a module.
        ModuleInfo m{};
        m.base = first.start;
        m.path = first.path;
        if (!identifyElfFile(first.path, m)) continue;
        uint64_t end = first.end;
        for (int j = i + 1; j < mapCount; ++j) {
            if (maps[j].inode != first.inode || strcmp(maps[j].path, first.path) != 0) {
                if (maps[j].path[0] == '\0' && maps[j].start == end) continue;  // .bss after the data
                break;
            }
            end = maps[j].end;
        }
        m.size = end - m.base;
        out[count++] = m;
    }
    return count;
}

}  // namespace minidump

#pragma GCC diagnostic pop
