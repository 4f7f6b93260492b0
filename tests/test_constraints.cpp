// Constraints (the base with its hooks and its order of value sources, the
// constant constraint, a constraint kind of the tests' own, constraint
// arrays, constraint values in a solution) and the conditional expressions.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

/// A constraint kind of the tests' own: x <= ub over one variable, with its
/// own value, text, children and clone, as a user writes one.
class AtMost final : public TavNode<AtMost, TavConstraintI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "AtMost";
  AtMost(TavEnvI* env, TavNumVarI* x, double ub, const char* name = nullptr)
      : TavNode(env, name), _x(x), _ub(ub) {}
  double eval(TavAlgorithm alg) const override { return _x->eval(alg) <= _ub ? 1.0 : 0.0; }
  void display(std::ostream& os) const override {
    _x->display(os);
    os << " <= " << _ub;
  }
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    v->visitChild(this, _x);
    v->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    return new (env) AtMost(env, static_cast<TavNumVarI*>(env->getClone(_x)), _ub);
  }

 private:
  TavNumVarI* _x;
  double _ub;
};

/// A constraint kind that keeps the base's eval, and whose evaluation by
/// the model evaluator (through the evaluator's reader) follows a script.
class Scripted final : public TavNode<Scripted, TavConstraintI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "Scripted";
  enum class Reader { Value, Unbound, Usage, Std };
  using TavNode::TavNode;
  double eval(TavAlgorithm alg) const override {
    if (alg.getImpl() != getEnv()->getModelEvaluator()->getReader().getImpl()) return TavConstraintI::eval(alg);
    ++readerCalls;
    switch (reader) {
      case Reader::Unbound: throw TavModelEvaluator::Unbound();
      case Reader::Usage: throw TavWrongUsage("scripted failure", 0);
      case Reader::Std: throw std::runtime_error("scripted failure");
      case Reader::Value: break;
    }
    return readerValue;
  }
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
  Reader reader = Reader::Value;
  double readerValue = 0;
  mutable int readerCalls = 0;
};

/// The plainest constraint kind: children only; value, text and clone are the base's.
class Bare final : public TavNode<Bare, TavConstraintI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "Bare";
  using TavNode::TavNode;
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};

}  // namespace

TAV_DEFINE_NODE_STATICS(AtMost)
TAV_DEFINE_NODE_STATICS(Scripted)
TAV_DEFINE_NODE_STATICS(Bare)

namespace {

/// The environment's live counters, to compare before and after.
struct Counters {
  explicit Counters(TavEnvI* e)
      : env(e), objects(e->getLiveObjectCount()), terms(e->getLiveTermCount()), bytes(e->getMemory().getLiveBytes()) {}
  bool same() const {
    return env->getLiveObjectCount() == objects && env->getLiveTermCount() == terms &&
           env->getMemory().getLiveBytes() == bytes;
  }
  TavEnvI* env;
  TavInt objects, terms;
  std::size_t bytes;
};

/// Records a walk: "(", then "<" each child's text ">", then ")".
struct WalkRecorder : TavExtractableVisitor {
  void beginVisit(TavExtractableI*) override { seen += "("; }
  void visitChild(TavExtractableI*, TavExtractableI* child) override { seen += "<" + showNode(child) + ">"; }
  void endVisit(TavExtractableI*) override { seen += ")"; }
  std::string seen;
};

/// The hooks the tests install: they record what they were called with.
struct HookLog {
  static TavAlgorithmI* alg;
  static const TavExtractableI* obj;
  static void* data;
  static int calls;
  static void take(TavAlgorithm a, const TavExtractableI* o, void* d) {
    alg = a.getImpl();
    obj = o;
    data = d;
    ++calls;
  }
  static void* extract(TavAlgorithm a, const TavExtractableI* o) {
    take(a, o, nullptr);
    return &calls;
  }
};
TavAlgorithmI* HookLog::alg = nullptr;
const TavExtractableI* HookLog::obj = nullptr;
void* HookLog::data = nullptr;
int HookLog::calls = 0;

}  // namespace

// ---------------------------------------------------------------- constant constraints

