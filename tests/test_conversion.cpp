// Type conversions (construction by every handle form, removal of variables
// with their records, removal from all, the record's visitor call, cloning,
// display, memory) and tuple sub-map expressions (type identity, hooks, the
// encoder, the indexer queries and their copies).
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "conversion.h"
#include "submap.h"
#include "sweep.h"
#include "tavexpression.h"
#include "test_support.h"

namespace {

/// The variables of a conversion, in order.
std::vector<TavNumVarI*> varsOf(const TavConversionI* c) {
  std::vector<TavNumVarI*> out;
  TavNumVarArray a = c->getVars();
  for (TavInt i = 0; i < a.getSize(); ++i) out.push_back(a.getElement(i));
  return out;
}

/// What one TavConversionRemoveVar carried, and the conversion's variables
/// as they stood when it arrived.
struct Removal {
  TavNumVarI* var;
  TavConversionI* conversion;
  std::vector<TavNumVarI*> varsThen;
};

struct RemovalRecorder : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange& c) override {
    names.push_back(c.getRttiTypeName());
    if (auto* r = dynamic_cast<const TavConversionRemoveVar*>(&c)) {
      EXPECT_EQ(r->getChangedExtractable(), r->getConversion().getImpl());
      seen.push_back({r->getVar().getImpl(), r->getConversion().getImpl(), varsOf(r->getConversion().getImpl())});
    }
  }
  std::vector<std::string> names;
  std::vector<Removal> seen;
};

/// What the environment holds, to compare before and after.
struct Live {
  explicit Live(TavEnvI* e) : env(e), objects(e->getLiveObjectCount()), bytes(e->getMemory().getLiveBytes()) {}
  void expectSame(const std::string& where) const {
    EXPECT_EQ(env->getLiveObjectCount(), objects) << where;
    EXPECT_EQ(env->getMemory().getLiveBytes(), bytes) << where;
  }
  TavEnvI* env;
  TavInt objects;
  std::size_t bytes;
};

/// build through every allocation failure of env (tests/sweep.h): each
/// failure leaves the live objects and bytes as they were. build keeps what
/// it made; witness only tells the sweep that it succeeded.
void sweep(TavEnvI* env, TavNumExprArg witness, const std::function<void()>& build) {
  const TavInt objects = env->getLiveObjectCount();
  tavtest::buildThroughFailures(
      env,
      [&] {
        build();
        return witness;
      },
      [&](TavInt k) { EXPECT_EQ(env->getLiveObjectCount(), objects) << "failing allocation " << k; });
}

class Conversion : public ::testing::Test {
 protected:
  void TearDown() override { v.env.end(); }
  TavEnvI* ei() const { return v.env.getImpl(); }
  NamedVars v;
};

