// Runs a fuzz target's entry point without the fuzzer, so that every build
// of the tests (the sanitizer builds included) checks the target's property:
// first on each file of its checked-in corpus, then on pseudo-random inputs
// from a fixed seed. The target aborts on a finding, which fails the test.
//
//   sdm_replay_<target> CORPUS_DIR [RANDOM_INPUTS [MAX_LENGTH]]
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size);

int main(int argc, char** argv) {
  long files = 0;
  for (auto const& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : "")) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::vector<uint8_t> const input{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++files;
  }
  if (files == 0) return std::fprintf(stderr, "%s: no corpus files\n", argv[0]), 1;
  long const inputs = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 0;
  std::size_t const maxLength = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 256;
  std::mt19937 random(20261123u);
  std::vector<uint8_t> input;
  for (long i = 0; i < inputs; ++i) {
    input.resize(random() % (maxLength + 1));
    for (uint8_t& byte : input) byte = static_cast<uint8_t>(random());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}
