// Evaluating count, standard deviation and a piecewise-linear function,
// next to hand-written loops over the same values in the same run. The
// ratios library / hand-written are what to watch; absolute times vary.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "tavexpression.h"

namespace {

constexpr long N = 100000;      // integer expressions counted and spread
constexpr long Breaks = 1000;   // breakpoints of the piecewise function
constexpr long Points = 10000;  // points it is evaluated at per iteration

// ------------------------------------------------------------- count and deviation

struct Aggregates {
  TavEnv env;
  TavIntVarArray x;
  TavSolution sol;
  std::vector<double> values;
  TavIntExpr count;
  TavNumExpr deviation;
  Aggregates() : x(env, N, -50, 50), sol(env), values(N) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> v(-50, 50);
    for (long i = 0; i < N; ++i) {
      values[i] = v(rng);
      sol.setValue(x[i], values[i]);
    }
    count = TavCount(x, 3);
    deviation = TavStandardDeviation(x);
  }
};

Aggregates& aggregates() {
  static Aggregates* a = new Aggregates;  // left to the process exit
  return *a;
}

void BM_CountBaseline(benchmark::State& state) {
  const std::vector<double>& v = aggregates().values;
  for (auto _ : state) {
    long n = 0;
    for (double d : v) n += d == 3.0;
    benchmark::DoNotOptimize(n);
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_CountBaseline);

void BM_Count(benchmark::State& state) {
  Aggregates& a = aggregates();
  for (auto _ : state) benchmark::DoNotOptimize(a.sol.getValue(a.count));
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Count);

void BM_StandardDeviationBaseline(benchmark::State& state) {
  const std::vector<double>& v = aggregates().values;
  for (auto _ : state) {
    double sum = 0.0;
    for (double d : v) sum += d;
    const double mean = sum / (double)N;
    double squares = 0.0;
    for (double d : v) squares += (d - mean) * (d - mean);
    benchmark::DoNotOptimize(std::sqrt(squares / (double)N));
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_StandardDeviationBaseline);

void BM_StandardDeviation(benchmark::State& state) {
  Aggregates& a = aggregates();
  for (auto _ : state) benchmark::DoNotOptimize(a.sol.getValue(a.deviation));
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_StandardDeviation);

// ------------------------------------------------------------- piecewise linear

/// A slope-form function with a jump every tenth breakpoint, anchored in
/// the middle, and points spread over and beyond its breakpoints.
struct Piecewise {
  TavEnv env;
  std::vector<double> p, s, xs;
  double anchor = 0, anchorValue = 1;
  TavExprPiecewiseLinearI* node = nullptr;
  // The hand-written bisection: breakpoints and the running value at each.
  std::vector<double> acc;
  long start = 0;

  Piecewise() {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> slope(-3, 3), x(-10, Breaks + 10);
    for (long i = 0; i < Breaks; ++i) p.push_back(i % 10 == 9 ? p.back() : (double)i);
    for (long i = 0; i <= Breaks; ++i) s.push_back(slope(rng));
    anchor = Breaks / 2 + 0.5;
    for (long i = 0; i < Points; ++i) xs.push_back(x(rng));
    TavNumArray bp(env, 0), sl(env, 0);
    for (double d : p) bp.add(d);
    for (double d : s) sl.add(d);
    TavEnvI* e = env.getImpl();
    node = new (e) TavExprPiecewiseLinearI(e, nullptr, bp, sl, anchor, anchorValue);
    node->lockRef();
    start = std::upper_bound(p.begin(), p.end(), anchor) - p.begin();
    acc.assign(Breaks + 1, 0.0);
    acc[start] = anchorValue;
    double value = anchorValue, cur = anchor;
    for (long i = start; i < Breaks; ++i) {
      value += i > 0 && p[i - 1] == p[i] ? s[i] : (p[i] - cur) * s[i];
      acc[i + 1] = value, cur = p[i];
    }
    value = anchorValue, cur = anchor;
    for (long i = start - 1; i >= 0; --i) {
      if (i < Breaks - 1 && p[i] == p[i + 1]) value -= s[i + 1];
      else value += (p[i] - cur) * s[i + 1];
      acc[i] = value, cur = p[i];
    }
  }

  /// Breakpoint by breakpoint from the anchor.
  double walk(double x) const {
    double value = anchorValue, cur = anchor;
    if (x >= anchor) {
      long i = start;
      for (; i < Breaks && x >= p[i]; ++i) {
        value += i > 0 && p[i - 1] == p[i] ? s[i] : (p[i] - cur) * s[i];
        cur = p[i];
      }
      return value + (x - cur) * s[i];
    }
    long i = start - 1;
    for (; i >= 0 && p[i] > x; --i) {
      if (i < Breaks - 1 && p[i] == p[i + 1]) value -= s[i + 1];
      else value += (p[i] - cur) * s[i + 1];
      cur = p[i];
    }
    return value + (x - cur) * s[i + 1];
  }

  /// Bisection over the running values.
  double bisect(double x) const {
    if (x >= anchor) {
      const long j = std::upper_bound(p.begin() + start, p.end(), x) - p.begin();
      return acc[j] + (x - (j == start ? anchor : p[j - 1])) * s[j];
    }
    const long t = std::upper_bound(p.begin(), p.begin() + start, x) - p.begin();
    return acc[t] + (x - (t == start ? anchor : p[t])) * s[t];
  }
};

Piecewise& piecewise() {
  static Piecewise* f = new Piecewise;
  return *f;
}

void BM_PiecewiseWalkBaseline(benchmark::State& state) {
  const Piecewise& f = piecewise();
  for (auto _ : state) {
    double sum = 0;
    for (double x : f.xs) sum += f.walk(x);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * Points);
}
BENCHMARK(BM_PiecewiseWalkBaseline);

void BM_PiecewiseBisectBaseline(benchmark::State& state) {
  const Piecewise& f = piecewise();
  for (auto _ : state) {
    double sum = 0;
    for (double x : f.xs) sum += f.bisect(x);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * Points);
}
BENCHMARK(BM_PiecewiseBisectBaseline);

void BM_Piecewise(benchmark::State& state) {
  const Piecewise& f = piecewise();
  for (auto _ : state) {
    double sum = 0;
    for (double x : f.xs) sum += f.node->getPiecewiseLinearValue(x);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * Points);
}
BENCHMARK(BM_Piecewise);

/// The three evaluations agree before anything is timed.
bool agree() {
  const Piecewise& f = piecewise();
  for (double x : f.xs) {
    const double v = f.node->getPiecewiseLinearValue(x);
    if (v != f.walk(x) || v != f.bisect(x)) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!agree()) return 2;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
