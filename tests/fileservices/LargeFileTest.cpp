// A large file through "GetFile", whole and in 4 MiB chunks, compared by checksum with what was
// written: 1 GiB, or 64 MiB under the sanitizers (which make every byte many times slower).
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "tests/fileservices/TransferFixture.h"
#include "tests/support/Sanitizers.h"

namespace {

#ifdef KIV_SANITIZED
const unsigned long long kSize = 64ull << 20;
#else
const unsigned long long kSize = 1ull << 30;
#endif
const unsigned long long kChunk = 4ull << 20;

// Order-sensitive checksum over 64-bit words (every piece here is a multiple of 8 bytes).
struct Checksum {
    uint64_t h = 1469598103934665603ull;
    unsigned long long bytes = 0;
    void add(const void* data, size_t n) {
        for (size_t i = 0; i + 8 <= n; i += 8) {
            uint64_t w;
            memcpy(&w, static_cast<const char*>(data) + i, 8);
            h = (h ^ w) * 1099511628211ull;
            h ^= h >> 29;
        }
        bytes += n;
    }
};

class LargeFileTest : public TransferTest {
protected:
    int maxPayload() const override { return 8 << 20; }
    void TearDown() override {
        remove(path.c_str());
        TransferTest::TearDown();
    }
    // One "GetFile"; adds the block to `sum` without copying it.
    int fetch(long long offset, long long max, Checksum* sum, unsigned long long* got) {
        CLocalVariant out;
        int status = call("GetFile", nlohmann::json{path, offset, max}.dump(), out.ptr());
        if (status != 0) return status;
        EXPECT_EQ(out.vt(), VT_ARRAY | VT_UI1);
        *got = out.get().parray->rgsabound[0].cElements;
        sum->add(out.get().parray->pvData, *got);
        return 0;
    }
    std::string path = media.file("large.bin");
};

TEST_F(LargeFileTest, FetchedWholeAndInChunksWithTheSameChecksum) {
    Checksum written;
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (unsigned long long done = 0; done < kSize; done += kChunk) {
        std::string block = patternBytes(kChunk, (unsigned)(done / kChunk));
        written.add(block.data(), kChunk);
        ASSERT_EQ(fwrite(block.data(), 1, kChunk, f), kChunk);
    }
    fclose(f);

    Checksum whole, chunks;
    unsigned long long got = 0;
    ASSERT_EQ(fetch(0, 0, &whole, &got), 0);
    EXPECT_EQ(got, kSize);
    EXPECT_EQ(whole.h, written.h);
    for (unsigned long long offset = 0; offset < kSize; offset += got) {
        ASSERT_EQ(fetch((long long)offset, (long long)kChunk, &chunks, &got), 0);
        ASSERT_EQ(got, std::min(kChunk, kSize - offset));
    }
    EXPECT_EQ(chunks.bytes, kSize);
    EXPECT_EQ(chunks.h, written.h);
}

}  // namespace
