// Piecewise-linear and monotonic nodes: the documented values of both forms
// (jumps, anchors, the value form's segment choice), the bisecting
// evaluation against a breakpoint-by-breakpoint reference over generated
// functions, printing, counting, visiting, cloning, refusals and allocation
// failures. Short arrays and the monotonic values are left to the fuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

const double Inf = std::numeric_limits<double>::infinity();
const double NaN = std::numeric_limits<double>::quiet_NaN();

// ------------------------------------------------------------------ reference

/// The function written out breakpoint by breakpoint, as the library's
/// documentation states it; an entry past the end of an array reads as
/// not-a-number.
struct Reference {
  bool slopeForm;
  std::vector<double> p, s;  // breakpoints; slopes or values
  double f1, f2;             // anchor and its value, or first and last slope

  double at(const std::vector<double>& a, long i) const { return i >= 0 && i < (long)a.size() ? a[i] : NaN; }
  long start() const {
    long k = 0;
    while (k < (long)p.size() && !(p[k] > f1)) ++k;
    return k;
  }
  double operator()(double x) const {
    const long n = (long)p.size(), k = start();
    if (!slopeForm) {
      if (k == 0) return at(s, 0) + (x - at(p, 0)) * f1;
      if (k == n - 1) return at(s, n - 1) + (x - at(p, n - 1)) * f2;
      return at(s, k) + (x - at(p, k)) * (at(s, k + 1) - at(s, k)) / (at(p, k + 1) - at(p, k));
    }
    double value = f2, cur = f1;
    if (x >= f1) {
      long i = k;
      while (i < n && x >= p[i]) {
        if (i > 0 && p[i - 1] == p[i]) value += at(s, i);
        else value += (p[i] - cur) * at(s, i);
        cur = p[i];
        ++i;
      }
      return value + (x - cur) * at(s, i);
    }
    long i = k - 1;
    while (i >= 0 && p[i] > x) {
      if (i < n - 1 && p[i] == p[i + 1]) value -= at(s, i + 1);
      else value += (p[i] - cur) * at(s, i + 1);
      cur = p[i];
      --i;
    }
    return value + (x - cur) * at(s, i + 1);
  }
};

std::uint64_t bitsOf(double v) {
  std::uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

TavNumArray numbers(TavEnv env, const std::vector<double>& v) {
  TavNumArray a(env, 0);
  for (double d : v) a.add(d);
  return a;
}

/// A node over no expression (the function at 0, or at any x through
/// getPiecewiseLinearValue).
TavExprPiecewiseLinearI* nodeOf(TavEnv env, const Reference& r) {
  TavEnvI* e = env.getImpl();
  return new (e) TavExprPiecewiseLinearI(e, r.slopeForm ? 1 : 0, nullptr, numbers(env, r.p), numbers(env, r.s), r.f1,
                                         r.f2);
}

/// Points where a walk may turn: every breakpoint and the anchor with their
/// two neighbours, the infinities, not-a-number, and some at random.
std::vector<double> probesFor(const Reference& r, std::mt19937& rng) {
  std::vector<double> xs = {0.0, -0.0, Inf, -Inf, NaN, 1e300, -1e300};
  std::vector<double> turns = r.p;
  turns.push_back(r.f1);
  for (double v : turns) xs.insert(xs.end(), {v, std::nextafter(v, Inf), std::nextafter(v, -Inf)});
  std::uniform_real_distribution<double> wide(-60.0, 60.0);
  for (int i = 0; i < 20; ++i) xs.push_back(wide(rng));
  return xs;
}

/// Sorted breakpoints on a coarse grid, so that equal neighbours (jumps)
/// and equal runs of three or more are frequent; now and then an infinite
/// end. The anchor lies on a breakpoint, outside all of them, or anywhere.
Reference generated(std::mt19937& rng, long n) {
  std::uniform_int_distribution<int> grid(-40, 40), coin(0, 9);
  Reference r{true, {}, {}, 0, 0};
  for (long i = 0; i < n; ++i) r.p.push_back(grid(rng) * (coin(rng) < 7 ? 1.0 : 0.37));
  std::sort(r.p.begin(), r.p.end());
  if (n > 2 && coin(rng) == 0) r.p.front() = -Inf;
  if (n > 2 && coin(rng) == 0) r.p.back() = Inf;
  const int pick = coin(rng) % 5;
  r.f1 = n == 0 || pick > 2 ? std::uniform_real_distribution<double>(-50.0, 50.0)(rng)
         : pick == 0        ? r.p[std::uniform_int_distribution<std::size_t>(0, n - 1)(rng)]
         : pick == 1        ? r.p.front() - 3.5
                            : r.p.back() + 2.25;
  return r;
}

}  // namespace

