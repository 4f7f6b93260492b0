// Scalar products, sums, and minimum and maximum over arrays: the nodes they
// build, their evaluation, display and failures.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tavexpression.h"
#include "test_support.h"

namespace {

typedef std::vector<std::pair<TavNumVarI*, double>> Terms;

/// The term cells of a linear node as they stand, in list order.
Terms termsOf(TavNumExprArg e) {
  TavNumLinExprTermI* t = nullptr;
  if (auto* n = dynamic_cast<TavNumLinTermI*>(e.getImpl())) t = n->getFirstTerm();
  else if (auto* i = dynamic_cast<TavIntLinTermI*>(e.getImpl())) t = i->getFirstTerm();
  Terms out;
  for (; t; t = t->getNext()) out.push_back({t->getVar(), t->getCoef()});
  return out;
}

std::vector<std::string> partClassesOf(TavNumExprArg e) {
  TavNumLinPartI* p = nullptr;
  if (auto* n = dynamic_cast<TavNumLinTermI*>(e.getImpl())) p = n->getFirstPart();
  else if (auto* i = dynamic_cast<TavIntLinTermI*>(e.getImpl())) p = i->getFirstPart();
  std::vector<std::string> out;
  for (; p; p = p->_next) out.push_back(p->_expr->getRttiTypeName());
  return out;
}

/// Counts every variable read, to see how often a node evaluates its operands.
struct CountingAlgorithm : TavAlgorithmI {
  explicit CountingAlgorithm(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI* var) const override {
    ++reads;
    return values.at(var);
  }
  std::map<const TavNumVarI*, double> values;
  mutable int reads = 0;
};

}  // namespace

// ------------------------------------------------------------------ scalar products and sums

// The cells, order and values of the variable forms are the fuzzer's.
TEST(ScalProd, ExpressionFormsAppendOneProductPerPosition) {
  TavEnv env;
  TavNumVar x(env, 0, 9), y(env, 0, 9), z(env, 0, 9);
  TavIntVar p(env, 0, 9), q(env, 0, 9);
  TavExpr three(env, 3.0);
  TavNumExprArray a(env), b(env);
  a.add(x), a.add(y);
  b.add(three), b.add(z);
  TavSolution sol(env);
  sol.setValue(x, 2), sol.setValue(y, 3), sol.setValue(z, 4), sol.setValue(p, 5), sol.setValue(q, 6);

  TavNumExprArg e = TavScalProd(a, b);
  EXPECT_STREQ(e.getImpl()->getRttiTypeName(), "TavNumLinTermI");
  EXPECT_TRUE(termsOf(e).empty());
  const std::vector<std::string> parts = partClassesOf(e);
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_NE(parts[0], "TavNumTimesI") << "a constant side folds into a linear product";
  EXPECT_EQ(parts[1], "TavNumTimesI");
  EXPECT_EQ(e.getImpl()->eval(sol), 2 * 3 + 3 * 4);

  TavIntExprArray ia(env), ib(env);
  ia.add(p), ia.add(q);
  ib.add(q), ib.add(TavIntExpr(env, 2));
  TavIntExprArg ie = TavScalProd(ia, ib);
  EXPECT_STREQ(ie.getImpl()->getRttiTypeName(), "TavIntLinTermI");
  EXPECT_EQ(partClassesOf(ie), (std::vector<std::string>{"TavIntTimesI", "TavIntTimesI"}));
  EXPECT_EQ(ie.getImpl()->eval(sol), 5 * 6 + 6 * 2);
  env.end();
}

TEST(ScalProd, NumberFormsAndSums) {
  TavEnv env;
  TavNumArray n1(env, {1.5, 2}), n2(env, {2, 3});
  TavIntArray i1(env, {1, 2}), big(env, {LONG_MAX, 3}), two(env, {2, 1});
  EXPECT_EQ(TavScalProd(n1, n2), 9.0);
  EXPECT_EQ(TavScalProd(i1, TavNumArray(env, {0.5, 0.25})), 1.0);
  EXPECT_EQ(TavScalProd(TavNumArray(env, {0.5, 0.25}), i1), 1.0);
  EXPECT_EQ(TavScalProd(big, two), 1) << "64-bit products and sums wrap";
  EXPECT_EQ(TavScalProd(TavNumArray(env), TavNumArray(env)), 0.0);
  EXPECT_EQ(TavScalProd(TavIntArray(env), TavIntArray(env)), 0);
  EXPECT_EQ(TavSum(TavNumArray(env, {1.5, 2.25})), 3.75);
  EXPECT_EQ(TavSum(TavIntArray(env, {LONG_MAX, 1})), LONG_MIN);
  EXPECT_EQ(TavSum(TavIntArray(env)), 0);
  env.end();
}

