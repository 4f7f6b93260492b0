// The arithmetic operators. Sums follow one table over the operand kinds
// (cell, numeric linear, integer linear, other node); products and quotients
// by numbers fold into linear nodes and constant-factor nodes.
#include "operators.h"

#include <vector>

#include "arithmetic.h"
#include "checks.h"
#include "functions.h"

using tav_detail::need;
using tav_detail::sameEnv;

namespace {

enum class Kind { Cell, NumLin, IntLin, Other };

Kind kindOf(TavNumExprI* e) {
  if (e->isType(TavNumVarI::GetTypeInfo())) return Kind::Cell;
  if (e->isType(TavNumLinTermI::GetTypeInfo())) return Kind::NumLin;
  if (e->isType(TavIntLinTermI::GetTypeInfo())) return Kind::IntLin;
  return Kind::Other;
}

/// Ends a temporary (uncounted) node that an operator consumed.
void dropIfTemporary(TavNumExprI* e) {
  if (e->getRefCount() <= 0) e->end();
}

/// One side of a sum: a node, or a term cell (a variable becomes a cell).
struct Operand {
  TavNumExprI* node;
  TavNumLinExprTermI* cell;
  Kind kind;
  TavEnvI* env() const { return node ? node->getEnv() : TavVarEnv(cell->_var); }
};

Operand nodeOperand(TavNumExprI* e) { return Operand{need(e), nullptr, kindOf(e)}; }
Operand cellOperand(TavNumLinExprTermI* c) { return Operand{nullptr, TavTakeCell(c), Kind::Cell}; }

TavNumExprArg numTimes(TavNumExprI* e, double d);
TavIntExprArg intTimes(TavIntExprI* e, TavInt k);

// What differs between the numeric and the integer sums.
struct NumSide {
  typedef TavNumLinTermI Lin;
  typedef double Constant;
  /// The node of a linear operand that the sum may change: the node itself
  /// when unshared, else a copy; an integer node is converted and left as it
  /// is (a handle may still read it).
  static Lin* priv(TavNumExprI* e, Kind k) {
    if (k == Kind::IntLin) return static_cast<TavIntLinTermI*>(e)->toNumLinTermI();
    return static_cast<Lin*>(e->getRefCount() <= 0 ? e : e->copy());
  }
  static bool isLin(Kind k) { return k == Kind::NumLin || k == Kind::IntLin; }
  static TavNumExprI* negated(TavNumExprI* e) { return numTimes(e, -1.0).getImpl(); }
};

struct IntSide {
  typedef TavIntLinTermI Lin;
  typedef TavInt Constant;
  static Lin* priv(TavNumExprI* e, Kind) {
    return static_cast<Lin*>(e->getRefCount() <= 0 ? e : static_cast<TavIntExprI*>(e)->intCopy());
  }
  static bool isLin(Kind k) { return k == Kind::IntLin; }
  static TavNumExprI* negated(TavNumExprI* e) { return intTimes(static_cast<TavIntExprI*>(e), -1).getImpl(); }
};

/// The cell of an operand: its own, or a fresh one for a variable.
TavNumLinExprTermI* cellOf(const Operand& o, double coef) {
  return o.cell ? o.cell : o.env()->newTerm(static_cast<TavNumVarI*>(o.node), coef);
}

/// Gives back what a failed sum made; what it was given stays as it was.
template <class Lin>
struct Made {
  TavEnvI* env;
  TavNumLinExprTermI* cells[2] = {nullptr, nullptr};
  TavNumLinPartI* parts[2] = {nullptr, nullptr};
  Lin* nodes[2] = {nullptr, nullptr};
  void undo() {
    for (TavNumLinExprTermI* c : cells)
      if (c) env->recycleTerm(c);
    for (TavNumLinPartI* p : parts) env->free(p);
    for (Lin* n : nodes)
      if (n) n->end();  // a copy or a new node: nothing else holds it
  }
};

/// The linear node a sum may change for a linear operand: the operand itself
/// when it is a temporary, else a copy (recorded as made).
template <class Side>
typename Side::Lin* linearSide(const Operand& o, Made<typename Side::Lin>& made, int slot) {
  typename Side::Lin* lin = Side::priv(o.node, o.kind);
  if (lin != o.node) made.nodes[slot] = lin;
  return lin;
}

/// a + b, or a - b when negate is set. Everything that can fail (cells,
/// copies, part cells, and last the negation of the right side) is made
/// first; then the pieces are linked, which cannot fail. A failure leaves
/// both operands as they were.
template <class Side>
typename Side::Lin* sum(Operand a, Operand b, bool negate) {
  typedef typename Side::Lin Lin;
  TavEnvI* env = a.env();
  const bool linA = Side::isLin(a.kind), linB = Side::isLin(b.kind);
  const double signB = negate ? -1.0 : 1.0;
  Made<Lin> made{env};
  TavNumLinExprTermI* ca = a.cell;
  TavNumLinExprTermI* cb = b.cell;
  Lin* base = nullptr;
  Lin* other = nullptr;
  TavNumExprI* partB = b.node;
  // A node that is only linked, never changed, is held from the start: making
  // the other side (a negation releases parts) must not end it under us.
  TavNumExprI* held[2] = {a.kind == Kind::Other ? a.node : nullptr, b.kind == Kind::Other ? b.node : nullptr};
  for (TavNumExprI* h : held)
    if (h) h->lockRef();
  try {
    if (a.kind == Kind::Cell && !ca) ca = made.cells[0] = cellOf(a, 1.0);
    if (b.kind == Kind::Cell && (!cb || cb == ca)) {
      // A variable gets a cell; one term handle on both sides counts twice,
      // so the right side gets a cell of its own.
      cb = made.cells[1] = cb ? env->newTerm(cb->_var, signB * cb->_coef) : cellOf(b, signB);
    }
    if (linA) base = linearSide<Side>(a, made, 0);
    else if (linB) base = linearSide<Side>(b, made, 1);
    else base = made.nodes[0] = new (env) Lin(env, 0);
    if (linA && linB) other = linearSide<Side>(b, made, 1);
    if (a.kind == Kind::Other) made.parts[0] = base->newPart();
    if (b.kind == Kind::Other) made.parts[1] = base->newPart();
    if (negate) {
      if (linB) (linA ? other : base)->multiply((typename Side::Constant)-1);
      else if (b.kind == Kind::Other) partB = Side::negated(b.node);  // may consume a temporary b
    }
  } catch (...) {
    for (TavNumExprI* h : held)
      if (h) h->unlockRef();
    made.undo();
    throw;
  }
  if (negate && cb == b.cell && cb) cb->_coef = -cb->_coef;
  if (linA) {
    if (cb) base->append(cb);
    else if (linB) base->appendNode(other);
    else base->linkPart(made.parts[1], partB);
  } else if (linB) {
    if (ca) base->prepend(ca);
    else base->linkPart(made.parts[0], a.node);
  } else {
    if (ca) base->append(ca);
    else base->linkPart(made.parts[0], a.node);
    if (cb) base->append(cb);
    else base->linkPart(made.parts[1], partB);
  }
  // Let go; a temporary b that its negation replaced is consumed.
  for (TavNumExprI* h : held)
    if (h) {
      h->unlockRef();
      if (h->getRefCount() <= 0) h->end();
    }
  return base;
}

template <class Side>
typename Side::Lin* sumConstant(Operand e, typename Side::Constant d) {
  typedef typename Side::Lin Lin;
  TavEnvI* env = e.env();
  if (Side::isLin(e.kind)) {
    Lin* lin = Side::priv(e.node, e.kind);
    lin->setConstant(lin->getConstant() + d);
    return lin;
  }
  Made<Lin> made{env};
  Lin* lin;
  try {
    if (e.kind == Kind::Cell && !e.cell) made.cells[0] = cellOf(e, 1.0);
    lin = made.nodes[0] = new (env) Lin(env, d);
    if (e.kind == Kind::Other) made.parts[0] = lin->newPart();
  } catch (...) {
    made.undo();
    throw;
  }
  if (e.kind == Kind::Cell) lin->append(e.cell ? e.cell : made.cells[0]);
  else lin->linkPart(made.parts[0], e.node);
  return lin;
}

/// Runs a binary operation whose two operands may be one temporary node.
/// The node is held meanwhile, so that neither side is changed in place or
/// ended under the other; afterwards it is consumed once, as a temporary
/// operand always is (ended unless the result kept it).
template <class Op>
TavNumExprI* aliasSafe(TavNumExprI* a, TavNumExprI* b, Op op) {
  if (a != b || a == nullptr || !a->isRefCountedExpr()) return op();
  a->lockRef();
  TavNumExprI* r;
  try {
    r = op();
  } catch (...) {
    a->unlockRef();
    throw;
  }
  a->unlockRef();
  if (a->getRefCount() <= 0 && a != r) a->end();
  return r;
}

const char* const PlusMessages[] = {
    "TavNumExprArg operator + const TavNumExprArg const TavNumExprArg: mixing mismatch Environments",
    "TavNumExprArg operator + const TavNumExprArg const TavNumLinExprTerm: mixing mismatch Environments",
    "TavNumExprArg operator + const TavNumExprArg const TavIntLinExprTerm: mixing mismatch Environments",
    "TavNumExprArg operator + const TavNumLinExprTerm const TavNumExprArg: mixing mismatch Environments",
    "TavNumExprArg operator + const TavIntLinExprTerm const TavNumExprArg: mixing mismatch Environments",
    "TavNumExprArg operator + const TavNumLinExprTerm const TavNumLinExprTerm: mixing mismatch Environments",
    "TavNumExprArg operator + const TavIntLinExprTerm const TavNumLinExprTerm: mixing mismatch Environments",
    "TavNumExprArg operator + const TavNumLinExprTerm const TavIntLinExprTerm: mixing mismatch Environments",
    "TavIntExprArg operator + const TavIntExprArg const TavIntExprArg: mixing mismatch Environments",
    "TavIntExprArg operator + const TavIntExprArg const TavIntLinExprTerm: mixing mismatch Environments",
    "TavIntExprArg operator + const TavIntLinExprTerm const TavIntExprArg: mixing mismatch Environments",
    "TavIntExprArg operator + const TavIntLinExprTerm const TavIntLinExprTerm: mixing mismatch Environments",
};

template <class Side>
TavNumExprI* checkedSum(Operand a, Operand b, int message, bool negate = false) {
  sameEnv(a.env(), b.env(), PlusMessages[message]);
  return aliasSafe(a.node, b.node, [&] { return sum<Side>(a, b, negate); });
}

/// A result node in the handle kind of its operator.
template <class R>
R argOf(TavNumExprI* e);
template <>
TavNumExprArg argOf(TavNumExprI* e) {
  return TavNumExprArg(e);
}
template <>
TavIntExprArg argOf(TavNumExprI* e) {
  return TavIntExprArg(static_cast<TavIntExprI*>(e));
}

// Operand views of the handle kinds.
Operand op(const TavNumExprArg& e) { return nodeOperand(e.getImpl()); }
Operand op(TavNumLinExprTerm t) { return cellOperand(t.getImpl()); }
Operand op(TavIntLinExprTerm t) { return cellOperand(t.getImpl()); }

}  // namespace