TEST(Constraints, ConstantConstraintsHoldTheirTruthInEverySyntax) {
  struct Row {
    TavInt truth;
    bool isTrue;
    const char* text;
  } rows[] = {{1, true, "TrueConstraint "}, {0, false, "FalseConstraint "}, {-7, true, "TrueConstraint "},
              {TavInt(1) << 40, true, "TrueConstraint "}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.truth);
    TavEnv env;
    TavEnvI* ei = env.getImpl();
    TavConstConstraintI* c = new (ei) TavConstConstraintI(ei, "c", r.truth);
    TavConstraint ct(c);
    EXPECT_EQ(c->isTrue(), r.isTrue);
    EXPECT_EQ(c->eval(TavAlgorithm()), r.isTrue ? 1.0 : 0.0);  // the algorithm is not asked
    TavSolution sol(env);
    sol.setValue(ct, r.isTrue ? 0.0 : 1.0);  // nor is its own value of the constraint
    EXPECT_EQ(sol.getValue(ct), r.isTrue ? 1.0 : 0.0);
    for (bool library : {true, false}) {
      ei->setLibrarySyntaxDisplay(library);
      EXPECT_EQ(show(ct), r.text);
    }
    EXPECT_STREQ(ct.getImpl()->getName(), "c");
    WalkRecorder w;
    c->visitSubExtractables(&w);
    EXPECT_EQ(w.seen, "()");
    env.end();
  }
}

TEST(Constraints, ConstantConstraintCloneIsUnnamedAndStaysHome) {
  TavEnv a, b;
  TavEnvI* ea = a.getImpl();
  TavConstConstraintI* c = new (ea) TavConstConstraintI(ea, "named", 0);
  const TavInt before = ea->getLiveObjectCount();
  auto* clone = static_cast<TavConstConstraintI*>(c->makeClone(b.getImpl()));
  EXPECT_EQ(clone->getEnv(), ea);  // the target is not used
  EXPECT_EQ(ea->getLiveObjectCount(), before + 1);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_FALSE(clone->isTrue());
  EXPECT_EQ(showNode(clone), "FalseConstraint ");
  EXPECT_TRUE(clone->isType(TavConstConstraintI::GetTypeInfo()));
  a.end();
  b.end();
}

TEST(Constraints, TypeIdentityAndCounting) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstConstraintI* c = new (ei) TavConstConstraintI(ei, nullptr, 1);
  AtMost* m = new (ei) AtMost(ei, TavNumVar(env, 0, 5).getImpl(), 3);
  for (const TavConstraintI* ct : {static_cast<const TavConstraintI*>(c), static_cast<const TavConstraintI*>(m)}) {
    EXPECT_TRUE(ct->isType(TavConstraintI::GetTypeInfo()));
    EXPECT_TRUE(ct->isType(TavIntExprI::GetTypeInfo()));
    EXPECT_TRUE(ct->isType(TavNumExprI::GetTypeInfo()));
    EXPECT_FALSE(ct->isType(TavNumVarI::GetTypeInfo()));
    EXPECT_FALSE(ct->isRefCountedExpr());
    EXPECT_TRUE(ct->isInteger());
    EXPECT_EQ(ct->getBaseTypeInfo() == TavConstraintI::GetTypeInfo(), true);
  }
  EXPECT_FALSE(c->isType(AtMost::GetTypeInfo()));
  EXPECT_STREQ(c->getRttiTypeName(), "TavConstConstraintI");
  EXPECT_STREQ(TavConstraintI::GetRttiTypeName(), "TavConstraintI");
  EXPECT_EQ(TavConstraintI::GetBaseTypeInfo(), TavIntExprI::GetTypeInfo());
  EXPECT_STREQ(m->getRttiTypeName(), "AtMost");
  env.end();
}

// Constraints live until ended: no count of a parent or a handle frees them.
TEST(Constraints, ReferenceCountingNeverFreesAConstraint) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavIntVar i(env, 0, 10, "i");
  TavConstraint t(new (ei) TavConstConstraintI(ei, "t", 1));
  TavConstraint f(new (ei) TavConstConstraintI(ei, "f", 0));
  const TavInt live = ei->getLiveObjectCount();

  t.getImpl()->lockRef();
  t.getImpl()->release();
  ei->release(t.getImpl());
  EXPECT_EQ(ei->getLiveObjectCount(), live);

  // As integer operands: the parents go, the constraints stay.
  TavIntExpr sum(t + f + i);
  TavNumExpr sq(TavSquare(t));
  TavSolution sol(env);
  sol.setValue(i, 4);
  EXPECT_EQ(sol.getValue(sum), 5.0);
  EXPECT_EQ(sol.getValue(sq), 1.0);
  sum.end();
  sq.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live);
  EXPECT_EQ(show(t), "TrueConstraint ");

  // Ending the handle ends the constraint.
  t.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live - 1);
  env.end();
}

// ---------------------------------------------------------------- hooks

