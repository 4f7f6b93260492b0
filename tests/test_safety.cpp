// Regressions of the core's safety: what arithmetic says for aliased
// operands, operands that stay alive, type identity, clone passes, handle
// conversions, and failures that leave the model as it was.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <sstream>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {
struct Vals : NamedVars {
  TavSolution sol{env};
  Vals() : NamedVars(-10, 10) {
    sol.setValue(x, 3);
    sol.setValue(y, 5);
    sol.setValue(i, 7);
    sol.setValue(j, 2);
  }
  ~Vals() { env.end(); }
  double val(const TavNumExprArg& e) const { return sol.getValue(e); }
};
}  // namespace

// Every class has a token of its own, even when two classes' code is the same
// byte for byte (a linker folding identical code must not merge them).
TEST(Safety, TypeTokensAreDistinctPerClass) {
  const TavTypeInfo tokens[] = {
#define TAV_TOKEN(Name, ...) Name::GetTypeInfo(),
      TAV_PRODUCT_FAMILY(TAV_TOKEN, TAV_TOKEN) TAV_MINMAX_FAMILY(TAV_TOKEN, TAV_TOKEN, TAV_TOKEN)
          TAV_MODULO_FAMILY(TAV_TOKEN, TAV_TOKEN)
#undef TAV_TOKEN
              TavNumExprI::GetTypeInfo(),
      TavIntExprI::GetTypeInfo(), TavNumLinTermI::GetTypeInfo(), TavIntLinTermI::GetTypeInfo(),
      TavNumVarI::GetTypeInfo(), TavExtractableI::GetTypeInfo(), TavNumLinTermAddVar::GetTypeInfo(),
      TavNumLinTermRemoveVar::GetTypeInfo(), TavIntLinTermRemoveVar::GetTypeInfo(), TavSetNumVarBounds::GetTypeInfo()};
  std::set<TavTypeInfo> distinct(std::begin(tokens), std::end(tokens));
  EXPECT_EQ(distinct.size(), sizeof(tokens) / sizeof(tokens[0]));

  Vals m;
  TavNumExprArg q = m.x * m.y / 4.0;
  EXPECT_FALSE(q.getImpl()->isType(TavNumTimesCstI::GetTypeInfo()));
  EXPECT_DOUBLE_EQ(m.val(q * 2.0), 7.5);  // folded as a quotient, never as a product
}

// An operand used on both sides of an operator, or a handle combined with
// itself, gives what arithmetic says (x = 3, y = 5, i = 7, j = 2).
TEST(Safety, SelfAliasingFollowsArithmetic) {
  struct Row {
    const char* what;
    double expected;
    double (*run)(Vals&);
  } rows[] = {
      {"h -= h (linear)", 0, [](Vals& m) { TavNumExpr h(m.x + m.y); auto& same = h; h -= same; return m.val(h); }},
      {"h += h (linear)", 16, [](Vals& m) { TavNumExpr h(m.x + m.y); h += h; return m.val(h); }},
      {"h -= h (folded product)", 0, [](Vals& m) { TavNumExpr h((m.x * m.y) * 2.0); auto& same = h; h -= same; return m.val(h); }},
      {"h += h (folded product)", 60, [](Vals& m) { TavNumExpr h((m.x * m.y) * 2.0); h += h; return m.val(h); }},
      {"h -= h (integer sum)", 0, [](Vals& m) { TavNumExpr h(m.i + m.j); auto& same = h; h -= same; return m.val(h); }},
      {"k -= k", 0, [](Vals& m) { TavIntExpr k(m.i + m.j); auto& same = k; k -= same; return m.val(k); }},
      {"k += k", 18, [](Vals& m) { TavIntExpr k(m.i + m.j); k += k; return m.val(k); }},
      {"e -= e", 0, [](Vals& m) { TavExpr e(m.x + m.y); auto& same = e; e -= same; return m.val(e); }},
      {"e += e", 16, [](Vals& m) { TavExpr e(m.x + m.y); e += e; return m.val(e); }},
      {"a - a (temporary)", 0, [](Vals& m) { TavNumExprArg a = m.x + m.y; return m.val(a - a); }},
      {"a + a (temporary)", 16, [](Vals& m) { TavNumExprArg a = m.x + m.y; return m.val(a + a); }},
      {"p * p (temporary product)", 900, [](Vals& m) { TavNumExprArg p = (m.x * m.y) * 2.0; return m.val(p * p); }},
      {"c * c (temporary constant)", 9, [](Vals& m) { TavNumExprArg c(TavNumExpr(m.env, 3.0)); return m.val(c * c); }},
      {"s - s (integer temporary)", 0, [](Vals& m) { TavIntExprArg s = m.i + m.j; return m.val(s - s); }},
      {"t + t (one term handle)", 12, [](Vals& m) { TavNumLinExprTerm t = 2 * m.x; return m.val(t + t); }},
      {"t - t (one term handle)", 0, [](Vals& m) { TavNumLinExprTerm t = 2 * m.x; return m.val(t - t); }},
      {"u - u (integer term)", 0, [](Vals& m) { TavIntLinExprTerm u = 3 * m.i; return m.val(u - u); }},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    Vals m;
    EXPECT_DOUBLE_EQ(r.run(m), r.expected);
  }
}

