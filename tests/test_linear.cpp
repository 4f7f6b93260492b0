// Expression handles and the linear nodes: counting, copy on write, in-place
// editing, normalisation, coefficient setting with its change records, bulk
// removal, display in both syntaxes, cloning, visiting and number text.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <sstream>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tavexpression.h"
#include "test_support.h"

namespace {

// "x:1 y:2" for a term list as it stands.
std::string termsOf(const TavNumLinExprTermI* t) {
  std::ostringstream os;
  for (; t; t = t->getNext()) os << (os.tellp() > 0 ? " " : "") << t->getVar()->getName() << ":" << t->getCoef();
  return os.str();
}
std::string termsOf(const TavExpr& e) { return termsOf(e.getImpl()->getFirstTerm()); }

int partCount(const TavNumLinTermI* n) {
  int k = 0;
  for (TavNumLinPartI* p = n->getFirstPart(); p; p = p->_next) ++k;
  return k;
}

using tavtest::CountingMutex;
using Refuser = tavtest::RefusingAlg;

const std::string kAdd = "TavNumLinTermAddVar", kRemove = "TavNumLinTermRemoveVar";

class Linear : public ::testing::Test {
 protected:
  void TearDown() override { env.end(); }
  TavEnvI* ei() const { return env.getImpl(); }
  TavExpr sum(std::initializer_list<std::pair<TavNumVar, double>> terms, double c = 0.0) {
    TavExpr e(env, c);
    for (auto& t : terms) e += t.second * t.first;
    return e;
  }
  TavEnv env;
  TavNumVar x{env, 0.0, 10.0, "x"}, y{env, 0.0, 10.0, "y"}, z{env, 0.0, 10.0, "z"}, w{env, 0.0, 10.0, "w"};
  TavIntVar n{env, 0, 10, "n"}, m{env, 0, 10, "m"};
};

// The values and terms of what each constructor makes are the fuzzer's;
// here the counts, and which node a handle takes.
TEST_F(Linear, HandleConstructionCountsReferences) {
  TavNumExpr a(env, 2.5);
  EXPECT_EQ(a.getImpl()->getRefCount(), 1);
  TavNumExpr b{TavNumExprArg(a.getImpl())};  // from an argument: +1
  EXPECT_EQ(a.getImpl()->getRefCount(), 2);
  TavNumExpr c(a.getImpl());  // from a bare node: untouched
  EXPECT_EQ(c.getImpl()->getRefCount(), 2);
  TavExpr le(env, 1.0);
  TavNumExpr d(le);  // from a TavExpr: untouched
  EXPECT_EQ(d.getImpl(), le.getImpl());
  EXPECT_EQ(le.getImpl()->getRefCount(), 1);

  TavNumExpr t(2.0 * x);
  EXPECT_EQ(t.getImpl()->getRefCount(), 1);
  TavNumExprArg tmp = 3.0 * x;
  EXPECT_EQ(tmp.getImpl()->getRefCount(), 0);
  TavIntExpr it(2 * n);
  EXPECT_EQ(it.getImpl()->getRefCount(), 1);

  // TavExpr from an argument: a temporary is taken, a counted node copied,
  // anything else converted to a linear node.
  TavExpr own(tmp);
  EXPECT_EQ(own.getImpl(), tmp.getImpl());
  EXPECT_EQ(own.getImpl()->getRefCount(), 1);
  TavExpr copied{TavNumExprArg(le.getImpl())};
  EXPECT_NE(copied.getImpl(), le.getImpl());
  EXPECT_EQ(le.getImpl()->getRefCount(), 1);
  TavNumExprArg prod = x * y;
  TavExpr wrapped(prod);
  EXPECT_EQ(partCount(wrapped.getImpl()), 1);
  EXPECT_EQ(wrapped.getImpl()->getFirstPart()->_expr, prod.getImpl());
  EXPECT_EQ(prod.getImpl()->getRefCount(), 1);
}

TEST_F(Linear, EmptyHandlesThrow) {
  std::vector<std::pair<const char*, std::function<void()>>> rows = {
      {"isConstant", [] { TavNumExprArg().isConstant(); }},
      {"isIndex", [] { TavNumExprArg().isIndex(); }},
      {"getNumConstant", [] { TavNumExprArg().getNumConstant(); }},
      {"normalize", [] { TavExpr().normalize(); }},
      {"isNormalized", [] { TavExpr().isNormalized(); }},
      {"setNumConstant", [] { TavExpr().setNumConstant(1.0); }},
      {"compound", [] { TavNumExpr e; e += 1.0; }},
      {"in place", [] { TavExpr e; e += 1.0; }},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.first);
    EXPECT_THROW(r.second(), TavEmptyHandleException);
  }
}

