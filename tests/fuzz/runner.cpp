// The runner: executes a program against the library, one operator table
// over every handle type (overloads found at compile time), and compares
// every live handle, every variable and conversion, the change records a
// listener received and the display of the node acted on with the reference
// model after every statement, and of every node at the end.
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>

#include "tavexpression.h"
#include "functions.h"
#include "fuzz.h"

namespace tavfuzz {
namespace {

using Val = std::variant<double, TavInt, int, TavNumVar, TavIntVar, TavBoolVar, TavNumLinExprTerm, TavIntLinExprTerm,
                         TavNumExprArg, TavIntExprArg, TavNumExpr, TavIntExpr, TavExpr>;

template <class T, std::size_t I = 0>
constexpr Kind kindOf() {
  if constexpr (I == std::variant_size_v<Val>) return KNone;
  else if constexpr (std::is_same_v<T, std::variant_alternative_t<I, Val>>) return (Kind)I;
  else return kindOf<T, I + 1>();
}
template <class T>
constexpr bool isCounted() {
  return std::is_same_v<T, TavNumExpr> || std::is_same_v<T, TavIntExpr> || std::is_same_v<T, TavExpr>;
}

// One row per operator: the expression a program writes.
#define TAV_FUZZ_OP(Name, Expr)                                    \
  struct Name {                                                    \
    template <class A, class B>                                    \
    static auto f(A& a, B& b) -> decltype(Expr) { return Expr; }   \
  };
TAV_FUZZ_OP(Neg, ((void)b, -a))
TAV_FUZZ_OP(Add, a + b)
TAV_FUZZ_OP(Sub, a - b)
TAV_FUZZ_OP(Mul, a * b)
TAV_FUZZ_OP(Div, a / b)
TAV_FUZZ_OP(Mod, a % b)
TAV_FUZZ_OP(IDiv, TavDiv(a, b))
TAV_FUZZ_OP(Min, TavMin(a, b))
TAV_FUZZ_OP(Max, TavMax(a, b))
TAV_FUZZ_OP(AddTo, a += b)
TAV_FUZZ_OP(SubFrom, a -= b)
TAV_FUZZ_OP(MulBy, a *= b)
TAV_FUZZ_OP(DivBy, a /= b)
// The monotonic builders over one function each, so that a row can call them.
double cube(double v) { return v * v * v; }
double negExp(double v) { return -std::exp(v); }
TavNumExprArg IncreasingCube(const TavNumExprArg& x) { return TavMonotonicIncreasingNumExpr(x, cube, nullptr); }
TavNumExprArg DecreasingNegExp(const TavNumExprArg& x) { return TavMonotonicDecreasingNumExpr(x, negExp, cube); }
// One per row of the function table, named after builder, shape and operand.
#define TAV_FUZZ_ARGS_FUnary(F) ((void)b, F(a))
#define TAV_FUZZ_ARGS_FBinary(F) F(a, b)
#define TAV_FUZZ_ARGS_FExprCst(F) F(a, b)
#define TAV_FUZZ_ARGS_FCstExpr(F) F(a, b)
#define TAV_FUZZ_CALL(Name, Shape, Operand, ...) TAV_FUZZ_OP(Name##_##Shape##_##Operand, TAV_FUZZ_ARGS_##Shape(Name))
TAV_FUZZ_FUNCTIONS(TAV_FUZZ_CALL)
#undef TAV_FUZZ_CALL
#undef TAV_FUZZ_OP

/// The result type of F over A and B when it is an expression or a term.
template <class F, class A, class B, class = void>
struct Result {
  static constexpr Kind k = KNone;
};
template <class F, class A, class B>
struct Result<F, A, B, std::void_t<decltype(F::f(std::declval<A&>(), std::declval<B&>()))>> {
  static constexpr Kind r = kindOf<std::decay_t<decltype(F::f(std::declval<A&>(), std::declval<B&>()))>>();
  static constexpr Kind k = r >= KNumTerm && r <= KIntArg ? r : KNone;
};
/// Whether h op= x compiles; an integer handle never takes a double, which
/// would be narrowed before the library sees it.
template <class F, class H, class X, class = void>
struct Assignable : std::false_type {};
template <class F, class H, class X>
struct Assignable<F, H, X, std::void_t<decltype(F::f(std::declval<H&>(), std::declval<X&>()))>>
    : std::bool_constant<isCounted<H>() && !(std::is_same_v<H, TavIntExpr> && std::is_same_v<X, double>)> {};

/// Whether an element of type X goes into an array of type Arr.
template <class Arr, class X, class = void>
struct CanAdd : std::false_type {};
template <class Arr, class X>
struct CanAdd<Arr, X, std::void_t<decltype(std::declval<Arr&>().add(std::declval<X&>()))>>
    : std::bool_constant<!std::is_arithmetic_v<X>> {};

template <std::size_t... I>
std::array<Val, sizeof...(I)> makeProtos(std::index_sequence<I...>) {
  return {Val(std::in_place_index<I>)...};
}
Val& proto(Kind k) {
  static std::array<Val, KNone> protos = makeProtos(std::make_index_sequence<KNone>());
  return protos[k];
}

template <class F>
Kind kindRow(Kind a, Kind b) {
  return std::visit([](auto& x, auto& y) { return Result<F, std::decay_t<decltype(x)>, std::decay_t<decltype(y)>>::k; },
                    proto(a), proto(b));
}
template <class F>
Val callRow(Val& a, Val& b) {
  return std::visit(
      [](auto& x, auto& y) -> Val {
        constexpr Kind k = Result<F, std::decay_t<decltype(x)>, std::decay_t<decltype(y)>>::k;
        if constexpr (k != KNone) return Val(std::in_place_index<k>, F::f(x, y));
        else throw std::logic_error("no such operator");
      },
      a, b);
}
template <class F>
bool assignRow(Val& h, Val& x, bool run) {
  return std::visit(
      [run](auto& a, auto& b) {
        if constexpr (Assignable<F, std::decay_t<decltype(a)>, std::decay_t<decltype(b)>>::value) {
          if (run) F::f(a, b);
          return true;
        } else {
          return false;
        }
      },
      h, x);
}

struct Row {
  Kind (*kind)(Kind, Kind);
  Val (*call)(Val&, Val&);
};
const Row Rows[BinaryOps] = {{nullptr, nullptr},           {kindRow<Neg>, callRow<Neg>}, {kindRow<Add>, callRow<Add>},
                             {kindRow<Sub>, callRow<Sub>},   {kindRow<Mul>, callRow<Mul>}, {kindRow<Div>, callRow<Div>},
                             {kindRow<Mod>, callRow<Mod>},   {kindRow<IDiv>, callRow<IDiv>}, {kindRow<Min>, callRow<Min>},
                             {kindRow<Max>, callRow<Max>}};
// The function table's rows, checked at compile time to return the handle
// their row says for operands of the type their row says.
using NumHandle = TavNumExprArg;
using IntHandle = TavIntExprArg;
template <class F, Shape S, class Arg>
constexpr Kind declaredResult() {
  if constexpr (S == FUnary || S == FExprCst) return Result<F, Arg, double>::k;
  else if constexpr (S == FBinary) return Result<F, Arg, Arg>::k;
  else return Result<F, double, Arg>::k;
}
#define TAV_FUZZ_CHECK(Name, Shape, Operand, ResultKind, ...)                                             \
  static_assert(declaredResult<Name##_##Shape##_##Operand, Shape, Operand##Handle>() == ResultKind, \
                #Name " does not return what its row says");
TAV_FUZZ_FUNCTIONS(TAV_FUZZ_CHECK)
#undef TAV_FUZZ_CHECK

#define TAV_FUZZ_ROW(Name, Shape, Operand, ...) \
  {kindRow<Name##_##Shape##_##Operand>, callRow<Name##_##Shape##_##Operand>},
const Row Calls[] = {TAV_FUZZ_FUNCTIONS(TAV_FUZZ_ROW)};
#undef TAV_FUZZ_ROW

bool (*const Assigns[])(Val&, Val&, bool) = {assignRow<AddTo>, assignRow<SubFrom>, assignRow<MulBy>, assignRow<DivBy>};
int assignIndex(char op) { return op == '+' ? 0 : op == '-' ? 1 : op == '*' ? 2 : 3; }

bool close(double got, double want, double mag) {
  if (std::isnan(got) || std::isnan(want)) return std::isnan(got) && std::isnan(want);
  if (std::isinf(got) || std::isinf(want)) return got == want;
  double scale = std::max({1.0, std::fabs(got), std::fabs(want)});
  if (!(mag <= scale)) scale = std::isnan(mag) ? INFINITY : mag;  // sums may reorder around large parts
  return std::fabs(got - want) <= 1e-9 * scale;
}

/// The same double: not-a-number matches itself, zeros keep their sign.
bool same(double got, double want) {
  return std::isnan(want) ? std::isnan(got) : got == want && std::signbit(got) == std::signbit(want);
}

std::string str(double v) {
  std::ostringstream os;
  os.precision(17);
  os << v;
  return os.str();
}

/// An algorithm that keeps every change record it is told of, as the
/// reference writes them.
struct Listener : TavAlgorithmI {
  const std::vector<TavNumVar>& vars;
  const std::vector<TavConversion>& convs;
  std::vector<std::pair<Record, const void*>> got;  ///< with the linear node a record names
  std::string odd;                                   ///< a record of a kind no statement sends

  Listener(TavEnvI* env, const std::vector<TavNumVar>& v, const std::vector<TavConversion>& c)
      : TavAlgorithmI(env), vars(v), convs(c) {}
  double getValue(const TavNumVarI*) const override { return 0; }
  int var(const TavNumVarI* v) const {
    for (std::size_t i = 0; i < vars.size(); ++i)
      if (vars[i].getImpl() == v) return (int)i;
    return -1;
  }
  template <class Arr>
  static std::vector<double> contents(Arr a) {
    std::vector<double> out;
    for (TavInt i = 0; a.getImpl() && i < a.getSize(); ++i) out.push_back((double)a[i]);
    return out;
  }
  template <class Rec>
  bool linear(const TavChange& c, RecKind k) {
    if (!c.isType(Rec::GetTypeInfo())) return false;
    const Rec& r = static_cast<const Rec&>(c);
    Record out;
    out.kind = k;
    out.var = var(r.getVar());
    const TavNumExprI* node = r.getExpr();
    got.emplace_back(out, node);
    return true;
  }
  void notifyChange(const TavChange& c) override {
    if (linear<TavNumLinTermAddVar>(c, RAddVar) || linear<TavNumLinTermRemoveVar>(c, RRemoveVar) ||
        linear<TavIntLinTermRemoveVar>(c, RIntRemoveVar))
      return;
    Record out;
    if (c.isType(TavSetNumVarBounds::GetTypeInfo())) {
      const auto& r = static_cast<const TavSetNumVarBounds&>(c);
      out.kind = RBounds;
      out.var = var(r.getVar().getImpl());
      out.a = r.getLB();
      out.b = r.getUB();
    } else if (c.isType(TavSetNumVarArrayBounds::GetTypeInfo())) {
      const auto& r = static_cast<const TavSetNumVarArrayBounds&>(c);
      out.kind = RArrayBounds;
      const TavNumVarArray a = r.getVars();
      for (TavInt i = 0; i < a.getSize(); ++i) out.vars.push_back(var(a[i].getImpl()));
      out.values = contents(r.getLBs());
      for (double u : contents(r.getUBs())) out.values.push_back(u);
    } else if (c.isType(TavSetNumVarPossibleValues::GetTypeInfo())) {
      const auto& r = static_cast<const TavSetNumVarPossibleValues&>(c);
      out.kind = RValues;
      out.var = var(r.getVar().getImpl());
      out.intValues = r.getIntValues().getImpl() != nullptr;
      if (out.intValues == (r.getNumValues().getImpl() != nullptr)) odd = "a possible-values record with both or no arrays";
      out.values = out.intValues ? contents(r.getIntValues()) : contents(r.getNumValues());
    } else if (c.isType(TavSetSemiContBound::GetTypeInfo())) {
      const auto& r = static_cast<const TavSetSemiContBound&>(c);
      out.kind = RThreshold;
      out.var = var(r.getVar().getImpl());
      out.a = r.getOldValue();
      out.b = r.getNewValue();
    } else if (c.isType(TavConversionRemoveVar::GetTypeInfo())) {
      const auto& r = static_cast<const TavConversionRemoveVar&>(c);
      out.kind = RConvRemove;
      out.var = var(r.getVar().getImpl());
      for (std::size_t i = 0; i < convs.size(); ++i)
        if (convs[i].getImpl() == r.getConversion().getImpl()) out.slot = (int)i;
    } else {
      odd = std::string("unexpected record ") + c.getRttiTypeName();
      return;
    }
    got.emplace_back(out, nullptr);
  }
};

const char* const RecordNames[] = {"TavNumLinTermAddVar", "TavNumLinTermRemoveVar", "TavIntLinTermRemoveVar",
                                   "TavSetNumVarBounds",  "TavSetNumVarPossibleValues", "TavSetSemiContBound",
                                   "TavConversionRemoveVar", "TavSetNumVarArrayBounds"};

struct Runner {
  const Program& p;
  TavEnv env;
  TavSolution sol{env};
  std::vector<TavNumVar> vars;
  std::vector<Val> slots;  // a double once ended
  Model m{p};
  TavNumVarArray argVars;
  TavNumArray argCoefs;

  TavConstraint yes{new (env.getImpl()) TavConstConstraintI(env.getImpl(), nullptr, 1)};
  TavConstraint no{new (env.getImpl()) TavConstConstraintI(env.getImpl(), nullptr, 0)};
  std::vector<TavConversion> convs;
  std::unique_ptr<Listener> listener;
  int removed = 0;

  explicit Runner(const Program& prog) : p(prog) {
    for (int v = 0; v < (int)p.values.size(); ++v) {  // every other one of another kind, see Program::print
      const int b = v - p.numVars - p.intVars;
      if (v < p.numVars) vars.push_back(v % 2 ? TavNumVar(TavSemiContVar(env, 0.5, 100)) : TavNumVar(env, -100, 100));
      else if (b < 0) vars.push_back(TavIntVar(env, -100, 100));
      else vars.push_back(b % 2 ? TavNumVar(b % 4 == 1 ? yes : no) : TavNumVar(TavBoolVar(env)));
      sol.setValue(vars.back(), p.values[v]);
      vars.back().setName(p.varName(v).c_str());
    }
    ei()->setRemoveFromAllOnDestroy(p.removeFromAll);
  }
  TavEnvI* ei() const { return env.getImpl(); }
  bool live(std::size_t i) const { return i < slots.size() && slots[i].index() != KDouble; }
  TavNumExprArg arg(std::size_t i) const {
    return std::visit([](auto& h) -> TavNumExprArg {
      if constexpr (isCounted<std::decay_t<decltype(h)>>()) return h;
      else throw std::logic_error("not a handle");
    }, slots[i]);
  }
  TavExpr& expr(int i) { return std::get<TavExpr>(slots[i]); }

  Val exec(const Node& n) {
    if (n.op == OLeaf) {
      switch (n.kind) {
        case KDouble: return Val(std::in_place_type<double>, n.num);
        case KLong: return Val(std::in_place_type<TavInt>, (TavInt)n.num);
        case KInt: return Val(std::in_place_type<int>, (int)n.num);
        case KNumVar: return Val(std::in_place_type<TavNumVar>, vars[n.index]);
        case KIntVar: return Val(std::in_place_type<TavIntVar>, vars[n.index].getImpl());
        case KBoolVar: return Val(std::in_place_type<TavBoolVar>, vars[n.index].getImpl());
        default: return slots[n.index];
      }
    }
    if (n.op == OTermTwice) {
      Val t = exec(n.kids[0]);
      return callRow<Add>(t, t);
    }
    if (n.op >= OElement) return special(n);
    if (n.op >= OMinArr && n.op != OCall) return aggregate(n);
    Val a = exec(n.kids[0]);
    Val b = n.kids.size() > 1 ? exec(n.kids[1]) : Val(0.0);
    return n.op == OCall ? Calls[n.fn].call(a, b) : Rows[n.op].call(a, b);
  }
  /// Ends a local array however its scope is left (a builder may throw).
  template <class Arr>
  struct Local {
    Arr a;
    ~Local() { a.end(); }
  };
  template <class Arr>
  Arr fill(const std::vector<Node>& kids, std::size_t from, std::size_t to) {
    Local<Arr> a{Arr(env)};
    for (std::size_t i = from; i < to; ++i) {
      Val v = exec(kids[i]);
      std::visit([&a](auto& x) {
        if constexpr (CanAdd<Arr, std::decay_t<decltype(x)>>::value) a.a.add(x);
        else throw std::logic_error("bad array element");
      }, v);
    }
    return std::exchange(a.a, Arr());
  }
  /// The handle A that the value converts to (an operand of a builder).
  template <class A>
  static A as(Val v) {
    return std::visit([](auto& x) -> A {
      if constexpr (std::is_convertible_v<decltype(x), A> && !std::is_arithmetic_v<std::decay_t<decltype(x)>>) return x;
      else throw std::logic_error("bad operand");
    }, v);
  }
  template <class Arr, class Number>
  Arr numbers(const std::vector<double>& v) {
    Local<Arr> a{Arr(env)};
    for (double d : v) a.a.add((Number)d);
    return std::exchange(a.a, Arr());
  }
  template <class Arr>
  Arr elements(const Node& n) {
    if constexpr (std::is_same_v<Arr, TavNumArray>) return numbers<Arr, double>(n.numbers);
    else if constexpr (std::is_same_v<Arr, TavIntArray>) return numbers<Arr, TavInt>(n.numbers);
    else return fill<Arr>(n.kids, 1, n.kids.size());
  }
  template <class Arr>
  Val elementOf(const Node& n) {
    Local<Arr> a{elements<Arr>(n)};
    const TavIntExprArg index = as<TavIntExprArg>(exec(n.kids[0]));
    return n.form ? Val(a.a[index]) : Val(TavElement(a.a, index));
  }
  template <class Arr>
  Val overInts(const Node& n) {
    Local<Arr> a{fill<Arr>(n.kids, 0, n.kids.size())};
    if (n.op == OCount) return TavCount(a.a, (TavInt)n.num);
    return n.form ? TavStandardDeviation(a.a, n.num, n.num2) : TavStandardDeviation(a.a);
  }
  template <class Node_, class Handle, class Number>
  Val conditional(const Node& n) {
    TavNumExprI* cond = n.form == 1 ? yes.getImpl() : n.form == 2 ? no.getImpl() : as<TavNumExprArg>(exec(n.kids[2])).getImpl();
    auto branch = [this](const Node& b) { return as<Handle>(exec(b)).getImpl(); };
    TavEnvI* e = ei();
    if (n.thenNumber && n.elseNumber) return Handle(new (e) Node_(e, cond, (Number)n.kids[0].num, (Number)n.kids[1].num));
    if (n.thenNumber) return Handle(new (e) Node_(e, cond, (Number)n.kids[0].num, branch(n.kids[1])));
    if (n.elseNumber) return Handle(new (e) Node_(e, cond, branch(n.kids[0]), (Number)n.kids[1].num));
    return Handle(new (e) Node_(e, cond, branch(n.kids[0]), branch(n.kids[1])));
  }
  Val special(const Node& n) {
    switch (n.op) {
      case OElement:
        switch (n.array) {
          case ANumExpr: return elementOf<TavNumExprArray>(n);
          case AIntExpr: return elementOf<TavIntExprArray>(n);
          case ANumVar: return elementOf<TavNumVarArray>(n);
          case AIntVar: return elementOf<TavIntVarArray>(n);
          case ANumValues: return elementOf<TavNumArray>(n);
          case AIntValues: return elementOf<TavIntArray>(n);
        }
        break;
      case OCount:
      case OStdDev: return n.array == AIntVar ? overInts<TavIntVarArray>(n) : overInts<TavIntExprArray>(n);
      case OPiecewise: {
        Local<TavNumArray> p{numbers<TavNumArray, double>(n.numbers)}, v{numbers<TavNumArray, double>(n.numbers2)};
        const TavNumExprArg x = as<TavNumExprArg>(exec(n.kids[0]));
        return n.form ? TavPiecewiseLinear(x, p.a, v.a, n.num, n.num2) : TavPiecewiseLinear(x, n.num, p.a, v.a, n.num2);
      }
      default:
        return n.kind == KIntArg ? conditional<TavConditionalIntExprI, TavIntExprArg, TavInt>(n)
                                 : conditional<TavConditionalNumExprI, TavNumExprArg, double>(n);
    }
    throw std::logic_error("bad special node");
  }
  template <class Arr>
  Val reduce(const Node& n) {
    Arr a = fill<Arr>(n.kids, 0, n.kids.size());
    Val r = n.op == OMinArr ? Val(TavMin(a)) : n.op == OMaxArr ? Val(TavMax(a)) : Val(TavSum(a));
    a.end();
    return r;
  }
  template <class Vars, class Numbers, class Number>
  Val scalVars(const Node& n) {
    Vars x = fill<Vars>(n.kids, 0, n.kids.size());
    Numbers c(env);
    for (double d : n.numbers) c.add((Number)d);
    Val r = n.numbersFirst ? Val(TavScalProd(c, x)) : Val(TavScalProd(x, c));
    x.end();
    c.end();
    return r;
  }
  template <class Arr>
  Val scalExprs(const Node& n) {
    const std::size_t half = n.kids.size() / 2;
    Arr a = fill<Arr>(n.kids, 0, half), b = fill<Arr>(n.kids, half, n.kids.size());
    Val r = TavScalProd(a, b);
    a.end();
    b.end();
    return r;
  }
  Val aggregate(const Node& n) {
    if (n.op == OScalProd) {
      switch (n.array) {
        case ANumExpr: return scalExprs<TavNumExprArray>(n);
        case AIntExpr: return scalExprs<TavIntExprArray>(n);
        case ANumVar:
          return n.intNumbers ? scalVars<TavNumVarArray, TavIntArray, TavInt>(n)
                              : scalVars<TavNumVarArray, TavNumArray, double>(n);
        case AIntVar:
          return n.intNumbers ? scalVars<TavIntVarArray, TavIntArray, TavInt>(n)
                              : scalVars<TavIntVarArray, TavNumArray, double>(n);
        default: break;
      }
    }
    switch (n.array) {
      case ANumExpr: return reduce<TavNumExprArray>(n);
      case AIntExpr: return reduce<TavIntExprArray>(n);
      case ANumVar: return reduce<TavNumVarArray>(n);
      case AIntVar: return reduce<TavIntVarArray>(n);
      default: break;
    }
    throw std::logic_error("bad aggregate");
  }

  /// A new counted handle H on x; a counted x gives a new reference, not a plain copy.
  template <class H, class X>
  static Val makeFrom(X& x) {
    using A = std::conditional_t<std::is_same_v<H, TavIntExpr>, TavIntExprArg, TavNumExprArg>;
    if constexpr (isCounted<X>() && std::is_convertible_v<X&, A>) return Val(std::in_place_type<H>, A(x));
    else if constexpr (!isCounted<X>() && std::is_constructible_v<H, X&> && !std::is_arithmetic_v<X>)
      return Val(std::in_place_type<H>, x);
    else throw std::logic_error("bad declaration");
  }
  template <class H>
  Val make(Val v) {
    return std::visit([](auto& x) { return makeFrom<H>(x); }, v);
  }
  Val declare(const Stmt& s) {
    if (s.rhs.op == OLeaf && s.rhs.kind <= KInt) {
      if (s.handle == KIntExpr) return Val(std::in_place_type<TavIntExpr>, env, (TavInt)s.rhs.num);
      if (s.handle == KNumExpr) return Val(std::in_place_type<TavNumExpr>, env, s.rhs.num);
      return Val(std::in_place_type<TavExpr>, env, s.rhs.num);
    }
    Val v = exec(s.rhs);
    if (s.handle == KIntExpr) return make<TavIntExpr>(v);
    return s.handle == KNumExpr ? make<TavNumExpr>(v) : make<TavExpr>(v);
  }

  /// The library side of a statement; sets threw / nothingMerged for the checks.
  void act(const Stmt& s, bool& threw, bool& nothingMerged) {
    switch (s.kind) {
      case SDecl: slots.push_back(declare(s)); return;
      case SCopy: slots.push_back(Val(std::in_place_type<TavExpr>, expr(s.rhs.index).copy())); return;
      case SCompound: {
        const bool self = s.rhs.op == OLeaf && s.rhs.kind >= KNumExpr && s.rhs.index == s.slot;
        Val x = self ? Val() : exec(s.rhs);
        Assigns[assignIndex(s.op)](slots[s.slot], self ? slots[s.slot] : x, true);
        return;
      }
      case SClear: expr(s.slot).clear(); return;
      case SSetConst:
        try {
          expr(s.slot).setNumConstant(s.coefs[0]);
        } catch (const TavNumExprNonLinearExpression&) {
          threw = true;
        }
        return;
      case SSetCoef: expr(s.slot).setLinearCoef(vars[s.vars[0]], s.coefs[0]); return;
      case SSetCoefs: expr(s.slot).setLinearCoefs(argVars, argCoefs); return;
      case SRemove: expr(s.slot).remove(argVars); return;
      case SNormalize: nothingMerged = expr(s.slot).normalize(); return;
      case SEnd:
        arg(s.slot).end();
        slots[s.slot] = 0.0;
        return;
      case STermTwice: {
        Val t = exec(s.rhs);
        std::visit([this, &s](auto& term) {
          if constexpr (std::is_same_v<decltype(term), TavNumLinExprTerm&> || std::is_same_v<decltype(term), TavIntLinExprTerm&>) {
            expr(s.slot) += term;
            bool refused = false;
            try {
              expr(s.slot) += term;
            } catch (const TavWrongUsage&) {
              refused = true;
            }
            if (!refused) throw std::runtime_error("a term handle was taken twice");
          }
        }, t);
        return;
      }
      case SEmptyAlg: return;
      case SVarBounds:
      case SArrayBounds:
      case SValues:
      case SThreshold:
      case SConvert:
      case SConvRemove:
      case SRemoveVar: variableStatement(s, threw); return;
      case SDeep: {
        TavNumExpr d = TavMin(vars[0], 1.0);
        for (int i = 0; i < 100000; ++i) {
          TavNumExpr next = TavMin(d, 1.0);
          d.end();
          d = next;
        }
        d.end();
        return;
      }
    }
  }

  /// The library side of a statement on variables or conversions; threw
  /// tells of a refused list of possible values.
  void variableStatement(const Stmt& s, bool& threw) {
    const int v = s.vars[0];
    TavNumVarI* impl = vars[v].getImpl();
    const bool integer = v >= p.numVars;
    switch (s.kind) {
      case SArrayBounds: {
        const std::size_t n = s.vars.size();
        Local<TavNumArray> lbs{numbers<TavNumArray, double>(std::vector<double>(s.coefs.begin(), s.coefs.begin() + (long)n))};
        Local<TavNumArray> ubs{numbers<TavNumArray, double>(std::vector<double>(s.coefs.begin() + (long)n, s.coefs.end()))};
        argVars.setBounds(lbs.a, ubs.a);
        return;
      }
      case SVarBounds:
        if (s.op == 'b') {
          if (integer) TavIntVar(impl).setBounds((TavInt)s.coefs[0], (TavInt)s.coefs[1]);
          else vars[v].setBounds(s.coefs[0], s.coefs[1]);
        } else if (integer) {
          if (s.op == 'l') TavIntVar(impl).setMin((TavInt)s.coefs[0]);
          else TavIntVar(impl).setMax((TavInt)s.coefs[0]);
        } else if (s.op == 'l') {
          vars[v].setLB(s.coefs[0]);
        } else {
          vars[v].setUB(s.coefs[0]);
        }
        return;
      case SValues:
        if (s.op == 'i') {
          Local<TavIntArray> a{numbers<TavIntArray, TavInt>(s.coefs)};
          if (integer) TavIntVar(impl).setPossibleValues(a.a);
          else impl->setPossibleValues(a.a);  // the handle takes numbers only
        } else {
          try {
            vars[v].setPossibleValues(argCoefs);
          } catch (const TavNotSupportedOperation&) {
            threw = true;
          }
        }
        return;
      case SThreshold: TavSemiContVar(static_cast<TavSemiContVarI*>(impl)).setSemiContinuousLb(s.coefs[0]); return;
      case SConvert:
        convs.push_back(s.vars.size() == 1 ? TavConversion(env, vars[v], (TavNumVar::Type)s.op)
                                           : TavConversion(env, argVars, (TavNumVar::Type)s.op));
        return;
      case SConvRemove: convs[(std::size_t)s.slot].removeVar(vars[v]); return;
      default:
        // Nothing but the handles may hold a node when a variable goes.
        sweep([](TavNumExprI*) { return true; });
        argVars.end();
        argVars = TavNumVarArray();
        ei()->setOneByOneRemoval(s.op == '1');
        ei()->setRemoveFromAllOnDestroy(true);
        vars[v].end();
        ei()->setOneByOneRemoval(false);
        ei()->setRemoveFromAllOnDestroy(p.removeFromAll);
        ++removed;
        return;
    }
  }

  /// The records of the last statement against the reference's.
  std::string records() {
    if (!listener) return "";
    std::vector<Record> want = m.records;
    auto id = [this](const Record& r) {
      return r.kind == RConvRemove ? convs[(std::size_t)r.slot].getImpl()->getId() : arg((std::size_t)r.slot).getImpl()->getId();
    };
    std::stable_sort(want.begin(), want.end(), [&id](const Record& a, const Record& b) { return a.byId && b.byId && id(a) < id(b); });
    const auto& got = listener->got;
    if (!listener->odd.empty()) return listener->odd;
    for (std::size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
      if (i >= got.size())
        return std::string("missing record ") + RecordNames[want[i].kind] + (want[i].var >= 0 ? " of " + p.varName(want[i].var) : "");
      const Record& g = got[i].first;
      if (i >= want.size()) return std::string("unexpected record ") + RecordNames[g.kind];
      const Record& w = want[i];
      const bool lin = w.kind <= RIntRemoveVar;
      Record cmp = g;
      cmp.slot = w.slot;
      cmp.byId = w.byId;
      if (!(cmp == w) || (lin && got[i].second != (const void*)arg((std::size_t)w.slot).getImpl()) ||
          (w.kind == RConvRemove && g.slot != w.slot))
        return std::string("record ") + std::to_string(i + 1) + " is " + RecordNames[g.kind] + " (" +
               (g.var >= 0 ? p.varName(g.var) : "?") + ", " + str(g.a) + ", " + str(g.b) + ", " + std::to_string(g.values.size()) +
               " values), expected " + RecordNames[w.kind] + " (" + p.varName(w.var) + ", " + str(w.a) + ", " + str(w.b) +
               ", " + std::to_string(w.values.size()) + " values" + (lin ? " on h" + std::to_string(w.slot) : "") + ")";
    }
    return "";
  }

  /// Bounds, thresholds and value lists of the variables, the variables of the conversions.
  std::string variables() {
    for (std::size_t v = 0; v < vars.size(); ++v) {
      const VarState& w = m.vars[v];
      if (w.removed) continue;
      const std::string name = p.varName((int)v);
      if (vars[v].getLB() != w.lb || vars[v].getUB() != w.ub)
        return name + " has bounds [" + str(vars[v].getLB()) + ", " + str(vars[v].getUB()) + "], expected [" + str(w.lb) +
               ", " + str(w.ub) + "]";
      if ((int)v < p.numVars && v % 2) {
        const double t = TavSemiContVar(static_cast<TavSemiContVarI*>(vars[v].getImpl())).getSemiContinuousLb();
        if (t != w.threshold) return name + " has threshold " + str(t) + ", expected " + str(w.threshold);
      }
      if (w.values.empty()) continue;
      std::vector<double> got;
      if (w.intValues) {
        Local<TavIntArray> out{TavIntArray(env)};
        TavIntVar(vars[v].getImpl()).getPossibleValues(out.a);
        got = Listener::contents(out.a);
      } else {
        Local<TavNumArray> out{TavNumArray(env)};
        vars[v].getPossibleValues(out.a);
        got = Listener::contents(out.a);
      }
      if (got != w.values) return name + " has " + std::to_string(got.size()) + " possible values, not the ones set";
    }
    for (std::size_t c = 0; c < convs.size(); ++c) {
      const TavNumVarArray a = convs[c].getImpl()->getVars();
      bool same = a.getSize() == (TavInt)m.conversions[c].size();
      for (TavInt i = 0; same && i < a.getSize(); ++i) same = a[i].getImpl() == vars[(std::size_t)m.conversions[c][(std::size_t)i]].getImpl();
      if (!same) return "conversion c" + std::to_string(c) + " holds " + std::to_string(a.getSize()) + " variables, not the expected ones";
    }
    return "";
  }

  /// Both texts of a handle's node, as operator<< writes them, against the
  /// reference printer.
  std::string display(std::size_t i) {
    if (!p.display || !live(i)) return "";
    for (bool library : {false, true}) {
      std::string want = m.display(*m.slots[i], library);
      if (want.empty()) return "";
      std::ostringstream os;
      ei()->setLibrarySyntaxDisplay(library);
      os << arg(i);
      ei()->setLibrarySyntaxDisplay(false);
      const std::string got = os.str();
      if (sameDisplay(got, want)) continue;
      std::replace(want.begin(), want.end(), ZeroMark, '0');
      std::size_t at = 0;
      while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
      return "h" + std::to_string(i) + " (" + arg(i).getImpl()->getRttiTypeName() + ") displays in the " +
             (library ? "library" : "plain") + " syntax \"" + got + "\", expected \"" + want + "\" (from character " +
             std::to_string(at) + " on)";
    }
    return "";
  }

  std::string step(const Stmt& s) {
    argVars.end();
    argCoefs.end();
    if (!s.vars.empty()) {  // arrays exist before any allocation is made to fail
      argVars = TavNumVarArray(env);
      for (int v : s.vars) argVars.add(vars[v]);
      argCoefs = TavNumArray(env);
      for (double c : s.coefs) argCoefs.add(c);
    }
    if (s.kind == SEmptyAlg) {
      const Ref& r = *m.slots[s.slot];
      try {
        const double v = TavAlgorithm().getValue(arg(s.slot));
        if (!r.throws && !close(v, m.value(r), r.mag)) return "empty algorithm gave " + str(v);
      } catch (const TavException&) {
      }
      return "";
    }
    // A statement may build temporaries before the operation that fails; no
    // handle holds them, so they are garbage for env.end(), swept here.
    if (s.failAfter) sweep([](TavNumExprI*) { return true; });
    const TavInt objects = ei()->getLiveObjectCount(), terms = ei()->getLiveTermCount();
    bool threw = false, nothingMerged = false;
    if (listener) listener->got.clear();
    if (s.failAfter) {
      std::vector<TavNumExprI*> before;
      std::vector<TavInt> counts;
      for (std::size_t i = 0; i < slots.size(); ++i) {
        before.push_back(live(i) ? arg(i).getImpl() : nullptr);
        counts.push_back(live(i) ? arg(i).getImpl()->getRefCount() : 0);
      }
      ei()->getMemory().failAfter(s.failAfter);
      bool failed = false;
      try {
        act(s, threw, nothingMerged);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      ei()->getMemory().failAfter(0);
      if (failed) {
        sweep([](TavNumExprI*) { return true; });
        if (ei()->getLiveObjectCount() != objects || ei()->getLiveTermCount() != terms)
          return "failed allocation changed the live counts: objects " + std::to_string(objects) + " -> " +
                 std::to_string(ei()->getLiveObjectCount()) + ", terms " + std::to_string(terms) + " -> " +
                 std::to_string(ei()->getLiveTermCount());
        for (std::size_t i = 0; i < before.size(); ++i) {
          if (live(i) && arg(i).getImpl() != before[i]) return "failed allocation moved handle h" + std::to_string(i);
          if (live(i) && arg(i).getImpl()->getRefCount() != counts[i])
            return "failed allocation left h" + std::to_string(i) + " with reference count " +
                   std::to_string(arg(i).getImpl()->getRefCount()) + " instead of " + std::to_string(counts[i]);
        }
        std::string err = check();
        if (!err.empty()) return "after a failed allocation: " + err;
        if (listener) listener->got.clear();  // records of the attempt that failed
        err = actCounted(s, threw, nothingMerged);
        if (!err.empty()) return err;
      }
    } else {
      const std::string err = actCounted(s, threw, nothingMerged);
      if (!err.empty()) return err;
    }
    if (s.kind == SDeep && ei()->getLiveObjectCount() != objects) return "deep chain left objects behind";
    if (s.kind == SSetConst) {
      const bool expect = !m.slots[s.slot]->parts.empty();
      if (threw != expect) return expect ? "setNumConstant accepted a non-linear expression" : "setNumConstant threw";
      if (threw) return "";
    }
    if (s.kind == SValues) {
      const bool expect = s.vars[0] >= p.numVars && s.op != 'i';
      if (threw != expect) return expect ? "a continuous list was accepted by an integer variable" : "setPossibleValues threw";
    }
    m.records.clear();
    const int merges = m.apply(s);
    std::string err = records();
    if (!err.empty()) return err;
    if (s.kind < SVarBounds && s.slot >= 0) err = display((std::size_t)s.slot);
    if (!err.empty()) return err;
    if (s.kind == SNormalize) return terms_(s.slot, merges, nothingMerged);
    return "";
  }

  static bool isSlot(const Node& n) { return n.op == OLeaf && n.kind >= KNumExpr; }
  /// act, and for a builder's new node over leaves, that it holds one
  /// reference on the node of each operand handle and that its own handle is
  /// its one holder.
  std::string actCounted(const Stmt& s, bool& threw, bool& nothingMerged) {
    bool call = s.kind == SDecl && s.rhs.op == OCall;
    for (const Node& k : s.rhs.kids) call = call && k.op == OLeaf;
    std::vector<TavInt> counts;
    if (call)
      for (const Node& k : s.rhs.kids) counts.push_back(isSlot(k) ? arg(k.index).getImpl()->getRefCount() : 0);
    act(s, threw, nothingMerged);
    if (!call) return "";
    const std::string name = Functions[s.rhs.fn].name;
    for (std::size_t i = 0; i < counts.size(); ++i) {
      const Node& k = s.rhs.kids[i];
      if (!isSlot(k)) continue;
      TavInt uses = 0;  // two handles may share one node
      for (const Node& other : s.rhs.kids) uses += isSlot(other) && arg(other.index).getImpl() == arg(k.index).getImpl();
      const TavInt now = arg(k.index).getImpl()->getRefCount();
      if (now != counts[i] + uses)
        return name + " took " + std::to_string(now - counts[i]) + " references on h" + std::to_string(k.index) +
               ", not " + std::to_string(uses);
    }
    const TavInt own = arg(slots.size() - 1).getImpl()->getRefCount();
    if (own != 1) return "the node of " + name + " has reference count " + std::to_string(own) + " with one handle on it";
    return "";
  }

  int varIndex(const TavNumVar& v) const {
    for (std::size_t i = 0; i < vars.size(); ++i)
      if (vars[i].getImpl() == v.getImpl()) return (int)i;
    return -1;
  }
  std::string terms_(int i, int merges, bool nothingMerged) {
    const Ref& r = *m.slots[i];
    if (r.unknown) return "";
    const std::string h = "h" + std::to_string(i);
    if (nothingMerged != (merges == 0)) return h + ".normalize() returned " + (nothingMerged ? "true" : "false");
    std::ostringstream got, want;
    bool same = true;
    std::size_t n = 0;
    for (TavExpr::LinearIterator it = expr(i).getLinearIterator(); it.ok(); ++it, ++n) {
      got << " " << it.getCoef() << "*" << p.varName(varIndex(it.getVar()));
      same = same && n < r.cells.size() && varIndex(it.getVar()) == r.cells[n].var &&
             close(it.getCoef(), r.cells[n].coef, r.mag);
    }
    for (const Cell& c : r.cells) want << " " << c.coef << "*" << p.varName(c.var);
    if (!same || n != r.cells.size()) return h + " terms after normalize:" + got.str() + " ; expected:" + want.str();
    if (expr(i).isConstant() != (r.cells.empty() && r.parts.empty())) return h + ".isConstant() is wrong";
    if (r.parts.empty() && !close(expr(i).getNumConstant(), r.cst, r.mag))
      return h + ".getNumConstant() is " + str(expr(i).getNumConstant()) + ", expected " + str(r.cst);
    return "";
  }

  std::string check() {
    for (std::size_t i = 0; i < slots.size(); ++i) {
      if (!live(i)) continue;
      const std::string h = "h" + std::to_string(i);
      const TavNumExprArg e = arg(i);
      const Ref& r = *m.slots[i];
      double got = 0;
      bool threw = false;
      try {
        got = sol.getValue(e);
      } catch (const TavException&) {
        threw = true;
      }
      if (threw != r.throws) return h + (threw ? " threw on evaluation" : " evaluated without the expected throw");
      const double want = m.value(r);
      if (!threw && r.exact() && !same(got, want)) return h + " is " + str(got) + ", expected exactly " + str(want);
      if (!threw && !close(got, want, r.mag)) return h + " is " + str(got) + ", expected " + str(want);
      // Integrality is a property of the node, not of its value: a power with
      // a negative exponent claims it over a fraction.
      const bool isInteger = e.getImpl()->isInteger();
      if (m.kinds[i] == KIntExpr && !isInteger) return h + " is an integer handle on a non-integer node";
      const Tri predicted = m.integral(r);
      if (predicted != Maybe && isInteger != (predicted == Yes))
        return h + ".isInteger() is " + (isInteger ? "true" : "false") + " on a " + e.getImpl()->getRttiTypeName();
      TavInt holders = 0;
      for (std::size_t j = 0; j < slots.size(); ++j) holders += live(j) && arg(j).getImpl() == e.getImpl();
      if (e.getImpl()->getRefCount() < holders)
        return h + " has reference count " + std::to_string(e.getImpl()->getRefCount()) + " with " +
               std::to_string(holders) + " handles on it";
    }
    return "";
  }

  /// Ends the nodes that nothing holds (count 0) and that pass the filter.
  template <class Filter>
  void sweep(Filter pick) {
    std::vector<TavNumExprI*> unheld;
    for (TavInt id = 0; id < ei()->getIdCapacity(); ++id) {
      TavExtractableI* o = ei()->getObject(id);
      if (o && o->isRefCountedExpr() && static_cast<TavNumExprI*>(o)->getRefCount() <= 0 &&
          pick(static_cast<TavNumExprI*>(o)))
        unheld.push_back(static_cast<TavNumExprI*>(o));
    }
    for (TavNumExprI* n : unheld) n->end();
  }

  std::string go() {
    const TavInt baseline = ei()->getLiveObjectCount();
    if (baseline != (TavInt)vars.size() + 2) return "the variables and constraints alone are " + std::to_string(baseline) + " objects";
    for (std::size_t k = 0; k < p.stmts.size(); ++k) {
      if ((int)k == p.listenAt) listener.reset(new Listener(ei(), vars, convs));
      std::string err = step(p.stmts[k]);
      if (err.empty()) err = check();
      if (err.empty()) err = variables();
      if (!err.empty()) return "after statement " + std::to_string(k + 1) + ": " + err;
    }
    for (std::size_t i = 0; i < slots.size(); ++i) {
      if (!live(i) || m.kinds[i] != KExpr) continue;
      Stmt s;
      s.kind = SNormalize;
      s.slot = (int)i;
      const std::string err = step(s);
      if (!err.empty()) return "at the end: " + err;
    }
    for (std::size_t i = 0; i < slots.size(); ++i) {  // variables may have changed since a node was checked
      if (m.kinds[i] == KExpr) continue;                // checked as they were normalized
      const std::string err = display(i);
      if (!err.empty()) return "at the end: " + err;
    }
    for (std::size_t i = 0; i < slots.size(); ++i)
      if (live(i)) arg(i).end(), slots[i] = 0.0;
    for (TavConversion& c : convs) c.end();
    // An integer temporary converted to a numeric one is left as it is, for
    // env.end(): those are the only nodes that may stay behind.
    sweep([](TavNumExprI* n) { return n->isType(TavIntLinTermI::GetTypeInfo()); });
    if (ei()->getLiveObjectCount() != baseline - removed || ei()->getLiveTermCount() != 0)
      return "after ending every handle: " + std::to_string(ei()->getLiveObjectCount() - baseline + removed) + " nodes and " +
             std::to_string(ei()->getLiveTermCount()) + " term cells remain";
    return "";
  }
};

}  // namespace

Kind resultKind(Op op, Kind a, Kind b) {
  if (op < ONeg || op > OMax || a >= KNone) return KNone;
  return Rows[op].kind(a, b == KNone ? KDouble : b);
}

Kind callKind(int fn, Kind a, Kind b) {
  if (fn < 0 || fn >= FunctionCount || a >= KNone) return KNone;
  return Calls[fn].kind(a, b == KNone ? KDouble : b);
}

bool assignable(Kind h, char op, Kind x) {
  if (h >= KNone || x >= KNone) return false;
  return Assigns[assignIndex(op)](proto(h), proto(x), false);
}

std::string run(const Program& p) {
  Runner r(p);
  std::string err;
  try {
    err = r.go();
  } catch (const std::exception& e) {
    err = std::string("unexpected exception: ") + e.what();
  }
  r.listener.reset();
  r.env.end();
  return err;
}

}  // namespace tavfuzz