TEST(Constraints, HooksOfTheBaseServeEveryConstraint) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  RecordingAlg alg(ei);
  TavConstConstraintI* c = new (ei) TavConstConstraintI(ei, nullptr, 1);
  AtMost* m = new (ei) AtMost(ei, TavNumVar(env).getImpl(), 1);
  int token = 0;

  for (const TavConstraintI* ct : {static_cast<const TavConstraintI*>(c), static_cast<const TavConstraintI*>(m)}) {
    SCOPED_TRACE(ct->getRttiTypeName());
    EXPECT_THROW(ct->whenAddedToCP(&alg, &token), TavAlgorithm::ExtractFailure);
    EXPECT_THROW(ct->whenRemovedFromCP(&alg, &token), TavAlgorithm::ExtractFailure);
    EXPECT_THROW(ct->extractToCP(&alg), TavAlgorithm::ExtractFailure);
    EXPECT_THROW(ct->unextractFromCP(&alg, &token), TavAlgorithm::RemoveFailure);
    EXPECT_THROW(ct->modifyCP(&alg, &token), TavAlgorithm::RemoveFailure);
  }

  TavConstraintI::_addToCP = &HookLog::take;
  TavConstraintI::_removeFromCP = &HookLog::take;
  TavConstraintI::_extractCP = &HookLog::extract;  // the base's own: no subclass falls back to it
  HookLog::calls = 0;
  for (const TavConstraintI* ct : {static_cast<const TavConstraintI*>(c), static_cast<const TavConstraintI*>(m)}) {
    SCOPED_TRACE(ct->getRttiTypeName());
    HookLog::obj = nullptr;
    ct->whenAddedToCP(&alg, &token);
    EXPECT_EQ(HookLog::alg, &alg);
    EXPECT_EQ(HookLog::obj, ct);
    EXPECT_EQ(HookLog::data, &token);
    HookLog::obj = nullptr;
    ct->whenRemovedFromCP(&alg, nullptr);
    EXPECT_EQ(HookLog::obj, ct);
    EXPECT_EQ(HookLog::data, nullptr);
    EXPECT_THROW(ct->extractToCP(&alg), TavAlgorithm::ExtractFailure);
  }
  EXPECT_EQ(HookLog::calls, 4);
  TavConstConstraintI::_extractCP = &HookLog::extract;
  EXPECT_EQ(c->extractToCP(&alg), &HookLog::calls);
  TavConstraintI::_addToCP = nullptr;
  TavConstraintI::_removeFromCP = nullptr;
  TavConstraintI::_extractCP = nullptr;
  TavConstConstraintI::_extractCP = nullptr;
  env.end();
}

// ---------------------------------------------------------------- value of a constraint

// The base's eval: the model evaluator when it is active, else (and when the
// evaluator fails otherwise than with Unbound) the algorithm's own value.
TEST(Constraints, EvalAsksTheEvaluatorThenTheAlgorithm) {
  enum Expect { Value, Throws, ThrowsUnbound };
  struct Row {
    const char* what;
    bool active;
    Scripted::Reader reader;
    double readerValue;
    bool solutionHasValue;
    Expect expect;
    double value;
    int readerCalls;
  } rows[] = {
      {"inactive: the algorithm", false, Scripted::Reader::Value, 0, true, Value, 1, 0},
      {"active: the evaluator", true, Scripted::Reader::Value, 0, true, Value, 0, 1},
      {"active, evaluator says 1", true, Scripted::Reader::Value, 1, false, Value, 1, 1},
      {"evaluator result truncated to an integer", true, Scripted::Reader::Value, 2.75, true, Value, 2, 1},
      {"Unbound passes", true, Scripted::Reader::Unbound, 0, true, ThrowsUnbound, 0, 1},
      {"other library failure: the algorithm", true, Scripted::Reader::Usage, 0, true, Value, 1, 1},
      {"any other failure: the algorithm", true, Scripted::Reader::Std, 0, true, Value, 1, 1},
      {"inactive, no value anywhere", false, Scripted::Reader::Value, 0, false, Throws, 0, 0},
      {"evaluator fails, algorithm has no value", true, Scripted::Reader::Usage, 0, false, Throws, 0, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    TavEnv env;
    TavEnvI* ei = env.getImpl();
    Scripted* s = new (ei) Scripted(ei, "s");
    s->reader = r.reader;
    s->readerValue = r.readerValue;
    TavSolution sol(env);
    if (r.solutionHasValue) sol.setValue(TavConstraint(s), 1.0);
    ei->getModelEvaluator()->setActive(r.active);
    switch (r.expect) {
      case Value: EXPECT_EQ(sol.getValue(TavConstraint(s)), r.value); break;
      case Throws:
        EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { sol.getValue(TavConstraint(s)); }),
                  "TavSolution: the constraint has no value");
        break;
      case ThrowsUnbound: EXPECT_THROW(sol.getValue(TavConstraint(s)), TavModelEvaluator::Unbound); break;
    }
    EXPECT_EQ(s->readerCalls, r.readerCalls);
    env.end();
  }
}

