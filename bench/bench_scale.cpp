// How the costs of a linear sum scale with its size: a sum of 10^5, 10^6,
// 10^7 and 10^8 terms over a fixed set of 10^6 variables (terms in a
// scattered order) is built, evaluated, cloned into a second environment
// (where the clone is then ended) and normalised. Each phase is printed per
// term: CPU and wall nanoseconds, bytes reserved by the environment that
// takes the phase's objects, and growth of the process's peak resident size.
// Each size runs in fresh environments, and the clone's environment ends
// before the next size. Up to 10^6 terms no variable repeats, so normalising
// merges nothing; from 10^7 on every variable has 10 or 100 terms to merge.
//
// Targets checked at the end: per phase, CPU time per term grows at most
// 1.5x from 10^6 to 10^8 terms, and the sum and its clone reserve at most 25
// bytes per term.
//
// `--smoke` or `--benchmark_min_time=...` (the smoke run of every benchmark)
// runs the smallest size only; `--terms N` runs a sum of N terms once.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/resource.h>
#include <time.h>

#include "tavexpression.h"

namespace {

constexpr long Vars = 1000000;
constexpr double TimeGrowthTarget = 1.5;
constexpr double BytesPerTermTarget = 25.0;

enum Phase { Build, Eval, Clone, End, CloneAll, Normalize, PhaseCount };
const char* const PhaseNames[PhaseCount] = {"build", "eval", "clone", "end", "clone+vars", "normalise"};

// ------------------------------------------------------------- process memory

long statusKiB(const char* field) {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char line[256];
  long kib = 0;
  const std::size_t n = std::strlen(field);
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, field, n) == 0) kib = std::atol(line + n);
  std::fclose(f);
  return kib;
}

/// Sets the peak resident size back to the current one; false where the
/// system does not allow it (the peak then only grows).
bool resetPeak() {
  FILE* f = std::fopen("/proc/self/clear_refs", "w");
  if (!f) return false;
  bool ok = std::fputs("5", f) >= 0;
  return std::fclose(f) == 0 && ok;
}

double threadCpuNs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return 1e9 * (double)t.tv_sec + (double)t.tv_nsec;
}

/// The thread's system time: in these phases, page faults. The system counts
/// it by ticks, so it means little for phases of a few milliseconds.
double threadSysNs() {
  rusage u;
  if (getrusage(RUSAGE_THREAD, &u) != 0) return 0;
  return 1e9 * (double)u.ru_stime.tv_sec + 1e3 * (double)u.ru_stime.tv_usec;
}

/// Measures one phase: the thread's CPU time (user and system: page faults
/// count, waiting for a core while others run does not), wall time, and how
/// far the peak resident size rose above the resident size at its start.
struct Meter {
  long rssBefore;
  double cpu0, sys0;
  std::chrono::steady_clock::time_point t0;
  Meter() {
    resetPeak();
    rssBefore = statusKiB("VmRSS:");
    t0 = std::chrono::steady_clock::now();
    cpu0 = threadCpuNs();
    sys0 = threadSysNs();
  }
  double ns() const { return threadCpuNs() - cpu0; }
  double sysNs() const { return threadSysNs() - sys0; }
  double wallNs() const {
    return (double)std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
  }
  double peakGrowthBytes() const { return 1024.0 * (double)std::max(0L, statusKiB("VmHWM:") - rssBefore); }
};

// ------------------------------------------------------------- one size

struct Figures {
  double ns[PhaseCount] = {};        // CPU time
  double wall[PhaseCount] = {};
  double sys[PhaseCount] = {};       // the part of the CPU time spent in the system
  double reserved[PhaseCount] = {};  // bytes the environment taking the phase's objects reserved
  double peak[PhaseCount] = {};      // peak resident growth of the process
};

