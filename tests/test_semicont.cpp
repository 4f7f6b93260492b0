// Semi-continuous variables (bounds in the domain, threshold in the variable
// and its record, display, the narrower clone, the clone registry, arrays)
// and constraint indicator variables; every constructor under allocation
// failure.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "semicont.h"
#include "sweep.h"
#include "tavexpression.h"
#include "test_support.h"

namespace {

/// A constraint of the tests' own: a fixed text, cloned into the target.
class Says final : public TavNode<Says, TavConstraintI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "Says";
  Says(TavEnvI* env, const char* text) : TavNode(env, nullptr), _text(text) {}
  void display(std::ostream& os) const override { os << _text; }
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override { return new (env) Says(env, _text); }

 private:
  const char* _text;
};
TAV_DEFINE_NODE_STATICS(Says)

/// Keeps (class name, variable, old, new) of every record while it is alive.
struct Recorder : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  struct Seen {
    std::string name;
    TavExtractableI* var;
    double oldValue, newValue;
  };
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange& c) override {
    auto* r = dynamic_cast<const TavSetSemiContBound*>(&c);
    seen.push_back(
        {c.getRttiTypeName(), c.getChangedExtractable(), r ? r->getOldValue() : 0, r ? r->getNewValue() : 0});
    if (r) {
      EXPECT_EQ(r->getVar().getImpl(), c.getChangedExtractable());
    }
  }
  std::vector<Seen> seen;
};

/// "(", "<" each child's text ">", ")".
struct Walk : TavExtractableVisitor {
  void beginVisit(TavExtractableI*) override { text += "("; }
  void visitChild(TavExtractableI*, TavExtractableI* c) override { text += "<" + showNode(c) + ">"; }
  void endVisit(TavExtractableI*) override { text += ")"; }
  std::string text;
};

/// Live objects, term cells and bytes of an environment, to compare later.
std::vector<TavInt> counters(TavEnvI* e) {
  return {e->getLiveObjectCount(), e->getLiveTermCount(), (TavInt)e->getMemory().getLiveBytes()};
}

/// TavSemiContVarArray(env, n, v[0], ..., v[K-1]) for K = 1 ... 10.
template <std::size_t... I>
TavSemiContVarArray listOf(TavEnv env, TavInt n, const std::vector<TavSemiContVar>& v, std::index_sequence<I...>) {
  return TavSemiContVarArray(env, n, v[I]...);
}
template <std::size_t K>
TavSemiContVarArray listOfK(TavEnv env, TavInt n, const std::vector<TavSemiContVar>& v) {
  return listOf(env, n, v, std::make_index_sequence<K>());
}
using ListCall = TavSemiContVarArray (*)(TavEnv, TavInt, const std::vector<TavSemiContVar>&);
const ListCall ListCalls[11] = {nullptr,    listOfK<1>, listOfK<2>, listOfK<3>, listOfK<4>, listOfK<5>,
                                listOfK<6>, listOfK<7>, listOfK<8>, listOfK<9>, listOfK<10>};

// A constraint becomes a new variable only when asked to; a list of
// semi-continuous variables takes nothing else.
static_assert(!std::is_convertible<TavConstraint, TavNumVar>::value, "never implicitly");
static_assert(!std::is_constructible<TavSemiContVarArray, TavEnv, TavInt, TavNumVar>::value, "plain variables refused");

class SemiCont : public ::testing::Test {
 protected:
  void TearDown() override { env.end(); }
  TavEnvI* ei() const { return env.getImpl(); }
  TavEnv env;
};

