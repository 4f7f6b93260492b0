// Element expressions a[i], over every array handle that indexes by an
// integer expression and every TavElement form: the truncated index, the
// refusal outside the array, the private copy, integrality edges, the
// literal texts, counts, empty handles, allocation failures, and how a
// linear expression holding them answers isLinear. The family rows are
// swept in test_families.cpp, values over generated programs by the fuzzer.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

// x = 1.5, y = -2, i = 3, j = 4; k is the index, set per case.
struct Model : NamedVars {
  Model() : NamedVars(-10, 10) { sol.setValue(x, 1.5), sol.setValue(y, -2), sol.setValue(i, 3), sol.setValue(j, 4); }
  ~Model() { env.end(); }

  TavIntVar k{env, -5, 5, "k"};
  TavSolution sol{env};
  TavNumArray nums{env, {1.5, -2.0, 4.0}};
  TavIntArray ints{env, {3, -7, 11}};
  TavNumExprArray numExprs = arrayOf<TavNumExprArray>({x, x + y, TavSquare(y)});  // 1.5, -0.5, 4
  TavIntExprArray intExprs = arrayOf<TavIntExprArray>({i, i + j, i * j});          // 3, 7, 12
  TavNumVarArray numVars{env, 3, x, y, i};                                          // 1.5, -2, 3
  TavIntVarArray intVars{env, 3, i, j, i};                                          // 3, 4, 3
  TavExprArray exprs = linearOf({x + 1, 2 * y, i});                                  // 2.5, -4, 3

  template <class Array>
  Array arrayOf(std::initializer_list<TavNumExprArg> elements) {
    Array a(env, 0);
    for (const TavNumExprArg& e : elements) a.addObject(e.getImpl());
    return a;
  }
  TavExprArray linearOf(std::initializer_list<TavNumExprArg> elements) {
    TavExprArray a(env, 0);
    for (const TavNumExprArg& e : elements) a.add(e);
    return a;
  }
  double at(const TavNumExprArg& e, double index) {
    sol.setValue(k, index);
    return sol.getValue(e);
  }
};

/// One way of indexing, with the values of the array it indexes. (The
/// TavElement calls build the same nodes; the fuzzer compares both.)
struct Form {
  const char* what;
  std::function<TavNumExprArg(Model&, const TavIntExprArg&)> build;
  std::vector<double> values;
};

const std::vector<Form>& forms() {
  static const std::vector<Form> all = {
      {"TavNumArray[]", [](Model& m, const TavIntExprArg& i) { return m.nums[i]; }, {1.5, -2, 4}},
      {"TavIntArray[]", [](Model& m, const TavIntExprArg& i) { return m.ints[i]; }, {3, -7, 11}},
      {"TavNumExprArray[]", [](Model& m, const TavIntExprArg& i) { return m.numExprs[i]; }, {1.5, -0.5, 4}},
      {"TavIntExprArray[]", [](Model& m, const TavIntExprArg& i) { return m.intExprs[i]; }, {3, 7, 12}},
      {"TavNumVarArray[]", [](Model& m, const TavIntExprArg& i) { return m.numVars[i]; }, {1.5, -2, 3}},
      {"TavIntVarArray[]", [](Model& m, const TavIntExprArg& i) { return m.intVars[i]; }, {3, 4, 3}},
      {"TavExprArray[]", [](Model& m, const TavIntExprArg& i) { return m.exprs[i]; }, {2.5, -4, 3}},
  };
  return all;
}

// What each handle's indexing returns: a node handle for an expression
// index, the element itself for a number.
template <class Array, class Index>
using IndexedBy = decltype(std::declval<const Array&>()[std::declval<const Index&>()]);
static_assert(std::is_same<IndexedBy<TavNumArray, TavIntVar>, TavNumExprArg>::value, "");
static_assert(std::is_same<IndexedBy<TavIntArray, TavIntExprArg>, TavIntExprArg>::value, "");
static_assert(std::is_same<IndexedBy<TavNumArray, int>, double&>::value, "");
static_assert(std::is_same<IndexedBy<TavNumVarArray, TavIntVar>, TavNumExprArg>::value, "");
static_assert(std::is_same<IndexedBy<TavIntVarArray, TavIntExpr>, TavIntExprArg>::value, "");
static_assert(std::is_same<IndexedBy<TavIntExprArray, TavIntLinExprTerm>, TavIntExprArg>::value, "");
static_assert(std::is_same<IndexedBy<TavNumVarArray, int>, TavArrayElement<TavNumVar>>::value, "");
static_assert(std::is_same<IndexedBy<TavExprArray, TavInt>, TavArrayElement<TavExpr>>::value, "");

}  // namespace

