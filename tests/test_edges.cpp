// Paths that span the layers and that no family test takes: the defaults of
// the environment's base classes, empty handles ended, mixed integer and
// double arithmetic, term handles, clones into the source environment,
// removals seen by conversions, raw scalar products, refused coefficient
// changes, and variable arrays and operators built through failing
// allocations.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

// What the environment layer's base classes do when a kind does not
// override them.
TEST(BaseDefaults, ExtractablesChangesAndDomains) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavExtractableI* plain = new (ei) TavExtractableI(ei, "plain");
  EXPECT_EQ(messageOf<TavNotImplemented>([&] { plain->makeClone(ei); }), "makeClone is not available for this object");
  EXPECT_EQ(TavExtractable(plain).getEnv().getImpl(), ei);
  TavChange change(plain);
  EXPECT_THROW(change.applyToCP(TavAlgorithm(), nullptr), TavAlgorithm::CannotChangeException);

  TavBoolVarDomainI b(0, 1);
  EXPECT_EQ(b.getNumValues().getImpl(), nullptr);
  EXPECT_EQ(b.getIntValues().getImpl(), nullptr);
  EXPECT_EQ(b.getValueCount(), 0);
  TavNumVarDomainI listed(TavNumArray(env, {2.5, 1.5}));
  EXPECT_EQ(listed.getValueCount(), 2);
  const struct {
    double v;
    bool inBool, inListed;
  } rows[] = {{-1, false, false}, {0, true, false}, {0.5, true, false}, {1, true, false},
              {1.5, false, true}, {2, false, false}, {2.5, false, true}};
  for (auto& r : rows) {
    EXPECT_EQ(b.contains(r.v), r.inBool) << r.v;
    EXPECT_EQ(listed.contains(r.v), r.inListed) << r.v;
  }

  EXPECT_EQ(TavNumVarDomainI(0.0, 1.0).getValueCount(), 0);
  EXPECT_EQ(TavNumArray().getEnv().getImpl(), nullptr);
  EXPECT_THROW(TavConversion().getEnv(), TavEmptyHandleException);

  // A hook installed for change records serves the base class too.
  static int applied;
  applied = 0;
  TavChange::_applyCP = [](TavAlgorithm, const TavChange*, void* data) { applied += *static_cast<int*>(data); };
  int three = 3;
  change.applyToCP(TavAlgorithm(), &three);
  TavChange::_applyCP = nullptr;
  EXPECT_EQ(applied, 3);

  // The tuple encoder gives one code per distinct tuple, the same one again.
  TavTupleEncoderI* codes = ei->getTupleEncoder();
  const TavInt ab[] = {1, 2}, ba[] = {2, 1};
  const TavInt first = codes->encode(ab, 2);
  EXPECT_NE(codes->encode(ba, 2), first);
  EXPECT_EQ(codes->encode(ab, 2), first);
  EXPECT_NE(codes->encode(ab, 1), first);

  // Beyond what any size class or chunk can hold: refused, nothing taken.
  const std::size_t bytes = ei->getMemory().getLiveBytes();
  EXPECT_THROW(ei->alloc(std::size_t(1) << 61), std::bad_alloc);
  EXPECT_EQ(ei->getMemory().getLiveBytes(), bytes);
  env.end();
}

// Ending an empty handle, or one already ended, does nothing.
TEST(BaseDefaults, EmptyAndEndedHandlesEndQuietly) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavSolution sol(env);
  EXPECT_EQ(sol.getEnv().getImpl(), ei);
  EXPECT_EQ(TavAlgorithm().getEnv().getImpl(), nullptr);
  const TavInt objects = ei->getLiveObjectCount();
  const std::size_t bytes = ei->getMemory().getLiveBytes();
  TavNumColumn column(env);
  TavNumRange range(env, 1.0, 2.0);
  for (int twice = 0; twice < 2; ++twice) {
    column.end();
    range.end();
  }
  TavNumColumn().end();
  TavNumRange().end();
  TavIntRange().end();
  TavAlgorithm().end();
  EXPECT_EQ(TavNumExpr(TavNumExprArg()).getImpl(), nullptr);
  EXPECT_EQ(TavIntExpr(TavIntExprArg()).getImpl(), nullptr);
  EXPECT_EQ(ei->getLiveObjectCount(), objects);
  EXPECT_EQ(ei->getMemory().getLiveBytes(), bytes);
  ei->destroy(nullptr);
  ei->removeFromAllAndDestroy(nullptr);
  EXPECT_EQ(ei->getLiveObjectCount(), objects);
  TavEnv spare;
  spare.end();
  spare.end();
  EXPECT_EQ(spare.getImpl(), nullptr);
  env.end();
}

