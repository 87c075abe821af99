// Fails every allocation of an operation in turn and checks what is promised
// to survive. Each scenario runs with k = 1, 2, 3, ... until a run completes
// with no injected failure, once with only the k-th allocation failing and
// once with every allocation from the k-th on failing. After each run the
// injector is off again, the surviving state is checked, the objects are
// used once more, and everything is released: no data source, message
// block, ordinary block or file descriptor may be left over.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/bootstrap_fields.h"
#include "support/failing_new.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"
#include "support/watcher_model.h"

namespace {

using failing_new::Mode;

char const* ModeName(Mode mode) { return mode == Mode::kTransient ? "transient" : "persistent"; }

// One operation driven through every injection point. Prepare builds a fresh
// state with the injector off, Act runs armed, the checks and Finish run
// disarmed.
class Scenario {
 public:
  virtual ~Scenario() = default;
  virtual void Prepare() = 0;
  virtual void Act() = 0;
  // Act threw std::bad_alloc: what the operation promises survives.
  virtual void CheckFailed() = 0;
  // Act returned, possibly with a failure absorbed on the way.
  virtual void CheckSucceeded() = 0;
  // Either way, the objects involved still work.
  virtual void CheckStillWorks() = 0;
  // Releases everything Prepare built.
  virtual void Finish() = 0;
};

struct RunResult {
  long counted = 0;
  long failed = 0;
  bool threw = false;
};

typedef std::function<std::unique_ptr<Scenario>()> ScenarioFactory;

// One run with the k-th allocation failing (k = 0: none), on a scenario of
// its own. Everything that the run made must be gone by its end.
RunResult RunOnce(ScenarioFactory const& make, long k, Mode mode) {
  long const sources = TrackedSource::Live();
  long const messageBlocks = VUGlobal::LiveBlocks();
  long const blocks = failing_new::LiveBlocks();
  int const descriptors = CountOpenDescriptors();

  RunResult result;
  {
    std::unique_ptr<Scenario> scenario = make();
    scenario->Prepare();
    failing_new::Arm(k, mode);
    try {
      scenario->Act();
    } catch (std::bad_alloc const&) {
      result.threw = true;
    }
    failing_new::Disarm();
    result.counted = failing_new::Counted();
    result.failed = failing_new::Failed();

    if (result.threw) {
      EXPECT_GT(result.failed, 0) << "std::bad_alloc with no injected failure";
      scenario->CheckFailed();
    } else {
      scenario->CheckSucceeded();
    }
    scenario->CheckStillWorks();
    scenario->Finish();
  }

  EXPECT_EQ(TrackedSource::Live(), sources) << "data sources left over";
  EXPECT_EQ(TrackedSource::DoubleDestroyed(), 0) << "a data source was destroyed twice";
  EXPECT_EQ(VUGlobal::LiveBlocks(), messageBlocks) << "message blocks left over";
  EXPECT_EQ(CountOpenDescriptors(), descriptors) << "file descriptors left open";
  // Last, and only while all is well: a failed expectation keeps its text.
  if (!::testing::Test::HasFailure()) {
    EXPECT_EQ(failing_new::LiveBlocks(), blocks) << "ordinary blocks left over";
  }
  return result;
}

struct SweepFigures {
  long points = 0;     // allocations of a run that fails nothing
  long threw = 0;      // runs that ended in std::bad_alloc
  long absorbed = 0;   // runs whose failure did not reach the caller
};

// Runs the scenario for k = 1, 2, ... until a run makes no allocation fail,
// after a first run that fails nothing (which also builds whatever the
// libraries make once per process, so that it does not count as a leak).
SweepFigures Sweep(std::string const& name, ScenarioFactory const& make, Mode mode) {
  constexpr long kMostPoints = 20000;
  SweepFigures figures;
  RunResult reference = RunOnce(make, 0, mode);
  EXPECT_FALSE(reference.threw) << name << ": fails with nothing injected";
  if (::testing::Test::HasFailure()) return figures;

  for (long k = 1; k <= kMostPoints; ++k) {
    SCOPED_TRACE(name + " " + ModeName(mode) + ", allocation " + std::to_string(k) + " failing");
    RunResult run = RunOnce(make, k, mode);
    if (::testing::Test::HasFailure()) return figures;
    if (run.failed == 0) {
      figures.points = run.counted;
      EXPECT_EQ(run.counted, reference.counted) << "allocations differ from the reference run";
      std::printf("[ injection ] %-34s %-10s %4ld points, %4ld runs threw, %4ld absorbed\n",
                  name.c_str(), ModeName(mode), figures.points, figures.threw, figures.absorbed);
      std::fflush(stdout);
      return figures;
    }
    if (run.threw) {
      ++figures.threw;
    } else {
      ++figures.absorbed;
    }
  }
  ADD_FAILURE() << name << ": more than " << kMostPoints << " allocations";
  return figures;
}

template <typename S, typename... Args>
void SweepBothModes(std::string const& name, Args... args) {
  ScenarioFactory make = [=] { return std::unique_ptr<Scenario>(new S(args...)); };
  SweepFigures transient = Sweep(name, make, Mode::kTransient);
  SweepFigures persistent = Sweep(name, make, Mode::kPersistent);
  if (!::testing::Test::HasFailure()) {
    EXPECT_EQ(transient.points, persistent.points);
  }
}

// The registry lock is recursive, so a lock left held by this thread would
// not stop this thread: ask from another one, with a bound.
void ExpectRegistryFreeForOtherThreads(ServerDataManager& registry, LocallyUniqueID id) {
  std::atomic<int> state{0};  // 0 waiting, 1 found, 2 threw 2001
  std::thread other([&] {
    try {
      (void)registry.GetDataSet(id);
      state = 1;
    } catch (ErrorMsg const& error) {
      state = error.GetCode() == 2001 ? 2 : 3;
    }
  });
  for (int waited = 0; state == 0 && waited < 10000; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (state == 0) {
    std::fprintf(stderr, "the registry lock was left held after an exception\n");
    std::abort();
  }
  other.join();
  EXPECT_NE(state.load(), 3);
}

// Records registry notices the way a server's observer might, allocating as
// it goes, and notes on entry and on return which dataset each call was
// about, so that a check knows whether a failure came from inside it.
class NoticeLog : public ServerDataManagerObserver {
 public:
  static constexpr uint32_t kNobody = LocallyUniqueID::kNone;

  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    createdEntered = id.ToWord();
    created.push_back(std::to_string(id.ToWord()) + " " + fileName);
    createdReturned = id.ToWord();
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    deletedEntered = id.ToWord();
    deleted.push_back(std::to_string(id.ToWord()));
    deletedReturned = id.ToWord();
  }
  void Reset() {
    created.clear();
    deleted.clear();
    createdEntered = createdReturned = deletedEntered = deletedReturned = kNobody;
  }
  bool ThrewInCreated(LocallyUniqueID id) const {
    return createdEntered == id.ToWord() && createdReturned != id.ToWord();
  }
  bool ThrewInDeleted(LocallyUniqueID id) const {
    return deletedEntered == id.ToWord() && deletedReturned != id.ToWord();
  }

  std::vector<std::string> created;
  std::vector<std::string> deleted;
  uint32_t createdEntered = kNobody;
  uint32_t createdReturned = kNobody;
  uint32_t deletedEntered = kNobody;
  uint32_t deletedReturned = kNobody;
};

// A registry with three datasets before each run: one holding a data file,
// one silent, one empty. Identifiers 0, 16 and 32, so the counter stands at 3.
class RegistryScenario : public Scenario {
 public:
  RegistryScenario() : heldFile(dir.Write("held-data-file-of-the-first-dataset.csv", "a,b\n1,2\n")) {}