// In every form: the index value is truncated toward zero (1.9 picks
// element 1, -0.5 and -0.99 element 0); one outside the array is refused
// when evaluated, never read (-1, one past the end, and the saturated ends
// of truncation); changing the caller's array after the node is built (an
// element added, removed or replaced) does not reach the node.
TEST(Element, EveryFormTruncatesRefusesOutsideAndKeepsItsCopy) {
  const std::vector<std::pair<double, int>> indices = {{0, 0}, {1, 1}, {2, 2},     {1.9, 1},
                                                       {2.9, 2}, {-0.5, 0}, {-0.99, 0}, {0.999, 0}};
  for (const Form& f : forms()) {
    SCOPED_TRACE(f.what);
    Model m;
    const TavNumExprArg e = f.build(m, m.k);
    for (const auto& ip : indices) EXPECT_EQ(m.at(e, ip.first), f.values[ip.second]) << "index " << ip.first;
    for (double index : {-1.0, 3.0, 1e300, -1e300})
      EXPECT_EQ(messageOf<TavArrayError>([&] { m.at(e, index); }), "TavElement: index out of range") << index;

    m.nums.add(9.0), m.nums[0] = 7.0, m.nums.remove(1);
    m.ints.add(9), m.ints[0] = 7, m.ints.remove(1);
    m.numExprs.add(m.y), m.numExprs[0] = m.y, m.numExprs.remove(1);
    m.intExprs.add(m.j), m.intExprs[0] = m.j, m.intExprs.remove(1);
    m.numVars.add(m.y), m.numVars[0] = m.y, m.numVars.remove(1);
    m.intVars.add(m.j), m.intVars[0] = m.j, m.intVars.remove(1);
    m.exprs.add(m.y), m.exprs[0] = TavExpr(m.y), m.exprs.remove(1);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(m.at(e, p), f.values[p]) << "after the change, " << p;
  }
}

// The numeric nodes are integer when every element is, whatever the index:
// an infinite number is not, an empty array is, and the linear array
// follows its expressions.
TEST(Element, IntegralityAtTheEdges) {
  const struct {
    const char* what;
    std::function<TavNumExprArg(Model&)> build;
    bool integer;
  } rows[] = {
      {"numbers [2, infinity]", [](Model& m) { return TavNumArray(m.env, {2.0, TavGetInfinity()})[m.k]; }, false},
      {"no numbers", [](Model& m) { return TavNumArray(m.env, 0)[m.k]; }, true},
      {"no integers", [](Model& m) { return TavIntArray(m.env, 0)[m.k]; }, true},
      {"no expressions", [](Model& m) { return TavNumExprArray(m.env, 0)[m.k]; }, true},
      {"linear x + 1, 2y, i", [](Model& m) { return m.exprs[m.k]; }, false},
      {"linear 2i + 1", [](Model& m) { return m.linearOf({2 * m.i + 1})[m.k]; }, true},
  };
  for (const auto& r : rows) {
    Model m;
    EXPECT_EQ(r.build(m).getImpl()->isInteger(), r.integer) << r.what;
  }
}

// The library syntax prints the index and the array; the short syntax the
// index alone, by the kind of array the node holds (variables are held as
// expressions).
TEST(Element, DisplayTexts) {
  Model m;
  const struct {
    TavNumExprArg node;
    const char* lib;
    const char* brief;
  } rows[] = {
      {m.nums[m.k], "TavNumArrayIndex(k[-5 .. 5] , [1.5, -2, 4]) ", "nums[k[-5 .. 5] ]"},
      {m.ints[m.k], "TavIntArrayIndex(k[-5 .. 5] , [3, -7, 11]) ", "ints[k[-5 .. 5] ]"},
      {m.numVars[m.k], "TavNumExprArrayIndex(k[-5 .. 5] , [x[-10 .. 10] , y[-10 .. 10] , i[-10 .. 10] ]) ",
       "num-exprs[k[-5 .. 5] ]"},
      {m.intVars[m.k], "TavIntExprArrayIndex(k[-5 .. 5] , [i[-10 .. 10] , j[-10 .. 10] , i[-10 .. 10] ]) ",
       "int-exprs[k[-5 .. 5] ]"},
      {TavNumArray(m.env, 0)[m.k], "TavNumArrayIndex(k[-5 .. 5] , []) ", "nums[k[-5 .. 5] ]"},
  };
  for (const auto& r : rows) {
    m.env.getImpl()->setLibrarySyntaxDisplay(true);
    EXPECT_EQ(show(r.node), r.lib);
    m.env.getImpl()->setLibrarySyntaxDisplay(false);
    EXPECT_EQ(show(r.node), r.brief);
  }
  EXPECT_EQ(show(m.ints[m.k + 1]), "ints[" + show(m.k + 1) + "]");  // the index prints through its own display
}

