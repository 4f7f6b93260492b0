// Variable and expression arrays: bulk and element-list construction,
// conversions, cloning and the bulk operations.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

typedef std::vector<std::pair<double, double>> Bounds;

Bounds boundsOf(const TavNumVarArray& a) {
  Bounds out;
  for (TavInt i = 0; i < a.getSize(); ++i) out.push_back({a[i].getLB(), a[i].getUB()});
  return out;
}

struct ChangeRecorder : TavAlgorithmI {
  explicit ChangeRecorder(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI*) const override { return 0; }
  void notifyChange(const TavChange& c) override {
    if (auto* r = dynamic_cast<const TavSetNumVarArrayBounds*>(&c)) arrays.push_back(r->getVars().getImpl());
    else ++others;
  }
  std::vector<TavArrayI*> arrays;
  int others = 0;
};

TavNumColumnArray columns(TavEnv env, int n, int emptyAt) {
  TavNumColumnArray cols(env);
  for (int i = 0; i < n; ++i) cols.add(i == emptyAt ? TavNumColumn() : TavNumColumn(env));
  return cols;
}

}  // namespace

// ------------------------------------------------------------------ bulk constructors

TEST(VarArrays, BulkConstructorsApplyTheirBoundRule) {
  TavEnv env;
  const double inf = TavGetInfinity();
  struct Case {
    const char* what;
    std::function<TavNumVarArray()> make;
    TavNumVar::Type type;
    Bounds bounds;
  };
  const std::vector<Case> cases = {
      {"n floats", [&] { return TavNumVarArray(env, 3, 1.5, 4.0); }, TavNumVar::Float, {{1.5, 4}, {1.5, 4}, {1.5, 4}}},
      {"n = 0", [&] { return TavNumVarArray(env, 0, 0, 1); }, TavNumVar::Float, {}},
      {"n < 0", [&] { return TavNumVarArray(env, -3, 0, 1); }, TavNumVar::Float, {}},
      {"int rounds both up", [&] { return TavNumVarArray(env, 1, 0.2, 3.7, TavNumVar::Int); }, TavNumVar::Int, {{1, 4}}},
      // Type first: truncation before clamping, so 0.5 gives 0 for both bounds.
      {"bool by type", [&] { return TavNumVarArray(env, 2, 0.5, 0.5, TavNumVar::Bool); }, TavNumVar::Bool, {{0, 0}, {0, 0}}},
      {"bool clamped", [&] { return TavNumVarArray(env, 1, -3, 7, TavNumVar::Bool); }, TavNumVar::Bool, {{0, 1}}},
      {"lbs, ubs", [&] { return TavNumVarArray(env, TavNumArray(env, {0, 1}), TavNumArray(env, {2, 3, 9})); },
       TavNumVar::Float, {{0, 2}, {1, 3}}},
      {"lb, ubs", [&] { return TavNumVarArray(env, -1.0, TavNumArray(env, {2, 3})); }, TavNumVar::Float, {{-1, 2}, {-1, 3}}},
      {"lbs, ub bool", [&] { return TavNumVarArray(env, TavNumArray(env, {0.5, 2.5}), 0.4, TavNumVar::Bool); },
       TavNumVar::Bool, {{0, 0}, {1, 0}}},
      {"int n", [&] { return TavIntVarArray(env, 2, -1, 5).toNumVarArray(); }, TavNumVar::Int, {{-1, 5}, {-1, 5}}},
      {"int lbs, ubs", [&] { return TavIntVarArray(env, TavIntArray(env, {1, 2}), TavIntArray(env, {3, 4})).toNumVarArray(); },
       TavNumVar::Int, {{1, 3}, {2, 4}}},
      {"int lb, ubs", [&] { return TavIntVarArray(env, 0, TavIntArray(env, {5, 6})).toNumVarArray(); }, TavNumVar::Int,
       {{0, 5}, {0, 6}}},
      {"int lbs, ub", [&] { return TavIntVarArray(env, TavIntArray(env, {-2, -1}), 9).toNumVarArray(); }, TavNumVar::Int,
       {{-2, 9}, {-1, 9}}},
      {"columns", [&] { return TavNumVarArray(env, columns(env, 1, -1)); }, TavNumVar::Float, {{0, inf}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TavNumVarArray a = c.make();
    EXPECT_EQ(boundsOf(a), c.bounds);
    for (TavInt i = 0; i < a.getSize(); ++i) {
      ASSERT_NE(a.getElement(i), nullptr);
      EXPECT_EQ(a.getElement(i)->getEnv(), env.getImpl());
      EXPECT_EQ(a[i].getName(), nullptr);
      if (c.type == TavNumVar::Bool) EXPECT_NE(a[i].getType(), TavNumVar::Float);
      else EXPECT_EQ(a[i].getType(), c.type);
      if (i > 0) {
        EXPECT_NE(a.getElement(i), a.getElement(i - 1));
      }
    }
  }
  env.end();
}

// A random read of element i goes through the block table: an array made
// with a size must get the blocks of that size, not the smallest ones an
// array grown one element at a time starts with.
TEST(VarArrays, ArraysMadeWithASizeGetBlocksOfThatSize) {
  TavEnv env;
  const TavInt n = 5000;
  const TavInt shift = TavNumArray(env, n).getImpl()->getBlockShift();
  TavNumArray lbs(env, n), ubs(env, n);
  const std::vector<std::pair<const char*, std::function<TavArrayI*()>>> makers = {
      {"n floats", [&] { return TavNumVarArray(env, n, 0.0, 1.0).getImpl(); }},
      {"lbs, ubs", [&] { return TavNumVarArray(env, lbs, ubs).getImpl(); }},
      {"n integers", [&] { return TavIntVarArray(env, n, 0, 1).getImpl(); }},
  };
  for (const auto& m : makers) {
    SCOPED_TRACE(m.first);
    EXPECT_EQ(m.second()->getBlockShift(), shift);
  }
  EXPECT_GT(shift, TavNumVarArray(env).getImpl()->getBlockShift());
  env.end();
}

TEST(VarArrays, ColumnConstructorsLeaveEmptyColumnsNull) {
  TavEnv env;
  const double inf = TavGetInfinity();
  struct Case {
    const char* what;
    std::function<TavNumVarArray(TavNumColumnArray)> make;
    Bounds bounds;  // entry 2 is the empty column and is not read
    // make allocates nothing beside the constructor (and its bounds arrays)
  };
  const std::vector<Case> cases = {
      {"num", [&](TavNumColumnArray c) { return TavNumVarArray(env, c); }, {{0, inf}, {0, inf}, {}, {0, inf}}},
      {"num bounds",
       [&](TavNumColumnArray c) {
         return TavNumVarArray(env, c, TavNumArray(env, {1, 2, 0, 3}), TavNumArray(env, {4, 5, 0, 6}));
       },
       {{1, 4}, {2, 5}, {}, {3, 6}}},
      {"int", [&](TavNumColumnArray c) { return TavNumVarArray(TavIntVarArray(env, c).getImpl()); },
       {{0, 9007199254740991.0}, {0, 9007199254740991.0}, {}, {0, 9007199254740991.0}}},
      {"int truncated",
       [&](TavNumColumnArray c) {
         return TavNumVarArray(
             TavIntVarArray(env, c, TavNumArray(env, {-2.5, 0.7, 0, 1.9}), TavNumArray(env, {3.9, 4.2, 0, -0.5}))
                 .getImpl());
       },
       {{-2, 3}, {0, 4}, {}, {1, 0}}},
      {"bool", [&](TavNumColumnArray c) { return TavNumVarArray(TavBoolVarArray(env, c).getImpl()); },
       {{0, 1}, {0, 1}, {}, {0, 1}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TavNumColumnArray cols = columns(env, 4, 2);
    c.make(columns(env, 4, 2));  // the shared domains exist from now on
    // A build that fails part-way takes its variables out of their columns
    // again: no column may name a destroyed variable.
    TavNumVarArray a;
    const TavInt objects = env.getImpl()->getLiveObjectCount();
    tavtest::sweepFailures(env.getImpl(), [&] { a = c.make(cols); }, [&](TavInt k) {
      for (TavInt i = 0; i < 4; ++i) ASSERT_EQ(cols[i].getSize(), 0) << "failing allocation " << k;
      ASSERT_EQ(env.getImpl()->getLiveObjectCount(), objects) << "failing allocation " << k;
    });
    ASSERT_EQ(a.getSize(), 4);
    EXPECT_EQ(a.getElement(2), nullptr);
    for (TavInt i : {0, 1, 3}) {
      ASSERT_NE(a.getElement(i), nullptr);
      EXPECT_EQ(std::make_pair(a[i].getLB(), a[i].getUB()), c.bounds[i]);
      ASSERT_EQ(cols[i].getSize(), 1) << "the variable is installed into its column";
      EXPECT_EQ(cols[i][0].getImpl(), a.getElement(i));
    }
  }
  env.end();
}

TEST(VarArrays, BulkConstructorsRejectEmptyArrayHandles) {
  TavEnv env;
  TavNumArray nums(env, {1, 2});
  TavIntArray ints(env, {1, 2});
  TavNumColumnArray cols = columns(env, 2, -1);
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"lbs", [&] { TavNumVarArray(env, TavNumArray(), nums); }},
      {"ubs", [&] { TavNumVarArray(env, nums, TavNumArray()); }},
      {"lb, ubs", [&] { TavNumVarArray(env, 0.0, TavNumArray()); }},
      {"lbs, ub", [&] { TavNumVarArray(env, TavNumArray(), 1.0); }},
      {"cols", [&] { TavNumVarArray(env, TavNumColumnArray()); }},
      {"cols bounds", [&] { TavNumVarArray(env, cols, nums, TavNumArray()); }},
      {"int lbs", [&] { TavIntVarArray(env, TavIntArray(), ints); }},
      {"int ubs", [&] { TavIntVarArray(env, ints, TavIntArray()); }},
      {"int lb, ubs", [&] { TavIntVarArray(env, 0, TavIntArray()); }},
      {"int lbs, ub", [&] { TavIntVarArray(env, TavIntArray(), 1); }},
      {"int cols", [&] { TavIntVarArray(env, TavNumColumnArray()); }},
      {"int cols bounds", [&] { TavIntVarArray(env, cols, TavNumArray(), nums); }},
      {"bool cols", [&] { TavBoolVarArray(env, TavNumColumnArray()); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    EXPECT_EQ(messageOf<TavEmptyHandleException>(c.second), "<none>");
  }
  env.end();
}

// ------------------------------------------------------------------ element lists

namespace {
template <class Array, class Elem, std::size_t... I>
void checkList(TavEnv env, const std::vector<Elem>& es, const std::string& family, bool blankForOne,
               std::index_sequence<I...>) {
  constexpr TavInt k = (TavInt)sizeof...(I);
  SCOPED_TRACE(family + " with " + std::to_string(k) + " elements");
  Array a(env, k, es[I]...);
  ASSERT_EQ(a.getSize(), k);
  for (TavInt i = 0; i < k; ++i) EXPECT_EQ(a.getElement(i), es[i].getImpl()) << i;
  // The texts are fixed per constructor; only the numeric k = 1 one has a blank.
  const std::string expected =
      family + "::" + family + ": n !=" + (blankForOne && k == 1 ? " " : "") + std::to_string(k);
  for (TavInt n : {k - 1, k + 1, (TavInt)-1}) {
    SCOPED_TRACE(n);
    try {
      Array b(env, n, es[I]...);
      ADD_FAILURE() << "no throw";
    } catch (const TavWrongUsage& e) {
      EXPECT_EQ(std::string(e.getMessage()), expected);
      EXPECT_EQ(e.getCode(), 0);
    }
  }
}

template <class Array, class Elem, std::size_t... K>
void checkAllLists(TavEnv env, const std::vector<Elem>& es, const std::string& family, bool blankForOne,
                   std::index_sequence<K...>) {
  (checkList<Array>(env, es, family, blankForOne, std::make_index_sequence<K + 1>()), ...);
}
}  // namespace

TEST(VarArrays, ElementListsCheckTheirCount) {
  TavEnv env;
  std::vector<TavNumVar> nums;
  std::vector<TavIntVar> ints;
  std::vector<TavBoolVar> bools;
  for (int i = 0; i < 10; ++i) {
    // An empty handle in the list is stored as a null element.
    nums.push_back(i == 3 ? TavNumVar() : TavNumVar(env, 0, i));
    ints.push_back(i == 3 ? TavIntVar() : TavIntVar(env, 0, i));
    bools.push_back(i == 3 ? TavBoolVar() : TavBoolVar(env));
  }
  checkAllLists<TavNumVarArray>(env, nums, "TavNumVarArray", true, std::make_index_sequence<10>());
  checkAllLists<TavIntVarArray>(env, ints, "TavIntVarArray", false, std::make_index_sequence<10>());
  checkAllLists<TavBoolVarArray>(env, bools, "TavBoolVarArray", false, std::make_index_sequence<10>());
  env.end();
}

// ------------------------------------------------------------------ conversions

TEST(VarArrays, ConversionsKeepTheSameElements) {
  TavEnv env;
  TavIntVar p(env, 0, 4);
  TavBoolVar b(env);
  TavNumVar f(env, 0, 1);
  TavNumVarArray integral(env, 2, TavNumVar(p), TavNumVar(b));
  TavNumVarArray floatLast(env, 3, TavNumVar(p), TavNumVar(b), f);
  TavNumVarArray withNull(env, 2, TavNumVar(p), TavNumVar());

  auto same = [](const TavExtractableArray& out, const TavExtractableArray& in) {
    ASSERT_EQ(out.getSize(), in.getSize());
    EXPECT_NE(out.getImpl(), in.getImpl());
    EXPECT_EQ(out.getEnv(), in.getEnv());
    for (TavInt i = 0; i < in.getSize(); ++i) EXPECT_EQ(out.getObject(i), in.getObject(i));
  };
  same(floatLast.toNumExprArray(), floatLast);
  same(integral.toIntExprArray(), integral);
  same(integral.toIntVarArray(), integral);
  TavIntVarArray iv(env, 2, p, TavIntVar(b));
  same(iv.toIntExprArray(), iv);
  same(iv.toNumVarArray(), iv);

  // The whole array is tested before anything is built.
  EXPECT_EQ(messageOf<TavBadConversion>([&] { floatLast.toIntExprArray(); }), "<none>");
  EXPECT_EQ(messageOf<TavBadConversion>([&] { floatLast.toIntVarArray(); }), "<none>");
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { withNull.toIntExprArray(); }), "Using empty handle TavNumVar::getType");
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { withNull.toIntVarArray(); }), "Using empty handle TavNumVar::getType");
  env.end();
}

