#include "platform.h"

#include <cctype>

CriticalSection::Lock::Lock(CriticalSection const& section) : section_(section) {
  section_.mutex_.lock();
}

CriticalSection::Lock::~Lock() { section_.mutex_.unlock(); }

FILE* ExtNameStr::fsopen(char const* mode, int /*share*/) const {
  if (name_.empty()) return nullptr;
  // "e": the descriptor must not leak into processes the server starts.
  std::string withCloexec = std::string(mode) + "e";
  return std::fopen(name_.c_str(), withCloexec.c_str());
}

int QUORMBstricmp_A(char const* a, char const* b) {
  for (;; ++a, ++b) {
    int ca = std::tolower(static_cast<unsigned char>(*a));
    int cb = std::tolower(static_cast<unsigned char>(*b));
    if (ca != cb) return ca < cb ? -1 : 1;
    if (ca == 0) return 0;
  }
}

namespace {
// Days from 1970-01-01 to the given proleptic Gregorian date (H. Hinnant's
// civil-from-days inverse), exact for years within a few hundred billion of
// the epoch, far beyond any clock's.
long long DaysFromCivil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  long long const era = (y >= 0 ? y : y - 399) / 400;
  unsigned const yoe = static_cast<unsigned>(y - era * 400);
  unsigned const doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  unsigned const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

bool IsLeap(long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

long DaysInMonth(long year, long month) {
  static long const kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}
}  // namespace

int iDMY2Quor(long day, long month, long year, long hour, long minute, double second,
              double* result) {
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) return 1;
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !(second >= 0.0 && second < 61.0)) {
    return 1;
  }
  long long days = DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
  *result =
      static_cast<double>(days) * 86400.0 + static_cast<double>(hour * 3600 + minute * 60) + second;
  return 0;
}
