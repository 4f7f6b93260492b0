// Decision variables: domain choice by the two bound rules, copy on write of
// shared domains, the modifiers and their change records, evaluation with the
// model-evaluator fallback, display, cloning, the integer and Boolean handles
// and every failure message.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

std::string inf() { return show(TavGetInfinity()); }

template <class A>
std::vector<double> valuesOf(const A& a) {
  std::vector<double> v;
  if (a.getImpl())
    for (TavInt i = 0; i < a.getSize(); ++i) v.push_back((double)a[i]);
  return v;
}

// What one change record carried, copied while it was alive.
struct Seen {
  std::string name;
  TavNumVarI* var = nullptr;
  double lb = 0, ub = 0;
  TavArrayI* nums = nullptr;
  TavArrayI* ints = nullptr;
  std::vector<double> values;
};

struct Recorder : TavAlgorithmI {
  explicit Recorder(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI*) const override { throw TavAlgorithm::Exception("no value"); }
  void notifyChange(const TavChange& c) override {
    Seen s;
    s.name = c.getRttiTypeName();
    if (auto* b = dynamic_cast<const TavSetNumVarBounds*>(&c)) {
      s.var = b->getVar().getImpl();
      s.lb = b->getLB();
      s.ub = b->getUB();
    } else if (auto* p = dynamic_cast<const TavSetNumVarPossibleValues*>(&c)) {
      s.var = p->getVar().getImpl();
      s.nums = p->getNumValues().getImpl();
      s.ints = p->getIntValues().getImpl();
      s.values = s.nums ? valuesOf(p->getNumValues()) : valuesOf(p->getIntValues());
    }
    seen.push_back(s);
  }
  std::vector<Seen> seen;
};

// Counts the calls that reach an overriding setter.
struct SpyVarI : TavNumVarI {
  using TavNumVarI::TavNumVarI;
  void setLB(double lb) override {
    ++calls;
    TavNumVarI::setLB(lb);
  }
  void setUB(double ub) override {
    ++calls;
    TavNumVarI::setUB(ub);
  }
  void setBounds(double lb, double ub) override {
    ++calls;
    TavNumVarI::setBounds(lb, ub);
  }
  int calls = 0;
};

/// Runs build with the k-th allocation failing, k = 1, 2, ..., until it
/// returns; each failure must leave the live objects, what same() checks and
/// (unless the call may add a shared domain to the environment's cache) the
/// live bytes as they were. Returns the number of failures.
int failUntilDone(TavEnvI* env, const std::function<void()>& build, bool sameBytes = true,
                  const std::function<bool()>& same = [] { return true; }) {
  const TavInt objects = env->getLiveObjectCount();
  const std::size_t bytes = env->getMemory().getLiveBytes();
  return tavtest::sweepFailures(env, build, [&](TavInt k) {
    EXPECT_EQ(env->getLiveObjectCount(), objects) << "failing allocation " << k;
    if (sameBytes) {
      EXPECT_EQ(env->getMemory().getLiveBytes(), bytes) << "failing allocation " << k;
    }
    EXPECT_TRUE(same()) << "failing allocation " << k;
  });
}

class Vars : public ::testing::Test {
 protected:
  void TearDown() override { env.end(); }
  TavEnvI* ei() const { return env.getImpl(); }
  TavNumVarI* withDomain(TavVarDomainI* d, const char* name = nullptr) { return new (ei()) TavNumVarI(ei(), d, name); }
  TavEnv env;
};

TEST_F(Vars, BoundRulesAByBoundsAndBByType) {
  struct Row {
    int type;
    double lb, ub;
    double aLb, aUb, bLb, bUb;
    int reported;
  };
  const double F = TavNumVar::Float, I = TavNumVar::Int, B = TavNumVar::Bool;
  std::vector<Row> rows = {
      {(int)F, 0.5, 2.5, 0.5, 2.5, 0.5, 2.5, 2},
      {(int)I, 0.2, 3.7, 1, 4, 1, 4, 1},
      {(int)I, -2.5, -0.5, -2, 0, -2, 0, 1},
      {(int)B, 0.5, 0.5, 0, 1, 0, 0, 1},
      {(int)B, -3, 7, 0, 1, 0, 1, 1},
      {(int)B, 1.5, 1.5, 1, 1, 1, 1, 1},
      {(int)B, 2.5, 0, 1, 0, 1, 0, 1},
      {(int)B, 0.99, -0.5, 0, 0, 0, 0, 1},
      {(int)B, 0, -3, 0, 0, 0, 0, 1},
      {7, 0.5, 0.5, 0, 1, 0, 0, 1},  // any other kind takes the Boolean path
  };
  TavNumColumn column(env);
  for (auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.type) + " [" + std::to_string(r.lb) + ", " + std::to_string(r.ub) + "]");
    auto type = (TavNumVar::Type)r.type;
    TavNumVar a(env, r.lb, r.ub, type);
    EXPECT_EQ(a.getLB(), r.aLb);
    EXPECT_EQ(a.getUB(), r.aUb);
    EXPECT_EQ((int)a.getType(), r.reported);
    EXPECT_TRUE(a.getImpl()->getDomain()->isShared());
    TavNumVar b(column, r.lb, r.ub, type);
    EXPECT_EQ(b.getLB(), r.bLb);
    EXPECT_EQ(b.getUB(), r.bUb);
    EXPECT_EQ(column[column.getSize() - 1].getImpl(), b.getImpl());
    TavNumVarI* direct = new (ei()) TavNumVarI(ei(), type, r.lb, r.ub);
    EXPECT_EQ(direct->getDomain(), b.getImpl()->getDomain());
    // The same bounds share one domain.
    EXPECT_EQ(TavNumVar(env, r.lb, r.ub, type).getImpl()->getDomain(), a.getImpl()->getDomain());
  }
  EXPECT_EQ(column.getSize(), (TavInt)rows.size());
  column.end();
}

