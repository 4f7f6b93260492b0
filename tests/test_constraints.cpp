// Constraints (the base with its hooks and its order of value sources, the
// constant constraint, constraint arrays, constraint values in a solution)
// and the conditional expressions. Conditionals over generated programs
// are compared with a reference by the fuzzer.
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

/// The plainest constraint kind of the tests' own: children only; value,
/// text and clone are the base's.
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

/// The hooks the tests install: they record what they were called with.
struct HookLog {
  static inline TavAlgorithmI* alg = nullptr;
  static inline const TavExtractableI* obj = nullptr;
  static inline void* data = nullptr;
  static inline int calls = 0;
  static void take(TavAlgorithm a, const TavExtractableI* o, void* d) {
    alg = a.getImpl(), obj = o, data = d;
    ++calls;
  }
};

}  // namespace

// ---------------------------------------------------------------- constraints

// Any nonzero truth holds, 1 << 40 included; the value comes from the
// truth alone, neither from the algorithm nor from the solution's own value
// of the constraint; the text is the same in both syntaxes; no children; an
// integer expression that no count holds.
TEST(Constraints, ConstantConstraintsHoldTheirTruthInEverySyntax) {
  const struct {
    TavInt truth;
    bool isTrue;
  } rows[] = {{1, true}, {0, false}, {-7, true}, {TavInt(1) << 40, true}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.truth);
    TavEnv env;
    TavEnvI* ei = env.getImpl();
    TavConstConstraintI* c = new (ei) TavConstConstraintI(ei, "c", r.truth);
    TavConstraint ct(c);
    EXPECT_EQ(c->isTrue(), r.isTrue);
    EXPECT_EQ(c->eval(TavAlgorithm()), r.isTrue ? 1.0 : 0.0);
    TavSolution sol(env);
    sol.setValue(ct, r.isTrue ? 0.0 : 1.0);
    EXPECT_EQ(sol.getValue(ct), r.isTrue ? 1.0 : 0.0);
    for (bool library : {true, false}) {
      ei->setLibrarySyntaxDisplay(library);
      EXPECT_EQ(show(ct), r.isTrue ? "TrueConstraint " : "FalseConstraint ");
    }
    EXPECT_EQ(tavtest::visitOf(c), (std::vector<const TavExtractableI*>{c, c}));
    EXPECT_TRUE(c->isType(TavConstraintI::GetTypeInfo()) && c->isType(TavIntExprI::GetTypeInfo()));
    EXPECT_TRUE(c->isInteger());
    EXPECT_FALSE(c->isRefCountedExpr());
    env.end();
  }
}

// A solution finds a constraint's value by the constraint itself: one of
// another environment with the same identifier has none.
TEST(Constraints, SolutionValuesBelongToTheirConstraint) {
  TavEnv env, other;
  TavConstraint ct(new (env.getImpl()) TavConstConstraintI(env.getImpl(), "c", 1));
  TavConstraint twin;
  do twin = TavConstraint(new (other.getImpl()) TavConstConstraintI(other.getImpl(), nullptr, 1));
  while (twin.getImpl()->getId() < ct.getImpl()->getId());
  ASSERT_EQ(twin.getImpl()->getId(), ct.getImpl()->getId());
  TavSolution sol(env);
  sol.setValue(ct, 0.0);
  EXPECT_EQ(sol.getImpl()->getValue(ct.getImpl()), 0.0);
  EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { sol.getImpl()->getValue(twin.getImpl()); }),
            "TavSolution: the constraint has no value");
  other.end();
  env.end();
}

// Kept on purpose: the clone is made, unnamed, in the constraint's own
// environment, whatever the target.
TEST(Constraints, ConstantConstraintCloneIsUnnamedAndStaysHome) {
  TavEnv a, b;
  TavEnvI* ea = a.getImpl();
  TavConstConstraintI* c = new (ea) TavConstConstraintI(ea, "named", 0);
  const TavInt before = ea->getLiveObjectCount();
  auto* clone = static_cast<TavConstConstraintI*>(c->makeClone(b.getImpl()));
  EXPECT_EQ(clone->getEnv(), ea);
  EXPECT_EQ(ea->getLiveObjectCount(), before + 1);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(showNode(clone), "FalseConstraint ");
  a.end();
  b.end();
}

