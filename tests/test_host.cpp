// The host layer: environment bookkeeping and memory, segmented arrays,
// shared domains and the exception family.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

std::string showDomain(const TavVarDomainI* d) {
  std::ostringstream os;
  d->display(os);
  return os.str();
}

}  // namespace

// Dense identifiers, their reuse and names are the host-alone tests'; here
// the capacity stays and the removal marks.
TEST(Environment, IdentifierTableKeepsItsCapacityAndMarksRemovals) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavNumVar a(env, 0, 1, "a"), b(env, 0, 1), c(env, 0, 1, "c");
  EXPECT_EQ(e->getIdCapacity(), 3);
  EXPECT_EQ(e->getObject(1), b.getImpl());
  b.setName("renamed");
  b.setName(nullptr);
  EXPECT_EQ(b.getName(), nullptr);
  b.end();
  EXPECT_EQ(e->getObject(1), nullptr);
  TavNumVar d(env, 0, 1, "d");
  EXPECT_EQ(d.getId(), 1);
  EXPECT_EQ(e->getIdCapacity(), 3);

  // Removal marks: an all-ones table entry marks the object removed.
  EXPECT_FALSE(e->isRemoved(c.getImpl()));
  e->setIdTableEntry(c.getId(), -1);
  EXPECT_TRUE(e->isRemoved(c.getImpl()));
  EXPECT_FALSE(e->isRemoved(a.getImpl()));
  e->setIdTableEntry(c.getId(), c.getId());
  EXPECT_FALSE(e->isRemoved(c.getImpl()));
  env.end();
}

TEST(Environment, MarkArraysCoverEveryIdentifierAndAreReused) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  std::vector<TavNumVar> vars;
  for (int i = 0; i < 40; ++i) vars.emplace_back(env, 0.0, 1.0);
  void** m1 = e->getMarkArray();
  void** m2 = e->getMarkArray();  // nested use gets an array of its own
  EXPECT_NE(m1, m2);
  for (TavInt id = 0; id < e->getIdCapacity(); ++id) {
    m1[id] = &m1;
    m2[id] = nullptr;
  }
  EXPECT_EQ(m1[39], &m1);
  e->releaseMarkArray(m2);
  e->releaseMarkArray(m1);
  void** again = e->getMarkArray();
  EXPECT_TRUE(again == m1 || again == m2);
  // Grows with the identifiers registered since.
  for (int i = 0; i < 100; ++i) vars.emplace_back(env, 0.0, 1.0);
  e->releaseMarkArray(again);
  void** grown = e->getMarkArray();
  grown[e->getIdCapacity() - 1] = nullptr;
  e->releaseMarkArray(grown);
  env.end();
}

TEST(Environment, CloneMapsAndChangeDeliveryToRegisteredAlgorithms) {
  TavEnv env, other;
  TavEnvI* e = env.getImpl();
  TavNumVar x(env, 0, 1, "x"), y(other, 0, 1, "y");
  EXPECT_EQ(e->getClone(x.getImpl()), nullptr);
  e->setClone(x.getImpl(), y.getImpl());
  EXPECT_EQ(e->getClone(x.getImpl()), y.getImpl());
  EXPECT_EQ(other.getImpl()->getClone(x.getImpl()), nullptr);  // maps are per environment
  e->clearCloneMap();
  EXPECT_EQ(e->getClone(x.getImpl()), nullptr);

  RecordingAlg first(e), second(e);
  RecordingAlg detached(e, TavAlgorithmI::Detached{});
  RecordingAlg elsewhere(other.getImpl());
  NoteChange rec(x.getImpl());
  x.getImpl()->notify(rec);
  for (RecordingAlg* a : {&first, &second}) {
    ASSERT_EQ(a->seen.size(), 1u);
    EXPECT_EQ(a->seen[0], &rec);
    EXPECT_EQ(a->seen[0]->getChangedExtractable(), x.getImpl());
  }
  EXPECT_TRUE(detached.seen.empty());
  EXPECT_TRUE(elsewhere.seen.empty());
  EXPECT_EQ(e->getAlgorithms().size(), 2u);
  env.end();
  other.end();
}