TEST(ScalProd, SizeIsCheckedBeforeEnvironments) {
  TavEnv env, other;
  // The longer arrays live in another environment: the size test comes first.
  TavNumVarArray nv(other, 3, 0, 1);
  TavIntVarArray iv(other, 3, 0, 1);
  TavNumExprArray ne = nv.toNumExprArray(), ne2(env);
  TavIntExprArray ie = iv.toIntExprArray(), ie2(env);
  TavNumArray n(env, {1, 2});
  TavIntArray i(env, {1, 2});
  ne2.add(TavNumVar(env)), ne2.add(TavNumVar(env));
  ie2.add(TavIntVar(env)), ie2.add(TavIntVar(env));
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"n,nv", [&] { TavScalProd(n, nv); }},      {"nv,n", [&] { TavScalProd(nv, n); }},
      {"n,iv", [&] { TavScalProd(n, iv); }},      {"iv,n", [&] { TavScalProd(iv, n); }},
      {"i,nv", [&] { TavScalProd(i, nv); }},      {"nv,i", [&] { TavScalProd(nv, i); }},
      {"i,iv", [&] { TavScalProd(i, iv); }},      {"iv,i", [&] { TavScalProd(iv, i); }},
      {"ne", [&] { TavScalProd(ne2, ne); }},      {"ie", [&] { TavScalProd(ie, ie2); }},
      {"n,n", [&] { TavScalProd(n, TavNumArray(env, 3)); }},
      {"i,n", [&] { TavScalProd(i, TavNumArray(env, 3)); }},
      {"n,i", [&] { TavScalProd(n, TavIntArray(env, 3)); }},
      {"i,i", [&] { TavScalProd(i, TavIntArray(env, 3)); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    EXPECT_EQ(messageOf<TavInvalidScalProdArraysException>(c.second), "TavScalProd: arrays have different size");
  }
  env.end();
  other.end();
}

TEST(ScalProd, MixedEnvironmentsAreRejectedBeforeAllocation) {
  TavEnv env, other;
  TavIntVar x(env, 0, 1), stranger(other, 0, 1);
  TavIntVarArray iv(env, 2, x, stranger);
  TavNumVarArray nv = iv.toNumVarArray();
  TavNumExprArray mine(env), mixedFirst(env), mixedSecond(env);
  mine.add(x), mine.add(x);
  mixedFirst.add(stranger), mixedFirst.add(x);
  mixedSecond.add(x), mixedSecond.add(stranger);
  TavIntExprArray imine = nv.toIntExprArray(), imixed(env);
  imixed.add(x), imixed.add(x);
  TavNumArray n(env, {1, 2});
  TavIntArray i(env, {1, 2});
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"n,nv", [&] { TavScalProd(n, nv); }},     {"iv,n", [&] { TavScalProd(iv, n); }},
      {"i,nv", [&] { TavScalProd(i, nv); }},     {"i,iv", [&] { TavScalProd(i, iv); }},
      {"first array", [&] { TavScalProd(mixedFirst, mine); }},
      {"second array", [&] { TavScalProd(mine, mixedSecond); }},
      {"int exprs", [&] { TavScalProd(imixed, imine); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    const TavInt live = env.getImpl()->getLiveObjectCount();
    EXPECT_EQ(messageOf<TavWrongUsage>(c.second), "TavScalProd: mixing mismatch environments");
    EXPECT_EQ(env.getImpl()->getLiveObjectCount(), live);
  }
  env.end();
  other.end();
}