// ------------------------------------------------------------------ terms

// Terms (variable times number) are inline in the header.

// Negating a term changes its cell, so only a cell that no expression holds.
TavNumLinExprTerm operator-(TavNumLinExprTerm t) {
  TavTakeCell(t.getImpl())->_coef = -t.getImpl()->_coef;
  return t;
}
TavIntLinExprTerm operator-(TavIntLinExprTerm t) {
  TavTakeCell(t.getImpl())->_coef = -t.getImpl()->_coef;
  return t;
}
TavNumLinExprTerm operator-(const TavNumVar& x) { return x * -1.0; }
TavIntLinExprTerm operator-(const TavIntVar& x) { return x * (TavInt)-1; }
TavNumExprArg operator-(const TavNumExprArg& e) { return e * -1.0; }
TavIntExprArg operator-(const TavIntExprArg& e) { return e * (TavInt)-1; }

// ------------------------------------------------------------------ sums

// a + b by the table; a - b is a + (-b) and reports the sum's message.
#define TAV_SUM(Side, R, A, B, MSG)                                                   \
  R operator+(A a, B b) { return argOf<R>(checkedSum<Side>(op(a), op(b), MSG)); }     \
  R operator-(A a, B b) { return argOf<R>(checkedSum<Side>(op(a), op(b), MSG, true)); }
