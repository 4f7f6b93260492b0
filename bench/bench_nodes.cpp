// Building and evaluating non-linear nodes, next to a hand-written baseline
// of the same work in the same run: node structs with a virtual eval,
// allocated from a free list. The ratios library / baseline are what to
// watch; absolute times vary.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tavexpression.h"

namespace {

constexpr long N = 1000000;  // unary nodes built per iteration
constexpr long Vars = 1000;
constexpr long Leaves = 333334;  // a tree of about 10^6 nodes over them

// ------------------------------------------------------------- baseline

/// Fixed-size blocks from a free list refilled by 64 KiB chunks.
class Pool {
 public:
  explicit Pool(std::size_t size) : _size((size + 15) & ~std::size_t(15)) {}
  ~Pool() {
    for (void* c : _chunks) std::free(c);
  }
  void* get() {
    if (_free) {
      void* p = _free;
      _free = *static_cast<void**>(p);
      return p;
    }
    if (_left == 0) {
      _next = static_cast<char*>(std::malloc(ChunkBytes));
      _chunks.push_back(_next);
      _left = ChunkBytes / _size;
    }
    --_left;
    void* p = _next;
    _next += _size;
    return p;
  }
  void put(void* p) {
    *static_cast<void**>(p) = _free;
    _free = p;
  }