// A kind that keeps the base's eval, evaluated by the active evaluator,
// reaches the evaluator's reader, which has no value of its own: the
// algorithm answers, and nothing loops.
TEST(Constraints, EvaluatorReadingAConstraintComesBackToTheAlgorithm) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint b(new (ei) Bare(ei, "b"));
  TavModelEvaluator* ev = ei->getModelEvaluator();
  ev->setActive(true);
  TavSolution sol(env);
  sol.setValue(b, 1.0);
  EXPECT_EQ(sol.getValue(b), 1.0);
  EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { ev->evaluate(b); }), "TavAlgorithm: the constraint has no value");
  EXPECT_THROW(b.getImpl()->eval(TavAlgorithm()), TavEmptyHandleException);
  ev->setActive(false);
  env.end();
}

TEST(Constraints, AlgorithmsAnswerForConstraints) {
  struct Knowing : RecordingAlg {
    using RecordingAlg::RecordingAlg;
    double getValue(const TavNumVarI*) const override { return 0.0; }
    double getValue(const TavConstraintI* ct) const override { return ct->getId() % 2 ? 1.0 : 0.0; }
  };
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint a(new (ei) Bare(ei)), b(new (ei) Bare(ei));
  Knowing knowing(ei);
  RecordingAlg plain(ei);
  EXPECT_EQ(a.getImpl()->eval(&knowing) + b.getImpl()->eval(&knowing), 1.0);
  EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { a.getImpl()->eval(&plain); }),
            "TavAlgorithm: the constraint has no value");

  // A constraint's own eval (here x <= 3) does not go through the base.
  TavNumVar x(env, 0, 10, TavNumVar::Float, "x");
  TavConstraint m(new (ei) AtMost(ei, x.getImpl(), 3, "m"));
  TavSolution sol(env);
  for (double v : {2.0, 3.0, 3.5}) {
    sol.setValue(x, v);
    EXPECT_EQ(sol.getValue(m), v <= 3 ? 1.0 : 0.0) << v;
  }
  EXPECT_EQ(show(m), "x[0 .. 10]  <= 3");
  // Its clone goes through the cloning pass like any node's.
  TavEnv other;
  TavExtractableI* mc = ei->cloneInto(m.getImpl(), other.getImpl());
  EXPECT_EQ(mc->getEnv(), other.getImpl());
  EXPECT_EQ(showNode(mc), "x[0 .. 10]  <= 3");
  other.end();
  env.end();
}

TEST(Constraints, SolutionHoldsConstraintValuesApartFromVariables) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavSolution sol(env);
  TavNumVar x(env);
  TavConstraint a(new (ei) Bare(ei)), b(new (ei) Bare(ei));
  sol.setValue(x, 7);
  sol.setValue(a, 1);
  sol.setValue(b, 0);
  sol.setValue(a, 0);  // the last value holds
  EXPECT_EQ(sol.getValue(a), 0.0);
  EXPECT_EQ(sol.getValue(b), 0.0);
  EXPECT_EQ(sol.getValue(x), 7.0);
  EXPECT_THROW(sol.setValue(TavConstraint(), 1), TavEmptyHandleException);
  TavConstraint c(new (ei) Bare(ei));
  EXPECT_THROW(sol.getValue(c), TavAlgorithm::Exception);
  env.end();
}

// ---------------------------------------------------------------- constraint arrays

namespace {
/// TavConstraintArray(env, n, cs[0], ..., cs[K-1]).
template <std::size_t... I>
TavConstraintArray listOf(TavEnv env, TavInt n, const std::vector<TavConstraint>& cs, std::index_sequence<I...>) {
  return TavConstraintArray(env, n, cs[I]...);
}
template <std::size_t K>
TavConstraintArray listOf(TavEnv env, TavInt n, const std::vector<TavConstraint>& cs) {
  return listOf(env, n, cs, std::make_index_sequence<K>());
}
using ListMaker = TavConstraintArray (*)(TavEnv, TavInt, const std::vector<TavConstraint>&);
}  // namespace