TAV_SUM(NumSide, TavNumExprArg, const TavNumExprArg&, const TavNumExprArg&, 0)
TAV_SUM(NumSide, TavNumExprArg, TavNumLinExprTerm, TavNumLinExprTerm, 5)
TAV_SUM(NumSide, TavNumExprArg, TavIntLinExprTerm, TavNumLinExprTerm, 6)
TAV_SUM(NumSide, TavNumExprArg, TavNumLinExprTerm, TavIntLinExprTerm, 7)
TAV_SUM(IntSide, TavIntExprArg, const TavIntExprArg&, const TavIntExprArg&, 8)
TAV_SUM(IntSide, TavIntExprArg, TavIntLinExprTerm, TavIntLinExprTerm, 11)
#undef TAV_SUM

// Rows 1, 2 and 9 (a node and a term handle) and 3, 4 and 10 (a term handle
// and a node): the header links the cell in place when it can, else comes here.
TavNumExprI* tav_detail::sumNodeCell(int row, TavNumExprI* node, TavNumLinExprTermI* cell, bool negate) {
  if (row < 8) return checkedSum<NumSide>(nodeOperand(node), cellOperand(cell), row, negate);
  return checkedSum<IntSide>(nodeOperand(node), cellOperand(cell), row, negate);
}
TavNumExprI* tav_detail::sumCellNode(int row, TavNumLinExprTermI* cell, TavNumExprI* node) {
  if (row < 8) return checkedSum<NumSide>(cellOperand(cell), nodeOperand(node), row);
  return checkedSum<IntSide>(cellOperand(cell), nodeOperand(node), row);
}
#define TAV_DIFFERENCE(Side, R, A, B, MSG) \
  R operator-(A a, B b) { return argOf<R>(checkedSum<Side>(op(a), op(b), MSG, true)); }
