// The comma-separated text reader behind SystemFileDataSource. Internal to
// the stand-ins.
#ifndef SDM_STANDINS_CSVREADER_H
#define SDM_STANDINS_CSVREADER_H

#include <string>
#include <vector>

struct CsvTable {
  std::vector<std::string> names;
  std::vector<std::vector<std::string>> rows;
};

// Parses `text` (RFC 4180: fields may be quoted, a quoted field may hold
// commas, doubled quotes and line ends; lines end in LF, CRLF or CR). The
// first line names the columns; every later non-empty line is one row with as
// many fields. Throws std::runtime_error "<source>, line <n>: <fault>".
CsvTable ParseCsv(std::string const& text, std::string const& source);

// Reads the whole file and parses it; the file name stands for the source.
CsvTable ReadCsvFile(std::string const& path);

// Whether the field, without surrounding blanks, is a finite decimal number.
bool IsNumericField(std::string const& field);

#endif  // SDM_STANDINS_CSVREADER_H