TEST_F(Vars, OtherConstructors) {
  TavNumVar bare(new (ei()) TavNumVarI(ei(), "bare"));
  EXPECT_EQ(bare.getType(), TavNumVar::Float);
  EXPECT_EQ(bare.getLB(), 0.0);
  EXPECT_EQ(bare.getUB(), TavGetInfinity());
  EXPECT_FALSE(bare.getImpl()->isInteger());
  EXPECT_FALSE(bare.getImpl()->isEnumerated());
  EXPECT_EQ(bare.getImpl()->getNumValues().getImpl(), nullptr);
  EXPECT_EQ(bare.getImpl()->getIntValues().getImpl(), nullptr);
  EXPECT_EQ(TavNumVar(env, 1.0, 2.0, "f").getType(), TavNumVar::Float);

  TavNumArray nums(env, {2.5, 1.5});
  TavNumVar nv(env, nums, TavNumVar::Float, "nv");
  EXPECT_TRUE(nv.getImpl()->isEnumerated());
  EXPECT_FALSE(nv.getImpl()->getDomain()->isShared());
  EXPECT_NE(nv.getImpl()->getNumValues().getImpl(), nums.getImpl());  // a copy
  nums[0] = 9.0;
  EXPECT_EQ(valuesOf(nv.getImpl()->getNumValues()), (std::vector<double>{2.5, 1.5}));
  EXPECT_EQ(nv.getLB(), 1.5);
  EXPECT_EQ(nv.getUB(), 2.5);

  TavIntArray ints(env, {3, 1});
  TavNumVarI* iv = new (ei()) TavNumVarI(ei(), ints, TavNumVar::Int);
  EXPECT_EQ(iv->getType(), TavNumVar::Int);
  EXPECT_NE(iv->getIntValues().getImpl(), ints.getImpl());
  EXPECT_EQ(valuesOf(iv->getIntValues()), (std::vector<double>{3, 1}));
  TavNumVarI* fv = new (ei()) TavNumVarI(ei(), ints, TavNumVar::Float);
  EXPECT_EQ(fv->getType(), TavNumVar::Float);
  EXPECT_EQ(valuesOf(fv->getNumValues()), (std::vector<double>{3.0, 1.0}));
  TavNumVarI* any = new (ei()) TavNumVarI(ei(), TavAnyArray(ints.getImpl()));
  EXPECT_TRUE(any->getDomain()->isAnyDomain());
  EXPECT_NE(any->getIntValues().getImpl(), ints.getImpl());

  TavNumVar r(TavNumRange(env, 1.0, 2.0), "r");
  EXPECT_EQ(r.getImpl()->getDomain(), ei()->getOrMakeSharedDomain(1.0, 2.0));
  TavIntVar ir(TavIntRange(env, 1, 3));
  EXPECT_EQ(ir.getImpl()->getDomain(), ei()->getOrMakeSharedDomain((TavInt)1, (TavInt)3));

  TavNumColumn column(env);
  TavNumVar cv(column, TavNumArray(env, {4.0}), TavNumVar::Float, "cv");
  TavIntVar ci(column, 2, 5, "ci");
  TavIntVar cl(column, TavIntArray(env, {7, 8}), "cl");
  TavBoolVar cb(column, "cb");
  ASSERT_EQ(column.getSize(), 4);
  EXPECT_EQ(column[0].getImpl(), cv.getImpl());
  EXPECT_EQ(valuesOf(cl.getImpl()->getIntValues()), (std::vector<double>{7, 8}));
  EXPECT_EQ(cb.getType(), TavNumVar::Bool);  // a private Boolean domain
  EXPECT_FALSE(cb.getImpl()->getDomain()->isShared());
  column.end();
}