TAV_DIFFERENCE(NumSide, TavNumExprArg, TavNumLinExprTerm, const TavNumExprArg&, 3)
TAV_DIFFERENCE(NumSide, TavNumExprArg, TavIntLinExprTerm, const TavNumExprArg&, 4)
TAV_DIFFERENCE(IntSide, TavIntExprArg, TavIntLinExprTerm, const TavIntExprArg&, 10)
#undef TAV_DIFFERENCE

// Sums with a number: e + d, d + e, e - d = e + (-d), d - e = d + (-e).
#define TAV_SUM_NUMBER(Side, R, A, N, CONST)                                       \
  R operator+(A e, N d) { return R(sumConstant<Side>(op(e), (CONST)d)); }          \
  R operator+(N d, A e) { return e + d; }                                          \
  R operator-(A e, N d) { return e + (-(CONST)d); }                                \
  R operator-(N d, A e) { return (CONST)d + (-e); }
TAV_SUM_NUMBER(NumSide, TavNumExprArg, const TavNumExprArg&, double, double)
TAV_SUM_NUMBER(NumSide, TavNumExprArg, TavNumLinExprTerm, double, double)
TAV_SUM_NUMBER(IntSide, TavIntExprArg, const TavIntExprArg&, TavInt, TavInt)
TAV_SUM_NUMBER(IntSide, TavIntExprArg, const TavIntExprArg&, int, TavInt)
TAV_SUM_NUMBER(IntSide, TavIntExprArg, TavIntLinExprTerm, TavInt, TavInt)
TAV_SUM_NUMBER(IntSide, TavIntExprArg, TavIntLinExprTerm, int, TavInt)
#undef TAV_SUM_NUMBER

