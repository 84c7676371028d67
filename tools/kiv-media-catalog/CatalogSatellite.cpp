#include "tools/kiv-media-catalog/CatalogSatellite.h"

#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {
typedef CabSatelliteDelegateMember<CatalogSatellite> Delegate;
}

int CatalogSatellite::CreateServices() {
    AddService("GetExtensions", "Inparams: context, mediaType; Outparams: [extensions]",
               new Delegate(this, &CatalogSatellite::GetExtensions));
    AddService("GetMediumListInfoFromId", "Inparams: context, [ids]; Outparams: [[pairs per id]]",
               new Delegate(this, &CatalogSatellite::GetMediumListInfoFromId));
    return 0;
}

int CatalogSatellite::GetExtensions(const char*, const tagVARIANT& in, tagVARIANT* out) {
    CStdStr type = VUtil::GetStringElement(in, 1);
    std::vector<std::string> extensions = m_catalog.extensions(type);
    CLocalVariant list;
    VUtil::CreateArray(list.get(), VT_VARIANT, extensions.size());
    for (size_t i = 0; i < extensions.size(); ++i) VUtil::PutElement(list.get(), (int)i, CStdStr(extensions[i]));
    VariantClear(out);
    VUtil::CreateArray(*out, VT_VARIANT, 1);
    VUtil::PutElement(*out, 0, list.get());
    return 0;
}

int CatalogSatellite::GetMediumListInfoFromId(const char*, const tagVARIANT& in, tagVARIANT* out) {
    CLocalVariant ids;
    VUtil::GetElement(in, 1, ids.get());
    int count = VUtil::CheckArrayType(ids.get(), VT_VARIANT, 0, true, "GetMediumListInfoFromId");
    CLocalVariant list;
    VUtil::CreateArray(list.get(), VT_VARIANT, count);
    for (int i = 0; i < count; ++i) {
        const MediaItem* item = m_catalog.find(VUtil::GetStringElement(ids.get(), i));
        if (!item) continue;  // stays VT_EMPTY
        CLocalVariant pairs;
        VUtil::CreateArray(pairs.get(), VT_VARIANT, 6);
        int n = 0;
        VUtil::PutPair(pairs.get(), n++, "path", CStdStr(item->path));
        if (!item->name.empty()) VUtil::PutPair(pairs.get(), n++, "name", CStdStr(item->name));
        std::string type = m_catalog.mediaTypeOf(item->path);
        if (!type.empty()) VUtil::PutPair(pairs.get(), n++, "mediaType", CStdStr(type));
        if (!item->artist.empty()) VUtil::PutPair(pairs.get(), n++, "artist", CStdStr(item->artist));
        if (!item->album.empty()) VUtil::PutPair(pairs.get(), n++, "album", CStdStr(item->album));
        if (item->duration != 0) VUtil::PutPair(pairs.get(), n++, "duration", static_cast<long>(item->duration));
        VUtil::RedimArray(pairs.get(), n);
        VUtil::PutElement(list.get(), i, pairs.get());
    }
    VariantClear(out);
    VUtil::CreateArray(*out, VT_VARIANT, 1);
    VUtil::PutElement(*out, 0, list.get());
    return 0;
}