  void Prepare() override {
    registry.reset(new ServerDataManager);
    log.Reset();
    registry->Register(log);
    existing = {registry->Add(*TrackedSource::Chain(2), heldFile, false),
                registry->Add(*TrackedSource::Chain(1), "", true), registry->AddEmpty(false)};
    existingItems.clear();
    for (LocallyUniqueID id : existing) existingItems.push_back(registry->GetDataSet(id).get());
    log.Reset();
  }

  void Finish() override {
    registry->Clear();
    registry.reset();
    // The notices are checked by now; what they hold would count as a leak.
    log.Reset();
  }

 protected:
  // Dataset i of Prepare is still the same item under its identifier.
  void ExpectExisting(std::size_t i) {
    SvrDMItemPtr item = registry->GetDataSet(existing[i]);
    EXPECT_EQ(item.get(), existingItems[i]) << "dataset " << i << " was replaced";
  }
  void ExpectAbsent(LocallyUniqueID id) {
    try {
      (void)registry->GetDataSet(id);
      ADD_FAILURE() << "dataset " << id.ToWord() << " is in the table";
    } catch (ErrorMsg const& error) {
      EXPECT_EQ(error.GetCode(), 2001u);
    }
  }
  // The next generated identifier has serial `serial`, and a dataset added
  // now can be found, used and removed again.
  void ExpectRegistryWorks(uint32_t serial) {
    TrackedSource* source = TrackedSource::Chain(2);
    LocallyUniqueID id = registry->Add(*source, "", false);
    EXPECT_EQ(id, LocallyUniqueID(0, serial)) << "the identifier counter moved wrongly";
    SvrDMItemPtr item = registry->GetDataSet(id);
    EXPECT_EQ(item->dataSource, source);
    EXPECT_TRUE(item->createNotified);
    item = nullptr;
    ExpectRegistryFreeForOtherThreads(*registry, id);
    registry->Delete(id);
    ExpectAbsent(id);
  }

  ScratchDir dir;
  std::string heldFile;
  std::unique_ptr<ServerDataManager> registry;
  NoticeLog log;
  std::vector<LocallyUniqueID> existing;
  std::vector<SvrDMItem*> existingItems;
};

// ---------------------------------------------------------------------------
// The four ways of adding a dataset.

enum class Way { kAdd, kAddWithPassword, kAddWithIdentifier, kAddEmpty };

class AddScenario : public RegistryScenario {
 public:
  explicit AddScenario(Way way)
      : way_(way), unheldFile_(dir.Write("a-second-data-file-with-a-long-name.csv", "x\n1\n")) {}

  void Prepare() override {
    RegistryScenario::Prepare();
    returned_ = LocallyUniqueID();
    sourcesBefore_ = TrackedSource::Live();
    source_ = way_ == Way::kAddEmpty ? nullptr : TrackedSource::Chain(3, 2, 100);
    switch (way_) {
      case Way::kAdd:
        // A file nobody holds yet: the new item opens it.
        file_ = unheldFile_;
        break;
      case Way::kAddWithPassword: {
        // The first dataset's file in other case: the new item keeps the
        // name aside and holds nothing.
        file_ = heldFile;
        std::size_t slash = file_.rfind('/');
        for (std::size_t i = slash + 1; i < file_.size(); ++i) file_[i] = static_cast<char>(toupper(file_[i]));
        break;
      }
      case Way::kAddWithIdentifier:
        // Replaces the first dataset and takes over its file.
        file_ = heldFile;
        break;
      case Way::kAddEmpty:
        file_.clear();
        break;
    }
    target_ = way_ == Way::kAddWithIdentifier ? existing[0] : LocallyUniqueID(0, 3);
  }

  // No expectation here: the checks allocate, and run with the injector off.
  void Act() override {
    switch (way_) {
      case Way::kAdd:
        returned_ = registry->Add(*source_, file_, false);
        break;
      case Way::kAddWithPassword:
        returned_ = registry->Add(*source_, file_, password_, true, false);
        break;
      case Way::kAddWithIdentifier:
        registry->Add(*source_, file_, false, target_, 7);
        returned_ = target_;
        break;
      case Way::kAddEmpty:
        returned_ = registry->AddEmpty(false);
        break;
    }
  }

  void CheckSucceeded() override {
    EXPECT_EQ(returned_, target_);
    SvrDMItemPtr item = registry->GetDataSet(target_);
    ExpectNewItem(*item);
    EXPECT_EQ(item->createNotified, source_ != nullptr);
    if (source_ != nullptr) {
      EXPECT_EQ(log.createdReturned, target_.ToWord());
    }
    ExpectOthersUntouched();
  }

