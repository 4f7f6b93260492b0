// What environment memory costs: evaluation and normalisation of a large sum
// in an environment that already built and ended many models (its recycled
// cells scattered) against the same work in a fresh environment, and the
// bytes a model of one variable and one term reserves.
//
// The ratios churned / fresh are what to watch; absolute times vary.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "tavexpression.h"

namespace {

constexpr long N = 1000000;      // terms of the measured sum
constexpr long Vars = 100000;    // variables it ranges over

/// A deterministic generator, so both environments get the same work.
struct Random {
  std::uint64_t s;
  std::uint64_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  }
  long below(long n) { return (long)(next() % (std::uint64_t)n); }
};

/// Builds and ends 10 models of mixed sizes, several alive at once, whose
/// sums take their terms in turn and end in another order than they were
/// made: what a long-running program leaves in its environment.
void churn(TavEnv env) {
  const long sizes[] = {2000, 50000, 7000, 200000, 1000, 120000, 30000, 500, 150000, 10000};
  Random r{12345};
  struct Part {
    TavNumVarArray x;
    std::vector<TavExpr> sums;
    TavNumExprArray squares;  // unary nodes, between the variables in memory
    std::vector<TavNumArray> data;  // arrays of every size class
  };
  std::vector<Part> live;
  auto end = [](Part& m) {
    m.squares.endElements();
    m.squares.end();
    for (TavNumArray& a : m.data) a.end();
    for (TavExpr& e : m.sums) e.end();
    m.x.endElements();
    m.x.end();
  };
  for (long n : sizes) {
    Part m{TavNumVarArray(env, n, 0.0, 1.0), {}, TavNumExprArray(env), {}};
    for (int k = 0; k < 4; ++k) m.sums.push_back(TavExpr(env));
    for (long i = 0; i < 3 * n; ++i) {
      m.sums[(std::size_t)(i % 4)] += double(1 + i % 5) * m.x[r.below(n)];
      // Terms of the older models too, so sums interleave their cells.
      if (!live.empty() && i % 3 == 0) {
        Part& other = live[(std::size_t)r.below((long)live.size())];
        other.sums[(std::size_t)r.below(4)] += other.x[r.below(other.x.getSize())];
      }
      if (i % 16 == 0) m.squares.add(TavSquare(m.x[r.below(n)]));
      if (i % 64 == 0) m.data.push_back(TavNumArray(env, 1 + r.below(300)));
    }
    for (std::size_t k = 0; k < m.sums.size(); k += 2) m.sums[k].normalize();
    live.push_back(std::move(m));
    if (live.size() == 3) {  // the middle one goes first
      end(live[1]);
      live.erase(live.begin() + 1);
    }
  }
  for (Part& m : live) end(m);
}

TavEnv prepared(TavEnv env, bool churned) {
  if (churned) churn(env);
  return env;
}

/// The measured model: Vars variables, a solution and the term order.
struct Model {
  TavEnv env;
  TavNumVarArray x;
  TavSolution sol;
  std::vector<long> ids;
  std::vector<double> c;
  explicit Model(bool churned) : x(prepared(env, churned), Vars, 0.0, 10.0), sol(env) {
    for (long j = 0; j < Vars; ++j) sol.setValue(x[j], double(j % 11));
    ids.resize(N);
    c.resize(N);
    for (long i = 0; i < N; ++i) {
      ids[(std::size_t)i] = (i * 7919) % Vars;
      c[(std::size_t)i] = 1.0 + double(i % 7);
    }
  }
  void build(TavExpr& e) const {
    for (long i = 0; i < N; ++i) e += c[(std::size_t)i] * x[ids[(std::size_t)i]];
  }
};

Model& model(bool churned) {
  static Model* m[2] = {nullptr, nullptr};
  if (!m[churned]) m[churned] = new Model(churned);
  return *m[churned];
}

/// range(0): 0 for a fresh environment, 1 for a churned one.
void BM_Eval(benchmark::State& state) {
  Model& m = model(state.range(0) != 0);
  TavExpr e(m.env);
  m.build(e);
  for (auto _ : state) benchmark::DoNotOptimize(m.sol.getValue(e));
  e.end();
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Eval)->ArgName("churned")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_Normalize(benchmark::State& state) {
  Model& m = model(state.range(0) != 0);
  for (auto _ : state) {
    state.PauseTiming();
    TavExpr e(m.env);
    m.build(e);
    state.ResumeTiming();
    benchmark::DoNotOptimize(e.normalize());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Normalize)->ArgName("churned")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

/// Building the sum itself, to see what handing out recycled cells costs.
void BM_Build(benchmark::State& state) {
  Model& m = model(state.range(0) != 0);
  for (auto _ : state) {
    TavExpr e(m.env);
    m.build(e);
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Build)->ArgName("churned")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

/// Bytes reserved by an environment holding one variable and one term.
void BM_SmallModelReserved(benchmark::State& state) {
  std::size_t reserved = 0;
  for (auto _ : state) {
    TavEnv env;
    TavNumVar x(env, 0.0, 1.0);
    TavExpr e(env);
    e += 2.0 * x;
    reserved = env.getImpl()->getMemory().getReservedBytes();
    env.end();
  }
  state.counters["reserved_KiB"] = double(reserved) / 1024.0;
}
BENCHMARK(BM_SmallModelReserved)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
