// The host layer linked without the expression layer: environments, model
// objects, arrays, domains, memory counters, algorithms and the evaluator's
// value table work with nothing but the host's own classes.
#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "array.h"
#include "domain.h"
#include "env.h"

namespace {

template <class T>
std::string show(const T& x) {
  std::ostringstream os;
  os << x;
  return os.str();
}

std::string showDomain(const TavVarDomainI* d) {
  std::ostringstream os;
  d->display(os);
  return os.str();
}

// Records the children the default visitChildren hands out.
class ChildRecorder : public TavExtractableVisitor {
 public:
  std::vector<TavExtractableI*> seen;
  void visitChild(TavExtractableI*, TavExtractableI* child) override { seen.push_back(child); }
};

// Records, in a shared log, its tag for every change it hears of.
class Listener : public TavAlgorithmI {
 public:
  Listener(TavEnvI* env, std::string* log, char tag) : TavAlgorithmI(env), _log(log), _tag(tag) {}
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange&) override { *_log += _tag; }

 private:
  std::string* _log;
  char _tag;
};

}  // namespace

TEST(HostAlone, ObjectsAndArraysLiveInTheEnvironmentAndGiveTheirMemoryBack) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  const std::size_t bytes = ei->getMemory().getLiveBytes();

  TavExtractableI* a = new (ei) TavExtractableI(ei, "a");
  TavExtractableI* b = new (ei) TavExtractableI(ei);
  EXPECT_EQ(a->getId(), 0);
  EXPECT_EQ(b->getId(), 1);
  EXPECT_EQ(ei->getLiveObjectCount(), 2);

  TavExtractableArray objects(env);
  objects.add(TavExtractable(a));
  objects.add(TavExtractable(b));
  EXPECT_EQ(show(objects), "[a, TavExtractableI(1)]");
  ChildRecorder children;
  children.visitChildren(a, objects);
  EXPECT_EQ(children.seen, (std::vector<TavExtractableI*>{a, b}));

  // Past the first block of sixteen: every value survives the growth.
  TavNumArray nums(env, {0.5, 1.5});
  for (int i = 2; i < 40; ++i) nums.add(i + 0.5);
  ASSERT_EQ(nums.getSize(), 40);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(nums[i], i + 0.5) << i;
  nums.remove(0, 38);
  EXPECT_EQ(show(nums), "[38.5, 39.5]");

  b->end();
  EXPECT_EQ(ei->getLiveObjectCount(), 1);
  TavExtractableI* c = new (ei) TavExtractableI(ei, "c");
  EXPECT_EQ(c->getId(), 1);  // the freed identifier comes back

  nums.end();
  objects.end();
  a->end();
  c->end();
  EXPECT_EQ(ei->getLiveObjectCount(), 0);
  EXPECT_EQ(ei->getMemory().getLiveBytes(), bytes);
  env.end();
}

TEST(HostAlone, AFailedAllocationLeavesTheArrayAndTheCountersAsTheyWere) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavIntArray ints(env, 16);  // one full block: the next add needs memory
  const std::size_t bytes = ei->getMemory().getLiveBytes();
  ei->getMemory().failAfter(1);
  EXPECT_THROW(ints.add(7), std::bad_alloc);
  ei->getMemory().failAfter(0);
  EXPECT_EQ(ints.getSize(), 16);
  EXPECT_EQ(ei->getMemory().getLiveBytes(), bytes);
  ints.add(7);
  EXPECT_EQ(ints[16], 7);

  // Replacing an array by its clones builds the new array in the target
  // environment: a failure there gives back what it took.
  TavEnv other;
  TavEnvI* oi = other.getImpl();
  TavExtractableArray objects(env, 300);
  TavArrayI* const before = objects.getImpl();
  const std::size_t otherBytes = oi->getMemory().getLiveBytes();
  for (TavInt k = 1; objects.getImpl() == before; ++k) {
    oi->getMemory().failAfter(k);
    try {
      objects.replaceByClone(oi);
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(oi->getMemory().getLiveBytes(), otherBytes) << "failing allocation " << k;
    }
    oi->getMemory().failAfter(0);
  }
  EXPECT_EQ(objects.getSize(), 300);
  other.end();
  env.end();
}

TEST(HostAlone, SharedDomainsAreOnePerBoundsAndNotANumberGetsAPrivateOne) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavVarDomainI* num = ei->getOrMakeSharedDomain(0.0, 1.0);
  EXPECT_EQ(ei->getOrMakeSharedDomain(0.0, 1.0), num);
  TavNumRange range(env, 0.0, 1.0);
  EXPECT_EQ(ei->getOrMakeSharedDomain(range.getImpl()), num);
  TavVarDomainI* integer = ei->getOrMakeSharedDomain(TavInt(0), TavInt(1));
  EXPECT_NE(integer, num);
  EXPECT_EQ(integer->getType(), TavDomainInt);
  EXPECT_TRUE(num->isShared());
  EXPECT_EQ(showDomain(num), "[0 .. 1] ");

  TavVarDomainI* odd = ei->getOrMakeSharedDomain(std::nan(""), 1.0);
  EXPECT_FALSE(odd->isShared());
  EXPECT_NE(ei->getOrMakeSharedDomain(std::nan(""), 1.0), odd);  // never found again
  odd->end(ei);
  range.end();
  env.end();  // frees the shared domains and the unfound private one
}

TEST(HostAlone, AlgorithmsHearChangesInCreationOrderAndTheEvaluatorKeepsItsValues) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  TavExtractableI* x = new (ei) TavExtractableI(ei, "x");
  std::string log;
  {
    Listener first(ei, &log, '1');
    TavAlgorithm second(new Listener(ei, &log, '2'));
    ei->change(TavChange(x));
    x->notify(TavChange(x));
    EXPECT_EQ(log, "1212");
    second.end();
    ei->change(TavChange(x));
    EXPECT_EQ(log, "12121");
  }
  ei->change(TavChange(x));
  EXPECT_EQ(log, "12121");  // a destroyed algorithm is no longer told

  // The table keys variables by address only: any object may stand in for one.
  const TavNumVarI* var = reinterpret_cast<const TavNumVarI*>(x);
  TavModelEvaluator* ev = ei->getModelEvaluator();
  EXPECT_EQ(ei->getModelEvaluator(), ev);
  EXPECT_FALSE(ev->isActive());
  EXPECT_THROW(ev->getValue(var), TavModelEvaluator::Unbound);
  ev->setVarValue(var, 4);
  EXPECT_EQ(ev->getValue(var), 4);
  EXPECT_EQ(ev->getReader().getImpl()->getValue(var), 4.0);
  EXPECT_TRUE(ei->getAlgorithms().empty());  // the reader is told of no change
  ev->clear();
  EXPECT_THROW(ev->getReader().getImpl()->getValue(var), TavModelEvaluator::Unbound);
  env.end();
}

// An index type of a layer above: the value arrays hand it on, by a function
// found through its type, and numbers still index as before.
struct UpperIndex {
  TavInt at;
};
TavInt TavElementOf(const TavValueArray<TavInt>& a, const UpperIndex& i) { return 100 + a[i.at]; }

TEST(HostAlone, ValueArraysLeaveIndexTypesToTheLayerThatDefinesThem) {
  TavEnv env;
  TavIntArray a(env, {5, 6, 7});
  EXPECT_EQ(a[UpperIndex{2}], 107);
  EXPECT_EQ(a[1], 6);
  EXPECT_EQ(a[(short)0], 5);
  a.end();
  env.end();
}