TEST_F(Vars, FailureMessages) {
  TavNumVar fl(env, 0.0, 1.0, TavNumVar::Float, "fl");
  TavNumVar in(env, 0.0, 2.0, TavNumVar::Int, "in");
  TavIntVar i01(env, 0, 1, "i01"), i02(env, 0, 2, "i02");
  TavNumArray nums(env, {1.0});
  TavIntArray ints(env, {1});
  struct Row {
    const char* name;
    std::function<void()> run;
    const std::type_info& type;
    const char* message;  // null: none
  };
  std::vector<Row> rows = {
      {"num values Int", [&] { TavNumVar(env, nums, TavNumVar::Int); }, typeid(TavNotSupportedOperation),
       "You cannot create a integer variable by giving it an array of double"},
      {"num values Bool", [&] { TavNumVar(env, nums, TavNumVar::Bool); }, typeid(TavNotSupportedOperation),
       "You cannot create a boolean variable by giving it an array of values"},
      {"int values Bool", [&] { new (ei()) TavNumVarI(ei(), ints, TavNumVar::Bool); }, typeid(TavNotImplemented),
       "You cannot create a boolean variable by giving it an array of values"},
      {"num values on Int", [&] { in.setPossibleValues(nums); }, typeid(TavNotSupportedOperation),
       "You cannot change the domain of an integer variable by giving it a floating point variable"},
      {"getType", [] { TavNumVar().getType(); }, typeid(TavWrongUsage), "Using empty handle TavNumVar::getType"},
      {"get values", [&] { TavNumVar().getPossibleValues(nums); }, typeid(TavWrongUsage), "Using empty handle TavNumVar"},
      {"get into empty", [&] { fl.getPossibleValues(TavNumArray()); }, typeid(TavWrongUsage),
       "Using empty TavNumArray handle."},
      {"set values", [&] { TavNumVar().setPossibleValues(nums); }, typeid(TavWrongUsage), "Using empty TavNumVar handle."},
      {"set empty", [&] { fl.setPossibleValues(TavNumArray()); }, typeid(TavWrongUsage), "Using empty TavNumArray handle."},
      {"setMin", [] { TavIntVar().setMin(1); }, typeid(TavWrongUsage), "Using empty TavIntVar handle."},
      {"setMax", [] { TavIntVar().setMax(1); }, typeid(TavWrongUsage), "Using empty TavIntVar handle."},
      {"int setBounds", [] { TavIntVar().setBounds(0, 1); }, typeid(TavWrongUsage), "Using empty handle TavIntVar"},
      {"int getType", [] { TavIntVar().getType(); }, typeid(TavWrongUsage), "Using empty handle TavIntVar::getType"},
      {"int get values", [&] { TavIntVar().getPossibleValues(ints); }, typeid(TavWrongUsage), "Using empty handle TavIntVar"},
      {"int get into empty", [&] { i01.getPossibleValues(TavIntArray()); }, typeid(TavWrongUsage),
       "Using empty TavIntArray handle."},
      {"int set values", [&] { TavIntVar().setPossibleValues(ints); }, typeid(TavWrongUsage),
       "Using empty TavIntVar handle."},
      {"int set empty", [&] { i01.setPossibleValues(TavIntArray()); }, typeid(TavWrongUsage),
       "Using empty TavIntArray handle."},
      {"bool from float", [&] { TavBoolVar b(fl); }, typeid(TavWrongUsage), "Try to add a float variable to TavBoolVarArray"},
      {"int from float", [&] { TavIntVar v(fl); }, typeid(TavBadConversion), nullptr},
      {"bool from num [0, 2]", [&] { TavBoolVar b(in); }, typeid(TavBadConversion), nullptr},
      {"bool from int [0, 2]", [&] { TavBoolVar b(i02); }, typeid(TavBadConversion), nullptr},
      {"int from empty", [] { TavIntVar v{TavNumVar()}; }, typeid(TavEmptyHandleException), nullptr},
      {"bool from empty num", [] { TavBoolVar b{TavNumVar()}; }, typeid(TavEmptyHandleException), nullptr},
      {"bool from empty int", [] { TavBoolVar b{TavIntVar()}; }, typeid(TavEmptyHandleException), nullptr},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TavInt live = ei()->getLiveObjectCount();
    try {
      r.run();
      ADD_FAILURE() << "no exception";
    } catch (const TavException& e) {
      EXPECT_EQ(typeid(e), r.type) << typeid(e).name();
      if (r.message) EXPECT_STREQ(e.getMessage(), r.message);
      else EXPECT_EQ(e.getMessage(), nullptr);
      EXPECT_EQ(e.getCode(), 0);
    }
    EXPECT_EQ(ei()->getLiveObjectCount(), live);  // nothing left half-made
  }
  // The shared domain of fl is untouched by everything above.
  EXPECT_EQ(fl.getUB(), 1.0);
}

