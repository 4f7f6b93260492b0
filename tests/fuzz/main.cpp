// tavexpression_fuzz [count] [--seed S] [--only I] [--trace] [--no-FAMILY ...]
// Runs count generated programs (program i from seed S * 1000003 + i), prints each
// failing program as a reproducer and ends with "fuzz: P passed, F failed".
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "fuzz.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAV_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TAV_FUZZ_ASAN 1
#endif
#ifdef TAV_FUZZ_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

namespace {
// The program being run, written out when the process dies inside it.
std::string current;

void printCurrent() {
  const char header[] = "\n--- program that was running ---\n";
  if (write(2, header, sizeof header - 1) < 0 || write(2, current.data(), current.size()) < 0) return;
}
void onSignal(int sig) {
  if (sig == SIGALRM) {
    const char text[] = "\nFAILED: program still running after 60 s (a cycle in a term list?)\n";
    if (write(2, text, sizeof text - 1) < 0) sig = SIGABRT;
    sig = SIGABRT;
  }
  printCurrent();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}
}  // namespace

int main(int argc, char** argv) {
  long count = 12000, only = -1;  // about a minute under Debug with the sanitizers
  unsigned long long seed = 20240611;
  bool trace = false;
  tavfuzz::Options opts;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--seed") && i + 1 < argc) seed = std::strtoull(argv[++i], nullptr, 10);
    else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) only = std::strtol(argv[++i], nullptr, 10);
    else if (!std::strcmp(argv[i], "--trace")) trace = true;
    else if (argv[i][0] != '-') count = std::strtol(argv[i], nullptr, 10);
    else if (!opts.parse(argv[i])) {
      std::fprintf(stderr, "unknown option %s\n", argv[i]);
      return 2;
    }
  }
  // Signals from deep recursion arrive on an exhausted stack.
  static char altStack[1 << 16];
  stack_t ss{};
  ss.ss_sp = altStack;
  ss.ss_size = sizeof altStack;
  sigaltstack(&ss, nullptr);
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sa.sa_flags = SA_ONSTACK;
  for (int sig : {SIGSEGV, SIGABRT, SIGFPE, SIGBUS, SIGALRM}) sigaction(sig, &sa, nullptr);
#ifdef TAV_FUZZ_ASAN
  __sanitizer_set_death_callback(printCurrent);
#endif
  long passed = 0, failed = 0;
  for (long i = only < 0 ? 0 : only; i < (only < 0 ? count : only + 1); ++i) {
    tavfuzz::Source src(seed * 1000003ull + (unsigned long long)i);  // seeds apart give programs apart
    const tavfuzz::Program prog = tavfuzz::generate(src, opts);
    current = "// program " + std::to_string(i) + " (--seed " + std::to_string(seed) + " --only " + std::to_string(i) +
              ")\n" + prog.print();
    if (trace) std::printf("%s\n", current.c_str());
    alarm(60);
    const std::string err = tavfuzz::run(prog);
    alarm(0);
    if (err.empty()) {
      ++passed;
      continue;
    }
    if (++failed <= 3) std::printf("FAILED: %s\n%s\n", err.c_str(), current.c_str());
  }
  std::printf("fuzz: %ld passed, %ld failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