TEST_F(Linear, MismatchedEnvironmentsLeaveTheHandleUnchanged) {
  TavEnv other;
  TavNumVar x2(other, 0.0, 1.0, "x2");
  TavIntVar n2(other, 0, 1, "n2");
  const std::string tail = " : mixing mismatch Environments";
  std::vector<std::pair<std::string, std::function<void(TavExpr&)>>> rows = {
      {"TavExpr& TavNumExpr::operator += const TavNumExprArg arg", [&](TavExpr& e) { e += TavNumExprArg(x2); }},
      {"TavExpr& TavNumExpr::operator += const TavNumVar arg", [&](TavExpr& e) { e += x2; }},
      {"TavExpr& TavNumExpr::operator += const TavIntVar arg", [&](TavExpr& e) { e += n2; }},
      {"TavExpr& TavExpr::operator += const TavNumLinExprTerm term", [&](TavExpr& e) { e += 2.0 * x2; }},
      {"TavExpr& TavExpr::operator += const TavIntLinExprTerm arg", [&](TavExpr& e) { e += 2 * n2; }},
      {"TavExpr& TavExpr::operator -= const TavNumExprArg arg", [&](TavExpr& e) { e -= TavNumExprArg(x2); }},
      {"TavExpr& TavExpr::operator -= const TavNumVar arg", [&](TavExpr& e) { e -= x2; }},
      {"TavExpr& TavExpr::operator -= const TavIntVar arg", [&](TavExpr& e) { e -= n2; }},
      {"TavExpr& TavExpr::operator -= const TavNumLinExprTerm arg", [&](TavExpr& e) { e -= 2.0 * x2; }},
      {"TavExpr& TavExpr::operator -= const TavIntLinExprTerm arg", [&](TavExpr& e) { e -= 2 * n2; }},
      {"TavNumExpr& TavNumExpr::operator += const TavNumExprArg arg",
       [&](TavExpr& e) { static_cast<TavNumExpr&>(e) += TavNumExprArg(x2); }},
      {"TavNumExpr& TavNumExpr::operator -= const TavNumExprArg arg",
       [&](TavExpr& e) { static_cast<TavNumExpr&>(e) -= TavNumExprArg(x2); }},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.first);
    TavExpr e = sum({{x, 2.0}}, 1.0);
    TavNumLinTermI* before = e.getImpl();
    EXPECT_EQ(messageOf<TavWrongUsage>([&] { r.second(e); }), r.first + tail);
    EXPECT_EQ(e.getImpl(), before);
    EXPECT_EQ(before->getRefCount(), 1);
    EXPECT_EQ(show(e), "2 * x  + 1 ");
  }
  other.end();
}

// In-place edits of a TavExpr applied to x + 1 while a second counted
// handle shares the node: the edit must copy first. Numbers, variables and
// term handles on a shared node are the fuzzer's; here the edits that merge
// another node, and three that share the copy-on-write step with them.
TEST_F(Linear, InPlaceEditsCopyASharedNode) {
  struct Row {
    const char* name;
    std::function<void(TavExpr&)> op;
    const char* terms;
    double constant;
    int parts;
  };
  std::vector<Row> rows = {
      {"+= term", [&](TavExpr& e) { e += 3.0 * y; }, "x:1 y:3", 1.0, 0},
      {"+= var arg", [&](TavExpr& e) { e += TavNumExprArg(y); }, "x:1 y:1", 1.0, 0},
      {"-= var arg", [&](TavExpr& e) { e -= TavNumExprArg(y); }, "x:1 y:-1", 1.0, 0},
      {"+= linear", [&](TavExpr& e) { e += y + 2.0; }, "x:1 y:1", 3.0, 0},
      {"-= linear", [&](TavExpr& e) { e -= y + 2.0; }, "x:1 y:-1", -1.0, 0},
      {"+= int linear", [&](TavExpr& e) { e += TavIntExprArg(n + 2); }, "x:1 n:1", 3.0, 0},
      {"-= int linear", [&](TavExpr& e) { e -= TavIntExprArg(n + 2); }, "x:1 n:-1", -1.0, 0},
      {"+= itself", [](TavExpr& e) { e += e; }, "x:1 x:1", 2.0, 0},
      {"+= non-linear", [&](TavExpr& e) { e += x * y; }, "x:1", 1.0, 1},
      {"-= non-linear", [&](TavExpr& e) { e -= x * y; }, "x:1", 1.0, 1},
      {"clear", [](TavExpr& e) { e.clear(); }, "", 0.0, 0},
      {"setNumConstant", [](TavExpr& e) { e.setNumConstant(7.0); }, "x:1", 7.0, 0},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TavExpr e = sum({{x, 1.0}}, 1.0);
    TavNumExpr shared{TavNumExprArg(e.getImpl())};
    r.op(e);
    EXPECT_NE(e.getImpl(), shared.getImpl());
    EXPECT_EQ(termsOf(e), r.terms);
    EXPECT_EQ(e.getImpl()->getConstant(), r.constant);
    EXPECT_EQ(partCount(e.getImpl()), r.parts);
    EXPECT_EQ(e.getImpl()->getRefCount(), 1);
    EXPECT_EQ(shared.getImpl()->getRefCount(), 1);
    EXPECT_EQ(show(shared), "x  + 1 ");
  }
}