TEST(Environment, EndingWithLiveObjectsOfEveryKindLeaksNothing) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavNumVar x(env, 0, 10, "x");
  TavIntVar n(env, 0, 5, "n");
  TavBoolVar b(env, "b");
  TavExpr lin = x + 2 * n;
  ASSERT_NE(lin.getImpl(), nullptr);
  TavNumExpr prod(x * TavNumExprArg(n));
  TavIntExpr ilin(env, 3);
  TavNumArray nums(env, {1.0, 2.0});
  TavIntArray ints(env, 5000);
  TavExtractableArray objs(env);
  objs.add(TavExtractable(x.getImpl()));
  TavNumRange range(env, 0.0, 1.0);
  TavIntRange irange(env, 0, 3);
  TavNumVar ranged(range, "r");
  TavNumColumn column(env);
  TavNumVar fromColumn(column, 0.0, 1.0);
  TavVarDomainI* priv = TavNumVarDomainI(1.0, 2.0).makeCopy(e);
  (void)priv;
  TavSolution sol(env);
  sol.setValue(x, 1.0);
  e->getModelEvaluator()->setValue(n, 2);
  TavInt tuple[] = {1, 2};
  e->getTupleEncoder()->encode(tuple, 2);
  e->getMarkArray();  // still borrowed
  e->setClone(x.getImpl(), n.getImpl());
  e->newTerm(x.getImpl(), 4.0);  // a loose cell
  EXPECT_GT(e->getLiveObjectCount(), 0);
  env.end();  // LeakSanitizer checks the rest
}

TEST(Environment, InjectedAllocationFailuresLeaveCountsAsTheyWere) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavMemory& mem = e->getMemory();
  mem.failAfter(3);
  EXPECT_TRUE(mem.failureArmed());
  void* p1 = e->alloc(16);
  void* p2 = e->alloc(1000);
  EXPECT_THROW(e->alloc(16), std::bad_alloc);
  EXPECT_FALSE(mem.failureArmed());  // one failure, then disarmed
  void* p3 = e->alloc(16);
  EXPECT_EQ(TavMemory::EnvOf(p1), e);
  EXPECT_EQ(TavMemory::EnvOf(p2), e);
  for (void* p : {p1, p2, p3}) e->free(p);
  mem.failAfter(1);
  EXPECT_THROW(e->newTerm(nullptr, 1.0), std::bad_alloc);  // term cells count too
  EXPECT_EQ(e->getLiveTermCount(), 0);

  TavNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y");
  const TavInt objects0 = e->getLiveObjectCount();
  const TavInt terms0 = e->getLiveTermCount();
  const std::size_t bytes0 = mem.getLiveBytes();
  // Fail each allocation of a few builds in turn; each attempt must unwind.
  struct Build {
    const char* what;
    void (*run)(TavEnv, TavNumVar, TavNumVar);
  } builds[] = {
      {"array across blocks",
       [](TavEnv env, TavNumVar, TavNumVar) {
         TavNumArray a(env, 0);
         try {
           for (int i = 0; i < 600; ++i) a.add(i);
         } catch (...) {
           a.end();  // handles own nothing: the caller ends what it made
           throw;
         }
         a.end();
       }},
      {"named variable", [](TavEnv env, TavNumVar, TavNumVar) { TavNumVar(env, 0, 1, "v").end(); }},
  };
  for (const Build& b : builds) {
    SCOPED_TRACE(b.what);
    auto unchanged = [&](TavInt k) {
      ASSERT_EQ(e->getLiveObjectCount(), objects0) << "failing allocation " << k;
      ASSERT_EQ(e->getLiveTermCount(), terms0) << "failing allocation " << k;
      ASSERT_EQ(mem.getLiveBytes(), bytes0) << "failing allocation " << k;
    };
    EXPECT_GE(tavtest::sweepFailures(e, [&] { b.run(env, x, y); }, unchanged), 0);
    unchanged(0);  // the build that went through ended what it made
  }
  env.end();
}

