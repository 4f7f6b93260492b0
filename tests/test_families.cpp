// Table-driven sweep over the tabled families. Every row of every family
// list is checked for its class name, type identity, value against its own
// scalar function over several operand values, both display texts,
// integrality, and a clone into a second environment. The rows come from
// the lists themselves, so a row added to a list is swept with no line
// here. Probe families local to this file put the unary and element shapes
// through the same sweep, and the shapes' storage is checked on its own:
// counting, private copies, and allocation failures.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "builders.h"
#include "tavexpression.h"
#include "sweep.h"
#include "test_support.h"

namespace {

// ------------------------------------------------------------------ probe families

/// The first reading of the operand less twice the second.
template <class Node>
double firstLessTwiceSecond(const Node& node, TavAlgorithm alg) {
  const double first = node.operandValue(alg);
  return first - 2 * node.operandValue(alg);
}

#define PROBE_UNARY_FAMILY(UN)                                                                            \
  UN(ProbeCubeI, TavNumExprI, Generated, ProbeCube, TavNumExprArg, FromOperands,                          \
     TAV_TEXTS("ProbeCube(", "", ") ", "cube(", "", ")"), Apply(v * v * v))                               \
  UN(ProbeTwiceI, TavNumExprI, Generated, ProbeTwice, TavNumExprArg, Never,                               \
     TAV_TEXTS("ProbeTwice(", "", ") ", "twice(", "", ")"), Eval(firstLessTwiceSecond(self, alg)))        \
  UN(ProbeSgnI, TavIntExprI, Generated, ProbeSgn, TavNumExprArg, Always,                                  \
     TAV_TEXTS("ProbeSgn(", "", ") ", "sgn(", "", ")"), Apply(v > 0 ? 1.0 : v < 0 ? -1.0 : 0.0))          \
  UN(ProbeIntNegI, TavIntExprI, Generated, ProbeIntNeg, TavIntExprArg, Always,                            \
     TAV_TEXTS("ProbeIntNeg(", "", ") ", "-(", "", ")"), Apply(-v))

#define PROBE_ELEMENT_FAMILY(ELT)                                                                              \
  ELT(ProbeNumsAtI, TavNumExprI, Generated, ProbeAt, TavNumArray, FromOperands,                                \
      TAV_TEXTS("ProbeNumsAt(", ", ", ") ", "nums[", "", "]"))                                                 \
  ELT(ProbeIntsAtI, TavIntExprI, Generated, ProbeAt, TavIntArray, Always,                                      \
      TAV_TEXTS("ProbeIntsAt(", ", ", ") ", "ints[", "", "]"))                                                 \
  ELT(ProbeExprsAtI, TavNumExprI, Generated, ProbeAt, TavNumExprArray, FromOperands,                           \
      TAV_TEXTS("ProbeExprsAt(", ", ", ") ", "num-exprs[", "", "]"))                                           \
  ELT(ProbeIntExprsAtI, TavIntExprI, Generated, ProbeAt, TavIntExprArray, Always,                              \
      TAV_TEXTS("ProbeIntExprsAt(", ", ", ") ", "int-exprs[", "", "]"))

TavNumExprArg ProbeCube(const TavNumExprArg& x);
TavNumExprArg ProbeTwice(const TavNumExprArg& x);
TavIntExprArg ProbeSgn(const TavNumExprArg& x);
TavIntExprArg ProbeIntNeg(const TavIntExprArg& x);
TavNumExprArg ProbeAt(const TavNumArray& a, const TavIntExprArg& index);
TavIntExprArg ProbeAt(const TavIntArray& a, const TavIntExprArg& index);
TavNumExprArg ProbeAt(const TavNumExprArray& a, const TavIntExprArg& index);
TavIntExprArg ProbeAt(const TavIntExprArray& a, const TavIntExprArg& index);

PROBE_UNARY_FAMILY(TAV_UNARY_NODE)
PROBE_ELEMENT_FAMILY(TAV_ELEMENT_NODE)
PROBE_UNARY_FAMILY(TAV_ROW_STATICS)
PROBE_ELEMENT_FAMILY(TAV_ROW_STATICS)
PROBE_UNARY_FAMILY(TAV_UNARY_BUILDER)
PROBE_ELEMENT_FAMILY(TAV_ELEMENT_BUILDER)

/// Every row of the library's families and of the probes, in list order.
#define ALL_ROWS(X)                                                                                        \
  TAV_PRODUCT_FAMILY(X, X) TAV_MINMAX_FAMILY(X, X, X) TAV_MODULO_FAMILY(X, X) TAV_POWER_FAMILY(X, X)      \
      TAV_SQUARE_FAMILY(X) TAV_ELEMENTARY_FAMILY(X) TAV_ROUNDING_FAMILY(X) PROBE_UNARY_FAMILY(X)         \
      PROBE_ELEMENT_FAMILY(X) TAV_ELEMENT_FAMILY(X)

const std::vector<TavTypeInfo>& rowTokens() {
#define ROW_TOKEN(Name, ...) Name::GetTypeInfo(),
  static const std::vector<TavTypeInfo> tokens = {ALL_ROWS(ROW_TOKEN)};
#undef ROW_TOKEN
  return tokens;
}

// ------------------------------------------------------------------ the sweep's model

// Values of x, y, i, j and k. Every divisor a row meets stays away from
// zero, and k, truncated, indexes a three-element array (2.9 and 1.9 test
// the truncation).
const double Assignments[][5] = {{1.5, -2, 7, 3, 2.9}, {-3.25, 0.5, -6, 4, 0}, {2, 8, 5, -9, 1.9}};

// Operands that no builder folds away: P and Q continuous nodes, N and M
// integer nodes (P = -3, -1.625, 16; Q = -0.75, -6.5, 0.25; N = 21, -24,
// -45; M = 7, 4, 5).
struct Model : NamedVars {
  Model() : NamedVars(-100, 100) {}
  ~Model() { env.end(); }