  void CheckFailed() override {
    ExpectOthersUntouched();
    if (way_ == Way::kAddWithIdentifier && log.ThrewInDeleted(target_)) {
      // From the old dataset's deletion notice: its entry stays, and the new
      // source, never made into an item, is gone.
      ExpectExisting(0);
      EXPECT_EQ(TrackedSource::Live(), sourcesBefore_) << "the handed source was kept or leaked";
      return;
    }
    if (way_ == Way::kAddWithIdentifier) {
      EXPECT_EQ(log.deletedReturned, target_.ToWord()) << "the old dataset was not announced gone";
    }
    if (log.ThrewInCreated(target_)) {
      // From the creation notice: the new entry is in the table already.
      SvrDMItemPtr item = registry->GetDataSet(target_);
      ExpectNewItem(*item);
      EXPECT_TRUE(item->createNotified);
      return;
    }
    // Before the entry: the table is as before but for a replaced dataset,
    // and the handed chain has gone with the failure.
    ExpectAbsent(target_);
    EXPECT_TRUE(log.created.empty());
    long const replacedSources = way_ == Way::kAddWithIdentifier ? 2 : 0;
    EXPECT_EQ(TrackedSource::Live(), sourcesBefore_ - replacedSources)
        << "the handed source was kept or leaked";
  }

  void CheckStillWorks() override {
    // A generated identifier is used up by a failed add too; the form with
    // an identifier never touches the counter.
    ExpectRegistryWorks(way_ == Way::kAddWithIdentifier ? 3 : 4);
    // Whatever dataset now stands under the target identifier is whole.
    try {
      SvrDMItemPtr item = registry->GetDataSet(target_);
      if (!item->fileName.empty()) {
        EXPECT_NE(item->lockedFile, nullptr) << "a dataset with a file does not hold it";
      }
    } catch (ErrorMsg const& error) {
      EXPECT_EQ(error.GetCode(), 2001u);
    }
  }

 private:
  void ExpectNewItem(SvrDMItem& item) {
    EXPECT_EQ(item.dataSource, source_);
    EXPECT_TRUE(item.announce);
    switch (way_) {
      case Way::kAdd:
        EXPECT_EQ(item.fileName, file_);
        EXPECT_NE(item.lockedFile, nullptr);
        break;
      case Way::kAddWithPassword:
        EXPECT_EQ(item.fileName, "");
        EXPECT_EQ(item.sharedFileName, file_);
        EXPECT_EQ(item.password, password_);
        EXPECT_TRUE(item.passwordMangled);
        EXPECT_EQ(item.lockedFile, nullptr);
        break;
      case Way::kAddWithIdentifier:
        EXPECT_EQ(item.caseSequence, 7u);
        EXPECT_EQ(item.fileName, file_);
        EXPECT_NE(item.lockedFile, nullptr);
        break;
      case Way::kAddEmpty:
        EXPECT_EQ(item.fileName, "");
        break;
    }
  }

  void ExpectOthersUntouched() {
    for (std::size_t i = way_ == Way::kAddWithIdentifier ? 1 : 0; i < existing.size(); ++i) {
      ExpectExisting(i);
    }
    // The first dataset keeps its file unless it was the one replaced.
    if (way_ != Way::kAddWithIdentifier) {
      EXPECT_NE(registry->GetDataSet(existing[0])->lockedFile, nullptr);
    }
  }

  Way way_;
  std::string const unheldFile_;
  // Made before Act, so that the allocations counted are those of Add.
  std::string const password_ = "a password longer than the buffer";
  TrackedSource* source_ = nullptr;
  LocallyUniqueID returned_;
  long sourcesBefore_ = 0;
  std::string file_;
  LocallyUniqueID target_;
};

// ---------------------------------------------------------------------------
// Finding a dataset.

class GetDataSetScenario : public RegistryScenario {
 public:
  void Prepare() override {
    RegistryScenario::Prepare();
    registry->GetDataSet(existing[1])->handle = "a handle long enough to leave the buffer";
    byId_ = byHandle_ = missingHandle_ = nullptr;
    missingCode_ = 0;
  }

  void Act() override {
    byId_ = registry->GetDataSet(existing[1]);
    byHandle_ = registry->GetDataSet(handleInOtherCase_);
    missingHandle_ = registry->GetDataSet(missingHandleText_);
    try {
      (void)registry->GetDataSet(LocallyUniqueID(0, 999));
    } catch (ErrorMsg const& error) {
      missingCode_ = error.GetCode();
    }
  }

  void CheckSucceeded() override {
    EXPECT_EQ(byId_.get(), existingItems[1]);
    EXPECT_EQ(byHandle_.get(), existingItems[1]);
    EXPECT_FALSE(missingHandle_.IsValid());
    EXPECT_EQ(missingCode_, 2001u);
  }

  void CheckFailed() override {
    for (std::size_t i = 0; i < existing.size(); ++i) ExpectExisting(i);
  }

  void CheckStillWorks() override {
    EXPECT_EQ(registry->GetDataSet(std::string("a handle LONG enough to leave the buffer")).get(),
              existingItems[1]);
    ExpectRegistryWorks(3);
  }

  void Finish() override {
    // Dropped before the table goes: a reference taken and not given back
    // would keep the item, and its sources, alive past Finish.
    byId_ = byHandle_ = missingHandle_ = nullptr;
    RegistryScenario::Finish();
  }

 private:
  // Made before Act, so that the allocations counted are the lookups' own.
  std::string const handleInOtherCase_ = "A HANDLE long enough to leave the buffer";
  std::string const missingHandleText_ = "no dataset has this handle, long or not";
  SvrDMItemPtr byId_;
  SvrDMItemPtr byHandle_;
  SvrDMItemPtr missingHandle_;
  unsigned int missingCode_ = 0;
};

// ---------------------------------------------------------------------------
// Reporting an error to a client that keeps a copy of every message.

class KeepingProxy : public PackageProxy {
 public:
  void SendToClient(int32_t number, VSerializable& message) override {
    // Room first, then the clone, then the keeping, which cannot fail: a
    // failure anywhere leaves the proxy as it was.
    kept.reserve(kept.size() + 1);
    numbers.reserve(numbers.size() + 1);
    std::unique_ptr<VSerializable> copy(message.Clone());
    kept.push_back(std::move(copy));
    numbers.push_back(number);
  }
  std::vector<std::unique_ptr<VSerializable>> kept;
  std::vector<int32_t> numbers;
};

class ReportScenario : public RegistryScenario {
 public:
  void Prepare() override {
    RegistryScenario::Prepare();
    proxy_.reset(new KeepingProxy);
    item_ = registry->GetDataSet(existing[0]);
    item_->InitializeErrorMonitor(proxy_.get());
    blocksBefore_ = VUGlobal::LiveBlocks();
  }