 private:
  static constexpr std::size_t ChunkBytes = 65536;
  std::size_t _size;
  void* _free = nullptr;
  char* _next = nullptr;
  std::size_t _left = 0;
  std::vector<void*> _chunks;
};

struct BNode {
  virtual ~BNode() = default;
  virtual double eval(const double* values) const = 0;
};

struct BVar final : BNode {
  explicit BVar(long id) : id(id) {}
  double eval(const double* values) const override { return values[id]; }
  long id;
};

/// One operand, a function and a reference count, as a library node has.
template <double (*F)(double)>
struct BUnary final : BNode {
  explicit BUnary(BNode* x) : x(x) {}
  double eval(const double* values) const override { return F(x->eval(values)); }
  BNode* x;
  long count = 0;
};

struct BPower final : BNode {
  BPower(BNode* a, BNode* b) : a(a), b(b) {}
  double eval(const double* values) const override { return std::pow(a->eval(values), b->eval(values)); }
  BNode* a;
  BNode* b;
  long count = 0;
};

double square(double v) { return v * v; }
double absolute(double v) { return std::fabs(v); }
double sine(double v) { return std::sin(v); }
double arcTan(double v) { return std::atan(v); }

/// The unary functions of the mix, by position: i % 4.
BNode* baselineUnary(Pool& pool, long i, BNode* x) {
  switch (i % 4) {
    case 0: return new (pool.get()) BUnary<sine>(x);
    case 1: return new (pool.get()) BUnary<absolute>(x);
    case 2: return new (pool.get()) BUnary<square>(x);
    default: return new (pool.get()) BUnary<arcTan>(x);
  }
}

TavNumExprArg libraryUnary(long i, const TavNumExprArg& x) {
  switch (i % 4) {
    case 0: return TavSin(x);
    case 1: return TavAbs(x);
    case 2: return TavSquare(x);
    default: return TavArcTan(x);
  }
}

/// Levels of unary nodes over every element, then powers over pairs, until
/// one node is left; unary and power make the two kinds of node.
template <class T, class Unary, class Power>
T balancedTree(std::vector<T> level, Unary unary, Power power, long& nodes) {
  for (;;) {
    for (long i = 0; i < (long)level.size(); ++i) level[i] = unary(i, level[i]);
    nodes += (long)level.size();
    if (level.size() == 1) return level[0];
    std::vector<T> up;
    for (std::size_t i = 0; i + 1 < level.size(); i += 2) up.push_back(power(level[i], level[i + 1]));
    nodes += (long)(level.size() / 2);
    if (level.size() % 2) up.push_back(level.back());
    level.swap(up);
  }
}

// ------------------------------------------------------------- the model

struct Model {
  TavEnv env;
  TavNumVarArray x;
  TavSolution sol;
  std::vector<double> values;
  Model() : x(env, Vars, -2.0, 2.0), sol(env), values(Vars) {
    for (long j = 0; j < Vars; ++j) {
      values[j] = 0.25 + (double)(j % 7) / 4.0;
      sol.setValue(x[j], values[j]);
    }
  }
};

Model& model() {
  static Model* m = new Model;  // left to the process exit
  return *m;
}

// ------------------------------------------------------------- building

void BM_BuildUnaryBaseline(benchmark::State& state) {
  Model& m = model();
  Pool pool(sizeof(BUnary<sine>));
  std::vector<BVar> vars;
  for (long j = 0; j < Vars; ++j) vars.emplace_back(j);
  std::vector<BNode*> nodes(N);
  for (auto _ : state) {
    for (long i = 0; i < N; ++i) nodes[i] = baselineUnary(pool, i, &vars[i % Vars]);
    benchmark::DoNotOptimize(nodes.data());
    state.PauseTiming();
    for (BNode* n : nodes) pool.put(n);
    state.ResumeTiming();
  }
  (void)m;
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_BuildUnaryBaseline)->Unit(benchmark::kMillisecond);

void BM_BuildUnary(benchmark::State& state) {
  Model& m = model();
  std::vector<TavNumExprI*> nodes(N);
  for (auto _ : state) {
    for (long i = 0; i < N; ++i) nodes[i] = libraryUnary(i, m.x[i % Vars]).getImpl();
    benchmark::DoNotOptimize(nodes.data());
    state.PauseTiming();
    for (TavNumExprI* n : nodes) n->end();  // uncounted: ends at once
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * N);
}
BENCHMARK(BM_BuildUnary)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- evaluating

void BM_EvalTreeBaseline(benchmark::State& state) {
  Model& m = model();
  Pool pool(sizeof(BPower));
  std::vector<BVar> vars;
  for (long j = 0; j < Vars; ++j) vars.emplace_back(j);
  std::vector<BNode*> leaves;
  for (long i = 0; i < Leaves; ++i) leaves.push_back(&vars[(i * 7919) % Vars]);
  long nodes = 0;
  BNode* root = balancedTree(
      leaves, [&](long i, BNode* x) { return baselineUnary(pool, i, x); },
      [&](BNode* a, BNode* b) -> BNode* { return new (pool.get()) BPower(a, b); }, nodes);
  for (auto _ : state) benchmark::DoNotOptimize(root->eval(m.values.data()));
  state.SetItemsProcessed(state.iterations() * nodes);
}
BENCHMARK(BM_EvalTreeBaseline)->Unit(benchmark::kMillisecond);

void BM_EvalTree(benchmark::State& state) {
  Model& m = model();
  std::vector<TavNumExprArg> leaves;
  for (long i = 0; i < Leaves; ++i) leaves.push_back(m.x[(i * 7919) % Vars]);
  long nodes = 0;
  TavNumExpr root(balancedTree(
      leaves, [](long i, const TavNumExprArg& x) { return libraryUnary(i, x); },
      [](const TavNumExprArg& a, const TavNumExprArg& b) { return TavPower(a, b); }, nodes));
  for (auto _ : state) benchmark::DoNotOptimize(m.sol.getValue(root));
  root.end();
  state.SetItemsProcessed(state.iterations() * nodes);
}
BENCHMARK(BM_EvalTree)->Unit(benchmark::kMillisecond);

/// Bytes the environment hands out per unary node, against the node's size.
void reportBytesPerNode() {
  Model& m = model();
  TavMemory& memory = m.env.getImpl()->getMemory();
  const std::size_t before = memory.getLiveBytes();
  std::vector<TavNumExprI*> nodes(N);
  for (long i = 0; i < N; ++i) nodes[i] = TavSin(m.x[i % Vars]).getImpl();
  const double perNode = (double)(memory.getLiveBytes() - before) / (double)N;
  const double size = (double)nodes[0]->getExtractableSize();
  for (TavNumExprI* n : nodes) n->end();
  std::printf("unary node: %.1f bytes handed out per node, node size %.0f bytes, ratio %.2f\n", perNode, size,
              perNode / size);
}

}  // namespace

int main(int argc, char** argv) {
  if (!std::getenv("TAV_NO_BYTES")) reportBytesPerNode();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
