#include "retry_after.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <iterator>
#include <system_error>

namespace xfer {
namespace {

using Names = std::array<std::string_view, 7>;

constexpr Names kDays{"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
constexpr Names kLongDays{"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
constexpr std::array<std::string_view, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool allDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Takes a date apart from left to right.  Once a part does not fit, it has failed and every later call does nothing.
class DateReader {
 public:
  explicit DateReader(std::string_view text) : rest_(text) {}

  void skip(std::string_view text) {
    if (!rest_.starts_with(text)) return fail();
    rest_.remove_prefix(text.size());
  }

  template <class Names>
  unsigned name(const Names& names) {
    const auto found = std::find_if(names.begin(), names.end(), [&](auto name) { return rest_.starts_with(name); });
    if (found == names.end()) {
      fail();
      return 0;
    }
    rest_.remove_prefix(found->size());
    return static_cast<unsigned>(std::distance(names.begin(), found));
  }

  unsigned number(std::size_t digits) {
    const std::string_view text = rest_.substr(0, digits);
    if (text.size() < digits || !allDigits(text)) {
      fail();
      return 0;
    }
    unsigned value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    rest_.remove_prefix(digits);
    return value;
  }

  void month() { month_ = name(kMonths) + 1; }

  // As asctime writes it: one digit has a blank before it.
  void paddedDay() {
    const bool padded = rest_.starts_with(' ');
    if (padded) skip(" ");
    day_ = number(padded ? 1 : 2);
  }

  void day() { day_ = number(2); }
  void year() { year_ = static_cast<int>(number(4)); }

  void shortYear(std::int64_t nearUnixTime) {
    using std::chrono::floor;
    const auto near = floor<std::chrono::days>(std::chrono::sys_seconds(std::chrono::seconds(nearUnixTime)));
    const int nearYear = static_cast<int>(std::chrono::year_month_day(near).year());
    year_ = nearYear - nearYear % 100 + static_cast<int>(number(2));
    if (year_ > nearYear + 50) year_ -= 100;
    if (year_ < nearYear - 49) year_ += 100;
  }

  void time() {
    const unsigned hours = number(2);
    skip(":");
    const unsigned minutes = number(2);
    skip(":");
    const unsigned seconds = number(2);
    if (hours > 23 || minutes > 59 || seconds > 60) fail();  // 60: a leap second
    time_ = std::chrono::hours(hours) + std::chrono::minutes(minutes) + std::chrono::seconds(seconds);
  }

  /// Nothing when a part did not fit, something is left, or there is no such day.
  [[nodiscard]] std::optional<std::int64_t> unixTime() const {
    const std::chrono::year_month_day date{std::chrono::year(year_), std::chrono::month(month_),
                                           std::chrono::day(day_)};
    if (failed_ || !rest_.empty() || !date.ok()) return std::nullopt;
    return (std::chrono::sys_days(date).time_since_epoch() + time_).count();
  }

 private:
  void fail() { failed_ = true; }

  std::string_view rest_;
  bool failed_ = false;
  int year_ = 0;
  unsigned month_ = 0;
  unsigned day_ = 0;
  std::chrono::seconds time_{0};
};

std::optional<std::int64_t> parseCurrentForm(std::string_view text) {
  DateReader date(text);
  date.name(kDays);
  date.skip(", ");
  date.day();
  date.skip(" ");
  date.month();
  date.skip(" ");
  date.year();
  date.skip(" ");
  date.time();
  date.skip(" GMT");
  return date.unixTime();
}

std::optional<std::int64_t> parseLongDayForm(std::string_view text, std::int64_t nearUnixTime) {
  DateReader date(text);
  date.name(kLongDays);
  date.skip(", ");
  date.day();
  date.skip("-");
  date.month();
  date.skip("-");
  date.shortYear(nearUnixTime);
  date.skip(" ");
  date.time();
  date.skip(" GMT");
  return date.unixTime();
}

std::optional<std::int64_t> parseAsctimeForm(std::string_view text) {
  DateReader date(text);
  date.name(kDays);
  date.skip(" ");
  date.month();
  date.skip(" ");
  date.paddedDay();
  date.skip(" ");
  date.time();
  date.skip(" ");
  date.year();
  return date.unixTime();
}

std::uint64_t parseSeconds(std::string_view digits) {
  std::uint64_t seconds = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), seconds);
  return parsed.ec == std::errc() ? std::min(seconds, kLongestRetryAfterSec) : kLongestRetryAfterSec;
}

}  // namespace

std::optional<std::int64_t> parseHttpDate(std::string_view text, std::int64_t nearUnixTime) {
  if (const auto time = parseCurrentForm(text)) return time;
  if (const auto time = parseLongDayForm(text, nearUnixTime)) return time;
  return parseAsctimeForm(text);
}

std::optional<std::uint64_t> retryAfterSec(const ResponseHead& head, std::int64_t localUnixTime) {
  if (allDigits(head.retryAfter)) return parseSeconds(head.retryAfter);
  const auto until = parseHttpDate(head.retryAfter, localUnixTime);
  if (!until) return std::nullopt;
  const std::int64_t from = parseHttpDate(head.date, localUnixTime).value_or(localUnixTime);
  if (*until <= from) return 0;
  return std::min(static_cast<std::uint64_t>(*until) - static_cast<std::uint64_t>(from), kLongestRetryAfterSec);
}

}  // namespace xfer