TEST(VarArrays, BoolArrayFromIntArrayChecksEveryElement) {
  TavEnv env;
  TavNumVarI* floating = TavNumVar(env, 0, 1).getImpl();
  struct Case {
    const char* what;
    std::vector<TavNumVarI*> elements;
    std::string outcome;  // "" when accepted
  };
  auto iv = [&](TavInt lb, TavInt ub) { return TavIntVar(env, lb, ub).getImpl(); };
  const std::vector<Case> cases = {
      {"0-1 ints", {iv(0, 1), iv(1, 1), iv(0, 0)}, ""},
      {"bool", {TavBoolVar(env).getImpl()}, ""},
      {"empty array", {}, ""},
      {"null", {iv(0, 1), nullptr}, "Using empty variable"},
      {"float", {floating}, "Try to add a float variable to TavBoolVarArray"},
      {"ub 2", {iv(0, 2)}, "<none>"},
      {"lb -1", {iv(-1, 0)}, "<none>"},
      {"first failure wins", {iv(0, 2), nullptr}, "<none>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TavIntVarArray a(env);
    for (TavNumVarI* v : c.elements) a.addObject(v);
    if (c.outcome.empty()) {
      TavBoolVarArray b(a);
      EXPECT_EQ(b.getImpl(), a.getImpl()) << "the storage is shared, not copied";
    } else if (c.outcome == "<none>") {
      EXPECT_EQ(messageOf<TavBadConversion>([&] { TavBoolVarArray b(a); }), "<none>");
    } else {
      EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavBoolVarArray b(a); }), c.outcome);
    }
  }
  env.end();
}