TEST_F(Conversion, EveryConstructorRecordsItsVariablesAndType) {
  TavEnv unused;  // the handles' env argument is not where the conversion goes
  TavNumVar z(unused, 0, 1, TavNumVar::Float, "z");
  TavNumVarArray nums(v.env, 2, v.x, v.y);
  TavIntVarArray ints(v.env, 2, v.i, v.j);
  struct Row {
    const char* name;
    std::function<TavConversionI*()> build;
    std::vector<TavNumVarI*> vars;
    TavNumVar::Type type;
    const char* convName;
  };
  const std::vector<Row> rows = {
      {"handle, one variable", [&] { return TavConversion(unused, v.x, TavNumVar::Int, "cx").getImpl(); },
       {v.x.getImpl()}, TavNumVar::Int, "cx"},
      {"handle, integer variable", [&] { return TavConversion(unused, v.i, TavNumVar::Float).getImpl(); },
       {v.i.getImpl()}, TavNumVar::Float, nullptr},
      {"handle, numeric array", [&] { return TavConversion(unused, nums, TavNumVar::Bool, "n").getImpl(); },
       {v.x.getImpl(), v.y.getImpl()}, TavNumVar::Bool, "n"},
      {"handle, integer array", [&] { return TavConversion(unused, ints, TavNumVar::Float).getImpl(); },
       {v.i.getImpl(), v.j.getImpl()}, TavNumVar::Float, nullptr},
      {"node, one variable", [&] { return new (ei()) TavConversionI(ei(), v.y, TavNumVar::Int, "cy"); },
       {v.y.getImpl()}, TavNumVar::Int, "cy"},
      {"node, any other type value", [&] { return new (ei()) TavConversionI(ei(), v.y, (TavNumVar::Type)7); },
       {v.y.getImpl()}, (TavNumVar::Type)7, nullptr},
      {"handle, variable of another environment", [&] { return TavConversion(v.env, z, TavNumVar::Int).getImpl(); },
       {z.getImpl()}, TavNumVar::Int, nullptr},
      {"handle, array of another environment",
       [&] { return TavConversion(v.env, TavNumVarArray(unused, 1, z), TavNumVar::Int).getImpl(); },
       {z.getImpl()}, TavNumVar::Int, nullptr},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    TavConversionI* c = r.build();
    EXPECT_EQ(c->getEnv(), r.vars[0]->getEnv());
    EXPECT_EQ(varsOf(c), r.vars);
    EXPECT_EQ(c->getType(), r.type);
    if (r.convName) EXPECT_STREQ(c->getName(), r.convName);
    else EXPECT_EQ(c->getName(), nullptr);
    c->end();
  }

  // The array forms keep a copy of their own: the caller's array may change
  // or go without touching the conversion.
  for (TavArrayBase* given : std::vector<TavArrayBase*>{&nums, &ints}) {
    TavConversion c = given == &nums ? TavConversion(v.env, nums, TavNumVar::Int)
                                     : TavConversion(v.env, ints, TavNumVar::Int);
    TavNumVarArray kept = c.getImpl()->getVars();
    EXPECT_NE(kept.getImpl(), given->getImpl());
    given->remove(0);
    EXPECT_EQ(kept.getSize(), 2);
    c.end();
  }
  nums.end();
  ints.end();

  // The node form over an array takes that very array over.
  TavNumVarArray own(v.env, 1, v.x);
  TavConversionI* c = new (ei()) TavConversionI(ei(), own, TavNumVar::Int);
  EXPECT_EQ(c->getVars().getImpl(), own.getImpl());
  c->end();
  unused.end();
}

TEST_F(Conversion, EmptyHandlesFailCleanly) {
  const Live before(ei());
  TavNumVarArray nums;
  TavIntVarArray ints;
  TavConversion none;
  std::vector<std::pair<const char*, std::function<void()>>> rows = {
      {"handle, empty variable", [&] { TavConversion(v.env, TavNumVar(), TavNumVar::Int); }},
      {"handle, empty numeric array", [&] { TavConversion(v.env, nums, TavNumVar::Int); }},
      {"handle, empty integer array", [&] { TavConversion(v.env, ints, TavNumVar::Int); }},
      {"node, empty variable", [&] { new (ei()) TavConversionI(ei(), TavNumVar(), TavNumVar::Int, "n"); }},
      {"node, empty array", [&] { new (ei()) TavConversionI(ei(), nums, TavNumVar::Int, "n"); }},
      {"empty conversion, getEnv", [&] { none.getEnv(); }},
      {"empty conversion, removeVar", [&] { none.removeVar(v.x); }},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.first);
    EXPECT_EQ(messageOf<TavEmptyHandleException>(r.second), "<none>");
    before.expectSame(r.first);
  }
  none.end();  // nothing to end
  EXPECT_EQ(show(none), "<empty>");

  TavConversion c(v.env, v.x, TavNumVar::Int);
  EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { c.removeVar(TavNumVar()); }), "<none>");
  EXPECT_EQ(varsOf(c.getImpl()), std::vector<TavNumVarI*>{v.x.getImpl()});
  c.end();
}

