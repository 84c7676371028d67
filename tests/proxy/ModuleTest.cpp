// The module base's one-per-process rule, outside any real process start.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tools/KivRequestProxy/KivModuleBase.h"

namespace {
class TestModule : public KivModuleBase {
public:
    explicit TestModule(const char* name) : KivModuleBase(name) {}
    bool init(const std::vector<CStdStr>&) override { return true; }
    void close() override {}
};
}  // namespace

TEST(KivModuleBase, OneModulePerProcessAndAbortEndsRun) {
    {
        TestModule first("FirstModule");
        EXPECT_EQ(KivModuleBase::kivModule, &first);
        try {
            TestModule second("SecondModule");
            FAIL() << "a second module was allowed";
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "Can't have more than one instance of KivModuleBase per module!");
        }
        EXPECT_EQ(KivModuleBase::kivModule, &first);
        // abort() sends SIGTERM to the process; the blocked signal waits for run().
        first.abort();
        first.run();
    }
    EXPECT_EQ(KivModuleBase::kivModule, nullptr);
    TestModule again("AgainModule");
    EXPECT_EQ(KivModuleBase::kivModule, &again);
}