// ------------------------------------------------------------------ cloning and bulk operations

TEST(VarArrays, ClonesComeFromTheCloneMap) {
  TavEnv env, env2;
  TavEnvI* e2 = env2.getImpl();
  TavNumVar x(env, 0, 1, "x"), y(env, 2, 3, "y");
  TavIntVar p(env, 0, 5, "p");
  TavBoolVar b(env, "b");
  for (TavExtractableI* o : {(TavExtractableI*)x.getImpl(), (TavExtractableI*)y.getImpl(),
                             (TavExtractableI*)p.getImpl(), (TavExtractableI*)b.getImpl()})
    env.getImpl()->cloneInto(o, e2);
  auto cl = [&](const TavNumExprArg& v) { return (TavExtractableI*)e2->getClone(v.getImpl()); };

  auto expect = [&](const TavExtractableArray& a, std::vector<TavExtractableI*> want, TavEnvI* where) {
    ASSERT_EQ(a.getSize(), (TavInt)want.size());
    EXPECT_EQ(a.getEnv().getImpl(), where);
    for (TavInt i = 0; i < a.getSize(); ++i) EXPECT_EQ(a.getObject(i), want[i]) << i;
  };
  TavNumVarArray nv(env, 2, y, x);
  expect(nv.getClone(e2), {cl(y), cl(x)}, e2);
  EXPECT_EQ(nv.getClone(nullptr).getObject(0), cl(y)) << "null: each element's own environment";
  expect(TavIntVarArray(env, 2, p, TavIntVar(b)).getClone(e2), {cl(p), cl(b)}, e2);
  expect(TavBoolVarArray(env, 1, b).getClone(e2), {cl(b)}, e2);
  TavIntExprArray ie(env);
  ie.add(p);
  ie.add(b);
  expect(ie.getClone(e2), {cl(p), cl(b)}, e2);
  ie.replaceByClone(e2);
  expect(ie, {cl(p), cl(b)}, e2);
  TavNumExprArray ne = nv.toNumExprArray();
  ne.replaceByClone(e2);
  expect(ne, {cl(y), cl(x)}, e2);
  env.end();
  env2.end();
}