TEST_F(Conversion, RemoveVarTakesEveryOccurrenceLastFirst) {
  RemovalRecorder rec(ei());
  TavNumVar z(v.env, 0, 1, TavNumVar::Float, "z");
  TavNumVarI *x = v.x.getImpl(), *y = v.y.getImpl(), *zi = z.getImpl();
  TavConversion c(v.env, TavNumVarArray(v.env, 4, v.x, v.y, v.x, z), TavNumVar::Int);
  TavConversionI* ci = c.getImpl();

  c.removeVar(v.i);  // absent: nothing changes, nothing is sent
  EXPECT_TRUE(rec.names.empty());
  EXPECT_EQ(varsOf(ci), (std::vector<TavNumVarI*>{x, y, x, zi}));

  ci->removeVar(v.x);
  ASSERT_EQ(rec.seen.size(), 2u);
  EXPECT_EQ(rec.names, (std::vector<std::string>{"TavConversionRemoveVar", "TavConversionRemoveVar"}));
  // The later occurrence went first.
  EXPECT_EQ(rec.seen[0].varsThen, (std::vector<TavNumVarI*>{x, y, zi}));
  EXPECT_EQ(rec.seen[1].varsThen, (std::vector<TavNumVarI*>{y, zi}));
  for (const Removal& r : rec.seen) {
    EXPECT_EQ(r.var, x);
    EXPECT_EQ(r.conversion, ci);
  }

  c.removeVar(z);
  c.removeVar(v.y);
  EXPECT_EQ(rec.seen.size(), 4u);
  EXPECT_TRUE(varsOf(ci).empty());
  c.removeVar(v.y);  // once empty, nothing more
  EXPECT_EQ(rec.seen.size(), 4u);
}

/// Removes a second variable from the conversion while told of the first.
struct Chaining : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange& c) override {
    auto* r = dynamic_cast<const TavConversionRemoveVar*>(&c);
    if (r && then.getImpl()) {
      TavNumVar next = then;
      then = TavNumVar();
      r->getConversion().removeVar(next);
    }
  }
  TavNumVar then;
};

TEST_F(Conversion, RemovalsDuringNotificationKeepTheScanInBounds) {
  TavConversion c(v.env, TavNumVarArray(v.env, 5, v.y, v.x, v.y, v.y, v.x), TavNumVar::Int);
  RemovalRecorder rec(ei());
  Chaining chain(ei());
  chain.then = v.y;
  c.removeVar(v.x);
  EXPECT_TRUE(varsOf(c.getImpl()).empty());
  // One record per occurrence that was there: x, then the three y, then x.
  std::vector<TavNumVarI*> order;
  for (const Removal& r : rec.seen) order.push_back(r.var);
  TavNumVarI *x = v.x.getImpl(), *y = v.y.getImpl();
  EXPECT_EQ(order, (std::vector<TavNumVarI*>{x, y, y, y, x}));
}

TEST_F(Conversion, RemovedVariablesLeave) {
  ei()->setRemoveFromAllOnDestroy(true);
  RemovalRecorder rec(ei());
  TavNumVar z(v.env, 0, 1, TavNumVar::Float, "z");
  TavConversion c(v.env, TavNumVarArray(v.env, 4, v.x, z, v.y, z), TavNumVar::Int);

  // One by one: through removeVar, one record per occurrence.
  ei()->setOneByOneRemoval(true);
  z.end();
  EXPECT_EQ(varsOf(c.getImpl()), (std::vector<TavNumVarI*>{v.x.getImpl(), v.y.getImpl()}));
  EXPECT_EQ(rec.seen.size(), 2u);
  v.i.end();  // not in the conversion
  EXPECT_EQ(rec.seen.size(), 2u);

  // Otherwise in one silent sweep.
  ei()->setOneByOneRemoval(false);
  v.x.end();
  EXPECT_EQ(varsOf(c.getImpl()), std::vector<TavNumVarI*>{v.y.getImpl()});
  EXPECT_EQ(rec.seen.size(), 2u);
  EXPECT_EQ(show(c), "TavConversionI (" + std::to_string(c.getImpl()->getId()) + ")\n  vars [" + show(v.y) +
                         "]\n  type 1\n");
}

