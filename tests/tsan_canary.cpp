// A deliberate data race: two threads write one plain int with nothing
// between them. Under the thread sanitizer this must be reported, which
// proves the detector is live in the build that runs the soak; elsewhere it
// simply ends.
#include <cstdio>
#include <thread>

namespace {
int gUnguarded = 0;

void Bump() {
  for (int i = 0; i < 1000; ++i) gUnguarded = gUnguarded + 1;
}
}  // namespace

int main() {
  std::thread first(Bump);
  std::thread second(Bump);
  first.join();
  second.join();
  std::printf("canary: %d\n", gUnguarded);
  return 0;
}
