// The platform stand-ins are exercised through the library's tests: the
// identifiers, the recursive registry lock, the access lock's read-write
// mutex and the case-blind names. Here the date conversion and its refusals.
#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

TEST(PlatformTest, DatesBecomeSecondsFrom1970AndImpossibleOnesAreRefused) {
  double value = -1;
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  EXPECT_EQ(value, 951868799.5);
  EXPECT_EQ(iDMY2Quor(31, 12, 1969, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, -86400.0);
  struct Date {
    long day, month, year, hour, minute;
    double second;
  };
  for (Date d : {Date{29, 2, 1900, 0, 0, 0}, Date{1, 13, 2000, 0, 0, 0}, Date{0, 1, 2000, 0, 0, 0},
                 Date{31, 4, 2000, 0, 0, 0}, Date{1, 1, 2000, 24, 0, 0}, Date{1, 1, 2000, 0, 60, 0},
                 Date{1, 1, 2000, 0, 0, 61}, Date{1, 1, 2000, 0, 0, -0.5}}) {
    EXPECT_EQ(iDMY2Quor(d.day, d.month, d.year, d.hour, d.minute, d.second, &value), 1)
        << d.day << "." << d.month << "." << d.year << " " << d.hour << ":" << d.minute << ":"
        << d.second;
    EXPECT_EQ(value, -86400.0);  // left alone
  }
}

}  // namespace
