// A deliberate data race: two threads write one plain int with nothing
// between them. Under the thread sanitizer this must be reported, which
// proves the detector is live in the build that runs the soak; elsewhere it
// simply ends.
#include <cstdio>
#include <thread>

static int gUnguarded = 0;

int main() {
  auto bump = [] {
    for (int i = 0; i < 1000; ++i) gUnguarded = gUnguarded + 1;
  };
  std::thread other(bump);
  bump();
  other.join();
  std::printf("canary: %d\n", gUnguarded);
}
