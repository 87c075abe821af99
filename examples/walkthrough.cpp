// The road of a dataset through the data manager, shown step by step: added
// from a data file, watched, read by two procedures at once, changed under
// write access, its changes turned into messages that a watcher applies to
// its own copy, refused access, its file changed behind the server's back,
// errors sent to a client, and a bootstrap record in its byte form.
//
//   sdm-walkthrough [--json] [data-file.csv]
//
// With --json every event is one JSON object per line, for tools.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

// Prints each event as a plain line, or as a JSON line.
class Output {
 public:
  explicit Output(bool json) : json_(json) {}

  void Section(std::string const& title) {
    section_ = title;
    if (!json_) std::cout << "\n== " << title << "\n";
  }
  void Event(std::string const& text) {
    if (!json_) {
      std::cout << "  " << text << "\n";
      return;
    }
    std::cout << "{\"step\":\"" << Escape(section_) << "\",\"text\":\"" << Escape(text) << "\"}\n";
  }

 private:
  static std::string Escape(std::string const& text) {
    std::string out;
    for (char c : text) {
      if (c == '"' || c == '\\') {
        out += '\\';
        out += c;
      } else if (static_cast<unsigned char>(c) < 0x20) {
        char buffer[8];
        std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
        out += buffer;
      } else {
        out += c;
      }
    }
    return out;
  }

  bool json_;
  std::string section_;
};

// An identifier as the messages print it: group:serial, or "none".
std::string Word(LocallyUniqueID id) {
  if (id.IsNone()) return "none";
  return std::to_string(id.group) + ":" + std::to_string(id.serial);
}

// One line for a dictionary: the client's copy or the live source.
std::string Describe(QUOR_DataSource const& dictionary) {
  std::ostringstream out;
  for (unsigned i = 0; i < dictionary.ColumnCount(); ++i) {
    QUOR_Variable const& variable = dictionary.GetVariable(static_cast<int>(i));
    out << (i ? " " : "") << variable.GetName() << ":" << variable.GetType();
  }
  out << " | weight " << Word(dictionary.GetWeightVariableID()) << ", filter "
      << Word(dictionary.GetFilterVariableID()) << ", split " << dictionary.GetNSplitVars()
      << ", label \"" << (dictionary.GetLabel() != nullptr ? dictionary.GetLabel() : "") << "\"";
  return out.str();
}

class RegistryWatcher : public ServerDataManagerObserver {
 public:
  explicit RegistryWatcher(Output& out) : out_(out) {}
  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    out_.Event("registry observer: dataset " + Word(id) + " created from " + fileName);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    out_.Event("registry observer: dataset " + Word(id) + " deleted");
  }

 private:
  Output& out_;
};

// A client of the dataset: prints the queue of each pass and applies it to
// its own copy of the dictionary, which it keeps from the messages alone.
class DatasetWatcher : public SvrDMDataSetObserver {
 public:
  explicit DatasetWatcher(Output& out) : out_(out) {}
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    for (DataSetMsg const* message : access->GetNotifications()) {
      if (!printing) break;
      std::ostringstream line;
      line << *message;
      out_.Event("message: " + line.str());
    }
    std::string const refused = copy.Apply(access->GetNotifications());
    if (!refused.empty()) out_.Event("THE CLIENT REFUSED " + refused);
  }
  // Joins at any point: under one read access, takes what the dataset's
  // watchers have been told so far and registers for what comes next.
  void Join(LocallyUniqueID id) {
    SvrDMItemPtr item = ServerDataManager::GetInstance().GetDataSet(id);
    SvrDMInputDataSource reader(item, false);
    copy.Seed(*item);
    item->Register(*this);
  }
  // Whether the copy agrees with the live dictionary, read under read access.
  std::string Check(LocallyUniqueID id) const {
    SvrDMInputDataSource reader(id, false);
    std::string const differences = copy.Differences(*reader);
    return differences.empty() ? "the copy equals the live dictionary"
                               : "THE COPY DIFFERS: " + differences;
  }

  SvrDMClientCopy copy;
  bool printing = false;

 private:
  Output& out_;
};