// Values, empty arrays included, are the fuzzer's; here the class each form
// makes and the references it gives back.
TEST(Sum, EveryFormMakesALinearNodeAndGivesItsReferencesBack) {
  TavEnv env;
  TavNumVar x(env, 0, 9), y(env, 0, 9);
  TavIntVar p(env, 0, 9), q(env, 0, 9);
  TavNumExpr m = TavMin(x, y);
  TavNumExprArray ne(env);
  ne.add(x), ne.add(m), ne.add(TavExpr(env, 3.0));
  TavIntExprArray ie(env);
  ie.add(p), ie.add(TavMax(p, q)), ie.add(q);
  const std::vector<std::pair<TavNumExprArg, const char*>> cases = {
      {TavSum(ne), "TavNumLinTermI"},
      {TavSum(TavNumVarArray(env, 3, x, x, y)), "TavNumLinTermI"},
      {TavSum(ie), "TavIntLinTermI"},
      {TavSum(TavIntVarArray(env, 3, p, q, q)), "TavIntLinTermI"},
  };
  for (const auto& c : cases) {
    TavNumExprArg e = c.first;
    EXPECT_STREQ(e.getImpl()->getRttiTypeName(), c.second);
    EXPECT_EQ(e.getImpl()->getRefCount(), 0) << "the local handle's reference is given back";
    e.end();
  }
  EXPECT_EQ(m.getImpl()->getRefCount(), 1) << "ending the sums gave every element's reference back";
  env.end();
}

// ------------------------------------------------------------------ minimum and maximum over arrays

namespace {
struct ArrayBuilder {
  const char* what;
  std::function<TavNumExprArg()> make;
  bool max;
};

/// The eight node builders over arrays, minimum and maximum of each kind.
std::vector<ArrayBuilder> arrayBuilders(TavNumExprArray ne, TavIntExprArray ie, TavNumVarArray nv, TavIntVarArray iv) {
  return {
      {"min num exprs", [=] { return TavMin(ne); }, false}, {"max num exprs", [=] { return TavMax(ne); }, true},
      {"min int exprs", [=] { return TavMin(ie); }, false}, {"max int exprs", [=] { return TavMax(ie); }, true},
      {"min num vars", [=] { return TavMin(nv); }, false},  {"max num vars", [=] { return TavMax(nv); }, true},
      {"min int vars", [=] { return TavMin(iv); }, false},  {"max int vars", [=] { return TavMax(iv); }, true},
  };
}
}  // namespace

// Class, value and integrality per builder are the family sweep's; here how
// often each element is read, and arrays of mixed elements.
TEST(MinMaxArrays, ReadCountsAndMixedElements) {
  TavEnv env;
  TavNumVar x(env, 0, 9), y(env, 0, 9), z(env, 0, 9);
  TavIntVar p(env, 0, 9), q(env, 0, 9), r(env, 0, 9);
  TavNumVarArray nv(env, 3, x, y, z);
  TavIntVarArray iv(env, 3, p, q, r);
  CountingAlgorithm alg(env.getImpl());
  alg.values = {{x.getImpl(), 3}, {y.getImpl(), 1}, {z.getImpl(), 2},
                {p.getImpl(), 3}, {q.getImpl(), 1}, {r.getImpl(), 2}};
  for (const ArrayBuilder& b : arrayBuilders(nv.toNumExprArray(), iv.toIntExprArray(), nv, iv)) {
    SCOPED_TRACE(b.what);
    alg.reads = 0;
    EXPECT_EQ(b.make().getImpl()->eval(TavAlgorithm(&alg)), b.max ? 3.0 : 1.0);
    EXPECT_EQ(alg.reads, 4) << "element 0 is read once more than the others";
  }
  TavNumExprArray mixed(env);
  mixed.add(p), mixed.add(q);
  EXPECT_TRUE(TavMin(mixed).getImpl()->isInteger()) << "every element integer";
  mixed.add(x);
  EXPECT_FALSE(TavMax(mixed).getImpl()->isInteger());
  alg.reads = 0;
  EXPECT_EQ(TavMax(TavNumVarArray(env, 1, y)).getImpl()->eval(TavAlgorithm(&alg)), 1.0);
  EXPECT_EQ(alg.reads, 1) << "a single element is read once";
  env.end();
}

TEST(MinMaxArrays, EmptyArraysFailOnlyWhenEvaluated) {
  TavEnv env;
  TavSolution sol(env);
  for (const ArrayBuilder& b :
       arrayBuilders(TavNumExprArray(env), TavIntExprArray(env), TavNumVarArray(env), TavIntVarArray(env))) {
    SCOPED_TRACE(b.what);
    TavNumExprArg e = b.make();
    ASSERT_NE(e.getImpl(), nullptr);
    EXPECT_TRUE(e.getImpl()->isInteger());
    EXPECT_EQ(messageOf<TavArrayError>([&] { e.getImpl()->eval(sol); }),
              b.max ? "Array of size 0 in evaluation of TavMax" : "Array of size 0 in evaluation of TavMin");
  }
  env.end();
}

