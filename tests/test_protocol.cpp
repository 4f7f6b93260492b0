// The node protocol shared by every expression class: type identity and
// indices, the per-class CP hooks, and reference counting with the ways a
// node can leave its environment.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "test_support.h"

TAV_DEFINE_CHANGE_STATICS(NoteChange)

namespace {

int g_destroyed = 0;

// A test node: a constant plus an optional child that it holds one reference
// on, as library nodes hold their operands. Each Tag is a class of its own,
// with its own type index and hooks.
template <int Tag>
class ProbeNode final : public TavNode<ProbeNode<Tag>, TavNumExprI> {
  TAV_NODE_STATICS
  using Node = TavNode<ProbeNode<Tag>, TavNumExprI>;

 public:
  static constexpr const char* RttiName = "ProbeNode";
  ProbeNode(TavEnvI* env, double v, TavNumExprI* child = nullptr) : Node(env, nullptr), _v(v), _child(child) {
    if (_child) _child->lockRef();
  }
  ~ProbeNode() override {
    ++g_destroyed;
    if (_child) this->getEnv()->release(_child);
  }
  double eval(TavAlgorithm alg) const override { return _v + (_child ? _child->eval(alg) : 0.0); }
  void visitSubExtractables(TavExtractableVisitor* v) override {
    v->beginVisit(this);
    if (_child) v->visitChild(this, _child);
    v->endVisit(this);
  }
  void atRemove(TavExtractableI* removed, void*) override {
    seenRemoved = removed;
    removedMarked = this->getEnv()->isRemoved(removed);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    TavNumExprI* c = _child ? static_cast<TavNumExprI*>(this->getEnv()->getClone(_child)) : nullptr;
    return new (env) ProbeNode(env, _v, c);
  }
  TavExtractableI* seenRemoved = nullptr;
  bool removedMarked = false;

 private:
  double _v;
  TavNumExprI* _child;
};

template <int Tag>
TavInt ProbeNode<Tag>::_rttiIndex = 0;
template <int Tag>
TavExtractableI::ExtractHook ProbeNode<Tag>::_extractCP = nullptr;
template <int Tag>
TavExtractableI::ObjectHook ProbeNode<Tag>::_unextractCP = nullptr;
template <int Tag>
TavExtractableI::ObjectHook ProbeNode<Tag>::_modifyCP = nullptr;

template <int Tag>
ProbeNode<Tag>* probe(TavEnv env, double v = 1.0, TavNumExprI* child = nullptr) {
  return new (env.getImpl()) ProbeNode<Tag>(env.getImpl(), v, child);
}

using tavtest::CountingMutex;

}  // namespace

TEST(TypeIdentity, IndicesFollowFirstRequestAndInstanceFormDoesNotAssign) {
  TavEnv env;
  CountingMutex m;
  TavEnvI::Mutex = &m;
  ProbeNode<3>* never = probe<3>(env);
  const TavInt n = TavRtti::_counter;
  EXPECT_EQ(ProbeNode<2>::GetTypeIndex(), n + 1);
  EXPECT_EQ(ProbeNode<1>::GetTypeIndex(), n + 2);
  EXPECT_EQ(ProbeNode<2>::GetTypeIndex(), n + 1);
  EXPECT_EQ(m.locks, 2);  // only first requests take the lock
  EXPECT_EQ(m.unlocks, 2);
  TavEnvI::Mutex = nullptr;

  EXPECT_EQ(never->getTypeIndex(), 0);
  EXPECT_EQ(TavRtti::_counter, n + 2);
  ProbeNode<3>::InitTypeIndex();
  EXPECT_EQ(never->getTypeIndex(), n + 3);
  EXPECT_EQ(never->getBaseTypeIndex(), TavNumExprI::GetTypeIndex());
  never->end();
  env.end();
}