// ------------------------------------------------------------------ values

// The documented cases, both forms, by the points they are taken at.
TEST(Piecewise, ValuesOfBothForms) {
  struct Case {
    const char* what;
    Reference f;
    std::vector<std::pair<double, double>> values;  // x, f(x)
  } cases[] = {
      {"slopes around an anchor at the first breakpoint",
       {true, {0, 10}, {1, 2, 3}, 0, 0},
       {{5, 10}, {12, 26}, {-2, -2}, {0, 0}, {10, 20}}},
      {"an anchor inside a segment",
       {true, {0, 10}, {1, 2, 3}, 4, 100},
       {{4, 100}, {5, 102}, {10, 112}, {11, 115}, {-1, 91}}},
      {"a jump of height 7", {true, {5, 5}, {0, 7, 0}, 0, 0}, {{5, 7}, {6, 7}, {1e6, 7}, {4.99, 0}, {-3, 0}}},
      {"a jump crossed leftwards", {true, {5, 5}, {0, 7, 0}, 6, 7}, {{5, 7}, {4, 0}, {6, 7}}},
      {"no breakpoint", {true, {}, {2}, 1, 3}, {{1, 3}, {4, 9}, {-1, -1}}},
      // The segment follows the first slope, not x.
      {"value form, first slope before every breakpoint",
       {false, {0, 10, 20}, {0, 10, 30}, -1, 5},
       {{0, 0}, {15, -15}, {-4, 4}}},
      {"value form, first slope past the first breakpoint",
       {false, {0, 10, 20}, {0, 10, 30}, 1, 5},
       {{0, -10}, {15, 20}, {25, 40}}},
      {"value form, first slope past all but the last",
       {false, {0, 10, 20}, {0, 10, 30}, 15, 5},
       {{0, -70}, {20, 30}, {22, 40}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TavEnv env;
    TavNumVar x(env, -Inf, Inf, TavNumVar::Float, "x");
    TavNumExpr f = c.f.slopeForm
                       ? TavPiecewiseLinear(x, numbers(env, c.f.p), numbers(env, c.f.s), c.f.f1, c.f.f2)
                       : TavPiecewiseLinear(x, c.f.f1, numbers(env, c.f.p), numbers(env, c.f.s), c.f.f2);
    auto* node = static_cast<TavExprPiecewiseLinearI*>(f.getImpl());
    TavSolution sol(env);
    for (auto [at, want] : c.values) {
      sol.setValue(x, at);
      EXPECT_EQ(sol.getValue(f), want) << "at " << at;
      EXPECT_EQ(node->getPiecewiseLinearValue(at), want) << "at " << at;
      EXPECT_EQ(c.f(at), want) << "the reference, at " << at;
    }
    env.end();
  }
}

// A node without expression is the function taken at 0; it prints 0 for
// the expression and has no child.
TEST(Piecewise, WithoutExpressionTheArgumentIsZero) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavNumArray p(env, {0, 10}), s(env, {1, 2, 3});
  auto* slopes = new (e) TavExprPiecewiseLinearI(e, nullptr, p, s, 4, 100);
  auto* values = new (e) TavExprPiecewiseLinearI(e, nullptr, 1.0, p, s, 5.0);
  TavSolution sol(env);
  EXPECT_EQ(slopes->eval(sol), 92);
  EXPECT_EQ(values->eval(sol), -48);
  EXPECT_EQ(showNode(slopes), "piecewiselinear(0 , [0, 10], [1, 2, 3], 4, 100)");
  EXPECT_EQ(showNode(values), "piecewiselinear(0 , 1, [0, 10], [1, 2, 3], 5)");
  EXPECT_EQ(tavtest::visitOf(slopes), (std::vector<const TavExtractableI*>{slopes, slopes}));
  env.end();
}

// ------------------------------------------------------------------ bisection

// Over generated functions, at every breakpoint, on each side of it, at the
// anchor, at the infinities and at not-a-number, the node gives the
// breakpoint-by-breakpoint walk's value bit for bit: sorted breakpoints
// are bisected, unsorted ones walked.
TEST(Piecewise, BisectionGivesTheWalksValueBitForBit) {
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<long> size(0, 40);
  std::uniform_real_distribution<double> slope(-5.0, 5.0);
  std::uniform_int_distribution<int> coin(0, 3);
  TavEnv env;
  long checked = 0, bisected = 0, walked = 0;
  for (int round = 0; round < 600; ++round) {
    const long n = size(rng);
    Reference r = generated(rng, n);
    if (round % 5 == 4 && n > 2) std::shuffle(r.p.begin(), r.p.end(), rng);
    if (round % 7 == 6 && n > 0) r.p[std::uniform_int_distribution<long>(0, n - 1)(rng)] = NaN;
    for (long i = 0; i <= n; ++i) r.s.push_back(coin(rng) == 0 ? std::round(slope(rng)) : slope(rng));
    r.f2 = slope(rng) * 10;
    if (round % 2) {  // the value form over the same breakpoints
      r.slopeForm = false;
      r.s.resize((std::size_t)n);
      r.f1 = slope(rng) * 20;
    }
    TavExprPiecewiseLinearI* node = nodeOf(env, r);
    EXPECT_EQ(node->getStartIndex(), r.start());
    if (r.slopeForm) {
      const bool sorted = std::is_sorted(r.p.begin(), r.p.end()) &&
                          std::none_of(r.p.begin(), r.p.end(), [](double v) { return std::isnan(v); });
      EXPECT_EQ(node->isBisecting(), sorted);
      ++(sorted ? bisected : walked);
    }
    for (double x : probesFor(r, rng)) {
      const double got = node->getPiecewiseLinearValue(x), want = r(x);
      ASSERT_EQ(bitsOf(got), bitsOf(want)) << "round " << round << ", x = " << x << ": " << got << " for " << want
                                           << "\n" << showNode(node);
      ++checked;
    }
    node->end();
  }
  EXPECT_GT(bisected, 150);
  EXPECT_GT(walked, 50);
  EXPECT_GT(checked, 20000);
  env.end();
}

// ------------------------------------------------------------------ printing, counting, cloning

// The same text in both syntaxes; the expression prints in the
// environment's syntax.
TEST(Piecewise, DisplayIsTheSameInBothSyntaxes) {
  NamedVars v;
  TavNumArray p(v.env, {0, 10}), s(v.env, {1, 2.5, 3});
  const TavNumExpr f = TavPiecewiseLinear(v.x, p, s, 0, -1.5), g = TavPiecewiseLinear(v.x, 0.5, p, p, 2),
                   h = TavPiecewiseLinear(v.x + 2 * v.y, p, s, 0, 0);
  for (bool lib : {false, true}) {
    v.env.getImpl()->setLibrarySyntaxDisplay(lib);
    EXPECT_EQ(show(f), "piecewiselinear(" + show(v.x) + ", [0, 10], [1, 2.5, 3], 0, -1.5)");
    EXPECT_EQ(show(g), "piecewiselinear(" + show(v.x) + ", 0.5, [0, 10], [0, 10], 2)");
    EXPECT_EQ(show(h), "piecewiselinear(" + show(v.x + 2 * v.y) + ", [0, 10], [1, 2.5, 3], 0, 0)");
  }
  v.env.end();
}

// The node holds its expression once and private copies of both arrays,
// which may come from another environment and may change or go afterwards.
TEST(Piecewise, HoldsItsExpressionAndCopiesItsArrays) {
  TavEnv env, other;
  TavNumVar x(env, -10, 10, TavNumVar::Float, "x");
  TavNumExpr e = x * x;
  TavNumArray p(other, {0, 10}), s(other, {1, 2, 3});
  TavNumExpr f = TavPiecewiseLinear(e, p, s, 0, 0);
  auto* node = static_cast<TavExprPiecewiseLinearI*>(f.getImpl());
  EXPECT_EQ(e.getImpl()->getRefCount(), 2);
  EXPECT_EQ(node->getBreakpoints().getEnv(), env);
  EXPECT_EQ(tavtest::visitOf(node), (std::vector<const TavExtractableI*>{node, e.getImpl(), node}));
  p[1] = 1;
  other.end();
  TavSolution sol(env);
  sol.setValue(x, 3.5);
  EXPECT_EQ(sol.getValue(f), 26.75);
  EXPECT_EQ(show(f), "piecewiselinear(" + showNode(e.getImpl()) + ", [0, 10], [1, 2, 3], 0, 0)");
  f.end();
  EXPECT_EQ(e.getImpl()->getRefCount(), 1);
  env.end();
}

// A clone, of either form and with or without expression, lives with its
// arrays in the target and evaluates and prints as its original.
TEST(Piecewise, ClonesCarryEveryField) {
  NamedVars v;
  TavNumArray p(v.env, {-2, 3, 3, 8}), s(v.env, {0.5, 1, 4, -1, 2}), vals(v.env, {1, 2, 6, 7});
  std::vector<TavNumExpr> nodes = {TavPiecewiseLinear(v.x, p, s, 3, 1), TavPiecewiseLinear(v.x, 3.5, p, vals, 2)};
  TavEnvI* e = v.env.getImpl();
  nodes.push_back(TavNumExpr(new (e) TavExprPiecewiseLinearI(e, 1, nullptr, p, s, -1, 0)));
  TavEnv target;
  TavSolution here(v.env), there(target);
  for (TavNumExpr& f : nodes) {
    auto* node = static_cast<TavExprPiecewiseLinearI*>(f.getImpl());
    auto* clone = static_cast<TavExprPiecewiseLinearI*>(e->cloneInto(node, target.getImpl()));
    ASSERT_EQ(clone->getEnv(), target.getImpl());
    EXPECT_EQ(clone->getForm(), node->getForm());
    EXPECT_EQ(clone->getBreakpoints().getEnv(), target);
    EXPECT_EQ(clone->getSecondArray().getEnv(), target);
    EXPECT_EQ(showNode(clone), showNode(node));
    EXPECT_EQ(clone->getExpr(), node->getExpr() ? target.getImpl()->getClone(v.x.getImpl()) : nullptr);
    if (clone->getExpr()) there.setValue(TavNumVar(static_cast<TavNumVarI*>(clone->getExpr())), 5.5);
    here.setValue(v.x, 5.5);
    expectSame(clone->eval(there), node->eval(here));
    e->clearCloneMap();
  }
  target.end();
  v.env.end();
}

// ------------------------------------------------------------------ monotonic

namespace {
double cube(double v) { return v * v * v; }
double cubeRoot(double v) { return std::cbrt(v); }
double negate(double v) { return -v; }
}  // namespace

// The second function and the direction are carried, by the clone too (the
// fuzzer checks the values). The text is the builder's, in both syntaxes.
TEST(Monotonic, AppliesTheFunctionAndCarriesTheOther) {
  NamedVars v;
  const struct {
    TavNumExprArg (*build)(const TavNumExprArg&, double (*)(double), double (*)(double));
    double (*f)(double);
    double (*g)(double);
    bool decreasing;
    const char* text;
  } cases[] = {
      {TavMonotonicIncreasingNumExpr, cube, cubeRoot, false, "TavMonotonicIncreasingNumExpr("},
      {TavMonotonicDecreasingNumExpr, negate, nullptr, true, "TavMonotonicDecreasingNumExpr("},
  };
  TavEnv target;
  TavNumExpr e = v.x * v.y;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    TavNumExpr m = c.build(e, c.f, c.g);
    auto* node = static_cast<TavMonotonicNumExprI*>(m.getImpl());
    EXPECT_EQ(e.getImpl()->getRefCount(), 2);
    EXPECT_EQ(tavtest::visitOf(node), (std::vector<const TavExtractableI*>{node, e.getImpl(), node}));
    for (bool lib : {false, true}) {
      v.env.getImpl()->setLibrarySyntaxDisplay(lib);
      EXPECT_EQ(show(m), c.text + show(e) + ")");
    }
    auto* clone = static_cast<TavMonotonicNumExprI*>(v.env.getImpl()->cloneInto(node, target.getImpl()));
    for (const TavMonotonicNumExprI* n : {node, clone}) {
      EXPECT_EQ(n->getFunction(), c.f);
      EXPECT_EQ(n->getSecondFunction(), c.g);
      EXPECT_EQ(n->isDecreasing(), c.decreasing);
    }
    EXPECT_EQ(clone->getExpr(), target.getImpl()->getClone(e.getImpl()));
    v.env.getImpl()->clearCloneMap();
    m.end();
    EXPECT_EQ(e.getImpl()->getRefCount(), 1);
  }
  target.end();
  v.env.end();
}