TEST_F(SemiCont, BoundsGoToTheDomainByTypeFirstThresholdStaysInTheVariable) {
  struct Row {
    TavNumVar::Type type;
    double sclb, ub, wantUb;
    TavNumVar::Type reported;
  };
  const std::vector<Row> rows = {
      {TavNumVar::Float, 2, 10, 10, TavNumVar::Float},
      {TavNumVar::Int, 1.5, 7.2, 8, TavNumVar::Int},  // rounded up
      {TavNumVar::Bool, 0.5, 0.5, 0, TavNumVar::Int},  // truncated first
      {TavNumVar::Bool, 1, 5, 1, TavNumVar::Int},
  };
  TavNumColumn column(env);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.ub);
    TavSemiContVar s(env, r.sclb, r.ub, r.type, "s"), c(column, r.sclb, r.ub, r.type);
    for (const TavSemiContVar& v : {s, c}) {
      EXPECT_EQ(v.getSemiContinuousLb(), r.sclb);
      EXPECT_EQ(v.getLB(), 0.0);
      EXPECT_EQ(v.getUB(), r.wantUb);
      EXPECT_EQ(v.getType(), r.reported);
      EXPECT_TRUE(v.getImpl()->isType(TavNumVarI::GetTypeInfo()));
      EXPECT_FALSE(v.getImpl()->isType(TavConstraintIndVarI::GetTypeInfo()));
      EXPECT_EQ(v.getImpl()->getDomain(), (new (ei()) TavNumVarI(ei(), r.type, 0.0, r.ub))->getDomain());
    }
    EXPECT_STREQ(s.getName(), "s");
    EXPECT_EQ(column[column.getSize() - 1].getImpl(), c.getImpl());
  }
  EXPECT_EQ(column.getSize(), (TavInt)rows.size());
  column.end();

  TavSemiContVar bare(new (ei()) TavSemiContVarI(ei(), 3.0, "bare"));
  EXPECT_EQ(bare.getImpl()->getDomain(), nullptr);
  EXPECT_EQ(bare.getUB(), TavGetInfinity());
  EXPECT_EQ(bare.getSemiContinuousLb(), 3.0);
  EXPECT_STREQ(bare.getImpl()->getRttiTypeName(), "TavSemiContVarI");
  TavSolution sol(env);
  sol.setValue(bare, 4.5);
  EXPECT_EQ(sol.getValue(2.0 * bare), 9.0);
}

TEST_F(SemiCont, ThresholdRecordsOnlyForAChangeWithOldAndNewValue) {
  Recorder rec(ei());
  TavSemiContVar s(env, 2, 10, TavNumVar::Float, "s");
  s.setSemiContinuousLb(2.0);
  EXPECT_TRUE(rec.seen.empty());
  s.setSemiContinuousLb(3.5);
  ASSERT_EQ(rec.seen.size(), 1u);
  EXPECT_EQ(rec.seen[0].name, "TavSetSemiContBound");
  EXPECT_EQ(rec.seen[0].var, s.getImpl());
  EXPECT_EQ(rec.seen[0].oldValue, 2.0);
  EXPECT_EQ(rec.seen[0].newValue, 3.5);
  EXPECT_EQ(s.getUB(), 10.0);  // the domain is not touched

  // Not-a-number never equals: stored and announced every time; -0 equals 0.
  s.setSemiContinuousLb(std::nan(""));
  s.setSemiContinuousLb(std::nan(""));
  s.setSemiContinuousLb(-0.0);
  s.setSemiContinuousLb(0.0);
  ASSERT_EQ(rec.seen.size(), 4u);
  EXPECT_EQ(rec.seen[1].oldValue, 3.5);
  EXPECT_TRUE(std::isnan(rec.seen[1].newValue));
  EXPECT_TRUE(std::isnan(rec.seen[2].oldValue));
  s.setUB(8.0);
  EXPECT_EQ(rec.seen.back().name, "TavSetNumVarBounds");

  // A refused record leaves the new threshold in place.
  tavtest::RefusingAlg refusing(ei());
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { s.setSemiContinuousLb(6.0); }), "refused");
  EXPECT_EQ(s.getSemiContinuousLb(), 6.0);

  const TavSetSemiContBound record(s.getImpl(), 1.0, 2.0);
  EXPECT_THROW(record.applyToCP(TavSolution(env), nullptr), TavAlgorithm::CannotChangeException);
  static const TavChange* applied = nullptr;
  TavSetSemiContBound::_applyCP = [](TavAlgorithm, const TavChange* c, void*) { applied = c; };
  record.applyToCP(TavSolution(env), nullptr);
  TavSetSemiContBound::_applyCP = nullptr;
  EXPECT_EQ(applied, &record);
}