// Constraints live until ended: no count of a parent or a handle frees them.
TEST(Constraints, ReferenceCountingNeverFreesAConstraint) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavIntVar i(env, 0, 10, "i");
  TavConstraint t(new (ei) TavConstConstraintI(ei, "t", 1)), f(new (ei) TavConstConstraintI(ei, "f", 0));
  const TavInt live = ei->getLiveObjectCount();
  t.getImpl()->lockRef();
  t.getImpl()->release();
  ei->release(t.getImpl());
  EXPECT_EQ(ei->getLiveObjectCount(), live);
  // As integer operands: the parents go, the constraints stay.
  TavIntExpr sum(t + f + i);
  TavSolution sol(env);
  sol.setValue(i, 4);
  EXPECT_EQ(sol.getValue(sum), 5.0);
  sum.end();
  EXPECT_EQ(ei->getLiveObjectCount(), live);
  EXPECT_EQ(show(t), "TrueConstraint ");
  t.end();  // ending the handle ends the constraint
  EXPECT_EQ(ei->getLiveObjectCount(), live - 1);
  env.end();
}

// The two hooks of the base serve every constraint kind; unset, they fail
// as an extraction does. (The hooks every class has are checked in
// test_protocol.cpp.)
TEST(Constraints, HooksOfTheBaseServeEveryConstraint) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  RecordingAlg alg(ei);
  const TavConstraintI* both[] = {new (ei) TavConstConstraintI(ei, nullptr, 1), new (ei) Bare(ei)};
  int token = 0;
  for (const TavConstraintI* ct : both) {
    EXPECT_THROW(ct->whenAddedToCP(&alg, &token), TavAlgorithm::ExtractFailure);
    EXPECT_THROW(ct->whenRemovedFromCP(&alg, &token), TavAlgorithm::ExtractFailure);
  }
  TavConstraintI::_addToCP = TavConstraintI::_removeFromCP = &HookLog::take;
  HookLog::calls = 0;
  for (const TavConstraintI* ct : both) {
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
  }
  EXPECT_EQ(HookLog::calls, 4);
  TavConstraintI::_addToCP = TavConstraintI::_removeFromCP = nullptr;
  env.end();
}

