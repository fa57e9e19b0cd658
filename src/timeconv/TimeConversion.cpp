#include "tsappinstall/timeconv/TimeConversion.hpp"

#include <boost/date_time/c_local_time_adjustor.hpp>
#include <boost/date_time/c_time.hpp>
#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <ctime>

using boost::posix_time::ptime;

ptime convertUTCToLocalTime(const ptime& utc) {
    if (utc.is_not_a_date_time()) return utc;
    return boost::date_time::c_local_adjustor<ptime>::utc_to_local(utc);
}

ptime convertLocalTimeToUTC(const ptime& local) {
    if (local.is_not_a_date_time()) return local;
    // to_tm leaves tm_isdst at -1, so mktime decides whether daylight-saving
    // time is in force at that wall-clock time. Its error value is not
    // tested: (time_t)-1 is also the valid instant 1969-12-31 23:59:59 UTC.
    std::tm wallClock = boost::posix_time::to_tm(local);
    const std::time_t instant = std::mktime(&wallClock);
    std::tm utc{};
    boost::date_time::c_time::gmtime(&instant, &utc);
    return boost::posix_time::ptime_from_tm(utc);
}