TEST_F(SemiCont, DisplayAndTheNarrowerClone) {
  TavSemiContVar named(env, 2, 10, TavNumVar::Float, "x"), unnamed(env, 2.5, 10), integral(env, 1, 4, TavNumVar::Int);
  const std::string id = std::to_string(unnamed.getId()), iid = std::to_string(integral.getId());
  for (bool library : {false, true}) {
    ei()->setLibrarySyntaxDisplay(library);
    // The variable's own text runs on into the threshold line.
    EXPECT_EQ(show(named), "TavSemiContI (x)\nx[0 .. 10]   _threshold 2\n");
    EXPECT_EQ(show(unnamed), "TavSemiContI (" + id + ")\nTavNumVar(" + id + ")[0 .. 10]   _threshold 2.5\n");
    EXPECT_EQ(show(integral), "TavSemiContI (" + iid + ")\nTavIntVar(" + iid + ")[0 .. 4]   _threshold 1\n");
  }

  integral.setSemiContinuousLb(3.0);
  integral.setBounds(1, 7);
  TavEnv other;
  TavExtractableI* made = integral.getImpl()->makeClone(other.getImpl());
  ASSERT_TRUE(made->isType(TavSemiContVarI::GetTypeInfo()));
  TavSemiContVar c(static_cast<TavSemiContVarI*>(made));
  EXPECT_EQ(c.getEnv(), other);
  EXPECT_EQ(c.getSemiContinuousLb(), 3.0);
  EXPECT_EQ(c.getImpl()->getDomain(), nullptr);
  EXPECT_EQ(c.getType(), TavNumVar::Float);
  const std::string cid = std::to_string(c.getId());
  EXPECT_EQ(show(c), "TavSemiContI (" + cid + ")\nTavNumVar(" + cid + ")[0 .. " + show(TavGetInfinity()) +
                         "]   _threshold 3\n");
  EXPECT_EQ(TavSemiContVar(static_cast<TavSemiContVarI*>(named.getImpl()->makeClone(ei()))).getName(), nullptr);
  other.end();
}

TEST_F(SemiCont, CloneRegistryThroughTheHandle) {
  TavSemiContVar s(env, 2, 10, TavNumVar::Float, "s");
  TavEnv other;
  EXPECT_EQ(s.getClone(other).getImpl(), nullptr);
  TavExtractableI* made = ei()->cloneInto(s.getImpl(), other.getImpl());
  EXPECT_EQ(s.getClone(other).getImpl(), made);
  EXPECT_EQ(s.getClone().getImpl(), made);
  ei()->clearCloneMap();
  EXPECT_EQ(s.getClone().getImpl(), nullptr);

  TavSemiContVar mine(env, 1, 2), theirs(other, 1, 2);
  s.setClone(mine);
  s.setClone(theirs, other);
  EXPECT_EQ(s.getClone().getImpl(), mine.getImpl());  // each environment keeps its own pair
  EXPECT_EQ(s.getClone(other).getImpl(), theirs.getImpl());
  // Something else registered through the host is not passed off as a clone.
  ei()->setClone(s.getImpl(), TavNumVar(env, 0, 1).getImpl());
  EXPECT_THROW(s.getClone(), TavBadConversion);

  const TavSemiContVar empty;
  const TavEnv none(nullptr);
  for (const auto& run : std::vector<std::function<void()>>{
           [&] { empty.getClone(); }, [&] { empty.getClone(other); }, [&] { s.getClone(none); },
           [&] { empty.setClone(s); }, [&] { empty.setClone(s, other); }, [&] { s.setClone(s, none); },
           [&] { empty.getSemiContinuousLb(); }, [&] { empty.setSemiContinuousLb(1.0); },
           [&] { TavSemiContVar(none, 1, 2); }, [&] { TavSemiContVar(TavNumColumn(), 1, 2); }})
    EXPECT_EQ(messageOf<TavEmptyHandleException>(run), "<none>");
  other.end();
}