TEST_F(Linear, ConstantPartOfNonLinearExpressions) {
  TavExpr wrapped(x * y);
  TavNumExpr shared{TavNumExprArg(wrapped.getImpl())};
  TavNumLinTermI* node = wrapped.getImpl();
  try {
    wrapped.setNumConstant(5.0);
    ADD_FAILURE() << "no exception";
  } catch (const TavNumExpr::NonLinearExpression& ex) {
    EXPECT_STREQ(ex.getMessage(), "Constant part cannot be set or queried");
    EXPECT_EQ(ex.getExpression(), node);
    std::ostringstream os;
    ex.print(os);
    EXPECT_EQ(os.str(), "Expression " + showNode(node) + " is non linear, setting or querying the constant part is forbidden");
  }
  EXPECT_EQ(wrapped.getImpl(), node);  // the test precedes the copy on write
  EXPECT_EQ(node->getRefCount(), 2);
  EXPECT_EQ(node->getConstant(), 0.0);
  std::ostringstream os;
  TavNumExprNonLinearExpression(nullptr).print(os);
  EXPECT_EQ(os.str(), "Expression  is non linear, setting or querying the constant part is forbidden");

  EXPECT_THROW(TavNumExprArg(x).getNumConstant(), TavNumExpr::NonLinearExpression);
  EXPECT_THROW(TavNumExprArg(x * y).getNumConstant(), TavNumExpr::NonLinearExpression);
  EXPECT_EQ(TavIntExpr(env, 4).getNumConstant(), 4.0);
  // isConstant looks at the terms as they stand.
  TavExpr d(2.0 * x - 2.0 * x);
  EXPECT_FALSE(d.isConstant());
  EXPECT_FALSE(d.normalize());  // one merge
  EXPECT_TRUE(d.isConstant());
  EXPECT_FALSE(TavNumExprArg(x).isConstant());
  EXPECT_FALSE(wrapped.isConstant());
  EXPECT_FALSE(d.isIndex());
  EXPECT_TRUE(d.getImpl()->isLinear());
  EXPECT_FALSE(wrapped.getImpl()->isLinear());
}

TEST_F(Linear, LinearIteratorReadsTermsAsTheyStand) {
  TavExpr e = sum({{x, 1.0}, {y, 2.0}, {x, 3.0}});
  std::vector<std::pair<TavNumVarI*, double>> seen;
  for (TavExpr::LinearIterator it = e.getLinearIterator(); it.ok(); ++it)
    seen.emplace_back(it.getVar().getImpl(), it.getCoef());
  std::vector<std::pair<TavNumVarI*, double>> want = {{x.getImpl(), 1.0}, {y.getImpl(), 2.0}, {x.getImpl(), 3.0}};
  EXPECT_EQ(seen, want);
  EXPECT_FALSE(TavExpr(env).getLinearIterator().ok());
}

TEST_F(Linear, ConvertNumberToText) {
  struct Row {
    double x;
    int precision;
    const char* text;
  };
  const double third = 1.0 / 3.0;
  std::vector<Row> rows = {
      {0.1, 6, "0.1"},         {1e15, 6, "1e+15"},     {-2.5, 6, "2.5"},      {1.5e20, 6, "1.5e+20"},
      {1e-7, 6, "1e-7"},       {1.5, 6, "1.5"},        {2.0, 6, "2"},         {0.0, 6, "0"},
      {1.5e-3, 6, "0.0015"},   {1e-3, 6, "0.001"},     {1e-6, 6, "0.000001"}, {123.45, 6, "123.45"},
      {1200.0, 6, "1200"},     {123456.0, 5, "123456"}, {99.99, 2, "100"},    {123.45, 0, "1.2e+2"},
      {123.45, -5, "1.2e+2"},  {third, -1, "0.333333333333333"}, {third, 20, "0.333333333333333"},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.x) + " / " + std::to_string(r.precision));
    char out[64];
    int status = 99;
    int len = convertTavNum(out, r.x, r.precision, &status);
    EXPECT_STREQ(out, r.text);
    EXPECT_EQ(len, (int)std::strlen(r.text));
    EXPECT_EQ(status, 0);
  }
  for (double bad : {TavGetInfinity(), -TavGetInfinity(), std::nan("")}) {
    char out[64];
    int status = 0;
    EXPECT_EQ(convertTavNum(out, bad, 6, &status), 1);
    EXPECT_STREQ(out, "?");
    EXPECT_EQ(status, -1);
  }
  for (auto p : std::vector<std::pair<double, bool>>{{2.0, true}, {-3.0, true}, {0.0, true}, {1e300, true},
                                                     {2.5, false}, {-0.1, false}})
    EXPECT_EQ(TavNumIsInteger(p.first), p.second) << p.first;
}