TEST(ConstraintArrays, CountedConstructorsCheckTheCount) {
  const ListMaker makers[] = {listOf<1>, listOf<2>, listOf<3>, listOf<4>, listOf<5>,
                              listOf<6>, listOf<7>, listOf<8>, listOf<9>, listOf<10>};
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  std::vector<TavConstraint> cs;
  for (TavInt k = 0; k < 10; ++k) cs.push_back(TavConstraint(new (ei) TavConstConstraintI(ei, nullptr, k % 2)));
  for (TavInt k = 1; k <= 10; ++k) {
    SCOPED_TRACE(k);
    ListMaker make = makers[k - 1];
    TavConstraintArray a = make(env, k, cs);
    ASSERT_EQ(a.getSize(), k);
    for (TavInt i = 0; i < k; ++i) EXPECT_EQ(a[i].getImpl(), cs[(std::size_t)i].getImpl());
    a.end();
    const std::string message = "TavConstraintArray::TavConstraintArray: n !=" + std::to_string(k);
    for (TavInt n : {k - 1, k + 1, TavInt(0), TavInt(-1)}) {
      if (n == k) continue;
      Counters before(ei);
      EXPECT_EQ(messageOf<TavWrongUsage>([&] { make(env, n, cs); }), message) << "n = " << n;
      EXPECT_TRUE(before.same()) << "n = " << n;  // the count is checked before the array is made
    }
  }
  env.end();
}

TEST(ConstraintArrays, HoldPrintAndHandOutConstraints) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint t(new (ei) TavConstConstraintI(ei, nullptr, 1)), f(new (ei) TavConstConstraintI(ei, nullptr, 0));
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavConstraintArray(env, 3, t, f); }),
            "TavConstraintArray::TavConstraintArray: n !=2");
  TavConstraintArray a(env, 2, t, f);
  a.add(t);
  EXPECT_EQ(show(a), show(TavExtractableArray(a.getImpl())));
  EXPECT_NE(show(a).find("TrueConstraint"), std::string::npos);
  TavConstraintArray empty(env, 2);
  EXPECT_EQ(empty[0].getImpl(), nullptr);
  empty[1] = f;
  EXPECT_EQ(empty.getElement(1), f.getImpl());
  TavConstraint back = a[1];
  EXPECT_FALSE(static_cast<TavConstConstraintI*>(back.getImpl())->isTrue());
  a.end();
  empty.end();
  env.end();
}

// ---------------------------------------------------------------- conditional expressions

// How the operands of the conditional tests print: name and bounds.
#define VC "c[-10 .. 10] "
#define VX "x[-10 .. 10] "
#define VY "y[-10 .. 10] "
#define VI "i[-10 .. 10] "
#define VJ "j[-10 .. 10] "