TEST_F(SemiCont, ArrayConstructorsAndTheirRefusals) {
  TavSemiContVarArray three(env, 3, 2.0, 10.0, TavNumVar::Int);
  ASSERT_EQ(three.getSize(), 3);
  EXPECT_EQ(three[2].getSemiContinuousLb(), 2.0);
  EXPECT_EQ(three[2].getUB(), 10.0);
  EXPECT_EQ(three[2].getType(), TavNumVar::Int);
  EXPECT_NE(three.getElement(0), three.getElement(1));
  EXPECT_EQ(TavSemiContVarArray(env, -3, 1.0, 2.0).getSize(), 0);

  TavNumArray sclbs(env, {1.0, 2.0, 3.0}), ubs(env, {4.0, 5.0, 6.0, 7.0}), shortArray(env, {1.0});
  TavSemiContVarArray pair(env, sclbs, ubs);  // a longer upper bound array is fine
  ASSERT_EQ(pair.getSize(), 3);
  EXPECT_EQ(pair[1].getSemiContinuousLb(), 2.0);
  EXPECT_EQ(pair[1].getUB(), 5.0);

  TavNumColumn a(env), b(env);
  TavNumColumnArray cols(env);
  cols.add(a);
  cols.add(TavNumColumn());
  cols.add(b);
  TavSemiContVarArray byColumn(env, cols, sclbs, ubs, TavNumVar::Int);
  ASSERT_EQ(byColumn.getSize(), 3);
  EXPECT_EQ(byColumn.getElement(1), nullptr);
  EXPECT_EQ(byColumn[2].getSemiContinuousLb(), 3.0);
  EXPECT_EQ(byColumn[2].getUB(), 6.0);
  EXPECT_EQ(a[0].getImpl(), byColumn.getElement(0));
  EXPECT_EQ(b[0].getImpl(), byColumn.getElement(2));

  const auto before = counters(ei());
  const std::string pairMessage =
      "TavSemiContVarArray::TavSemiContVarArray: upper bound array shorter than the threshold array";
  const std::string columnMessage =
      "TavSemiContVarArray::TavSemiContVarArray: bound arrays shorter than the column array";
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavSemiContVarArray(env, sclbs, shortArray); }), pairMessage);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavSemiContVarArray(env, cols, shortArray, ubs); }), columnMessage);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavSemiContVarArray(env, cols, sclbs, shortArray); }), columnMessage);
  const TavNumArray noArray;
  for (const auto& run : std::vector<std::function<void()>>{
           [&] { TavSemiContVarArray(env, noArray, ubs); }, [&] { TavSemiContVarArray(env, sclbs, noArray); },
           [&] { TavSemiContVarArray(env, TavNumColumnArray(), sclbs, ubs); },
           [&] { TavSemiContVarArray(env, cols, noArray, ubs); },
           [&] { TavSemiContVarArray(env, cols, sclbs, noArray); },
           [&] { TavSemiContVarArray(TavEnv(nullptr), 2, 1.0, 2.0); }})
    EXPECT_EQ(messageOf<TavEmptyHandleException>(run), "<none>");
  EXPECT_EQ(counters(ei()), before);
  EXPECT_EQ(a.getSize(), 1);  // nothing more installed
  a.end();
  b.end();
}

TEST_F(SemiCont, ArrayFromElementListsOneToTen) {
  std::vector<TavSemiContVar> v;
  for (int i = 0; i < 10; ++i) v.push_back(i == 3 ? TavSemiContVar() : TavSemiContVar(env, i, 20));
  for (TavInt k = 1; k <= 10; ++k) {
    SCOPED_TRACE(k);
    TavSemiContVarArray a = ListCalls[k](env, k, v);
    ASSERT_EQ(a.getSize(), k);
    for (TavInt i = 0; i < k; ++i) EXPECT_EQ(a.getElement(i), v[i].getImpl());  // an empty handle as null
    a.end();
    const auto before = counters(ei());
    const std::string message = "TavSemiContVarArray::TavSemiContVarArray: n !=" + std::to_string(k);
    EXPECT_EQ(messageOf<TavWrongUsage>([&] { ListCalls[k](env, k + 1, v); }), message);
    long code = -1;
    try {
      ListCalls[k](env, 0, v);
    } catch (const TavWrongUsage& e) {
      code = e.getCode();
      EXPECT_EQ(e.getMessage(), message);
    }
    EXPECT_EQ(code, 0);
    EXPECT_EQ(counters(ei()), before);
  }
}