// Normalisation in every way the marks may be kept.
TEST_F(Linear, NormalizeKeepsLastOccurrencesAndCountsMerges) {
  struct Row {
    std::vector<std::pair<TavNumVar, double>> in;
    const char* out;
    TavInt merges;
  };
  std::vector<Row> rows = {
      {{{x, 1}, {y, 2}, {x, 3}}, "y:2 x:4", 1},
      {{{x, 1}, {x, -1}}, "", 1},
      {{{x, 1}, {y, 1}, {x, 1}, {y, 1}, {z, 1}}, "x:2 y:2 z:1", 2},
      {{{x, 1}, {y, 0}, {z, 1}}, "x:1 z:1", 0},
      {{{x, 1}, {y, 1}, {x, -1}}, "y:1", 1},
      {{{x, 1}, {x, 2}, {x, 3}}, "x:6", 2},
  };
  CountingMutex lock;
  for (int mode = 0; mode < 3; ++mode) {
    ei()->setMarkArraysAvailable(mode == 0);
    ei()->setMarkLock(mode == 2 ? &lock : nullptr);
    for (auto& r : rows) {
      SCOPED_TRACE(std::to_string(mode) + ": " + r.out);
      TavExpr e(env);
      for (auto& t : r.in) e += t.second * t.first;
      EXPECT_FALSE(e.getImpl()->isNormalized());
      EXPECT_EQ(e.getImpl()->normalize(), r.merges);
      EXPECT_EQ(termsOf(e), r.out);
      EXPECT_TRUE(e.getImpl()->isNormalized());
      e += w;  // the tail was kept right
      EXPECT_EQ(termsOf(e), std::string(r.out) + (*r.out ? " " : "") + "w:1");
    }
  }
  EXPECT_GT(lock.locks, 0);
  EXPECT_EQ(lock.locks, lock.unlocks);
  ei()->setMarkLock(nullptr);
  ei()->setMarkArraysAvailable(true);

  TavExpr e = sum({{x, 1}, {x, 1}});
  EXPECT_TRUE(e.isNormalized());  // answers true at once while normalisation runs
  EXPECT_FALSE(e.normalize());
  EXPECT_TRUE(e.normalize());  // already normalised: nothing merged
  ei()->setNormalizationSkipped(true);
  TavExpr s = sum({{x, 1}, {x, 1}});
  EXPECT_EQ(s.getImpl()->normalize(), 0);
  EXPECT_EQ(termsOf(s), "x:1 x:1");
  EXPECT_TRUE(s.isNormalized());
  ei()->setNormalizationSkipped(false);
}

TEST_F(Linear, SetCoefSingleAndBulkSendDifferentRecords) {
  RecordingAlg rec(ei());
  struct Row {
    const char* name;
    std::vector<std::pair<TavNumVar, double>> in;
    TavNumVar var;
    double coef, ret;
    std::vector<std::string> records;
    const char* out;
  };
  std::vector<Row> single = {
      {"change", {{x, 3}, {y, 1}}, x, 5, 3, {kRemove}, "x:5 y:1"},
      {"add", {{x, 3}, {y, 1}}, z, 5, 0, {kAdd}, "x:3 y:1 z:5"},
      {"absent zero", {{x, 3}, {y, 1}}, z, 0, 0, {}, "x:3 y:1"},
      {"drop tail", {{x, 3}, {y, 1}}, y, 0, 1, {kRemove}, "x:3"},
      {"drop head", {{x, 3}, {y, 1}}, x, 0, 3, {kRemove}, "y:1"},
      {"normalised first", {{x, 1}, {y, 1}, {x, 2}}, x, 1, 3, {kRemove}, "y:1 x:1"},
  };
  for (auto& r : single) {
    SCOPED_TRACE(r.name);
    TavExpr e(env);
    for (auto& t : r.in) e += t.second * t.first;
    rec.names.clear();
    EXPECT_EQ(e.getImpl()->setCoef(r.var.getImpl(), r.coef), r.ret);
    EXPECT_EQ(rec.names, r.records);
    EXPECT_TRUE(e.getImpl()->isNormalized());
    e += w;
    EXPECT_EQ(termsOf(e), std::string(r.out) + (*r.out ? " " : "") + "w:1");
  }
  // A zero term left by skipped normalisation is replaced silently.
  ei()->setNormalizationSkipped(true);
  TavExpr k = sum({{x, 0}});
  rec.names.clear();
  EXPECT_EQ(k.getImpl()->setCoef(x.getImpl(), 5), 0.0);
  EXPECT_TRUE(rec.names.empty());
  EXPECT_EQ(termsOf(k), "x:5");
  ei()->setNormalizationSkipped(false);

  struct Bulk {
    const char* name;
    std::vector<TavNumVar> vars;
    std::vector<double> coefs, previous;
    std::vector<std::string> records;
    const char* out;
  };
  std::vector<Bulk> bulk = {
      {"change", {x}, {5}, {3}, {}, "x:5 y:1"},
      {"to zero", {x}, {0}, {3}, {kRemove}, "x:0 y:1"},
      {"add", {z}, {2}, {0}, {kAdd}, "x:3 y:1 z:2"},
      {"absent zero", {z}, {0}, {0}, {}, "x:3 y:1"},
      {"absent twice", {z, z}, {2, 4}, {0, 0}, {kAdd, kAdd}, "x:3 y:1 z:2 z:4"},
      {"zero then back", {x, x}, {0, 7}, {3, 0}, {kRemove, kAdd}, "x:7 y:1"},
      {"unchanged", {y, x}, {1, 3}, {1, 3}, {}, "x:3 y:1"},
  };
  CountingMutex lock;
  ei()->setMarkLock(&lock);
  for (auto& r : bulk) {
    SCOPED_TRACE(r.name);
    TavExpr e = sum({{x, 3}, {y, 1}});
    TavNumVarArray vars(env);
    TavNumArray coefs(env), previous(env);
    for (std::size_t i = 0; i < r.vars.size(); ++i) {
      vars.add(r.vars[i]);
      coefs.add(r.coefs[i]);
      previous.add(-1.0);
    }
    rec.names.clear();
    e.getImpl()->setCoef(vars, coefs, previous);
    EXPECT_EQ(rec.names, r.records);
    for (std::size_t i = 0; i < r.previous.size(); ++i) EXPECT_EQ(previous[(TavInt)i], r.previous[i]) << i;
    e += w;
    EXPECT_EQ(termsOf(e), std::string(r.out) + " w:1");
  }
  EXPECT_EQ(lock.locks, lock.unlocks);
  EXPECT_GT(lock.locks, 0);
  {  // a failing delivery still releases the lock; the handle form passes no previous array
    Refuser refuser(ei());
    TavExpr e = sum({{x, 3}});
    EXPECT_THROW(e.setLinearCoefs(TavNumVarArray(env, 1, x), TavNumArray(env, {0.0})), TavWrongUsage);
    EXPECT_EQ(lock.locks, lock.unlocks);
    EXPECT_EQ(termsOf(e), "x:0");
  }
  ei()->setMarkLock(nullptr);
  TavExpr e = sum({{x, 1}, {x, 1}});
  e.getImpl()->setCoef(TavNumVarArray(env), TavNumArray(env), TavNumArray());
  EXPECT_EQ(termsOf(e), "x:2");
  EXPECT_TRUE(e.getImpl()->isNormalized());
  rec.names.clear();
  e.setLinearCoef(x, 4.0);
  EXPECT_EQ(rec.names, std::vector<std::string>{kRemove});
  EXPECT_EQ(termsOf(e), "x:4");
}

