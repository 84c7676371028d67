#include "tools/kiv-media-catalog/MediaCatalog.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace {

std::string normaliseExtension(std::string ext) {
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    if (!ext.empty() && ext[0] != '.') ext.insert(ext.begin(), '.');
    return ext;
}

std::string resolve(const std::string& root, const std::string& path) {
    if (path.empty() || path[0] == '/' || root.empty()) return path;
    return root.back() == '/' ? root + path : root + "/" + path;
}

}  // namespace

bool MediaCatalog::load(const std::string& file, const std::string& root, std::string* error) {
    std::ifstream in(file);
    if (!in) {
        *error = "cannot read " + file;
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (!loadText(text.str(), root, error)) {
        *error = file + ": " + *error;
        return false;
    }
    return true;
}

bool MediaCatalog::loadText(const std::string& json, const std::string& root, std::string* error) {
    MediaCatalog next;
    try {
        nlohmann::json doc = nlohmann::json::parse(json);
        if (!doc.is_object()) throw std::runtime_error("the catalog is not a JSON object");
        if (doc.contains("extensions")) {
            for (const auto& type : doc.at("extensions").items()) {
                for (const auto& ext : type.value()) next.addExtension(type.key(), ext.get<std::string>());
            }
        }
        if (doc.contains("media")) {
            for (const auto& entry : doc.at("media").items()) {
                const nlohmann::json& m = entry.value();
                MediaItem item;
                item.path = resolve(root, m.at("path").get<std::string>());
                item.name = m.value("name", std::string());
                item.artist = m.value("artist", std::string());
                item.album = m.value("album", std::string());
                item.duration = m.value("duration", 0);
                next.addItem(entry.key(), item);
            }
        }
    } catch (const std::exception& e) {
        *error = e.what();
        return false;
    }
    *this = std::move(next);
    return true;
}

void MediaCatalog::addExtension(const std::string& mediaType, const std::string& extension) {
    m_extensions[mediaType].push_back(normaliseExtension(extension));
}

void MediaCatalog::addItem(const std::string& id, const MediaItem& item) { m_items[id] = item; }

std::vector<std::string> MediaCatalog::extensions(const std::string& mediaType) const {
    auto it = m_extensions.find(mediaType);
    return it == m_extensions.end() ? std::vector<std::string>() : it->second;
}

std::string MediaCatalog::mediaTypeOf(const std::string& path) const {
    size_t dot = path.rfind('.');
    if (dot == std::string::npos) return std::string();
    std::string key = normaliseExtension(path.substr(dot));
    std::string found;
    for (const char* type : {"audio", "video", "photo", "document"}) {
        auto it = m_extensions.find(type);
        if (it != m_extensions.end() && std::find(it->second.begin(), it->second.end(), key) != it->second.end())
            found = type;
    }
    return found;
}

const MediaItem* MediaCatalog::find(const std::string& id) const {
    auto it = m_items.find(id);
    return it == m_items.end() ? nullptr : &it->second;
}
