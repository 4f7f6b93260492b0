// Model-building, normalisation and evaluation costs of the library, next to
// hand-written baselines of the same work measured in the same run. The
// ratios library / baseline are what to watch; absolute times vary.
//
// Before the timed benchmarks, the program measures the cold build (first
// build in a fresh process, where page faults dominate) and the peak
// resident growth per term, each in a forked child.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tavexpression.h"

namespace {

constexpr long N = 1000000;
constexpr long Distinct = 100000;

// ------------------------------------------------------------- baselines

/// The least a term list can cost: 24-byte cells from a free list.
struct Cell {
  const void* var;
  Cell* next;
  double coef;
};

class CellPool {
 public:
  ~CellPool() {
    for (Cell* b : _blocks) std::free(b);
  }
  Cell* get() {
    if (_free) {
      Cell* c = _free;
      _free = c->next;
      return c;
    }
    if (_left == 0) {
      _next = static_cast<Cell*>(std::malloc(sizeof(Cell) * BlockCells));
      _blocks.push_back(_next);
      _left = BlockCells;
    }
    --_left;
    return _next++;
  }
  void put(Cell* c) {
    c->next = _free;
    _free = c;
  }

 private:
  static constexpr long BlockCells = 65536 / sizeof(Cell);
  Cell* _free = nullptr;
  Cell* _next = nullptr;
  long _left = 0;
  std::vector<Cell*> _blocks;
};

struct BaselineList {
  Cell* first = nullptr;
  Cell* last = nullptr;
  void append(Cell* c) {
    c->next = nullptr;
    if (last) last->next = c;
    else first = c;
    last = c;
  }
  void recycle(CellPool& pool) {
    while (first) {
      Cell* n = first->next;
      pool.put(first);
      first = n;
    }
    last = nullptr;
  }
};

/// The same input as the library gets: a variable pointer looked up by index.
void baselineBuild(CellPool& pool, BaselineList& list, const std::vector<TavNumVarI*>& vars,
                   const std::vector<long>& ids, const std::vector<double>& c) {
  for (long i = 0; i < N; ++i) {
    Cell* cell = pool.get();
    cell->var = vars[ids[i]];
    cell->coef = c[i];
    list.append(cell);
  }
}

// ------------------------------------------------------------- the model

/// Variables, coefficients and a solution shared by the benchmarks.
struct Model {
  TavEnv env;
  TavNumVarArray x;
  std::vector<double> c;
  std::vector<long> ids;  // the variable index of each term
  std::vector<TavNumVarI*> vars;
  TavSolution sol;
  explicit Model(long n) : x(env, n, 0.0, 10.0), sol(env) {
    const long vars = n;
    c.resize(N);
    ids.resize(N);
    for (long i = 0; i < N; ++i) {
      c[i] = 1.0 + (double)(i % 7);
      ids[i] = (i * 7919) % vars;
    }
    for (long j = 0; j < vars; ++j) sol.setValue(x[j], (double)(j % 11));
    for (long j = 0; j < vars; ++j) this->vars.push_back(x.getElement(j));
  }
  ~Model() { env.end(); }
};

Model& model(long vars) {
  static Model* full = nullptr;
  static Model* few = nullptr;
  Model*& m = vars == N ? full : few;
  if (!m) m = new Model(vars);
  return *m;
}

void buildLibrary(Model& m, TavExpr& e) {
  for (long i = 0; i < N; ++i) e += m.c[i] * m.x[m.ids[i]];
}

// ------------------------------------------------------------- building

void BM_BuildBaseline(benchmark::State& state) {
  Model& m = model(N);
  CellPool pool;
  for (auto _ : state) {
    BaselineList list;
    baselineBuild(pool, list, m.vars, m.ids, m.c);
    benchmark::DoNotOptimize(list.first);
    state.PauseTiming();
    list.recycle(pool);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_BuildBaseline)->Unit(benchmark::kMillisecond);

/// The floor with the checks every term of a model must pass, written by
/// hand: the variable is not null and its memory belongs to the sum's
/// environment (a variable of another or of an ended environment is
/// refused), looked up in the same owner table the library reads. The
/// variables come from the same vector as the floor's (Checked) or through
/// the library's array handle, as the library's build reads them
/// (CheckedThroughArray). Library / these = what the library adds beyond the
/// checks and the array reads.
template <bool ThroughArray>
void baselineBuildChecked(CellPool& pool, BaselineList& list, Model& m) {
  TavEnvI* env = m.env.getImpl();
  for (long i = 0; i < N; ++i) {
    TavNumVarI* v = ThroughArray ? m.x[m.ids[i]].getImpl() : m.vars[m.ids[i]];
    if (TAV_UNLIKELY(v == nullptr)) throw TavEmptyHandleException();
    if (TAV_UNLIKELY(TavMemory::EnvOf(v) != env)) throw TavWrongUsage("mixing mismatch Environments", 0);
    Cell* cell = pool.get();
    cell->var = v;
    cell->coef = m.c[i];
    list.append(cell);
  }
}

template <bool ThroughArray>
void BM_BuildBaselineChecked(benchmark::State& state) {
  Model& m = model(N);
  CellPool pool;
  for (auto _ : state) {
    BaselineList list;
    baselineBuildChecked<ThroughArray>(pool, list, m);
    benchmark::DoNotOptimize(list.first);
    state.PauseTiming();
    list.recycle(pool);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK_TEMPLATE(BM_BuildBaselineChecked, false)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_BuildBaselineChecked, true)->Unit(benchmark::kMillisecond);

void BM_BuildExpr(benchmark::State& state) {
  Model& m = model(N);
  for (auto _ : state) {
    TavExpr e(m.env);
    buildLibrary(m, e);
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();  // cells go back to the environment's free list
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_BuildExpr)->Unit(benchmark::kMillisecond);

/// The same sum written only with operators over a temporary.
void BM_BuildOperators(benchmark::State& state) {
  Model& m = model(N);
  const long n = state.range(0);
  for (auto _ : state) {
    TavNumExprArg e = m.x[m.ids[0]] * m.c[0];
    for (long i = 1; i < n; ++i) e = e + m.x[m.ids[i]] * m.c[i];
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    TavNumExpr(e).end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_BuildOperators)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

/// Each form of a chain over a temporary, beside BM_BuildBaseline: every step
/// should link one cell, as `e += c * x` does. The integer forms run over
/// integer variables of the same environment.
TavIntVarArray& intVars(Model& m);

template <class Arg, class First, class Step>
void chain(benchmark::State& state, First first, Step step) {
  Model& m = model(N);
  intVars(m);  // made before the timed runs
  for (auto _ : state) {
    Arg e = first(m);
    for (long i = 1; i < N; ++i) e = step(m, e, i);
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    TavNumExpr(e).end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}

TavIntVarArray& intVars(Model& m) {
  static TavIntVarArray* ix = nullptr;
  if (!ix) ix = new TavIntVarArray(m.env, N, 0, 10);
  return *ix;
}
TavInt intCoef(const Model& m, long i) { return (TavInt)m.c[i]; }

auto numFirst = [](Model& m) -> TavNumExprArg { return m.c[0] * m.x[m.ids[0]]; };
auto intFirst = [](Model& m) -> TavIntExprArg { return intCoef(m, 0) * intVars(m)[m.ids[0]]; };

void BM_ChainPlus(benchmark::State& state) {
  chain<TavNumExprArg>(state, numFirst, [](Model& m, const TavNumExprArg& e, long i) {
    return e + m.c[i] * m.x[m.ids[i]];
  });
}
void BM_ChainMinus(benchmark::State& state) {
  chain<TavNumExprArg>(state, numFirst, [](Model& m, const TavNumExprArg& e, long i) {
    return e - m.c[i] * m.x[m.ids[i]];
  });
}
void BM_ChainTermFirst(benchmark::State& state) {
  chain<TavNumExprArg>(state, numFirst, [](Model& m, const TavNumExprArg& e, long i) {
    return m.c[i] * m.x[m.ids[i]] + e;
  });
}
void BM_ChainIntPlus(benchmark::State& state) {
  chain<TavIntExprArg>(state, intFirst, [](Model& m, const TavIntExprArg& e, long i) {
    return e + intCoef(m, i) * intVars(m)[m.ids[i]];
  });
}
void BM_ChainIntMinus(benchmark::State& state) {
  chain<TavIntExprArg>(state, intFirst, [](Model& m, const TavIntExprArg& e, long i) {
    return e - intCoef(m, i) * intVars(m)[m.ids[i]];
  });
}
void BM_ChainIntTermFirst(benchmark::State& state) {
  chain<TavIntExprArg>(state, intFirst, [](Model& m, const TavIntExprArg& e, long i) {
    return intCoef(m, i) * intVars(m)[m.ids[i]] + e;
  });
}
/// A numeric chain over integer variables (numeric coefficients).
void BM_ChainNumOverInt(benchmark::State& state) {
  chain<TavNumExprArg>(
      state, [](Model& m) -> TavNumExprArg { return m.c[0] * intVars(m)[m.ids[0]]; },
      [](Model& m, const TavNumExprArg& e, long i) { return e + m.c[i] * intVars(m)[m.ids[i]]; });
}
BENCHMARK(BM_ChainPlus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainMinus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainTermFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainIntPlus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainIntMinus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainIntTermFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChainNumOverInt)->Unit(benchmark::kMillisecond);

/// Products of variables collected as the parts of one linear expression.
void BM_BuildProducts(benchmark::State& state) {
  Model& m = model(N);
  const long n = 100000;
  for (auto _ : state) {
    TavExpr e(m.env);
    for (long i = 0; i + 1 < n; i += 2) e += m.x[m.ids[i]] * m.x[m.ids[i + 1]];
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n / 2);
}
BENCHMARK(BM_BuildProducts)->Unit(benchmark::kMillisecond);

/// The floor of the array builders: one cell per variable in array order.
void BM_BuildBaselineInOrder(benchmark::State& state) {
  Model& m = model(N);
  CellPool pool;
  for (auto _ : state) {
    BaselineList list;
    for (long i = 0; i < N; ++i) {
      Cell* cell = pool.get();
      cell->var = m.vars[i];
      cell->coef = m.c[i];
      list.append(cell);
    }
    benchmark::DoNotOptimize(list.first);
    state.PauseTiming();
    list.recycle(pool);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_BuildBaselineInOrder)->Unit(benchmark::kMillisecond);

void BM_ScalProd(benchmark::State& state) {
  Model& m = model(N);
  TavNumArray coefs(m.env, N);
  for (long i = 0; i < N; ++i) coefs[i] = m.c[i];
  for (auto _ : state) {
    TavNumExpr e(TavScalProd(coefs, m.x));
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  coefs.end();
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_ScalProd)->Unit(benchmark::kMillisecond);

void BM_Sum(benchmark::State& state) {
  Model& m = model(N);
  for (auto _ : state) {
    TavNumExpr e(TavSum(m.x));
    benchmark::DoNotOptimize(e.getImpl());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Sum)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- normalising

/// Baseline merge: one mark per variable pointing at its surviving cell.
void BM_NormalizeBaseline(benchmark::State& state) {
  Model& m = model(Distinct);
  CellPool pool;
  std::vector<Cell*> marks((std::size_t)m.vars.back()->getId() + 1, nullptr);
  auto id = [](const Cell* p) { return static_cast<const TavNumVarI*>(p->var)->getId(); };
  for (auto _ : state) {
    state.PauseTiming();
    BaselineList list;
    baselineBuild(pool, list, m.vars, m.ids, m.c);
    state.ResumeTiming();
    for (Cell* p = list.first; p; p = p->next) {
      Cell*& seen = marks[id(p)];
      if (seen) {
        p->coef += seen->coef;
        seen->coef = 0.0;
      }
      seen = p;
    }
    Cell* prev = nullptr;
    for (Cell* p = list.first; p;) {
      Cell* next = p->next;
      marks[id(p)] = nullptr;
      if (p->coef == 0.0) {
        if (prev) prev->next = next;
        else list.first = next;
        pool.put(p);
      } else {
        prev = p;
      }
      p = next;
    }
    list.last = prev;
    benchmark::DoNotOptimize(list.first);
    state.PauseTiming();
    list.recycle(pool);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_NormalizeBaseline)->Unit(benchmark::kMillisecond);

void BM_Normalize(benchmark::State& state) {
  Model& m = model(Distinct);
  for (auto _ : state) {
    state.PauseTiming();
    TavExpr e(m.env);
    buildLibrary(m, e);
    state.ResumeTiming();
    benchmark::DoNotOptimize(e.normalize());
    state.PauseTiming();
    e.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Normalize)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- evaluating

void BM_EvalBaseline(benchmark::State& state) {
  Model& m = model(N);
  std::vector<double> values(N);
  for (long j = 0; j < N; ++j) values[j] = (double)(j % 11);
  for (auto _ : state) {
    double s = 0.0;
    for (long i = 0; i < N; ++i) s += m.c[i] * values[m.ids[i]];
    benchmark::DoNotOptimize(s);
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_EvalBaseline)->Unit(benchmark::kMillisecond);

void BM_Eval(benchmark::State& state) {
  Model& m = model(N);
  TavExpr e(m.env);
  buildLibrary(m, e);
  for (auto _ : state) benchmark::DoNotOptimize(m.sol.getValue(e));
  e.end();
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_Eval)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- cold runs

long peakResidentKiB() {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char line[256];
  long kib = 0;
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, "VmHWM:", 6) == 0) kib = std::atol(line + 6);
  std::fclose(f);
  return kib;
}

struct ColdResult {
  double ns;
  double bytesPerTerm;
};

/// Runs work once in a forked child: nanoseconds and peak resident growth per term.
template <class Prepare, class Work>
ColdResult inChild(Prepare prepare, Work work) {
  int fd[2];
  if (pipe(fd) != 0) return {0, 0};
  pid_t pid = fork();
  if (pid == 0) {
    close(fd[0]);
    auto ctx = prepare();
    long before = peakResidentKiB();
    auto t0 = std::chrono::steady_clock::now();
    work(ctx);
    auto t1 = std::chrono::steady_clock::now();
    ColdResult r{(double)std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count(),
                 (double)(peakResidentKiB() - before) * 1024.0 / (double)N};
    ssize_t w = write(fd[1], &r, sizeof r);
    (void)w;
    _exit(0);
  }
  close(fd[1]);
  ColdResult r{0, 0};
  ssize_t got = read(fd[0], &r, sizeof r);
  (void)got;
  close(fd[0]);
  waitpid(pid, nullptr, 0);
  return r;
}

void coldRuns() {
  auto prepare = [] { return new Model(N); };
  ColdResult base = inChild(prepare, [](Model* m) {
    CellPool* pool = new CellPool;  // left to the process exit, like the library's
    BaselineList list;
    baselineBuild(*pool, list, m->vars, m->ids, m->c);
    benchmark::DoNotOptimize(list.first);
  });
  ColdResult lib = inChild(prepare, [](Model* m) {
    TavExpr e(m->env);
    buildLibrary(*m, e);
    benchmark::DoNotOptimize(e.getImpl());
  });
  std::printf("cold build of %ld terms: baseline %.2f ns/term (%.1f B/term), TavExpr %.2f ns/term (%.1f B/term), "
              "ratio %.2f\n",
              N, base.ns / N, base.bytesPerTerm, lib.ns / N, lib.bytesPerTerm, lib.ns / base.ns);
}

}  // namespace

int main(int argc, char** argv) {
  coldRuns();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
