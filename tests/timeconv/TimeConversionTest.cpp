#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <string>

#include "support/TestSupport.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using tsapp::test::ScopedTimeZone;

namespace {

// The exception text of `call`, or "(no exception)".
template <typename Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no exception)";
}

// POSIX TZ strings count hours west of UTC: "UTC-2" is two hours east.
constexpr const char* kEastTwo = "UTC-2";
constexpr const char* kWestFive = "Etc/GMT+5";

}  // namespace

TEST(TimeConversion, ZoneDatabaseIsInstalled) {
    EXPECT_TRUE(tsapp::test::file_exists("/usr/share/zoneinfo/Europe/Berlin"));
}

TEST(TimeConversion, NotADateTimePassesBothWaysUnchanged) {
    ScopedTimeZone zone(kEastTwo);
    EXPECT_TRUE(convertUTCToLocalTime(ptime()).is_not_a_date_time());
    EXPECT_TRUE(convertLocalTimeToUTC(ptime()).is_not_a_date_time());
}

TEST(TimeConversion, UtcToLocalKeepsMicrosecondsLocalToUtcDropsThem) {
    ScopedTimeZone zone(kEastTwo);
    EXPECT_EQ(convertUTCToLocalTime(time_from_string("2024-06-01 12:00:00.250")),
              time_from_string("2024-06-01 14:00:00.250"));
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("2024-06-01 14:00:00.250")),
              time_from_string("2024-06-01 12:00:00"));
}

TEST(TimeConversion, WholeSecondsSurviveTheRoundTripWithoutDaylightSaving) {
    for (const char* tz : {kEastTwo, kWestFive, "Etc/GMT-2", "UTC0"}) {
        ScopedTimeZone zone(tz);
        const ptime local = time_from_string("2031-12-31 23:59:59");
        EXPECT_EQ(convertUTCToLocalTime(convertLocalTimeToUTC(local)), local) << tz;
    }
    ScopedTimeZone zone(kWestFive);
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("2024-01-01 20:00:00")),
              time_from_string("2024-01-02 01:00:00"));
}

TEST(TimeConversion, UtcToLocalStartsAtTheEpoch) {
    ScopedTimeZone zone(kWestFive);
    const ptime epoch = time_from_string("1970-01-01 00:00:00");
    EXPECT_EQ(convertUTCToLocalTime(epoch), time_from_string("1969-12-31 19:00:00"));
    const std::string prior = "Cannot convert dates prior to Jan 1, 1970";
    EXPECT_EQ(failureOf([&] { convertUTCToLocalTime(epoch - boost::posix_time::microseconds(1)); }),
              prior);
    EXPECT_EQ(failureOf([] { convertUTCToLocalTime(ptime(boost::date_time::neg_infin)); }), prior);
    EXPECT_THROW(convertUTCToLocalTime(epoch - boost::posix_time::microseconds(1)),
                 std::out_of_range);
}

TEST(TimeConversion, LocalToUtcAcceptsTimesBefore1970) {
    ScopedTimeZone zone(kEastTwo);
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("1965-05-01 10:30:00")),
              time_from_string("1965-05-01 08:30:00"));
}

TEST(TimeConversion, RangeErrorsCarryBoostsMessages) {
    {
        ScopedTimeZone zone(kWestFive);
        EXPECT_EQ(failureOf([] { convertLocalTimeToUTC(time_from_string("9999-12-31 23:30:00")); }),
                  "Year is out of valid range: 1400..9999");
    }
    {
        ScopedTimeZone zone(kEastTwo);
        EXPECT_EQ(failureOf([] { convertLocalTimeToUTC(time_from_string("1400-01-01 00:30:00")); }),
                  "Year is out of valid range: 1400..9999");
    }
    EXPECT_EQ(failureOf([] { convertLocalTimeToUTC(ptime(boost::date_time::pos_infin)); }),
              "tm unable to handle +infinity date value");
    EXPECT_EQ(failureOf([] { convertLocalTimeToUTC(ptime(boost::date_time::neg_infin)); }),
              "tm unable to handle -infinity date value");
}

TEST(TimeConversion, DaylightSavingTimeIsTheCLibrarysChoice) {
    ScopedTimeZone zone("Europe/Berlin");
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("2024-07-01 12:00:00")),
              time_from_string("2024-07-01 10:00:00"));
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("2024-01-01 12:00:00")),
              time_from_string("2024-01-01 11:00:00"));
    EXPECT_EQ(convertUTCToLocalTime(time_from_string("2024-07-01 10:00:00.5")),
              time_from_string("2024-07-01 12:00:00.5"));
    // 02:30 on 27 October 2024 happens twice; either reading is one of the two instants.
    const ptime repeated = convertLocalTimeToUTC(time_from_string("2024-10-27 02:30:00"));
    EXPECT_TRUE(repeated == time_from_string("2024-10-27 00:30:00") ||
                repeated == time_from_string("2024-10-27 01:30:00"))
        << repeated;
}