/// Stores what m measured as the figures of phase p.
void record(const Meter& m, Figures& f, Phase p) {
  f.ns[p] = m.ns();
  f.wall[p] = m.wallNs();
  f.sys[p] = m.sysNs();
  f.peak[p] = m.peakGrowthBytes();
}

std::size_t reservedOf(const TavEnv& env) { return env.getImpl()->getMemory().getReservedBytes(); }

/// One pass over a sum of n terms in fresh environments.
Figures runOnce(long n) {
  Figures f;
  TavEnv env;
  TavNumVarArray x(env, Vars, 0.0, 10.0);
  TavSolution sol(env);
  for (long j = 0; j < Vars; ++j) sol.setValue(x[j], double(j % 11));

  TavExpr e(env);
  {
    // The term order of the other benchmarks: index i * 7919 modulo the
    // variable count, coefficient 1 + i % 7, both kept incrementally.
    const std::size_t r0 = reservedOf(env);
    Meter m;
    long id = 0;
    double c = 1.0;
    for (long i = 0; i < n; ++i) {
      e += c * x[id];
      id += 7919;
      if (id >= Vars) id -= Vars;
      c = c == 7.0 ? 1.0 : c + 1.0;
    }
    record(m, f, Build);
    f.reserved[Build] = double(reservedOf(env) - r0);
  }
  {
    Meter m;
    benchmark::DoNotOptimize(sol.getValue(e));
    record(m, f, Eval);
  }
  {
    // The variables are cloned first, in the same pass, so that the figures
    // are those of the sum's terms alone.
    TavEnv copy;
    TavEnvI* source = env.getImpl();
    for (long j = 0; j < Vars; ++j) source->cloneInto(x[j].getImpl(), copy.getImpl());
    const std::size_t r0 = reservedOf(copy);
    TavExtractableI* clone;
    {
      Meter m;
      clone = source->cloneInto(e.getImpl(), copy.getImpl());
      record(m, f, Clone);
      f.reserved[Clone] = double(reservedOf(copy) - r0);
    }
    source->clearCloneMap();
    {
      // Ending is measured on the clone: the sum itself is normalised below
      // and, with 100 terms per variable at the largest size, merged.
      Meter m;
      TavNumExpr(static_cast<TavNumExprI*>(clone)).end();
      record(m, f, End);
    }
    copy.end();
  }
  {
    // The whole path from an empty clone map: the variables are cloned on
    // the way, and the pass keeps its own bookkeeping meanwhile.
    TavEnv copy;
    Meter m;
    benchmark::DoNotOptimize(env.getImpl()->cloneInto(e.getImpl(), copy.getImpl()));
    record(m, f, CloneAll);
    f.reserved[CloneAll] = double(reservedOf(copy));
    env.getImpl()->clearCloneMap();
    copy.end();
  }
  {
    Meter m;
    benchmark::DoNotOptimize(e.normalize());
    record(m, f, Normalize);
  }
  e.end();
  env.end();
  return f;
}

/// The median of each figure over a few passes (one for the largest sizes).
Figures run(long n, int passes) {
  std::vector<Figures> all;
  for (int k = 0; k < passes; ++k) all.push_back(runOnce(n));
  typedef double(Figures::*Field)[PhaseCount];
  Figures out;
  for (Field field : {&Figures::ns, &Figures::wall, &Figures::sys, &Figures::reserved, &Figures::peak})
    for (int p = 0; p < PhaseCount; ++p) {
      std::vector<double> v;
      for (const Figures& f : all) v.push_back((f.*field)[p]);
      std::sort(v.begin(), v.end());
      (out.*field)[p] = v[v.size() / 2];
    }
  return out;
}

}  // namespace

/// Environments of n variables: CPU ns per variable to make them (one array)
/// and to end the environment that holds them.
struct VarFigures {
  double build, end;
};
VarFigures variablesOnce(long n) {
  TavEnv env;
  double t0 = threadCpuNs();
  TavNumVarArray x(env, n, 0.0, 10.0);
  double t1 = threadCpuNs();
  env.end();
  double t2 = threadCpuNs();
  return {(t1 - t0) / (double)n, (t2 - t1) / (double)n};
}