// Integer operands with a fractional number are numeric sums.
TavNumExprArg operator+(TavIntLinExprTerm t, double d) { return t.toNum() + d; }
TavNumExprArg operator+(double d, TavIntLinExprTerm t) { return t.toNum() + d; }
TavNumExprArg operator-(TavIntLinExprTerm t, double d) { return t.toNum() + (-d); }
TavNumExprArg operator-(double d, TavIntLinExprTerm t) { return d + (-t.toNum()); }
TavNumExprArg operator+(const TavIntExprArg& e, double d) { return TavNumExprArg(e) + d; }
TavNumExprArg operator+(double d, const TavIntExprArg& e) { return TavNumExprArg(e) + d; }
TavNumExprArg operator-(const TavIntExprArg& e, double d) { return TavNumExprArg(e) + (-d); }
TavNumExprArg operator-(double d, const TavIntExprArg& e) { return d + (-TavNumExprArg(e)); }

// ------------------------------------------------------------------ products

namespace {

/// A new linear node holding one new cell (var, coef).
template <class Lin>
Lin* oneTerm(TavNumExprI* var, double coef) {
  TavEnvI* env = var->getEnv();
  Lin* lin = new (env) Lin(env, 0);
  try {
    lin->append(env->newTerm(static_cast<TavNumVarI*>(var), coef));
  } catch (...) {
    lin->end();
    throw;
  }
  return lin;
}

/// A linear operand scaled in place when it is a temporary, else on a copy
/// that goes again if the scaling fails.
template <class Side, class Scale>
typename Side::Lin* scaled(TavNumExprI* e, Scale scale) {
  typename Side::Lin* lin = Side::priv(e, kindOf(e));
  try {
    scale(lin);
  } catch (...) {
    if (lin != e) lin->end();
    throw;
  }
  return lin;
}

TavNumExprArg numTimes(TavNumExprI* e, double d) {
  TavEnvI* env = e->getEnv();
  switch (kindOf(e)) {
    case Kind::Cell:
      return TavNumExprArg(oneTerm<TavNumLinTermI>(e, d));
    case Kind::NumLin:
    case Kind::IntLin:
      return TavNumExprArg(scaled<NumSide>(e, [d](TavNumLinTermI* lin) { lin->multiply(d); }));
    case Kind::Other:
      break;
  }
  // Constant factors fold: (x * c) * d is x * (c * d).
  TavNumExprI* inner = nullptr;
  double factor = 0.0;
  if (e->getTypeInfo() == TavNumTimesCstI::GetTypeInfo()) {
    inner = static_cast<TavNumTimesCstI*>(e)->getExpr();
    factor = static_cast<TavNumTimesCstI*>(e)->getConstant() * d;
  } else if (e->getTypeInfo() == TavIntTimesCstI::GetTypeInfo()) {
    inner = static_cast<TavIntTimesCstI*>(e)->getExpr();
    factor = (double)static_cast<TavIntTimesCstI*>(e)->getConstant() * d;
  }
  if (inner) {
    TavNumExprArg folded = numTimes(inner, factor);
    dropIfTemporary(e);
    return folded;
  }
  return TavNumExprArg(new (env) TavNumTimesCstI(env, e, d));
}

TavIntExprArg intTimes(TavIntExprI* e, TavInt k) {
  TavEnvI* env = e->getEnv();
  switch (kindOf(e)) {
    case Kind::Cell:
      return TavIntExprArg(oneTerm<TavIntLinTermI>(e, (double)k));
    case Kind::IntLin:
      return TavIntExprArg(scaled<IntSide>(e, [k](TavIntLinTermI* lin) { lin->multiply(k); }));
    default:
      break;
  }
  if (e->getTypeInfo() == TavIntTimesCstI::GetTypeInfo()) {
    TavIntTimesCstI* t = static_cast<TavIntTimesCstI*>(static_cast<TavNumExprI*>(e));
    // Wrapping 64-bit product of the two factors.
    TavInt factor = (TavInt)((unsigned long)t->getConstant() * (unsigned long)k);
    TavIntExprArg folded = intTimes(static_cast<TavIntExprI*>(t->getExpr()), factor);
    dropIfTemporary(e);
    return folded;
  }
  return TavIntExprArg(new (env) TavIntTimesCstI(env, e, k));
}

/// The constant of a linear node with no terms and no parts, if e is one.
bool constantOf(TavNumExprI* e, double& c) {
  Kind k = kindOf(e);
  if (k == Kind::NumLin && static_cast<TavNumLinTermI*>(e)->isConstantNode()) {
    c = static_cast<TavNumLinTermI*>(e)->getConstant();
    return true;
  }
  if (k == Kind::IntLin && static_cast<TavIntLinTermI*>(e)->isConstantNode()) {
    c = (double)static_cast<TavIntLinTermI*>(e)->getConstant();
    return true;
  }
  return false;
}

}  // namespace