TEST_F(Linear, BulkRemovalStopsAtTheCountAndDropsTheTailPointer) {
  auto array = [&](std::vector<TavExtractableI*> objs) {
    TavExtractableArray a(env);
    for (auto* o : objs) a.addObject(o);
    return a;
  };
  // The count of the array bounds the sweep: one x goes, the second stays.
  TavExpr e = sum({{x, 1}, {y, 1}, {x, 2}});
  e.remove(array({x.getImpl()}));
  EXPECT_EQ(termsOf(e), "y:1 x:2");
  EXPECT_FALSE(ei()->isRemoved(x.getImpl()));  // identifier table restored
  // A null element still counts.
  TavExpr f = sum({{x, 1}, {y, 1}, {x, 2}});
  f.remove(array({nullptr, x.getImpl()}));
  EXPECT_EQ(termsOf(f), "y:1");
  // Parts go first, then terms.
  TavExpr g = sum({{x, 1}});
  TavNumExprArg prod = y * z;
  g += prod;
  g.remove(array({prod.getImpl(), x.getImpl()}));
  EXPECT_EQ(partCount(g.getImpl()), 0);
  EXPECT_EQ(termsOf(g), "");
  // Dropping the tail leaves the tail pointer null: a later prepend then
  // sees an empty list.
  TavExpr t = sum({{x, 1}, {y, 1}, {z, 1}});
  t.remove(TavNumVarArray(env, 1, z));
  EXPECT_EQ(termsOf(t), "x:1 y:1");
  EXPECT_EQ(t.getImpl()->getLastTerm(), nullptr);
  t.getImpl()->prepend(ei()->newTerm(w.getImpl(), 1.0));
  EXPECT_EQ(termsOf(t), "w:1");
  EXPECT_EQ(t.getImpl()->getLastTerm(), t.getImpl()->getFirstTerm());
  // A middle term keeps the tail.
  TavExpr mid = sum({{x, 1}, {y, 1}, {z, 1}});
  mid.remove(array({y.getImpl()}));
  mid += w;
  EXPECT_EQ(termsOf(mid), "x:1 z:1 w:1");
}

