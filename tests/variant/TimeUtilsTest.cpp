#include <climits>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <boost/make_shared.hpp>

#include "tests/support/CapturingLog.h"
#include "tests/variant/VariantTestHelpers.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

#define EXPECT_TIME_FAILURE(stmt, text) EXPECT_CAB_THROW(stmt, -1, text)

namespace {

const long k20080304050607 = 1204607167;  // 2008-03-04 05:06:07 UTC

class TimeUtilsTest : public testing::Test {
protected:
    void SetUp() override {
        setZone("UTC");
        log = boost::make_shared<CapturingLog>();
        CBBLog::setLogger(log);
    }
    void TearDown() override {
        CBBLog::setLogger(boost::shared_ptr<CBBLog>());
        setZone("UTC");
    }
    static void setZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    boost::shared_ptr<CapturingLog> log;
};

}  // namespace

TEST(VUtilDates, ConversionsBothWays) {
    EXPECT_EQ(25569.0, VUtil::TimeToDate(0));
    EXPECT_EQ(43200L, VUtil::DateToTime(25569.5));
    EXPECT_EQ(86399L, VUtil::DateToTime(25569.99999));
    EXPECT_EQ(25569 - 1 / 86400.0, VUtil::TimeToDate(-1));
    EXPECT_EQ(-1L, VUtil::DateToTime(VUtil::TimeToDate(-1)));
    EXPECT_EQ(0L, VUtil::DateToTime(25569.0));
    for (long t : {0L, 1L, 59L, 86399L, 86400L, -86400L, -129600L, k20080304050607, 4102444800L, -2208988800L})
        EXPECT_EQ(t, VUtil::DateToTime(VUtil::TimeToDate(t))) << t;
    EXPECT_EQ(-1L, VUtil::DateToTime(NAN));
    EXPECT_EQ(-1L, VUtil::DateToTime(INFINITY));
    EXPECT_EQ(-1L, VUtil::DateToTime(1e300));
}

TEST_F(TimeUtilsTest, VariantDatesPassOnTheThreeLowBits) {
    tagVARIANT v;
    VariantInit(&v);
    v.date = 25569.5;
    v.vt = VT_DATE;
    EXPECT_EQ(43200L, TimeUtils::GetTime(v));
    v.vt = VT_I4;  // low bits set: its value bits are read as a date
    EXPECT_EQ(43200L, TimeUtils::GetTime(v));
    v.vt = VT_R8;
    EXPECT_EQ(43200L, TimeUtils::GetTime(v));
    for (VARTYPE refused : {VT_EMPTY, VT_BSTR, VT_I1}) {
        v.vt = refused;
        EXPECT_TIME_FAILURE(TimeUtils::GetTime(v), "TimeUtils::GetTime: variant is not a VT_DATE");
    }
    v.vt = VT_DATE;
    v.date = VUtil::TimeToDate(k20080304050607);
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime(v));
    EXPECT_TRUE(log->lines.empty());
    v.vt = VT_EMPTY;
    EXPECT_EQ("", TimeUtils::FormatTime(v));
    EXPECT_EQ(std::vector<CStdStr>{"FormatTime(Variant) failed"}, log->lines);
}

TEST_F(TimeUtilsTest, ThreeLayoutsParseToTheSameSeconds) {
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime2("2008-03-04 05:06:07"));
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime(CStdStr("03/04/2008 05:06:07")));
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime3("20080304050607"));
    // Only the positions count, not the separators.
    EXPECT_EQ(k20080304050607, TimeUtils::GetTime2("2008x03x04T05x06x07"));
    EXPECT_TRUE(log->lines.empty());
    // A 13-character database time is reported and still parsed by position.
    EXPECT_EQ(k20080304050607 - 7, TimeUtils::GetTime3("2008030405060"));
    ASSERT_EQ(1u, log->lines.size());
    EXPECT_EQ("******* Invalid DB time length: 2008030405060", log->lines[0]);
    EXPECT_EQ(LOGLEVEL_ERROR, log->levels[0]);
    // The one second that mktime reports as -1.
    log->lines.clear();
    EXPECT_EQ(-1L, TimeUtils::GetTime2("1969-12-31 23:59:59"));
    EXPECT_EQ(-1L, TimeUtils::GetTime3("19691231235959"));
    EXPECT_EQ(-1L, TimeUtils::GetTime(CStdStr("12/31/1969 23:59:59")));
    EXPECT_EQ((std::vector<CStdStr>{"******* Invalid KivMedia time: 1969-12-31 23:59:59",
                                    "******* Invalid DB time: 19691231235959"}),
              log->lines);
    // Garbage does not throw; the text form never logs.
    log->lines.clear();
    TimeUtils::GetTime(CStdStr(""));
    TimeUtils::GetTime(CStdStr("not a time at all"));
    EXPECT_TRUE(log->lines.empty());
}

