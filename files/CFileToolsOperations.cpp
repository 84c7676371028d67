// Creating, copying, renaming and removing files and folders.
#include <cstdio>
#include <exception>

#include <boost/filesystem/operations.hpp>

#include "files/CFileTools.h"
#include "files/CStdPath.h"

namespace fs = boost::filesystem;

bool CFileTools::CreateDirectory(const CStdStr& path) {
    try {
        fs::create_directories(fs::path(path));
        return true;
    } catch (const std::exception& e) {
        printf("std::exception in CreateDirectory %s: %s\n", path.c_str(), e.what());
        return false;
    }
}

bool CFileTools::DeleteFile(const CStdStr& path) {
    try {
        return fs::remove(fs::path(path));
    } catch (...) {
        return false;
    }
}

bool CFileTools::CopyFile(const CStdStr& from, const CStdStr& to) {
    try {
        fs::copy_file(fs::path(from), fs::path(to));
        return true;
    } catch (...) {
        return false;
    }
}

bool CFileTools::CopyDirectory(const CStdStr& from, const CStdStr& to) {
    bool ok = true;
    try {
        fs::create_directory(fs::path(to));
    } catch (...) {
        return false;
    }
    std::vector<CFileTools*> entries;
    if (!EnumerateFolder(from, entries, true, true, true, false, std::vector<CStdStr>(), false)) ok = false;
    for (CFileTools* entry : entries) {
        CStdPath target(to);
        target.AppendPath(GetDisplayNameFromPath(entry->getPath()));
        bool done = entry->isFolder() ? CopyDirectory(entry->getPath(), target) : CopyFile(entry->getPath(), target);
        if (!done) ok = false;
        delete entry;
    }
    return ok;
}

bool CFileTools::Rename(const CStdStr& from, const CStdStr& to) {
    try {
        fs::rename(fs::path(from), fs::path(to));
        return true;
    } catch (...) {
        return false;
    }
}