int main(int argc, char** argv) {
  bool smoke = false;
  long only = 0;  // --terms N: that size alone, once (to look at one size under a profiler)
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--smoke") == 0 || std::strncmp(argv[i], "--benchmark_min_time", 20) == 0) smoke = true;
    if (std::strcmp(argv[i], "--terms") == 0 && i + 1 < argc) only = std::atol(argv[++i]);
  }

  struct Size {
    long terms;
    int passes;
  };
  Size sizes[] = {{100000, 5}, {1000000, 3}, {10000000, 3}, {100000000, 1}};
  if (only > 0) sizes[0] = {only, 1};
  if (smoke) sizes[0].passes = 1;
  const int count = smoke || only > 0 ? 1 : 4;
  std::vector<Figures> results;

  std::printf("sum of n terms over %ld variables; per term: CPU ns (and its system part), wall ns, bytes reserved by the environment\n"
              "that takes the phase's objects (the sum's, the clone's; clone+vars: with the variables' clones),\n"
              "growth of the process's peak resident size\n",
              Vars);
  std::printf("%-11s %-10s %9s %9s %9s %12s %12s\n", "terms", "phase", "CPU ns", "sys ns", "wall ns", "reserved B",
              "peak RSS B");
  for (int s = 0; s < count; ++s) {
    const long n = sizes[s].terms;
    results.push_back(run(n, sizes[s].passes));
    const Figures& f = results.back();
    for (int p = 0; p < PhaseCount; ++p)
      std::printf("%-11ld %-10s %9.2f %9.2f %9.2f %12.2f %12.2f\n", n, PhaseNames[p], f.ns[p] / (double)n,
                  f.sys[p] / (double)n, f.wall[p] / (double)n, f.reserved[p] / (double)n, f.peak[p] / (double)n);
    std::fflush(stdout);
  }

  // Ending an environment walks its objects once: the time per variable to
  // end it stays flat from 10^5 to 10^7 variables.
  std::printf("%-11s %-10s %9s %9s\n", "variables", "", "build ns", "end ns");
  const long varSizes[] = {100000, 1000000, 10000000};
  VarFigures first{}, last{};
  for (int s = 0; s < (smoke ? 1 : 3); ++s) {
    last = variablesOnce(varSizes[s]);
    if (s == 0) first = last;
    std::printf("%-11ld %-10s %9.2f %9.2f\n", varSizes[s], "", last.build, last.end);
  }
  if (!smoke) std::printf("ending, time per variable 10^7 / 10^5: %.2f\n", last.end / first.end);
  std::fflush(stdout);
  if (count < 4) return 0;

  // Targets: growth of the time per term from 10^6 to 10^8, bytes per term at 10^8.
  int missed = 0;
  const Figures& small = results[1];
  const Figures& large = results[3];
  for (int p = 0; p < PhaseCount; ++p) {
    const double growth = (large.ns[p] / 1e8) / (small.ns[p] / 1e6);
    const bool ok = growth <= TimeGrowthTarget;
    missed += !ok;
    std::printf("%-10s CPU time per term, 10^8 / 10^6: %.2f (target %.1f) %s\n", PhaseNames[p], growth,
                TimeGrowthTarget, ok ? "ok" : "MISSED");
  }
  for (Phase p : {Build, Clone}) {
    const double bytes = large.reserved[p] / 1e8;
    const bool ok = bytes <= BytesPerTermTarget;
    missed += !ok;
    std::printf("%-10s reserved bytes per term at 10^8: %.2f (target %.0f) %s\n", PhaseNames[p], bytes,
                BytesPerTermTarget, ok ? "ok" : "MISSED");
  }
  std::printf("%s\n", missed ? "some targets missed" : "all targets met");
  return 0;
}