namespace {
/// Operands of the conditional tests: condition c (a continuous variable, so
/// that any value can be tried), numeric branches x, y, integer branches i, j.
struct CondModel {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavNumVar c{env, -10, 10, TavNumVar::Float, "c"};
  TavNumVar x{env, -10, 10, TavNumVar::Float, "x"};
  TavNumVar y{env, -10, 10, TavNumVar::Float, "y"};
  TavIntVar i{env, -10, 10, "i"};
  TavIntVar j{env, -10, 10, "j"};
  TavSolution sol{env};
  CondModel() {
    sol.setValue(x, 4.5);
    sol.setValue(y, -2.25);
    sol.setValue(i, 6);
    sol.setValue(j, 8);
  }
  double valueAt(TavNumExprI* node, double cond) {
    sol.setValue(c, cond);
    return sol.getValue(TavNumExprArg(node));
  }
  /// The variable of that name, null for none.
  TavNumVarI* var(char name) const {
    for (const TavNumVar& v : {c, x, y, TavNumVar(i), TavNumVar(j)})
      if (v.getName()[0] == name) return v.getImpl();
    return nullptr;
  }
};

/// The construction form that the present branches call for.
template <class Node, class E, class Cst>
TavNumExprI* conditional(TavEnvI* ei, TavNumExprI* cond, E* t, Cst tc, E* e, Cst ec) {
  if (t && e) return new (ei) Node(ei, cond, t, e);
  if (t) return new (ei) Node(ei, cond, t, ec);
  if (e) return new (ei) Node(ei, cond, tc, e);
  return new (ei) Node(ei, cond, tc, ec);
}

/// One construction form: each branch a variable (by name) or, for '-', a constant.
struct Form {
  bool integer;
  char thenVar;
  double thenCst;
  char elseVar;
  double elseCst;
  const char* text;  // in both syntaxes
  double thenValue, elseValue;
  const char* walk;
  TavNumExprI* build(CondModel& m, TavNumExprI* cond) const {
    if (integer)
      return conditional<TavConditionalIntExprI, TavIntExprI>(m.ei, cond, m.var(thenVar), (TavInt)thenCst,
                                                              m.var(elseVar), (TavInt)elseCst);
    return conditional<TavConditionalNumExprI, TavNumExprI>(m.ei, cond, m.var(thenVar), thenCst, m.var(elseVar),
                                                            elseCst);
  }
};
const Form Forms[] = {
    {false, 'x', 0, 'y', 0, VC " ? " VX " : " VY "0 : " VY, 4.5, -2.25, "(<" VC "><" VX "><" VY ">)"},
    {false, 'x', 0, '-', -1.5, VC " ? " VX " : -1.50 : ", 4.5, -1.5, "(<" VC "><" VX ">)"},
    {false, '-', 2.5, 'y', 0, VC " ? 2.5 : " VY, 2.5, -2.25, "(<" VC "><" VY ">)"},
    {false, '-', 2.5, '-', -1.5, VC " ? 2.5 : ", 2.5, -1.5, "(<" VC ">)"},
    {false, '-', 0.125, '-', 1e20, VC " ? 0.125 : ", 0.125, 1e20, "(<" VC ">)"},
    {false, 'x', 0, '-', 1e20, VC " ? " VX " : 1e+200 : ", 4.5, 1e20, "(<" VC "><" VX ">)"},
    {true, 'i', 0, 'j', 0, VC " ? " VI " : " VJ "0 : " VJ, 6, 8, "(<" VC "><" VI "><" VJ ">)"},
    {true, 'i', 0, '-', -3, VC " ? " VI " : -30 : ", 6, -3, "(<" VC "><" VI ">)"},
    {true, '-', 7, 'j', 0, VC " ? 7 : " VJ, 7, 8, "(<" VC "><" VJ ">)"},
    {true, '-', 0, '-', -3, VC " ? 0 : ", 0, -3, "(<" VC ">)"},
    {true, 'i', 0, '-', 9007199254740992.0, VC " ? " VI " : 90071992547409920 : ", 6, 9007199254740992.0,
     "(<" VC "><" VI ">)"},
};
}  // namespace

TEST(Conditionals, FormsEvaluatePrintWalkAndClone) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // Only exactly 1 is true.
  const std::pair<double, bool> conditions[] = {{1.0, true},  {0.0, false},  {0.999, false}, {1.0000001, false},
                                                {2.0, false}, {-1.0, false}, {nan, false}};
  for (const Form& f : Forms) {
    SCOPED_TRACE(f.text);
    CondModel m;
    TavNumExprI* node = f.build(m, m.c.getImpl());
    EXPECT_EQ(node->isInteger(), f.integer);
    EXPECT_EQ(node->isType(TavIntExprI::GetTypeInfo()), f.integer);
    EXPECT_STREQ(node->getRttiTypeName(), f.integer ? "TavConditionalIntExprI" : "TavConditionalNumExprI");
    for (const auto& cv : conditions)
      EXPECT_EQ(m.valueAt(node, cv.first), cv.second ? f.thenValue : f.elseValue) << cv.first;
    for (bool library : {true, false}) {
      m.ei->setLibrarySyntaxDisplay(library);
      EXPECT_EQ(showNode(node), f.text);
    }
    WalkRecorder w;
    node->visitSubExtractables(&w);
    EXPECT_EQ(w.seen, f.walk);

    // The clone, in another environment, has the same form over the clones
    // of the node's children.
    TavEnv other;
    auto* clone = static_cast<TavNumExprI*>(m.ei->cloneInto(node, other.getImpl()));
    EXPECT_EQ(clone->getEnv(), other.getImpl());
    EXPECT_EQ(clone->getTypeInfo(), node->getTypeInfo());
    EXPECT_EQ(showNode(clone), f.text);
    struct Children : TavExtractableVisitor {
      void visitChild(TavExtractableI*, TavExtractableI* child) override { seen.push_back(child); }
      std::vector<TavExtractableI*> seen;
    } mine, theirs;
    node->visitSubExtractables(&mine);
    clone->visitSubExtractables(&theirs);
    ASSERT_EQ(mine.seen.size(), theirs.seen.size());
    for (std::size_t k = 0; k < mine.seen.size(); ++k) EXPECT_EQ(m.ei->getClone(mine.seen[k]), theirs.seen[k]);
    TavSolution sol(other);
    for (TavExtractableI* child : theirs.seen)
      sol.setValue(TavNumVar(static_cast<TavNumVarI*>(child)), child->getName()[0] == 'c' ? 0.0 : 3.0);
    EXPECT_EQ(sol.getValue(TavNumExprArg(clone)), f.elseVar == '-' ? f.elseValue : 3.0);
    m.ei->clearCloneMap();
    other.end();
    m.env.end();
  }
}

