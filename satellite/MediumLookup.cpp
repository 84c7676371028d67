// Medium items to file paths: file-browser ids through the file manager
// (escaped ids, files/PathMediumId.h, here), every other id through the media
// service "KivMediaV2".
#include <chrono>

#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "files/PathMediumId.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

int KivRequestProxySatellite::CabGetMediumInfoFromId(const char* service, const char* method, const tagVARIANT& in,
                                                     tagVARIANT* out) {
    auto start = std::chrono::steady_clock::now();
    CLocalVariant answer, retcodes;
    Request(service, method, in, answer.ptr(), 0, retcodes.ptr());
    int elapsed = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    CBBLog::debug("Request GetMediumFromId returned in %dms", elapsed);
    // A failure throws; a positive status (404) leaves no answer, and reading
    // its element 0 throws as well.
    VUtil::CheckSingleRetcode(retcodes.get(), method);
    CLocalVariant first;
    VUtil::GetElement(answer.get(), 0, first.get());
    VariantClear(out);
    *out = first.release();
    return 0;
}

int KivRequestProxySatellite::GetMediumListPath(const CStdStr& context, const tagVARIANT& items,
                                                std::vector<CStdStr>& paths) {
    try {
        CStdStr firstId;
        if (VUtil::GetArrayLengthEmpty(items) > 0) {
            CLocalVariant first;
            VUtil::GetElement(items, 0, first.get());
            if (first.vt() == VT_BSTR) firstId = first.get().bstrVal;
        }
        if (firstId.empty()) return 1;

        CLocalVariant request, answer;
        VUtil::CreateArray(request.get(), VT_VARIANT, 2);
        VUtil::PutElement(request.get(), 0, context);
        VUtil::PutElement(request.get(), 1, items);
        int rc = firstId[0] == 'F'
                     ? m_fileManager.CabServiceGetMediumListInfoFromId("GetMediumListInfoFromId", request.get(),
                                                                       answer.ptr())
                     : CabGetMediumInfoFromId("KivMediaV2", "GetMediumListInfoFromId", request.get(), answer.ptr());
        if (rc != 0) return rc;

        const bool fileBrowser = firstId[0] == 'F';
        const int asked = VUtil::GetArrayLengthEmpty(items);
        int count = VUtil::CheckArrayType(answer.get(), VT_VARIANT, 0, true, "GetMediumListPath");
        for (int i = 0; i < count; ++i) {
            CLocalVariant item;
            if (i < asked) VUtil::GetElement(items, i, item.get());
            const CStdStr id = item.vt() == VT_BSTR && item.get().bstrVal ? CStdStr(item.get().bstrVal) : CStdStr();
            // The file manager knows no escaped id (it answers nothing for
            // one); the path is in the id itself.
            CStdStr escaped;
            if (fileBrowser && PathMediumId::EscapedToPath(id, &escaped)) {
                paths.push_back(escaped);
                continue;
            }
            CLocalVariant element;
            VUtil::GetElement(answer.get(), i, element.get());
            if (element.vt() == VT_EMPTY) {
                // An empty slot asks for nothing (CreateZip always passes one
                // after its items): only an id that resolved to nothing is worth a warning.
                if (!id.empty()) CBBLog::warn("GetMediumListPath: got a VT_EMPTY in the list of paths");
                continue;
            }
            int pairs = VUtil::GetArrayLength(element.get());
            for (int j = 0; j < pairs; ++j) {
                CLocalVariant pair;
                VUtil::GetElement(element.get(), j, pair.get());
                if (!VUtil::GetStringElement(pair.get(), 0).EqualsNoCase("path")) continue;
                paths.push_back(VUtil::GetStringElement(pair.get(), 1));
                break;
            }
        }
        return 0;
    } catch (const CabException& e) {
        CBBLog::warn("GetMediumListPath: %s", e.getMessage());
    } catch (...) {
        CBBLog::warn("GetMediumListPath");
    }
    return -1;
}