// The base's eval: the model evaluator when it is active, else (and when the
// evaluator fails otherwise than with Unbound) the algorithm's own value.
TEST(Constraints, EvalAsksTheEvaluatorThenTheAlgorithm) {
  enum Expect { Value, Throws, ThrowsUnbound };
  const struct {
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
  for (const auto& r : rows) {
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
// algorithm answers, and nothing loops. Any algorithm may answer for a
// constraint; one that does not says so.
TEST(Constraints, EvaluatorReadingAConstraintComesBackToTheAlgorithm) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint b(new (ei) Bare(ei, "b"));
  TavModelEvaluator* ev = ei->getModelEvaluator();
  ev->setActive(true);
  TavSolution sol(env);
  sol.setValue(b, 0.0);
  sol.setValue(b, 1.0);  // the last value holds
  EXPECT_EQ(sol.getValue(b), 1.0);
  EXPECT_THROW(sol.setValue(TavConstraint(), 1), TavEmptyHandleException);
  EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { ev->evaluate(b); }), "TavAlgorithm: the constraint has no value");
  EXPECT_THROW(b.getImpl()->eval(TavAlgorithm()), TavEmptyHandleException);
  ev->setActive(false);

  struct Knowing : RecordingAlg {
    using RecordingAlg::RecordingAlg;
    double getValue(const TavNumVarI*) const override { return 0.0; }
    double getValue(const TavConstraintI* ct) const override { return ct->getId() % 2 ? 1.0 : 0.0; }
  } knowing(ei);
  RecordingAlg plain(ei);
  TavConstraint c(new (ei) Bare(ei));
  EXPECT_EQ(b.getImpl()->eval(&knowing) + c.getImpl()->eval(&knowing), 1.0);
  EXPECT_EQ(messageOf<TavAlgorithm::Exception>([&] { c.getImpl()->eval(&plain); }),
            "TavAlgorithm: the constraint has no value");
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

// The counted constructors build their array in the environment: when the
// array cannot grow, it goes back, and the environment is as it was.
TEST(ConstraintArrays, AllocationFailureLeavesNoArrayBehind) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavConstraint t(new (ei) TavConstConstraintI(ei, nullptr, 1));
  TavConstraintArray(env, 3, t, t, t).end();
  Counters before(ei);
  const auto same = [&](TavInt k) { EXPECT_TRUE(before.same()) << "failing allocation " << k; };
  const int failures = tavtest::sweepFailures(ei, [&] {
    TavConstraintArray a(env, 3, t, t, t);
    ei->getMemory().failAfter(0);
    EXPECT_EQ(a.getSize(), 3);
    a.end();
  }, same);
  EXPECT_GE(failures, 0);
  same(0);  // the array that was made is ended again
  env.end();
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
  CondModel() { sol.setValue(x, 4.5), sol.setValue(y, -2.25), sol.setValue(i, 6), sol.setValue(j, 8); }
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

/// One construction form: each branch a variable (by name) or, for '-', a
/// constant. The text, the same in both syntaxes, keeps its old quirks: the
/// else-expression may print twice and, with two constants, the
/// else-constant not at all.
struct Form {
  bool integer;
  char thenVar;
  double thenCst;
  char elseVar;
  double elseCst;
  const char* text;
  double thenValue, elseValue;
  const char* children;  // their names, in visiting order
  TavNumExprI* build(CondModel& m, TavNumExprI* cond) const {
    if (integer)
      return conditional<TavConditionalIntExprI, TavIntExprI>(m.ei, cond, m.var(thenVar), (TavInt)thenCst,
                                                              m.var(elseVar), (TavInt)elseCst);
    return conditional<TavConditionalNumExprI, TavNumExprI>(m.ei, cond, m.var(thenVar), thenCst, m.var(elseVar),
                                                            elseCst);
  }
};
const Form Forms[] = {
    {false, 'x', 0, 'y', 0, VC " ? " VX " : " VY "0 : " VY, 4.5, -2.25, "cxy"},
    {false, 'x', 0, '-', -1.5, VC " ? " VX " : -1.50 : ", 4.5, -1.5, "cx"},
    {false, '-', 2.5, 'y', 0, VC " ? 2.5 : " VY, 2.5, -2.25, "cy"},
    {false, '-', 2.5, '-', -1.5, VC " ? 2.5 : ", 2.5, -1.5, "c"},
    {false, '-', 0.125, '-', 1e20, VC " ? 0.125 : ", 0.125, 1e20, "c"},
    {false, 'x', 0, '-', 1e20, VC " ? " VX " : 1e+200 : ", 4.5, 1e20, "cx"},
    {true, 'i', 0, 'j', 0, VC " ? " VI " : " VJ "0 : " VJ, 6, 8, "cij"},
    {true, 'i', 0, '-', -3, VC " ? " VI " : -30 : ", 6, -3, "ci"},
    {true, '-', 7, 'j', 0, VC " ? 7 : " VJ, 7, 8, "cj"},
    {true, '-', 0, '-', -3, VC " ? 0 : ", 0, -3, "c"},
    {true, 'i', 0, '-', 9007199254740992.0, VC " ? " VI " : 90071992547409920 : ", 6, 9007199254740992.0, "ci"},
};

/// The names of n's children, in visiting order, after checking that the
/// visit begins and ends with n.
std::string childNames(TavExtractableI* n) {
  const std::vector<const TavExtractableI*> seen = tavtest::visitOf(n);
  EXPECT_TRUE(seen.size() >= 2 && seen.front() == n && seen.back() == n);
  std::string names;
  for (std::size_t k = 1; k + 1 < seen.size(); ++k) names += seen[k]->getName()[0];
  return names;
}
}  // namespace

