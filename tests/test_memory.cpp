// Environment memory: size classes and what objects of every size cost,
// exact-size arrays, ended environments, bounds that are not numbers, bounds
// arrays of the wrong size and element assignment through operator[].
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include <unistd.h>

#include "tavexpression.h"
#include "test_support.h"

namespace {

constexpr std::size_t SlabPayload = TavChunkAlign - TavChunkHeaderSize;
const double NaN = std::numeric_limits<double>::quiet_NaN();

/// Resident bytes of this process.
std::size_t residentBytes() {
  long pages = 0, resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(f);
  return (std::size_t)resident * (std::size_t)sysconf(_SC_PAGESIZE);
}

}  // namespace

// ------------------------------------------------------------------ size classes

TEST(MemoryClasses, EveryClassIsTheSmallestFitAndPacksItsChunk) {
  for (std::size_t c = 1; c < TavMemory::ClassCount; ++c) {
    SCOPED_TRACE(c);
    const std::size_t size = TavMemory::ClassSize(c);
    EXPECT_EQ(TavMemory::ClassOf(size), c);
    EXPECT_EQ(TavMemory::ClassOf(TavMemory::ClassSize(c - 1) + 1), c);
    if (c + 1 < TavMemory::ClassCount) {
      EXPECT_LE(TavMemory::ClassSize(c + 1), size + size / 4 + 16);
    }
    if (size > TavMemory::SmallLimit) {
      EXPECT_EQ(size % 16, 0u);
      EXPECT_LT(SlabPayload - SlabPayload / size * size, 16 * (SlabPayload / size)) << "chunk tail too large";
    }
  }
  EXPECT_EQ(TavMemory::ClassSize(TavMemory::ClassCount - 1), TavMemory::SlabLimit);
}

// Objects of each size cost at most a quarter more than their size, plus a
// header area per chunk and one partly used chunk; freed ones are reused.
TEST(MemoryClasses, ReservedBytesStayCloseToThePayloadForEverySize) {
  const std::size_t sizes[] = {8,     24,    100,   512,   513,   520,   600,   1000,  1500,   4000,
                               4353,  8192,  13089, 16368, 16369, 16384, 20000, 32768, 40000,  65536,
                               300000, (std::size_t(3) << 20) + 5};
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    TavEnv env;
    TavMemory& mem = env.getImpl()->getMemory();
    const std::size_t count = std::min<std::size_t>(1 << 16, std::max<std::size_t>(4, (std::size_t(4) << 20) / size));
    const std::size_t chunks = size > TavMemory::SlabLimit
                                   ? count
                                   : count / (SlabPayload / TavMemory::ClassSize(TavMemory::ClassOf(size))) + 1;
    const std::size_t reserved0 = mem.getReservedBytes(), live0 = mem.getLiveBytes();
    std::vector<char*> blocks;
    for (std::size_t i = 0; i < count; ++i) {
      char* p = static_cast<char*>(mem.alloc(size));
      std::memset(p, 0x5a, size);  // the sanitizer checks that all of it is usable
      ASSERT_EQ(TavMemory::EnvOf(p), env.getImpl());
      blocks.push_back(p);
    }
    const double payload = double(size * count);
    const double reserved = double(mem.getReservedBytes() - reserved0);
    EXPECT_GE(double(mem.getLiveBytes() - live0), payload);
    EXPECT_LE(reserved, 1.25 * payload + double(TavChunkHeaderSize) * chunks + TavChunkAlign);
    for (char* p : blocks) mem.free(p);
    EXPECT_EQ(mem.getLiveBytes(), live0);
    for (char*& p : blocks) p = static_cast<char*>(mem.alloc(size));
    EXPECT_LE(mem.getReservedBytes(), reserved0 + std::size_t(reserved)) << "freed memory was not reused";
    for (char* p : blocks) mem.free(p);
    env.end();
  }
}

