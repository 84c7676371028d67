// CMyPathTree: lays out a set of local files as zip entries and writes the zip.
//
// Promises:
// - Files are stored in the order of AddFile. A file that shares a folder of
//   two or more components with a folder node already in the tree is stored
//   relative to the top of that group; any other file is stored under its bare
//   name. Parent folders are found by the text before the last backslash, so
//   with "/" paths files are normally stored flat by name.
// - AddFile throws CabException "no parent folder" when a file must be grouped
//   with a folder node (two or more shared components) but its path, or that
//   of the shared folder, has no backslash: mixing backslash and "/" paths fails
//   instead of giving an odd layout. The node links never form a cycle.
// - getZipHeaderSize() estimates the zip's overhead as the sum over files of
//   102 + 2 * length of the entry name.
// - createZip writes one entry per file (deflate level 9, or stored), dated
//   with the file's modification time: the DOS date and time in local time,
//   and the extended timestamp field (0x5455) with the UTC time. Any failed
//   write ends the archive: createZip returns false with the reason, and the
//   partial file is left for the caller to remove.
// - createZip asks `abandoned` before each block of 128 KiB it copies; once
//   that answers true it stops within that block and returns false.
// - createZip reads each file through a descriptor from `openInput` (by
//   default a non-blocking read-only open of a regular file); a file it gives
//   none for (-1) is an empty entry dated now, as a missing file. Nothing it
//   does can block on a FIFO or a device.
// - The tree owns all its nodes. One thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "archive/CMyPathNode.h"
#include "common/CStdStr.h"

class CMyPathTree {
public:
    CMyPathTree() = default;
    ~CMyPathTree();
    CMyPathTree(const CMyPathTree&) = delete;
    CMyPathTree& operator=(const CMyPathTree&) = delete;

    void AddFile(const CStdStr& path);
    uint32_t getZipHeaderSize() const;
    // A read-only descriptor of a regular file to put in the archive (the
    // archive closes it), or -1 to write an empty entry.
    typedef std::function<int(const CStdStr& path)> InputOpener;
    static int openRegularFile(const CStdStr& path);

    // True when the archive was written completely. On false, `error` (when
    // given) gets the reason, e.g. "No space left on device" or "abandoned".
    bool createZip(const char* zipPath, bool store, CStdStr* error = nullptr,
                   const std::function<bool()>& abandoned = std::function<bool()>(),
                   const InputOpener& openInput = InputOpener());

    const std::vector<CMyPathNode*>& fileNodes() const { return m_files; }
    const std::vector<CMyPathNode*>& folderNodes() const { return m_folders; }

    // The text before the last backslash; throws CabException("no parent folder")
    // when there is none or it is the first character.
    static CStdStr getParentFolder(const CStdStr& path);

private:
    CMyPathNode* createNode(const CStdStr& path);
    CMyPathNode* createFileNode(const CStdStr& path);
    CMyPathNode* createFolderNode(const CStdStr& path);
    CMyPathNode* findFolderNode(const CStdStr& path) const;
    CMyPathNode* findClosestNode(const CMyPathNode* node) const;
    CMyPathNode* findParentNode(const CMyPathNode* node) const;
    void createParentFolder(CMyPathNode* node);
    void buildIntermediateFolder(CMyPathNode* top, CMyPathNode* node);
    void addNode(CMyPathNode* node, int depth = 0);
    static void link(CMyPathNode* node, CMyPathNode* parent);

    std::vector<CMyPathNode*> m_files;    // in the order of addition = entry order
    std::vector<CMyPathNode*> m_folders;  // in the order of creation
};
