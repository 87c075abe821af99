#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "ServerDataManager.h"

namespace {

typedef SvrBootstrapSpecs Specs;

int64_t Bits(double value) {
  int64_t bits;
  std::memcpy(&bits, &value, 8);
  return bits;
}

// Lays down 32-bit words, or values of another width, by hand in a chosen
// byte order, independent of the library's writer (signed values in two's
// complement).
std::string Words(bool big, std::vector<int64_t> const& words, int width = 4) {
  std::string bytes;
  for (uint64_t v : words)
    for (int i = 0; i < width; ++i) bytes += static_cast<char>(v >> 8 * (big ? width - 1 - i : i));
  return bytes;
}

// Every field away from its default, the depend list empty, and `k` added
// to every value. Fields end at 10, 22, 26, 34, 46, 54 (lists), 66, 82 (aux
// lists), 90, 94, 98, 99.
std::string RichForm(bool big, uint32_t version = 1, int k = 0) {
  return Words(big, {1}, 2) +
         Words(big, {version, Specs::Wild + k, 2, 3 + k, -7 + k, 0, 1, 1 + k, 2, 2 + k, 4 + k, 1,
                     -1 + k, 2, 5 + k, 6 + k, 1}) +
         Words(big, {Bits(2.5 + k)}, 8) + Words(big, {9 + k}) + Words(big, {Bits(90.0 + k)}, 8) +
         Words(big, {Specs::BCA + k, 500 + k}) + Words(big, {k != 0}, 1);
}

Specs Read(std::string const& form, Specs specs = Specs()) {
  SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
  return specs;
}

std::string Write(Specs const& specs) {
  std::string out;
  SvrBootstrapSpecsSerializer::serializeSpecs(specs, out);
  return out;
}

// A record read is written back, after what the string held, in this
// machine's order, so the whole of it is compared with a hand-built form.
// Any mark but 1 means the other byte order, not only the swapped 1.
TEST(BootstrapSerialFormTest, WritesTheDefaultAndReadsEitherOrderButOnlyItsVersion) {
  std::string out = "ab";
  SvrBootstrapSpecsSerializer::serializeSpecs(Specs(), out);
  EXPECT_EQ(out, "ab" + Words(false, {1}, 2) +
                     Words(false, {1, Specs::Simple, 0, 0, 0, 0, 0, 0, 0}) +
                     Words(false, {Bits(95.0)}, 8) + Words(false, {Specs::Percentile, 1000}) +
                     Words(false, {1}, 1));
  for (char const* mark : {"\1\0", "\0\1", "\xFF\xFF"}) {
    std::string form = RichForm(mark[0] != 1) + "trailing bytes";
    form.replace(0, 2, mark, 2);
    EXPECT_EQ(Write(Read(form)), RichForm(false)) << "mark " << int(mark[0]) << " " << int(mark[1]);
  }
  // 0x01000000 is 1 in the other byte order.
  for (uint32_t version : {0u, 2u, 0x01000000u})
    EXPECT_TRUE(Read(RichForm(version == 2, version)).IdenticalTo(Specs())) << version;
}

// A cut form fills the fields that fit whole and leaves the rest as they
// were: written again, the record is the rich form up to the last whole
// field and the default form after it.
TEST(BootstrapSerialFormTest, CutAtEveryLengthKeepsTheFieldsBeforeTheCut) {
  std::size_t const richEnds[] = {0, 10, 22, 26, 34, 46, 54, 66, 82, 90, 94, 98, 99};
  std::size_t const emptyEnds[] = {0, 10, 14, 18, 22, 26, 30, 34, 38, 46, 50, 54, 55};
  std::string const full = RichForm(false), empty = Write(Specs());
  for (std::size_t length = 0, fields = 0; length <= full.size(); ++length) {
    if (length == richEnds[fields + 1]) ++fields;
    EXPECT_EQ(Write(Read(full.substr(0, length))),
              full.substr(0, richEnds[fields]) + empty.substr(emptyEnds[fields]))
        << "length " << length;
  }
  // Over a held record, a count of 0 keeps the list; auxiliary items are appended.
  Specs held = Read(RichForm(false, 1, 100));
  held.SetDependVarList({12});
  Specs const over = Read(full, held);
  EXPECT_EQ(over.GetDependVarList(), (std::vector<int>{12}));
  EXPECT_EQ(over.GetAuxIndexList(), (std::vector<unsigned int>{105, 106, 5, 6}));
  EXPECT_EQ(over.GetAuxPairList(), (std::vector<Specs::AuxPair>{{102.5, 109u}, {2.5, 9u}}));
}

// The display flushes every line up to the number of samples and leaves the
// closing ones to the caller: a flush shows as "|". Flipping any one bit of
// the rich form changes one field, or the lists' layout and so every field
// after it: each gives another record.
TEST(BootstrapRecordTest, DisplaysWholeTextWithItsFlushesAndIdenticalToSeesEveryField) {
  struct MarkFlushes : std::stringbuf {
    int sync() override { return sputc('|') == '|' ? 0 : -1; }
  } text;
  std::ostream out(&text);
  Specs const rich = Read(RichForm(false));
  rich.Display(out);
  EXPECT_EQ(text.str(),
            "Start displaying Bootstrap Specifications\n\n|Sampling Method = Wild\n|"
            "Strata Variables = 3 -7\n|Dependent Variables = none\n|Input Variables = 1\n|"
            "Predicted Value Variables = 2 4\n|Residual Value Variables = -1\n|"
            "Confidence Interval Level as percent = 90\n|Confidence Interval Type = BCA\n|"
            "Number of samples = 500\n|User-missing variable values are included\n\n"
            "End displaying Bootstrap Specifications\n");
  for (std::size_t at = 0; at < RichForm(false).size(); ++at) {
    std::string form = RichForm(false);
    form[at] ^= 1;
    EXPECT_FALSE(Read(form).IdenticalTo(rich)) << "byte " << at;
  }
}

}  // namespace
