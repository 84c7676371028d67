#include "tools/cab-echo/EchoSatellite.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "cab/CabException.h"

namespace {

int64_t integerOf(const tagVARIANT& v) {
    switch (v.vt) {
    case VT_I2: return v.iVal;
    case VT_I4: return v.lVal;
    case VT_I8: return v.llVal;
    case VT_UI4: return v.ulVal;
    case VT_UI8: return (int64_t)v.ullVal;
    case VT_R8: return (int64_t)v.dblVal;
    default: throw CabInvalidParameterException("an integer is expected");
    }
}

typedef CabSatelliteDelegateMember<EchoSatellite> Member;

}  // namespace

int EchoSatellite::CreateServices() {
    AddService("Echo", "Answers its input", new Member(this, &EchoSatellite::CabServiceEcho));
    AddService("Status", "Returns its input as the status", new Member(this, &EchoSatellite::CabServiceStatus));
    AddService("Throw", "", new Member(this, &EchoSatellite::CabServiceThrow));
    AddService("ThrowStd", "", new Member(this, &EchoSatellite::CabServiceThrowStd));
    AddService("ThrowOther", "", new Member(this, &EchoSatellite::CabServiceThrowOther));
    AddService("Blob", "Answers a byte array of the given size", new Member(this, &EchoSatellite::CabServiceBlob));
    AddService("Nest", "Asks itself depth times", new Member(this, &EchoSatellite::CabServiceNest));
    AddService("Sleep", "Waits the given milliseconds", new Member(this, &EchoSatellite::CabServiceSleep));
    return 0;
}

int EchoSatellite::CabServiceEcho(const char*, const tagVARIANT& in, tagVARIANT* out) {
    return VariantCopy(out, &in) == S_OK ? 0 : 8;
}

int EchoSatellite::CabServiceStatus(const char*, const tagVARIANT& in, tagVARIANT*) { return (int)integerOf(in); }

int EchoSatellite::CabServiceThrow(const char*, const tagVARIANT&, tagVARIANT*) {
    throw CabInvalidParameterException("bad argument from Throw");
}

int EchoSatellite::CabServiceThrowStd(const char*, const tagVARIANT&, tagVARIANT*) {
    throw std::runtime_error("std failure from ThrowStd");
}

int EchoSatellite::CabServiceThrowOther(const char*, const tagVARIANT&, tagVARIANT*) { throw 42; }

int EchoSatellite::CabServiceBlob(const char*, const tagVARIANT& in, tagVARIANT* out) {
    int64_t n = integerOf(in);
    if (n < 0 || n > 0xFFFFFFFFll) throw CabInvalidParameterException("size out of range");
    SAFEARRAYBOUND b{(uint32_t)n, 0};
    SAFEARRAY* sa = SafeArrayCreate(VT_UI1, 1, &b);
    if (!sa) return 8;
    unsigned char* p = nullptr;
    SafeArrayAccessData(sa, (void**)&p);
    // The pattern repeats every 251 bytes: build one period, then copy it.
    for (int64_t i = 0; i < n && i < 251; ++i) p[i] = echoBlobByte((uint64_t)i);
    for (int64_t i = 251; i < n; i += 251) memcpy(p + i, p, (size_t)std::min<int64_t>(251, n - i));
    SafeArrayUnaccessData(sa);
    out->vt = VT_ARRAY | VT_UI1;
    out->parray = sa;
    return 0;
}

int EchoSatellite::CabServiceNest(const char*, const tagVARIANT& in, tagVARIANT* out) {
    int64_t depth = integerOf(in);
    int32_t result = 0;
    if (depth > 0) {
        tagVARIANT sub, answer, rc;
        VariantInit(&sub);
        VariantInit(&answer);
        VariantInit(&rc);
        sub.vt = VT_I4;
        sub.lVal = (int32_t)(depth - 1);
        std::string self = name();
        Request(self.c_str(), "Nest", sub, &answer, 0, &rc);
        int status = CabRetcode(rc);
        int inner = answer.vt == VT_I4 ? answer.lVal : -1000;
        VariantClear(&answer);
        VariantClear(&rc);
        if (status != 0) return status;
        result = inner + 1;
    }
    out->vt = VT_I4;
    out->lVal = result;
    return 0;
}

int EchoSatellite::CabServiceSleep(const char*, const tagVARIANT& in, tagVARIANT* out) {
    std::this_thread::sleep_for(std::chrono::milliseconds(integerOf(in)));
    return VariantCopy(out, &in) == S_OK ? 0 : 8;
}