// ------------------------------------------------------------------ refusals and failures

TEST(Piecewise, EmptyHandlesAreRefused) {
  NamedVars v;
  TavNumArray p(v.env, {0, 1}), s(v.env, {1, 2, 3}), none;
  const TavInt objects = v.env.getImpl()->getLiveObjectCount();
  const std::vector<std::pair<const char*, std::function<void()>>> calls = {
      {"slopes, no expression", [&] { TavPiecewiseLinear(TavNumExprArg(), p, s, 0, 0); }},
      {"slopes, no breakpoints", [&] { TavPiecewiseLinear(v.x, none, s, 0, 0); }},
      {"slopes, no slopes", [&] { TavPiecewiseLinear(v.x, p, none, 0, 0); }},
      {"values, no expression", [&] { TavPiecewiseLinear(TavNumExprArg(), 1.0, p, s, 0); }},
      {"values, no breakpoints", [&] { TavPiecewiseLinear(v.x, 1.0, none, s, 0); }},
      {"values, no values", [&] { TavPiecewiseLinear(v.x, 1.0, p, none, 0); }},
      {"monotonic, no expression", [&] { TavMonotonicIncreasingNumExpr(TavNumExprArg(), cube, cube); }},
      {"monotonic, no function", [&] { TavMonotonicDecreasingNumExpr(v.x, nullptr, cube); }},
  };
  for (const auto& [what, call] : calls) {
    EXPECT_EQ(messageOf<TavEmptyHandleException>(call), "<none>") << what;
    EXPECT_EQ(v.env.getImpl()->getLiveObjectCount(), objects) << what;
  }
  v.env.end();
}