// Texts of part-less nodes, zero terms and constants included, are the
// fuzzer's (against its own printer); here nodes with parts.
TEST_F(Linear, DisplayInBothSyntaxes) {
  auto part = [&] {
    TavExpr p = sum({{y, 1}}, 1.0);
    return p.getImpl();
  };
  struct Row {
    const char* name;
    std::function<TavExpr()> build;
    const char* plain;
    const char* library;
  };
  std::vector<Row> rows = {
      {"part", [&] {
         TavExpr e = sum({{x, 1}}, 2.0);
         e.getImpl()->append(static_cast<TavNumExprI*>(part()));
         return e;
       },
       "x  + y  + 1  + 2 ", "( x  + ( y  + 1 )  + 2 ) "},
      {"zero term then parts", [&] {
         TavExpr e = sum({{x, 0}});
         e.getImpl()->append(static_cast<TavNumExprI*>(part()));
         e.getImpl()->append(static_cast<TavNumExprI*>(part()));
         return e;
       },
       "y  + 1  + y  + 1 ", "( 0  + ( y  + 1 )  + ( y  + 1 ) ) "},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TavExpr e = r.build();
    ei()->setLibrarySyntaxDisplay(false);
    EXPECT_EQ(show(e), r.plain);
    ei()->setLibrarySyntaxDisplay(true);
    EXPECT_EQ(show(e), r.library);
  }
  ei()->setLibrarySyntaxDisplay(false);
  // Numbers follow the stream's own settings.
  std::ostringstream os;
  os.precision(3);
  os << sum({{x, 1.23456}});
  EXPECT_EQ(os.str(), "1.23 * x ");
}

TEST_F(Linear, EvalVisitCloneAndCopy) {
  TavSolution sol(env);
  sol.setValue(x, 1.0);
  sol.setValue(y, 1.0);
  sol.setValue(z, 2.0);
  EXPECT_EQ(sol.getValue(TavExpr(env, 4.5)), 4.5);
  // The constant is added last: 1e16 + (1 + 1) is exact, (1e16 + 1) + 1 is not.
  EXPECT_EQ(sol.getValue(sum({{x, 1}, {y, 1}}, 1e16)), 1e16 + 2.0);

  TavExpr e = sum({{x, 2}, {y, 0}, {z, 1}}, 3.0);
  TavExpr p = sum({{w, 1}});
  e.getImpl()->append(static_cast<TavNumExprI*>(p.getImpl()));
  EXPECT_EQ(p.getImpl()->getRefCount(), 2);
  std::vector<const TavExtractableI*> want = {e.getImpl(), p.getImpl(), x.getImpl(), z.getImpl(), e.getImpl()};
  EXPECT_EQ(tavtest::visitOf(e.getImpl()), want);

  // Zero terms are not visited, so y has no clone: its term is left out.
  TavEnv other;
  auto* clone = static_cast<TavNumLinTermI*>(ei()->cloneInto(e.getImpl(), other.getImpl()));
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->getEnv(), other.getImpl());
  EXPECT_EQ(showNode(clone), show(e));
  EXPECT_EQ(termsOf(clone->getFirstTerm()), "x:2 z:1");
  EXPECT_EQ(clone->getFirstTerm()->_var->getEnv(), other.getImpl());
  EXPECT_EQ(partCount(clone), 1);
  EXPECT_NE(clone->getFirstPart()->_expr, p.getImpl());
  EXPECT_EQ(TavNumExpr(e).getClone().getImpl(), clone);
  EXPECT_EQ(TavNumExpr(e).getClone(other).getImpl(), clone);
  ei()->clearCloneMap();
  TavNumExpr(e).setClone(TavNumExpr(p));
  EXPECT_EQ(TavNumExpr(e).getClone().getImpl(), p.getImpl());
  TavNumExpr(e).setClone(TavNumExpr(p), other);
  EXPECT_EQ(TavNumExpr(e).getClone(other).getImpl(), p.getImpl());
  other.end();

  // copy(): same terms in order, parts shared, not normalised.
  e.getImpl()->normalize();
  auto* c = static_cast<TavNumLinTermI*>(e.getImpl()->copy());
  EXPECT_EQ(termsOf(c->getFirstTerm()), "x:2 z:1");
  EXPECT_EQ(c->getFirstPart()->_expr, p.getImpl());
  EXPECT_EQ(p.getImpl()->getRefCount(), 3);
  EXPECT_FALSE(c->isNormalized());
  // Merging an uncounted node ends it.
  TavInt live = ei()->getLiveObjectCount();
  e.getImpl()->append(c);
  EXPECT_EQ(ei()->getLiveObjectCount(), live - 1);
  EXPECT_EQ(termsOf(e), "x:2 z:1 x:2 z:1");
  EXPECT_EQ(e.getImpl()->getConstant(), 6.0);
  EXPECT_EQ(partCount(e.getImpl()), 2);
  EXPECT_FALSE(e.getImpl()->isNormalized());
  // multiply rebuilds the parts and releases the old ones.
  e.getImpl()->multiply(2.0);
  EXPECT_EQ(termsOf(e), "x:4 z:2 x:4 z:2");
  EXPECT_EQ(p.getImpl()->getRefCount(), 1);
}