// An integer expression with a double on either side gives a numeric one;
// term handles name their variable; constant tests see integer nodes.
TEST(MixedArithmetic, IntegerExpressionsWithDoublesAndTerms) {
  NamedVars v;
  TavSolution sol(v.env);
  sol.setValue(v.x, 1.25);
  sol.setValue(v.i, 2);
  sol.setValue(v.j, 3);
  const TavIntExprArg ij = v.i + v.j;
  const struct {
    const char* what;
    std::function<TavNumExprArg()> build;
    double value;
  } rows[] = {
      {"d + e", [&] { return 1.5 + TavIntExprArg(v.i + v.j); }, 6.5},
      {"e - d", [&] { return TavIntExprArg(v.i + v.j) - 1.5; }, 3.5},
      {"d - e", [&] { return 1.5 - TavIntExprArg(v.i + v.j); }, -3.5},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.what);
    TavNumExpr e = r.build();
    EXPECT_FALSE(e.getImpl()->isInteger());
    EXPECT_EQ(sol.getValue(e), r.value);
    e.end();
  }
  EXPECT_EQ(sol.getValue(ij), 5.0);

  TavNumLinExprTerm nt = 2.0 * v.x;
  EXPECT_EQ(nt.getVar().getImpl(), v.x.getImpl());
  EXPECT_EQ(sol.getValue(TavNumExpr(nt)), 2.5);
  TavIntLinExprTerm it = 3 * v.i;
  EXPECT_EQ(it.getVar().getImpl(), v.i.getImpl());
  EXPECT_EQ(sol.getValue(TavIntExpr(it)), 6.0);

  EXPECT_TRUE(TavIntExpr(v.env, 4).isConstant());
  EXPECT_FALSE(ij.isConstant());
  TavExpr lin = v.x + 2.0 * v.y;
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { lin.setLinearCoefs(TavNumVarArray(v.env, 2, v.x, v.y), TavNumArray(v.env, {1.0})); }),
            "TavExpr::setLinearCoefs: fewer coefficients than variables");
  sol.setValue(v.y, 0.5);
  EXPECT_EQ(sol.getValue(lin), 2.25);  // unchanged
  v.env.end();
}

// A clone pass may target its own environment; an array of objects is then
// replaced by their clones, an empty slot staying empty.
TEST(Cloning, IntoTheSourceEnvironmentAndArraysOfClones) {
  NamedVars v;
  TavEnvI* ei = v.env.getImpl();
  TavNumExpr e = v.x + 2.0 * v.y;
  TavExtractableI* twin = ei->cloneInto(e.getImpl(), ei);
  EXPECT_NE(twin, e.getImpl());
  EXPECT_EQ(twin->getEnv(), ei);
  EXPECT_EQ(showNode(twin), show(e));
  TavExtractableI* xTwin = ei->getClone(v.x.getImpl());
  ASSERT_NE(xTwin, nullptr);
  EXPECT_NE(xTwin, v.x.getImpl());
  TavExtractableArray objects(v.env, 0);
  objects.addObject(nullptr);
  objects.addObject(v.x.getImpl());
  objects.replaceByClone(ei);
  ASSERT_EQ(objects.getSize(), 2);
  EXPECT_EQ(objects.getObject(0), nullptr);
  EXPECT_EQ(objects.getObject(1), xTwin);
  ei->clearCloneMap();
  v.env.end();
}

// Removed one by one, an object other than a variable (or none) leaves a
// conversion's variables as they are.
TEST(Conversions, RemovingOtherObjectsLeavesTheVariables) {
  NamedVars v;
  TavEnvI* ei = v.env.getImpl();
  ei->setRemoveFromAllOnDestroy(true);
  ei->setOneByOneRemoval(true);
  TavConversion c(v.env, TavNumVarArray(v.env, 2, v.x, v.y), TavNumVar::Int);
  TavConversionI* ci = c.getImpl();
  auto vars = [&] {
    std::vector<TavNumVarI*> out;
    for (TavInt k = 0; k < ci->getVars().getSize(); ++k) out.push_back(ci->getVars().getElement(k));
    return out;
  };
  const std::vector<TavNumVarI*> both = {v.x.getImpl(), v.y.getImpl()};
  TavConstraint(new (ei) TavConstConstraintI(ei, "c", 1)).end();
  EXPECT_EQ(vars(), both);
  ci->atRemove(nullptr, nullptr);
  EXPECT_EQ(vars(), both);
  v.x.end();
  EXPECT_EQ(vars(), std::vector<TavNumVarI*>{v.y.getImpl()});
  v.env.end();
}