// Every builder, and every clone, whose k-th allocation fails leaves the
// environment as it was, for k = 1, 2, ... until it succeeds.
TEST(Piecewise, AllocationFailureLeavesTheModelAsItWas) {
  NamedVars v;
  TavEnvI* env = v.env.getImpl();
  TavNumExpr e = v.x * v.y;
  TavNumArray p(v.env, {0, 10, 10, 20}), s(v.env, {1, 2, 3, 4, 5}), shuffled(v.env, {10, 0, 20, 10});
  TavNumArray many(v.env, 0);
  for (int i = 0; i < 300; ++i) many.add(i);  // copies spread over several blocks
  const std::vector<std::pair<const char*, std::function<TavNumExprArg()>>> ops = {
      {"slopes, bisecting", [&] { return TavPiecewiseLinear(e, p, s, 5, 0); }},
      {"slopes, walking", [&] { return TavPiecewiseLinear(e, shuffled, s, 5, 0); }},
      {"slopes, many breakpoints", [&] { return TavPiecewiseLinear(e, many, many, 5, 0); }},
      {"values", [&] { return TavPiecewiseLinear(e, 1.0, p, s, 0); }},
      {"monotonic", [&] { return TavMonotonicDecreasingNumExpr(e, negate, negate); }},
  };
  for (const auto& [what, op] : ops) {
    SCOPED_TRACE(what);
    tavtest::sweepBuildAndClone(env, op, [&](TavInt k) { ASSERT_EQ(e.getImpl()->getRefCount(), 1) << k; });
  }
  v.env.end();
}