// A small model must not pay a chunk per size class it touches: its
// classes share the pages of one chunk.
TEST(MemoryClasses, AModelOfOneVariableAndOneTermReservesOneChunk) {
  std::vector<TavEnvI*> envs;
  for (int k = 0; k < 20; ++k) {  // many small models at once stay small each
    TavEnvI* impl = new TavEnvI();
    envs.push_back(impl);
    TavEnv env(impl);
    TavMemory& mem = impl->getMemory();
    const std::size_t reserved0 = mem.getReservedBytes();
    TavNumVar x(env, 0.0, 1.0, "x");
    TavExpr e(env);
    e += 2.0 * x;
    EXPECT_EQ(TavMemory::EnvOf(x.getImpl()), impl);
    EXPECT_EQ(TavMemory::EnvOf(e.getImpl()), impl);
    EXPECT_LE(mem.getReservedBytes(), TavChunkAlign);
    e.end();
    x.end();
    EXPECT_LE(mem.getReservedBytes(), std::max(reserved0, TavChunkAlign));
  }
  for (TavEnvI* impl : envs) {
    impl->end();
    EXPECT_EQ(impl->getMemory().getReservedBytes(), 0u);
    EXPECT_EQ(impl->getMemory().getLiveBytes(), 0u);
    delete impl;
  }
}

// Blocks of every class side by side in shared pages: each one is freed as
// its own size, leads back to its environment, and is reused.
TEST(MemoryClasses, ClassesSharingAChunkFreeAndReuseTheirOwnSizes) {
  TavEnv env;
  TavMemory& mem = env.getImpl()->getMemory();
  const std::size_t live0 = mem.getLiveBytes(), reserved0 = mem.getReservedBytes();
  std::vector<char*> blocks;
  std::size_t live = live0;
  for (std::size_t c = 1; c < TavMemory::ClassCount; c += 7) {
    const std::size_t size = TavMemory::ClassSize(c);
    char* p = static_cast<char*>(mem.alloc(size));
    std::memset(p, 0x5a, size);
    ASSERT_EQ(TavMemory::EnvOf(p), env.getImpl());
    live += size;
    ASSERT_EQ(mem.getLiveBytes(), live) << size;
    blocks.push_back(p);
  }
  const std::size_t reserved = mem.getReservedBytes();
  EXPECT_LE(reserved - reserved0, 2 * TavChunkAlign) << "one page run per class, not one chunk";
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    mem.free(blocks[i]);
    live -= TavMemory::ClassSize(1 + 7 * i);
    ASSERT_EQ(mem.getLiveBytes(), live);
  }
  EXPECT_EQ(mem.getLiveBytes(), live0);
  for (std::size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(mem.alloc(TavMemory::ClassSize(1 + 7 * i)), blocks[i]);
  EXPECT_EQ(mem.getReservedBytes(), reserved);
  env.end();
}

// Blocks freed in scattered order come back in address order within each
// chunk, for size classes and for term cells alike, and none is lost.
TEST(MemoryClasses, ScatteredFreedBlocksComeBackInAddressOrder) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavMemory& mem = e->getMemory();
  TavNumVar x(env, 0.0, 1.0);
  const std::size_t n = 20000;
  struct Kind {
    const char* what;
    std::function<void*()> take;
    std::function<void(void*)> give;
  } kinds[] = {
      {"32-byte blocks", [&] { return mem.alloc(32); }, [&](void* p) { mem.free(p); }},
      {"600-byte blocks", [&] { return mem.alloc(600); }, [&](void* p) { mem.free(p); }},
      {"term cells", [&]() -> void* { return e->newTerm(x.getImpl(), 1.0); },
       [&](void* p) { e->recycleTerm(static_cast<TavNumLinExprTermI*>(p)); }},
  };
  for (const Kind& k : kinds) {
    SCOPED_TRACE(k.what);
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < n; ++i) blocks.push_back(k.take());
    const std::size_t reserved = mem.getReservedBytes(), live = mem.getLiveBytes();
    const TavInt terms = e->getLiveTermCount();
    std::vector<void*> order(blocks);
    std::uint64_t r = 88172645463325252u;  // a fixed shuffle
    for (std::size_t i = order.size(); i > 1; --i) {
      r ^= r << 13, r ^= r >> 7, r ^= r << 17;
      std::swap(order[i - 1], order[r % i]);
    }
    for (void* p : order) k.give(p);
    // Blocks never handed out may come first (the rest of a slab); then
    // every freed one, in address order within its chunk.
    std::vector<void*> sorted(blocks), again, extra;
    std::sort(sorted.begin(), sorted.end());
    while (again.size() < n && extra.size() <= SlabPayload / 8) {
      void* p = k.take();
      if (std::binary_search(sorted.begin(), sorted.end(), p)) again.push_back(p);
      else {
        EXPECT_TRUE(again.empty()) << "a fresh block between freed ones";
        extra.push_back(p);
      }
    }
    ASSERT_EQ(again.size(), n);
    EXPECT_EQ(mem.getReservedBytes(), reserved);
    std::size_t backwards = 0;
    for (std::size_t i = 1; i < n; ++i)
      if (TavMemory::ChunkOf(again[i]) == TavMemory::ChunkOf(again[i - 1]) && again[i] < again[i - 1]) ++backwards;
    EXPECT_EQ(backwards, 0u);
    std::sort(again.begin(), again.end());
    EXPECT_EQ(std::unique(again.begin(), again.end()) - again.begin(), (long)n) << "a block handed out twice";
    for (void* p : extra) k.give(p);
    EXPECT_EQ(mem.getLiveBytes(), live);
    EXPECT_EQ(e->getLiveTermCount(), terms);
    for (void* p : again) k.give(p);
  }
  env.end();
}

