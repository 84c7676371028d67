// CatalogSatellite: the media service (registered as "KivMediaV2" by default)
// over a MediaCatalog. Services:
// - "GetExtensions": in [context, mediaType] -> out [ [".ext", ...] ], status 0
//   (an unknown media type gives an empty list).
// - "GetMediumListInfoFromId": in [context, [id, ...]] -> out [ list ], where
//   list holds per id either a pair list ("path", then "name", "mediaType",
//   "artist", "album", "duration" when known) or VT_EMPTY for an unknown id.
// Wrong argument shapes throw CabInvalidParameterException to the requester.
// The catalog is only read while serving, so handlers run concurrently.
#pragma once

#include "cab/CabSatellite.h"
#include "tools/kiv-media-catalog/MediaCatalog.h"

class CatalogSatellite : public CabSatellite {
public:
    explicit CatalogSatellite(const MediaCatalog& catalog) : m_catalog(catalog) {}
    ~CatalogSatellite() override { Disconnect(); }
    int CreateServices() override;

    int GetExtensions(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int GetMediumListInfoFromId(const char* name, const tagVARIANT& in, tagVARIANT* out);

private:
    const MediaCatalog m_catalog;  // immutable while serving
};
