// The same linear sum built by this library and by two other solver
// libraries, in one run: 10^6 terms c * x over 10^6 variables in a scattered
// order (variable i * 7919 modulo 10^6, coefficient 1 + i % 7).
//
// - library: `TavExpr e(env); e += c * x` per term.
// - Gecode: the coefficient and variable argument arrays filled in the same
//   order, then `linear(home, a, x, IRT_LQ, bound)` posted on a space of
//   integer variables (filling and posting are timed; making the space is not).
// - CoinUtils: `CoinPackedVector::insert(index, coefficient)` per term, with
//   its duplicate-index test off (a plain append) and on (its default).
//
// A peer that was not found when the benchmarks were configured is skipped
// and said so. The ratios peer / library are printed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tavexpression.h"

#ifdef TAV_HAVE_GECODE
#include <gecode/int.hh>
#endif
#ifdef TAV_HAVE_COINUTILS
#include <CoinPackedVector.hpp>
#endif

namespace {

constexpr int N = 1000000;  // terms and variables

/// The term order shared by every builder.
struct Terms {
  std::vector<int> ids;
  std::vector<int> coefs;
  Terms() : ids(N), coefs(N) {
    for (long i = 0; i < N; ++i) {
      ids[(std::size_t)i] = (int)((i * 7919) % N);
      coefs[(std::size_t)i] = 1 + (int)(i % 7);
    }
  }
};

const Terms& terms() {
  static const Terms t;
  return t;
}

// ------------------------------------------------------------- this library

struct Model {
  TavEnv env;
  TavNumVarArray x;  // as the other build benchmarks
  Model() : x(env, N, 0.0, 10.0) {}
  ~Model() { env.end(); }
};

void BM_Library(benchmark::State& state) {
  static Model m;
  const Terms& t = terms();
  for (auto _ : state) {
    TavExpr e(m.env);
    for (int i = 0; i < N; ++i) e += double(t.coefs[(std::size_t)i]) * m.x[t.ids[(std::size_t)i]];
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Library)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- Gecode

#ifdef TAV_HAVE_GECODE
class VarSpace : public Gecode::Space {
 public:
  Gecode::IntVarArray x;
  VarSpace() : x(*this, N, 0, 10) {}
  VarSpace(VarSpace& s) : Gecode::Space(s) { x.update(*this, s.x); }
  Gecode::Space* copy() override { return new VarSpace(*this); }
};

void BM_Gecode(benchmark::State& state) {
  const Terms& t = terms();
  for (auto _ : state) {
    state.PauseTiming();
    VarSpace* home = new VarSpace;
    state.ResumeTiming();
    Gecode::IntArgs a(N);
    Gecode::IntVarArgs xs(N);
    for (int i = 0; i < N; ++i) {
      a[i] = t.coefs[(std::size_t)i];
      xs[i] = home->x[t.ids[(std::size_t)i]];
    }
    // Neither entailed nor failed by the bounds: a propagator is made.
    Gecode::linear(*home, a, xs, Gecode::IRT_LQ, N);
    benchmark::DoNotOptimize(home->failed());
    state.PauseTiming();
    delete home;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Gecode)->Unit(benchmark::kMillisecond);
#endif

// ------------------------------------------------------------- CoinUtils

#ifdef TAV_HAVE_COINUTILS
/// range(0): 1 when the vector tests every index for a duplicate.
void BM_CoinUtils(benchmark::State& state) {
  const Terms& t = terms();
  const bool test = state.range(0) != 0;
  for (auto _ : state) {
    CoinPackedVector v(test);
    for (int i = 0; i < N; ++i) v.insert(t.ids[(std::size_t)i], double(t.coefs[(std::size_t)i]));
    benchmark::DoNotOptimize(v.getElements());
    state.PauseTiming();
    v.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_CoinUtils)->ArgName("duplicate_test")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

/// The console output, and the CPU time of every benchmark kept for the
/// ratios: the median when there are repetitions, else the one run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Iteration) single[r.run_name.str()] = r.GetAdjustedCPUTime();
      else if (r.aggregate_name == "median") median[r.run_name.str()] = r.GetAdjustedCPUTime();
    }
  }
  const std::map<std::string, double>& cpu() const { return median.empty() ? single : median; }

 private:
  std::map<std::string, double> single, median;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
#ifndef TAV_HAVE_GECODE
  std::printf("Gecode: skipped (not found when the benchmarks were configured)\n");
#endif
#ifndef TAV_HAVE_COINUTILS
  std::printf("CoinUtils: skipped (not found when the benchmarks were configured)\n");
#endif
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  const std::map<std::string, double>& cpu = reporter.cpu();
  auto lib = cpu.find("BM_Library");
  if (lib != cpu.end() && lib->second > 0)
    for (const auto& r : cpu)
      if (r.first != lib->first) std::printf("CPU time %s / BM_Library: %.2f\n", r.first.c_str(), r.second / lib->second);
  return 0;
}