TEST(TimeUtilsParseInt, ClampsAndConverts) {
    // offset, length, the number; "-" alone is 0.
    const int cases[][3] = {{0, 4, 2008}, {5, 2, 3}, {-3, 2, 20}, {0, -1, 0}, {10, 2, 0}, {400, 2, 0}, {8, 100, 4},
                            {4, 1, 0}, {4, 3, -3}};
    for (const auto& c : cases)
        EXPECT_EQ(c[2], TimeUtils::ParseInt("2008-03-04", c[0], c[1])) << c[0] << " " << c[1];
    EXPECT_EQ(INT_MAX, TimeUtils::ParseInt("99999999999999999999", 0, 20));
}

TEST_F(TimeUtilsTest, Formatters) {
    const long t = k20080304050607;
    CStdStr out = "old";
    TimeUtils::FormatTime(out, t);
    EXPECT_EQ("2008/03/04 05:06:07", out);
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime(t));
    EXPECT_EQ("20080304050607", TimeUtils::FormatTime3(t));
    EXPECT_EQ("2008-03-04 05:06:07", TimeUtils::FormatTime2(t));
    EXPECT_EQ("2008-03-04 05:06", TimeUtils::FormatTime4(t));
    EXPECT_EQ("2008/03/04 05:06:07", TimeUtils::FormatTimeAccess(t));
    EXPECT_EQ("03-04-2008 05-06-07", TimeUtils::FormatFilenameDate(t));
    EXPECT_EQ("2008-03-04T05:06:07.0000000-8:00", TimeUtils::FormatUniversal(t));
    setZone("JST-9");
    EXPECT_EQ("1970-01-01T09:00:00.0000000-8:00", TimeUtils::FormatUniversal(0));
    EXPECT_EQ("19700101090000", TimeUtils::FormatTime(0L));
    EXPECT_EQ(0L, TimeUtils::GetTime3("19700101090000"));
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime(out, LONG_MAX), "FormatTime: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime(LONG_MAX), "FormatTime3: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime2(LONG_MAX), "FormatTime2: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatTime4(LONG_MAX), "FormatTime4: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatFilenameDate(LONG_MAX), "FormatFilenameDate: Localtime failed");
    EXPECT_TIME_FAILURE(TimeUtils::FormatUniversal(LONG_MAX), "FormatTime: Localtime failed");
}

TEST_F(TimeUtilsTest, TimeZone) {
    long west = 99;
    bool daylight = true;
    EXPECT_EQ(0, TimeUtils::getTimeZone(&west, &daylight));
    EXPECT_EQ(0L, west);
    EXPECT_FALSE(daylight);
    EXPECT_EQ(0L, TimeUtils::getTimeZoneDifference());
    setZone("JST-9");
    TimeUtils::getTimeZone(&west, &daylight);
    EXPECT_EQ(-540L, west);
    EXPECT_FALSE(daylight);
    EXPECT_EQ(-32400L, TimeUtils::getTimeZoneDifference());
    // A zone in daylight saving all year: standard offset and the flag.
    setZone("STD5DST4,0/0,J365/25");
    TimeUtils::getTimeZone(&west, &daylight);
    EXPECT_EQ(300L, west);
    EXPECT_TRUE(daylight);
    EXPECT_EQ(300L * 60 - 3600, TimeUtils::getTimeZoneDifference());
}
