#include <algorithm>
#include <stdexcept>

#include "csvreader.h"
#include "datasource.h"

struct SystemFileDataSource::Table {
  std::vector<std::vector<std::string>> rows;
  std::size_t width = 0;
};

namespace {
// Walks a file's rows. Holds the table itself, so it outlives the source.
class FileRowsIter : public ObsIterator {
 public:
  FileRowsIter(std::shared_ptr<SystemFileDataSource::Table const> table, OBS* obs)
      : table_(std::move(table)), obs_(obs) {}

  bool Next() override {
    if (next_ >= table_->rows.size()) return false;
    obs_->fields = table_->rows[next_];
    obs_->row = static_cast<long long>(next_);
    ++next_;
    return true;
  }

 private:
  // Set at construction.
  std::shared_ptr<SystemFileDataSource::Table const> table_;
  OBS* obs_;
  std::size_t next_ = 0;
};

// A column's type: 0 when every non-blank field is a number, else the width
// in bytes of its widest field, at least 1.
int ColumnType(std::vector<std::vector<std::string>> const& rows, std::size_t column) {
  bool numeric = true;
  std::size_t widest = 0;
  for (auto const& row : rows) {
    std::string const& field = row[column];
    widest = std::max(widest, field.size());
    if (numeric && field.find_first_not_of(" \t") != std::string::npos && !IsNumericField(field)) {
      numeric = false;
    }
  }
  if (numeric) return 0;
  return static_cast<int>(std::min<std::size_t>(std::max<std::size_t>(widest, 1), 0x7FFFFFFF));
}
}  // namespace

SystemFileDataSource::SystemFileDataSource()
    : QUOR_DataSource(nullptr), table_(std::make_shared<Table>()) {}

SystemFileDataSource::SystemFileDataSource(std::string const& path) : QUOR_DataSource(nullptr) {
  CsvTable csv = ReadCsvFile(path);
  auto table = std::make_shared<Table>();
  table->width = csv.names.size();
  for (std::size_t column = 0; column < csv.names.size(); ++column) {
    MakeVariable(QUOR_Variable(NewVariableID(), csv.names[column], ColumnType(csv.rows, column)),
                 nullptr);
  }
  table->rows = std::move(csv.rows);
  table_ = std::move(table);
  SetFileSpec(path.c_str());
  SetDirty(false);
}

SystemFileDataSource::~SystemFileDataSource() = default;

ObsIterator* SystemFileDataSource::MakeIterator(OBS* obs) const {
  if (obs == nullptr) throw std::invalid_argument("MakeIterator: no row to fill");
  return new FileRowsIter(table_, obs);
}

long SystemFileDataSource::GetObsAreaSize() const { return static_cast<long>(table_->width); }

long long SystemFileDataSource::RowCount() const {
  return static_cast<long long>(table_->rows.size());
}
