// Media types by extension: the lists of the media service "KivMediaV2",
// the manager's map built from them, document types of single files, and the
// text splitter of the folder service.
#include "diag/CBBLog.h"
#include "files/CKivFileManager.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {
// Asked in this order; an extension named by several types keeps the last.
const char* const kMediaTypes[] = {"audio", "video", "photo", "document"};
}  // namespace

int CKivFileManager::getKivMediaExtension(const CStdStr& context, const CStdStr& mediaType, std::vector<CStdStr>& out) {
    CLocalVariant in, answer, retcodes;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, context);
    VUtil::PutElement(in.get(), 1, mediaType);
    int rc = m_satellite->Request("KivMediaV2", "GetExtensions", in.get(), answer.ptr(), 0, retcodes.ptr());
    if (rc < 0) {
        CBBLog::warn("GetExtensions(%s) failed: %d", mediaType.c_str(), rc);
        return rc;
    }
    // A failure throws; a positive status (404) leaves no answer, and reading
    // its element 0 throws as well: the folder request then answers 1.
    VUtil::CheckSingleRetcode(retcodes.get(), "GetExtensions");
    CLocalVariant list;
    VUtil::GetElement(answer.get(), 0, list.get());
    int count = VUtil::CheckArrayType(list.get(), VT_VARIANT, 0, true, "GetExtensions");
    for (int i = 0; i < count; ++i) {
        CLocalVariant ext;
        VUtil::GetElement(list.get(), i, ext.get());
        VUtil::CheckType(ext.get(), VT_BSTR, "GetExtensions");
        out.push_back(CStdStr(ext.get().bstrVal));
    }
    return 0;
}

void CKivFileManager::buildExtensionMap(const CStdStr& context) {
    for (const char* type : kMediaTypes) {
        std::vector<CStdStr> extensions;
        if (getKivMediaExtension(context, type, extensions) != 0) continue;
        PLockGuard lock(m_mapLock);
        for (const CStdStr& ext : extensions) m_extensionMap[ext] = type;
    }
}

void CKivFileManager::GetDocumentType(const CStdStr& path, CStdStr& mimeType, CStdStr& mediaType) {
    mimeType = "application/x-download";
    mediaType = "file";
    int dot = path.ReverseFind('.');
    if (dot < 0) return;
    CStdStr key = path.Mid(dot).ToLower();
    CStdStr type;
    {
        PLockGuard lock(m_mapLock);
        auto it = m_extensionMap.find(key);
        if (it == m_extensionMap.end()) return;
        type = it->second;
    }
    mimeType = type == "document" ? CStdStr("application/x-download") : type + "/x-unknown";
    mediaType = type + ".file";
}

void CKivFileManager::StrSplit(const CStdStr& text, const CStdStr& separator, std::vector<CStdStr>& out) {
    if (separator.empty()) {
        if (!text.empty()) out.push_back(text);
        return;
    }
    CStdStr rest = text;
    for (;;) {
        size_t at = rest.find(separator);
        if (at == std::string::npos) {
            if (!rest.empty()) out.push_back(rest);
            return;
        }
        out.push_back(rest.substr(0, at));
        if (at + separator.size() == rest.size()) {
            out.push_back(CStdStr());
            return;
        }
        rest = rest.substr(at + separator.size());
    }
}