// The raw-coefficient scalar products refuse a negative count and a missing
// coefficient list.
TEST(ScalarProducts, RawCoefficientsAreChecked) {
  TavEnv env;
  TavNumVarArray xs(env, 2, 0.0, 1.0);
  TavIntVarArray is(env, 2, 0, 1);
  const double dc[] = {1.0, 2.0};
  const TavInt ic[] = {1, 2};
  const struct {
    const char* what;
    std::function<void()> call;
  } rows[] = {
      {"negative count", [&] { TavScalProd(dc, -1, xs); }},
      {"negative count, no list", [&] { TavScalProd((const double*)nullptr, -1, xs); }},
      {"no list over integers", [&] { TavScalProd((const double*)nullptr, 2, is); }},
      {"integer, negative count", [&] { TavScalProd(ic, -2, is); }},
      {"integer, no list", [&] { TavScalProd((const TavInt*)nullptr, 2, is); }},
  };
  for (auto& r : rows)
    EXPECT_EQ(messageOf<TavWrongUsage>(r.call), "TavScalProd: no coefficients") << r.what;
  TavSolution sol(env);
  sol.setValue(xs[0], 1);
  sol.setValue(xs[1], 1);
  EXPECT_EQ(sol.getValue(TavScalProd(dc, 2, xs)), 3.0);
  EXPECT_EQ(sol.getValue(TavScalProd((const double*)nullptr, 0, TavNumVarArray(env, 0))), 0.0);
  env.end();
}

// Every bound form of the variable arrays, with each allocation failing in
// turn (each element takes a domain of its own bounds): no element is left
// behind, and the array finally made has the bounds asked for.
TEST(VariableArrays, FailedBuildsLeaveNoElementBehind) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  const TavNumVar::Type F = TavNumVar::Float;
  struct Row {
    const char* what;
    std::function<std::vector<TavNumVarI*>(double)> build;  // bounds offset by the argument
    std::vector<double> lbs, ubs;                 // before the offset
    bool lbsMove = true;                          // false: lower bounds stay as they are
  };
  auto elements = [](const auto& a) {
    std::vector<TavNumVarI*> out;
    for (TavInt i = 0; i < a.getSize(); ++i) out.push_back(a[i].getImpl());
    return out;
  };
  std::vector<Row> rows = {
      {"num n", [&](double o) { return elements(TavNumVarArray(env, 2, o + 0.5, o + 1.5, F)); }, {0.5, 0.5}, {1.5, 1.5}},
      {"num lbs ubs",
       [&](double o) { return elements(TavNumVarArray(env, TavNumArray(env, {o + 0.5, o + 1.5}), TavNumArray(env, {o + 2.5, o + 3.5}), F)); },
       {0.5, 1.5}, {2.5, 3.5}},
      {"num lb ubs", [&](double o) { return elements(TavNumVarArray(env, o + 0.5, TavNumArray(env, {o + 2.5, o + 3.5}), F)); },
       {0.5, 0.5}, {2.5, 3.5}},
      {"num lbs ub", [&](double o) { return elements(TavNumVarArray(env, TavNumArray(env, {o + 0.5, o + 1.5}), o + 3.5, F)); },
       {0.5, 1.5}, {3.5, 3.5}},
      {"int n", [&](double o) { return elements(TavIntVarArray(env, 2, (TavInt)o + 1, (TavInt)o + 2)); }, {1, 1}, {2, 2}},
      {"int lbs ubs",
       [&](double o) {
         return elements(TavIntVarArray(env, TavIntArray(env, {(TavInt)o + 1, (TavInt)o + 2}), TavIntArray(env, {(TavInt)o + 3, (TavInt)o + 4})));
       },
       {1, 2}, {3, 4}},
      {"int lb ubs", [&](double o) { return elements(TavIntVarArray(env, (TavInt)o + 1, TavIntArray(env, {(TavInt)o + 3, (TavInt)o + 4}))); },
       {1, 1}, {3, 4}},
      {"int lbs ub", [&](double o) { return elements(TavIntVarArray(env, TavIntArray(env, {(TavInt)o + 1, (TavInt)o + 2}), (TavInt)o + 4)); },
       {1, 2}, {4, 4}},
      {"semi-continuous n", [&](double o) { return elements(TavSemiContVarArray(env, 2, o + 0.5, o + 1.5)); }, {0, 0}, {1.5, 1.5}, false},
      {"semi-continuous sclbs ubs",
       [&](double o) { return elements(TavSemiContVarArray(env, TavNumArray(env, {o + 0.5, o + 1.5}), TavNumArray(env, {o + 2.5, o + 3.5}))); },
       {0, 0}, {2.5, 3.5}, false},
  };
  double offset = 0;
  for (auto& r : rows) {
    SCOPED_TRACE(r.what);
    offset += 100;
    const TavInt objects = ei->getLiveObjectCount();
    std::vector<TavNumVarI*> built;
    const int failures = tavtest::sweepFailures(ei, [&] { built = r.build(offset); }, [&](TavInt k) {
      EXPECT_EQ(ei->getLiveObjectCount(), objects) << "failing allocation " << k;
    });
    EXPECT_GT(failures, 0);
    ASSERT_EQ(built.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(built[i]->getLB(), (r.lbsMove ? offset : 0) + r.lbs[i]) << i;
      EXPECT_EQ(built[i]->getUB(), offset + r.ubs[i]) << i;
    }
  }
  env.end();
}