TEST(MemoryClasses, AThousandArraysOfSixtyFiveDoublesCostAboutTheirValues) {
  TavEnv env;
  TavMemory& mem = env.getImpl()->getMemory();
  const std::size_t reserved0 = mem.getReservedBytes();
  std::vector<TavNumArray> arrays;
  for (int i = 0; i < 1000; ++i) arrays.push_back(TavNumArray(env, 65));
  const double payload = 1000.0 * 65 * sizeof(double);
  EXPECT_LE(double(mem.getReservedBytes() - reserved0), 1.25 * payload + 4.0 * TavChunkAlign);
  env.end();
}

TEST(MemoryClasses, ArraysMadeWithASizeGrowPastItAndCopiesKeepEveryValue) {
  TavEnv env;
  for (TavInt n : {1L, 15L, 17L, 65L, 4095L, 4097L, 10000L}) {
    SCOPED_TRACE(n);
    TavNumArray a(env, n);
    for (TavInt i = 0; i < n; ++i) EXPECT_EQ(a[i], 0.0);
    for (TavInt i = 0; i < n; ++i) a[i] = double(i);
    TavNumArray copy(new (env.getImpl()) TavArrayI(a.getImpl()));
    for (TavInt i = n; i < 3 * n + 5; ++i) a.add(double(i));
    copy.add(-1.0);
    ASSERT_EQ(a.getSize(), 3 * n + 5);
    ASSERT_EQ(copy.getSize(), n + 1);
    for (TavInt i = 0; i < a.getSize(); ++i) ASSERT_EQ(a[i], double(i));
    for (TavInt i = 0; i < n; ++i) ASSERT_EQ(copy[i], double(i));
    EXPECT_EQ(copy[n], -1.0);
    a.end();
    copy.end();
  }
  env.end();
}

// ------------------------------------------------------------------ ended environments

TEST(EndedEnvironment, ItsMemoryReadsAsDeadAndItsVariablesAreRefused) {
  TavEnv ended;
  TavNumVar x(ended, 0, 1, "x");
  TavIntVar n(ended, 0, 5);
  TavNumArray values(ended, 3);
  TavArrayI* valuesImpl = values.getImpl();
  TavEnv env;
  TavNumVar y(env, 0, 1);
  ended.end();  // env is now the only live environment

  EXPECT_EQ(TavVarEnv(x.getImpl()), nullptr);
  EXPECT_EQ(TavMemory::EnvOf(n.getImpl()), nullptr);
  EXPECT_EQ(static_cast<TavMemoryManagerObjectI*>(valuesImpl)->getEnv(), nullptr);
  EXPECT_EQ(TavVarEnv(y.getImpl()), env.getImpl());

  TavEnvI* e = env.getImpl();
  TavExpr sum(env);
  sum += y;
  const TavInt objects = e->getLiveObjectCount(), terms = e->getLiveTermCount();
  struct Use {
    const char* what;
    std::function<void(TavExpr&)> run;
  } uses[] = {
      {"e += x", [&](TavExpr& s) { s += x; }},
      {"e -= x", [&](TavExpr& s) { s -= x; }},
      {"e += n", [&](TavExpr& s) { s += n; }},
      {"e += 2 * x", [&](TavExpr& s) { s += 2 * x; }},
      {"e += x * 0.5", [&](TavExpr& s) { s += x * 0.5; }},
      {"e -= 3 * n", [&](TavExpr& s) { s -= 3 * n; }},
      {"e += 2.0 * n", [&](TavExpr& s) { s += 2.0 * n; }},
  };
  for (const Use& u : uses) {
    SCOPED_TRACE(u.what);
    EXPECT_THROW(u.run(sum), TavWrongUsage);
    EXPECT_EQ(e->getLiveObjectCount(), objects);
    EXPECT_EQ(e->getLiveTermCount(), terms);
  }
  sum += 2 * y;  // still usable
  EXPECT_EQ(e->getLiveTermCount(), terms + 1);
  sum.end();
  env.end();
}