TEST(MinMaxArrays, MixedEnvironmentsAreRejected) {
  TavEnv env, other;
  TavIntVar mine(env, 0, 1), stranger(other, 0, 1);
  TavIntVarArray iv(env, 2, mine, stranger);
  for (const ArrayBuilder& b : arrayBuilders(iv.toNumVarArray().toNumExprArray(), iv.toIntExprArray(),
                                             iv.toNumVarArray(), iv)) {
    SCOPED_TRACE(b.what);
    const TavInt live = env.getImpl()->getLiveObjectCount();
    EXPECT_EQ(messageOf<TavWrongUsage>(b.make),
              b.max ? "TavMax: mixing mismatch Environments" : "TavMin: mixing mismatch Environments");
    EXPECT_EQ(env.getImpl()->getLiveObjectCount(), live);
  }
  env.end();
  other.end();
}

TEST(MinMaxArrays, NumberArraysComputeAtOnce) {
  TavEnv env;
  TavIntArray ints(env, {3, 9, 9, -1});
  TavNumArray nums(env, {2.5, -1.5, 0});
  TavNumArray one(env);
  one.add(7);
  EXPECT_EQ(TavMax(ints), 9);
  EXPECT_EQ(TavMin(ints), -1);
  EXPECT_EQ(TavMax(nums), 2.5);
  EXPECT_EQ(TavMin(nums), -1.5);
  EXPECT_EQ(TavMin(one), 7.0);
  EXPECT_EQ(TavMin(TavNumArray(env, {1.0, std::nan("")})), 1.0) << "a not-a-number never replaces the running value";
  const std::vector<std::pair<std::string, std::function<void()>>> empty = {
      {"Array of size 0 in call to TavMin", [&] { TavMin(TavNumArray(env)); }},
      {"Array of size 0 in call to TavMax", [&] { TavMax(TavNumArray(env)); }},
      {"Array of size 0 in call to TavMin", [&] { TavMin(TavIntArray(env)); }},
      {"Array of size 0 in call to TavMax", [&] { TavMax(TavIntArray(env)); }},
  };
  for (const auto& c : empty) EXPECT_EQ(messageOf<TavArrayError>(c.second), c.first);
  env.end();
}

// The texts themselves are in the arithmetic tests.
TEST(MinMaxArrays, DisplayBreaksTheLineAfterEveryTenthElement) {
  TavEnv env;
  TavNumVarArray eleven(env, 11, 0, 1);
  std::string want = "max([";
  for (TavInt i = 0; i < 11; ++i) want += (i == 0 ? "" : i == 10 ? ",\n" : ", ") + show(eleven[i]);
  EXPECT_EQ(show(TavMax(eleven)), want + "])");
  env.end();
}

TEST(MinMaxArrays, CallersArrayStaysTheCallers) {
  TavEnv env;
  TavNumVar x(env, 0, 9);
  TavNumExpr a1 = TavMin(x, 1.0), a2 = TavMax(x, 2.0);
  TavNumExprArray arr(env);
  arr.add(a1), arr.add(a2);
  TavNumExprArg node = TavMin(arr);
  auto* n = dynamic_cast<TavNumMinArrayI*>(node.getImpl());
  ASSERT_NE(n, nullptr);
  EXPECT_NE(n->getOperands().getImpl(), arr.getImpl()) << "the node keeps a private copy";
  EXPECT_EQ(a1.getImpl()->getRefCount(), 2);
  EXPECT_EQ(a2.getImpl()->getRefCount(), 2);
  arr.add(x);
  EXPECT_EQ(n->getOperands().getSize(), 2);
  node.end();  // count 0 -> destroyed, with its copy
  EXPECT_EQ(a1.getImpl()->getRefCount(), 1);
  EXPECT_EQ(a2.getImpl()->getRefCount(), 1);
  ASSERT_EQ(arr.getSize(), 3);
  EXPECT_EQ(arr.getElement(0), a1.getImpl());
  arr.end();  // the caller frees its own array

  TavNumVarArray vars(env, 2, 0, 1);
  auto* vn = dynamic_cast<TavNumMaxArrayI*>(TavMax(vars).getImpl());
  ASSERT_NE(vn, nullptr);
  EXPECT_NE(vn->getOperands().getImpl(), vars.getImpl());
  env.end();
}