TEST_F(Linear, IsIntegerAndChangeRecords) {
  TavNumVar b(env, 0.0, 1.0, TavNumVar::Bool, "b");
  struct Row {
    const char* name;
    std::function<TavExpr()> build;
    bool integer;
  };
  std::vector<Row> rows = {
      {"int terms", [&] { return sum({{n, 2}, {b, -3}}, 4.0); }, true},
      {"float var", [&] { return sum({{n, 2}, {x, 1}}); }, false},
      {"fractional coef", [&] { return sum({{n, 2.5}}); }, false},
      {"fractional constant", [&] { return sum({{n, 1}}, 0.5); }, false},
      {"int part", [&] { TavExpr e = sum({{n, 1}}); e += n * m; return e; }, true},
      {"float part", [&] { TavExpr e = sum({{n, 1}}); e += x * y; return e; }, false},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(r.build().getImpl()->isInteger(), r.integer);
  }
  TavExpr e = sum({{x, 1}});
  struct Seen : TavChangeVisitor {
    std::vector<const TavExtractableI*> seen;
    void visitChild(TavExtractableI* p, TavExtractableI* c) override { seen = {p, c}; }
  };
  TavNumLinTermAddVar add(e.getImpl(), y.getImpl());
  TavNumLinTermRemoveVar rem(e.getImpl(), y.getImpl());
  for (const TavChange* c : {static_cast<const TavChange*>(&add), static_cast<const TavChange*>(&rem)}) {
    Seen v;
    c->visitChange(ei(), e.getImpl(), &v);
    EXPECT_EQ(v.seen, (std::vector<const TavExtractableI*>{e.getImpl(), y.getImpl()}));
    EXPECT_THROW(c->applyToCP(TavAlgorithm(), nullptr), TavAlgorithm::CannotChangeException);
  }
}

TEST_F(Linear, IntegerLinearNode) {
  TavIntExpr k = 2 * n + 3;
  auto* in = static_cast<TavIntLinTermI*>(k.getImpl());
  EXPECT_EQ(in->getNumConstant(), 3.0);
  EXPECT_TRUE(in->isInteger());

  TavNumLinTermI* num = in->toNumLinTermI();
  EXPECT_STREQ(num->getRttiTypeName(), "TavNumLinTermI");
  EXPECT_EQ(num->getConstant(), 3.0);
  EXPECT_EQ(termsOf(num->getFirstTerm()), "n:2");
  EXPECT_NE(num->getFirstTerm(), in->getFirstTerm());
  EXPECT_EQ(termsOf(in->getFirstTerm()), "n:2");
  EXPECT_EQ(in->getConstant(), 3);

  auto* dup = static_cast<TavIntLinTermI*>(in->intCopy());
  EXPECT_NE(dup, in);
  EXPECT_EQ(showNode(dup), "2 * n  + 3 ");
  EXPECT_EQ(in->toIntLinTermI(), in);

  // Wrapping a non-linear integer node files it as the one part.
  TavIntExprArg prod = n * m;
  TavIntLinTermI* wrap = prod.getImpl()->toIntLinTermI();
  EXPECT_EQ(wrap->getFirstPart()->_expr, prod.getImpl());
  EXPECT_EQ(prod.getImpl()->getRefCount(), 1);
  EXPECT_EQ(wrap->getConstant(), 0);
  TavIntLinTermI* ofVar = n.getImpl()->toIntLinTermI();
  EXPECT_EQ(termsOf(ofVar->getFirstTerm()), "n:1");

  // The constant goes last, as a double: 2^53 + (1 + 1) is exact.
  TavSolution sol(env);
  sol.setValue(n, 1.0);
  sol.setValue(m, 1.0);
  TavIntExpr big(env, 9007199254740992L);
  big += n;
  big += m;
  EXPECT_EQ(sol.getValue(big), 9007199254740994.0);

  dup->multiply(0);
  EXPECT_EQ(termsOf(dup->getFirstTerm()), "n:0");
  EXPECT_EQ(showNode(dup), "0 ");

  TavIntLinTermRemoveVar rv(in, m.getImpl());
  EXPECT_THROW(rv.applyToCP(TavAlgorithm(), nullptr), TavAlgorithm::CannotChangeException);
}