TEST(Conditionals, ConditionsAndBranchesOfAnyKind) {
  CondModel m;
  TavEnvI* ei = m.ei;
  // A number literal is a constant branch, 0 included (not a missing expression).
  auto* zero = new (ei) TavConditionalIntExprI(ei, m.c.getImpl(), 0, 1);
  EXPECT_EQ(zero->getThen(), nullptr);
  EXPECT_EQ(showNode(new (ei) TavConditionalNumExprI(ei, m.c.getImpl(), 0, m.y.getImpl())), VC " ? 0 : " VY);
  // A constraint as condition, a conditional as branch.
  TavConstraint yes(new (ei) TavConstConstraintI(ei, nullptr, 1)), no(new (ei) TavConstConstraintI(ei, nullptr, 0));
  auto* inner = new (ei) TavConditionalIntExprI(ei, no.getImpl(), 1, 2);
  auto* outer = new (ei) TavConditionalIntExprI(ei, yes.getImpl(), inner, m.j.getImpl());
  EXPECT_EQ(m.sol.getValue(TavNumExprArg(outer)), 2.0);
  EXPECT_EQ(showNode(outer), "TrueConstraint  ? FalseConstraint  ? 1 :  : " VJ "0 : " VJ);
  // A linear expression as condition: i - 5 is 1 at i = 6.
  TavNumExprArg lin = m.i - 5;
  auto* byLin = new (ei) TavConditionalNumExprI(ei, lin.getImpl(), m.x.getImpl(), 0.0);
  EXPECT_EQ(m.sol.getValue(TavNumExprArg(byLin)), 4.5);
  m.sol.setValue(m.i, 7);
  EXPECT_EQ(m.sol.getValue(TavNumExprArg(byLin)), 0.0);
  // No condition: refused before anything is kept.
  TavNumExprArg sq = TavSquare(m.x);
  Counters before(ei);
  EXPECT_THROW(new (ei) TavConditionalNumExprI(ei, nullptr, sq.getImpl(), 1.0), TavEmptyHandleException);
  EXPECT_THROW(new (ei) TavConditionalIntExprI(ei, nullptr, 1, 2), TavEmptyHandleException);
  EXPECT_TRUE(before.same());
  EXPECT_EQ(sq.getImpl()->getRefCount(), 0);
  m.env.end();
}

// The node holds one reference on every expression it has, the condition
// included, and gives each back when it goes: a counted condition does not
// outlive the last conditional holding it. A constraint condition is not
// counted and stays.
TEST(Conditionals, ReferencesAreTakenAndGivenBack) {
  CondModel m;
  TavEnvI* ei = m.ei;
  const TavInt live = ei->getLiveObjectCount();
  TavNumExprArg cond = TavAbs(m.c);
  TavNumExprArg thenE = TavSquare(m.x);
  TavNumExprArg elseE = TavAbs(m.y);
  TavNumExpr a(TavNumExprArg(new (ei) TavConditionalNumExprI(ei, cond.getImpl(), thenE.getImpl(), elseE.getImpl())));
  TavNumExpr b(TavNumExprArg(new (ei) TavConditionalNumExprI(ei, cond.getImpl(), 1.0, elseE.getImpl())));
  EXPECT_EQ(cond.getImpl()->getRefCount(), 2);
  EXPECT_EQ(thenE.getImpl()->getRefCount(), 1);
  EXPECT_EQ(elseE.getImpl()->getRefCount(), 2);
  a.end();
  EXPECT_EQ(cond.getImpl()->getRefCount(), 1);
  EXPECT_EQ(elseE.getImpl()->getRefCount(), 1);
  EXPECT_EQ(ei->getLiveObjectCount(), live + 3);  // b, its condition and its else-expression
  b.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live);

  TavConstraint ct(new (ei) TavConstConstraintI(ei, nullptr, 1));
  TavNumExpr c(TavNumExprArg(new (ei) TavConditionalIntExprI(ei, ct.getImpl(), 1, 0)));
  c.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live + 1);  // the constraint
  EXPECT_EQ(show(ct), "TrueConstraint ");
  m.env.end();
}