TEST(ExprArrays, LockReleaseAndEndElementsMoveCountsByOne) {
  TavEnv env;
  TavNumVar x(env, 0, 9);
  TavIntVar p(env, 0, 9);
  TavNumExpr a1 = TavMin(x, 1.0), a2 = TavMax(x, 2.0);
  TavIntExpr i1 = TavMin(p, 1), i2 = TavMax(p, 2);
  TavNumExprArray ne(env);
  TavIntExprArray ie(env);
  ne.add(a1), ne.addObject(nullptr), ne.add(a2);
  ie.add(i1), ie.addObject(nullptr), ie.add(i2);
  std::vector<TavNumExprI*> nodes = {a1.getImpl(), a2.getImpl(), i1.getImpl(), i2.getImpl()};
  auto counts = [&](TavInt want) {
    for (TavNumExprI* n : nodes) EXPECT_EQ(n->getRefCount(), want) << n->getRttiTypeName();
  };
  counts(1);
  ne.lockExprs(), ie.lockExprs();
  counts(2);
  ne.releaseExprs(), ie.releaseExprs();
  counts(1);
  ne.lockExprs(), ie.lockExprs();
  ne.remove(1), ie.remove(1);  // endElements wants no null element
  ne.endElements(), ie.endElements();
  counts(1);

  // Variable arrays end their variables through the host.
  TavNumVarArray vars(env, 3, 0, 1);
  vars.addObject(nullptr);
  const TavInt live = env.getImpl()->getLiveObjectCount();
  vars.endElements();
  EXPECT_EQ(env.getImpl()->getLiveObjectCount(), live - 3);
  env.end();
}