TEST_F(Conversion, TheRecordCallsItsVisitorOperation) {
  struct Visitor : TavChangeVisitor {
    void visitConversionRemoveVar(TavConversionI* c, TavNumVarI* var) override { calls.push_back({c, var}); }
    void visitChild(TavExtractableI*, TavExtractableI*) override { ++children; }
    std::vector<std::pair<TavConversionI*, TavNumVarI*>> calls;
    int children = 0;
  };
  TavConversion c(v.env, v.x, TavNumVar::Int);
  TavConversionRemoveVar r(v.y.getImpl(), c.getImpl());
  Visitor seen;
  r.visitChange(ei(), c.getImpl(), &seen);
  EXPECT_EQ(seen.calls, (std::vector<std::pair<TavConversionI*, TavNumVarI*>>{{c.getImpl(), v.y.getImpl()}}));
  EXPECT_EQ(seen.children, 0);
  TavChangeVisitor plain;  // the default does nothing
  r.visitChange(ei(), c.getImpl(), &plain);

  EXPECT_STREQ(r.getRttiTypeName(), "TavConversionRemoveVar");
  EXPECT_EQ(r.getChangedExtractable(), c.getImpl());
  EXPECT_THROW(r.applyToCP(TavAlgorithm(), nullptr), TavAlgorithm::CannotChangeException);
  EXPECT_THROW(c.getImpl()->extractToCP(TavAlgorithm()), TavAlgorithm::ExtractFailure);
}

TEST_F(Conversion, TheVariablesAreTheChildren) {
  TavConversion c(v.env, TavNumVarArray(v.env, 2, v.y, v.x), TavNumVar::Int);
  TavConversionI* ci = c.getImpl();
  struct Walk : TavExtractableVisitor {
    void beginVisit(TavExtractableI* p) override { steps.push_back("begin " + std::to_string(p->getId())); }
    void visitChild(TavExtractableI*, TavExtractableI* ch) override { steps.push_back(ch->getName()); }
    void endVisit(TavExtractableI*) override { steps.push_back("end"); }
    std::vector<std::string> steps;
  } walk;
  ci->visitSubExtractables(&walk);
  EXPECT_EQ(walk.steps, (std::vector<std::string>{"begin " + std::to_string(ci->getId()), "y", "x", "end"}));
}

TEST_F(Conversion, DisplayNamedAndUnnamed) {
  TavConversion named(v.env, TavNumVarArray(v.env, 2, v.x, v.i), TavNumVar::Int, "toInt");
  EXPECT_EQ(show(named), "TavConversionI (toInt)\n  vars [" + show(v.x) + ", " + show(v.i) + "]\n  type 1\n");
  TavConversion unnamed(v.env, v.y, TavNumVar::Bool);
  EXPECT_EQ(showNode(unnamed.getImpl()),
            "TavConversionI (" + std::to_string(unnamed.getImpl()->getId()) + ")\n  vars [" + show(v.y) +
                "]\n  type 3\n");
  TavConversion none(v.env, TavNumVarArray(v.env, 0), TavNumVar::Float, "none");
  EXPECT_EQ(show(none), "TavConversionI (none)\n  vars []\n  type 2\n");
}

