// The platform services the library calls: case-blind names, the date
// conversion and its refusals, and opening a data file.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "ServerDataManager.h"

namespace {

TEST(PlatformTest, DatesBecomeSecondsFrom1970AndImpossibleOnesAreRefused) {
  double value = -1;
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  EXPECT_EQ(value, 951868799.5);
  EXPECT_EQ(iDMY2Quor(31, 12, 1969, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, -86400.0);
  // Day, month, year, hour, minute, second.
  double const impossible[][6] = {{29, 2, 1900, 0, 0, 0}, {1, 13, 2000, 0, 0, 0},
                                  {0, 1, 2000, 0, 0, 0},  {31, 4, 2000, 0, 0, 0},
                                  {1, 1, 2000, 24, 0, 0}, {1, 1, 2000, 0, 60, 0},
                                  {1, 1, 2000, 0, 0, 61}, {1, 1, 2000, 0, 0, -0.5}};
  for (auto const& d : impossible) {
    EXPECT_EQ(iDMY2Quor(long(d[0]), long(d[1]), long(d[2]), long(d[3]), long(d[4]), d[5], &value),
              1)
        << d[0] << "." << d[1] << "." << d[2] << " " << d[3] << ":" << d[4] << ":" << d[5];
  }
  EXPECT_EQ(value, -86400.0);  // left alone
}

TEST(PlatformTest, NamesCompareBlindToCaseAndFilesOpenClosedOnExec) {
  EXPECT_EQ(QUORMBstricmp_A("Survey.CSV", "sURVEY.csv"), 0);
  EXPECT_LT(QUORMBstricmp_A("a", "B"), 0);
  EXPECT_GT(QUORMBstricmp_A("ab", "A"), 0);
  ExtNameStr name;
  EXPECT_EQ(name.fsopen("r", 32), nullptr);
  name.SetGeneric(SDM_EXAMPLES_DATA_DIR "/no such file.csv");
  EXPECT_EQ(name.fsopen("r", 32), nullptr);
  name.SetGeneric(SDM_EXAMPLES_DATA_DIR "/survey.csv");
  FILE* file = name.fsopen("r", 32);
  ASSERT_NE(file, nullptr);
  EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0);
  std::fclose(file);
}

}  // namespace