  void Act() override {
    item_->GetErrorMonitor()->Report(ErrorText{"a warning text longer than any small buffer", 2, 42});
  }

  void CheckSucceeded() override {
    ASSERT_EQ(proxy_->kept.size(), 1u);
    ExpectMessage(0, "a warning text longer than any small buffer", 2);
  }

  void CheckFailed() override {
    InteractiveErrorMonitor* monitor = item_->GetErrorMonitor();
    EXPECT_EQ(monitor->GetProxy(), proxy_.get());
    EXPECT_EQ(monitor->GetDataSetID(), existing[0]);
    EXPECT_TRUE(monitor->GetReportWarnings());
    EXPECT_TRUE(proxy_->kept.empty());
    EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore_) << "a message block was lost";
  }

  void CheckStillWorks() override {
    std::size_t before = proxy_->kept.size();
    item_->GetErrorMonitor()->Report(ErrorText{"an error once memory is back", 1, 7});
    ASSERT_EQ(proxy_->kept.size(), before + 1);
    ExpectMessage(before, "an error once memory is back", 1);
    EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore_ + static_cast<long>(proxy_->kept.size()));
    ExpectRegistryWorks(3);
  }

  void Finish() override {
    proxy_.reset();
    item_ = nullptr;
    RegistryScenario::Finish();
  }

 private:
  void ExpectMessage(std::size_t i, std::string const& text, uint8_t severity) {
    auto* message = dynamic_cast<ReportedErrorMsg*>(proxy_->kept[i].get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(proxy_->numbers[i], 1000);
    EXPECT_EQ(message->GetText(), text);
    EXPECT_EQ(message->GetSeverity(), severity);
    EXPECT_EQ(message->GetDataSetID(), existing[0]);
  }

  std::unique_ptr<KeepingProxy> proxy_;
  SvrDMItemPtr item_;
  long blocksBefore_ = 0;
};

// ---------------------------------------------------------------------------
// Reading a bootstrap form into a record that holds something in every field.

using bootstrap_fields::FieldsInStreamOrder;

class DeserializeScenario : public Scenario {
 public:
  void Prepare() override {
    held_ = SvrBootstrapSpecs();
    held_.SetSamplingMethod(SvrBootstrapSpecs::Stratified);
    held_.SetStrataVarList({1, 2});
    held_.SetDependVarList({3});
    held_.SetInputVarList({4});
    held_.SetPredictedVarList({5});
    held_.SetResidualVarList({6});
    held_.SetCILevelPct(90.0);
    held_.SetCIType(SvrBootstrapSpecs::BCA);
    held_.SetNSamples(50);
    held_.SetExcludeUserMiss(false);
    before_ = FieldsInStreamOrder(held_);

    // The form to read: a different value in every field.
    SvrBootstrapSpecs rich;
    rich.SetSamplingMethod(SvrBootstrapSpecs::Residual);
    rich.SetStrataVarList({10, 11, 12, 13, 14});
    rich.SetDependVarList({20, 21, 22, 23, 24, 25});
    rich.SetInputVarList({30, 31, 32, 33, 34, 35, 36});
    rich.SetPredictedVarList({40, 41, 42, 43, 44, 45, 46, 47});
    rich.SetResidualVarList({50, 51, 52, 53, 54, 55, 56, 57, 58});
    rich.SetCILevelPct(99.5);
    rich.SetCIType(SvrBootstrapSpecs::Percentile);
    rich.SetNSamples(2000);
    rich.SetExcludeUserMiss(true);
    form_.clear();
    SvrBootstrapSpecsSerializer::serializeSpecs(rich, form_);
    // The auxiliary lists have no setters: splice items into the form, in
    // place of their two empty counts behind the five variable lists. The
    // splice is little-endian, as the machine's own form must be then.
    ASSERT_EQ(form_[0], 1) << "the splice below assumes a little-endian machine";
    std::size_t const auxAt = 10 + 5 * 4 + 4 * (5 + 6 + 7 + 8 + 9);
    std::string aux;
    auto put = [&aux](uint64_t value, int width) {
      for (int i = 0; i < width; ++i) aux.push_back(static_cast<char>(value >> (8 * i)));
    };
    put(3, 4), put(7, 4), put(8, 4), put(9, 4);            // index list: 7, 8, 9
    put(2, 4);                                             // pair list: two pairs
    put(0x3FF8000000000000ull, 8), put(4, 4);              // (1.5, 4)
    put(0xC004000000000000ull, 8), put(5, 4);              // (-2.5, 5)
    form_.replace(auxAt, 8, aux);

    // What a read with nothing failing gives.
    SvrBootstrapSpecs expected = held_;
    SvrBootstrapSpecsSerializer::deserializeSpecs(form_, expected);
    after_ = FieldsInStreamOrder(expected);
    for (std::size_t i = 0; i < before_.size(); ++i) {
      ASSERT_NE(before_[i], after_[i]) << "field " << i << " would not show whether it was read";
    }
  }

  void Act() override { SvrBootstrapSpecsSerializer::deserializeSpecs(form_, held_); }

  void CheckSucceeded() override { EXPECT_EQ(FieldsInStreamOrder(held_), after_); }

  // The fields read before the failure hold their new values, the others
  // their old ones: a run of new fields, then only old ones, each field
  // whole.
  void CheckFailed() override {
    std::vector<std::string> now = FieldsInStreamOrder(held_);
    std::size_t firstOld = 0;
    while (firstOld < now.size() && now[firstOld] == after_[firstOld]) ++firstOld;
    EXPECT_LT(firstOld, now.size()) << "every field was read, yet the read failed";
    for (std::size_t i = firstOld; i < now.size(); ++i) {
      EXPECT_EQ(now[i], before_[i]) << "field " << i << " after a failure at field " << firstOld;
    }
  }

  void CheckStillWorks() override {
    std::string form;
    SvrBootstrapSpecsSerializer::serializeSpecs(held_, form);
    SvrBootstrapSpecs copy;
    SvrBootstrapSpecsSerializer::deserializeSpecs(form, copy);
    EXPECT_TRUE(copy.IdenticalTo(held_));
  }

  void Finish() override { held_ = SvrBootstrapSpecs(); }

