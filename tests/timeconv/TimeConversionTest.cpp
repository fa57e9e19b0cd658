#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "support/TestSupport.hpp"
#include "tsappinstall/timeconv/TimeConversion.hpp"

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using tsapp::test::ScopedTimeZone;

// POSIX TZ strings count hours west of UTC: "UTC-2" is two hours east.
TEST(TimeConversion, LocalAndUtcFollowTheZoneAndItsDaylightSaving) {
    struct Case {
        const char* tz;
        const char* local;
        const char* utc;
    };
    for (const Case& c : {Case{"UTC-2", "2024-06-01 14:00:00", "2024-06-01 12:00:00"},
                          Case{"Etc/GMT+5", "2024-01-01 20:00:00", "2024-01-02 01:00:00"},
                          Case{"Etc/GMT+5", "1969-12-31 19:00:00", "1970-01-01 00:00:00"},
                          Case{"UTC-2", "1965-05-01 10:30:00", "1965-05-01 08:30:00"},
                          Case{"Europe/Berlin", "2024-07-01 12:00:00", "2024-07-01 10:00:00"},
                          Case{"Europe/Berlin", "2024-01-01 12:00:00", "2024-01-01 11:00:00"}}) {
        ScopedTimeZone zone(c.tz);
        EXPECT_EQ(convertLocalTimeToUTC(time_from_string(c.local)), time_from_string(c.utc))
            << c.tz << " " << c.local;
        if (time_from_string(c.utc).date().year() >= 1970) {
            EXPECT_EQ(convertUTCToLocalTime(time_from_string(c.utc)), time_from_string(c.local))
                << c.tz << " " << c.utc;
        }
    }
    ScopedTimeZone zone("UTC-2");
    // To local keeps the fraction; to UTC drops it.
    EXPECT_EQ(convertUTCToLocalTime(time_from_string("2024-06-01 12:00:00.250")),
              time_from_string("2024-06-01 14:00:00.250"));
    EXPECT_EQ(convertLocalTimeToUTC(time_from_string("2024-06-01 14:00:00.250")),
              time_from_string("2024-06-01 12:00:00"));
    EXPECT_TRUE(convertUTCToLocalTime(ptime()).is_not_a_date_time());
    EXPECT_TRUE(convertLocalTimeToUTC(ptime()).is_not_a_date_time());
}

TEST(TimeConversion, UtcToLocalRefusesTimesBeforeTheEpoch) {
    ScopedTimeZone zone("Etc/GMT+5");
    const ptime before =
        time_from_string("1970-01-01 00:00:00") - boost::posix_time::microseconds(1);
    for (const ptime& time : {before, ptime(boost::date_time::neg_infin)}) {
        try {
            convertUTCToLocalTime(time);
            ADD_FAILURE() << time;
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "Cannot convert dates prior to Jan 1, 1970");
        }
    }
}