// A term handle's cell goes into one expression; using the handle again is
// refused, and the expression that holds the cell is unchanged.
TEST(Safety, TermHandleUsedTwiceIsRefused) {
  Vals m;
  TavNumLinExprTerm t = 2 * m.x;
  TavExpr e(m.env);
  e += t;
  const char* used = "TavNumLinExprTerm: the term is already part of an expression; build a new one";
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { e += t; }), used);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { e -= t; }), used);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { m.y + t; }), used);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { -t; }), used);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavExpr f(t); }), used);
  EXPECT_DOUBLE_EQ(m.val(e), 6);
  EXPECT_EQ(show(e), "2 * x ");
}

// Converting an integer linear expression to a numeric one leaves it as it is:
// a handle still reads it afterwards.
TEST(Safety, IntegerOperandsOfNumericOperatorsStay) {
  struct Row {
    const char* what;
    double expected;
    TavNumExprArg (*run)(TavIntExprArg);
  } rows[] = {
      {"TavExpr(TavNumExprArg(s))", 9, [](TavIntExprArg s) { return TavNumExprArg(TavExpr(TavNumExprArg(s)).getImpl()); }},
      {"s / 2.0", 4.5, [](TavIntExprArg s) { return s / 2.0; }},
      {"s * 2.0", 18, [](TavIntExprArg s) { return s * 2.0; }},
      {"s + 0.5", 9.5, [](TavIntExprArg s) { return s + 0.5; }},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    Vals m;
    TavIntExprArg s = m.i + m.j;
    EXPECT_DOUBLE_EQ(m.val(r.run(s)), r.expected);
    EXPECT_DOUBLE_EQ(m.val(s), 9);
    EXPECT_EQ(show(s), "i  + j ");
  }
}

TEST(Safety, HandlesAndScalarsHaveTheirDocumentedShapes) {
  Vals m;
  TavExpr e(m.x + m.y);
  EXPECT_EQ(e.getImpl()->setCoef(m.x, 5.0), 1.0);  // the variable handle itself
  EXPECT_DOUBLE_EQ(m.val(e), 20);

  static_assert(std::is_same<decltype(TavRound(1.0)), double>::value, "TavRound gives a double");
  static_assert(std::is_same<decltype(TavVurRound(1.0)), double>::value, "TavVurRound gives a double");
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(std::isnan(TavRound(nan)));
  EXPECT_TRUE(std::isnan(TavVurRound(nan)));
  EXPECT_EQ(TavRound(-2.5), -3.0);
  EXPECT_EQ(TavVurRound(-2.5), -2.0);
  EXPECT_EQ(TavRound(1e300), 1e300);  // no saturation to 64 bits

  // An empty algorithm is a failing algorithm: the active model evaluator
  // answers, else the failure goes out.
  TavNumExprArg sum = m.i + m.j;
  EXPECT_THROW(sum.getImpl()->eval(TavAlgorithm()), TavEmptyHandleException);
  TavModelEvaluator* ev = m.env.getImpl()->getModelEvaluator();
  ev->setValue(m.i, 4);
  ev->setValue(m.j, 1);
  ev->setActive(true);
  EXPECT_DOUBLE_EQ(sum.getImpl()->eval(TavAlgorithm()), 5);
  ev->setActive(false);
}

