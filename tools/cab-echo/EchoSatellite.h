// EchoSatellite: a satellite for tests and benchmarks of the broker library.
// Services:
//   "Echo"       out = a copy of in; status 0
//   "Status"     status = in (an integer); out empty
//   "Throw"      throws CabInvalidParameterException("bad argument from Throw")
//   "ThrowStd"   throws std::runtime_error("std failure from ThrowStd")
//   "ThrowOther" throws an int
//   "Blob"       out = a byte array of in (integer) bytes, byte i = i * 7 mod 251
//   "Nest"       in = depth; depth > 0 asks its own satellite's "Nest" with
//                depth - 1 and answers that answer + 1; depth 0 answers 0
//   "Sleep"      waits in milliseconds, then answers in
#pragma once

#include "cab/CabSatellite.h"

class EchoSatellite : public CabSatellite {
public:
    ~EchoSatellite() override { Disconnect(); }
    int CreateServices() override;

    int CabServiceEcho(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceStatus(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceThrow(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceThrowStd(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceThrowOther(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceBlob(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceNest(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceSleep(const char* name, const tagVARIANT& in, tagVARIANT* out);
};

// The byte at index i of a "Blob" answer.
inline unsigned char echoBlobByte(uint64_t i) { return (unsigned char)((i * 7) % 251); }