TavNumExprArg operator*(const TavNumExprArg& e, double d) { return numTimes(need(e.getImpl()), d); }
TavNumExprArg operator*(double d, const TavNumExprArg& e) { return e * d; }
TavNumExprArg operator*(const TavIntExprArg& e, double d) { return numTimes(need(e.getImpl()), d); }
TavNumExprArg operator*(double d, const TavIntExprArg& e) { return e * d; }
TavIntExprArg operator*(const TavIntExprArg& e, TavInt k) {
  need(e.getImpl());
  return intTimes(e.getImpl(), k);
}
TavIntExprArg operator*(TavInt k, const TavIntExprArg& e) { return e * k; }
TavIntExprArg operator*(const TavIntExprArg& e, int k) { return e * (TavInt)k; }
TavIntExprArg operator*(int k, const TavIntExprArg& e) { return e * (TavInt)k; }

TavNumExprArg operator*(const TavNumExprArg& a, const TavNumExprArg& b) {
  TavNumExprI* x = need(a.getImpl());
  TavNumExprI* y = need(b.getImpl());
  TavEnvI* env = x->getEnv();
  sameEnv(env, y->getEnv(), "TavNumExprArg operator * const TavNumExprArg const TavNumExprArg: mixing mismatch Environments");
  return TavNumExprArg(aliasSafe(x, y, [&]() -> TavNumExprI* {
    double c;
    if (constantOf(x, c)) {
      TavNumExprArg r = numTimes(y, c);
      dropIfTemporary(x);
      return r.getImpl();
    }
    if (constantOf(y, c)) {
      TavNumExprArg r = numTimes(x, c);
      dropIfTemporary(y);
      return r.getImpl();
    }
    return new (env) TavNumTimesI(env, x, y);
  }));
}

TavIntExprArg operator*(const TavIntExprArg& a, const TavIntExprArg& b) {
  TavIntExprI* x = static_cast<TavIntExprI*>(need(a.getImpl()));
  TavIntExprI* y = static_cast<TavIntExprI*>(need(b.getImpl()));
  TavEnvI* env = x->getEnv();
  sameEnv(env, y->getEnv(), "TavIntExprArg operator * const TavIntExprArg const TavIntExprArg: mixing mismatch Environments");
  return TavIntExprArg(new (env) TavIntTimesI(env, x, y));
}

// ------------------------------------------------------------------ quotients

TavNumExprArg operator/(const TavNumExprArg& e, double d) {
  TavNumExprI* x = need(e.getImpl());
  TavEnvI* env = x->getEnv();
  switch (kindOf(x)) {
    case Kind::Cell:
      return TavNumExprArg(oneTerm<TavNumLinTermI>(x, 1.0 / d));
    case Kind::NumLin:
    case Kind::IntLin:
      return TavNumExprArg(scaled<NumSide>(x, [d](TavNumLinTermI* lin) { lin->divide(d); }));
    default:
      return TavNumExprArg(new (env) TavNumDivCstI(env, x, d));
  }
}