 private:
  SvrBootstrapSpecs held_;
  std::string form_;
  std::vector<std::string> before_;
  std::vector<std::string> after_;
};

// ---------------------------------------------------------------------------
// Reconciling a dictionary that differs from the snapshot in every way.

// Messages of a queue by class, extensions also by type.
std::map<std::string, int> CountByKind(std::vector<DataSetMsg*> const& queue) {
  std::map<std::string, int> counts;
  for (DataSetMsg const* message : queue) {
    std::string kind = message->GetClassName();
    if (auto const* extension = dynamic_cast<ExtensionsMsg const*>(message)) {
      kind += " " + std::to_string(extension->GetExtension()->GetType());
    }
    ++counts[kind];
  }
  return counts;
}

// The lines of a queue but for the client reset, which a failed Update may
// leave pending and the next one then sends whatever the row count.
std::vector<std::string> DescribeWithoutReset(std::vector<DataSetMsg*> const& queue) {
  std::vector<std::string> lines = DescribeQueue(queue);
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [](std::string const& line) { return line.rfind("ResetClient", 0) == 0; }),
              lines.end());
  return lines;
}

// Eight variables, serials 1 to 8, three rows, over a file source: only a
// chain that rests on a data file announces its file spec.
TrackedSource* StartingSource() {
  TrackedSource* source = new TrackedSource(8, 1);
  source->SetParentSource(new SystemFileDataSource());
  source->rows = 3;
  return source;
}

// A difference of every kind the reconciliation knows. The new file spec
// names a real file, which the item then holds.
void EditEveryWay(TrackedSource& source, std::string const& fileSpec) {
  source.DeleteVariables(1, 1);                                            // deleted
  source.InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 20), "fresh")); // inserted
  QUOR_Variable moved = source.GetVariable(5);                              // moved
  source.DeleteVariables(5, 5);
  source.InsertVariable(2, moved);
  source.GetVariable(3).SetName("renamed");                                 // modified
  source.GetVariable(4).SetType(8);                                         // type: clients reset
  source.GetVariable(6).SetLabel("a variable label");
  source.SetWeightVar(0);
  source.SetFilterVar(2);
  int const split[] = {1, 3};
  source.SetSplit(2, split, true);
  source.SetLabel("a dataset label");
  source.SetFileSpec(fileSpec.c_str());
  source.RowsPerImputation(2);
  source.GetTrendsInfo()->SetText("trends text");
  VariableSetImpl set;
  set.name = "a set";
  set.members = {source.GetVariable(0).GetID(), source.GetVariable(2).GetID()};
  source.SetMRSets({set});
  source.SetVariableSets({set, set});
  DatasourceAttributes attributes;
  attributes.Set("key", "value");
  source.SetAttributes(attributes);
  source.SetExtension(QUOR_DataSource::Extension(0, "extension payload"));
  source.SetDirty(true);
  source.rows = 5;
}

class UpdateScenario : public RegistryScenario {
 public:
  explicit UpdateScenario(bool bulk)
      : bulk_(bulk), fileSpec_(dir.Write("the-file-the-live-source-now-names.csv", "a\n1\n")) {}

  void Prepare() override {
    RegistryScenario::Prepare();
    source_ = StartingSource();
    item_ = registry->GetDataSet(registry->Add(*source_, "", true));
    // The watcher has heard everything up to the edits.
    item_->observerView.Update();
    std::string error;
    ASSERT_TRUE(model_.Apply(item_->notifications, &error)) << error;
    item_->ClearNotifications();
    EditEveryWay(*source_, fileSpec_);
    if (bulk_) item_->observerView.BulkVarMoves(true);

    // What the same edits give with nothing failing, on an item of its own.
    TrackedSource* twinSource = StartingSource();
    SvrDMItemPtr twin(new SvrDMItem(LocallyUniqueID(0, 99), twinSource, nullptr, 0, "", true));
    twin->observerView.Update();
    twin->ClearNotifications();
    EditEveryWay(*twinSource, fileSpec_);
    if (bulk_) twin->observerView.BulkVarMoves(true);
    twin->observerView.Update();
    reference_ = CountByKind(twin->notifications);
    referenceLines_ = DescribeWithoutReset(twin->notifications).size();
    ASSERT_GE(reference_.size(), bulk_ ? 14u : 16u) << "the edits miss some kinds of difference";
  }

  void Act() override { item_->observerView.Update(); }

  void CheckSucceeded() override {
    std::string error;
    EXPECT_TRUE(model_.Apply(item_->notifications, &error)) << error;
    EXPECT_TRUE(model_.Matches(*source_, &error)) << error;
    EXPECT_EQ(CountByKind(item_->notifications), reference_);
    ExpectQuietUpdate();
  }

  // The messages queued before the failure stay, and are sound for a
  // watcher that heard everything before. The snapshot keeps the changes
  // made before the failure: the next Update queues exactly what a
  // reconciliation from that snapshot to the live dictionary queues, and
  // after it the two agree.
  //
  // Within one step the message is queued before the snapshot changes, so a
  // failure between the two leaves a message whose change the snapshot does
  // not have yet, and the next Update announces it again. That is the order
  // the reconciliation keeps; what is checked here is that nothing is lost
  // and nothing beyond what is still different is queued.
  void CheckFailed() override {
    std::string error;
    EXPECT_TRUE(model_.Apply(item_->notifications, &error)) << "queued before the failure: " << error;
    std::size_t const kept = DescribeWithoutReset(item_->notifications).size();
    item_->ClearNotifications();

    std::vector<std::vector<std::string>> stillDifferent = {FromSnapshot(false)};
    if (bulk_) stillDifferent.push_back(FromSnapshot(true));
    item_->observerView.Update();
    std::vector<std::string> next = DescribeWithoutReset(item_->notifications);
    EXPECT_NE(std::find(stillDifferent.begin(), stillDifferent.end(), next), stillDifferent.end())
        << "the next Update queued " << ::testing::PrintToString(next) << ", still different was "
        << ::testing::PrintToString(stillDifferent[0]);
    // Kept, not rolled back: together the two Updates announce no more than
    // one Update with nothing failing, but for the one step that failed.
    EXPECT_LE(kept + next.size(), referenceLines_ + 1)
        << kept << " messages were kept, and the snapshot forgot their changes";
    ExpectQuietUpdate();
  }

