// CAB1 speed: a 64 MiB byte array and a 100,000-element array of variants,
// encoded and decoded, against a plain memcpy of the same number of bytes.
// Goal: the byte-array paths within 2x of memcpy.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "value/Cab1.h"

namespace {

const size_t kBytes = size_t(64) << 20;
const uint32_t kElements = 100000;
// The broker sends an encoding in windows of this size.
const size_t kWindow = size_t(4) << 20;

struct Bytes {
    tagVARIANT v;
    Bytes() {
        SAFEARRAYBOUND b{uint32_t(kBytes), 0};
        v.vt = VT_ARRAY | VT_UI1;
        v.parray = SafeArrayCreate(VT_UI1, 1, &b);
        unsigned char* p = static_cast<unsigned char*>(v.parray->pvData);
        for (size_t i = 0; i < kBytes; ++i) p[i] = static_cast<unsigned char>(i * 131);
    }
    ~Bytes() { VariantClear(&v); }
};

// Mixed small values, as in a folder listing: ints, strings, doubles, pairs.
struct Variants {
    tagVARIANT v;
    Variants() {
        SAFEARRAYBOUND b{kElements, 0};
        v.vt = VT_ARRAY | VT_VARIANT;
        v.parray = SafeArrayCreate(VT_VARIANT, 1, &b);
        tagVARIANT* e = static_cast<tagVARIANT*>(v.parray->pvData);
        for (uint32_t i = 0; i < kElements; ++i) {
            switch (i % 4) {
            case 0:
                e[i].vt = VT_I4;
                e[i].lVal = int32_t(i);
                break;
            case 1:
                e[i].vt = VT_BSTR;
                e[i].bstrVal = SysAllocString(("file-" + std::to_string(i) + ".jpg").c_str());
                break;
            case 2:
                e[i].vt = VT_R8;
                e[i].dblVal = i * 0.5;
                break;
            default:
                e[i].vt = VT_I8;
                e[i].llVal = int64_t(i) << 33;
                break;
            }
        }
    }
    ~Variants() { VariantClear(&v); }
};

void setBytes(benchmark::State& state, size_t n) { state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n)); }

void BM_Memcpy64MiB(benchmark::State& state) {
    std::vector<char> from(kBytes, 1), to(kBytes);
    for (auto _ : state) {
        memcpy(to.data(), from.data(), kBytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, kBytes);
}

// memcpy into freshly allocated memory, as a decoder must do.
void BM_MemcpyFresh64MiB(benchmark::State& state) {
    std::vector<char> from(kBytes, 1);
    for (auto _ : state) {
        char* to = static_cast<char*>(malloc(kBytes));
        memcpy(to, from.data(), kBytes);
        benchmark::DoNotOptimize(to);
        free(to);
    }
    setBytes(state, kBytes);
}

void BM_EncodeBytes64MiB(benchmark::State& state) {
    Bytes b;
    std::vector<char> out(kBytes + 64);
    for (auto _ : state) {
        Cab1Encoding enc(b.v);
        size_t n = enc.copy(0, out.data(), out.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    setBytes(state, kBytes);
}

void BM_EncodeBytes64MiBInWindows(benchmark::State& state) {
    Bytes b;
    std::vector<char> window(kWindow);
    for (auto _ : state) {
        Cab1Encoding enc(b.v);
        for (size_t off = 0; off < enc.size(); off += kWindow) {
            size_t n = enc.copy(off, window.data(), window.size());
            benchmark::DoNotOptimize(n);
            benchmark::ClobberMemory();
        }
    }
    setBytes(state, kBytes);
}

void BM_DecodeBytes64MiB(benchmark::State& state) {
    Bytes b;
    std::string wire = Cab1Encoding(b.v).str();
    for (auto _ : state) {
        tagVARIANT v;
        std::string error;
        bool ok = Cab1Decode(wire.data(), wire.size(), &v, &error);
        benchmark::DoNotOptimize(ok);
        VariantClear(&v);
    }
    setBytes(state, kBytes);
}

void BM_MemcpyVariants(benchmark::State& state) {
    Variants vs;
    std::string wire = Cab1Encoding(vs.v).str();
    std::vector<char> to(wire.size());
    for (auto _ : state) {
        memcpy(to.data(), wire.data(), wire.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, wire.size());
}

void BM_EncodeVariants100k(benchmark::State& state) {
    Variants vs;
    size_t size = Cab1Encoding(vs.v).size();
    std::vector<char> out(size);
    for (auto _ : state) {
        Cab1Encoding enc(vs.v);
        size_t n = enc.copy(0, out.data(), out.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    setBytes(state, size);
}

void BM_DecodeVariants100k(benchmark::State& state) {
    Variants vs;
    std::string wire = Cab1Encoding(vs.v).str();
    for (auto _ : state) {
        tagVARIANT v;
        std::string error;
        bool ok = Cab1Decode(wire.data(), wire.size(), &v, &error);
        benchmark::DoNotOptimize(ok);
        VariantClear(&v);
    }
    setBytes(state, wire.size());
}

}  // namespace

BENCHMARK(BM_Memcpy64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyFresh64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeBytes64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeBytes64MiBInWindows)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeBytes64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyVariants)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeVariants100k)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeVariants100k)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
