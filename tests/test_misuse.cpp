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
#define MISUSE_XC(F, H, C) +[](const H& x, C c) -> TavNumExprArg { return F(x, c); }
#define MISUSE_CX(F, H, C) +[](const H& x, C c) -> TavNumExprArg { return F(c, x); }
#define MISUSE_FORMS_OperandFirst(F, H, C) {MISUSE_XC(F, H, C)}
#define MISUSE_FORMS_ConstantFirst(F, H, C) {MISUSE_CX(F, H, C)}
#define MISUSE_FORMS_Either(F, H, C) {MISUSE_XC(F, H, C), MISUSE_CX(F, H, C)}
#define MISUSE_CST(Name, Base, How, F, Constant, Integrality, Order, ...)  \
  misuseConstant<tav_detail::ArgOf<Base>, Constant, TavNumExprArg (*)(const tav_detail::ArgOf<Base>&, Constant)>( \
      #Name, MISUSE_FORMS_##Order(F, tav_detail::ArgOf<Base>, Constant));
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