namespace {
// A model with every kind of handle, whose picture (text and values) a
// failed operation must leave as it was. An operation is one operator or
// call over these handles: in `(a + b) * c`, a failing product leaves the
// sum's temporary to env.end(), as a temporary nobody reads again.
struct Model : NamedVars {
  TavNumVarArray xs{env, 3, x, y, i};
  TavIntVarArray is{env, 2, i, j};
  TavExpr e{2 * x + 3 * y + x * y + 1.0};
  TavNumExpr h{x * y + TavMax(x, y)};
  TavIntExpr k{i + 2 * j};
  TavNumExpr p{(x * y) * 2.0};
  TavNumLinExprTerm t{2 * y};
  TavNumExprArray hs{env, 0};
  TavNumArray cs{env, {1, 2, 3}};
  TavSolution sol{env};
  Model() {
    hs.add(h);
    hs.add(e);
    sol.setValue(x, 1.5);
    sol.setValue(y, 2);
    sol.setValue(i, 3);
    sol.setValue(j, 4);
  }
  std::string picture() const {
    std::ostringstream os;
    os << e << "|" << h << "|" << k << "|" << sol.getValue(e) << "|" << sol.getValue(h) << "|" << sol.getValue(k);
    return os.str();
  }
};
// Ends what an operation returned, so that success leaves nothing behind.
void drop(TavNumExprArg r) { TavNumExpr(r).end(); }
}  // namespace