// Only a condition of exactly 1 is true (not 0.999, 1.0000001, 2 or NaN).
// The clone, in another environment, has the same form over the clones of
// the node's children.
TEST(Conditionals, FormsEvaluatePrintWalkAndClone) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::pair<double, bool> conditions[] = {{1.0, true},  {0.0, false},  {0.999, false}, {1.0000001, false},
                                                {2.0, false}, {-1.0, false}, {nan, false}};
  for (const Form& f : Forms) {
    SCOPED_TRACE(f.text);
    CondModel m;
    TavNumExprI* node = f.build(m, m.c.getImpl());
    EXPECT_EQ(node->isInteger(), f.integer);
    EXPECT_EQ(node->isType(TavIntExprI::GetTypeInfo()), f.integer);
    for (const auto& cv : conditions)
      EXPECT_EQ(m.valueAt(node, cv.first), cv.second ? f.thenValue : f.elseValue) << cv.first;
    for (bool library : {true, false}) {
      m.ei->setLibrarySyntaxDisplay(library);
      EXPECT_EQ(showNode(node), f.text);
    }
    EXPECT_EQ(childNames(node), f.children);

    TavEnv other;
    auto* clone = static_cast<TavNumExprI*>(m.ei->cloneInto(node, other.getImpl()));
    EXPECT_EQ(clone->getEnv(), other.getImpl());
    EXPECT_EQ(clone->getTypeInfo(), node->getTypeInfo());
    EXPECT_EQ(showNode(clone), f.text);
    const std::vector<const TavExtractableI*> mine = tavtest::visitOf(node), theirs = tavtest::visitOf(clone);
    ASSERT_EQ(mine.size(), theirs.size());
    TavSolution sol(other);
    for (std::size_t k = 1; k + 1 < mine.size(); ++k) {
      EXPECT_EQ(m.ei->getClone(mine[k]), theirs[k]);
      sol.setValue(TavNumVar((TavNumVarI*)theirs[k]), theirs[k]->getName()[0] == 'c' ? 0.0 : 3.0);
    }
    EXPECT_EQ(sol.getValue(TavNumExprArg(clone)), f.elseVar == '-' ? f.elseValue : 3.0);
    m.ei->clearCloneMap();
    other.end();
    m.env.end();
  }
}

// A number literal is a constant branch, 0 included (not a missing
// expression); a constraint may be the condition and a conditional a
// branch; no condition is refused before anything is kept.
TEST(Conditionals, ConditionsAndBranchesOfAnyKind) {
  CondModel m;
  TavEnvI* ei = m.ei;
  EXPECT_EQ((new (ei) TavConditionalIntExprI(ei, m.c.getImpl(), 0, 1))->getThen(), nullptr);
  EXPECT_EQ(showNode(new (ei) TavConditionalNumExprI(ei, m.c.getImpl(), 0, m.y.getImpl())), VC " ? 0 : " VY);
  TavConstraint yes(new (ei) TavConstConstraintI(ei, nullptr, 1)), no(new (ei) TavConstConstraintI(ei, nullptr, 0));
  auto* inner = new (ei) TavConditionalIntExprI(ei, no.getImpl(), 1, 2);
  auto* outer = new (ei) TavConditionalIntExprI(ei, yes.getImpl(), inner, m.j.getImpl());
  EXPECT_EQ(m.sol.getValue(TavNumExprArg(outer)), 2.0);
  EXPECT_EQ(showNode(outer), "TrueConstraint  ? FalseConstraint  ? 1 :  : " VJ "0 : " VJ);
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
  TavNumExprArg cond = TavAbs(m.c), thenE = TavSquare(m.x), elseE = TavAbs(m.y);
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
  TavNumExpr(TavNumExprArg(new (ei) TavConditionalIntExprI(ei, ct.getImpl(), 1, 0))).end();
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