// Every modifier on a variable sharing its domain with another: the other
// keeps its bounds, and one record reports both bounds as they now stand.
TEST_F(Vars, ModifiersCopyOnWriteAndNotify) {
  Recorder rec(ei());
  const std::string bounds = "TavSetNumVarBounds";
  struct Row {
    const char* name;
    bool withDomain;
    std::function<void(TavNumVar)> op;
    double lb, ub;
  };
  std::vector<Row> rows = {
      {"setLB", true, [](TavNumVar v) { v.setLB(2); }, 2, 10},
      {"setUB", true, [](TavNumVar v) { v.setUB(7); }, 0, 7},
      {"setBounds", true, [](TavNumVar v) { v.setBounds(3, 4); }, 3, 4},
      {"inverted", true, [](TavNumVar v) { v.setBounds(5, 1); }, 5, 1},
      {"setMin", true, [](TavNumVar v) { TavIntVar(v.getImpl()).setMin(2); }, 2, 10},
      {"setMax", true, [](TavNumVar v) { TavIntVar(v.getImpl()).setMax(8); }, 0, 8},
      {"int setBounds", true, [](TavNumVar v) { TavIntVar(v.getImpl()).setBounds(1, 2); }, 1, 2},
      {"setLB bare", false, [](TavNumVar v) { v.setLB(2); }, 2, TavGetInfinity()},
      {"setUB bare", false, [](TavNumVar v) { v.setUB(5); }, 0, 5},
      {"setBounds bare", false, [](TavNumVar v) { v.setBounds(1, 2); }, 1, 2},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TavNumVar other(env, 0.0, 10.0);
    TavVarDomainI* shared = other.getImpl()->getDomain();
    TavNumVar v(r.withDomain ? withDomain(shared) : new (ei()) TavNumVarI(ei()));
    rec.seen.clear();
    r.op(v);
    EXPECT_EQ(v.getLB(), r.lb);
    EXPECT_EQ(v.getUB(), r.ub);
    EXPECT_EQ(v.getType(), TavNumVar::Float);
    EXPECT_EQ(other.getLB(), 0.0);
    EXPECT_EQ(other.getUB(), 10.0);
    EXPECT_EQ(other.getImpl()->getDomain(), shared);
    if (r.withDomain) EXPECT_FALSE(v.getImpl()->getDomain()->isShared());
    else EXPECT_EQ(v.getImpl()->getDomain(), ei()->getOrMakeSharedDomain(r.lb, r.ub));
    ASSERT_EQ(rec.seen.size(), 1u);
    EXPECT_EQ(rec.seen[0].name, bounds);
    EXPECT_EQ(rec.seen[0].var, v.getImpl());
    EXPECT_EQ(rec.seen[0].lb, r.lb);
    EXPECT_EQ(rec.seen[0].ub, r.ub);
  }
  // The handles call the virtual setters, so an override runs.
  SpyVarI* spy = new (ei()) SpyVarI(ei(), 0.0, 5.0, TavNumVar::Int);
  TavIntVar sv(spy);
  sv.setMin(1);
  sv.setMax(4);
  sv.setBounds(2, 3);
  TavNumVar(spy).setLB(2);
  TavNumVar(spy).setUB(3);
  TavNumVar(spy).setBounds(2, 3);
  EXPECT_EQ(spy->calls, 6);
  // A failing delivery leaves the change made before it.
  tavtest::RefusingAlg refuser(ei());
  TavNumVar t(env, 0.0, 10.0);
  EXPECT_THROW(t.setUB(4), TavWrongUsage);
  EXPECT_EQ(t.getUB(), 4.0);
}

