// Medium information for file-browser ids ("F*" + the escaped path): the
// decoded description, its pair list, and the four medium handlers.
#include "diag/CBBLog.h"
#include "files/CKivFileManager.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

int CKivFileManager::getMediumInfo(const CStdStr& id, MediumInfo& info) {
    if (id.size() < 2 || id[1] != '*') return 404;
    CStdStr path = id.Mid(static_cast<int>(m_prefix.size()) + 1);
    path.Replace('|', '/');
    path.Replace('*', ' ');
    path.Replace('>', '.');
    path.Replace('<', '+');
    GetDocumentType(path, info.mimeType, info.mediaType);
    info.path = path;
    // The name is the whole path without its extension (after a backslash,
    // which file-browser paths never hold).
    int dot = path.ReverseFind('.');
    CStdStr name = dot < 0 ? path : path.Left(dot);
    int slash = name.ReverseFind('\\');
    info.name = slash < 0 ? name : name.Mid(slash + 1);
    return 0;
}

void CKivFileManager::getMediumIdInfo(const CStdStr& id, tagVARIANT& out) {
    MediumInfo info;
    if (getMediumInfo(id, info) != 0) return;
    VariantClear(&out);
    VUtil::CreateArray(out, VT_VARIANT, 7);
    int count = 0;
    const std::pair<const char*, const CStdStr*> texts[] = {
        {"mimeType", &info.mimeType}, {"mediaType", &info.mediaType}, {"Path", &info.path},
        {"Name", &info.name},         {"Artist", &info.artist},       {"Album", &info.album},
    };
    for (const auto& t : texts)
        if (!t.second->empty()) VUtil::PutPair(out, count++, t.first, *t.second);
    if (info.duration != 0) {
        tagVARIANT duration;
        VariantInit(&duration);
        duration.vt = VT_UI4;
        duration.ulVal = static_cast<uint32_t>(info.duration);
        VUtil::PutPair(out, count++, "Duration", duration);
    }
    VUtil::RedimArray(out, count);
}

int CKivFileManager::isMediumShared(SHARE_STATUS& status) {
    status = -1;  // sharing is not tracked
    return 0;
}

int CKivFileManager::CabServiceGetMediumFromId(const char* name, tagVARIANT in, tagVARIANT* out) {
    CStdStr context = VUtil::GetStringElement(in, 0);
    CStdStr id = VUtil::GetStringElement(in, 1);
    ensureExtensionMap(context);
    MediumInfo info;
    int rc = getMediumInfo(id, info);
    if (rc == 0 && !info.mimeType.empty() && !info.path.empty()) {
        VariantClear(out);
        VUtil::CreateArray(*out, VT_VARIANT, 2);
        VUtil::PutElement(*out, 0, info.mimeType);
        VUtil::PutElement(*out, 1, info.path);
    }
    return rc;
}

int CKivFileManager::CabServiceGetMediumInfoFromId(const char* name, tagVARIANT in, tagVARIANT* out) {
    CStdStr context = VUtil::GetStringElement(in, 0);
    CStdStr id = VUtil::GetStringElement(in, 1);
    ensureExtensionMap(context);
    getMediumIdInfo(id, *out);
    return 0;
}

int CKivFileManager::CabServiceGetMediumListInfoFromId(const char* name, tagVARIANT in, tagVARIANT* out) {
    CStdStr context = VUtil::GetStringElement(in, 0);
    CLocalVariant ids;
    VUtil::GetElement(in, 1, ids.get());
    int count = VUtil::CheckArrayType(ids.get(), VT_VARIANT, 0, true, "GetMediumListInfoFromId");
    ensureExtensionMap(context);
    CLocalVariant list;
    VUtil::CreateArray(list.get(), VT_VARIANT, count);
    for (int i = 0; i < count; ++i) {
        CStdStr id = VUtil::GetStringElement(ids.get(), i);
        CLocalVariant pairs;
        getMediumIdInfo(id, pairs.get());  // an unknown id stays VT_EMPTY
        VUtil::PutElement(list.get(), i, pairs.get());
    }
    VariantClear(out);
    *out = list.release();
    return 0;
}

int CKivFileManager::CabServiceIsMediumShared(const char* name, tagVARIANT in, tagVARIANT* out) {
    VUtil::CheckArrayType(in, VT_VARIANT, 3, true, "IsMediumShared");
    for (int i = 0; i < 3; ++i) {
        CLocalVariant v;
        VUtil::GetElement(in, i, v.get());
        VUtil::CheckType(v.get(), VT_BSTR, "IsMediumShared");
    }
    SHARE_STATUS status = -1;
    int rc = isMediumShared(status);
    if (rc != 0) return rc;
    if (status == 0) return 0;
    if (status == 1) return 404;
    return 1;
}