// The sums over variable arrays chain their cells a block at a time: arrays
// of more than one block, with different block sizes, keep every position.
TEST_F(Linear, ArraySumsKeepEveryPositionAcrossBlocks) {
  const TavInt count = 5000;  // two blocks of the coefficients, many of the variables
  TavNumVarArray xs(env);  // grown one at a time: small blocks
  TavIntVarArray is(env);
  TavNumArray cs(env, count);
  TavIntArray ks(env, count);
  for (TavInt k = 0; k < count; ++k)
    cs[k] = 0.5 + (double)k, ks[k] = k - 7, xs.add(TavNumVar(env, 0.0, 1.0)), is.add(TavIntVar(env, 0, 1));
  ASSERT_NE(cs.getImpl()->getBlockShift(), xs.getImpl()->getBlockShift());
  typedef std::function<std::pair<TavNumVarI*, double>(TavInt)> Want;
  const Want numCoef = [&](TavInt k) { return std::pair<TavNumVarI*, double>(xs.getElement(k), cs[k]); };
  const Want intCoef = [&](TavInt k) { return std::pair<TavNumVarI*, double>(is.getElement(k), (double)ks[k]); };
  const Want numOne = [&](TavInt k) { return std::pair<TavNumVarI*, double>(xs.getElement(k), 1.0); };
  const Want intOne = [&](TavInt k) { return std::pair<TavNumVarI*, double>(is.getElement(k), 1.0); };
  const std::vector<std::tuple<const char*, TavNumExprArg, Want>> rows = {
      {"numbers, variables", TavScalProd(cs, xs), numCoef},
      {"variables, numbers", TavScalProd(xs, cs), numCoef},
      {"integers, integer variables", TavScalProd(ks, is), intCoef},
      {"sum of variables", TavSum(xs), numOne},
      {"sum of integer variables", TavSum(is), intOne},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::get<0>(row));
    TavNumExprI* node = std::get<1>(row).getImpl();
    const bool integral = node->getLinKind() == TavNumExprI::LinKind::Int;
    const TavNumLinExprTermI* first = integral ? static_cast<TavIntLinTermI*>(node)->getFirstTerm()
                                               : static_cast<TavNumLinTermI*>(node)->getFirstTerm();
    const TavNumLinExprTermI* last = integral ? static_cast<TavIntLinTermI*>(node)->getLastTerm()
                                              : static_cast<TavNumLinTermI*>(node)->getLastTerm();
    TavInt k = 0;
    const TavNumLinExprTermI* seen = nullptr;
    for (const TavNumLinExprTermI* t = first; t; t = t->_next, ++k) {
      const auto want = std::get<2>(row)(k);
      ASSERT_EQ(t->_var, want.first) << k;
      ASSERT_EQ(t->_coef, want.second) << k;
      seen = t;
    }
    EXPECT_EQ(k, count);
    EXPECT_EQ(last, seen);
    EXPECT_EQ(node->getRefCount(), 0);
    std::get<1>(row).getImpl()->end();
  }
  EXPECT_EQ(ei()->getLiveTermCount(), 0);
}

// A bad variable is reported as it was when every element went through its
// own compound assignment (TavSum: the first failure in array order wins) or
// when every variable was checked before the node was made (TavScalProd: the
// variable wins over a failed allocation). Nothing stays behind.
TEST_F(Linear, ArraySumsReportABadVariableWithTheirOwnPrecedence) {
  TavEnv other;
  TavNumVar stranger(other, 0.0, 1.0);
  TavIntVar intStranger(other, 0, 1);
  TavNumVarArray xs(env, 3, x, y, stranger);
  TavIntVarArray is(env, 3, n, m, intStranger);
  TavNumVarArray holes(env);
  holes.add(x), holes.add(y), holes.add(TavNumVar());
  TavNumArray cs(env, {1.0, 2.0, 3.0});
  const char* scal = "TavScalProd: mixing mismatch environments";
  const char* numSum = "TavExpr& TavNumExpr::operator += const TavNumVar arg : mixing mismatch Environments";
  const char* intSum = "TavIntExprArg operator + const TavIntExprArg const TavIntExprArg: mixing mismatch Environments";
  const char* empty = "<empty>";
  const char* memory = "<memory>";
  struct FailRow {
    const char* label;
    std::function<void()> call;
    std::vector<const char*> outcome;  // without a failure, then failing the k-th allocation (k = 1, 2, ...)
  };
  const std::vector<FailRow> rows = {
      {"TavScalProd", [&] { TavScalProd(cs, xs); }, {scal, scal, scal, scal, scal}},
      {"TavScalProd, empty element", [&] { TavScalProd(cs, holes); }, {empty, empty, empty, empty}},
      {"TavSum", [&] { TavSum(xs); }, {numSum, memory, memory, memory, numSum}},
      {"TavSum, integer variables", [&] { TavSum(is); }, {intSum, memory, memory, memory, intSum}},
      {"TavSum, empty element", [&] { TavSum(holes); }, {empty, memory, memory, memory, empty}},
  };
  for (const FailRow& row : rows) {
    for (std::size_t k = 0; k < row.outcome.size(); ++k) {
      SCOPED_TRACE(std::string(row.label) + ", failing allocation " + std::to_string(k));
      const TavInt objects = ei()->getLiveObjectCount(), terms = ei()->getLiveTermCount();
      ei()->getMemory().failAfter((TavInt)k);
      std::string got;
      try {
        row.call();
        got = "<no throw>";
      } catch (const TavEmptyHandleException&) {
        got = empty;
      } catch (const TavException& e) {
        got = e.getMessage();
      } catch (const std::bad_alloc&) {
        got = memory;
      }
      ei()->getMemory().failAfter(0);
      EXPECT_EQ(got, row.outcome[k]);
      EXPECT_EQ(ei()->getLiveObjectCount(), objects);
      EXPECT_EQ(ei()->getLiveTermCount(), terms);
    }
  }
  other.end();
}

}  // namespace
