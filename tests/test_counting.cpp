// Count and standard deviation: exact counting, how often each element is
// read, the builders' checks in their order, printing, private copies and
// references, visiting, cloning and allocation failures. Values over
// generated programs are compared with references by the fuzzer.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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
  void set(double vi, double vj, double vk) { sol.setValue(i, vi), sol.setValue(j, vj), sol.setValue(k, vk); }
};

}  // namespace

// Exact comparison with the counted value: no tolerance either way. Count
// reads each element once; the deviation twice, the mean from the first
// reads (1, 2) and the squares from the second (3, 4).
TEST(Count, CountsExactlyAndReadsAsDocumented) {
  Counted m;
  TavIntExpr c3 = TavCount(m.array({m.i, m.j, m.k}), 3);
  TavIntExpr c2 = TavCount(m.array({m.i, m.j, m.k}), 2);
  const struct {
    double i, j, k, threes, twos;
  } rows[] = {
      {3, 3.0, 2.9999, 2, 0},
      {2, 2.0000001, 3, 1, 1},
      {-3, 3, 3, 2, 0},
      {std::nan(""), 3.0000000000000004, 1e18, 0, 0},
  };
  for (const auto& r : rows) {
    m.set(r.i, r.j, r.k);
    EXPECT_EQ(m.sol.getValue(c3), r.threes) << r.i << " " << r.j << " " << r.k;
    EXPECT_EQ(m.sol.getValue(c2), r.twos) << r.i << " " << r.j << " " << r.k;
  }
  tavtest::CountingReads reads(m.env.getImpl());
  EXPECT_EQ(c2.getImpl()->eval(&reads), 1);
  EXPECT_EQ(reads.reads, 3);

  TavNumExpr two = TavStandardDeviation(m.array({m.i, m.j}));
  tavtest::CountingReads again(m.env.getImpl());
  EXPECT_EQ(two.getImpl()->eval(&again), std::sqrt(4.25));
  EXPECT_EQ(again.reads, 4);
  m.env.end();
}

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

// Both syntaxes; the elements print as they print alone, the deviation's
// bounds not at all, and an array of variables is taken as it is.
TEST(Count, DisplayTexts) {
  Counted m;
  TavIntVarArray vars(m.env, 2, m.i, m.j);
  const TavNumExprArg nodes[] = {TavCount(m.array({m.i, m.j}), -4), TavStandardDeviation(m.array({m.i, m.j})),
                                 TavCount(vars, -4), TavStandardDeviation(vars, 0, 3)};
  const std::string ij = "[" + show(m.i) + ", " + show(m.j) + "]";
  for (bool library : {true, false}) {
    m.env.getImpl()->setLibrarySyntaxDisplay(library);
    const std::string count = library ? "TavCount( " + ij + ", -4) " : "count(" + ij + ", -4)";
    const std::string deviation = library ? "TavStandardDeviation( " + ij + ") " : "stddev(" + ij + ")";
    for (int n = 0; n < 4; ++n) EXPECT_EQ(show(nodes[n]), n % 2 ? deviation : count) << n;
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
  a[1] = m.i;  // the caller's array stays the caller's
  a.end();
  m.set(2, 3, 5);
  EXPECT_EQ(m.sol.getValue(count), 2);
  EXPECT_EQ(m.sol.getValue(deviation), 0);
  for (TavNumExprI* node : std::vector<TavNumExprI*>{count.getImpl(), deviation.getImpl()})
    EXPECT_EQ(tavtest::visitOf(node), (std::vector<const TavExtractableI*>{node, sum.getImpl(), m.k.getImpl(), node}));
  count.end();
  deviation.end();
  EXPECT_EQ(sum.getImpl()->getRefCount(), 1);
  m.env.end();
}

// A clone in another environment evaluates and prints as its original,
// over its own array there, and keeps the bounds (open ones by default).
TEST(Count, ClonesCarryEveryField) {
  Counted m;
  TavIntExprArray a = m.array({m.i, m.j + m.k, m.k});
  TavIntExpr count = TavCount(a, 4);
  TavNumExpr deviation = TavStandardDeviation(a, -2, 9), open = TavStandardDeviation(a);
  m.set(4, 1, 3);
  TavEnv target;
  TavSolution there(target);
  TavEnvI* e = m.env.getImpl();
  std::vector<TavNumExprI*> clones;
  for (TavNumExprI* node : std::vector<TavNumExprI*>{count.getImpl(), deviation.getImpl(), open.getImpl()}) {
    SCOPED_TRACE(node->getRttiTypeName());
    clones.push_back(static_cast<TavNumExprI*>(e->cloneInto(node, target.getImpl())));
    ASSERT_EQ(clones.back()->getEnv(), target.getImpl());
    EXPECT_EQ(clones.back()->getTypeInfo(), node->getTypeInfo());
    for (const TavIntVar& v : {m.i, m.j, m.k})
      there.setValue(TavNumVar(static_cast<TavNumVarI*>(target.getImpl()->getClone(v.getImpl()))), m.sol.getValue(v));
    EXPECT_EQ(clones.back()->eval(there), node->eval(m.sol));
    EXPECT_EQ(showNode(clones.back()), showNode(node));
    e->clearCloneMap();
  }
  const TavIntExprArray copy = static_cast<TavCountI*>(clones[0])->getExprs();
  EXPECT_EQ(copy.getEnv(), target);
  EXPECT_EQ(copy.getElement(1)->getRefCount(), 1);
  const auto* d = static_cast<TavStandardDeviationI*>(clones[1]);
  const auto* o = static_cast<TavStandardDeviationI*>(clones[2]);
  EXPECT_EQ(std::vector<double>({d->getLowerBound(), d->getUpperBound(), o->getLowerBound(), o->getUpperBound()}),
            std::vector<double>({-2, 9, -TavGetInfinity(), TavGetInfinity()}));
  target.end();
  m.env.end();
}

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