TEST(TypeIdentity, IsTypeWalksTheBaseChainOnly) {
  TavEnv env;
  TavNumVar x(env, 0, 1, "x");
  TavExpr lin(env, 2.0);
  ProbeNode<1>* p = probe<1>(env);
  TavChange plain;
  NoteChange rec;
  struct Case {
    const char* what;
    bool got, want;
  } cases[] = {
      {"own token", p->isType(ProbeNode<1>::GetTypeInfo()), true},
      {"base", p->isType(TavNumExprI::GetTypeInfo()), true},
      {"root", p->isType(TavExtractableI::GetTypeInfo()), true},
      {"sibling probe", p->isType(ProbeNode<2>::GetTypeInfo()), false},
      {"integer base", p->isType(TavIntExprI::GetTypeInfo()), false},
      {"linear sibling", p->isType(TavNumLinTermI::GetTypeInfo()), false},
      {"variable as integer", x.getImpl()->isType(TavIntExprI::GetTypeInfo()), true},
      {"variable as numeric", x.getImpl()->isType(TavNumExprI::GetTypeInfo()), true},
      {"variable as linear", x.getImpl()->isType(TavNumLinTermI::GetTypeInfo()), false},
      {"linear as integer", lin.getImpl()->isType(TavIntExprI::GetTypeInfo()), false},
      {"change root", rec.isType(TavChange::GetTypeInfo()), true},
      {"root change is not derived", plain.isType(NoteChange::GetTypeInfo()), false},
      {"change vs extractable", rec.isType(TavExtractableI::GetTypeInfo()), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.got, c.want);
  }
  EXPECT_EQ(TavNumExprI::GetBaseTypeInfo(), TavExtractableI::GetTypeInfo());
  EXPECT_EQ(TavIntExprI::GetBaseTypeInfo(), TavNumExprI::GetTypeInfo());
  EXPECT_EQ(p->getExtractableSize(), (TavInt)sizeof(ProbeNode<1>));
  EXPECT_STREQ(x.getImpl()->getRttiTypeName(), "TavNumVarI");
  EXPECT_STREQ(TavNumExprI::GetRttiTypeName(), "TavNumExprI");
  EXPECT_STREQ(TavIntExprI::GetRttiTypeName(), "TavIntExprI");
  p->end();
  lin.end();
  env.end();
}

namespace {
const TavExtractableI* g_hookNode = nullptr;
void* g_hookObject = nullptr;
TavAlgorithmI* g_hookAlg = nullptr;
int g_hookCalls = 0;
}  // namespace

TEST(CpHooks, UnsetHooksFailAndSetHooksAreCalledWithoutBaseFallback) {
  TavEnv env;
  RecordingAlg alg(env.getImpl());
  TavAlgorithm a(&alg);
  ProbeNode<4>* p = probe<4>(env);
  int token = 0;

  EXPECT_THROW(p->extractToCP(a), TavAlgorithm::ExtractFailure);
  // The modify path reports a remove failure, never an extract failure.
  EXPECT_THROW(p->unextractFromCP(a, &token), TavAlgorithm::RemoveFailure);
  EXPECT_THROW(p->modifyCP(a, &token), TavAlgorithm::RemoveFailure);
  try {
    p->modifyCP(a, &token);
  } catch (const TavAlgorithm::ExtractFailure&) {
    ADD_FAILURE() << "modify must not fail as an extraction";
  } catch (const TavAlgorithm::RemoveFailure& e) {
    EXPECT_EQ(e.getMessage(), nullptr);
    EXPECT_EQ(e.getCode(), 0);
  }

  // A hook on the base class is not used by a subclass.
  TavNumExprI::_extractCP = [](TavAlgorithm, const TavExtractableI*) -> void* { return nullptr; };
  EXPECT_THROW(p->extractToCP(a), TavAlgorithm::ExtractFailure);
  TavNumExprI::_extractCP = nullptr;

  g_hookCalls = 0;
  ProbeNode<4>::_extractCP = [](TavAlgorithm alg, const TavExtractableI* n) -> void* {
    ++g_hookCalls;
    g_hookNode = n;
    g_hookAlg = alg.getImpl();
    return &g_hookCalls;
  };
  ProbeNode<4>::_unextractCP = [](TavAlgorithm, const TavExtractableI* n, void* o) {
    ++g_hookCalls;
    g_hookNode = n;
    g_hookObject = o;
  };
  ProbeNode<4>::_modifyCP = [](TavAlgorithm, const TavExtractableI*, void* o) {
    g_hookCalls += 10;
    g_hookObject = o;
  };
  EXPECT_EQ(p->extractToCP(a), &g_hookCalls);
  EXPECT_EQ(g_hookNode, p);
  EXPECT_EQ(g_hookAlg, &alg);
  p->unextractFromCP(a, &token);
  EXPECT_EQ(g_hookObject, &token);
  p->modifyCP(a, nullptr);
  EXPECT_EQ(g_hookObject, nullptr);
  EXPECT_EQ(g_hookCalls, 12);
  // Another instantiation keeps its own, still empty, hooks.
  ProbeNode<5>* q = probe<5>(env);
  EXPECT_THROW(q->extractToCP(a), TavAlgorithm::ExtractFailure);
  ProbeNode<4>::_extractCP = nullptr;
  ProbeNode<4>::_unextractCP = nullptr;
  ProbeNode<4>::_modifyCP = nullptr;
  p->end();
  q->end();
  env.end();
}

