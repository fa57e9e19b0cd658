// Text and xsd:dateTime conversions of the package layer.

#include "tsappinstall/platform/opc/Conversions.hpp"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <algorithm>
#include <cstdio>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"
#include "tsappinstall/platform/opc/Exception.hpp"

namespace opc {
namespace {

using boost::posix_time::ptime;
using boost::posix_time::time_duration;

std::string hex4(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04X", value);
    return text;
}

bool isXmlSpace(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

std::u16string collapse(const std::u16string& text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isXmlSpace(text[begin])) ++begin;
    while (end > begin && isXmlSpace(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

// A cursor over one xsd:dateTime text; every mismatch throws.
class DateTimeReader {
  public:
    explicit DateTimeReader(const std::u16string& text) : text_(text) {}

    ptime read() {
        const int year = readYear();
        expect(u'-');
        const int month = readNumber(2, 1, 12);
        expect(u'-');
        const int day = readNumber(2, 1, 31);
        expect(u'T');
        const time_duration timeOfDay = readTimeOfDay();
        const time_duration offset = readZone();
        if (pos_ != text_.size()) fail();
        if (year < 1400 || year > 9999) throw boost::gregorian::bad_year();
        const boost::gregorian::date date(static_cast<unsigned short>(year),
                                          static_cast<unsigned short>(month),
                                          static_cast<unsigned short>(day));
        return ptime(date, timeOfDay) - offset;
    }

  private:
    [[noreturn]] void fail() const {
        throw Exception("not an xsd:dateTime text: \"" + fl::i18n::to_string(text_) + "\"");
    }
    bool at(char16_t c) const { return pos_ < text_.size() && text_[pos_] == c; }
    bool atDigit() const {
        return pos_ < text_.size() && text_[pos_] >= u'0' && text_[pos_] <= u'9';
    }
    void expect(char16_t c) {
        if (!at(c)) fail();
        ++pos_;
    }
    int digit() {
        if (!atDigit()) fail();
        return text_[pos_++] - u'0';
    }
    int readNumber(int width, int low, int high) {
        int value = 0;
        for (int i = 0; i < width; ++i) value = value * 10 + digit();
        if (value < low || value > high) fail();
        return value;
    }
    // Four or more digits, no leading zero beyond four, optional minus.
    // Years Boost cannot hold are reported as out of range, not as bad text.
    int readYear() {
        const bool negative = at(u'-');
        if (negative) ++pos_;
        const std::size_t start = pos_;
        long value = 0;
        while (atDigit()) {
            value = std::min(value * 10 + (text_[pos_] - u'0'), 100000L);
            ++pos_;
        }
        const std::size_t width = pos_ - start;
        if (width < 4 || (width > 4 && text_[start] == u'0')) fail();
        if (value == 0) fail();
        if (negative) throw boost::gregorian::bad_year();
        return static_cast<int>(value);
    }
    long readMicroseconds() {
        long micro = 0;
        int count = 0;
        if (!atDigit()) fail();
        while (atDigit()) {
            const int d = digit();
            if (count++ < 6) micro = micro * 10 + d;
        }
        for (; count < 6; ++count) micro *= 10;
        return micro;
    }
    time_duration readTimeOfDay() {
        const int hours = readNumber(2, 0, 24);
        expect(u':');
        const int minutes = readNumber(2, 0, 59);
        expect(u':');
        const int seconds = readNumber(2, 0, 59);
        long micro = 0;
        if (at(u'.')) {
            ++pos_;
            micro = readMicroseconds();
        }
        if (hours == 24 && (minutes != 0 || seconds != 0 || micro != 0)) fail();
        return time_duration(hours, minutes, seconds) + boost::posix_time::microseconds(micro);
    }
    time_duration readZone() {
        if (pos_ == text_.size()) return time_duration(0, 0, 0);
        if (at(u'Z')) {
            ++pos_;
            return time_duration(0, 0, 0);
        }
        const bool negative = at(u'-');
        if (!negative && !at(u'+')) fail();
        ++pos_;
        const int hours = readNumber(2, 0, 14);
        expect(u':');
        const int minutes = readNumber(2, 0, 59);
        if (hours == 14 && minutes != 0) fail();
        const time_duration offset(hours, minutes, 0);
        return negative ? -offset : offset;
    }

    const std::u16string& text_;
    std::size_t pos_ = 0;
};

// ptime arithmetic does not check the calendar's range; a moved time that
// left it must not come back as a value whose date() throws later.
void checkRange(const ptime& time) {
    static const ptime first(boost::gregorian::date(1400, 1, 1));
    static const ptime last(boost::gregorian::date(9999, 12, 31),
                            time_duration(23, 59, 59, 999999));
    if (time < first || time > last) throw boost::gregorian::bad_year();
}

}  // namespace

std::u16string toString(const std::string& text, bool isUtf8) {
    if (isUtf8) return fl::i18n::to_ustring(text);
    std::u16string wide;
    wide.reserve(text.size());
    for (const char c : text) wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
    return wide;
}

std::string toASCIIString(const std::u16string& text) {
    std::string narrow;
    narrow.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] > 0x7F) {
            throw Exception("non-ASCII character U+" + hex4(text[i]) + " at position " +
                            std::to_string(i) + " of a text that must be ASCII");
        }
        narrow.push_back(static_cast<char>(text[i]));
    }
    return narrow;
}

std::u16string convertTimeToString(const ptime& time) {
    if (time.is_not_a_date_time()) return std::u16string();
    if (time.is_special()) throw Exception("an infinite time has no xsd:dateTime form");
    const auto date = time.date();
    const time_duration day = time.time_of_day();
    char text[40];
    int n = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d",
                          static_cast<int>(date.year()), static_cast<int>(date.month()),
                          static_cast<int>(date.day()), static_cast<int>(day.hours()),
                          static_cast<int>(day.minutes()), static_cast<int>(day.seconds()));
    const long micro = static_cast<long>(day.total_microseconds() % 1000000);
    if (micro != 0) {
        n += std::snprintf(text + n, sizeof text - n, ".%06ld", micro);
        while (text[n - 1] == '0') --n;
    }
    text[n++] = 'Z';
    return std::u16string(text, text + n);
}

ptime convertStringToTime(const std::u16string& text) {
    const std::u16string collapsed = collapse(text);
    if (collapsed.empty()) return ptime(boost::date_time::not_a_date_time);
    const ptime time = DateTimeReader(collapsed).read();
    checkRange(time);
    return time;
}

}  // namespace opc
