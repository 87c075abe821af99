#include "csvreader.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <system_error>

namespace {

// One pass over the text, record by record. Line numbers count physical
// lines, so a quoted field that spans lines moves them on, and an error names
// the line a reader would look at in an editor.
class CsvParser {
 public:
  CsvParser(std::string const& text, std::string const& source) : text_(text), source_(source) {
    // A byte-order mark is how some editors start a UTF-8 file; it is no part
    // of the first name.
    if (text_.compare(0, 3, "\xEF\xBB\xBF") == 0) pos_ = 3;
  }

  CsvTable Parse() {
    CsvTable table;
    if (AtEnd()) Fail(1, "the file is empty; the first line must name the variables");
    if (AtLineEnd()) Fail(1, "the header line is empty; it must name the variables");
    table.names = ReadRecord();
    CheckNames(table.names);
    while (!AtEnd()) {
      // Empty lines between or after rows are no rows: an editor leaves them
      // easily, and a row of one empty field can be written as "".
      if (AtLineEnd()) {
        SkipLineEnd();
        continue;
      }
      long const recordLine = line_;
      std::vector<std::string> row = ReadRecord();
      if (row.size() != table.names.size()) {
        Fail(recordLine, "the row has " + Count(row.size(), "field") + " but the header has " +
                             Count(table.names.size(), "variable"));
      }
      table.rows.push_back(std::move(row));
    }
    return table;
  }

 private:
  bool AtEnd() const { return pos_ >= text_.size(); }
  bool AtLineEnd() const { return !AtEnd() && (text_[pos_] == '\n' || text_[pos_] == '\r'); }

  void SkipLineEnd() {
    if (text_[pos_] == '\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n') ++pos_;
    ++pos_;
    ++line_;
  }

  // Reads fields up to and including the end of the line (or the text).
  std::vector<std::string> ReadRecord() {
    std::vector<std::string> fields;
    for (;;) {
      std::size_t const column = fields.size() + 1;
      fields.push_back(AtEnd() || text_[pos_] != '"' ? ReadPlain(column) : ReadQuoted(column));
      if (AtEnd()) break;
      if (text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      SkipLineEnd();
      break;
    }
    return fields;
  }

  std::string ReadPlain(std::size_t column) {
    std::size_t const start = pos_;
    while (!AtEnd() && text_[pos_] != ',' && !AtLineEnd()) {
      if (text_[pos_] == '"') {
        Fail(line_, "a quote inside field " + std::to_string(column) +
                        ", which does not start with a quote");
      }
      ++pos_;
    }
    return text_.substr(start, pos_ - start);
  }

  std::string ReadQuoted(std::size_t column) {
    long const openLine = line_;
    ++pos_;  // the opening quote
    std::string field;
    for (;;) {
      if (AtEnd()) {
        Fail(openLine, "the quoted field " + std::to_string(column) +
                           " that starts here is not closed before the end of the file");
      }
      char const c = text_[pos_];
      if (c == '"') {
        if (pos_ + 1 < text_.size() && text_[pos_ + 1] == '"') {
          field.push_back('"');
          pos_ += 2;
          continue;
        }
        ++pos_;
        break;
      }
      // Line ends inside quotes belong to the field, but still count lines.
      if (c == '\n' || (c == '\r' && (pos_ + 1 >= text_.size() || text_[pos_ + 1] != '\n'))) {
        ++line_;
      }
      field.push_back(c);
      ++pos_;
    }
    if (!AtEnd() && text_[pos_] != ',' && !AtLineEnd()) {
      Fail(line_, "text after the closing quote of field " + std::to_string(column) +
                      "; a quote inside a quoted field must be doubled");
    }
    return field;
  }

  void CheckNames(std::vector<std::string> const& names) const {
    std::set<std::string> seen;
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (names[i].empty()) {
        Fail(1, "the header names no variable in column " + std::to_string(i + 1));
      }
      if (!seen.insert(names[i]).second) {
        Fail(1, "the header names the variable \"" + names[i] + "\" twice");
      }
    }
  }

  static std::string Count(std::size_t n, char const* noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
  }

  [[noreturn]] void Fail(long line, std::string const& what) const {
    throw std::runtime_error(source_ + ", line " + std::to_string(line) + ": " + what);
  }

  std::string const& text_;
  std::string const& source_;
  std::size_t pos_ = 0;
  long line_ = 1;
};

}  // namespace

CsvTable ParseCsv(std::string const& text, std::string const& source) {
  return CsvParser(text, source).Parse();
}

CsvTable ReadCsvFile(std::string const& path) {
  std::FILE* file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) {
    throw std::runtime_error(path + ": cannot open the file (" + std::strerror(errno) + ")");
  }
  std::string text;
  char buffer[1 << 16];
  std::size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
  bool const failed = std::ferror(file) != 0;
  int const error = errno;
  std::fclose(file);
  if (failed) {
    throw std::runtime_error(path + ": cannot read the file (" + std::strerror(error) + ")");
  }
  return ParseCsv(text, path);
}

bool IsNumericField(std::string const& field) {
  std::size_t begin = field.find_first_not_of(" \t");
  if (begin == std::string::npos) return false;
  std::size_t const end = field.find_last_not_of(" \t") + 1;
  // from_chars takes no plus sign; a data file may well carry one.
  if (field[begin] == '+' && begin + 1 < end && field[begin + 1] != '-') ++begin;
  double value = 0.0;
  char const* first = field.data() + begin;
  char const* last = field.data() + end;
  auto const result = std::from_chars(first, last, value, std::chars_format::general);
  return result.ec == std::errc() && result.ptr == last && std::isfinite(value);
}
