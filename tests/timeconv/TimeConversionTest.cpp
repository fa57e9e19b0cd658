#include <boost/date_time/posix_time/posix_time.hpp>

#include <tuple>

#include "support/TestSupport.hpp"
#include "tsappinstall/platform/opc/Conversions.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using tsapp::test::ScopedTimeZone;

// POSIX TZ strings count hours west of UTC: "UTC-2" is two hours east.
// Local times at clock changes are the seal tests' rows.
TEST(TimeConversion, LocalAndUtcFollowTheZone) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"Etc/GMT+5", "1969-12-31 19:00:00", "1970-01-01 00:00:00"},
        {"UTC-2", "1965-05-01 10:30:00", "1965-05-01 08:30:00"},
    };
    for (const auto& [tz, local, utc] : cases) {
        ScopedTimeZone zone(tz);
        EXPECT_EQ(convertLocalTimeToUTC(time_from_string(local)), time_from_string(utc)) << local;
        if (time_from_string(utc).date().year() >= 1970) {
            EXPECT_EQ(convertUTCToLocalTime(time_from_string(utc)), time_from_string(local)) << utc;
        }
    }
    ScopedTimeZone zone("UTC-2");
    // To local keeps the fraction (to UTC drops it: ManifestLoadSaveTest).
    EXPECT_EQ(convertUTCToLocalTime(time_from_string("2024-06-01 12:00:00.250")),
              time_from_string("2024-06-01 14:00:00.250"));
    EXPECT_TRUE(convertUTCToLocalTime(ptime()).is_not_a_date_time());
    EXPECT_TRUE(convertLocalTimeToUTC(ptime()).is_not_a_date_time());
}

TEST(OpcConversions, TimeIsWrittenInUtcWithZAndReadBackExactly) {
    const std::pair<const char*, const char16_t*> cases[] = {
        {"1400-01-01 00:00:00.250", u"1400-01-01T00:00:00.25Z"},
        {"9999-12-31 23:59:59.000001", u"9999-12-31T23:59:59.000001Z"},
        {"1969-12-31 23:59:59", u"1969-12-31T23:59:59Z"},
    };
    for (const auto& [time, text] : cases) {
        EXPECT_EQ(opc::convertTimeToString(time_from_string(time)), text);
        EXPECT_EQ(opc::convertStringToTime(text), time_from_string(time));
    }
}

TEST(OpcConversions, ReaderAcceptsEveryXsdDateTimeForm) {
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"2024-03-05T06:07:08", "2024-03-05 06:07:08"},
        {u"2024-03-05T08:07:08+02:00", "2024-03-05 06:07:08"},
        {u"2024-03-05T01:37:08-04:30", "2024-03-05 06:07:08"},
        {u"2024-03-04T16:07:08-14:00", "2024-03-05 06:07:08"},
        {u" \n2024-03-05T06:07:08Z\t", "2024-03-05 06:07:08"},
        {u"2024-03-05T06:07:08.1234567Z", "2024-03-05 06:07:08.123456"},
        {u"2024-03-05T06:07:08.5", "2024-03-05 06:07:08.5"},
        {u"2024-12-31T24:00:00Z", "2025-01-01 00:00:00"},
    };
    for (const auto& [text, time] : cases) {
        EXPECT_EQ(opc::convertStringToTime(text), time_from_string(time)) << time;
    }
    EXPECT_TRUE(opc::convertStringToTime(u"  ").is_not_a_date_time());
}

TEST(OpcConversions, ReaderRefusesWhatIsNotAnXsdDateTime) {
    for (const char16_t* text :
         {u"2024-03-05 06:07:08", u"2024-03-05T06:07", u"2024-3-05T06:07:08",
          u"2024-03-05T06:07:08.", u"2024-03-05T06:07:08z", u"2024-03-05T06:07:08+2:00",
          u"2024-03-05T06:07:08+14:30", u"2024-03-05T06:07:60", u"2024-13-05T06:07:08",
          u"2024-03-05T24:00:01", u"02024-03-05T06:07:08", u"0000-03-05T06:07:08",
          u"2024-03-05T06:07:08Zx", u"not a time", u"\uff12024-03-05T06:07:08"}) {
        EXPECT_THROW(opc::convertStringToTime(text), opc::Exception) << fl::i18n::to_string(text);
    }
    EXPECT_THROW(opc::convertStringToTime(u"2024-02-30T00:00:00"), std::out_of_range);
    // Valid lexical forms whose year the date types cannot hold.
    for (const char16_t* text :
         {u"10000-01-01T00:00:00Z", u"-2024-01-01T00:00:00Z", u"1399-12-31T23:59:59Z",
          u"9999-12-31T23:00:00-02:00", u"1400-01-01T00:30:00+01:00"}) {
        EXPECT_EQ(tsapp::test::error_of<std::out_of_range>([&] { opc::convertStringToTime(text); }),
                  "Year is out of valid range: 1400..9999")
            << fl::i18n::to_string(text);
    }
}
