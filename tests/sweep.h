// One allocation-failure sweep for a builder and for the clone of what it
// builds: the k-th allocation fails for k = 1, 2, ... until the call
// succeeds, and every failure must leave the environment's live objects and
// bytes (and what the caller checks) as they were.
#ifndef TAV_TEST_SWEEP_H
#define TAV_TEST_SWEEP_H

#include <cstdio>
#include <functional>
#include <new>

#include <gtest/gtest.h>

#include "tavexpression.h"
#include "test_support.h"

namespace tavtest {

/// (operation, k) pairs tried by every sweep of this process, printed when
/// the tests end: the size of the allocation-failure campaign.
inline TavInt& sweptPairs() {
  static TavInt pairs = 0;
  return pairs;
}
struct SweptPairsReport : ::testing::Environment {
  void TearDown() override {
    if (sweptPairs() > 0) std::printf("allocation-failure sweeps: %ld (operation, k) pairs\n", sweptPairs());
  }
};
inline const bool sweptPairsReported = (::testing::AddGlobalTestEnvironment(new SweptPairsReport), true);

/// Runs op with the k-th allocation of env failing, k = 1, 2, ..., until it
/// returns; failed(k) checks what each failure must have kept. Every k tried
/// counts in the report. Returns the number of failures; an op still failing
/// after 10000 tries is a test failure, not a hang.
inline int sweepFailures(TavEnvI* env, const std::function<void()>& op, const std::function<void(TavInt k)>& failed) {
  for (TavInt k = 1; k <= 10000; ++k) {
    ++sweptPairs();
    env->getMemory().failAfter(k);
    try {
      op();
      env->getMemory().failAfter(0);
      return (int)(k - 1);
    } catch (const std::bad_alloc&) {
      env->getMemory().failAfter(0);
      failed(k);
    }
  }
  ADD_FAILURE() << "still failing after 10000 allocations";
  return -1;
}

/// Calls build through sweepFailures; after each failure the live bytes and
/// unchanged() (which asserts what the caller needs kept) must be as before.
/// Returns the node.
inline TavNumExprArg buildThroughFailures(TavEnvI* env, const std::function<TavNumExprArg()>& build,
                                          const std::function<void(TavInt k)>& unchanged) {
  const std::size_t bytes = env->getMemory().getLiveBytes();
  TavNumExprArg built;
  const int failures = sweepFailures(env, [&] { built = build(); }, [&](TavInt k) {
    EXPECT_EQ(env->getMemory().getLiveBytes(), bytes) << "failing allocation " << k;
    unchanged(k);
  });
  EXPECT_GT(failures, 0);
  return built;
}

inline void sweepBuildAndClone(TavEnvI* env, const std::function<TavNumExprArg()>& build,
                               const std::function<void(TavInt k)>& unchanged) {
  const TavInt objects = env->getLiveObjectCount();
  const std::size_t bytes = env->getMemory().getLiveBytes();
  TavNumExprArg built = buildThroughFailures(env, build, [&](TavInt k) {
    EXPECT_EQ(env->getLiveObjectCount(), objects) << k;
    unchanged(k);
  });

  TavEnv other;
  TavEnvI* target = other.getImpl();
  const TavInt targetObjects = target->getLiveObjectCount();
  const std::size_t targetBytes = target->getMemory().getLiveBytes();
  TavExtractableI* clone = nullptr;
  sweepFailures(target, [&] { clone = env->cloneInto(built.getImpl(), target); }, [&](TavInt k) {
    ASSERT_EQ(target->getLiveObjectCount(), targetObjects) << k;
    ASSERT_EQ(target->getMemory().getLiveBytes(), targetBytes) << k;
  });
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(showNode(clone), showNode(built.getImpl()));
  env->clearCloneMap();
  other.end();
  TavNumExpr(built).end();
  EXPECT_EQ(env->getLiveObjectCount(), objects);
  EXPECT_EQ(env->getMemory().getLiveBytes(), bytes);
}

}  // namespace tavtest

#endif
