// Count and standard deviation: exact counting, the two-pass population
// formula, the builders' checks in their order, printing, private copies
// and references, visiting, cloning and allocation failures.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

/// Three integer variables with values set by the test.
struct Counted : NamedVars {
  TavIntVar k{env, -10, 10, "k"};
  TavSolution sol{env};
  TavIntExprArray array(std::initializer_list<TavIntExprArg> elements) {
    TavIntExprArray a(env, 0);
    for (const TavIntExprArg& e : elements) a.add(e);
    return a;
  }
  void set(double vi, double vj, double vk) {
    sol.setValue(i, vi);
    sol.setValue(j, vj);
    sol.setValue(k, vk);
  }
};

/// Gives 1, 2, 3, ... to successive reads of any variable.
struct CountingReads : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return ++reads; }
  mutable int reads = 0;
};

struct Log : TavExtractableVisitor {
  std::vector<const TavExtractableI*> seen;
  void beginVisit(TavExtractableI* p) override { seen.push_back(p); }
  void visitChild(TavExtractableI*, TavExtractableI* c) override { seen.push_back(c); }
  void endVisit(TavExtractableI* p) override { seen.push_back(p); }
};

}  // namespace

// ------------------------------------------------------------------ values

// Exact comparison with the counted value: no tolerance either way.
TEST(Count, CountsExactlyEqualValues) {
  Counted m;
  TavIntExpr c3 = TavCount(m.array({m.i, m.j, m.k}), 3);
  TavIntExpr c2 = TavCount(m.array({m.i, m.j, m.k}), 2);
  const struct {
    double i, j, k;
    double threes, twos;
  } rows[] = {
      {3, 3.0, 2.9999, 2, 0},
      {2, 2.0000001, 3, 1, 1},
      {-3, 3, 3, 2, 0},
      {2, 2, 2, 0, 3},
      {std::nan(""), 3.0000000000000004, 1e18, 0, 0},
  };
  for (const auto& r : rows) {
    m.set(r.i, r.j, r.k);
    EXPECT_EQ(m.sol.getValue(c3), r.threes) << r.i << " " << r.j << " " << r.k;
    EXPECT_EQ(m.sol.getValue(c2), r.twos) << r.i << " " << r.j << " " << r.k;
  }
  // Each element is read once, in order.
  CountingReads reads(m.env.getImpl());
  EXPECT_EQ(c2.getImpl()->eval(&reads), 1);
  EXPECT_EQ(reads.reads, 3);
  m.env.end();
}

TEST(StandardDeviation, IsThePopulationFormula) {
  Counted m;
  TavIntVar l(m.env, -10, 10, "l");
  TavNumExpr four = TavStandardDeviation(m.array({m.i, m.j, m.k, l}));
  TavNumExpr one = TavStandardDeviation(m.array({m.j}));
  m.set(1, 2, 3);
  m.sol.setValue(l, 4);
  EXPECT_EQ(m.sol.getValue(four), std::sqrt(1.25));
  EXPECT_EQ(m.sol.getValue(one), 0);
  m.set(5, -7, 5);
  m.sol.setValue(l, 5);
  EXPECT_EQ(m.sol.getValue(four), std::sqrt(27.0));
  EXPECT_EQ(m.sol.getValue(one), 0);

  // Every element is read twice: the mean from the first reads (1, 2), the
  // squares from the second (3, 4).
  TavNumExpr two = TavStandardDeviation(m.array({m.i, m.j}));
  CountingReads reads(m.env.getImpl());
  EXPECT_EQ(two.getImpl()->eval(&reads), std::sqrt(4.25));
  EXPECT_EQ(reads.reads, 4);
  m.env.end();
}

// The bounds are carried, not used.
TEST(StandardDeviation, CarriesItsBounds) {
  Counted m;
  TavNumExpr open = TavStandardDeviation(m.array({m.i, m.j}));
  TavNumExpr bounded = TavStandardDeviation(m.array({m.i, m.j}), 1, 2);
  auto* o = static_cast<TavStandardDeviationI*>(open.getImpl());
  auto* b = static_cast<TavStandardDeviationI*>(bounded.getImpl());
  EXPECT_EQ(o->getLowerBound(), -TavGetInfinity());
  EXPECT_EQ(o->getUpperBound(), TavGetInfinity());
  EXPECT_EQ(b->getLowerBound(), 1);
  EXPECT_EQ(b->getUpperBound(), 2);
  m.set(0, 10, 0);
  EXPECT_EQ(m.sol.getValue(bounded), 5);
  EXPECT_EQ(show(bounded), show(open));
  m.env.end();
}

// ------------------------------------------------------------------ refusals