  void CheckStillWorks() override {
    // A further write is reconciled as from any snapshot: exactly its own
    // differences (the watcher model is only trusted after a run without
    // a failure, which may have announced a change twice).
    item_->ClearNotifications();
    source_->SetLabel("one more label");
    source_->InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 30), "later"));
    std::vector<std::string> expected = FromSnapshot(false);
    item_->observerView.Update();
    EXPECT_EQ(DescribeWithoutReset(item_->notifications), expected);
    EXPECT_GE(expected.size(), 2u);
    ExpectQuietUpdate();
    ExpectRegistryWorks(4);
  }

  void Finish() override {
    item_ = nullptr;
    RegistryScenario::Finish();
  }

 private:
  void ExpectQuietUpdate() {
    item_->ClearNotifications();
    item_->observerView.Update();
    EXPECT_TRUE(item_->notifications.empty()) << "a quiet Update queued " << item_->notifications.size();
  }

  // What a view equal to this item's snapshot queues against the live
  // dictionary, on an item of its own, on the bulk path or not.
  std::vector<std::string> FromSnapshot(bool bulk) {
    auto* twinLive = new TrackedSource();
    twinLive->SetParentSource(new SystemFileDataSource());
    twinLive->CopyDictionary(item_->observerView.Snapshot());
    twinLive->rows = item_->observerView.RowCountSeen();
    SvrDMItemPtr twin(new SvrDMItem(LocallyUniqueID(0, 98), twinLive, nullptr, 0, "", true));
    twin->observerView.Update();
    twin->ClearNotifications();
    twinLive->CopyDictionary(*source_);
    twinLive->rows = source_->rows;
    if (bulk) twin->observerView.BulkVarMoves(true);
    twin->observerView.Update();
    return DescribeWithoutReset(twin->notifications);
  }

  bool bulk_;
  std::string const fileSpec_;
  TrackedSource* source_ = nullptr;
  SvrDMItemPtr item_;
  WatcherModel model_;
  std::map<std::string, int> reference_;
  std::size_t referenceLines_ = 0;
};

// ---------------------------------------------------------------------------
// A write access whose end finds a difference of every kind, with a watcher
// that keeps a copy of each queue it hears.

class KeepingWatcher : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    // A copy of the queue's lines, kept only once it is whole.
    std::vector<std::string> lines = DescribeQueue(writer->GetNotifications());
    heard.push_back(std::move(lines));
  }
  std::vector<std::vector<std::string>> heard;
};

class WriteAccessScenario : public RegistryScenario {
 public:
  WriteAccessScenario() : fileSpec_(dir.Write("the-file-the-live-source-now-names.csv", "a\n1\n")) {}

  void Prepare() override {
    RegistryScenario::Prepare();
    source_ = StartingSource();
    item_ = registry->GetDataSet(registry->Add(*source_, "", true));
    watcher_.reset(new KeepingWatcher);
    item_->Register(*watcher_);
    { SvrDMWriteableDataSource settle(item_, false, nullptr); }
    watcher_->heard.clear();
    blocksBefore_ = VUGlobal::LiveBlocks();
    // The edits are the procedure's, made before the injector is armed: it
    // is the access's end that is under test.
    writer_ = new SvrDMWriteableDataSource(item_, false, nullptr);
    EditEveryWay(*source_, fileSpec_);
  }

  // The end of the access, which reconciles and delivers. Its destructor
  // may throw, so it is ended by a plain delete, which frees the object
  // whatever the destructor does.
  void Act() override {
    SvrDMWriteableDataSource* writer = writer_;
    writer_ = nullptr;
    delete writer;
  }

  void CheckSucceeded() override {
    ASSERT_EQ(watcher_->heard.size(), 1u);
    EXPECT_GE(watcher_->heard[0].size(), 16u);
    EXPECT_TRUE(item_->notifications.empty());
    ExpectLetGo();
  }

  // The exception left the access's end: the lock and both counters are
  // let go all the same, the watcher heard nothing or all of one pass, and
  // what was queued and not delivered waits for the next pass.
  void CheckFailed() override {
    ExpectLetGo();
    EXPECT_LE(watcher_->heard.size(), 1u);
    if (!watcher_->heard.empty()) {
      EXPECT_TRUE(item_->notifications.empty()) << "a delivered pass left its queue behind";
    }
    EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore_ + static_cast<long>(item_->notifications.size()))
        << "a message block is neither queued nor given back";
  }

  void CheckStillWorks() override {
    // The next access delivers what is pending and what is still different;
    // after it the snapshot agrees with the live dictionary.
    std::size_t const pending = item_->notifications.size();
    std::size_t const heardBefore = watcher_->heard.size();
    { SvrDMWriteableDataSource writer(item_, false, nullptr); }
    EXPECT_TRUE(item_->notifications.empty());
    if (pending > 0) {
      ASSERT_EQ(watcher_->heard.size(), heardBefore + 1);
      EXPECT_GE(watcher_->heard.back().size(), pending);
    }
    // The changes reach the watcher in one pass: the failed one, if it got
    // as far as delivering, or else this one.
    EXPECT_EQ(watcher_->heard.size(), 1u) << "delivered " << watcher_->heard.size() - heardBefore << " more";
    std::size_t const heardAfter = watcher_->heard.size();
    { SvrDMWriteableDataSource writer(item_, false, nullptr); }
    EXPECT_TRUE(item_->notifications.empty());
    if (watcher_->heard.size() != heardAfter) {
      ADD_FAILURE() << "a quiet access delivered " << ::testing::PrintToString(watcher_->heard.back());
    }
    ExpectLetGo();
    ExpectRegistryWorks(4);
  }

  void Finish() override {
    item_->Unregister(*watcher_);
    item_ = nullptr;
    RegistryScenario::Finish();
    watcher_.reset();
  }

 private:
  // No access is held: a try from another thread gets the write lock.
  void ExpectLetGo() {
    EXPECT_EQ(item_->writersCount.load(), 0);
    EXPECT_EQ(item_->readersCount.load(), 0);
    bool got = false;
    std::thread other([&] {
      try {
        SvrDMInputDataSource reader(item_, true);
        got = true;
      } catch (int) {
      }
    });
    other.join();
    EXPECT_TRUE(got) << "the access lock is still held";
    // Asked of the lock itself: a write access here would deliver what is
    // pending, which the checks after this one still look at.
    bool wrote = false;
    std::thread writer([&] {
      if (item_->accessMutex.tryWriteLock()) {
        item_->accessMutex.unlock();
        wrote = true;
      }
    });
    writer.join();
    EXPECT_TRUE(wrote) << "the write lock is still held";
  }

  std::string const fileSpec_;
  TrackedSource* source_ = nullptr;
  SvrDMItemPtr item_;
  SvrDMWriteableDataSource* writer_ = nullptr;
  std::unique_ptr<KeepingWatcher> watcher_;
  long blocksBefore_ = 0;
};