// A node over expressions holds one reference on every element (twice on
// an element present twice) and one on its index; ending it gives them
// back. A node over numbers holds the index only, and its array copy goes
// with it.
TEST(Element, CountsAreTakenAndGivenBack) {
  Model m;
  TavEnvI* env = m.env.getImpl();
  TavNumExpr p(m.x * m.y), q(m.x / m.y);
  TavIntExpr index(m.k + 1);
  TavNumExprArray a = m.arrayOf<TavNumExprArray>({p, q, p});
  auto counts = [&] {
    return std::vector<TavInt>{p.getImpl()->getRefCount(), q.getImpl()->getRefCount(), index.getImpl()->getRefCount()};
  };
  const TavInt objects = env->getLiveObjectCount();
  const std::size_t bytes = env->getMemory().getLiveBytes();
  TavNumExpr onExprs(a[index]);
  EXPECT_EQ(counts(), (std::vector<TavInt>{3, 2, 2}));
  TavNumExpr onNums(m.nums[index]);
  EXPECT_EQ(counts(), (std::vector<TavInt>{3, 2, 3}));
  onExprs.end();
  onNums.end();
  EXPECT_EQ(counts(), (std::vector<TavInt>{1, 1, 1}));
  EXPECT_EQ(env->getLiveObjectCount(), objects);
  EXPECT_EQ(env->getMemory().getLiveBytes(), bytes) << "the array copies went with their nodes";

  // Elements and an index that only the node holds go with it.
  TavNumExprArray only = m.arrayOf<TavNumExprArray>({m.x * m.y});
  TavNumExpr held(only[m.k + 2]);
  only.end();
  held.end();
  EXPECT_EQ(env->getLiveObjectCount(), objects);
  EXPECT_EQ(env->getMemory().getLiveBytes(), bytes);
  // Nodes never ended (over numbers too) are the environment's to free.
  for (const TavNumExprArg& left : {m.nums[m.k], TavNumExprArg(m.ints[index]), a[m.k]})
    EXPECT_EQ(TavNumExpr(left).getImpl()->getRefCount(), 1);
}

// An empty array or index handle, or a null element of an array of
// expressions or variables, is refused before anything is made.
TEST(Element, EmptyHandlesAreRefused) {
  const struct {
    const char* what;
    std::function<void(Model&)> build;
  } rows[] = {
      {"empty number array", [](Model& m) { TavNumArray()[m.k]; }},
      {"empty expression array", [](Model& m) { TavNumExprArray()[m.k]; }},
      {"empty variable array", [](Model& m) { TavNumVarArray()[m.k]; }},
      {"empty linear array", [](Model& m) { TavExprArray()[m.k]; }},
      {"empty index over numbers", [](Model& m) { m.nums[TavIntExprArg()]; }},
      {"empty index over expressions", [](Model& m) { m.numExprs[TavIntExprArg()]; }},
      {"empty index over variables", [](Model& m) { TavElement(m.intVars, TavIntExprArg()); }},
      {"null last expression", [](Model& m) { m.arrayOf<TavNumExprArray>({m.x * m.y, TavNumExprArg()})[m.k]; }},
      {"null integer variable", [](Model& m) { TavElement(TavIntVarArray(m.env, 1), m.k); }},
      {"null linear expression", [](Model& m) { TavExprArray(m.env, 1)[m.k]; }},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    Model m;
    TavEnvI* env = m.env.getImpl();
    const TavInt objects = env->getLiveObjectCount();
    const TavInt kCount = m.k.getImpl()->getRefCount();
    EXPECT_EQ(messageOf<TavEmptyHandleException>([&] { r.build(m); }), "<none>");
    EXPECT_EQ(m.k.getImpl()->getRefCount(), kCount);
    EXPECT_LE(env->getLiveObjectCount(), objects + 1) << "at most the operand the row made";
  }
}