class PrintingChannel : public PackageProxy {
 public:
  explicit PrintingChannel(Output& out) : out_(out) {}
  void SendToClient(int32_t number, VSerializable& message) override {
    auto& error = dynamic_cast<ReportedErrorMsg&>(message);
    out_.Event("client channel " + std::to_string(number) + ": " + message.GetClassName() +
               " severity " + std::to_string(error.GetSeverity()) + ": " + error.GetText());
  }

 private:
  Output& out_;
};

std::string Hex(std::string const& bytes) {
  std::ostringstream out;
  for (unsigned char c : bytes)
    out << std::hex << std::setw(2) << std::setfill('0') << static_cast<int>(c);
  return out.str();
}

// Rewrites a bootstrap byte form in the other byte order, field by field,
// as a machine of the other kind would have written it.
std::string OtherByteOrder(std::string form) {
  std::size_t at = 0;
  auto swap = [&form, &at](std::size_t width) {
    for (std::size_t i = 0; i < width / 2; ++i) std::swap(form[at + i], form[at + width - 1 - i]);
    at += width;
  };
  auto count = [&form, &at]() {
    uint32_t n = 0;
    for (int i = 3; i >= 0; --i)
      n = (n << 8) | static_cast<unsigned char>(form[at + static_cast<std::size_t>(i)]);
    return n;  // read before the swap, in this machine's order
  };
  swap(2);                                // byte-order mark
  swap(4);                                // format version
  swap(4);                                // sampling method
  for (int list = 0; list < 6; ++list) {  // five variable lists and the auxiliary indices
    uint32_t n = count();
    swap(4);
    for (uint32_t i = 0; i < n; ++i) swap(4);
  }
  uint32_t pairs = count();
  swap(4);
  for (uint32_t i = 0; i < pairs; ++i) {
    swap(8);
    swap(4);
  }
  swap(8);      // level
  swap(4);      // interval type
  swap(4);      // sample count
  return form;  // the last byte needs no swap
}