// ---------------------------------------------------------------------------
// SetDataSet in each case of its table, inside a write access held across
// the run.

enum class Swap { kNullForNull, kFirstSource, kSameHead, kAncestor, kDescendant, kUnrelated, kNull };

class SetDataSetScenario : public RegistryScenario {
 public:
  explicit SetDataSetScenario(Swap swap)
      : swap_(swap), dataFile_(dir.Write("the-file-of-the-swapped-dataset.csv", "a\n1\n")) {}

  void Prepare() override {
    RegistryScenario::Prepare();
    bool const empty = swap_ == Swap::kNullForNull || swap_ == Swap::kFirstSource;
    head_ = empty ? nullptr : TrackedSource::Chain(3, 2, 100);
    item_ = registry->GetDataSet(empty ? registry->AddEmpty(true) : registry->Add(*head_, dataFile_, true));
    if (empty) item_->FileName(dataFile_);  // an empty dataset may still name its file
    parent_ = head_ != nullptr ? head_->GetParentSource() : nullptr;
    switch (swap_) {
      case Swap::kNullForNull:
      case Swap::kNull:
        next_ = nullptr;
        deleted_ = swap_ == Swap::kNull ? 3 : 0;
        break;
      case Swap::kFirstSource:
        next_ = TrackedSource::Chain(1, 2, 200);
        deleted_ = 0;
        break;
      case Swap::kSameHead:
        next_ = head_;
        deleted_ = 0;
        break;
      case Swap::kAncestor:
        next_ = parent_;
        deleted_ = 1;
        break;
      case Swap::kDescendant:
        next_ = TrackedSource::Chain(1, 2, 200);
        next_->SetParentSource(head_);
        deleted_ = 0;
        break;
      case Swap::kUnrelated:
        next_ = TrackedSource::Chain(2, 2, 200);
        deleted_ = 3;
        break;
    }
    sourcesBefore_ = TrackedSource::Live();
    blocksBefore_ = VUGlobal::LiveBlocks();
    writer_.reset(new SvrDMWriteableDataSource(item_, false, nullptr));
  }

  void Act() override { writer_->SetDataSet(next_); }

  void CheckSucceeded() override {
    ExpectSwapped();
    EXPECT_EQ(item_->notifications.size(), head_ != nullptr ? 1u : 0u) << "one ResetUndoMsg, if a source went";
    EXPECT_EQ(item_->lockedFile != nullptr, next_ != nullptr) << "the file follows the source";
  }

  // The head has changed and the sources it no longer reaches are gone
  // whatever failed; the message is queued whole or not at all, and after a
  // source went the file is not held.
  void CheckFailed() override {
    ExpectSwapped();
    EXPECT_LE(item_->notifications.size(), 1u);
    if (!item_->notifications.empty()) {
      EXPECT_NE(dynamic_cast<ResetUndoMsg*>(item_->notifications[0]), nullptr);
    }
    if (head_ != nullptr) {
      EXPECT_EQ(item_->lockedFile, nullptr) << "the file is held after a failure";
    }
  }

  void CheckStillWorks() override {
    EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore_ + static_cast<long>(item_->notifications.size()));
    writer_.reset();  // the end of the access: the queue goes
    EXPECT_TRUE(item_->notifications.empty());
    EXPECT_EQ(item_->writersCount.load(), 0);
    // A further swap holds the file again.
    {
      SvrDMWriteableDataSource writer(item_, true, nullptr);
      writer.SetDataSet(TrackedSource::Chain(2, 1, 300));
    }
    EXPECT_NE(item_->lockedFile, nullptr);
    ExpectRegistryWorks(4);
  }

  void Finish() override {
    writer_.reset();
    item_ = nullptr;
    RegistryScenario::Finish();
  }

 private:
  void ExpectSwapped() {
    EXPECT_EQ(item_->dataSource, next_);
    EXPECT_EQ(TrackedSource::Live(), sourcesBefore_ - deleted_) << "sources deleted wrongly";
  }

  Swap swap_;
  std::string const dataFile_;
  TrackedSource* head_ = nullptr;
  QUOR_DataSource* parent_ = nullptr;
  QUOR_DataSource* next_ = nullptr;
  long deleted_ = 0;
  long sourcesBefore_ = 0;
  long blocksBefore_ = 0;
  SvrDMItemPtr item_;
  std::unique_ptr<SvrDMWriteableDataSource> writer_;
};

// ---------------------------------------------------------------------------
// A clone's construction and copy.

class CloneScenario : public Scenario {
 public:
  explicit CloneScenario(bool copy) : copy_(copy) {}

  void Prepare() override {
    source_ = TrackedSource::Chain(3, 4, 100);
    source_->rows = 7;
    sourcesBefore_ = TrackedSource::Live();
    if (copy_) {
      first_.reset(new SvrDMCloneDataSource(source_));
      first_->DeleteVariables(0, 0);  // the copy takes this dictionary, not the source's
    }
  }

  void Act() override {
    if (copy_) {
      second_.reset(new SvrDMCloneDataSource(*first_));
    } else {
      first_.reset(new SvrDMCloneDataSource(source_));
    }
  }

  void CheckSucceeded() override {
    SvrDMCloneDataSource& made = copy_ ? *second_ : *first_;
    EXPECT_EQ(made.ColumnCount(), copy_ ? 3u : 4u);
    EXPECT_EQ(made.RowCount(), 7);
    EXPECT_EQ(made.GetParentSource(), nullptr);
    EXPECT_EQ(TrackedSource::Live(), sourcesBefore_);
  }