// Each builder checks the array handle, its size, then every element in
// index order, an empty element before a foreign one; an evaluation over an
// empty array (only a node made directly can have one) is refused too.
TEST(Count, BuildersRefuseInTheirOrder) {
  Counted m;
  TavEnv other;
  TavIntVar foreign(other, 0, 1, "f");
  TavIntExprArg none;
  enum Kind { Empty, ArrayError, WrongUsage };
  const struct {
    const char* what;
    std::function<TavIntExprArray()> array;
    Kind kind;
    const char* message;  // after "TavCount: " or "TavStandardDeviation: "
  } rows[] = {
      {"no array", [] { return TavIntExprArray(); }, Empty, nullptr},
      {"no element", [&] { return m.array({}); }, ArrayError, "array of size 0"},
      {"an empty element", [&] { return m.array({m.i, none}); }, ArrayError, "empty handle in array"},
      {"a foreign element", [&] { return m.array({m.i, foreign}); }, WrongUsage, "mixing mismatch Environments"},
      {"empty, then foreign", [&] { return m.array({none, foreign}); }, ArrayError, "empty handle in array"},
      {"foreign, then empty", [&] { return m.array({foreign, none}); }, WrongUsage, "mixing mismatch Environments"},
  };
  const struct {
    const char* name;
    std::function<void(const TavIntExprArray&)> build;
  } builders[] = {
      {"TavCount", [](const TavIntExprArray& a) { TavCount(a, 1); }},
      {"TavStandardDeviation", [](const TavIntExprArray& a) { TavStandardDeviation(a); }},
      {"TavStandardDeviation", [](const TavIntExprArray& a) { TavStandardDeviation(a, 0, 1); }},
  };
  const TavInt objects = m.env.getImpl()->getLiveObjectCount();
  for (const auto& b : builders) {
    for (const auto& r : rows) {
      SCOPED_TRACE(std::string(b.name) + ", " + r.what);
      const TavIntExprArray a = r.array();
      auto call = [&] { b.build(a); };
      const std::string want = r.message ? std::string(b.name) + ": " + r.message : "<none>";
      switch (r.kind) {
        case Empty: EXPECT_EQ(messageOf<TavEmptyHandleException>(call), want); break;
        case ArrayError: EXPECT_EQ(messageOf<TavArrayError>(call), want); break;
        case WrongUsage: EXPECT_EQ(messageOf<TavWrongUsage>(call), want); break;
      }
      EXPECT_EQ(m.env.getImpl()->getLiveObjectCount(), objects);
    }
  }
  EXPECT_EQ(messageOf<TavEmptyHandleException>([] { TavCount(TavIntVarArray(), 1); }), "<none>");
  EXPECT_EQ(messageOf<TavEmptyHandleException>([] { TavStandardDeviation(TavIntVarArray()); }), "<none>");

  TavEnvI* e = m.env.getImpl();
  TavIntExprArray empty(m.env, 0);
  TavIntExpr count(new (e) TavCountI(e, empty, 1));
  TavNumExpr deviation(new (e) TavStandardDeviationI(e, empty, 0, 1));
  EXPECT_EQ(messageOf<TavArrayError>([&] { m.sol.getValue(count); }), "Array of size 0 in evaluation of TavCount");
  EXPECT_EQ(messageOf<TavArrayError>([&] { m.sol.getValue(deviation); }),
            "Array of size 0 in evaluation of TavStandardDeviation");
  other.end();
  m.env.end();
}

// ------------------------------------------------------------------ printing, copies, cloning

TEST(Count, DisplayTexts) {
  Counted m;
  TavIntExpr count = TavCount(m.array({m.i, m.j}), -4);
  TavNumExpr deviation = TavStandardDeviation(m.array({m.i, m.k}));
  const struct {
    bool library;
    const char* count[2];  // around the array, around the value
    const char* deviation[2];
  } rows[] = {
      {true, {"TavCount( ", ", -4) "}, {"TavStandardDeviation( ", ") "}},
      {false, {"count(", ", -4)"}, {"stddev(", ")"}},
  };
  for (const auto& r : rows) {
    m.env.getImpl()->setLibrarySyntaxDisplay(r.library);
    // Elements print as they print alone.
    const std::string ij = "[" + show(m.i) + ", " + show(m.j) + "]", ik = "[" + show(m.i) + ", " + show(m.k) + "]";
    EXPECT_EQ(show(count), r.count[0] + ij + r.count[1]);
    EXPECT_EQ(show(deviation), r.deviation[0] + ik + r.deviation[1]);
  }
  m.env.end();
}