TEST_F(Vars, MakeDomainAndPossibleValues) {
  Recorder rec(ei());
  TavNumVar f(env, 0.0, 1.0);
  TavVarDomainI* shared = f.getImpl()->getDomain();
  f.getImpl()->makeDomain(1.5, 2.5);
  EXPECT_EQ(f.getLB(), 1.5);
  EXPECT_EQ(f.getType(), TavNumVar::Float);
  EXPECT_FALSE(f.getImpl()->getDomain()->isShared());
  EXPECT_EQ(shared->getUB(), 1.0);
  TavIntVar i(env, 0, 1);
  i.getImpl()->makeDomain(1.5, 3.7);  // an integer domain truncates
  EXPECT_EQ(i.getType(), TavNumVar::Int);
  EXPECT_EQ(i.getLB(), 1.0);
  EXPECT_EQ(i.getUB(), 3.0);
  TavNumVarI* b = withDomain(new (ei()) TavBoolVarDomainI(0, 0));
  // A Boolean domain takes its bounds by rule A.
  const struct {
    double lb, ub, wantLb, wantUb;
  } boolRows[] = {{0.5, 0.5, 0, 1}, {-1, -1, 0, 0}, {2, 0, 1, 0}, {1, 2, 1, 1}};
  for (auto& r : boolRows) {
    b->makeDomain(r.lb, r.ub);
    EXPECT_EQ(b->getType(), TavNumVar::Bool);
    EXPECT_EQ(b->getLB(), r.wantLb) << r.lb << " " << r.ub;
    EXPECT_EQ(b->getUB(), r.wantUb) << r.lb << " " << r.ub;
  }
  EXPECT_TRUE(rec.seen.empty());

  struct Row {
    const char* name;
    std::function<TavNumVarI*()> make;
    bool intValues;
    int type;
    bool recordNums;
  };
  std::vector<Row> rows = {
      {"num on float", [&] { return TavNumVar(env, 0.0, 9.0).getImpl(); }, false, TavNumVar::Float, true},
      {"num on bare", [&] { return new (ei()) TavNumVarI(ei()); }, false, TavNumVar::Float, true},
      {"int on int", [&] { return TavIntVar(env, 0, 9).getImpl(); }, true, TavNumVar::Int, false},
      {"int on float", [&] { return TavNumVar(env, 0.0, 9.0).getImpl(); }, true, TavNumVar::Float, true},
      {"int on bare", [&] { return new (ei()) TavNumVarI(ei()); }, true, TavNumVar::Float, true},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TavNumVarI* v = r.make();
    TavVarDomainI* before = v->getDomain();
    TavNumArray nums(env, {5.0, 2.0});
    TavIntArray ints(env, {5, 2});
    TavArrayI* given = r.intValues ? ints.getImpl() : nums.getImpl();
    rec.seen.clear();
    if (r.intValues) v->setPossibleValues(ints);
    else v->setPossibleValues(nums);
    EXPECT_EQ((int)v->getType(), r.type);
    EXPECT_TRUE(v->isEnumerated());
    EXPECT_EQ(v->getLB(), 2.0);
    EXPECT_EQ(v->getUB(), 5.0);
    if (before) {
      EXPECT_TRUE(before->isShared() && before->getLB() == 0.0 && before->getUB() == 9.0);
    }
    ASSERT_EQ(rec.seen.size(), 1u);
    const Seen& s = rec.seen[0];
    EXPECT_EQ(s.name, "TavSetNumVarPossibleValues");
    EXPECT_EQ(s.var, v);
    EXPECT_EQ(s.nums != nullptr, r.recordNums);
    EXPECT_EQ(s.ints != nullptr, !r.recordNums);
    // The caller's array is reported, except for converted values.
    if (r.recordNums == !r.intValues) EXPECT_EQ(r.recordNums ? s.nums : s.ints, given);
    else EXPECT_NE(s.nums, given);
    EXPECT_EQ(s.values, (std::vector<double>{5, 2}));
    // The domain holds its own copy.
    TavArrayI* held = r.type == TavNumVar::Float ? v->getNumValues().getImpl() : v->getIntValues().getImpl();
    EXPECT_NE(held, given);
  }
  // The handles append the values to the caller's array.
  TavNumVar e(env, TavNumArray(env, {1.5}), TavNumVar::Float);
  TavNumArray out(env, {0.5});
  e.getPossibleValues(out);
  EXPECT_EQ(valuesOf(out), (std::vector<double>{0.5, 1.5}));
  TavNumArray none(env);
  TavNumVar(env, 0.0, 1.0).getPossibleValues(none);
  EXPECT_EQ(none.getSize(), 0);
  TavIntVar iv(env, TavIntArray(env, {4, 6}));
  TavIntArray iout(env);
  iv.getPossibleValues(iout);
  EXPECT_EQ(valuesOf(iout), (std::vector<double>{4, 6}));
  iv.setPossibleValues(TavIntArray(env, {7}));
  EXPECT_EQ(iv.getMin(), 7);
  TavNumVar fv(env, 0.0, 1.0);
  fv.setPossibleValues(TavNumArray(env, {0.25}));
  EXPECT_EQ(fv.getUB(), 0.25);
}

TEST_F(Vars, EvalFallsBackOnTheModelEvaluator) {
  TavNumVar x(env, 0.0, 10.0, "x");
  TavSolution sol(env);
  TavModelEvaluator* ev = ei()->getModelEvaluator();
  auto failure = [&]() -> std::string {
    try {
      x.getImpl()->eval(sol);
    } catch (const TavModelEvaluator::Unbound&) {
      return "unbound";
    } catch (const TavAlgorithm::Exception& e) {
      return e.what();
    }
    return "none";
  };
  EXPECT_EQ(failure(), "TavSolution: the variable has no value");  // evaluator inactive
  ev->setActive(true);
  EXPECT_EQ(failure(), "TavSolution: the variable has no value");  // evaluator failed too
  ev->setValue(x, 3);
  EXPECT_EQ(x.getImpl()->eval(sol), 3.0);
  ev->setActive(false);
  EXPECT_EQ(failure(), "TavSolution: the variable has no value");
  sol.setValue(x, 2.5);
  EXPECT_EQ(x.getImpl()->eval(sol), 2.5);
  EXPECT_EQ(sol.getValue(x + 1.0), 3.5);
}

TEST_F(Vars, DisplayIgnoresTheSyntaxFlag) {
  TavIntArray vals(env, {1, 2});
  struct Row {
    TavNumVarI* var;
    std::string text;
  };
  TavNumVarI* bare = new (ei()) TavNumVarI(ei());
  TavNumVarI* f = TavNumVar(env, 0.0, 10.0).getImpl();
  TavNumVarI* i = TavIntVar(env, 1, 4).getImpl();
  TavNumVarI* any = new (ei()) TavNumVarI(ei(), TavAnyArray(vals.getImpl()));
  TavNumVarI* b = withDomain(new (ei()) TavBoolVarDomainI(0, 1));
  auto id = [](TavNumVarI* v) { return std::to_string(v->getId()); };
  std::vector<Row> rows = {
      {bare, "TavNumVar(" + id(bare) + ")[0 .. " + inf() + "] "},
      {new (ei()) TavNumVarI(ei(), "v"), "v[0 .. " + inf() + "] "},
      {TavNumVar(env, 0.0, 10.0, "x").getImpl(), "x[0 .. 10] "},
      {f, "TavNumVar(" + id(f) + ")[0 .. 10] "},
      {i, "TavIntVar(" + id(i) + ")[1 .. 4] "},
      {any, "TavAnyVar(" + id(any) + "){1, 2} "},
      {b, "TavIntVar(" + id(b) + ")[0 .. 1] "},
  };
  for (bool library : {false, true}) {
    ei()->setLibrarySyntaxDisplay(library);
    for (auto& r : rows) {
      SCOPED_TRACE(r.text);
      EXPECT_EQ(show(TavNumVar(r.var)), r.text);
    }
  }
  EXPECT_EQ(show(TavIntVar(i)), rows[4].text);
}

