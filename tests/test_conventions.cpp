// What users of containers expect: arrays built from a vector, a pointer and
// a count or an iterator range; scalar products over coefficients held in a
// vector; every handle printable, an empty one as "<empty>".
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <list>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

using tavtest::show;

namespace {

/// What tells two arrays apart: size, elements (objects or values) and text.
std::string contents(const TavExtractableArray& a) {
  std::ostringstream os;
  os << a.getSize() << ":";
  for (TavInt i = 0; i < a.getSize(); ++i) os << (const void*)a.getObject(i) << ",";
  return os.str() + show(a);
}
template <class T>
std::string contents(const TavValueArray<T>& a) {
  std::ostringstream os;
  os << a.getSize() << ":";
  for (TavInt i = 0; i < a.getSize(); ++i) os << a[i] << ",";
  return os.str();
}

/// Every way to build an Array from elems gives what add gives one by one.
template <class Array, class E>
void expectFormsLikeAdd(TavEnv env, const std::vector<E>& elems) {
  Array byAdd(env, 0);
  for (const E& e : elems) byAdd.add(e);
  const std::list<E> linked(elems.begin(), elems.end());
  std::vector<Array> forms = {Array(env, elems), Array(env, elems.data(), (TavInt)elems.size()),
                              Array(env, elems.begin(), elems.end()), Array(env, linked.begin(), linked.end())};
  for (std::size_t f = 0; f < forms.size(); ++f) {
    EXPECT_EQ(contents(forms[f]), contents(byAdd)) << "form " << f;
    EXPECT_EQ(forms[f].getEnv().getImpl(), env.getImpl());
    forms[f].end();
  }
  byAdd.end();
}

/// The k-th allocation of build fails for k = 1, 2, ... until it succeeds:
/// each failure leaves the environment's live objects and bytes as they were.
template <class Build>
void sweepFailures(TavEnv env, Build build) {
  TavEnvI* e = env.getImpl();
  const TavInt objects = e->getLiveObjectCount();
  const std::size_t bytes = e->getMemory().getLiveBytes();
  const int failures = tavtest::sweepFailures(
      e,
      [&] {
        auto made = build();
        e->getMemory().failAfter(0);
        made.end();
      },
      [&](TavInt k) {
        ASSERT_EQ(e->getLiveObjectCount(), objects) << "failing allocation " << k;
        ASSERT_EQ(e->getMemory().getLiveBytes(), bytes) << "failing allocation " << k;
      });
  EXPECT_GT(failures, 0);
  EXPECT_EQ(e->getMemory().getLiveBytes(), bytes);
}

TavConstraint trueConstraint(TavEnv env) {
  return TavConstraint(new (env.getImpl()) TavConstConstraintI(env.getImpl(), nullptr, 1));
}

}  // namespace