TEST(Environment, FailedSumsLeaveTheTermCellsTheyWereGivenToTheirHandles) {
  TavEnv env;
  TavNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y");
  TavMemory& mem = env.getImpl()->getMemory();
  for (TavInt k = 1; k <= 2; ++k) {  // x's cell or the node fails
    SCOPED_TRACE(k);
    TavNumLinExprTerm t = 2 * y;
    ++tavtest::sweptPairs();
    mem.failAfter(k);
    EXPECT_THROW(x + t, std::bad_alloc);
    mem.failAfter(0);
    EXPECT_EQ(env.getImpl()->getLiveTermCount(), 1);
    TavExpr e(x + t);  // the handle is still good
    EXPECT_EQ(show(e), "x  + 2 * y ");
    e.end();
    EXPECT_EQ(env.getImpl()->getLiveTermCount(), 0);
  }
  env.end();
}

TEST(Arrays, GrowAcrossBlockBoundariesAndKeepEveryValue) {
  TavEnv env;
  for (TavInt n : {0L, 1L, 15L, 16L, 17L, 4095L, 4096L, 4097L, 10000L}) {
    SCOPED_TRACE(n);
    TavNumArray grown(env);
    TavIntArray sized(env, n);
    for (TavInt i = 0; i < n; ++i) grown.add(0.5 * (double)i);
    for (TavInt i = 0; i < n; ++i) sized[i] = -i;
    ASSERT_EQ(grown.getSize(), n);
    ASSERT_EQ(sized.getSize(), n);
    for (TavInt i = 0; i < n; ++i) {
      ASSERT_EQ(grown[i], 0.5 * (double)i) << i;
      ASSERT_EQ(sized[i], -i) << i;
    }
    TavArrayI* impl = grown.getImpl();
    EXPECT_EQ(impl->getIndexMask(), (TavInt(1) << impl->getBlockShift()) - 1);
    // Two arrays appended to each other, and an array to itself.
    TavNumArray both(env, {-1.0});
    both.add(grown);
    both.add(both);
    ASSERT_EQ(both.getSize(), 2 * (n + 1));
    TavNumArray converted = sized.toNumArray();
    if (n > 0) {
      EXPECT_EQ(both[n + 1 + n], 0.5 * (double)(n - 1));
      EXPECT_EQ(converted[n - 1], -(double)(n - 1));
    }
    for (TavArrayBase* a : std::initializer_list<TavArrayBase*>{&grown, &sized, &both, &converted}) a->end();
  }
  env.end();
}

TEST(Arrays, RemoveShiftsLaterElementsDownAndIgnoresWhatIsOutside) {
  struct Case {
    TavInt size, first, count;
  } cases[] = {{20, 0, 1}, {20, 5, 3}, {20, 19, 1}, {20, 18, 5}, {20, 20, 1}, {20, -1, 2},
               {20, 3, 0}, {5000, 4090, 10}, {5000, 0, 4097}, {5000, 4096, 904}};
  TavEnv env;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " remove(" << c.first << ", " << c.count << ")");
    TavIntArray a(env);
    std::vector<TavInt> model;
    for (TavInt i = 0; i < c.size; ++i) {
      a.add(i);
      model.push_back(i);
    }
    if (c.first >= 0 && c.first < c.size && c.count > 0)
      model.erase(model.begin() + c.first, model.begin() + std::min(c.size, c.first + c.count));
    a.remove(c.first, c.count);
    ASSERT_EQ(a.getSize(), (TavInt)model.size());
    for (TavInt i = 0; i < a.getSize(); ++i) ASSERT_EQ(a[i], model[i]) << i;
    a.end();
  }
  env.end();
}