  void CheckFailed() override {
    if (copy_) {
      // The first clone keeps the shared record, and with it the source.
      EXPECT_EQ(TrackedSource::Live(), sourcesBefore_);
      return;
    }
    // Either nothing took the source (it is still the caller's), or the
    // record had it and took its whole chain along; nothing in between.
    long const live = TrackedSource::Live();
    EXPECT_TRUE(live == sourcesBefore_ || live == sourcesBefore_ - 3) << live << " of " << sourcesBefore_;
    callerOwnsSource_ = live == sourcesBefore_;
  }

  void CheckStillWorks() override {
    if (first_) {
      EXPECT_EQ(first_->RowCount(), 7);
      OBS row;
      std::unique_ptr<ObsIterator> rows(first_->MakeIterator(&row));
      EXPECT_FALSE(rows->Next());  // the tracked source has a count but no rows
      EXPECT_EQ(first_->GetParentSource(), nullptr);
    }
    if (second_) {
      first_.reset();
      EXPECT_EQ(TrackedSource::Live(), sourcesBefore_) << "the second clone still needs the source";
      EXPECT_EQ(second_->RowCount(), 7);
    }
  }

  void Finish() override {
    first_.reset();
    second_.reset();
    if (callerOwnsSource_) {
      for (QUOR_DataSource* current = source_; current != nullptr;) {
        QUOR_DataSource* parent = current->GetParentSource();
        delete current;
        current = parent;
      }
    }
  }

 private:
  bool copy_;
  TrackedSource* source_ = nullptr;
  long sourcesBefore_ = 0;
  bool callerOwnsSource_ = false;
  std::unique_ptr<SvrDMCloneDataSource> first_;
  std::unique_ptr<SvrDMCloneDataSource> second_;
};

// ---------------------------------------------------------------------------
// Handles of every open dataset.

class GetAllDatasetsScenario : public RegistryScenario {
 public:
  void Act() override { all_ = registry->GetAllDatasets(); }

  void CheckSucceeded() override {
    ASSERT_EQ(all_.size(), existing.size());
    for (std::size_t i = 0; i < all_.size(); ++i) EXPECT_EQ(all_[i].GetDataSetID(), existing[i]);
  }

  void CheckFailed() override {
    EXPECT_TRUE(all_.empty());
    for (std::size_t i = 0; i < existing.size(); ++i) ExpectExisting(i);
  }

  void CheckStillWorks() override { ExpectRegistryWorks(3); }

  void Finish() override {
    // Dropped before the table goes: a reference a failure left behind
    // would keep its item, and its sources, past Finish.
    all_.clear();
    all_.shrink_to_fit();
    RegistryScenario::Finish();
  }

 private:
  std::vector<SvrDMDataset> all_;
};

// ---------------------------------------------------------------------------

TEST(AllocationFailure, InjectorFailsTheCountedAllocationOnly) {
  // The replacement must be the operator new in use, under every sanitizer.
  failing_new::Arm(2, Mode::kTransient);
  std::unique_ptr<int> first(new int(1));
  bool threw = false;
  try {
    std::unique_ptr<int> second(new int(2));
  } catch (std::bad_alloc const&) {
    threw = true;
  }
  std::unique_ptr<int> third(new int(3));
  failing_new::Disarm();
  EXPECT_TRUE(threw);
  EXPECT_EQ(failing_new::Counted(), 3);
  EXPECT_EQ(failing_new::Failed(), 1);

  // Message blocks are counted in the same sequence.
  failing_new::Arm(1, Mode::kPersistent);
  threw = false;
  try {
    std::unique_ptr<VSerializable> message(ErrorMsg(1, "").Clone());
  } catch (std::bad_alloc const&) {
    threw = true;
  }
  failing_new::Disarm();
  EXPECT_TRUE(threw);
  EXPECT_EQ(failing_new::Failed(), 1);
}

TEST(AllocationFailure, AddEmpty) {
  SweepBothModes<AddScenario>("AddEmpty", Way::kAddEmpty);
}

TEST(AllocationFailure, AddWithGeneratedIdentifier) {
  SweepBothModes<AddScenario>("Add", Way::kAdd);
}

TEST(AllocationFailure, AddWithPasswordOfAFileAlreadyHeld) {
  SweepBothModes<AddScenario>("Add with password", Way::kAddWithPassword);
}

TEST(AllocationFailure, AddWithIdentifierReplacingADataset) {
  SweepBothModes<AddScenario>("Add with identifier", Way::kAddWithIdentifier);
}

TEST(AllocationFailure, GetDataSet) {
  SweepBothModes<GetDataSetScenario>("GetDataSet");
}

TEST(AllocationFailure, ReportThroughAProxyThatKeepsCopies) {
  SweepBothModes<ReportScenario>("Report with a proxy");
}

TEST(AllocationFailure, UpdateFindingADifferenceOfEveryKind) {
  SweepBothModes<UpdateScenario>("Update, every difference", false);
}

TEST(AllocationFailure, UpdateReplacingTheVariablesInBulk) {
  SweepBothModes<UpdateScenario>("Update, bulk variable moves", true);
}

TEST(AllocationFailure, WriteAccessWhoseEndFindsEveryDifference) {
  SweepBothModes<WriteAccessScenario>("write access, every difference");
}

TEST(AllocationFailure, SetDataSetInEachCase) {
  SweepBothModes<SetDataSetScenario>("SetDataSet null over null", Swap::kNullForNull);
  SweepBothModes<SetDataSetScenario>("SetDataSet first source", Swap::kFirstSource);
  SweepBothModes<SetDataSetScenario>("SetDataSet same head", Swap::kSameHead);
  SweepBothModes<SetDataSetScenario>("SetDataSet ancestor", Swap::kAncestor);
  SweepBothModes<SetDataSetScenario>("SetDataSet descendant", Swap::kDescendant);
  SweepBothModes<SetDataSetScenario>("SetDataSet unrelated", Swap::kUnrelated);
  SweepBothModes<SetDataSetScenario>("SetDataSet null", Swap::kNull);
}

TEST(AllocationFailure, CloneConstruction) {
  SweepBothModes<CloneScenario>("clone construction", false);
}

TEST(AllocationFailure, CloneCopy) {
  SweepBothModes<CloneScenario>("clone copy", true);
}

TEST(AllocationFailure, GetAllDatasets) {
  SweepBothModes<GetAllDatasetsScenario>("GetAllDatasets");
}

TEST(AllocationFailure, DeserializeSpecsIntoAFullRecord) {
  SweepBothModes<DeserializeScenario>("deserializeSpecs");
}

}  // namespace