TavNumExprArg operator/(double d, const TavNumExprArg& e) {
  TavNumExprI* x = need(e.getImpl());
  return TavNumExprArg(new (x->getEnv()) TavNumRecDivCstI(x->getEnv(), x, d));
}

TavNumExprArg operator/(const TavNumExprArg& a, const TavNumExprArg& b) {
  TavNumExprI* x = need(a.getImpl());
  TavNumExprI* y = need(b.getImpl());
  TavEnvI* env = x->getEnv();
  sameEnv(env, y->getEnv(), "TavNumExprArg operator / const TavNumExprArg const TavNumExprArg: mixing mismatch Environments");
  return TavNumExprArg(new (env) TavNumDivI(env, x, y));
}

// ------------------------------------------------------------------ remainders

TavIntExprArg operator%(const TavIntExprArg& a, const TavIntExprArg& b) {
  TavIntExprI* x = static_cast<TavIntExprI*>(need(a.getImpl()));
  TavIntExprI* y = static_cast<TavIntExprI*>(need(b.getImpl()));
  TavEnvI* env = x->getEnv();
  sameEnv(env, y->getEnv(), "TavIntExprArg operator % const TavIntExprArg const TavIntExprArg: mixing mismatch Environments");
  return TavIntExprArg(new (env) TavIntModuloI(env, x, y));
}

TavIntExprArg operator%(const TavIntExprArg& e, TavInt k) {
  TavIntExprI* x = static_cast<TavIntExprI*>(need(e.getImpl()));
  return TavIntExprArg(new (x->getEnv()) TavIntModuloCstI(x->getEnv(), x, k));
}

TavIntExprArg operator%(TavInt k, const TavIntExprArg& e) {
  TavIntExprI* x = static_cast<TavIntExprI*>(need(e.getImpl()));
  return TavIntExprArg(new (x->getEnv()) TavIntRecModuloCstI(x->getEnv(), x, k));
}

TavIntExprArg operator%(const TavIntExprArg& e, int k) { return e % (TavInt)k; }
TavIntExprArg operator%(int k, const TavIntExprArg& e) { return (TavInt)k % e; }

// ------------------------------------------------------------------ scaling linear nodes

namespace {
// Replaces every part p of a linear node by the node built from p. Every new
// part is built before the first one is swapped in, so a failure leaves the
// node as it was.
template <class Build>
void rebuildParts(TavNumLinPartI* first, TavEnvI* env, Build build) {
  if (first == nullptr) return;
  std::vector<TavNumExprI*> made;
  try {
    for (TavNumLinPartI* p = first; p; p = p->_next) {
      if (made.size() == made.capacity()) made.reserve(2 * made.size() + 8);  // room first: a node must be recorded
      TavNumExprI* m = build(p->_expr);
      m->lockRef();
      made.push_back(m);
    }
  } catch (...) {
    for (TavNumExprI* m : made) env->release(m);
    throw;
  }
  std::size_t i = 0;
  for (TavNumLinPartI* p = first; p; p = p->_next) {
    TavNumExprI* old = p->_expr;
    p->_expr = made[i++];
    env->release(old);
  }
}
}  // namespace

void TavNumLinTermI::multiply(double d) {
  rebuildParts(_firstPart, getEnv(), [d](TavNumExprI* p) { return (TavNumExprArg(p) * d).getImpl(); });
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) t->_coef *= d;
  _constant *= d;
}

void TavNumLinTermI::divide(double d) {
  rebuildParts(_firstPart, getEnv(), [d](TavNumExprI* p) { return (TavNumExprArg(p) / d).getImpl(); });
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) t->_coef /= d;
  _constant /= d;
}

void TavIntLinTermI::multiply(TavInt k) {
  rebuildParts(_firstPart, getEnv(), [k](TavNumExprI* p) {
    return (TavIntExprArg(static_cast<TavIntExprI*>(p)) * k).getImpl();
  });
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) t->_coef *= (double)k;
  _constant *= k;
}