// Operators over variables, built and cloned with each allocation failing in
// turn, then evaluated.
TEST(OperatorFailures, SimpleFormsBuildAndCloneThroughFailingAllocations) {
  NamedVars v;
  TavEnvI* ei = v.env.getImpl();
  TavSolution sol(v.env);
  sol.setValue(v.x, 1.5);
  sol.setValue(v.i, 4);
  const struct {
    const char* what;
    std::function<TavNumExprArg()> build;
    double value;
  } rows[] = {
      {"x + d", [&] { return TavNumExprArg(v.x) + 3.0; }, 4.5},
      {"d + x", [&] { return 3.0 + TavNumExprArg(v.x); }, 4.5},
      {"x * d", [&] { return TavNumExprArg(v.x) * 2.0; }, 3.0},
      {"-x", [&] { return -TavNumExprArg(v.x); }, -1.5},
      {"i + k", [&] { return TavIntExprArg(v.i) + 3; }, 7.0},
      {"i * k", [&] { return TavIntExprArg(v.i) * 3; }, 12.0},
      {"x / d", [&] { return TavNumExprArg(v.x) / 0.5; }, 3.0},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.what);
    tavtest::sweepBuildAndClone(ei, r.build, [](TavInt) {});
    TavNumExpr e = r.build();
    EXPECT_EQ(sol.getValue(e), r.value);
    e.end();
  }
  v.env.end();
}

// A refused record stops a bulk change of coefficients after its first new
// variable: the cells made for the others go back.
TEST(LinearCoefficients, ARefusedRecordReturnsTheUnusedCells) {
  NamedVars v;
  TavEnvI* ei = v.env.getImpl();
  TavSolution sol(v.env);
  sol.setValue(v.x, 1);
  sol.setValue(v.y, 2);
  TavNumVar w(v.env, 0.0, 1.0, "w");
  sol.setValue(w, 3);
  TavExpr e = 2.0 * v.x + 0.5;
  const TavInt terms = ei->getLiveTermCount();
  {
    tavtest::RefusingAlg refuser(ei);
    EXPECT_THROW(e.setLinearCoefs(TavNumVarArray(v.env, 2, v.y, w), TavNumArray(v.env, {5.0, 6.0})), TavWrongUsage);
  }
  EXPECT_EQ(ei->getLiveTermCount(), terms + 1);
  EXPECT_EQ(sol.getValue(e), 12.5);
  e.end();
  v.env.end();
}

// Non-linear parts removed from a linear expression by array: the first
// (others staying), one in the middle or the last; the rest keeps its value.
// When the last part goes the tail is cleared, not moved back (kept as it
// always was), so a part added later starts the list anew.
TEST(LinearParts, RemovedByArrayWhereverTheyStand) {
  NamedVars v;
  TavSolution sol(v.env);
  sol.setValue(v.x, 1);
  sol.setValue(v.y, 2);
  const struct {
    int removed;
    double left, added;
  } rows[] = {{0, 5, 6}, {1, 7, 8}, {2, 7, 2}};
  for (auto& r : rows) {
    SCOPED_TRACE(r.removed);
    TavNumExpr parts[] = {TavSquare(v.y), TavAbs(v.y - 4.0), v.x * v.y};  // 4, 2, 2
    TavExpr e = v.x + parts[0] + parts[1] + parts[2];
    ASSERT_EQ(sol.getValue(e), 9.0);
    TavExtractableArray gone(v.env, 0);
    gone.addObject(parts[r.removed].getImpl());
    e.remove(gone);
    EXPECT_EQ(sol.getValue(e), r.left);
    e += TavSquare(v.x);
    EXPECT_EQ(sol.getValue(e), r.added);
    e.end();
    for (auto& p : parts) p.end();
  }
  v.env.end();
}

}  // namespace