// Each operation is run with the environment's k-th allocation failing, for
// k = 1, 2, ... until it succeeds. Every failure must leave the model as it
// was, with the environment's live counters unchanged.
TEST(Safety, AllocationFailureLeavesTheModelAsItWas) {
  struct Op {
    const char* what;
    void (*run)(Model&);
  } ops[] = {
      {"e *= 2", [](Model& m) { m.e *= 2.0; }},
      {"e /= 4", [](Model& m) { m.e /= 4.0; }},
      {"e += x", [](Model& m) { m.e += m.x; }},
      {"e -= i", [](Model& m) { m.e -= m.i; }},
      {"e += 3 * y", [](Model& m) { m.e += 3 * m.y; }},
      {"e += h", [](Model& m) { m.e += m.h; }},
      {"e -= h", [](Model& m) { m.e -= m.h; }},
      {"e += k", [](Model& m) { m.e += m.k; }},
      {"e -= e", [](Model& m) { m.e -= m.e; }},
      {"shared e += x", [](Model& m) {
         TavExpr g = m.e;  // a second holder: the edit copies first
         g.getImpl()->lockRef();
         try {
           m.e += m.x;
         } catch (...) {
           g.end();
           throw;
         }
         g.end();
       }},
      {"e.setLinearCoef", [](Model& m) { m.e.setLinearCoef(m.i, 5); }},
      {"e.normalize", [](Model& m) { m.e += m.x; m.e.normalize(); }},
      {"h += h", [](Model& m) { m.h += m.h; }},
      {"h -= 1", [](Model& m) { m.h -= 1.0; }},
      {"h *= 3", [](Model& m) { m.h *= 3.0; }},
      {"h /= 3", [](Model& m) { m.h /= 3.0; }},
      {"k += k", [](Model& m) { m.k += m.k; }},
      {"k *= 3", [](Model& m) { m.k *= 3; }},
      {"x * y", [](Model& m) { drop(m.x * m.y); }},
      {"p * 3 (folded)", [](Model& m) { drop(m.p * 3.0); }},
      {"h * 3", [](Model& m) { drop(m.h * 3.0); }},
      {"e / 3", [](Model& m) { drop(m.e / 3.0); }},
      {"x + t", [](Model& m) { drop(m.x + m.t); }},
      {"t + t", [](Model& m) { drop(m.t + m.t); }},
      {"t - e", [](Model& m) { drop(m.t - m.e); }},
      {"h - e", [](Model& m) { drop(m.h - m.e); }},
      {"e - h", [](Model& m) { drop(m.e - m.h); }},
      {"h - p", [](Model& m) { drop(m.h - m.p); }},
      {"i - k", [](Model& m) { drop(m.i - m.k); }},
      {"k - k", [](Model& m) { drop(m.k - m.k); }},
      {"k * 2.5", [](Model& m) { drop(m.k * 2.5); }},
      {"k + 0.5", [](Model& m) { drop(m.k + 0.5); }},
      {"TavDiv", [](Model& m) { drop(TavDiv(m.k, m.i)); }},
      {"k % 3", [](Model& m) { drop(m.k % 3); }},
      {"TavSin(h)", [](Model& m) { drop(TavSin(m.h)); }},
      {"TavSquare(k)", [](Model& m) { drop(TavSquare(m.k)); }},
      {"TavNumToInt(p)", [](Model& m) { drop(TavNumToInt(m.p)); }},
      {"TavLog10(h)", [](Model& m) { drop(TavLog10(m.h)); }},
      {"TavPower(h, p)", [](Model& m) { drop(TavPower(m.h, m.p)); }},
      {"TavPower(2, e)", [](Model& m) { drop(TavPower(2.0, m.e)); }},
      {"TavMax(vars)", [](Model& m) { drop(TavMax(m.xs)); }},
      {"TavMin(exprs)", [](Model& m) { drop(TavMin(m.hs)); }},
      {"TavScalProd(exprs)", [](Model& m) { drop(TavScalProd(m.hs, m.hs)); }},
      {"TavScalProd(numbers, vars)", [](Model& m) { drop(TavScalProd(m.cs, m.xs)); }},
      {"TavSum(vars)", [](Model& m) { drop(TavSum(m.xs)); }},
      {"TavSum(int vars)", [](Model& m) { drop(TavSum(m.is)); }},
      {"TavSum(exprs)", [](Model& m) { drop(TavSum(m.hs)); }},
      {"variables in bulk", [](Model& m) { TavNumVarArray(m.env, 300, 0.0, 10.0).endElements(); /* x's shared domain */ }},
      {"array growth", [](Model& m) {
         TavNumArray a(m.env, 0);
         try {
           for (int n = 0; n < 600; ++n) a.add(n);
         } catch (...) {
           a.end();
           throw;
         }
         a.end();
       }},
  };
  TavInt tried = 0;
  for (const Op& op : ops) {
    SCOPED_TRACE(op.what);
    Model m;
    TavEnvI* env = m.env.getImpl();
    const std::string before = m.picture();
    const TavInt objects = env->getLiveObjectCount(), terms = env->getLiveTermCount();
    const std::size_t bytes = env->getMemory().getLiveBytes();
    const int failures = tavtest::sweepFailures(env, [&] { op.run(m); }, [&](TavInt k) {
      ASSERT_EQ(m.picture(), before) << "failing allocation " << k;
      ASSERT_EQ(env->getLiveObjectCount(), objects) << "failing allocation " << k;
      ASSERT_EQ(env->getLiveTermCount(), terms) << "failing allocation " << k;
      ASSERT_EQ(env->getMemory().getLiveBytes(), bytes) << "failing allocation " << k;
    });
    ASSERT_GE(failures, 0);
    tried += failures;
  }
  EXPECT_GT(tried, 100);
}