TEST(Arrays, ExtractableArraysDropRemovedElementsInOrder) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  std::vector<TavNumVar> vars;
  TavExtractableArray arr(env);
  for (int i = 0; i < 30; ++i) {
    vars.emplace_back(env, 0.0, 1.0);
    arr.add(TavExtractable(vars.back().getImpl()));
    if (i == 7) arr.addObject(nullptr);  // nulls are kept
  }
  for (int i : {0, 8, 9, 29}) e->setIdTableEntry(vars[i].getId(), -1);
  arr.removeMarked();
  std::vector<TavExtractableI*> want;
  for (int i = 0; i < 30; ++i) {
    if (i != 0 && i != 8 && i != 9 && i != 29) want.push_back(vars[i].getImpl());
    if (i == 7) want.push_back(nullptr);
  }
  ASSERT_EQ(arr.getSize(), (TavInt)want.size());
  for (TavInt i = 0; i < arr.getSize(); ++i) EXPECT_EQ(arr.getObject(i), want[i]) << i;
  for (int i : {0, 8, 9, 29}) e->setIdTableEntry(vars[i].getId(), vars[i].getId());

  const TavInt live = e->getLiveObjectCount();
  arr.endElements();
  EXPECT_EQ(e->getLiveObjectCount(), live - 26);
  arr.end();
  env.end();
}

TEST(Arrays, PrintBreaksTheLineAfterEveryTenthElement) {
  TavEnv env;
  TavIntArray ints(env);
  for (int i = 0; i < 21; ++i) ints.add(i);
  TavNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y");
  TavExtractableArray objs(env);
  objs.add(TavExtractable(x.getImpl()));
  objs.add(TavExtractable(y.getImpl()));
  struct Case {
    std::string got, want;
  } cases[] = {
      {show(TavIntArray(env)), "[]"},
      {show(TavNumArray(env, {1.5, -2.0, 1e20})), "[1.5, -2, 1e+20]"},
      {show(TavIntArray(env, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10})), "[1, 2, 3, 4, 5, 6, 7, 8, 9, 10]"},
      {show(ints),
       "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9,\n10, 11, 12, 13, 14, 15, 16, 17, 18, 19,\n20]"},
      {show(objs), "[" + show(x) + ", " + show(y) + "]"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
  EXPECT_THROW(TavNumArray().getSize(), TavEmptyHandleException);
  EXPECT_THROW(TavExtractableArray().getSize(), TavEmptyHandleException);
  env.end();
}

// The numeric forms are the host-alone tests'; here the integer ones, and
// kinds keyed apart over the same bounds.
TEST(Domains, SharedDomainsAreOnePerKeyInEveryForm) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavVarDomainI* num = e->getOrMakeSharedDomain(1.0, 2.5);
  TavVarDomainI* integer = e->getOrMakeSharedDomain(TavInt(1), TavInt(3));
  TavIntRange ir(env, 1, 3);
  EXPECT_EQ(e->getOrMakeSharedDomain(TavInt(1), TavInt(3)), integer);
  EXPECT_EQ(e->getOrMakeSharedDomain(ir.getImpl()), integer);
  EXPECT_NE(e->getOrMakeSharedDomain(1.0, 3.0), num);
  EXPECT_NE(e->getOrMakeSharedDomain(1.0, 3.0), integer);  // kinds are keyed apart
  EXPECT_TRUE(integer->isShared());
  EXPECT_EQ(num->getType(), TavDomainFloat);
  EXPECT_EQ(integer->getUB(), 3.0);

  // Another environment has its own.
  TavEnv other;
  EXPECT_NE(other.getImpl()->getOrMakeSharedDomain(1.0, 2.5), num);
  other.end();
  env.end();
}