// Dead chunks wait in a queue: one is handed out again only after more than
// QuarantineBytes of others died after it, and a dangling pointer into any of
// them reads a dead owner (or, once reused, the new one) without faulting.
TEST(EndedEnvironment, DeadChunksAreReusedOnlyAfterALongQuarantine) {
  const std::size_t big = std::size_t(8) << 20;  // a chunk of its own
  const std::size_t rounds = TavMemory::QuarantineBytes / big + 16;
  std::vector<char*> dead;
  for (std::size_t i = 0; i < rounds; ++i) {
    TavEnv env;
    char* p = static_cast<char*>(env.getImpl()->getMemory().alloc(big));
    for (std::size_t j = dead.size(); j-- > 0 && (i - j) * big < TavMemory::QuarantineBytes;)
      ASSERT_NE(dead[j], p) << "reused after " << (i - j) << " ends";
    dead.push_back(p);
    env.end();
    ASSERT_EQ(TavMemory::EnvOf(p), nullptr);
  }
  std::vector<char*> distinct(dead);
  std::sort(distinct.begin(), distinct.end());
  EXPECT_LT(std::unique(distinct.begin(), distinct.end()) - distinct.begin(), (long)rounds) << "nothing was reused";
  TavEnv env;
  char* p = static_cast<char*>(env.getImpl()->getMemory().alloc(64));
  for (char* d : dead) {
    TavEnvI* owner = TavMemory::EnvOf(d);
    EXPECT_TRUE(owner == nullptr || owner == env.getImpl());
  }
  EXPECT_EQ(TavMemory::EnvOf(p), env.getImpl());
  env.end();
}

TEST(EndedEnvironment, EndingGivesItsPagesBack) {
  const std::size_t bytes = std::size_t(64) << 20;
  TavEnv env;
  TavNumArray big(env, TavInt(bytes / sizeof(double)));  // zeroed, so touched
  const std::size_t before = residentBytes();
  env.end();
  const std::size_t after = residentBytes();
  if (before == 0) GTEST_SKIP() << "no resident size to read";
  EXPECT_GE(before, after + bytes * 3 / 4);
}

// ------------------------------------------------------------------ bounds

TEST(Bounds, BoundsThatAreNotNumbersLeaveTheSharedDomainsAlone) {
  const struct {
    double lb, ub;
  } rows[] = {{NaN, NaN}, {NaN, 1.0}, {0.0, NaN}, {-NaN, 10.0}};
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.lb) + " " + std::to_string(r.ub));
    TavEnv env;
    TavEnvI* e = env.getImpl();
    TavNumVar before(env, 0.0, 10.0);
    const std::size_t bytes = e->getMemory().getLiveBytes();
    TavNumVar odd(env, r.lb, r.ub);
    EXPECT_EQ(std::isnan(odd.getLB()), std::isnan(r.lb));
    EXPECT_EQ(std::isnan(odd.getUB()), std::isnan(r.ub));
    TavNumVar after(env, 0.0, 10.0);
    EXPECT_EQ(after.getLB(), 0.0);
    EXPECT_EQ(after.getUB(), 10.0);
    EXPECT_EQ(after.getImpl()->getDomain(), before.getImpl()->getDomain());
    after.end();
    odd.end();
    EXPECT_EQ(e->getMemory().getLiveBytes(), bytes) << "the private domain goes with its variable";
    env.end();
  }
}