TEST_F(Conversion, CloneHasTheVariablesClonesAndNoName) {
  TavConversion c(v.env, TavNumVarArray(v.env, 3, v.x, v.i, v.x), TavNumVar::Int, "named");
  TavEnv other;
  auto* clone = static_cast<TavConversionI*>(ei()->cloneInto(c.getImpl(), other.getImpl()));
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->getEnv(), other.getImpl());
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getType(), TavNumVar::Int);
  auto* xc = static_cast<TavNumVarI*>(other.getImpl()->getClone(v.x.getImpl()));
  auto* ic = static_cast<TavNumVarI*>(other.getImpl()->getClone(v.i.getImpl()));
  ASSERT_NE(xc, nullptr);
  EXPECT_EQ(xc->getEnv(), other.getImpl());
  EXPECT_EQ(varsOf(clone), (std::vector<TavNumVarI*>{xc, ic, xc}));
  EXPECT_EQ(clone->getVars().getImpl()->getEnv(), other.getImpl());
  EXPECT_EQ(showNode(clone), "TavConversionI (" + std::to_string(clone->getId()) + ")\n  vars [" + showNode(xc) +
                                 ", " + showNode(ic) + ", " + showNode(xc) + "]\n  type 1\n");
  ei()->clearCloneMap();

  // The clone owns its array: ending it gives back what the clone took.
  const Live withVars(other.getImpl());
  clone->end();
  EXPECT_LT(other.getImpl()->getMemory().getLiveBytes(), withVars.bytes);
  EXPECT_EQ(other.getImpl()->getLiveObjectCount(), withVars.objects - 1);
  other.end();
}

TEST_F(Conversion, AllocationFailuresLeaveNothing) {
  TavNumVarArray nums(v.env, 2, v.x, v.y);
  TavIntVarArray ints(v.env, 2, v.i, v.j);
  TavConversion made;
  struct Row {
    const char* name;
    std::function<TavConversion()> build;
    std::size_t vars;
  };
  const std::vector<Row> rows = {
      {"handle, one variable", [&] { return TavConversion(v.env, v.x, TavNumVar::Int, "name"); }, 1},
      {"handle, numeric array", [&] { return TavConversion(v.env, nums, TavNumVar::Int, "name"); }, 2},
      {"handle, integer array", [&] { return TavConversion(v.env, ints, TavNumVar::Int); }, 2},
      {"node, one variable",
       [&] { return TavConversion(new (ei()) TavConversionI(ei(), v.y, TavNumVar::Int, "n")); }, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const Live before(ei());
    sweep(ei(), v.x, [&] { made = r.build(); });
    EXPECT_EQ(varsOf(made.getImpl()).size(), r.vars);
    made.end();
    before.expectSame(r.name);
  }

  // The clone, failing in the target.
  TavConversion c(v.env, nums, TavNumVar::Int, "c");
  TavEnv other;
  TavEnvI* target = other.getImpl();
  const Live targetBefore(target);
  TavExtractableI* clone = nullptr;
  const int failures = tavtest::sweepFailures(target, [&] { clone = ei()->cloneInto(c.getImpl(), target); }, [&](TavInt k) {
    targetBefore.expectSame("clone, failing allocation " + std::to_string(k));
  });
  EXPECT_GT(failures, 2);  // the variables, the array and the conversion
  EXPECT_EQ(varsOf(static_cast<TavConversionI*>(clone)).size(), 2u);
  ei()->clearCloneMap();
  other.end();
}

// ---------------------------------------------------------------- tuple sub-maps

/// An indexer over an array of the test's, telling its kind when asked to.
struct Indexer : TavIndexerI {
  bool hasRangeIndex() const override { return range; }
  TavArrayI* getArray() const override { return array; }
  ArrayKind getArrayKind() const override { return kind; }
  bool range = false;
  TavArrayI* array = nullptr;
  ArrayKind kind = UnknownArray;
};

/// A sub-map kind of the tests' own: its indexer is the only thing it adds.
class SubMap final : public TavTupleSubMapExprI {
 public:
  SubMap(TavEnvI* env, TavIndexerI* indexer) : TavTupleSubMapExprI(env), _indexer(indexer) {}
  TavIndexerI* getIndexer() const override { return _indexer; }
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }

 private:
  TavIndexerI* _indexer;
};