TEST(Conventions, EveryConstructorFormGivesTheArrayAddGives) {
  TavEnv env;
  std::vector<double> nums;
  std::vector<TavInt> ints;
  for (int i = 0; i < 40; ++i) nums.push_back(i * 0.5 - 3), ints.push_back(i * i - 7);
  expectFormsLikeAdd<TavNumArray>(env, nums);
  expectFormsLikeAdd<TavIntArray>(env, ints);
  expectFormsLikeAdd<TavNumArray>(env, std::vector<double>{});

  TavNumVarArray nv(env, 25, 0.0, 9.0);
  TavIntVarArray iv(env, 25, 0, 9);
  std::vector<TavNumVar> numVars = {TavNumVar()};  // an empty element is kept, as add keeps it
  std::vector<TavIntVar> intVars;
  std::vector<TavBoolVar> boolVars;
  std::vector<TavNumExprArg> numExprs;
  std::vector<TavIntExprArg> intExprs;
  std::vector<TavExpr> linExprs;
  std::vector<TavConstraint> cts;
  for (TavInt i = 0; i < 25; ++i) {
    numVars.push_back(nv[i]), intVars.push_back(iv[i]), boolVars.push_back(TavBoolVar(env));
    numExprs.push_back(nv[i] * 2.0), intExprs.push_back(iv[i] + 1);
    linExprs.push_back(TavExpr(env, (double)i)), cts.push_back(trueConstraint(env));
  }
  TavSemiContVarArray sc(env, 3, 1.0, 5.0);
  std::vector<TavSemiContVar> semis = {sc[0], sc[1], sc[2]};
  expectFormsLikeAdd<TavNumVarArray>(env, numVars);
  expectFormsLikeAdd<TavIntVarArray>(env, intVars);
  expectFormsLikeAdd<TavBoolVarArray>(env, boolVars);
  expectFormsLikeAdd<TavNumExprArray>(env, numExprs);
  expectFormsLikeAdd<TavIntExprArray>(env, intExprs);
  expectFormsLikeAdd<TavExprArray>(env, linExprs);
  expectFormsLikeAdd<TavConstraintArray>(env, cts);
  expectFormsLikeAdd<TavSemiContVarArray>(env, semis);

  // Elements of another handle kind convert as a single element would;
  // values read from a stream (counted only as they come) too.
  TavNumVarArray fromInts(env, intVars);
  EXPECT_EQ(contents(fromInts), contents(iv.toNumVarArray()));
  EXPECT_EQ(contents(TavNumExprArray(env, std::vector<TavNumVar>(numVars.begin() + 1, numVars.end()))),
            contents(nv.toNumExprArray()));
  EXPECT_EQ(show(TavNumArray(env, std::vector<int>{1, -2, 3})), "[1, -2, 3]");
  std::istringstream in("1 2.5 -3 4 5 6 7 8 9 10 11 12 13 14 15 16 17");
  TavNumArray streamed(env, std::istream_iterator<double>(in), std::istream_iterator<double>());
  EXPECT_EQ(streamed.getSize(), 17);
  EXPECT_EQ(streamed[1], 2.5);
  EXPECT_EQ(streamed[16], 17.0);

  // A count that cannot be read refuses before anything is made.
  const std::size_t bytes = env.getImpl()->getMemory().getLiveBytes();
  EXPECT_EQ(tavtest::messageOf<TavWrongUsage>([&] { TavNumArray(env, (const double*)nullptr, 2); }),
            "TavArray: null element pointer");
  EXPECT_EQ(tavtest::messageOf<TavWrongUsage>([&] { TavNumVarArray(env, numVars.data(), -1); }),
            "TavArray: negative element count");
  EXPECT_EQ(env.getImpl()->getMemory().getLiveBytes(), bytes);
  EXPECT_EQ(TavNumArray(env, (const double*)nullptr, 0).getSize(), 0);
  env.end();
}

TEST(Conventions, AFailedConstructionLeavesNothing) {
  TavEnv env;
  std::vector<double> nums(70, 1.5);
  TavNumVarArray nv(env, 70, 0.0, 9.0);
  std::vector<TavNumVar> vars;
  std::vector<TavIntVar> intVars;
  for (TavInt i = 0; i < nv.getSize(); ++i) vars.push_back(nv[i]);
  for (int i = 0; i < 5; ++i) intVars.push_back(TavIntVar(env, 0, 1));
  sweepFailures(env, [&] { return TavNumArray(env, nums); });
  sweepFailures(env, [&] { return TavNumArray(env, nums.data(), 70); });
  sweepFailures(env, [&] {
    std::istringstream in("1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31 32 33 34");
    return TavNumArray(env, std::istream_iterator<double>(in), std::istream_iterator<double>());
  });
  sweepFailures(env, [&] { return TavNumVarArray(env, vars); });
  sweepFailures(env, [&] { return TavBoolVarArray(env, intVars.begin(), intVars.end()); });
  sweepFailures(env, [&] { return TavScalProd(nums, nv); });

  // A failing element conversion part-way leaves nothing either.
  intVars.push_back(TavIntVar(env, 0, 7));
  const TavInt objects = env.getImpl()->getLiveObjectCount();
  const std::size_t bytes = env.getImpl()->getMemory().getLiveBytes();
  EXPECT_THROW(TavBoolVarArray(env, intVars), TavBadConversion);
  EXPECT_EQ(env.getImpl()->getLiveObjectCount(), objects);
  EXPECT_EQ(env.getImpl()->getMemory().getLiveBytes(), bytes);
  env.end();
}

