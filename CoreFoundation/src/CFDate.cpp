// Absolute times: seconds since 2001-01-01 00:00:00 UTC as a double. A date describes itself in UTC
// ("2001-01-01 00:00:00 +0000") with our own calendar arithmetic rather than the C library's, so that
// the text is the same whatever the process's time zone and never fails for years far outside the
// range of time_t conversions.
#include "CFRuntime.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

const CFTimeInterval kCFAbsoluteTimeIntervalSince1970 = 978307200.0;
const CFTimeInterval kCFAbsoluteTimeIntervalSince1904 = 3061152000.0;

namespace {

const __CFDate* date_of(CFDateRef date, const char* function) {
    return cf::cast<__CFDate>(date, kCFTypeIDDate, function);
}

// Proleptic Gregorian date of a day count from 1970-01-01 (valid for any int64 day count whose year
// fits in int64, which covers every value the caller passes).
void civil_from_days(int64_t days, int64_t& year, unsigned& month, unsigned& day) {
    days += 719468;
    int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    unsigned mp = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
}

}  // namespace

bool __CFDate::equal(const __CFObject* other) const {
    double b = static_cast<const __CFDate*>(other)->at;
    return at == b || (std::isnan(at) && std::isnan(b));
}

CFHashCode __CFDate::hash() const {
    if (std::isnan(at)) return 0x7ff8000000000000ULL;
    double t = at == 0.0 ? 0.0 : at;  // -0.0 and 0.0 are the same date
    return cf::hash_bytes(&t, sizeof t);
}

std::string __CFDate::describe() const {
    if (std::isnan(at)) return "nan";
    // Whole seconds since 1970, clamped so that the arithmetic below cannot overflow; such dates lie
    // hundreds of billions of years away and are only ever seen in hostile input.
    constexpr double kLimit = 1e17;
    double unixSeconds = std::floor(at) + kCFAbsoluteTimeIntervalSince1970;
    if (unixSeconds > kLimit) unixSeconds = kLimit;
    if (unixSeconds < -kLimit) unixSeconds = -kLimit;
    auto seconds = static_cast<int64_t>(unixSeconds);
    int64_t days = seconds / 86400, rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        days -= 1;
    }
    int64_t year;
    unsigned month, day;
    civil_from_days(days, year, month, day);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%s%04lld-%02u-%02u %02d:%02d:%02d +0000", year < 0 ? "-" : "",
                  static_cast<long long>(year < 0 ? -year : year), month, day, static_cast<int>(rest / 3600),
                  static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
    return buffer;
}

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Microsecond resolution: finer digits would only be noise in stored dates.
    double micros = std::floor(static_cast<double>(now.tv_nsec) / 1000.0);
    return static_cast<double>(now.tv_sec) - kCFAbsoluteTimeIntervalSince1970 + micros / 1e6;
}

CFTypeID CFDateGetTypeID(void) { return kCFTypeIDDate; }

CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime at) { return new __CFDate(at); }

CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef theDate) { return date_of(theDate, "CFDateGetAbsoluteTime")->at; }

CFTimeInterval CFDateGetTimeIntervalSinceDate(CFDateRef theDate, CFDateRef otherDate) {
    return date_of(theDate, "CFDateGetTimeIntervalSinceDate")->at -
           date_of(otherDate, "CFDateGetTimeIntervalSinceDate")->at;
}

CFComparisonResult CFDateCompare(CFDateRef theDate, CFDateRef otherDate, void*) {
    double a = date_of(theDate, "CFDateCompare")->at, b = date_of(otherDate, "CFDateCompare")->at;
    if (a < b) return kCFCompareLessThan;
    if (a > b) return kCFCompareGreaterThan;
    return kCFCompareEqualTo;
}
