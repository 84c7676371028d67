// "MultiRequest": several requests to any satellites' services, forwarded in
// parallel on a bounded set of threads and answered together, in the order
// asked. Every row counts in the memory budget of the answer as it arrives
// (the library reserves it, cab/CabMemoryBudget.h): a row that does not fit
// says CAB_E_BUSY and holds nothing.
#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <vector>

#include "cab/CabException.h"
#include "cab/CabInline.h"
#include "cab/CabMemoryBudget.h"
#include "diag/CBBLog.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

// Helper threads of all groups now running; lock-free, changed only through
// takeHelperSlot and releaseHelperSlot.
std::atomic<int> g_helperThreads{0};

bool takeHelperSlot() {
    int used = g_helperThreads.load();
    while (used < KivRequestProxySatellite::kMultiRequestThreadBudget)
        if (g_helperThreads.compare_exchange_weak(used, used + 1)) return true;
    return false;
}

void releaseHelperSlot() { g_helperThreads.fetch_sub(1); }

// One grouped request in progress. The handler's thread and its helpers take
// the sub-requests one by one in input order until none is left; each writes
// only the records it took.
struct MultiRequestGroup {
    KivRequestProxySatellite* satellite;
    std::vector<MultiRequestRecord>* records;
    std::atomic<size_t> next{0};  // the next sub-request to take; lock-free
    int inlineDepth;              // the handler thread's, carried over to the helpers
    std::string caller;           // the handler thread's, carried over to the helpers
    CabMemoryLedger* ledger;      // the handler thread's, carried over to the helpers
};

// What one row costs around its output: the record, its slot in the answer
// and the row's framing in the answer's encoding (about 30 bytes).
const uint64_t kRowBytes = 128;

void runSubRequests(MultiRequestGroup& group) {
    for (;;) {
        size_t i = group.next.fetch_add(1);
        if (i >= group.records->size()) return;
        MultiRequestRecord& record = (*group.records)[i];
        try {
            group.satellite->threadCabRequest(&record);
        } catch (...) {
            // threadCabRequest lets only exotic exceptions through; the answer
            // keeps its two empty values.
            CBBLog::warn("threadCabRequest exception");
        }
        VariantClear(&record.request);  // done with it: free the copy early
    }
}

void* helperThread(void* p) {
    MultiRequestGroup& group = *static_cast<MultiRequestGroup*>(p);
    CabInlineDepthScope depth(group.inlineDepth);
    CabCallerScope caller(group.caller);
    CabLedgerScope ledger(group.ledger);
    runSubRequests(group);
    return nullptr;
}

// The helper threads of one group; the destructor joins them (so that the
// records may go) and returns their slots to the process-wide budget.
class HelperThreads {
public:
    ~HelperThreads() {
        for (std::unique_ptr<PThread>& t : m_threads) {
            t->join();
            releaseHelperSlot();
        }
    }

    // Starts up to `count` helpers; fewer when the budget is used up or a
    // thread cannot be created. The group then simply has fewer hands.
    void start(MultiRequestGroup& group, int count) {
        for (int i = 0; i < count && takeHelperSlot(); ++i) {
            std::unique_ptr<PThread> t(new PThread);
            try {
                t->init(nullptr, new PThreadDelegateFunction(&helperThread), &group);
            } catch (const std::exception& e) {
                releaseHelperSlot();
                CBBLog::warn("MultiRequest runs with %d of %d helper threads: %s", i, count, e.what());
                return;
            }
            m_threads.push_back(std::move(t));
        }
    }

private:
    std::vector<std::unique_ptr<PThread>> m_threads;
};

// Frees the records' variants however the handler ends.
struct RecordsGuard {
    std::vector<MultiRequestRecord>& records;
    ~RecordsGuard() {
        for (MultiRequestRecord& r : records) {
            VariantClear(&r.request);
            VariantClear(&r.answer);
        }
    }
};

// Moves each record's answer into `out` (an array of as many variants).
void moveAnswers(std::vector<MultiRequestRecord>& records, tagVARIANT& out) {
    tagVARIANT* slots = nullptr;
    if (SafeArrayAccessData(out.parray, reinterpret_cast<void**>(&slots)) != S_OK || !slots)
        throw CabException("MultiRequest: the answer array cannot be filled", 8);
    for (size_t i = 0; i < records.size(); ++i) {
        VariantClear(&slots[i]);
        slots[i] = records[i].answer;
        VariantInit(&records[i].answer);
    }
    SafeArrayUnaccessData(out.parray);
}

}  // namespace

int KivRequestProxySatellite::CabServiceMultiRequest(const char*, const tagVARIANT& in, tagVARIANT* out) {
    int n = VUtil::GetArrayLength(in);
    if (n < 1) return -1;
    if (n > kMultiRequestMaxSubRequests) {
        CStdStr why;
        why.Format("MultiRequest of %d sub-requests refused: at most %d", n, kMultiRequestMaxSubRequests);
        CBBLog::warn("%s", why.c_str());
        throw CabException(why.c_str(), 403);
    }
    CBBLog::debug("Multirequest (%d)", n);
    std::string refused;
    if (!CabReserveAnswerMemory(static_cast<uint64_t>(n) * kRowBytes, &refused)) {
        CBBLog::warn("MultiRequest of %d sub-requests refused: %s", n, refused.c_str());
        return CAB_E_BUSY;
    }

    std::vector<MultiRequestRecord> records(static_cast<size_t>(n));
    for (MultiRequestRecord& r : records) {
        r.satellite = this;
        VariantInit(&r.request);
        VariantInit(&r.answer);
    }
    RecordsGuard recordsGuard{records};
    try {
        VUtil::CreateArray(*out, VT_VARIANT, static_cast<unsigned long>(n));
        for (int i = 0; i < n; ++i) VUtil::GetElement(in, i, records[i].request);

        MultiRequestGroup group;
        group.satellite = this;
        group.records = &records;
        group.inlineDepth = CabInlineDepth();
        group.caller = CabCurrentCaller();
        group.ledger = CabCurrentLedger();
        {
            HelperThreads helpers;  // joined before the group goes
            helpers.start(group, std::min(n, kMultiRequestThreadsPerGroup) - 1);
            CBBLog::debug("Waiting for requests");
            runSubRequests(group);  // this thread works too, so the group always moves on
        }
        CBBLog::debug("Building multirequest outparams");
        moveAnswers(records, *out);
        return 0;
    } catch (const char* text) {  // catches a thrown char* as well
        CBBLog::warn("MakeGroupedRequest exception: %s", text ? text : "");
        return 1;
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

        // Moved, not copied: a row of many megabytes is never held twice.
        tagVARIANT* slots = nullptr;
        if (SafeArrayAccessData(record->answer.parray, reinterpret_cast<void**>(&slots)) != S_OK || !slots)
            throw CabException("MultiRequest: the answer row cannot be filled", 8);
        VariantClear(&slots[0]);
        slots[0] = retcodes.release();
        VariantClear(&slots[1]);
        slots[1] = output.release();
        SafeArrayUnaccessData(record->answer.parray);
        return nullptr;
    } catch (const CabException& e) {
        CBBLog::warn("threadCabRequest exception: %s", e.getMessage());
    } catch (const std::exception&) {
        CBBLog::warn("threadCabRequest exception");
    }
    return reinterpret_cast<void*>(1);
}