TEST(Bounds, BoundsArraysTooShortAreRefusedBeforeAnythingIsMade) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  TavNumArray n0(env, 0), n2(env, {0.0, 1.0}), n3(env, {0.0, 1.0, 2.0});
  TavIntArray i0(env, 0), i2(env, {0, 1}), i3(env, {0, 1, 2});
  TavNumColumnArray cols(env, 0);
  for (int i = 0; i < 3; ++i) cols.add(TavNumColumn(env));
  const std::string num = "TavNumVarArray::TavNumVarArray: ", in = "TavIntVarArray::TavIntVarArray: ";
  const std::string pair = "bounds arrays of different size", column = "bounds arrays shorter than the column array";
  struct Row {
    const char* what;
    std::string message;
    std::function<void()> make;
  } rows[] = {
      {"num (lbs 3, ubs 0)", num + pair, [&] { TavNumVarArray(env, n3, n0); }},
      {"num (lbs 3, ubs 2)", num + pair, [&] { TavNumVarArray(env, n3, n2, TavNumVar::Int); }},
      {"int (lbs 3, ubs 0)", in + pair, [&] { TavIntVarArray(env, i3, i0); }},
      {"int (lbs 3, ubs 2)", in + pair, [&] { TavIntVarArray(env, i3, i2); }},
      {"num columns (lbs 2)", num + column, [&] { TavNumVarArray(env, cols, n2, n3); }},
      {"num columns (ubs 0)", num + column, [&] { TavNumVarArray(env, cols, n3, n0); }},
      {"int columns (lbs 0)", in + column, [&] { TavIntVarArray(env, cols, n0, n3); }},
      {"int columns (ubs 2)", in + column, [&] { TavIntVarArray(env, cols, n3, n2); }},
  };
  const TavInt objects = e->getLiveObjectCount();
  const std::size_t bytes = e->getMemory().getLiveBytes();
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(messageOf<TavWrongUsage>(r.make), r.message);
    EXPECT_EQ(e->getLiveObjectCount(), objects);
    EXPECT_EQ(e->getMemory().getLiveBytes(), bytes);
    EXPECT_EQ(cols[0].getSize(), 0);
  }
  // A longer upper-bound array is fine: one variable per lower bound.
  TavNumVarArray nums(env, n2, n3);
  TavIntVarArray ints(env, i2, i3);
  ASSERT_EQ(nums.getSize(), 2);
  ASSERT_EQ(ints.getSize(), 2);
  EXPECT_EQ(nums[1].getUB(), 1.0);
  EXPECT_EQ(ints[1].getMax(), 1);
  env.end();
}

// ------------------------------------------------------------------ element assignment

static_assert(!std::is_assignable<decltype(std::declval<TavNumColumn>()[0]), TavExtractable>::value,
              "a column's record is read-only");

namespace {
/// a[0] = h stores h; a[1] = a[0] copies it; the element still acts as H.
template <class Array, class H>
void checkAssignment(const char* what, Array a, H h) {
  SCOPED_TRACE(what);
  static_assert(std::is_convertible<decltype(a[0]), H>::value, "an element is a handle");
  ASSERT_EQ(a.getSize(), 2);
  a[0] = h;
  EXPECT_EQ(a[0].getImpl(), h.getImpl());
  a[1] = a[0];
  EXPECT_EQ(a[1].getImpl(), h.getImpl());
  auto element = a[1];
  element = H();
  EXPECT_EQ(a[1].getImpl(), nullptr);
  EXPECT_EQ(a[0].getImpl(), h.getImpl());
}
}  // namespace

TEST(ArrayElements, AssignmentThroughTheIndexStoresInEveryKindOfArray) {
  TavEnv env;
  TavNumVar x(env, 0, 4, "x");
  TavIntVar n(env, 0, 4, "n");
  TavBoolVar b(env, "b");
  checkAssignment("num vars", TavNumVarArray(env, 2), x);
  checkAssignment("int vars", TavIntVarArray(env, 2), n);
  checkAssignment("bool vars", TavBoolVarArray(env, 2), b);
  checkAssignment("num exprs", TavNumExprArray(env, 2), TavNumExprArg(x + n));
  checkAssignment("int exprs", TavIntExprArray(env, 2), TavIntExprArg(n + 1));
  checkAssignment("extractables", TavExtractableArray(env, 2), TavExtractable(x.getImpl()));
  checkAssignment("columns", TavNumColumnArray(env, 2), TavNumColumn(env));

  TavNumVarArray v(env, 2);
  v[0] = x;
  v[1] = n;  // an integer variable is a numeric one
  EXPECT_EQ(v[0].getUB(), 4.0);
  EXPECT_EQ(show(2 * v[0] + v[1]), show(2 * x + n));
  TavIntVar back = v[1];
  EXPECT_EQ(back.getImpl(), n.getImpl());
  env.end();
}
