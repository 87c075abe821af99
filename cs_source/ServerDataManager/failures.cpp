#include "failures.h"

#include <ostream>
#include <sstream>

std::ostream& operator<<(std::ostream& out, LocallyUniqueID id) {
  if (id.IsNone()) return out << "none";
  return out << id.group << ':' << id.serial;
}

std::ostream& operator<<(std::ostream& out, ErrorMsg const& error) {
  out << "ErrorMsg " << error.GetCode();
  if (!error.GetText().empty()) out << ": " << error.GetText();
  return out;
}

std::string SvrDMDescribeFailure(LocallyUniqueID dataSetID, std::exception_ptr failure) {
  std::ostringstream out;
  // Names the dataset where the caller knows it: neither thrown value does.
  auto dataset = [&out, dataSetID](char const* unnamed) -> std::ostream& {
    if (dataSetID.IsNone()) return out << unnamed;
    return out << "dataset " << dataSetID;
  };
  if (!failure) return "no failure";
  // Rethrown to recover its type: an exception_ptr offers no other way.
  try {
    std::rethrow_exception(failure);
  } catch (ErrorMsg const& error) {
    if (error.GetCode() == kSvrDMUnknownDataSet && error.GetText().empty()) {
      out << "no ";
      dataset("dataset of that identifier") << " is open (" << error << ")";
    } else {
      out << "the data manager failed (" << error << ")";
    }
  } catch (int code) {
    if (code == kSvrDMLockNotAvailable) {
      out << "the ";
      dataset("dataset") << " is busy: a try for its access lock failed (" << code << ")";
    } else {
      out << "a failure of unknown meaning (int " << code << ")";
    }
  } catch (std::exception const& error) {
    out << error.what();
  } catch (...) {
    out << "a failure of a type the data manager does not throw";
  }
  return out.str();
}