TEST_F(Vars, CloneAndNodeProtocol) {
  TavEnv other;
  TavNumVar x(env, 0.0, 10.0, "x");
  auto* cx = static_cast<TavNumVarI*>(x.getImpl()->makeClone(other.getImpl()));
  EXPECT_EQ(cx->getEnv(), other.getImpl());
  EXPECT_STREQ(cx->getName(), "x");
  EXPECT_NE(cx->getDomain(), x.getImpl()->getDomain());
  EXPECT_FALSE(cx->getDomain()->isShared());
  EXPECT_EQ(cx->getUB(), 10.0);
  auto* cb = static_cast<TavNumVarI*>((new (ei()) TavNumVarI(ei()))->makeClone(other.getImpl()));
  EXPECT_EQ(cb->getDomain(), nullptr);
  EXPECT_EQ(cb->getName(), nullptr);
  TavIntVar e(env, TavIntArray(env, {3, 5}));
  auto* ce = static_cast<TavNumVarI*>(e.getImpl()->makeClone(other.getImpl()));
  EXPECT_EQ(valuesOf(ce->getIntValues()), (std::vector<double>{3, 5}));
  EXPECT_NE(ce->getIntValues().getImpl(), e.getImpl()->getIntValues().getImpl());
  other.end();

  TavNumVarI* v = x.getImpl();
  EXPECT_FALSE(v->isRefCountedExpr());
  EXPECT_TRUE(v->isDecisionExpr());
  v->release();
  EXPECT_EQ(v->getRefCount(), 0);
  struct Log : TavExtractableVisitor {
    int begins = 0, children = 0, ends = 0;
    void beginVisit(TavExtractableI*) override { ++begins; }
    void visitChild(TavExtractableI*, TavExtractableI*) override { ++children; }
    void endVisit(TavExtractableI*) override { ++ends; }
  } log;
  v->visitSubExtractables(&log);
  EXPECT_EQ(log.begins + log.children * 10 + log.ends * 100, 101);
  TavNumLinTermI* lin = v->toNumLinTermI();
  EXPECT_EQ(lin->getFirstTerm()->_var, v);
  EXPECT_EQ(lin->getFirstTerm()->_coef, 1.0);
  EXPECT_EQ(lin->getFirstTerm(), lin->getLastTerm());
  EXPECT_EQ(lin->getConstant(), 0.0);
  TavIntLinTermI* ilin = v->toIntLinTermI();
  EXPECT_EQ(ilin->getFirstTerm()->_var, v);
  EXPECT_EQ(ilin->getConstant(), 0);

  TavSetNumVarBounds sb(v, 1, 2);
  TavSetNumVarPossibleValues sp(v, nullptr, nullptr);
  TavSetNumVarArrayBounds sa(nullptr, nullptr, nullptr);
  for (const TavChange* c : {static_cast<const TavChange*>(&sb), static_cast<const TavChange*>(&sp),
                             static_cast<const TavChange*>(&sa)})
    EXPECT_THROW(c->applyToCP(TavAlgorithm(), nullptr), TavAlgorithm::CannotChangeException) << c->getRttiTypeName();
  EXPECT_STREQ(sa.getRttiTypeName(), "TavSetNumVarArrayBounds");
}