// An element part leaves a linear expression linear unless its index is a
// decision expression; only the index node itself is asked, so an index
// computed from variables (k + 1) passes. Any other part fails.
TEST(Element, LinearityLooksAtTheIndexOfEachPart) {
  const struct {
    const char* what;
    std::function<TavNumExprArg(Model&)> build;
    bool linear;
  } rows[] = {
      {"x + nums[k]", [](Model& m) { return m.x + m.nums[m.k]; }, false},
      {"x + nums[k + 1]", [](Model& m) { return m.x + m.nums[m.k + 1]; }, true},
      {"ints[2] + exprs[1] + vars[0]",
       [](Model& m) {
         const TavIntExpr c1(m.env, 1), c0(m.env, 0), c2(m.env, 2);
         return m.ints[c2] + m.numExprs[c1] + m.numVars[c0];
       },
       true},
      {"intExprs[2] + intVars[k]", [](Model& m) { return m.intExprs[TavIntExpr(m.env, 2)] + m.intVars[m.k]; }, false},
      {"linear[2*k]", [](Model& m) { return m.exprs[2 * m.k] + m.x; }, true},
      {"linear[j]", [](Model& m) { return m.exprs[m.j] + m.x; }, false},
      {"nums[1] + y^2 (the second part fails)", [](Model& m) { return m.nums[TavIntExpr(m.env, 1)] + TavSquare(m.y); },
       false},
  };
  for (const auto& r : rows) {
    Model m;
    EXPECT_EQ(TavExpr(r.build(m)).getImpl()->isLinear(), r.linear) << r.what;
  }
}

// A linear expression is held as it is, with no new count; anything else
// (an expression, a variable, a term, a product) becomes a new linear node
// whose one count the array holds. The array shares its storage with its
// view as numeric expressions.
TEST(ExprArray, HoldsLinearExpressions) {
  Model m;
  TavExprArray a(m.env, 2);
  EXPECT_EQ(a[0].getImpl(), nullptr) << "n empty elements";
  TavExpr e(m.x + 2 * m.y);
  a.add(e);
  EXPECT_EQ(a[2].getImpl(), e.getImpl());
  EXPECT_EQ(e.getImpl()->getRefCount(), 1);
  TavNumExprArg sum = m.x + m.y;
  a.add(sum);
  EXPECT_EQ(a[3].getImpl(), sum.getImpl());
  EXPECT_EQ(sum.getImpl()->getRefCount(), 1);
  a.add(m.i), a.add(3 * m.j), a.add(m.x * m.y);
  for (TavInt p = 2; p < 7; ++p) EXPECT_TRUE(a[p].getImpl()->isType(TavNumLinTermI::GetTypeInfo())) << p;
  EXPECT_EQ(m.sol.getValue(a[6]), -3.0);
  const TavNumExprArray same = a;
  a[0] = TavExpr(m.y);
  EXPECT_EQ(same.getImpl(), a.getImpl());
  EXPECT_EQ(same.getElement(0), a[0].getImpl());
}

// A build whose allocations fail at any step leaves the model as it was:
// no object, byte or count taken. A linear element is held as it is by a
// linear array; any other is wrapped in a new linear node, after the array
// has grown.
TEST(Element, FailedBuildLeavesTheModelAsItWas) {
  std::vector<std::pair<std::string, std::function<TavNumExprArg(Model&)>>> ops;
  for (const Form& f : forms()) ops.push_back({f.what, [&f](Model& m) { return f.build(m, m.k); }});
  for (TavInt p : {1, 2})
    ops.push_back({"TavExprArray::add, element " + std::to_string(p), [p](Model& m) {
                     TavExprArray a(m.env, 0);
                     try {
                       a.add(TavNumExprArg(m.numExprs.getElement(p)));
                     } catch (...) {
                       a.end();
                       throw;
                     }
                     return TavNumExprArg(a[0]);
                   }});
  for (const auto& op : ops) {
    SCOPED_TRACE(op.first);
    Model m;
    TavEnvI* env = m.env.getImpl();
    auto counts = [&] {
      std::vector<TavInt> c = {m.k.getImpl()->getRefCount(), env->getLiveObjectCount(), env->getLiveTermCount()};
      for (TavInt p = 0; p < 3; ++p)
        for (const TavNumExprI* e : std::vector<const TavNumExprI*>{m.numExprs.getElement(p), m.intExprs.getElement(p),
                                                                    m.exprs.getElement(p)})
          c.push_back(e->getRefCount());
      return c;
    };
    const std::vector<TavInt> before = counts();
    const TavNumExprArg built = tavtest::buildThroughFailures(env, [&] { return op.second(m); }, [&](TavInt k) {
      EXPECT_EQ(counts(), before) << "failing allocation " << k;
    });
    EXPECT_FALSE(std::isnan(m.at(built, 1)));
  }
}