// Each node copies the caller's array, holds one reference on every
// element for as long as it lives, and reports the elements as children.
TEST(Count, CopiesTheArrayAndHoldsItsElements) {
  Counted m;
  TavIntExpr sum = m.i + m.j;
  TavIntExprArray a = m.array({sum, m.k});
  TavIntExpr count = TavCount(a, 5);
  TavNumExpr deviation = TavStandardDeviation(a);
  EXPECT_EQ(sum.getImpl()->getRefCount(), 3);
  EXPECT_TRUE(count.getImpl()->isInteger());
  EXPECT_TRUE(count.getImpl()->isType(TavIntExprI::GetTypeInfo()));
  EXPECT_FALSE(deviation.getImpl()->isInteger());
  EXPECT_STREQ(count.getImpl()->getRttiTypeName(), "TavCountI");
  EXPECT_STREQ(deviation.getImpl()->getRttiTypeName(), "TavStandardDeviationI");
  auto* c = static_cast<TavCountI*>(count.getImpl());
  EXPECT_EQ(c->getValue(), 5);
  EXPECT_NE(c->getExprs().getImpl(), a.getImpl());

  a[1] = m.i;  // the caller's array stays the caller's
  a.end();
  m.set(2, 3, 5);
  EXPECT_EQ(m.sol.getValue(count), 2);
  EXPECT_EQ(m.sol.getValue(deviation), 0);

  for (TavNumExprI* node : std::vector<TavNumExprI*>{count.getImpl(), deviation.getImpl()}) {
    Log log;
    node->visitSubExtractables(&log);
    EXPECT_EQ(log.seen, (std::vector<const TavExtractableI*>{node, sum.getImpl(), m.k.getImpl(), node}));
  }
  count.end();
  deviation.end();
  EXPECT_EQ(sum.getImpl()->getRefCount(), 1);

  // Arrays of variables are taken as they are.
  TavIntVarArray vars(m.env, 3, m.i, m.j, m.k);
  const std::string ijk = "[" + show(m.i) + ", " + show(m.j) + ", " + show(m.k) + "]";
  EXPECT_EQ(show(TavCount(vars, 2)), "count(" + ijk + ", 2)");
  EXPECT_EQ(show(TavStandardDeviation(vars, 0, 3)), "stddev(" + ijk + ")");
  EXPECT_EQ(m.sol.getValue(TavStandardDeviation(vars)), m.sol.getValue(TavStandardDeviation(m.array({m.i, m.j, m.k}))));
  m.env.end();
}

TEST(Count, ClonesCarryEveryField) {
  Counted m;
  TavIntExprArray a = m.array({m.i, m.j + m.k, m.k});
  TavIntExpr count = TavCount(a, 4);
  TavNumExpr deviation = TavStandardDeviation(a, -2, 9);
  m.set(4, 1, 3);
  TavEnv target;
  TavSolution there(target);
  TavEnvI* e = m.env.getImpl();
  for (TavNumExprI* node : std::vector<TavNumExprI*>{count.getImpl(), deviation.getImpl()}) {
    SCOPED_TRACE(node->getRttiTypeName());
    auto* clone = static_cast<TavNumExprI*>(e->cloneInto(node, target.getImpl()));
    ASSERT_EQ(clone->getEnv(), target.getImpl());
    EXPECT_EQ(clone->getTypeInfo(), node->getTypeInfo());
    for (const TavIntVar& v : {m.i, m.j, m.k})
      there.setValue(TavNumVar(static_cast<TavNumVarI*>(target.getImpl()->getClone(v.getImpl()))),
                     m.sol.getValue(v));
    EXPECT_EQ(clone->eval(there), node->eval(m.sol));
    EXPECT_EQ(showNode(clone), showNode(node));
    e->clearCloneMap();
  }
  auto* c = static_cast<TavCountI*>(e->cloneInto(count.getImpl(), target.getImpl()));
  EXPECT_EQ(c->getValue(), 4);
  EXPECT_EQ(c->getExprs().getEnv(), target);
  EXPECT_EQ(c->getExprs().getElement(1)->getRefCount(), 1);
  e->clearCloneMap();
  auto* d = static_cast<TavStandardDeviationI*>(e->cloneInto(deviation.getImpl(), target.getImpl()));
  EXPECT_EQ(d->getLowerBound(), -2);
  EXPECT_EQ(d->getUpperBound(), 9);
  e->clearCloneMap();
  target.end();
  m.env.end();
}

// ------------------------------------------------------------------ allocation failures

// A builder or a clone whose k-th allocation fails leaves its environment
// as it was, for k = 1, 2, ... until it succeeds.
TEST(Count, AllocationFailureLeavesTheModelAsItWas) {
  Counted m;
  TavEnvI* env = m.env.getImpl();
  TavIntExpr sum = m.i + m.j;
  TavIntExprArray small = m.array({sum, m.k});
  TavIntExprArray large(m.env, 0);
  for (int n = 0; n < 300; ++n) large.add(n % 2 ? TavIntExprArg(sum) : TavIntExprArg(m.k));  // several blocks
  const std::vector<std::pair<const char*, std::function<TavNumExprArg()>>> ops = {
      {"TavCount", [&] { return TavCount(small, 1); }},
      {"TavCount, large", [&] { return TavCount(large, 1); }},
      {"TavStandardDeviation", [&] { return TavStandardDeviation(small); }},
      {"TavStandardDeviation, large", [&] { return TavStandardDeviation(large, 0, 1); }},
  };
  for (const auto& [what, op] : ops) {
    SCOPED_TRACE(what);
    tavtest::sweepBuildAndClone(env, op, [&](TavInt k) { ASSERT_EQ(sum.getImpl()->getRefCount(), 1) << k; });
  }
  m.env.end();
}