TEST(CpHooks, ChangeRecordsApplyThroughTheirOwnHook) {
  TavEnv env;
  RecordingAlg alg(env.getImpl());
  NoteChange rec;
  try {
    rec.applyToCP(TavAlgorithm(&alg), nullptr);
    ADD_FAILURE() << "an unset apply hook must refuse the change";
  } catch (const TavAlgorithm::CannotChangeException& e) {
    EXPECT_EQ(e.getAlgorithm(), &alg);
  }
  // Library records start without a hook too.
  TavNumVar x(env, 0, 1, "x");
  TavSetNumVarBounds bounds(x.getImpl(), 0, 1);
  EXPECT_THROW(bounds.applyToCP(TavAlgorithm(&alg), nullptr), TavAlgorithm::CannotChangeException);

  g_hookCalls = 0;
  NoteChange::_applyCP = [](TavAlgorithm, const TavChange* c, void* data) {
    ++g_hookCalls;
    g_hookObject = data;
    g_hookNode = c->getChangedExtractable();
  };
  NoteChange onX(x.getImpl());
  int token = 0;
  onX.applyToCP(TavAlgorithm(&alg), &token);
  EXPECT_EQ(g_hookCalls, 1);
  EXPECT_EQ(g_hookObject, &token);
  EXPECT_EQ(g_hookNode, x.getImpl());
  EXPECT_THROW(bounds.applyToCP(TavAlgorithm(&alg), nullptr), TavAlgorithm::CannotChangeException);
  NoteChange::_applyCP = nullptr;
  env.end();
}

TEST(RefCounting, NodeIsDestroyedOnceWhenTheLastHolderLetsGo) {
  TavEnv env;
  const TavInt live0 = env.getImpl()->getLiveObjectCount();
  const std::size_t bytes0 = env.getImpl()->getMemory().getLiveBytes();
  g_destroyed = 0;
  ProbeNode<1>* leaf = probe<1>(env, 1.0);
  ProbeNode<1>* shared = probe<1>(env, 2.0, leaf);
  TavNumExpr h1(TavNumExprArg{shared});
  TavNumExpr h2(TavNumExprArg{shared});
  EXPECT_EQ(shared->getRefCount(), 2);
  EXPECT_EQ(leaf->getRefCount(), 1);
  EXPECT_EQ(env.getImpl()->getLiveObjectCount(), live0 + 2);

  h1.end();
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_EQ(shared->getRefCount(), 1);
  h2.end();  // the parent goes, and with it the leaf it held
  EXPECT_EQ(g_destroyed, 2);
  EXPECT_EQ(env.getImpl()->getLiveObjectCount(), live0);
  EXPECT_EQ(env.getImpl()->getMemory().getLiveBytes(), bytes0);

  // A child that is held elsewhere survives its parent.
  ProbeNode<1>* kept = probe<1>(env, 3.0);
  TavNumExpr keep(TavNumExprArg{kept});
  TavNumExpr parent(TavNumExprArg{probe<1>(env, 4.0, kept)});
  parent.end();
  EXPECT_EQ(g_destroyed, 3);
  EXPECT_EQ(kept->getRefCount(), 1);
  keep.end();
  EXPECT_EQ(g_destroyed, 4);
  env.end();
}

namespace {
struct Interceptor : TavDeletionInterceptor {
  std::vector<TavNumExprI*> taken;
  void takeNode(TavNumExprI* node) override { taken.push_back(node); }
};
}  // namespace

TEST(RefCounting, InterceptorReceivesTheNodeInsteadOfDestruction) {
  TavEnv env;
  Interceptor icpt;
  env.getImpl()->setDeletionInterceptor(&icpt);
  g_destroyed = 0;
  ProbeNode<1>* p = probe<1>(env);
  TavNumExpr h(TavNumExprArg{p});
  h.end();
  ASSERT_EQ(icpt.taken.size(), 1u);
  EXPECT_EQ(icpt.taken[0], p);
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_FALSE(env.getImpl()->isRemoved(p));
  env.getImpl()->setDeletionInterceptor(nullptr);
  env.getImpl()->destroy(p, 0);  // the deferred deletion
  EXPECT_EQ(g_destroyed, 1);
  env.end();
}