// Cloning: operator nodes read their operands' clones from their own
// environment, a pass into one target never hands out another's objects,
// ending an environment forgets every pair into it, and a failed pass
// leaves nothing behind.
TEST(Safety, CloningPassesKeepToTheirTarget) {
  TavEnv a, b, c;
  TavNumVar x(a, 0, 10, TavNumVar::Float, "x"), y(a, 0, 10, TavNumVar::Float, "y");
  TavNumExpr p(TavMax(x * y, 2.0 * x + y));
  TavEnvI* ea = a.getImpl();

  // Pairs recorded in the source only are enough for an operator node.
  TavNumVar xb(b, 0, 10, TavNumVar::Float, "xb"), yb(b, 0, 10, TavNumVar::Float, "yb");
  ea->setClone(x.getImpl(), xb.getImpl());
  ea->setClone(y.getImpl(), yb.getImpl());
  TavNumExprArg xyb(static_cast<TavNumExprI*>((x * y).getImpl()->makeClone(b.getImpl())));
  EXPECT_EQ(show(xyb), show(xb * yb));
  ea->clearCloneMap();

  auto evalIn = [](TavEnv env, TavExtractableI* clone) {
    TavSolution s(env);
    for (TavInt id = 0; id < env.getImpl()->getIdCapacity(); ++id) {
      TavExtractableI* o = env.getImpl()->getObject(id);
      if (o && o->isType(TavNumVarI::GetTypeInfo())) s.setValue(TavNumVar(static_cast<TavNumVarI*>(o)), 3);
    }
    return s.getValue(TavNumExprArg(static_cast<TavNumExprI*>(clone)));
  };
  TavExtractableI* inB = ea->cloneInto(p.getImpl(), b.getImpl());
  EXPECT_EQ(inB->getEnv(), b.getImpl());
  TavExtractableI* inC = ea->cloneInto(p.getImpl(), c.getImpl());
  EXPECT_EQ(inC->getEnv(), c.getImpl());
  EXPECT_EQ(ea->getClone(p.getImpl()), inC);  // the pass's pairs stay readable
  EXPECT_DOUBLE_EQ(evalIn(c, inC), 9);
  b.end();
  EXPECT_EQ(ea->getClone(p.getImpl()), inC);
  c.end();
  EXPECT_EQ(ea->getClone(p.getImpl()), nullptr);  // nothing leads into an ended environment
  EXPECT_EQ(ea->getClone(x.getImpl()), nullptr);

  TavEnv d;
  TavEnvI* ed = d.getImpl();
  const TavInt objects = ed->getLiveObjectCount();
  const std::size_t bytes = ed->getMemory().getLiveBytes();
  TavExtractableI* inD = nullptr;
  tavtest::sweepFailures(ed, [&] { inD = ea->cloneInto(p.getImpl(), ed); }, [&](TavInt k) {
    ASSERT_EQ(ea->getClone(x.getImpl()), nullptr) << k;
    ASSERT_EQ(ed->getLiveObjectCount(), objects) << k;
    ASSERT_EQ(ed->getMemory().getLiveBytes(), bytes) << k;
  });
  EXPECT_DOUBLE_EQ(evalIn(d, inD), 9);
  d.end();
  a.end();
}

// A counted integer handle is a TavNumExpr: converting it shares its one
// reference, and integer operators still take it as an integer operand.
TEST(Safety, IntegerHandleIsANumericCountedHandle) {
  static_assert(std::is_base_of<TavNumExpr, TavIntExpr>::value, "TavIntExpr is a TavNumExpr");
  static_assert(!std::is_base_of<TavIntExprArg, TavIntExpr>::value, "and not an argument handle");
  Vals m;
  TavIntExpr k(m.i + m.j);
  TavNumExpr n = k;
  EXPECT_EQ(k.getImpl()->getRefCount(), 1);
  EXPECT_EQ(n.getImpl(), k.getImpl());
  static_assert(std::is_same<decltype(k + 1), TavIntExprArg>::value, "integer sum");
  static_assert(std::is_same<decltype(k * k), TavIntExprArg>::value, "integer product");
  static_assert(std::is_same<decltype(-k), TavIntExprArg>::value, "integer negation");
  static_assert(std::is_same<decltype(TavMax(k, 2)), TavIntExprArg>::value, "integer maximum");
  static_assert(std::is_same<decltype(k + 0.5), TavNumExprArg>::value, "a fraction makes it numeric");
  TavIntExpr r = k % 4 + TavDiv(k, 2) - k * m.j;
  EXPECT_DOUBLE_EQ(m.val(r), 1 + 4 - 18);
  r.end();
  k.end();
}