TEST(Conventions, EveryEmptyHandlePrintsAMarker) {
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"TavNumExprArg", show(TavNumExprArg())},
      {"TavIntExprArg", show(TavIntExprArg())},
      {"TavNumExpr", show(TavNumExpr())},
      {"TavIntExpr", show(TavIntExpr())},
      {"TavExpr", show(TavExpr())},
      {"TavNumVar", show(TavNumVar())},
      {"TavIntVar", show(TavIntVar())},
      {"TavBoolVar", show(TavBoolVar())},
      {"TavSemiContVar", show(TavSemiContVar())},
      {"TavConstraint", show(TavConstraint())},
      {"TavExtractable", show(TavExtractable())},
      {"TavNumArray", show(TavNumArray())},
      {"TavIntArray", show(TavIntArray())},
      {"TavExtractableArray", show(TavExtractableArray())},
      {"TavNumVarArray", show(TavNumVarArray())},
      {"TavIntVarArray", show(TavIntVarArray())},
      {"TavBoolVarArray", show(TavBoolVarArray())},
      {"TavSemiContVarArray", show(TavSemiContVarArray())},
      {"TavNumExprArray", show(TavNumExprArray())},
      {"TavIntExprArray", show(TavIntExprArray())},
      {"TavExprArray", show(TavExprArray())},
      {"TavConstraintArray", show(TavConstraintArray())},
      {"TavConversion", show(TavConversion())},
  };
  for (const auto& r : rows) EXPECT_EQ(r.second, "<empty>") << r.first;

  // A handle on an object prints the object, whatever handle holds it.
  TavEnv env;
  TavIntVar x(env, 0, 9, "x");
  EXPECT_EQ(show(x), "x[0 .. 9] ");
  EXPECT_EQ(show(TavExtractable(x.getImpl())), show(x));
  EXPECT_EQ(show(TavNumVar(x)), show(x));
  EXPECT_EQ(show(TavNumVarArray(env, std::vector<TavNumVar>{x, x})), "[x[0 .. 9] , x[0 .. 9] ]");
  env.end();
}

TEST(Conventions, ScalProdOverHeldCoefficientsEqualsTheArrayForms) {
  TavEnv env;
  const TavInt n = 37;  // past one block of the 16-slot arrays add grows
  TavNumVarArray xn(env, n, 0.0, 9.0);
  TavIntVarArray xi(env, n, 0, 9);
  std::vector<double> cn;
  std::vector<TavInt> ci;
  TavNumArray an(env);
  TavIntArray ai(env);
  TavSolution sol(env);
  for (TavInt i = 0; i < n; ++i) {
    cn.push_back(i % 5 == 0 ? 0.0 : i * 0.25 - 4), ci.push_back(i % 4 - 1);
    an.add(cn.back()), ai.add(ci.back());
    sol.setValue(xn[i], (double)(i % 7)), sol.setValue(xi[i], (double)(i % 3));
  }
  const std::vector<std::pair<TavNumExprArg, TavNumExprArg>> cases = {
      {TavScalProd(cn, xn), TavScalProd(an, xn)},
      {TavScalProd(xn, cn), TavScalProd(xn, an)},
      {TavScalProd(cn, xi), TavScalProd(an, xi)},
      {TavScalProd(xi, cn), TavScalProd(xi, an)},
      {TavScalProd(ci, xi), TavScalProd(ai, xi)},
      {TavScalProd(xi, ci), TavScalProd(xi, ai)},
      {TavScalProd(cn.data(), n, xn), TavScalProd(an, xn)},
      {TavScalProd(cn.data(), n, xi), TavScalProd(an, xi)},
      {TavScalProd(ci.data(), n, xi), TavScalProd(ai, xi)},
  };
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const TavNumExprI* held = cases[c].first.getImpl();
    const TavNumExprI* array = cases[c].second.getImpl();
    EXPECT_STREQ(held->getRttiTypeName(), array->getRttiTypeName()) << c;
    EXPECT_EQ(tavtest::showNode(held), tavtest::showNode(array)) << c;
    EXPECT_EQ(held->eval(sol), array->eval(sol)) << c;
  }

  // The checks of the array forms, with their messages.
  TavEnv other;
  TavNumVarArray foreign(env, std::vector<TavNumVar>{xn[0], TavNumVar(other, 0, 1)});
  TavNumVarArray withEmpty(env, std::vector<TavNumVar>{xn[0], TavNumVar()});
  const std::vector<double> two = {1.0, 2.0};
  EXPECT_THROW(TavScalProd(std::vector<double>(3, 1.0), foreign), TavInvalidScalProdArraysException);
  EXPECT_THROW(TavScalProd(two.data(), 1, foreign), TavInvalidScalProdArraysException);
  EXPECT_EQ(tavtest::messageOf<TavWrongUsage>([&] { TavScalProd(two, foreign); }),
            tavtest::messageOf<TavWrongUsage>([&] { TavScalProd(TavNumArray(env, two), foreign); }));
  EXPECT_THROW(TavScalProd(two, withEmpty), TavEmptyHandleException);
  EXPECT_THROW(TavScalProd(two, TavNumVarArray()), TavEmptyHandleException);
  EXPECT_EQ(tavtest::messageOf<TavWrongUsage>([&] { TavScalProd((const double*)nullptr, 2, foreign); }),
            "TavScalProd: no coefficients");
  other.end();
  env.end();
}
