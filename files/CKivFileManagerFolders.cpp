// The folder content handler: one page of a folder listing as text fields,
// with the folder and file counts of the whole listing.
#include <memory>

#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "files/CFileTools.h"
#include "files/CKivFileManager.h"
#include "host/CRegistry.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

enum FolderOptions {
    kIncludeFolders = 1,
    kIncludeFiles = 2,
    kReserved = 4,
    kIncludeHidden = 8,
    kRecursive = 16,
};

// Owns the listed entries until the walk has visited them.
struct EntryList {
    std::vector<CFileTools*> items;
    ~EntryList() {
        for (CFileTools* f : items) delete f;
    }
};

bool fileBrowserSwitchedOff() {
    CStdStr value;
    if (!CRegistry::getInstance()->ReadSettingImpl(kConfigKey, "app.fileBrowser.enabled", value)) return false;
    return value == "false";  // exact: "False" lets the request through
}

}  // namespace

int CKivFileManager::CabServiceGetFolderContent(const char* name, const tagVARIANT& in, tagVARIANT* out) {
    if (fileBrowserSwitchedOff()) {
        CBBLog::info("GetFolderContent refused: the file browser is switched off");
        return 403;
    }
    try {
        CStdStr context = VUtil::GetStringElement(in, 0);
        CStdStr path = VUtil::GetStringElement(in, 1);
        long options = VUtil::GetLongElement(in, 2);
        CStdStr extensionText = VUtil::GetStringElement(in, 3);
        CStdStr fieldText = VUtil::GetStringElement(in, 4);
        CStdStr sortKeys = VUtil::GetStringElement(in, 5);
        long first = VUtil::GetLongElement(in, 6);
        long wanted = VUtil::GetLongElement(in, 7);
        CBBLog::info("GetFolderContent of %s", path.c_str());

        ensureExtensionMap(context);

        CStdStr resolved = CFileTools::resolveSpecialPath(path);
        std::vector<CStdStr> extensions;
        StrSplit(extensionText, ",", extensions);

        EntryList entries;
        CFileTools probe(resolved);
        if (!resolved.empty() && !probe.isFolder() && probe.exists()) {
            entries.items.push_back(new CFileTools(resolved));
        } else {
            CBBLog::debug("EnumerateFolder");
            CFileTools::EnumerateFolder(resolved, entries.items, (options & kIncludeHidden) != 0,
                                        (options & kIncludeFolders) != 0, (options & kIncludeFiles) != 0,
                                        (options & kReserved) != 0, extensions, (options & kRecursive) != 0);
        }
        if (sortKeys != "title") {
            CBBLog::debug("SortFiles");
            CFileTools::SortFiles(entries.items, sortKeys);
        }

        std::vector<CStdStr> fields;
        StrSplit(fieldText, ",", fields);
        VariantClear(out);
        VUtil::CreateArray(*out, VT_VARIANT, 4);
        {
            CLocalVariant names;
            VUtil::CreateArray(names.get(), VT_VARIANT, fields.size());
            for (size_t k = 0; k < fields.size(); ++k) VUtil::PutElement(names.get(), (int)k, fields[k]);
            VUtil::PutElement(*out, 0, names.get());
        }

        const long total = static_cast<long>(entries.items.size());
        long rowCount = (wanted < 1 || total <= wanted + first) ? total - first : wanted;
        if (rowCount < 0) rowCount = 0;  // a first row past the end: no rows
        CLocalVariant rows;
        VUtil::CreateArray(rows.get(), VT_VARIANT, rowCount);
        long produced = 0;
        int folders = 0, files = 0;
        for (long i = 0; i < total; ++i) {
            CFileTools*& entry = entries.items[i];
            if (entry->isFolder()) ++folders;
            else ++files;
            if (i >= first && produced < rowCount) {
                CLocalVariant row;
                VUtil::CreateArray(row.get(), VT_VARIANT, fields.size());
                for (size_t k = 0; k < fields.size(); ++k)
                    VUtil::PutElement(row.get(), (int)k, entry->getFieldValue(fields[k]));
                VUtil::PutElement(rows.get(), (int)produced, row.get());
                ++produced;
            }
            delete entry;
            entry = nullptr;
        }
        VUtil::PutElement(*out, 1, rows.get());
        VUtil::PutElement(*out, 2, folders);
        VUtil::PutElement(*out, 3, files);
        CBBLog::info("GetFolderContent returned");
        return 0;
    } catch (const CabException& e) {
        CBBLog::warn("CabServiceGetFolderContent exception: %s", e.getMessage());
    } catch (const std::exception& e) {
        CBBLog::warn("CabServiceGetFolderContent exception: %s\n", e.what());
    } catch (const char* text) {
        CBBLog::warn("CabServiceGetFolderContent exception: %s", text ? text : "");
    } catch (...) {
        CBBLog::warn("CabServiceGetFolderContent exception:\n");
    }
    return 1;
}