  TavIntVar k{env, 0, 2, "k"};
  TavNumExprArg P = x * y, Q = TavNumExprArg(x) / y;
  TavIntExprArg N = i * j, M = TavMax(i, j);
  TavSolution sol{env};

  void assign(int a) {
    const double* v = Assignments[a];
    sol.setValue(x, v[0]), sol.setValue(y, v[1]), sol.setValue(i, v[2]), sol.setValue(j, v[3]);
    sol.setValue(k, v[4]);
  }
  double value(const TavNumExprArg& e) const { return sol.getValue(e); }
  template <class Array, class H>
  Array arrayOf(std::initializer_list<H> elements) {
    Array a(env, 0);
    for (const H& e : elements) a.add(e);
    return a;
  }
};

template <class T>
std::string textOf(T value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

/// The call form of a row's texts around parts already printed.
std::string callText(const TavNodeTexts& t, bool lib, const std::vector<std::string>& parts) {
  std::string s = lib ? t.libOpen : t.shortOpen;
  for (size_t p = 0; p < parts.size(); ++p) s += (p ? (lib ? t.libMid : t.shortMid) : "") + parts[p];
  return s + (lib ? t.libClose : t.shortClose);
}

bool integral(double c) { return c == std::floor(c); }

/// What a row's integrality rule says over operands that are (or are not)
/// all integer.
bool integerBy(TavIntegrality rule, bool operandsInteger) {
  return rule == TavIntegrality::Always || (rule == TavIntegrality::FromOperands && operandsInteger);
}

/// The parts a row prints, in the syntax being checked.
typedef std::function<std::vector<std::string>(bool lib)> Parts;

/// What every row is checked for once its node is built: class name and
/// identity, both texts, its value under every assignment, integrality,
/// and a clone into another environment that evaluates and prints the same.
template <class Node>
void checkRow(Model& m, const char* name, const TavNumExprArg& e, const Parts& parts,
              const std::function<double()>& want, bool integer) {
  TavNumExprI* n = e.getImpl();
  ASSERT_NE(n, nullptr);
  EXPECT_STREQ(Node::GetRttiTypeName(), name);
  EXPECT_STREQ(n->getRttiTypeName(), name) << "the builder makes another class";
  EXPECT_EQ(n->getTypeInfo(), Node::GetTypeInfo());
  EXPECT_EQ(n->getBaseTypeInfo(), Node::GetBaseTypeInfo());
  EXPECT_TRUE(n->isType(Node::GetBaseTypeInfo()));
  EXPECT_TRUE(n->isType(TavNumExprI::GetTypeInfo()));
  for (TavTypeInfo t : rowTokens()) EXPECT_EQ(n->isType(t), t == Node::GetTypeInfo());
  EXPECT_EQ(n->getRefCount(), 0);
  EXPECT_EQ(n->isInteger(), integer);

  for (bool lib : {false, true}) {
    m.env.getImpl()->setLibrarySyntaxDisplay(lib);
    EXPECT_EQ(showNode(n), callText(Node::Texts, lib, parts(lib))) << (lib ? "library syntax" : "short syntax");
  }
  for (int a = 0; a < 3; ++a) {
    SCOPED_TRACE("assignment " + std::to_string(a));
    m.assign(a);
    // A row may refuse a value: the node then throws what its function throws.
    const std::string refusal = messageOf<TavException>(want);
    if (refusal != "<no throw>") EXPECT_EQ(messageOf<TavException>([&] { n->eval(m.sol); }), refusal);
    else expectSame(n->eval(m.sol), want());
  }

  TavEnv other;
  auto* clone = static_cast<TavNumExprI*>(m.env.getImpl()->cloneInto(n, other.getImpl()));
  ASSERT_NE(clone, nullptr);
  EXPECT_NE(clone, n);
  EXPECT_EQ(clone->getEnv(), other.getImpl());
  EXPECT_EQ(clone->getTypeInfo(), Node::GetTypeInfo());
  EXPECT_EQ(clone->isInteger(), integer);
  TavSolution there(other);
  const TavNumVar vars[] = {m.x, m.y, m.i, m.j, m.k};
  for (int v = 0; v < 5; ++v)
    if (TavExtractableI* c = other.getImpl()->getClone(vars[v].getImpl()))
      there.setValue(TavNumVar(static_cast<TavNumVarI*>(c)), Assignments[2][v]);
  EXPECT_EQ(messageOf<TavException>([&] { expectSame(clone->eval(there), n->eval(m.sol)); }), "<no throw>");
  for (bool lib : {false, true}) {
    m.env.getImpl()->setLibrarySyntaxDisplay(lib);
    other.getImpl()->setLibrarySyntaxDisplay(lib);
    EXPECT_EQ(showNode(clone), showNode(n)) << "names come along with the variables";
  }
  other.end();
}

// Operands and constants each row is built over, by handle and constant type.
template <class H>
std::vector<std::pair<H, bool>> operandsOf(Model& m);  // (operand, integer)
template <>
std::vector<std::pair<TavNumExprArg, bool>> operandsOf(Model& m) {
  return {{m.P, false}, {m.N, true}};
}
template <>
std::vector<std::pair<TavIntExprArg, bool>> operandsOf(Model& m) {
  return {{m.N, true}};
}
template <class H>
std::vector<std::pair<H, H>> operandPairsOf(Model& m);
template <>
std::vector<std::pair<TavNumExprArg, TavNumExprArg>> operandPairsOf(Model& m) {
  return {{m.P, m.Q}, {m.N, m.M}, {m.Q, m.P}};
}
template <>
std::vector<std::pair<TavIntExprArg, TavIntExprArg>> operandPairsOf(Model& m) {
  return {{m.N, m.M}, {m.M, m.N}};
}
template <class C>
std::vector<C> constantsOf();
template <>
std::vector<double> constantsOf() {
  return {2.5, -4.0};
}
template <>
std::vector<TavInt> constantsOf() {
  return {3, -5};
}

Parts shown(std::function<std::vector<std::string>()> f) {
  return [f](bool) { return f(); };
}

template <class Node, class H, class C>
void sweepCst(const char* name, const std::vector<TavNumExprArg (*)(const H&, C)>& builds) {
  SCOPED_TRACE(name);
  Model m;
  for (auto build : builds)
    for (const auto& x : operandsOf<H>(m))
      for (C c : constantsOf<C>()) {
        SCOPED_TRACE("constant " + textOf(c));
        const H operand = x.first;
        checkRow<Node>(
            m, name, build(operand, c), shown([&] {
              if (Node::Order == TavOrder::ConstantFirst) return std::vector<std::string>{textOf(c), show(operand)};
              return std::vector<std::string>{show(operand), textOf(c)};
            }),
            [&] { return Node::Apply(m.value(operand), c); }, integerBy(Node::Integral, x.second && integral(c)));
      }
}

template <class Node, class H>
void sweepBinary(const char* name, TavNumExprArg (*build)(const H&, const H&)) {
  SCOPED_TRACE(name);
  Model m;
  for (const auto& ab : operandPairsOf<H>(m)) {
    const H a = ab.first, b = ab.second;
    const bool integer = a.getImpl()->isInteger() && b.getImpl()->isInteger();
    checkRow<Node>(
        m, name, build(a, b), shown([&] { return std::vector<std::string>{show(a), show(b)}; }),
        [&] { return Node::Apply(m.value(a), m.value(b)); }, integerBy(Node::Integral, integer));
  }
}

/// The value an array row folds its elements to.
template <class Node>
double folded(Model& m, const std::vector<TavNumExprArg>& elements) {
  double best = m.value(elements[0]);
  for (const TavNumExprArg& e : elements) {
    const double v = m.value(e);
    if (Node::Better(v, best)) best = v;
  }
  return best;
}

/// Sample arrays (elements, all integer) of each kind a row may hold.
template <class Array>
std::vector<std::pair<std::vector<TavNumExprArg>, bool>> elementsOf(Model& m);
template <>
std::vector<std::pair<std::vector<TavNumExprArg>, bool>> elementsOf<TavNumExprArray>(Model& m) {
  return {{{m.P, m.Q, m.x}, false}, {{m.N, m.M, m.i}, true}};
}
template <>
std::vector<std::pair<std::vector<TavNumExprArg>, bool>> elementsOf<TavIntExprArray>(Model& m) {
  return {{{m.N, m.M, m.i}, true}};
}

template <class Array>
Array arrayFrom(Model& m, const std::vector<TavNumExprArg>& elements) {
  Array a(m.env, 0);
  for (const TavNumExprArg& e : elements) a.addObject(e.getImpl());
  return a;
}

template <class Node, class Array, class VarArray>
void sweepArray(const char* name, TavNumExprArg (*build)(const Array&), TavNumExprArg (*buildVars)(const VarArray&)) {
  SCOPED_TRACE(name);
  Model m;
  for (const auto& sample : elementsOf<Array>(m)) {
    const Array a = arrayFrom<Array>(m, sample.first);
    checkRow<Node>(
        m, name, build(a), shown([&] { return std::vector<std::string>{show(a)}; }),
        [&] { return folded<Node>(m, sample.first); }, integerBy(Node::Integral, sample.second));
  }
  // Variables stand for expressions.
  VarArray vars(m.env, 0);
  vars.addObject(m.i.getImpl()), vars.addObject(m.j.getImpl());
  checkRow<Node>(
      m, name, buildVars(vars), shown([&] { return std::vector<std::string>{show(vars)}; }),
      [&] { return folded<Node>(m, {m.i, m.j}); }, integerBy(Node::Integral, true));
}

template <class Node, class H>
void sweepUnary(const char* name, TavNumExprArg (*build)(const H&)) {
  SCOPED_TRACE(name);
  Model m;
  for (const auto& x : operandsOf<H>(m)) {
    const H operand = x.first;
    const TavNumExprArg e = build(operand);
    checkRow<Node>(
        m, name, e, shown([&] { return std::vector<std::string>{show(operand)}; }),
        [&]() -> double {
          if constexpr (tav_detail::HasOwnEval<Node>::value)
            return Node::Eval(*static_cast<const Node*>(e.getImpl()), m.sol);
          else
            return Node::Apply(m.value(operand));
        },
        integerBy(Node::Integral, x.second));
  }
}

/// Sample arrays of each kind an element row may hold: the array, the
/// value of element p, all integer.
template <class Array>
struct ElementSample {
  Array array;
  std::function<double(int)> at;
  bool integer;
};
template <class Array>
std::vector<ElementSample<Array>> samplesOf(Model& m);
template <>
std::vector<ElementSample<TavNumArray>> samplesOf(Model& m) {
  TavNumArray frac(m.env, {1.5, -2.0, 4.0}), whole(m.env, {1.0, -2.0, 4.0});
  return {{frac, [frac](int p) { return frac[p]; }, false}, {whole, [whole](int p) { return whole[p]; }, true}};
}
template <>
std::vector<ElementSample<TavIntArray>> samplesOf(Model& m) {
  TavIntArray a(m.env, {3, -7, 11});
  return {{a, [a](int p) { return (double)a[p]; }, true}};
}
template <class Array>
std::vector<ElementSample<Array>> exprSamples(Model& m) {
  std::vector<ElementSample<Array>> out;
  for (const auto& s : elementsOf<Array>(m)) {
    const std::vector<TavNumExprArg> elements = s.first;
    out.push_back({arrayFrom<Array>(m, elements), [&m, elements](int p) { return m.value(elements[p]); }, s.second});
  }
  return out;
}
template <>
std::vector<ElementSample<TavNumExprArray>> samplesOf(Model& m) {
  return exprSamples<TavNumExprArray>(m);
}
template <>
std::vector<ElementSample<TavIntExprArray>> samplesOf(Model& m) {
  return exprSamples<TavIntExprArray>(m);
}

template <class Node, class Array>
void sweepElement(const char* name, TavNumExprArg (*build)(const Array&, const TavIntExprArg&)) {
  SCOPED_TRACE(name);
  Model m;
  const TavIntExprArg index = m.k;
  for (const ElementSample<Array>& s : samplesOf<Array>(m)) {
    checkRow<Node>(
        m, name, build(s.array, index),
        [&](bool lib) {
          if (lib) return std::vector<std::string>{show(index), show(s.array)};
          return std::vector<std::string>{show(index)};  // the short syntax leaves the array out
        },
        [&] { return s.at((int)std::trunc(m.value(index))); }, integerBy(Node::Integral, s.integer));
  }
}


#define SWEEP_CST(Name, Base, How, F, Constant, Integrality, Order, ...) \
  sweepCst<Name, tav_detail::ArgOf<Base>, Constant>(#Name, CALLS_##Order(F, tav_detail::ArgOf<Base>, Constant));
#define SWEEP_BIN(Name, Base, How, F, ...)                                                 \
  sweepBinary<Name>(#Name, +[](const tav_detail::ArgOf<Base>& a, const tav_detail::ArgOf<Base>& b) -> TavNumExprArg { \
    return F(a, b);                                                                        \
  });
#define SWEEP_ARR(Name, Base, How, F, Array, ...)                                                      \
  sweepArray<Name>(                                                                                  \
      #Name, +[](const Array& a) -> TavNumExprArg { return F(a); },                                  \
      +[](const tav_detail::VarArrayOf<Array>& a) -> TavNumExprArg { return F(a); });
#define SWEEP_UN(Name, Base, How, F, Operand, ...) \
  sweepUnary<Name>(#Name, +[](const Operand& x) -> TavNumExprArg { return F(x); });
#define SWEEP_ELT(Name, Base, How, F, Array, ...) \
  sweepElement<Name>(#Name, +[](const Array& a, const TavIntExprArg& i) -> TavNumExprArg { return F(a, i); });

}  // namespace

// ------------------------------------------------------------------ the families, row by row

TEST(FamilyRows, ProductsAndQuotients) { TAV_PRODUCT_FAMILY(SWEEP_CST, SWEEP_BIN) }

TEST(FamilyRows, MinimumAndMaximum) { TAV_MINMAX_FAMILY(SWEEP_CST, SWEEP_BIN, SWEEP_ARR) }

TEST(FamilyRows, Remainders) { TAV_MODULO_FAMILY(SWEEP_CST, SWEEP_BIN) }

TEST(FamilyRows, Powers) { TAV_POWER_FAMILY(SWEEP_CST, SWEEP_BIN) }

TEST(FamilyRows, SquareAbsoluteValueSign) { TAV_SQUARE_FAMILY(SWEEP_UN) }

TEST(FamilyRows, ElementaryFunctions) { TAV_ELEMENTARY_FAMILY(SWEEP_UN) }

TEST(FamilyRows, Rounding) { TAV_ROUNDING_FAMILY(SWEEP_UN) }

TEST(FamilyRows, UnaryProbes) { PROBE_UNARY_FAMILY(SWEEP_UN) }

TEST(FamilyRows, ElementProbes) { PROBE_ELEMENT_FAMILY(SWEEP_ELT) }

TEST(FamilyRows, ElementExpressions) { TAV_ELEMENT_FAMILY(SWEEP_ELT) }

TEST(FamilyRows, EveryRowHasItsOwnTokenAndName) {
  std::set<TavTypeInfo> tokens(rowTokens().begin(), rowTokens().end());
  std::set<std::string> names;
#define ROW_NAME(Name, ...) names.insert(Name::GetRttiTypeName());
  ALL_ROWS(ROW_NAME)
#undef ROW_NAME
  EXPECT_EQ(tokens.size(), rowTokens().size());
  EXPECT_EQ(names.size(), rowTokens().size());
}

// ------------------------------------------------------------------ the shapes' own behaviour

// A row with an evaluation of its own reads the operand as often and in
// the order it says; the others read it once.
TEST(Shapes, OwnEvaluationReadsTheOperandInOrder) {
  TavEnv env;
  TavNumVar x(env, -9, 9);
  tavtest::CountingReads reads(env.getImpl());
  EXPECT_EQ(ProbeTwice(x).getImpl()->eval(&reads), 1 - 2 * 2);
  EXPECT_EQ(reads.reads, 2);
  EXPECT_EQ(ProbeCube(x).getImpl()->eval(&reads), 27);
  EXPECT_EQ(reads.reads, 3);
  env.end();
}

// The holder takes its reference before it lets the previous operand go,
// so setting the same operand again keeps it alive.
TEST(Shapes, OperandHolderCountsOnce) {
  TavEnv env;
  TavNumVar x(env, 0, 9, TavNumVar::Float, "x"), y(env, 0, 9, TavNumVar::Float, "y");
  TavNumExpr p(x * y), q(x / y);
  TavNumExprI* pi = p.getImpl();
  {
    TavOperand<> h(pi);
    EXPECT_EQ(pi->getRefCount(), 2);
    h.set(pi);
    EXPECT_EQ(pi->getRefCount(), 2);
    h.set(q.getImpl());
    EXPECT_EQ(pi->getRefCount(), 1);
    EXPECT_EQ(q.getImpl()->getRefCount(), 2);
    h.set(nullptr);
    EXPECT_FALSE(h);
    EXPECT_EQ(q.getImpl()->getRefCount(), 1);
    h.set(pi);
  }
  EXPECT_EQ(pi->getRefCount(), 1);
  // A temporary (count 0) handed to a holder goes with it.
  const TavInt objects = env.getImpl()->getLiveObjectCount();
  { TavOperand<> h((x * y).getImpl()); }
  EXPECT_EQ(env.getImpl()->getLiveObjectCount(), objects);
  p.end();
  q.end();
  env.end();
}

// An element node copies the array it is given; it counts every element of
// an expression array and none of a number array, and gives the counts
// back when it goes.
TEST(Shapes, ElementKeepsAPrivateCopyAndCountsOnlyExpressions) {
  TavEnv env;
  TavNumVar x(env, 0, 9, TavNumVar::Float, "x"), y(env, 0, 9, TavNumVar::Float, "y");
  TavIntVar k(env, 0, 2, "k");
  TavNumExpr p(x * y), q(x / y);
  TavNumExprArray exprs(env, 0);
  exprs.add(p), exprs.add(q);
  TavNumArray nums(env, {2.5, -1.0});
  const TavInt kBefore = k.getImpl()->getRefCount();

  TavNumExpr onExprs(ProbeAt(exprs, k)), onNums(ProbeAt(nums, k));
  auto* e = static_cast<ProbeExprsAtI*>(onExprs.getImpl());
  auto* n = static_cast<ProbeNumsAtI*>(onNums.getImpl());
  EXPECT_NE(e->getArray().getImpl(), exprs.getImpl());
  EXPECT_NE(n->getArray().getImpl(), nums.getImpl());
  EXPECT_EQ(p.getImpl()->getRefCount(), 2);
  EXPECT_EQ(q.getImpl()->getRefCount(), 2);
  EXPECT_EQ(k.getImpl()->getRefCount(), kBefore + 2);
  exprs.add(x), nums.add(7.0), nums[0] = 0.0;
  EXPECT_EQ(e->getArray().getSize(), 2);
  EXPECT_EQ(n->getArray().getSize(), 2);
  TavSolution sol(env);
  sol.setValue(k, 0);
  EXPECT_EQ(sol.getValue(onNums), 2.5) << "the node reads its own copy";

  // Only the expression array is visited.
  struct Children : TavExtractableVisitor {
    std::vector<TavExtractableI*> seen;
    void visitChild(TavExtractableI*, TavExtractableI* child) override { seen.push_back(child); }
  };
  Children ce, cn;
  e->visitSubExtractables(&ce);
  n->visitSubExtractables(&cn);
  EXPECT_EQ(ce.seen, (std::vector<TavExtractableI*>{k.getImpl(), p.getImpl(), q.getImpl()}));
  EXPECT_EQ(cn.seen, (std::vector<TavExtractableI*>{k.getImpl()}));

  onExprs.end();
  onNums.end();
  EXPECT_EQ(p.getImpl()->getRefCount(), 1);
  EXPECT_EQ(q.getImpl()->getRefCount(), 1);
  exprs.end();
  nums.end();
  env.end();
}

// A builder whose allocation fails, at any step, leaves the model as it
// was: no object, byte or count taken. One builder per shape.
TEST(Shapes, FailedBuildLeavesTheModelAsItWas) {
  struct Op {
    const char* what;
    // Makes what the builder is given (outside the failing window) and
    // returns the builder's call.
    std::function<std::function<TavNumExprArg()>(Model&)> prepare;
  };
  const std::vector<Op> ops = {
      {"unary", [](Model& m) { return [&m] { return ProbeCube(m.P); }; }},
      {"constant", [](Model& m) { return [&m] { return TavDiv(m.N, 3); }; }},
      {"binary", [](Model& m) { return [&m] { return TavMin(m.P, m.Q); }; }},
      {"array", [](Model& m) {
         TavNumExprArray a = m.arrayOf<TavNumExprArray>({m.P, m.Q});
         return [a] { return TavMax(a); };
       }},
      {"element over expressions", [](Model& m) {
         TavIntExprArray a = m.arrayOf<TavIntExprArray>({m.N, m.M});
         return [&m, a] { return ProbeAt(a, m.k); };
       }},
      {"element over numbers", [](Model& m) {
         TavNumArray a(m.env, {1.0, 2.0});
         return [&m, a] { return ProbeAt(a, m.k); };
       }},
  };
  for (const Op& op : ops) {
    SCOPED_TRACE(op.what);
    Model m;
    TavEnvI* env = m.env.getImpl();
    const std::function<TavNumExprArg()> call = op.prepare(m);
    auto counts = [&] {
      return std::vector<TavInt>{m.P.getImpl()->getRefCount(), m.Q.getImpl()->getRefCount(),
                                 m.N.getImpl()->getRefCount(), m.M.getImpl()->getRefCount(),
                                 m.k.getImpl()->getRefCount(), env->getLiveObjectCount()};
    };
    const std::vector<TavInt> before = counts();
    const TavNumExprArg built = tavtest::buildThroughFailures(env, call, [&](TavInt k) {
      EXPECT_EQ(counts(), before) << "failing allocation " << k;
    });
    m.assign(1);  // k = 0: inside every array here
    EXPECT_FALSE(std::isnan(m.value(built)));
  }
}

// Cloning a node of each shape into an environment whose allocations fail
// leaves that environment as it was.
TEST(Shapes, FailedCloneLeavesTheTargetAsItWas) {
  Model m;
  const std::vector<TavNumExprArg> nodes = {
      ProbeCube(m.P), TavDiv(m.N, 3), TavMin(m.P, m.Q), TavMax(m.arrayOf<TavNumExprArray>({m.P, m.Q})),
      ProbeAt(m.arrayOf<TavIntExprArray>({m.N, m.M}), m.k), ProbeAt(TavNumArray(m.env, {1.0, 2.0}), m.k)};
  m.assign(0);
  for (const TavNumExprArg& node : nodes) {
    SCOPED_TRACE(node.getImpl()->getRttiTypeName());
    TavEnv other;
    TavEnvI* target = other.getImpl();
    const TavInt objects = target->getLiveObjectCount();
    const std::size_t bytes = target->getMemory().getLiveBytes();
    TavExtractableI* clone = nullptr;
    const int failures = tavtest::sweepFailures(
        target, [&] { clone = m.env.getImpl()->cloneInto(node.getImpl(), target); },
        [&](TavInt k) {
          ASSERT_EQ(target->getLiveObjectCount(), objects) << k;
          ASSERT_EQ(target->getMemory().getLiveBytes(), bytes) << k;
        });
    EXPECT_GT(failures, 0);
    EXPECT_STREQ(clone->getRttiTypeName(), node.getImpl()->getRttiTypeName());
    other.end();
  }
}

namespace {
/// A node that no count holds.
class Fixed final : public TavNode<Fixed, TavUncounted<TavIntExprI>> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "Fixed";
  using TavNode::TavNode;
  double eval(TavAlgorithm) const override { return 1.0; }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    visitor->endVisit(this);
  }
};
TAV_DEFINE_NODE_STATICS(Fixed)
}  // namespace

// An object of the mix-in outlives every parent's count on it, and goes
// when it is ended, whatever its count; its type identity is its own.
TEST(Shapes, UncountedObjectsLiveUntilEnded) {
  TavEnv env;
  TavEnvI* e = env.getImpl();
  const TavInt objects = e->getLiveObjectCount();
  Fixed* fixed = new (e) Fixed(e);
  EXPECT_FALSE(fixed->isRefCountedExpr());
  EXPECT_TRUE(fixed->mayBeHeld());
  EXPECT_EQ(fixed->getBaseTypeInfo(), TavIntExprI::GetTypeInfo());
  EXPECT_TRUE(fixed->isType(TavIntExprI::GetTypeInfo()));
  {
    TavNumExpr parent(ProbeCube(TavNumExprArg(fixed)));
    parent.end();
  }
  { TavOperand<TavIntExprI> holder(fixed); }
  EXPECT_EQ(e->getLiveObjectCount(), objects + 1) << "releases leave it alive";
  fixed->end();
  EXPECT_EQ(e->getLiveObjectCount(), objects);
  env.end();
}
