// libFuzzer entry point: the fuzzer's bytes drive the same generator. Flags
// such as --no-aliasing after the corpus directories leave families out.
#include <cstdio>
#include <cstdlib>

#include "fuzz.h"

namespace {
tavfuzz::Options opts;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  for (int i = 1; i < *argc; ++i) opts.parse((*argv)[i]);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  tavfuzz::Source src(data, size);
  const tavfuzz::Program prog = tavfuzz::generate(src, opts);
  const std::string err = tavfuzz::run(prog);
  if (!err.empty()) {
    std::fprintf(stderr, "FAILED: %s\n%s\n", err.c_str(), prog.print().c_str());
    std::abort();
  }
  return 0;
}