TEST_F(SemiCont, IndicatorIsAZeroOneIntegerVariablePrintedAsItsConstraint) {
  TavConstraint ct(new (ei()) Says(ei(), "x <= 3"));
  TavNumVar ind(ct);
  ASSERT_TRUE(ind.getImpl()->isType(TavConstraintIndVarI::GetTypeInfo()));
  EXPECT_FALSE(ind.getImpl()->isType(TavSemiContVarI::GetTypeInfo()));
  EXPECT_STREQ(ind.getImpl()->getRttiTypeName(), "TavConstraintIndVarI");
  EXPECT_EQ(ind.getType(), TavNumVar::Int);
  EXPECT_EQ(ind.getLB(), 0.0);
  EXPECT_EQ(ind.getUB(), 1.0);
  EXPECT_TRUE(ind.getImpl()->isInteger());
  EXPECT_EQ(ind.getName(), nullptr);
  EXPECT_EQ(ind.getImpl()->getDomain(), ei()->getOrMakeSharedDomain((TavInt)0, (TavInt)1));
  for (bool library : {false, true}) {
    ei()->setLibrarySyntaxDisplay(library);
    EXPECT_EQ(show(ind), "x <= 3");
  }
  Walk walk;
  ind.getImpl()->visitSubExtractables(&walk);
  EXPECT_EQ(walk.text, "(<x <= 3>)");

  TavSolution sol(env);
  sol.setValue(ind, 1.0);
  EXPECT_EQ(sol.getValue(3 * ind + 1), 4.0);
  ind.setBounds(1, 1);  // on a private copy of the shared domain
  EXPECT_EQ(TavNumVar(ct).getLB(), 0.0);
  EXPECT_EQ(messageOf<TavEmptyHandleException>([] { TavNumVar{TavConstraint()}; }), "<none>");
}

TEST_F(SemiCont, IndicatorCloneTakesTheTargetsConstraintCloneAndFreshBounds) {
  TavConstraint ct(new (ei()) Says(ei(), "ct"));
  TavNumVar ind(ct);
  ind.setBounds(1, 1);
  TavEnv other;
  TavEnvI* oi = other.getImpl();
  const auto before = counters(oi);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { ind.getImpl()->makeClone(oi); }),
            "TavConstraintIndVarI::makeClone: the constraint has no clone in the target environment");
  EXPECT_EQ(counters(oi), before);
  ei()->setClone(ct.getImpl(), new (oi) Says(oi, "ct"));  // a pair in the source only does not count
  EXPECT_THROW(ind.getImpl()->makeClone(oi), TavWrongUsage);
  oi->setClone(ct.getImpl(), TavNumVar(other, 0, 1).getImpl());  // nor does a non-constraint
  EXPECT_THROW(ind.getImpl()->makeClone(oi), TavWrongUsage);

  TavConstraint existing(new (oi) Says(oi, "existing"));
  oi->setClone(ct.getImpl(), existing.getImpl());
  auto* clone = static_cast<TavConstraintIndVarI*>(ind.getImpl()->makeClone(oi));
  ASSERT_TRUE(clone->isType(TavConstraintIndVarI::GetTypeInfo()));
  EXPECT_EQ(clone->getConstraint(), existing.getImpl());
  EXPECT_EQ(clone->getLB(), 0.0);
  EXPECT_EQ(clone->getUB(), 1.0);
  EXPECT_EQ(clone->getType(), TavNumVar::Int);
  EXPECT_EQ(clone->getDomain(), oi->getOrMakeSharedDomain((TavInt)0, (TavInt)1));
  EXPECT_EQ(showNode(clone), "existing");

  // A cloning pass clones the constraint first.
  TavEnv third;
  TavExtractableI* passed = ei()->cloneInto(ind.getImpl(), third.getImpl());
  EXPECT_EQ(static_cast<TavConstraintIndVarI*>(passed)->getConstraint(), ei()->getClone(ct.getImpl()));
  EXPECT_EQ(ei()->getClone(ct.getImpl())->getEnv(), third.getImpl());
  ei()->clearCloneMap();
  third.end();
  other.end();
}

