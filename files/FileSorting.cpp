// SortFiles: orders a listing by one key, folders first.
//
// Each entry's folder flag and key are read once before sorting; the indices
// are then sorted with std::sort under the same rule as the functors of
// FileSortFunctors.h, so the order is the one those functors give (for files
// that do not change during the sort) without a disk query per comparison.
#include <algorithm>
#include <cstdint>
#include <locale>

#include "files/FileSortFunctors.h"

int CompareNames(const char* a, const char* b) {
    static const std::ctype<char>& ct = std::use_facet<std::ctype<char>>(std::locale::classic());
    for (;; ++a, ++b) {
        char la = ct.tolower(*a), lb = ct.tolower(*b);
        if (la != lb || *a == '\0')
            return static_cast<int>(static_cast<signed char>(la)) - static_cast<int>(static_cast<signed char>(lb));
    }
}

namespace {

enum class Key { Title, Extension, Size, Created, Modified, Accessed };

struct SortRecord {
    bool folder = false;
    uint64_t size = 0;
    time_t when = 0;
    CStdStr text;
};

struct Order {
    Key key;
    bool descending;
};

bool lookupKey(const CStdStr& sortKeys, Order& order) {
    static const struct {
        const char* name;
        Key key;
        bool descending;
    } table[] = {
        {"title:asc", Key::Title, false},
        {"path:asc", Key::Title, false},
        {"title:desc", Key::Title, true},
        {"path:desc", Key::Title, true},
        {"path.extension:asc", Key::Extension, false},
        {"path.extension:desc", Key::Extension, true},
        {"size:asc", Key::Size, false},
        {"size:desc", Key::Size, true},
        {"creationDate:asc", Key::Created, false},
        {"creationDate:desc", Key::Created, true},
        {"lastModified:asc", Key::Modified, false},
        {"lastModified:desc", Key::Modified, true},
        {"lastAccessTime:asc", Key::Accessed, false},
        {"lastAccessTime:desc", Key::Accessed, true},
    };
    for (const auto& row : table) {
        if (sortKeys == row.name) {
            order.key = row.key;
            order.descending = row.descending;
            return true;
        }
    }
    order.key = Key::Title;
    order.descending = false;
    return false;
}

SortRecord readRecord(CFileTools* file, Key key) {
    SortRecord r;
    r.folder = file->isFolder();
    switch (key) {
    case Key::Title: r.text = file->getDisplayName(); break;
    case Key::Extension: r.text = file->getExtension(); break;
    case Key::Size: r.size = file->getFileSize(); break;
    case Key::Created: r.when = file->getDateCreated(); break;
    case Key::Modified: r.when = file->getLastModified(); break;
    case Key::Accessed: r.when = file->getLastAccessed(); break;
    }
    return r;
}

}  // namespace

int CFileTools::SortFiles(std::vector<CFileTools*>& files, CStdStr sortKeys) {
    size_t comma = sortKeys.find(',');
    if (comma != CStdStr::npos && comma > 0) sortKeys.erase(comma);
    Order order;
    bool known = lookupKey(sortKeys, order);

    std::vector<SortRecord> records;
    records.reserve(files.size());
    for (CFileTools* f : files) records.push_back(readRecord(f, order.key));

    std::vector<size_t> index(files.size());
    for (size_t i = 0; i < index.size(); ++i) index[i] = i;
    const Key key = order.key;
    const bool desc = order.descending;
    std::sort(index.begin(), index.end(), [&records, key, desc](size_t ia, size_t ib) {
        const SortRecord& a = records[ia];
        const SortRecord& b = records[ib];
        if (a.folder != b.folder) return a.folder;
        switch (key) {
        case Key::Title:
        case Key::Extension: {
            int c = CompareNames(a.text.c_str(), b.text.c_str());
            return desc ? c > 0 : c < 0;
        }
        case Key::Size: return desc ? a.size > b.size : a.size < b.size;
        default: return desc ? a.when > b.when : a.when < b.when;
        }
    });

    std::vector<CFileTools*> sorted;
    sorted.reserve(files.size());
    for (size_t i : index) sorted.push_back(files[i]);
    files.swap(sorted);
    return known ? 1 : 0;
}
