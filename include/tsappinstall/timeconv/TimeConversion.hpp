#pragma once

// The manifest keeps its creation time in UTC, the record in local time;
// these two move a time between them through the C library's view of the
// process's time zone (TZ) at the moment of the call.
//
// The two directions differ on purpose: local -> UTC goes through mktime and
// so works in whole seconds and accepts times before 1970; UTC -> local keeps
// the fraction of a second and refuses instants before 1970-01-01 00:00:00.
// not-a-date-time passes both unchanged. Every other failure is Boost's
// (std::out_of_range and friends, thrown through boost::throw_exception).

#include <boost/date_time/posix_time/ptime.hpp>

#include "tsappinstall/export.hpp"

TSAPP_API boost::posix_time::ptime convertUTCToLocalTime(const boost::posix_time::ptime& utc);
TSAPP_API boost::posix_time::ptime convertLocalTimeToUTC(const boost::posix_time::ptime& local);