// A private copy of the data file, so that touching it leaves the shipped
// sample alone.
std::string CopyToTemporary(std::string const& path, std::string& directory) {
  char pattern[] = "/tmp/sdm-walkthrough-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return std::string();
  directory = pattern;
  std::string copy = directory + "/data.csv";
  std::ifstream in(path, std::ios::binary);
  std::ofstream out(copy, std::ios::binary);
  out << in.rdbuf();
  return copy;
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false;
  std::string path = SDM_SAMPLE_DATA;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--json") {
      json = true;
    } else {
      path = arg;
    }
  }
  Output out(json);
  // Read the file first, so that a bad one is reported by its own name.
  try {
    SystemFileDataSource check(path);
    if (check.ColumnCount() < 3) {
      std::cerr << "sdm-walkthrough: " << path << " has " << check.ColumnCount()
                << " variables; the walkthrough needs three or more\n";
      return 1;
    }
  } catch (std::exception const& error) {
    std::cerr << "sdm-walkthrough: " << error.what() << "\n";
    return 1;
  }
  std::string directory;
  std::string const file = CopyToTemporary(path, directory);
  if (file.empty()) {
    std::cerr << "sdm-walkthrough: cannot make a temporary directory\n";
    return 1;
  }

  ServerDataManager& registry = ServerDataManager::GetInstance();
  RegistryWatcher registryWatcher(out);
  registry.Register(registryWatcher);

  out.Section("A dataset is added from " + path);
  auto* source = new SystemFileDataSource(file);
  LocallyUniqueID const id = registry.Add(*source, file, false);
  out.Event("dataset " + Word(id) + " holds " + std::to_string(source->ColumnCount()) +
            " variables and " + std::to_string(source->RowCount()) + " rows");

  DatasetWatcher watcher(out);
  SvrDMDataset(id).Register(watcher);
  { SvrDMWriteableDataSource first(id, false, nullptr); }  // the watcher is brought up to date

  out.Section("Two procedures read at once");
  {
    SvrDMInputDataSource reader1(id, false);
    SvrDMInputDataSource reader2(id, false);
    out.Event("readers: " + std::to_string(reader1.ReadersCount()) + ", first variable \"" +
              reader1->GetVariable(0).GetName() + "\"");
    out.Section("A writer that only tries is refused while a reader holds the dataset");
    try {
      SvrDMWriteableDataSource refused(id, true, nullptr);
    } catch (int code) {
      out.Event("try-writer refused with " + std::to_string(code));
    }
  }
  try {
    SvrDMInputDataSource unknown(LocallyUniqueID(0, 999), false);
  } catch (ErrorMsg const& error) {
    out.Event("unknown dataset refused with " + std::to_string(error.GetCode()));
  }

  out.Section("A procedure changes the dataset under write access");
  out.Event("watcher's copy before: " + Describe(watcher.copy.Dictionary()));
  watcher.printing = true;
  {
    SvrDMWriteableDataSource writer(id, false, nullptr);
    QUOR_DataSource& live = *writer;
    // Positions are taken from the file at hand, which has three or more
    // variables (checked when it was added).
    live.InsertVariable(1, QUOR_Variable(LocallyUniqueID(0, 100), "score"));
    int last = static_cast<int>(live.ColumnCount()) - 1;
    live.DeleteVariables(last, last);
    --last;
    QUOR_Variable moved = live.GetVariable(0);
    live.DeleteVariables(0, 0);
    live.InsertVariable(2, moved);
    live.GetVariable(1).SetName(live.GetVariable(1).GetName() + "_renamed");
    live.GetVariable(last).SetType(8);
    live.SetWeightVar(last - 1);
    live.SetFilterVar(last);
    int const split[] = {1};
    live.SetSplit(1, split, true);
    live.SetLabel("Cleaned copy");
    out.Event("live dictionary after the edits: " + Describe(live));
  }
  watcher.printing = false;
  out.Event("watcher's copy after:  " + Describe(watcher.copy.Dictionary()));
  out.Event(watcher.Check(id));

  out.Section("A second client joins late and goes on from what the first was told");
  DatasetWatcher late(out);
  late.Join(id);
  {
    SvrDMWriteableDataSource writer(id, false, nullptr);
    writer->SetLabel("Final copy");
  }
  out.Event("late client's copy: " + Describe(late.copy.Dictionary()));
  out.Event("late client: " + late.Check(id));
  out.Event("first client: " + watcher.Check(id));
  SvrDMDataset(id).Unregister(late);

  out.Section("The data file is touched behind the server's back");
  out.Event(std::string("changed before: ") +
            (registry.SavFileExternallyChanged(file) ? "yes" : "no"));
  struct timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
  utimes(file.c_str(), past);
  out.Event(std::string("changed after touching it: ") +
            (registry.SavFileExternallyChanged(file) ? "yes" : "no"));

  out.Section("Errors and warnings reach the client");
  PrintingChannel channel(out);
  SvrDMDataset handle(id);
  handle.InitializeErrorMonitor(&channel);
  ErrorText error;
  error.text = "variable income has no valid values";
  error.severity = 1;
  handle.GetErrorMonitor()->Report(error);
  ErrorText warning;
  warning.text = "weights below zero were treated as missing";
  warning.severity = 2;
  handle.GetErrorMonitor()->Report(warning);
  handle.InitializeErrorMonitor(nullptr);

  out.Section("A bootstrap record and its byte form");
  auto* specs = new SvrBootstrapSpecs();
  specs->SetSamplingMethod(SvrBootstrapSpecs::Stratified);
  specs->SetStrataVarList({1});
  specs->SetNSamples(500);
  handle.SetBootstrapSpecs(specs);
  std::ostringstream display;
  specs->Display(display);
  std::istringstream lines(display.str());
  for (std::string line; std::getline(lines, line);) out.Event(line);
  std::string form;
  SvrBootstrapSpecsSerializer::serializeSpecs(*specs, form);
  out.Event("byte form (" + std::to_string(form.size()) + " bytes): " + Hex(form));
  std::string const swapped = OtherByteOrder(form);
  out.Event("other byte order:             " + Hex(swapped));
  SvrBootstrapSpecs readBack;
  SvrBootstrapSpecsSerializer::deserializeSpecs(swapped, readBack);
  out.Event(std::string("read back from the other byte order: ") +
            (readBack.IdenticalTo(*specs) ? "identical" : "DIFFERENT"));

  out.Section("The dataset is deleted");
  SvrDMDataset(id).Unregister(watcher);
  registry.Delete(id);
  registry.Unregister(registryWatcher);
  std::remove(file.c_str());
  rmdir(directory.c_str());
  return 0;
}
