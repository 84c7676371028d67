// A large file through "GetFile", whole and in 4 MiB chunks, compared by
// checksum with what was written. 1 GiB normally; 64 MiB under the
// sanitizers, which make every byte many times slower.
#include <cstdio>
#include <cstring>

#include "tests/fileservices/TransferFixture.h"
#include "tests/support/Sanitizers.h"
#include "variant/VUtil.h"

namespace {

#ifdef KIV_SANITIZED
const unsigned long long kSize = 64ull << 20;
#else
const unsigned long long kSize = 1ull << 30;
#endif
const unsigned long long kChunk = 4ull << 20;

// Order-sensitive checksum over 64-bit words (pieces here are multiples of 8 bytes).
struct Checksum {
    uint64_t h = 1469598103934665603ull;
    unsigned long long bytes = 0;
    void add(const void* data, size_t n) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        size_t i = 0;
        for (; i + 8 <= n; i += 8) {
            uint64_t w;
            memcpy(&w, p + i, 8);
            h = (h ^ w) * 1099511628211ull;
            h ^= h >> 29;
        }
        for (; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
        bytes += n;
    }
};

class LargeFileTest : public TransferTest {
protected:
    int maxPayload() const override { return 8 << 20; }
    // Writes kSize pseudo-random bytes; returns their checksum.
    Checksum writeLargeFile() {
        path = media.file("large.bin");
        FILE* f = fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        Checksum sum;
        std::vector<uint64_t> block(kChunk / 8);
        uint64_t x = 88172645463325252ull;
        for (unsigned long long done = 0; f && done < kSize; done += kChunk) {
            for (uint64_t& w : block) {
                x ^= x << 13;
                x ^= x >> 7;
                x ^= x << 17;
                w = x;
            }
            sum.add(block.data(), kChunk);
            EXPECT_EQ(fwrite(block.data(), 1, kChunk, f), kChunk);
        }
        if (f) fclose(f);
        return sum;
    }
    void TearDown() override {
        if (!path.empty()) remove(path.c_str());
        TransferTest::TearDown();
    }
    // One "GetFile"; adds the block to `sum` without copying it.
    int fetch(long long offset, long long max, Checksum* sum, unsigned long long* got) {
        CLocalVariant in, out;
        VUtil::CreateArray(in.get(), VT_VARIANT, 3);
        VUtil::PutElement(in.get(), 0, CStdStr(path));
        VUtil::PutElement(in.get(), 1, offset);
        VUtil::PutElement(in.get(), 2, max);
        int status = call("GetFile", in.get(), out.ptr());
        if (status != 0) return status;
        EXPECT_EQ(out.vt(), VT_ARRAY | VT_UI1);
        *got = out.get().parray->rgsabound[0].cElements;
        sum->add(out.get().parray->pvData, *got);
        return 0;
    }
    std::string path;
};

TEST_F(LargeFileTest, FetchedWholeAndInChunksWithTheSameChecksum) {
    Checksum written = writeLargeFile();
    ASSERT_EQ(written.bytes, kSize);

    Checksum whole;
    unsigned long long got = 0;
    ASSERT_EQ(fetch(0, 0, &whole, &got), 0);
    EXPECT_EQ(got, kSize);
    EXPECT_EQ(whole.h, written.h);

    Checksum chunks;
    unsigned long long offset = 0;
    while (offset < kSize) {
        ASSERT_EQ(fetch((long long)offset, (long long)kChunk, &chunks, &got), 0);
        ASSERT_EQ(got, std::min(kChunk, kSize - offset));
        offset += got;
    }
    EXPECT_EQ(chunks.bytes, kSize);
    EXPECT_EQ(chunks.h, written.h);
}

}  // namespace