TEST_F(Vars, IntegerAndBooleanHandles) {
  TavIntVar d(env, "d");
  EXPECT_EQ(d.getType(), TavNumVar::Int);
  EXPECT_EQ(d.getLB(), 0.0);
  EXPECT_EQ(d.getMax(), 9007199254740991L);
  EXPECT_EQ(d.getUB(), 9007199254740991.0);
  TavIntVar inv(env, 3, 2);
  EXPECT_EQ(inv.getMin(), 3);
  EXPECT_EQ(inv.getMax(), 2);
  TavIntVar trunc(withDomain(new (ei()) TavNumVarDomainI(-2.5, 2.7)));
  EXPECT_EQ(trunc.getMin(), -2);
  EXPECT_EQ(trunc.getMax(), 2);
  TavIntVar vals(env, TavIntArray(env, {2, 4, 6}), "vals");
  EXPECT_TRUE(vals.getImpl()->isEnumerated());
  EXPECT_EQ(vals.getMax(), 6);
  TavNumVar boolNum(env, 0.0, 1.0, TavNumVar::Bool);
  EXPECT_EQ(TavIntVar(boolNum).getImpl(), boolNum.getImpl());  // a Boolean is an integer

  TavBoolVar b(env, "b");
  EXPECT_EQ(b.getImpl()->getDomain(), ei()->getOrMakeSharedDomain((TavInt)0, (TavInt)1));
  TavBoolVar wide(env, 0, 3);
  EXPECT_EQ(wide.getMax(), 3);  // not clamped

  // Boolean from a numeric variable: an Int variable's bounds must each be
  // exactly 0 or 1, a Boolean-typed one passes as it is. Boolean from an
  // integer variable: both bounds within [0, 1], compared as doubles.
  auto intVar = [&](TavInt lb, TavInt ub) { return TavNumVar(env, (double)lb, (double)ub, TavNumVar::Int); };
  auto floatVar = [&](double lb, double ub) { return TavNumVar(env, lb, ub, TavNumVar::Float); };
  struct Row {
    const char* name;
    TavNumVar var;
    bool fromNum, ok;
  };
  std::vector<Row> rows = {
      {"num int [0, 1]", intVar(0, 1), true, true},
      {"num int [1, 1]", intVar(1, 1), true, true},
      {"num int [0, 0]", intVar(0, 0), true, true},
      {"num int [0, 2]", intVar(0, 2), true, false},
      {"num int [-1, 1]", intVar(-1, 1), true, false},
      {"num bool-typed [0, 5]", TavNumVar(withDomain(new (ei()) TavBoolVarDomainI(0, 5))), true, true},
      {"int [0, 1]", intVar(0, 1), false, true},
      {"int [1, 1]", intVar(1, 1), false, true},
      {"int [0, 2]", intVar(0, 2), false, false},
      {"int [-1, 0]", intVar(-1, 0), false, false},
      {"int [2, 2]", intVar(2, 2), false, false},
      {"int [0, -1]", intVar(0, -1), false, false},
      {"int over float [0, 0.5]", floatVar(0.0, 0.5), false, true},
      {"int over float [0.5, 1]", floatVar(0.5, 1.0), false, true},
      {"int over float [0, 1.5]", floatVar(0.0, 1.5), false, false},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    auto convert = [&] {
      TavBoolVar bv = r.fromNum ? TavBoolVar(r.var) : TavBoolVar(TavIntVar(r.var.getImpl()));
      EXPECT_EQ(bv.getImpl(), r.var.getImpl());
    };
    if (r.ok) EXPECT_NO_THROW(convert());
    else EXPECT_THROW(convert(), TavBadConversion);
  }
}

// Every way of making a variable, with each of its allocations failing in
// turn: nothing is left behind (no object, no byte, no column entry), and the
// variable finally made prints its name and domain.
TEST_F(Vars, FailedConstructionsLeaveNothingBehind) {
  TavNumColumn column(env);
  TavNumArray nums(env, {2.5, 1.5});
  TavIntArray ints(env, {3, 1});
  TavNumRange numRange(env, 2.5, 3.5);
  TavIntRange intRange(env, 13, 14);
  using V = TavNumVar;
  struct Row {
    const char* text;
    bool sameBytes;  // false: a new shared domain may stay in the cache
    std::function<TavNumVarI*()> build;
  };
  std::vector<Row> rows = {
      {"a[3.5 .. 7.25] ", false, [&] { return V(env, 3.5, 7.25, V::Float, "a").getImpl(); }},
      {"b[2 .. 10] ", false, [&] { return V(column, 1.5, 9.5, V::Int, "b").getImpl(); }},
      {"c{2.5, 1.5} ", true, [&] { return V(column, nums, V::Float, "c").getImpl(); }},
      {"d[2.5 .. 3.5] ", false, [&] { return V(numRange, "d").getImpl(); }},
      {"e{2.5, 1.5} ", true, [&] { return V(env, nums, V::Float, "e").getImpl(); }},
      {"f[0 .. 9007199254740991] ", false, [&] { return TavIntVar(env, "f").getImpl(); }},
      {"g[11 .. 12] ", false, [&] { return TavIntVar(env, 11, 12, "g").getImpl(); }},
      {"h[13 .. 14] ", false, [&] { return TavIntVar(intRange, "h").getImpl(); }},
      {"i{3, 1} ", true, [&] { return TavIntVar(env, ints, "i").getImpl(); }},
      {"j[15 .. 16] ", false, [&] { return TavIntVar(column, 15, 16, "j").getImpl(); }},
      {"k{3, 1} ", true, [&] { return TavIntVar(column, ints, "k").getImpl(); }},
      {"l[0 .. 1] ", false, [&] { return TavBoolVar(env, "l").getImpl(); }},
      {"m[0 .. 5] ", false, [&] { return TavBoolVar(env, 0, 5, "m").getImpl(); }},
      {"n[0 .. 1] ", true, [&] { return TavBoolVar(column, "n").getImpl(); }},
      {"o{3, 1} ", true, [&] { return new (ei()) TavNumVarI(ei(), TavAnyArray(ints.getImpl()), "o"); }},
      {"p{3, 1} ", true, [&] { return new (ei()) TavNumVarI(ei(), ints, V::Float, "p"); }},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.text);
    const TavInt installed = column.getSize();
    TavNumVarI* built = nullptr;
    EXPECT_GT(failUntilDone(ei(), [&] { built = r.build(); }, r.sameBytes,
                            [&] { return column.getSize() == installed; }),
              0);
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(showNode(built), r.text);
  }
  EXPECT_EQ(column.getSize(), 5);
  TavNumColumn another;
  EXPECT_GT(failUntilDone(ei(), [&] { another = TavNumColumn(env); }), 0);
  TavNumVar installed(another, 0.0, 1.0, TavNumVar::Float);
  EXPECT_EQ(another[0].getImpl(), installed.getImpl());
  another.end();

  // Values given to a variable without a domain, and a bare variable ended.
  TavNumVarI* bare = new (ei()) TavNumVarI(ei());
  EXPECT_GT(failUntilDone(ei(), [&] { bare->setPossibleValues(nums); }, true,
                          [&] { return !bare->isEnumerated() && bare->getUB() == TavGetInfinity(); }),
            0);
  EXPECT_EQ(valuesOf(bare->getNumValues()), (std::vector<double>{2.5, 1.5}));
  const TavInt live = ei()->getLiveObjectCount();
  const std::size_t bytes = ei()->getMemory().getLiveBytes();
  TavNumVar(new (ei()) TavNumVarI(ei(), "gone")).end();
  EXPECT_EQ(ei()->getLiveObjectCount(), live);
  EXPECT_EQ(ei()->getMemory().getLiveBytes(), bytes);
  EXPECT_FALSE(TavNumVar(env, 0.0, 1.0).getImpl()->isEnumerated());
  column.end();
}