// Every constructor with the k-th allocation failing, k = 1, 2, ...: each
// failure leaves the counters, and the columns' records, as they were.
TEST(SemiContMemory, EveryConstructorUnderAllocationFailure) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  // Shared domains stay once made, by design: made first.
  ei->getOrMakeSharedDomain(0.0, 10.0);
  ei->getOrMakeSharedDomain((TavInt)0, (TavInt)1);
  TavConstraint ct(new (ei) Says(ei, "ct"));
  TavNumColumn a(env), b(env);
  TavNumColumnArray cols(env);
  for (TavNumColumn c : {a, TavNumColumn(), b, a}) cols.add(c);  // a twice: undone last first
  TavNumArray sclbs(env, {1.0, 2.0, 3.0, 4.0}), ubs(env, {10.0, 10.0, 10.0, 10.0});
  TavSemiContVar e1(env, 1, 10), e2(env, 2, 10);
  // The columns' records grow once; then they are emptied, keeping their room.
  auto emptyColumns = [&] {
    a.getImpl()->getInstalled().clear();
    b.getImpl()->getInstalled().clear();
  };
  TavSemiContVarArray grown(env, cols, sclbs, ubs);
  grown.endElements();
  grown.end();
  emptyColumns();

  auto unchanged = [&](const std::vector<TavInt>& before) {
    return [&, before](TavInt k) {
      EXPECT_EQ(counters(ei), before) << k;
      EXPECT_EQ(a.getSize() + b.getSize(), 0) << k;
    };
  };
  const std::vector<std::pair<const char*, std::function<TavNumExprArg()>>> vars = {
      {"variable", [&] { return TavSemiContVar(env, 1, 10, TavNumVar::Float, "named"); }},
      {"variable in a column", [&] { return TavSemiContVar(a, 1, 10, TavNumVar::Float, "c"); }},
  };
  for (const auto& r : vars) {
    SCOPED_TRACE(r.first);
    const auto before = counters(ei);
    tavtest::buildThroughFailures(ei, r.second, unchanged(before)).getImpl()->end();
    emptyColumns();
    EXPECT_EQ(counters(ei), before);
  }
  const std::vector<std::pair<const char*, std::function<TavSemiContVarArray()>>> arrays = {
      {"count", [&] { return TavSemiContVarArray(env, 20, 1.0, 10.0); }},
      {"bound arrays", [&] { return TavSemiContVarArray(env, sclbs, ubs); }},
      {"columns", [&] { return TavSemiContVarArray(env, cols, sclbs, ubs); }},
      {"element list", [&] { return TavSemiContVarArray(env, 3, e1, TavSemiContVar(), e2); }},
  };
  for (const auto& r : arrays) {
    SCOPED_TRACE(r.first);
    const auto before = counters(ei);
    TavSemiContVarArray made;
    auto build = [&] {
      made = r.second();
      return TavNumExprArg(made.getElement(0));
    };
    tavtest::buildThroughFailures(ei, build, unchanged(before));
    if (made.getElement(0) != e1.getImpl()) made.endElements();
    made.end();
    emptyColumns();
    EXPECT_EQ(counters(ei), before);
  }
  // The indicator, built and then cloned (Says clones into the target).
  tavtest::sweepBuildAndClone(ei, [&] { return TavNumVar(ct); }, [](TavInt) {});
  a.end();
  b.end();
  env.end();

  // Unnamed and unbounded, the only object of its environment: its clone
  // prints exactly as it does.
  TavEnv alone;
  alone.getImpl()->getOrMakeSharedDomain(0.0, TavGetInfinity());
  tavtest::sweepBuildAndClone(
      alone.getImpl(), [&] { return TavSemiContVar(alone, 2, TavGetInfinity()); }, [](TavInt) {});
  alone.end();
}

}  // namespace