TEST(VarArrays, SetBoundsChangesEveryDomainAndSendsOneRecord) {
  TavEnv env;
  TavEnvI* ei = env.getImpl();
  {
    ChangeRecorder rec(ei);
    TavNumVar x(env, 0, 1), shared(env, 0, 1), y(env, 5, 6);
    TavNumVar bare(new (ei) TavNumVarI(ei, "bare"));  // no domain yet
    TavNumVarArray a(env);
    a.add(x), a.add(TavNumVar()), a.add(y), a.add(bare);
    a.setBounds(TavNumArray(env, {-1, 0, 2, 3}), TavNumArray(env, {7, 0, 8, 4}));
    EXPECT_EQ(boundsOf(TavNumVarArray(env, 3, x, y, bare)), (Bounds{{-1, 7}, {2, 8}, {3, 4}}));
    // The domain is changed as it stands, shared or not.
    EXPECT_EQ(std::make_pair(shared.getLB(), shared.getUB()), std::make_pair(-1.0, 7.0));
    EXPECT_EQ(rec.arrays, std::vector<TavArrayI*>{a.getImpl()});
    EXPECT_EQ(rec.others, 0) << "no per-variable record";

    TavNumVarArray nulls(env, 2, TavNumVar(), TavNumVar());
    nulls.setBounds(TavNumArray(env, {1, 1}), TavNumArray(env, {2, 2}));
    EXPECT_EQ(rec.arrays.size(), 1u) << "nothing to announce for null elements";
    EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { a.setBounds(TavNumArray(), TavNumArray(env, 4)); }), "<none>");
    EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { a.setBounds(TavNumArray(env, 4), TavNumArray()); }), "<none>");
  }
  env.end();
}