class TupleSubMap : public ::testing::Test {
 protected:
  void TearDown() override {
    env.end();
    data.end();
  }
  TavEnvI* ei() const { return env.getImpl(); }
  TavEnv env;
  TavEnv data;  // where the indexers' arrays live
};

TEST_F(TupleSubMap, TypeIdentityHooksAndCount) {
  Indexer idx;
  SubMap* m = new (ei()) SubMap(ei(), &idx);
  EXPECT_STREQ(m->getRttiTypeName(), "TavTupleSubMapExprI");
  EXPECT_EQ(m->getBaseTypeInfo(), TavAnyExprI::GetTypeInfo());
  EXPECT_EQ(TavAnyExprI::GetBaseTypeInfo(), TavExtractableI::GetTypeInfo());
  EXPECT_EQ(m->getBaseTypeIndex(), TavAnyExprI::GetTypeIndex());
  EXPECT_NE(TavAnyExprI::GetTypeIndex(), TavTupleSubMapExprI::GetTypeIndex());
  for (TavTypeInfo t : {TavTupleSubMapExprI::GetTypeInfo(), TavAnyExprI::GetTypeInfo(), TavExtractableI::GetTypeInfo()})
    EXPECT_TRUE(m->isType(t));
  EXPECT_FALSE(m->isType(TavNumExprI::GetTypeInfo()));
  EXPECT_EQ(m->getRefCount(), 0);

  // Each class its own hooks: the base's do not stand in for the sub-map's.
  TavAnyExprI::_extractCP = [](TavAlgorithm, const TavExtractableI*) { return (void*)nullptr; };
  EXPECT_THROW(m->extractToCP(TavAlgorithm()), TavAlgorithm::ExtractFailure);
  TavAnyExprI::_extractCP = nullptr;
  TavTupleSubMapExprI::_extractCP = [](TavAlgorithm, const TavExtractableI* e) { return (void*)e; };
  EXPECT_EQ(m->extractToCP(TavAlgorithm()), m);
  TavTupleSubMapExprI::_extractCP = nullptr;
  EXPECT_THROW(m->unextractFromCP(TavAlgorithm(), nullptr), TavAlgorithm::RemoveFailure);
  EXPECT_THROW(m->modifyCP(TavAlgorithm(), nullptr), TavAlgorithm::RemoveFailure);

  // Counted: held twice, it goes with the second end().
  const TavInt objects = ei()->getLiveObjectCount();
  m->lockRef();
  m->lockRef();
  m->end();
  EXPECT_EQ(ei()->getLiveObjectCount(), objects);
  m->release();
  EXPECT_EQ(ei()->getLiveObjectCount(), objects - 1);
}

TEST_F(TupleSubMap, EncoderAndRangeIndexComeFromTheirOwners) {
  Indexer idx;
  SubMap* m = new (ei()) SubMap(ei(), &idx);
  EXPECT_EQ(m->getEncoder(), ei()->getTupleEncoder());
  EXPECT_NE(m->getEncoder(), data.getImpl()->getTupleEncoder());
  for (bool range : {true, false}) {
    idx.range = range;
    EXPECT_EQ(m->hasRangeIndex(), range);
  }
  SubMap* lost = new (ei()) SubMap(ei(), nullptr);
  EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { lost->hasRangeIndex(); }), "<none>");
}

