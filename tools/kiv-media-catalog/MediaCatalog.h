// MediaCatalog: what the demo media service knows, read from a JSON file:
//   { "extensions": { "audio": [".mp3", ...], "video": [...], ... },
//     "media": { "ID": { "path": "...", "name": "...", "artist": "...",
//                        "album": "...", "duration": SECONDS }, ... } }
// Extensions are kept lower-case with their leading dot (a missing dot is
// added). Relative paths resolve against the root folder given to load().
// Filled once before serving, read-only afterwards: no lock needed.
#pragma once

#include <map>
#include <string>
#include <vector>

struct MediaItem {
    std::string path;  // absolute
    std::string name;
    std::string artist;
    std::string album;
    int duration = 0;  // seconds
};

class MediaCatalog {
public:
    // False with *error naming the problem; the catalog is then unchanged.
    bool load(const std::string& file, const std::string& root, std::string* error);
    bool loadText(const std::string& json, const std::string& root, std::string* error);

    void addExtension(const std::string& mediaType, const std::string& extension);
    void addItem(const std::string& id, const MediaItem& item);

    // In the order given; empty for an unknown type.
    std::vector<std::string> extensions(const std::string& mediaType) const;
    // The media type of the path's extension ("" when none lists it; the last type listing it wins).
    std::string mediaTypeOf(const std::string& path) const;
    const MediaItem* find(const std::string& id) const;
    size_t size() const { return m_items.size(); }

private:
    std::map<std::string, std::vector<std::string>> m_extensions;  // media type -> extensions
    std::map<std::string, MediaItem> m_items;                      // id -> item
};
