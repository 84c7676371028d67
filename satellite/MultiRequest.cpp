// "MultiRequest": several requests to any satellites' services, forwarded in
// parallel (one thread each) and answered together, in the order asked.
#include <exception>
#include <memory>
#include <vector>

#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

// Joins every started thread (so their records may be freed) and deletes them.
void joinAll(std::vector<PThread*>& threads) {
    for (PThread*& t : threads) {
        if (!t) continue;
        t->join();
        delete t;
        t = nullptr;
    }
}

void clearRecords(std::vector<MultiRequestRecord>& records) {
    for (MultiRequestRecord& r : records) {
        VariantClear(&r.request);
        VariantClear(&r.answer);
    }
}

}  // namespace

int KivRequestProxySatellite::CabServiceMultiRequest(const char*, const tagVARIANT& in, tagVARIANT* out) {
    int n = VUtil::GetArrayLength(in);
    if (n < 1) return -1;
    CBBLog::debug("Multirequest (%d)", n);

    std::vector<MultiRequestRecord> records(static_cast<size_t>(n));
    for (MultiRequestRecord& r : records) {
        r.satellite = this;
        VariantInit(&r.request);
        VariantInit(&r.answer);
    }
    std::vector<PThread*> threads(static_cast<size_t>(n), nullptr);
    try {
        VUtil::CreateArray(*out, VT_VARIANT, static_cast<unsigned long>(n));
        for (int i = 0; i < n; ++i) {
            VUtil::GetElement(in, i, records[i].request);
            threads[i] = new PThread;
            threads[i]->init(nullptr,
                             new PThreadDelegateMember<KivRequestProxySatellite>(
                                 this, &KivRequestProxySatellite::threadCabRequest),
                             &records[i]);
        }
        CBBLog::debug("Waiting for requests");
        joinAll(threads);
        CBBLog::debug("Building multirequest outparams");
        for (int i = 0; i < n; ++i) VUtil::PutElement(*out, i, records[i].answer);
        clearRecords(records);
        return 0;
    } catch (char* text) {
        joinAll(threads);
        clearRecords(records);
        CBBLog::warn("MakeGroupedRequest exception: %s", text ? text : "");
        return 1;
    } catch (const char* text) {
        joinAll(threads);
        clearRecords(records);
        CBBLog::warn("MakeGroupedRequest exception: %s", text ? text : "");
        return 1;
    } catch (...) {
        // Threads already started still use their records: let them finish
        // before the records go, then let the failure leave the handler.
        joinAll(threads);
        clearRecords(records);
        throw;
    }
}

void* KivRequestProxySatellite::threadCabRequest(void* p) {
    MultiRequestRecord* record = static_cast<MultiRequestRecord*>(p);
    CLocalVariant retcodes, output;
    try {
        // The answer is a pair of empty values first, so a sub-request that
        // fails still answers with two elements in its place.
        VUtil::CreateArray(record->answer, VT_VARIANT, 2);
        VUtil::PutElement(record->answer, 0, retcodes.get());
        VUtil::PutElement(record->answer, 1, output.get());

        CStdStr target = VUtil::GetStringElement(record->request, 0);
        CStdStr service = VUtil::GetStringElement(record->request, 1);
        CLocalVariant input;
        VUtil::GetElement(record->request, 2, input.get());

        CBBLog::debug("Request %s...", service.c_str());
        CabRequest(&target[0], &service[0], input.get(), retcodes.ptr(), output.ptr());
        long status = VUtil::GetLongElement(retcodes.get(), 0);
        CBBLog::debug("Request %s returned %ld", service.c_str(), status);

        VUtil::PutElement(record->answer, 0, retcodes.get());
        VUtil::PutElement(record->answer, 1, output.get());
        return nullptr;
    } catch (const CabException& e) {
        CBBLog::warn("threadCabRequest exception: %s", e.getMessage());
    } catch (const std::exception&) {
        CBBLog::warn("threadCabRequest exception");
    }
    return reinterpret_cast<void*>(1);
}
