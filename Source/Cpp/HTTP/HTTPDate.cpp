#include "HTTP/HTTPDate.h"

#include <cstdint>
#include <cstring>
#include <strings.h>

namespace NVQ
{

namespace
{

const char c_days[7][4] = {"Thu", "Fri", "Sat", "Sun", "Mon", "Tue", "Wed"}; // from 1970-01-01
const char c_months[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar, and
// back. Our own arithmetic: timegm and gmtime_r would do, but the first is
// not standard and neither may be trusted with years past 2038 on every
// device C library.
int64_t daysFromCivil(int64_t year, int month, int day)
{
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

void civilFromDays(int64_t days, int64_t &year, int &month, int &day)
{
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
}

void putDigits(char *out, int64_t value, int count)
{
    for (int i = count - 1; i >= 0; --i, value /= 10)
        out[i] = static_cast<char>('0' + value % 10);
}

// A cursor over the text being parsed; every step fails once one failed.
class CReader
{
  public:
    explicit CReader(const KZF::tstring &text) : m_p(text.data()), m_end(text.data() + text.size()) {}

    bool Literal(const char *literal)
    {
        const size_t length = std::strlen(literal);
        if (m_ok && static_cast<size_t>(m_end - m_p) >= length && std::memcmp(m_p, literal, length) == 0)
            m_p += length;
        else
            m_ok = false;
        return m_ok;
    }
    // Exactly `count` digits, or with `leadingBlank` a space in place of the
    // first one (asctime's day of the month).
    int Digits(int count, bool leadingBlank = false)
    {
        int value = 0;
        for (int i = 0; i < count; ++i) {
            const bool blank = leadingBlank && i == 0 && m_ok && m_p < m_end && *m_p == ' ';
            if (!m_ok || m_p >= m_end || (!blank && (*m_p < '0' || *m_p > '9'))) {
                m_ok = false;
                return 0;
            }
            value = value * 10 + (blank ? 0 : *m_p - '0');
            ++m_p;
        }
        return value;
    }
    // A month name, 1 to 12.
    int Month()
    {
        for (int i = 0; m_ok && i < 12 && m_end - m_p >= 3; ++i) {
            if (std::memcmp(m_p, c_months[i], 3) == 0) {
                m_p += 3;
                return i + 1;
            }
        }
        m_ok = false;
        return 0;
    }
    // hh:mm:ss, in seconds.
    int64_t Clock()
    {
        const int hours = Digits(2);
        Literal(":");
        const int minutes = Digits(2);
        Literal(":");
        const int seconds = Digits(2);
        // 60 is a leap second, as RFC 5322 allows it.
        m_ok = m_ok && hours < 24 && minutes < 60 && seconds <= 60;
        return hours * 3600 + minutes * 60 + seconds;
    }
    bool Ok() const { return m_ok; }
    bool AtEnd() const { return m_ok && m_p == m_end; }
    const char *Position() const { return m_p; }
    void Skip(const char *to) { m_p = to; }

  private:
    const char *m_p;
    const char *m_end;
    bool m_ok = true;
};

bool daysInMonthHold(int64_t year, int month, int day)
{
    static const int c_lengths[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day >= 1 && day <= c_lengths[month - 1] && (month != 2 || day <= 28 || leap);
}

} // namespace

bool CHTTPDate::Format(time_t time, char (&out)[c_length + 1])
{
    const int64_t seconds = static_cast<int64_t>(time);
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    int64_t year;
    int month, day;
    civilFromDays(days, year, month, day);
    if (year < 0 || year > 9999)
        return false;
    std::memcpy(out, c_days[((days % 7) + 7) % 7], 3);
    std::memcpy(out + 3, ", ", 2);
    putDigits(out + 5, day, 2);
    out[7] = ' ';
    std::memcpy(out + 8, c_months[month - 1], 3);
    out[11] = ' ';
    putDigits(out + 12, year, 4);
    out[16] = ' ';
    putDigits(out + 17, rest / 3600, 2);
    out[19] = ':';
    putDigits(out + 20, rest / 60 % 60, 2);
    out[22] = ':';
    putDigits(out + 23, rest % 60, 2);
    std::memcpy(out + 25, " GMT", 5);
    return true;
}

bool CHTTPDate::Parse(const KZF::tstring &text, time_t &time)
{
    CReader reader(text);
    int64_t year = 0;
    int month = 0, day = 0;
    int64_t clock = 0;
    const size_t comma = text.find(',');
    if (comma == 3) {
        // IMF-fixdate: "Sun, 06 Nov 1994 08:49:37 GMT"
        reader.Skip(text.data() + 4);
        reader.Literal(" ");
        day = reader.Digits(2);
        reader.Literal(" ");
        month = reader.Month();
        reader.Literal(" ");
        year = reader.Digits(4);
        reader.Literal(" ");
        clock = reader.Clock();
        reader.Literal(" GMT");
    } else if (comma != KZF::tstring::npos && comma >= 6 && comma <= 9) {
        // RFC 850: "Sunday, 06-Nov-94 08:49:37 GMT". Its two-digit year is
        // the one nearest to now, never more than 50 years ahead.
        reader.Skip(text.data() + comma + 1);
        reader.Literal(" ");
        day = reader.Digits(2);
        reader.Literal("-");
        month = reader.Month();
        reader.Literal("-");
        year = reader.Digits(2);
        reader.Literal(" ");
        clock = reader.Clock();
        reader.Literal(" GMT");
        int64_t nowYear;
        int nowMonth, nowDay;
        civilFromDays(static_cast<int64_t>(::time(nullptr)) / 86400, nowYear, nowMonth, nowDay);
        year += nowYear - nowYear % 100;
        if (year > nowYear + 50)
            year -= 100;
        else if (year <= nowYear - 50)
            year += 100;
    } else {
        // asctime: "Sun Nov  6 08:49:37 1994"
        if (text.size() < 4 || text[3] != ' ')
            return false;
        reader.Skip(text.data() + 4);
        month = reader.Month();
        reader.Literal(" ");
        day = reader.Digits(2, true);
        reader.Literal(" ");
        clock = reader.Clock();
        reader.Literal(" ");
        year = reader.Digits(4);
    }
    if (!reader.AtEnd() || !daysInMonthHold(year, month, day))
        return false;
    const int64_t seconds = daysFromCivil(year, month, day) * 86400 + clock;
    if (sizeof(time_t) < sizeof(int64_t) && static_cast<int64_t>(static_cast<time_t>(seconds)) != seconds)
        return false;
    time = static_cast<time_t>(seconds);
    return true;
}

} // namespace NVQ
