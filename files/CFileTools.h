// CFileTools: one file-system entry (a file or a folder) plus the program's
// static path, folder and file operations.
//
// Promises:
// - Queries never throw: a file-system error gives false, 0 or the current
//   time. File operations return false on failure. Only the data-folder and
//   working-directory operations throw, always std::logic_error.
// - Path helpers (display name, extension, directory) never touch the disk.
// - An instance is used by one thread at a time. It may keep the file open
//   between getData calls (so a "current" position exists); copies never share
//   that open file.
// - EnumerateFolder appends new entries to a caller-owned vector; the caller
//   deletes them. SortFiles orders them, folders always first.
// - s_extensionMediaTypeMap is process-wide: touch it only while holding
//   s_extensionMediaTypeMapLock.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <vector>

#include "common/CStdStr.h"
#include "host/PThread.h"

class CFileTools {
public:
    enum SeekDirection { begin = 0, current = 1, end = 2 };

    CFileTools();
    explicit CFileTools(const CStdStr& path);
    CFileTools(const CStdStr& path, const CStdStr& displayName);
    CFileTools(const CFileTools& other);
    CFileTools& operator=(const CFileTools& other);
    virtual ~CFileTools();

    // ---- well-known folders --------------------------------------------
    static CStdStr GetUserHomeFolder();
    static CStdStr GetLogsDirectory();
    static CStdStr GetPathFromCSIDL(int csidl);
    static CStdStr resolveShortcut(const CStdStr& path);
    // "%NAME%" anywhere in `s` becomes the matching folder under the home folder.
    static CStdStr resolveSpecialPath(const CStdStr& s);
    static CStdStr GetProcessBundleFolder();
    static CStdStr GetBinaryDirectory();          // throws std::logic_error
    static CStdStr GetCurrentWorkingDirectory();  // throws std::logic_error
    static CStdStr getTmpFolder();
    static CStdStr getTmpFolder(CStdStr sub);
    // A new empty file "/tmp/fileXXXXXX"; the caller deletes it. Empty on failure.
    static CStdStr GenerateTempFilePath();
    static CStdStr GetKivDataFolder();                        // throws std::logic_error
    static CStdStr GetKivDataSubFolder(const CStdStr& name);  // throws std::logic_error
    static CStdStr getKivBinFolderPath();
    static CStdStr getKivBinFolderPathMac();
    static bool testKivBinPath(const CStdStr& folder);

    // ---- file operations (true on success) -----------------------------
    static bool CreateDirectory(const CStdStr& path);
    static bool DeleteFile(const CStdStr& path);
    static bool CopyFile(const CStdStr& from, const CStdStr& to);
    static bool CopyDirectory(const CStdStr& from, const CStdStr& to);
    static bool Rename(const CStdStr& from, const CStdStr& to);

    // ---- listing, fields and order -------------------------------------
    // Appends the folder's entries to `out`. False when a file-system error
    // stopped the listing (entries added until then stay). `reserved` has no effect.
    static bool EnumerateFolder(CStdStr path, std::vector<CFileTools*>& out, bool includeHidden, bool includeFolders,
                                bool includeFiles, bool reserved, std::vector<CStdStr> extensions, bool recursive);
    // Sorts by the first key of `sortKeys` (e.g. "size:desc"); 1 for a known key, 0 otherwise (then title order).
    static int SortFiles(std::vector<CFileTools*>& files, CStdStr sortKeys);
    static CStdStr PathToFileBrowserMediumId(const CStdStr& path);
    static CStdStr FileBrowserMediumIdToPath(const CStdStr& id);
    static CStdStr GetDisplayNameFromPath(const CStdStr& path);

    // Extension key (".mp3") -> media type ("audio"); see the lock below.
    static PMutex s_extensionMediaTypeMapLock;  // guards s_extensionMediaTypeMap
    static std::map<CStdStr, CStdStr> s_extensionMediaTypeMap KIV_GUARDED_BY(s_extensionMediaTypeMapLock);

    // ---- queries on this entry -----------------------------------------
    const CStdStr& getPath() const { return m_path; }
    bool exists() const;
    bool isFolder() const;
    bool isShortcut() const;
    uint64_t getFileSize() const;
    time_t getLastModified() const;
    time_t getDateCreated() const;
    time_t getLastAccessed() const;
    CStdStr getMediumId();
    CStdStr getDisplayName();
    CStdStr getExtension() const;
    CStdStr getDirectory() const;
    CStdStr getFieldValue(const CStdStr& name);
    bool hasSubfolders() const { return m_hasSubfolders; }
    void setHasSubfolders(bool value) { m_hasSubfolders = value; }
    CStdStr toString() const;

    // ---- contents -------------------------------------------------------
    // The whole file in a new[] buffer that the caller delete[]s; false on failure.
    bool readToBytes(unsigned char** data, unsigned long* size);
    // Reads up to `count` bytes (any size) into `buffer`, starting at `offset`
    // counted from the begin, the current position or the end, as `direction`
    // says. The offset is taken as signed, so a position before the end or the
    // current position is a negative number converted to unsigned: the last N
    // bytes start at offset -N from the end. `count` becomes the number of
    // bytes read (0 on failure, before the start or past the end).
    bool getData(char* buffer, unsigned long long& count, unsigned long long offset, SeekDirection direction);
    // The whole file in a new[] buffer that the caller delete[]s, or null; `size` gets its size.
    char* getData(unsigned long long& size);
    // Replaces the file's contents with the bytes.
    bool writeBytes(const unsigned char* data, unsigned int size);
    bool writeBytes(const char* data, unsigned int size);
    bool writeString(const CStdStr& text);

private:
    int openForReading();
    void closeFile();

    CStdStr m_path;
    CStdStr m_displayName;  // the second constructor argument; filled on first getDisplayName()
    CStdStr m_mediumId;     // cached by getMediumId()
    bool m_hasSubfolders = false;
    bool m_flag2 = false;
    bool m_flag3 = false;
    int m_fd = -1;  // open for getData; never shared between copies
};