// A chain far deeper than the call stack evaluates, prints and goes.
TEST(Conditionals, DeepChainsNeedNoDeepStack) {
#ifdef TAV_ASAN
  constexpr long Depth = 50000;
#else
  constexpr long Depth = 300000;
#endif
  CondModel m;
  TavEnvI* ei = m.ei;
  const TavInt live = ei->getLiveObjectCount();
  TavIntExprI* e = m.i.getImpl();
  for (long k = 0; k < Depth; ++k) e = new (ei) TavConditionalIntExprI(ei, m.c.getImpl(), e, TavInt(k % 7));
  TavIntExpr top{TavIntExprArg(e)};
  EXPECT_EQ(m.valueAt(e, 1.0), 6.0);
  EXPECT_EQ(m.valueAt(e, 0.0), (double)((Depth - 1) % 7));
  // Level k prints "c ? " (level k-1) " : " (k % 7) "0 : ".
  std::string expected;
  for (long k = 0; k < Depth; ++k) expected += VC " ? ";
  expected += VI;
  for (long k = 0; k < Depth; ++k) expected += " : " + std::to_string(k % 7) + "0 : ";
  EXPECT_TRUE(showNode(e) == expected);
  top.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live);
  m.env.end();
}

// ---------------------------------------------------------------- failure atomicity

// Each construction, and the clone of what it builds, runs with the k-th
// allocation failing, k = 1, 2, ... until it succeeds; every failure leaves
// the environments and the operands' counts as they were.
TEST(Conditionals, AllocationFailureLeavesTheModelAsItWas) {
  CondModel m;
  TavNumExpr cond = m.c * m.x;  // counted: failures must leave its count at 1
  const std::vector<std::pair<const char*, std::function<TavNumExprArg()>>> ops = {
      {"numeric", [&] { return TavNumExprArg(new (m.ei) TavConditionalNumExprI(m.ei, cond.getImpl(), m.x.getImpl(), 1.0)); }},
      {"integer", [&] { return TavNumExprArg(new (m.ei) TavConditionalIntExprI(m.ei, cond.getImpl(), 3, m.j.getImpl())); }},
      {"over new operands",
       [&] {
         TavNumExpr sq = TavSquare(m.x), ab;
         try {
           ab = TavAbs(m.y);
           TavNumExprArg made(new (m.ei) TavConditionalNumExprI(m.ei, cond.getImpl(), sq.getImpl(), ab.getImpl()));
           sq.end(), ab.end();
           return made;
         } catch (...) {
           if (ab.getImpl()) ab.end();
           sq.end();
           throw;
         }
       }},
  };
  for (const auto& [what, op] : ops) {
    SCOPED_TRACE(what);
    tavtest::sweepBuildAndClone(m.ei, op, [&](TavInt k) { ASSERT_EQ(cond.getImpl()->getRefCount(), 1) << k; });
  }
  m.env.end();
}

// A constant constraint's clone stays in the source environment.
TEST(Constraints, AllocationFailureLeavesTheModelAsItWas) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  const Counters before(ei);
  TavConstConstraintI* c = static_cast<TavConstConstraintI*>(
      tavtest::buildThroughFailures(ei, [&] { return TavNumExprArg(new (ei) TavConstConstraintI(ei, "a rather long name", 1)); },
                                    [&](TavInt k) { EXPECT_TRUE(before.same()) << k; })
          .getImpl());
  const Counters built(ei);
  TavExtractableI* clone =
      tavtest::buildThroughFailures(ei, [&] { return TavNumExprArg(static_cast<TavNumExprI*>(c->makeClone(ei))); },
                                    [&](TavInt k) { EXPECT_TRUE(built.same()) << k; })
          .getImpl();
  clone->end();
  c->end();
  EXPECT_TRUE(before.same());
  env.end();
}

// The counted constructors build their array in the environment: when the
// array cannot grow, it goes back, and the environment is as it was.
TEST(ConstraintArrays, AllocationFailureLeavesNoArrayBehind) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint t(new (ei) TavConstConstraintI(ei, nullptr, 1));
  TavConstraintArray(env, 3, t, t, t).end();
  Counters before(ei);
  bool done = false;
  for (TavInt k = 1; !done && k < 100; ++k) {
    ei->getMemory().failAfter(k);
    try {
      TavConstraintArray a(env, 3, t, t, t);
      ei->getMemory().failAfter(0);
      EXPECT_EQ(a.getSize(), 3);
      a.end();
      done = true;
    } catch (const std::bad_alloc&) {
    }
    ei->getMemory().failAfter(0);
    EXPECT_TRUE(before.same()) << "failing allocation " << k;
  }
  EXPECT_TRUE(done);
  env.end();
}
