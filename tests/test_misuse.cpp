// Misuse of the public functions: empty handles, operands of another
// environment or of one that has ended, arrays of the wrong size, and
// numbers that cannot stand. Every call must throw an exception of the
// TavException family (the class each row names) before it changes
// anything: the live objects, terms and bytes of every environment involved
// are as they were. Numbers that may stand (a not-a-number or infinite
// constant in a node) must either build a node that ends cleanly or be
// refused the same way. The tabled families are swept row by row from their
// own lists, so a row added to a list is checked with no line here.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <typeinfo>

#include "builders.h"
#include "tavexpression.h"
#include "test_support.h"

namespace {

const double NaN = std::numeric_limits<double>::quiet_NaN();
const double Inf = std::numeric_limits<double>::infinity();

/// Two live environments and variables of a third that has ended.
struct Stage {
  TavEnv dead;
  TavNumVar deadX{dead, 0.0, 1.0};
  TavIntVar deadI{dead, 0, 5};
  TavNumArray deadNums{dead, 3};
  NamedVars a{-100, 100}, b{-100, 100};
  TavIntVar k{a.env, 0, 2, "k"};
  Stage() { dead.end(); }
  ~Stage() {
    a.env.end();
    b.env.end();
  }
};

struct Counters {
  TavInt objects, terms;
  std::size_t bytes;
  bool operator==(const Counters& o) const { return objects == o.objects && terms == o.terms && bytes == o.bytes; }
};
Counters countersOf(const TavEnv& env) {
  TavEnvI* e = env.getImpl();
  return {e->getLiveObjectCount(), e->getLiveTermCount(), e->getMemory().getLiveBytes()};
}

enum class Refusal { Empty, WrongUsage, ArrayError, Any };

const char* nameOf(Refusal r) {
  switch (r) {
    case Refusal::Empty: return "TavEmptyHandleException";
    case Refusal::WrongUsage: return "TavWrongUsage";
    case Refusal::ArrayError: return "TavArrayError";
    default: return "TavException";
  }
}

bool isA(const TavException& e, Refusal r) {
  switch (r) {
    case Refusal::Empty: return dynamic_cast<const TavEmptyHandleException*>(&e) != nullptr;
    case Refusal::WrongUsage: return dynamic_cast<const TavWrongUsage*>(&e) != nullptr;
    case Refusal::ArrayError: return dynamic_cast<const TavArrayError*>(&e) != nullptr;
    default: return true;
  }
}

/// Runs call on the stage; it must throw `want` and leave both live
/// environments' counters as they were.
void expectRefused(Stage& s, const std::string& what, Refusal want, const std::function<void()>& call) {
  SCOPED_TRACE(what);
  const Counters a = countersOf(s.a.env), b = countersOf(s.b.env);
  try {
    call();
    ADD_FAILURE() << what << ": accepted; expected " << nameOf(want);
  } catch (const TavException& e) {
    EXPECT_TRUE(isA(e, want)) << what << ": threw " << typeid(e).name() << " (" << e.what() << "), expected "
                              << nameOf(want);
    EXPECT_NE(std::string(e.what()), "") << what;
  } catch (const std::exception& e) {
    ADD_FAILURE() << what << ": threw a non-library exception: " << e.what();
  }
  EXPECT_TRUE(countersOf(s.a.env) == a) << what << ": the first environment changed";
  EXPECT_TRUE(countersOf(s.b.env) == b) << what << ": the second environment changed";
}

/// A number that may stand: the call either builds a node, which then ends
/// and gives every count back, or is refused without a change.
void expectBuiltOrRefused(Stage& s, const std::string& what, const std::function<TavNumExprArg()>& call) {
  SCOPED_TRACE(what);
  const Counters a = countersOf(s.a.env);
  try {
    TavNumExprArg built = call();
    std::ostringstream os;
    os << built;  // printing must not fail either
    TavNumExpr(built).end();
  } catch (const TavException&) {
  }
  EXPECT_TRUE(countersOf(s.a.env) == a) << what;
}

// ------------------------------------------------------------------ operands by class

template <class Arg>
struct Operands;
template <>
struct Operands<TavNumExprArg> {
  static TavNumExprArg live(NamedVars& v) { return v.x; }
  static TavNumExprArg ended(Stage& s) { return s.deadX; }
};
template <>
struct Operands<TavIntExprArg> {
  static TavIntExprArg live(NamedVars& v) { return v.i; }
  static TavIntExprArg ended(Stage& s) { return s.deadI; }
};

/// A three-element array of each kind in v's environment.
template <class Array>
Array sampleArray(NamedVars& v);
template <>
TavNumArray sampleArray(NamedVars& v) {
  return TavNumArray(v.env, {1.5, -2.0, 4.0});
}
template <>
TavIntArray sampleArray(NamedVars& v) {
  return TavIntArray(v.env, {3, -7, 11});
}
template <>
TavNumExprArray sampleArray(NamedVars& v) {
  TavNumExprArray a(v.env, 0);
  a.add(v.x), a.add(v.y), a.add(v.x);
  return a;
}
template <>
TavIntExprArray sampleArray(NamedVars& v) {
  TavIntExprArray a(v.env, 0);
  a.add(v.i), a.add(v.j), a.add(v.i);
  return a;
}

/// The kind of array whose elements are handles (they can be empty or of
/// another environment); value arrays have no such misuse.
template <class Array>
constexpr bool holdsHandles() {
  return std::is_same<Array, TavNumExprArray>::value || std::is_same<Array, TavIntExprArray>::value;
}

// ------------------------------------------------------------------ the tabled families

template <class Arg, class F>
void misuseUnary(const char* name, F build) {
  Stage s;
  expectRefused(s, std::string(name) + " of an empty handle", Refusal::Empty, [&] { build(Arg()); });
  expectRefused(s, std::string(name) + " of an ended environment's variable", Refusal::WrongUsage,
                [&] { build(Operands<Arg>::ended(s)); });
}

template <class Arg, class F>
void misuseBinary(const char* name, F build) {
  Stage s;
  const Arg mine = Operands<Arg>::live(s.a), theirs = Operands<Arg>::live(s.b), ended = Operands<Arg>::ended(s);
  const std::string n = name;
  expectRefused(s, n + "(empty, x)", Refusal::Empty, [&] { build(Arg(), mine); });
  expectRefused(s, n + "(x, empty)", Refusal::Empty, [&] { build(mine, Arg()); });
  expectRefused(s, n + " over two environments", Refusal::WrongUsage, [&] { build(mine, theirs); });
  expectRefused(s, n + " over two environments, other order", Refusal::WrongUsage, [&] { build(theirs, mine); });
  expectRefused(s, n + " with an ended environment's variable", Refusal::WrongUsage, [&] { build(mine, ended); });
  expectRefused(s, n + " with an ended environment's variable first", Refusal::WrongUsage,
                [&] { build(ended, mine); });
}

template <class Arg, class C, class F>
void misuseConstant(const char* name, std::initializer_list<F> forms) {
  for (F build : forms) {
    Stage s;
    const std::string n = name;
    expectRefused(s, n + " of an empty handle", Refusal::Empty, [&] { build(Arg(), (C)2); });
    expectRefused(s, n + " of an ended environment's variable", Refusal::WrongUsage,
                  [&] { build(Operands<Arg>::ended(s), (C)2); });
    if (std::is_floating_point<C>::value)
      for (double c : {NaN, Inf, -Inf})
        expectBuiltOrRefused(s, n + " with " + std::to_string(c), [&] { return build(Operands<Arg>::live(s.a), (C)c); });
  }
}

template <class Array, class Arg, class F, class G>
void misuseArray(const char* name, F build, G buildVars) {
  Stage s;
  const std::string n = name;
  Array holed(s.a.env, 2), mixed = sampleArray<Array>(s.a);
  mixed.add(Operands<Arg>::live(s.b));
  expectRefused(s, n + " of an empty array", Refusal::Empty, [&] { build(Array()); });
  expectRefused(s, n + " of an empty variable array", Refusal::Empty,
                [&] { buildVars(tav_detail::VarArrayOf<Array>()); });
  expectRefused(s, n + " of an array holding an empty handle", Refusal::Empty, [&] { build(holed); });
  expectRefused(s, n + " of an array holding another environment's operand", Refusal::WrongUsage,
                [&] { build(mixed); });
}

template <class Array, class F>
void misuseElement(const char* name, F build) {
  Stage s;
  const std::string n = name;
  const Array mine = sampleArray<Array>(s.a);
  expectRefused(s, n + " of an empty array", Refusal::Empty, [&] { build(Array(), s.k); });
  expectRefused(s, n + " at an empty index", Refusal::Empty, [&] { build(mine, TavIntExprArg()); });
  expectRefused(s, n + " at another environment's index", Refusal::WrongUsage, [&] { build(mine, s.b.i); });
  expectRefused(s, n + " at an ended environment's index", Refusal::WrongUsage, [&] { build(mine, s.deadI); });
  if (holdsHandles<Array>()) {
    const Array holed(s.a.env, 2);
    expectRefused(s, n + " of an array holding an empty handle", Refusal::Empty, [&] { build(holed, s.k); });
  }
}

#define MISUSE_UN(Name, Base, How, F, Operand, ...) \
  misuseUnary<Operand>(#Name, +[](const Operand& x) -> TavNumExprArg { return F(x); });
#define MISUSE_BIN(Name, Base, How, F, ...)                                                               \
  misuseBinary<tav_detail::ArgOf<Base>>(                                                                  \
      #Name, +[](const tav_detail::ArgOf<Base>& a, const tav_detail::ArgOf<Base>& b) -> TavNumExprArg { \
        return F(a, b);                                                                                   \
      });
#define MISUSE_CST(Name, Base, How, F, Constant, Integrality, Order, ...)  \
  misuseConstant<tav_detail::ArgOf<Base>, Constant, TavNumExprArg (*)(const tav_detail::ArgOf<Base>&, Constant)>( \
      #Name, CALLS_##Order(F, tav_detail::ArgOf<Base>, Constant));
#define MISUSE_ARR(Name, Base, How, F, Array, ...)                                  \
  misuseArray<Array, tav_detail::ArgOf<Base>>(                                      \
      #Name, +[](const Array& a) -> TavNumExprArg { return F(a); },                 \
      +[](const tav_detail::VarArrayOf<Array>& a) -> TavNumExprArg { return F(a); });
#define MISUSE_ELT(Name, Base, How, F, Array, ...) \
  misuseElement<Array>(#Name, +[](const Array& a, const TavIntExprArg& i) -> TavNumExprArg { return F(a, i); });

}  // namespace

TEST(Misuse, ProductsAndQuotients) { TAV_PRODUCT_FAMILY(MISUSE_CST, MISUSE_BIN) }
TEST(Misuse, MinimumAndMaximum) { TAV_MINMAX_FAMILY(MISUSE_CST, MISUSE_BIN, MISUSE_ARR) }
TEST(Misuse, Remainders) { TAV_MODULO_FAMILY(MISUSE_CST, MISUSE_BIN) }
TEST(Misuse, Powers) { TAV_POWER_FAMILY(MISUSE_CST, MISUSE_BIN) }
TEST(Misuse, UnaryFunctions) { TAV_SQUARE_FAMILY(MISUSE_UN) TAV_ELEMENTARY_FAMILY(MISUSE_UN) TAV_ROUNDING_FAMILY(MISUSE_UN) }
TEST(Misuse, ElementAccess) { TAV_ELEMENT_FAMILY(MISUSE_ELT) }

// ------------------------------------------------------------------ the other entry points

namespace {

/// Arrays of both environments and of the wrong size, made before any
/// refused call so that the counts compare the call alone.
struct Fixtures : Stage {
  TavNumArray nums{a.env, {1.0, 2.0, 3.0}}, twoNums{a.env, {1.0, 2.0}}, theirNums{b.env, {1.0, 2.0, 3.0}};
  TavIntArray ints{a.env, {1, 2, 3}};
  TavNumVarArray vars{a.env, 0}, mixedVars{a.env, 0};
  TavIntVarArray intVars{a.env, 0};
  TavIntExprArray holed{a.env, 3}, mixed{a.env, 0};
  TavNumArray nanPoints{a.env, {0.0, NaN}};
  TavExpr sum{a.env};
  TavSolution sol{a.env};
  Fixtures() {
    vars.add(a.x), vars.add(a.y), vars.add(a.x);
    mixedVars.add(a.x), mixedVars.add(b.y), mixedVars.add(a.y);
    intVars.add(a.i), intVars.add(a.j), intVars.add(a.i);
    mixed.add(a.i), mixed.add(b.i);
    sum += 2 * a.x;
  }
};

const TavEnv NoEnv{static_cast<TavEnvI*>(nullptr)};  // an empty handle (TavEnv() makes a new one)

struct Row {
  const char* what;
  Refusal want;
  std::function<void(Fixtures&)> call;
};

const Row Rows[] = {
    // Scalar products and sums.
    {"TavScalProd of arrays of two sizes", Refusal::Any, [](Fixtures& f) { TavScalProd(f.twoNums, f.vars); }},
    {"TavScalProd over variables of two environments", Refusal::WrongUsage,
     [](Fixtures& f) { TavScalProd(f.nums, f.mixedVars); }},
    {"TavScalProd over expressions of two environments", Refusal::WrongUsage,
     [](Fixtures& f) { TavScalProd(f.mixed, f.mixed); }},
    {"TavScalProd of an empty array", Refusal::Empty, [](Fixtures& f) { TavScalProd(TavNumArray(), f.vars); }},
    {"TavScalProd of an empty variable array", Refusal::Empty, [](Fixtures& f) { TavScalProd(f.nums, TavNumVarArray()); }},
    {"TavSum of an empty array", Refusal::Empty, [](Fixtures&) { TavSum(TavNumExprArray()); }},
    {"TavSum of an array holding an empty handle", Refusal::Empty, [](Fixtures& f) { TavSum(TavIntExprArray(f.holed)); }},
    // Counting and spread.
    {"TavCount of an empty array", Refusal::Empty, [](Fixtures&) { TavCount(TavIntExprArray(), 1); }},
    {"TavCount of an array holding an empty handle", Refusal::ArrayError, [](Fixtures& f) { TavCount(f.holed, 1); }},
    {"TavCount over two environments", Refusal::WrongUsage, [](Fixtures& f) { TavCount(f.mixed, 1); }},
    {"TavStandardDeviation of an empty array", Refusal::Empty, [](Fixtures&) { TavStandardDeviation(TavIntVarArray()); }},
    {"TavStandardDeviation over two environments", Refusal::WrongUsage, [](Fixtures& f) { TavStandardDeviation(f.mixed); }},
    // Piecewise and monotonic functions.
    {"TavPiecewiseLinear of an empty operand", Refusal::Empty,
     [](Fixtures& f) { TavPiecewiseLinear(TavNumExprArg(), f.twoNums, f.nums, 0, 0); }},
    {"TavPiecewiseLinear with an empty array", Refusal::Empty,
     [](Fixtures& f) { TavPiecewiseLinear(f.a.x, TavNumArray(), f.nums, 0, 0); }},
    {"TavPiecewiseLinear of an ended environment's variable", Refusal::WrongUsage,
     [](Fixtures& f) { TavPiecewiseLinear(f.deadX, f.twoNums, f.nums, 0, 0); }},
    {"TavMonotonicIncreasingNumExpr of an empty operand", Refusal::Empty,
     [](Fixtures&) { TavMonotonicIncreasingNumExpr(TavNumExprArg(), std::exp, std::log); }},
    // Operators and in-place operations.
    {"x + y over two environments", Refusal::WrongUsage, [](Fixtures& f) { f.a.x + f.b.x; }},
    {"x * y over two environments", Refusal::WrongUsage, [](Fixtures& f) { f.a.x * f.b.x; }},
    {"empty + x", Refusal::Empty, [](Fixtures& f) { TavNumExprArg() + f.a.x; }},
    {"e += another environment's variable", Refusal::WrongUsage, [](Fixtures& f) { f.sum += f.b.x; }},
    {"e += an empty variable", Refusal::Empty, [](Fixtures& f) { f.sum += TavNumVar(); }},
    {"e += an ended environment's variable", Refusal::WrongUsage, [](Fixtures& f) { f.sum += f.deadX; }},
    {"e -= an ended environment's term", Refusal::WrongUsage, [](Fixtures& f) { f.sum -= 2 * f.deadX; }},
    {"e += an ended environment's expression", Refusal::WrongUsage,
     [](Fixtures& f) { f.sum += TavNumExprArg(f.deadX); }},
    {"setLinearCoef of an empty variable", Refusal::Empty, [](Fixtures& f) { f.sum.setLinearCoef(TavNumVar(), 1.0); }},
    {"TavExpr in no environment", Refusal::Empty, [](Fixtures&) { TavExpr e{NoEnv}; }},
    // Variables, arrays and evaluation.
    {"a variable in no environment", Refusal::Empty, [](Fixtures&) { TavNumVar v(NoEnv, 0.0, 1.0); }},
    {"an array in no environment", Refusal::Empty, [](Fixtures&) { TavNumVarArray v(NoEnv, 2); }},
    {"setLB of an empty variable", Refusal::Empty, [](Fixtures&) { TavNumVar().setLB(0.0); }},
    {"getLB of an empty variable", Refusal::Empty, [](Fixtures&) { (void)TavNumVar().getLB(); }},
    {"getMax of an ended environment's variable", Refusal::WrongUsage, [](Fixtures& f) { (void)f.deadI.getMax(); }},
    {"the name of an empty object", Refusal::Empty, [](Fixtures&) { (void)TavExtractable().getName(); }},
    {"an element past the end", Refusal::ArrayError, [](Fixtures& f) { (void)f.nums[3]; }},
    {"an element before the start", Refusal::ArrayError, [](Fixtures& f) { (void)f.vars[-1]; }},
    {"an element of an empty array", Refusal::Empty, [](Fixtures&) { (void)TavIntArray()[0]; }},
    {"adding to an ended environment's array", Refusal::WrongUsage, [](Fixtures& f) { f.deadNums.add(1.0); }},
    {"appending an ended environment's array", Refusal::WrongUsage, [](Fixtures& f) { f.nums.add(f.deadNums); }},
    {"removing from an empty array", Refusal::Empty, [](Fixtures&) { TavNumArray().remove(0); }},
    {"setLB of an ended environment's variable", Refusal::WrongUsage, [](Fixtures& f) { f.deadX.setLB(0.0); }},
    {"a value of an empty variable", Refusal::Empty, [](Fixtures& f) { f.sol.setValue(TavNumVar(), 1.0); }},
    {"the value of an empty expression", Refusal::Empty, [](Fixtures& f) { f.sol.getValue(TavNumExprArg()); }},
    {"the value of an ended environment's variable", Refusal::WrongUsage, [](Fixtures& f) { f.sol.getValue(f.deadX); }},
    {"the value of an ended environment's expression", Refusal::WrongUsage,
     [](Fixtures& f) { f.sol.getValue(TavNumExprArg(f.deadX)); }},
    {"a value in an empty algorithm", Refusal::Empty, [](Fixtures& f) { TavAlgorithm().getValue(f.a.x); }},
    {"a semi-continuous variable in no environment", Refusal::Empty,
     [](Fixtures&) { TavSemiContVar v(NoEnv, 1.0, 2.0); }},
    {"a conversion of an empty variable", Refusal::Empty,
     [](Fixtures& f) { TavConversion c(f.a.env, TavNumVar(), TavNumVar::Int); }},
    {"the indicator of an empty constraint", Refusal::Empty, [](Fixtures&) { TavNumVar v(TavConstraint{}); }},
    {"cloning an ended environment's variable", Refusal::WrongUsage,
     [](Fixtures& f) { f.a.env.getImpl()->cloneInto(f.deadX.getImpl(), f.b.env.getImpl()); }},
};

}  // namespace

/// Calls whose numbers or sizes are not checked: the library keeps its
/// documented result for them (a value past an array's end reads as
/// not-a-number; the numbers of another environment's array are copied).
const struct {
  const char* what;
  TavNumExprArg (*call)(Fixtures&);
} Unchecked[] = {
    {"TavPiecewiseLinear with one slope too few", [](Fixtures& f) -> TavNumExprArg { return TavPiecewiseLinear(f.a.x, f.nums, f.nums, 0, 0); }},
    {"TavPiecewiseLinear with no values", [](Fixtures& f) -> TavNumExprArg { return TavPiecewiseLinear(f.a.x, 1.0, f.nums, f.twoNums, 1.0); }},
    {"TavPiecewiseLinear over another environment's numbers",
     [](Fixtures& f) -> TavNumExprArg { return TavPiecewiseLinear(f.a.x, f.twoNums, f.theirNums, 0, 0); }},
    {"TavPiecewiseLinear with a not-a-number breakpoint",
     [](Fixtures& f) -> TavNumExprArg { return TavPiecewiseLinear(f.a.x, f.nanPoints, f.nums, 0, 0); }},
    {"TavScalProd with another environment's numbers", [](Fixtures& f) -> TavNumExprArg { return TavScalProd(f.theirNums, f.vars); }},
    {"x * NaN", [](Fixtures& f) -> TavNumExprArg { return f.a.x * NaN; }},
    {"x + infinity", [](Fixtures& f) -> TavNumExprArg { return f.a.x + Inf; }},
    {"TavStandardDeviation with bounds that are not numbers",
     [](Fixtures& f) -> TavNumExprArg { return TavStandardDeviation(f.intVars, NaN, NaN); }},
};

// Ending a handle whose environment has ended does nothing: the object went
// with its environment.
TEST(Misuse, EndingAfterTheEnvironment) {
  TavEnv env;
  TavNumVar x(env, 0, 1);
  TavNumExpr e(x * 2.0 + 1.0);
  TavNumArray a(env, 3);
  TavExtractable any(x.getImpl());
  TavConversion c(env, x, TavNumVar::Int);
  env.end();
  e.end(), a.end(), any.end(), c.end(), x.end();
  EXPECT_EQ(e.getImpl(), nullptr);
  EXPECT_EQ(a.getImpl(), nullptr);
}

TEST(Misuse, EveryOtherEntryPoint) {
  for (const Row& r : Rows) {
    Fixtures f;
    expectRefused(f, r.what, r.want, [&] { r.call(f); });
  }
  for (const auto& u : Unchecked) {
    Fixtures f;
    expectBuiltOrRefused(f, u.what, [&] { return u.call(f); });
    TavSolution sol(f.a.env);
    sol.setValue(f.a.x, 0.5), sol.setValue(f.a.y, 2.0), sol.setValue(f.a.i, 3), sol.setValue(f.a.j, 4);
    TavNumExpr e(u.call(f));
    (void)sol.getValue(e);  // must evaluate, whatever the value
    e.end();
  }
}

// Every form of variable times number, each order, with the variable empty,
// of an ended environment, and live with one and with two live environments
// (the second case looks its environment up; the first reads the sole one).
TEST(Misuse, EveryTermForm) {
  const struct {
    const char* what;
    std::function<TavNumExprArg(const TavNumVar&, const TavIntVar&)> make;
  } forms[] = {
      {"num * double", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return x * 2.5; }},
      {"double * num", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return 2.5 * x; }},
      {"num * TavInt", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return x * TavInt(2); }},
      {"TavInt * num", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return TavInt(2) * x; }},
      {"num * int", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return x * 2; }},
      {"int * num", [](const TavNumVar& x, const TavIntVar&) -> TavNumExprArg { return 2 * x; }},
      {"int var * double", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return i * 2.5; }},
      {"double * int var", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return 2.5 * i; }},
      {"int var * TavInt", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return i * TavInt(2); }},
      {"TavInt * int var", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return TavInt(2) * i; }},
      {"int var * int", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return i * 2; }},
      {"int * int var", [](const TavNumVar&, const TavIntVar& i) -> TavNumExprArg { return 2 * i; }},
  };
  for (const auto& f : forms) {
    {
      Stage s;
      expectRefused(s, std::string(f.what) + " of an empty variable", Refusal::Empty,
                    [&] { f.make(TavNumVar(), TavIntVar()); });
      expectRefused(s, std::string(f.what) + " of an ended environment", Refusal::WrongUsage,
                    [&] { f.make(s.deadX, s.deadI); });
      TavExpr e(s.b.env);
      e += f.make(s.b.x, s.b.i);  // two live environments: the owner is looked up
      EXPECT_EQ(show(e), show(TavExpr(f.make(s.b.x, s.b.i)))) << f.what;
    }
    TavEnv sole;  // the only live environment
    TavNumVar x(sole, 0, 10, TavNumVar::Float, "x");
    TavIntVar i(sole, 0, 10, "i");
    TavExpr e(sole);
    e += f.make(x, i);
    EXPECT_EQ(e.getLinearIterator().ok(), true) << f.what;
    sole.end();
  }
}