TEST(Domains, OperationsCopiesAndDisplay) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavVarDomainI* shared = e->getOrMakeSharedDomain(0.0, 4.0);
  TavVarDomainI* copy = shared->makeCopy(e);
  EXPECT_FALSE(copy->isShared());
  copy->setLB(1.5);
  EXPECT_EQ(shared->getLB(), 0.0);  // the copy is independent
  EXPECT_TRUE(copy->contains(1.5));
  EXPECT_FALSE(copy->contains(1.0));

  TavIntVarDomainI* ints = new (e) TavIntVarDomainI(0, 9, 0);
  ints->setUB(7.9);  // integer bounds truncate
  EXPECT_EQ(ints->getUB(), 7.0);
  TavIntVarDomainI* listed = new (e) TavIntVarDomainI(TavIntArray(env, {4, -2, 9}), 1);
  EXPECT_TRUE(listed->isEnumerated());
  EXPECT_TRUE(listed->isAnyDomain());
  EXPECT_EQ(listed->getValueCount(), 3);
  EXPECT_EQ(listed->getLB(), -2.0);
  EXPECT_EQ(listed->getUB(), 9.0);
  EXPECT_TRUE(listed->contains(4));
  EXPECT_FALSE(listed->contains(3));
  TavVarDomainI* listedCopy = listed->makeCopy(e);
  EXPECT_NE(listedCopy->getIntValues().getImpl(), listed->getIntValues().getImpl());
  EXPECT_TRUE(listedCopy->isAnyDomain());
  TavNumVarDomainI* nums = new (e) TavNumVarDomainI(TavNumArray(env, {0.5, 2.0}));
  TavBoolVarDomainI* bools = new (e) TavBoolVarDomainI(0, 1);
  EXPECT_EQ(bools->getType(), TavDomainBool);

  struct Case {
    const TavVarDomainI* d;
    const char* want;
  } cases[] = {{shared, "[0 .. 4] "}, {copy, "[1.5 .. 4] "}, {ints, "[0 .. 7] "},
               {listed, "{4, -2, 9} "}, {nums, "{0.5, 2} "}, {bools, "[0 .. 1] "}};
  for (const Case& c : cases) EXPECT_EQ(showDomain(c.d), c.want);

  const std::size_t before = e->getMemory().getLiveBytes();
  listedCopy->end(e);  // a private domain frees its value list with it
  EXPECT_LT(e->getMemory().getLiveBytes(), before);
  for (TavVarDomainI* d : std::initializer_list<TavVarDomainI*>{copy, ints, listed, nums, bools}) d->end(e);
  env.end();
}

TEST(Exceptions, MessagesCodesAndTheClassTree) {
  struct Case {
    std::function<void()> raise;
    const char* message;  // null: no message, what() is still non-empty
    long code;
    bool algorithmFailure;
  } cases[] = {
      {[] { throw TavWrongUsage("mixing mismatch Environments", 7); }, "mixing mismatch Environments", 7, false},
      {[] { throw TavArrayError("Array of size 0", 0); }, "Array of size 0", 0, false},
      {[] { throw TavNotImplemented("not here"); }, "not here", 0, false},
      {[] { throw TavBadConversion(); }, nullptr, 0, false},
      {[] { throw TavAlgorithm::ExtractFailure(); }, nullptr, 0, true},
      {[] { throw TavAlgorithm::RemoveFailure(); }, nullptr, 0, true},
      {[] { throw TavAlgorithm::CannotChangeException(nullptr); }, nullptr, 0, true},
      {[] { throw TavModelEvaluator::Unbound(); }, "TavModelEvaluator::Unbound: variable without value", 0, false},
      {[] { TavNumArray().getSize(); }, nullptr, 0, false},
  };
  for (const Case& c : cases) {
    try {
      c.raise();
      ADD_FAILURE() << "not thrown";
    } catch (const TavException& e) {
      const std::string what = static_cast<const std::exception&>(e).what();
      SCOPED_TRACE(what);
      EXPECT_EQ(e.getCode(), c.code);
      EXPECT_EQ(dynamic_cast<const TavAlgorithm::Exception*>(&e) != nullptr, c.algorithmFailure);
      EXPECT_FALSE(what.empty());
      EXPECT_EQ(show(e), what);
      if (c.message) {
        EXPECT_STREQ(e.getMessage(), c.message);
        EXPECT_EQ(what, c.message);
      } else {
        EXPECT_EQ(e.getMessage(), nullptr);
      }
    }
  }
  EXPECT_THROW(throw TavEmptyHandleException(), std::exception);
}