TEST_F(TupleSubMap, QueriesCopyInTheArraysMemoryOrRefuseAnotherKind) {
  using K = TavIndexerI;
  TavIntArray ints(data, {3, 1, 4});
  TavNumArray nums(data, {2.5, -1.0});
  Indexer idx;
  SubMap* m = new (ei()) SubMap(ei(), &idx);
  const std::vector<K::ArrayKind> asked = {K::IntArray, K::NumArray, K::AnyArray};
  for (K::ArrayKind held : {K::UnknownArray, K::IntArray, K::NumArray, K::AnyArray}) {
    idx.kind = held;
    idx.array = held == K::NumArray ? nums.getImpl() : ints.getImpl();
    for (K::ArrayKind query : asked) {
      SCOPED_TRACE(std::to_string(held) + " asked " + std::to_string(query));
      const Live mine(ei()), theirs(data.getImpl());
      auto run = [&]() -> TavArrayBase {
        if (query == K::IntArray) return m->getIndexerIntArray();
        if (query == K::NumArray) return m->getIndexerNumArray();
        return m->getIndexerAnyArray();
      };
      if (held != K::UnknownArray && held != query) {
        EXPECT_EQ(messageOf<TavBadConversion>(run), "<none>");
        theirs.expectSame("refused");
        continue;
      }
      TavArrayBase copy = run();
      ASSERT_NE(copy.getImpl(), nullptr);
      EXPECT_NE(copy.getImpl(), idx.array);
      EXPECT_EQ(copy.getImpl()->getEnv(), data.getImpl());
      EXPECT_EQ(TavMemory::EnvOf(copy.getImpl()), data.getImpl());
      EXPECT_EQ(copy.getSize(), idx.array->getSize());
      for (TavInt i = 0; i < copy.getSize(); ++i) EXPECT_EQ(copy.getImpl()->at(i).integer, idx.array->at(i).integer);
      // Independent: a change to the copy leaves the indexer's array alone.
      const TavInt first = idx.array->at(0).integer;
      copy.getImpl()->at(0).integer = first + 1;
      copy.remove(0);
      EXPECT_EQ(idx.array->at(0).integer, first);
      EXPECT_EQ(idx.array->getSize(), held == K::NumArray ? 2 : 3);
      mine.expectSame("nothing in the sub-map's environment");
      copy.end();  // the caller's to end
      theirs.expectSame("ended copy");
    }
  }
  idx.kind = K::IntArray;
  EXPECT_EQ(show(m->getIndexerIntArray()), "[3, 1, 4]");
  idx.kind = K::UnknownArray;  // read as the kind asked
  EXPECT_EQ(show(m->getIndexerAnyArray()), "[3, 1, 4]");
  idx.array = nums.getImpl();
  EXPECT_EQ(show(m->getIndexerNumArray()), "[2.5, -1]");

  idx.array = nullptr;
  EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { m->getIndexerNumArray(); }), "<none>");
  SubMap* lost = new (ei()) SubMap(ei(), nullptr);
  EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { lost->getIndexerIntArray(); }), "<none>");
}

TEST_F(TupleSubMap, AllocationFailuresLeaveNothing) {
  TavNumVar witness(env);
  // Three blocks, so that the copy allocates more than once.
  TavIntArray ints(new (data.getImpl()) TavArrayI(data.getImpl(), 40, 4));
  for (TavInt i = 0; i < 40; ++i) ints[i] = i * i;
  Indexer idx;
  idx.array = ints.getImpl();
  SubMap* m = nullptr;
  sweep(ei(), witness, [&] { m = new (ei()) SubMap(ei(), &idx); });
  ASSERT_NE(m, nullptr);
  const std::vector<std::pair<const char*, std::function<TavArrayBase()>>> queries = {
      {"int", [&] { return m->getIndexerIntArray(); }},
      {"num", [&] { return m->getIndexerNumArray(); }},
      {"any", [&] { return m->getIndexerAnyArray(); }},
  };
  for (auto& q : queries) {
    SCOPED_TRACE(q.first);
    const Live before(data.getImpl());
    TavArrayBase copy;
    sweep(data.getImpl(), witness, [&] { copy = q.second(); });
    ASSERT_EQ(copy.getSize(), 40);
    EXPECT_EQ(copy.getImpl()->at(39).integer, 39 * 39);
    copy.end();
    before.expectSame(q.first);
  }
}

}  // namespace
