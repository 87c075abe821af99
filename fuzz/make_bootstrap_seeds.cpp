// Writes the seed corpus of fuzz_bootstrap_specs into the directory given as
// the only argument: whole forms in both byte orders, and the edges of the
// reader (other version, odd mark, cut strings, oversized counts).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bootstrapspecs.h"

namespace {

// Lays down a form field by field in the byte order asked for.
class Form {
 public:
  explicit Form(bool bigEndian) : big_(bigEndian) {}

  Form& U8(uint8_t v) { return Put(v, 1); }
  Form& U16(uint16_t v) { return Put(v, 2); }
  Form& U32(uint32_t v) { return Put(v, 4); }
  Form& I32(int32_t v) { return Put(static_cast<uint32_t>(v), 4); }
  Form& F64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return Put(bits, 8);
  }
  Form& IntList(std::vector<int32_t> const& items) {
    U32(static_cast<uint32_t>(items.size()));
    for (int32_t item : items) I32(item);
    return *this;
  }
  std::string const& Bytes() const { return bytes_; }

 private:
  Form& Put(uint64_t v, int width) {
    for (int i = 0; i < width; ++i) {
      int shift = 8 * (big_ ? width - 1 - i : i);
      bytes_.push_back(static_cast<char>(v >> shift));
    }
    return *this;
  }

  bool big_;
  std::string bytes_;
};

std::string Rich(bool big, uint32_t version = 1) {
  Form form(big);
  form.U16(1).U32(version).I32(SvrBootstrapSpecs::Stratified);
  form.IntList({3, -7}).IntList({}).IntList({1, 2, 3}).IntList({-2147483647 - 1}).IntList({9});
  form.U32(2).U32(5).U32(0xFFFFFFFFu);
  form.U32(2).F64(2.5).U32(9).F64(-0.0).U32(1);
  form.F64(99.9).I32(SvrBootstrapSpecs::BCA).I32(250).U8(0x80);
  return form.Bytes();
}

std::string Default(bool big) {
  Form form(big);
  form.U16(1).U32(1).I32(0);
  for (int i = 0; i < 7; ++i) form.U32(0);
  form.F64(95.0).I32(0).I32(1000).U8(1);
  return form.Bytes();
}

bool Write(std::string const& dir, char const* name, std::string const& bytes) {
  std::string path = dir + "/" + name;
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  std::string const dir = argv[1];

  // The library's own writer must agree with the hand-built little-endian form.
  std::string written;
  SvrBootstrapSpecsSerializer::serializeSpecs(SvrBootstrapSpecs(), written);
  if (written != Default(false)) {
    std::fprintf(stderr, "the writer no longer gives the 55-byte default form\n");
    return 1;
  }

  std::string badMark = Rich(true);
  badMark[0] = badMark[1] = static_cast<char>(0xFF);
  Form hugeCount(false);
  hugeCount.U16(1).U32(1).I32(3).U32(0x7FFFFFFFu).I32(1).I32(2);
  Form hugePairs(true);
  hugePairs.U16(1).U32(1).I32(1);
  for (int i = 0; i < 6; ++i) hugePairs.U32(0);
  hugePairs.U32(0x20000000u).F64(1.0).U32(1);

  struct Seed {
    char const* name;
    std::string bytes;
  } const seeds[] = {
      {"default_le", Default(false)},
      {"default_be", Default(true)},
      {"rich_le", Rich(false)},
      {"rich_be", Rich(true)},
      {"rich_le_trailing", Rich(false) + "tail"},
      {"version2_le", Rich(false, 2)},
      {"version2_be", Rich(true, 2)},
      {"mark_ffff_be", badMark},
      {"rich_le_cut_70", Rich(false).substr(0, 70)},
      {"rich_be_cut_13", Rich(true).substr(0, 13)},
      {"huge_count_le", hugeCount.Bytes()},
      {"huge_pairs_be", hugePairs.Bytes()},
      {"empty", std::string()},
  };
  for (Seed const& seed : seeds) {
    if (!Write(dir, seed.name, seed.bytes)) {
      std::fprintf(stderr, "cannot write %s/%s\n", dir.c_str(), seed.name);
      return 1;
    }
  }
  std::printf("wrote %zu seeds to %s\n", sizeof seeds / sizeof seeds[0], dir.c_str());
  return 0;
}