TEST(RefCounting, RemoveFromAllOnDestroyTellsEveryOtherObject) {
  TavEnv env;
  ProbeNode<1>* witness = probe<1>(env);
  witness->lockRef();
  // A node that is still counted may be held: every other object is told,
  // and sees it marked removed meanwhile.
  g_destroyed = 0;
  ProbeNode<1>* held = probe<1>(env);
  held->lockRef();
  TavInt id = held->getId();
  env.getImpl()->removeFromAllAndDestroy(held, 0);
  EXPECT_EQ(g_destroyed, 1);
  EXPECT_EQ(witness->seenRemoved, held);
  EXPECT_TRUE(witness->removedMarked);
  EXPECT_EQ(env.getImpl()->getObject(id), nullptr);
  // A node whose count falls to zero is held by nothing: nobody is told.
  for (bool removeFromAll : {false, true}) {
    SCOPED_TRACE(removeFromAll);
    env.getImpl()->setRemoveFromAllOnDestroy(removeFromAll);
    witness->seenRemoved = nullptr;
    g_destroyed = 0;
    ProbeNode<1>* gone = probe<1>(env);
    id = gone->getId();
    TavNumExpr h(TavNumExprArg{gone});
    h.end();
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_EQ(witness->seenRemoved, nullptr);
    EXPECT_EQ(env.getImpl()->getObject(id), nullptr);
  }
  env.getImpl()->setRemoveFromAllOnDestroy(false);
  witness->end();
  env.end();
}

namespace {
// Lets go of a node from inside the environment's own teardown.
struct ReleasingAlg : TavAlgorithmI {
  ReleasingAlg(TavEnvI* env, TavNumExprI* n) : TavAlgorithmI(env), node(n) {}
  ~ReleasingAlg() override {
    seenEnding = node->getEnv()->isEnding();
    node->release();
    node->getEnv()->release(node);
    countAfter = node->getRefCount();
  }
  double getValue(const TavNumVarI*) const override { return 0.0; }
  TavNumExprI* node;
  static bool seenEnding;
  static TavInt countAfter;
};
bool ReleasingAlg::seenEnding = false;
TavInt ReleasingAlg::countAfter = -1;
}  // namespace

TEST(RefCounting, ReleaseIsIgnoredWhileTheEnvironmentEnds) {
  TavEnv env;
  g_destroyed = 0;
  ProbeNode<1>* p = probe<1>(env);
  p->lockRef();
  // Outside teardown release() does drop a reference.
  p->lockRef();
  p->release();
  EXPECT_EQ(p->getRefCount(), 1);
  env.getImpl()->adoptAlgorithm(new ReleasingAlg(env.getImpl(), p));
  env.end();
  EXPECT_TRUE(ReleasingAlg::seenEnding);
  EXPECT_EQ(ReleasingAlg::countAfter, 1);
  EXPECT_EQ(g_destroyed, 0);
}

TEST(Cloning, CloneIntoCopiesChildrenFirstAndRecordsPairsInBothEnvironments) {
  const int depth = 100000;  // deep enough to overflow a recursive walk
  TavEnv src, dst;
  TavNumExprI* cur = probe<1>(src, 1.0);
  TavNumExprI* bottom = cur;
  for (int i = 1; i < depth; ++i) cur = probe<1>(src, 1.0, cur);
  TavNumExpr top(TavNumExprArg{cur});
  const TavInt dst0 = dst.getImpl()->getLiveObjectCount();
  TavExtractableI* clone = src.getImpl()->cloneInto(cur, dst.getImpl());
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->getEnv(), dst.getImpl());
  EXPECT_EQ(dst.getImpl()->getLiveObjectCount(), dst0 + depth);
  EXPECT_EQ(src.getImpl()->getClone(cur), clone);
  EXPECT_EQ(dst.getImpl()->getClone(cur), clone);
  TavExtractableI* bottomClone = src.getImpl()->getClone(bottom);
  ASSERT_NE(bottomClone, nullptr);
  EXPECT_EQ(bottomClone->getEnv(), dst.getImpl());
  EXPECT_EQ(static_cast<TavNumExprI*>(bottomClone)->getRefCount(), 1);  // held by its cloned parent
  src.getImpl()->clearCloneMap();
  EXPECT_EQ(src.getImpl()->getClone(cur), nullptr);
  EXPECT_EQ(dst.getImpl()->getClone(cur), clone);
  top.end();
  src.end();
  dst.end();
}
