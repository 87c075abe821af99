#include <exception>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

template <typename Thrown>
std::string Described(Thrown thrown, LocallyUniqueID id = LocallyUniqueID()) {
  return SvrDMDescribeFailure(id, std::make_exception_ptr(thrown));
}

TEST(FailuresTest, EachCaughtFailureReadsAsOneSentence) {
  LocallyUniqueID const id(0, 48);
  EXPECT_EQ(Described(ErrorMsg(kSvrDMUnknownDataSet, ""), id),
            "no dataset 0:48 is open (ErrorMsg 2001)");
  EXPECT_EQ(Described(ErrorMsg(2001, "")), "no dataset of that identifier is open (ErrorMsg 2001)");
  EXPECT_EQ(Described(kSvrDMLockNotAvailable),
            "the dataset is busy: a try for its access lock failed (55)");
  EXPECT_EQ(Described(55, id), "the dataset 0:48 is busy: a try for its access lock failed (55)");
  EXPECT_EQ(Described(ErrorMsg(2001, "gone")), "the data manager failed (ErrorMsg 2001: gone)");
  EXPECT_EQ(Described(ErrorMsg(7, "")), "the data manager failed (ErrorMsg 7)");
  EXPECT_EQ(Described(56), "a failure of unknown meaning (int 56)");
  EXPECT_EQ(Described(std::runtime_error("survey.csv, line 3: bad")), "survey.csv, line 3: bad");
  EXPECT_EQ(Described(2.5), "a failure of a type the data manager does not throw");
  EXPECT_EQ(SvrDMDescribeFailure(id), "no failure");  // outside a catch block
}

}  // namespace