// A clone copies the name and a private domain (an interval or a list of
// values) into the target; a failure there leaves the target as it was.
TEST_F(Vars, FailedClonesLeaveTheTargetAsItWas) {
  TavEnv other;
  TavEnvI* target = other.getImpl();
  TavNumVarI* sources[] = {
      new (ei()) TavNumVarI(ei(), "bare"),
      TavNumVar(env, TavNumArray(env, {2.5, 1.5}), TavNumVar::Float, "nums").getImpl(),
      TavIntVar(env, TavIntArray(env, {3, 1}), "ints").getImpl(),
      new (ei()) TavNumVarI(ei(), TavAnyArray(TavIntArray(env, {4, 5}).getImpl()), "any"),
      withDomain(new (ei()) TavBoolVarDomainI(0, 1), "bool"),
      TavIntVar(env, 1, 4, "interval").getImpl(),
  };
  for (TavNumVarI* v : sources) {
    SCOPED_TRACE(showNode(v));
    TavExtractableI* clone = nullptr;
    EXPECT_GT(failUntilDone(target, [&] { clone = v->makeClone(target); }), 0);
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(showNode(clone), showNode(v));
    EXPECT_EQ(clone->getEnv(), target);
  }
  other.end();
}

// A solution finds a value by the variable itself: a variable of another
// environment with the same identifier has none. A long sum reads its values
// through a prefetching loop and, when one is missing wherever it stands,
// falls back on its terms one by one (the model evaluator may then supply it).
TEST_F(Vars, SolutionValuesBelongToTheirVariable) {
  TavNumVarArray xs(env, 20, 0.0, 100.0);
  TavNumExpr sum(env, 0.5);
  double full = 0.5;
  for (TavInt i = 0; i < xs.getSize(); ++i) {
    sum += (i + 1.0) * xs[i];
    full += (i + 1.0) * i;
  }
  auto failure = [](const std::function<void()>& f) -> std::string {
    try {
      f();
    } catch (const TavAlgorithm::Exception& e) {
      return e.what();
    }
    return "none";
  };
  TavModelEvaluator* ev = ei()->getModelEvaluator();
  for (TavInt missing : {-1, 0, 1, 10, 18, 19}) {
    SCOPED_TRACE(missing);
    TavSolution sol(env);
    for (TavInt i = 0; i < xs.getSize(); ++i)
      if (i != missing) sol.setValue(xs[i], (double)i);
    if (missing < 0) {
      EXPECT_EQ(sol.getValue(sum), full);
      continue;
    }
    EXPECT_EQ(failure([&] { sol.getValue(sum); }), "TavSolution: the variable has no value");
    ev->setActive(true);
    ev->setValue(xs[missing], 1000);
    EXPECT_EQ(sol.getValue(sum), full + (missing + 1.0) * (1000 - missing));
    ev->setActive(false);
  }
  TavEnv other;
  TavNumVar y(other, 0.0, 1.0);
  while (y.getId() < xs[3].getId()) y = TavNumVar(other, 0.0, 1.0);
  ASSERT_EQ(y.getId(), xs[3].getId());
  TavSolution sol(env);
  sol.setValue(xs[3], 2.0);
  EXPECT_EQ(sol.getValue(xs[3]), 2.0);
  EXPECT_EQ(failure([&] { sol.getValue(y); }), "TavSolution: the variable has no value");
  other.end();
}

}  // namespace
