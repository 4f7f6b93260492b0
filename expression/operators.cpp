// The arithmetic operators. Sums follow one table over the operand kinds
// (cell, numeric linear, integer linear, other node); products and quotients
// by numbers fold into linear nodes and constant-factor nodes.
#include "operators.h"

#include "arithmetic.h"
#include "functions.h"

namespace {

enum class Kind { Cell, NumLin, IntLin, Other };

Kind kindOf(TavNumExprI* e) {
  if (e->isType(TavNumVarI::GetTypeInfo())) return Kind::Cell;
  if (e->isType(TavNumLinTermI::GetTypeInfo())) return Kind::NumLin;
  if (e->isType(TavIntLinTermI::GetTypeInfo())) return Kind::IntLin;
  return Kind::Other;
}

TavNumExprI* need(TavNumExprI* e) {
  if (e == nullptr) throw TavEmptyHandleException();
  return e;
}

TavNumLinExprTermI* need(TavNumLinExprTermI* c) {
  if (c == nullptr) throw TavEmptyHandleException();
  return c;
}

void sameEnv(TavEnvI* a, TavEnvI* b, const char* message) {
  if (a != b) throw TavWrongUsage(message, 0);
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
Operand cellOperand(TavNumLinExprTermI* c) { return Operand{nullptr, need(c), Kind::Cell}; }

// What differs between the numeric and the integer sums.
struct NumSide {
  typedef TavNumLinTermI Lin;
  typedef double Constant;
  /// The node of a linear operand that the sum may change: the node itself
  /// when unshared, else a copy; an integer node is converted.
  static Lin* priv(TavNumExprI* e, Kind k) {
    if (k == Kind::IntLin) {
      Lin* made = static_cast<TavIntLinTermI*>(e)->toNumLinTermI();
      dropIfTemporary(e);
      return made;
    }
    return static_cast<Lin*>(e->getRefCount() <= 0 ? e : e->copy());
  }
  static bool isLin(Kind k) { return k == Kind::NumLin || k == Kind::IntLin; }
  static void addPart(Lin* lin, TavNumExprI* e) { lin->append(e); }
};

struct IntSide {
  typedef TavIntLinTermI Lin;
  typedef TavInt Constant;
  static Lin* priv(TavNumExprI* e, Kind) {
    return static_cast<Lin*>(e->getRefCount() <= 0 ? e : static_cast<TavIntExprI*>(e)->intCopy());
  }
  static bool isLin(Kind k) { return k == Kind::IntLin; }
  static void addPart(Lin* lin, TavNumExprI* e) { lin->append(static_cast<TavIntExprI*>(e)); }
};

/// The cell of an operand: its own, or a fresh one for a variable.
TavNumLinExprTermI* cellOf(const Operand& o) {
  return o.cell ? o.cell : o.env()->newTerm(static_cast<TavNumVarI*>(o.node), 1.0);
}

/// Frees an operand's cell when the sum fails: a term handle's cell is the
/// operator's once given, so it goes too, made or not.
void dropCell(const Operand& o, TavNumLinExprTermI* c) {
  if (TavNumLinExprTermI* cell = c ? c : o.cell) o.env()->recycleTerm(cell);
}

template <class Side>
typename Side::Lin* sum(Operand a, Operand b) {
  typedef typename Side::Lin Lin;
  TavEnvI* env = a.env();
  const bool linA = Side::isLin(a.kind), linB = Side::isLin(b.kind);
  // e + e: the right side must not be the node that the left side changes.
  if (linA && linB && a.node == b.node) b.node = b.node->copy();
  TavNumLinExprTermI* ca = nullptr;
  TavNumLinExprTermI* cb = nullptr;
  Lin* lin = nullptr;
  try {
    ca = a.kind == Kind::Cell ? cellOf(a) : nullptr;
    cb = b.kind == Kind::Cell ? cellOf(b) : nullptr;
    if (linA) {
      lin = Side::priv(a.node, a.kind);
    } else if (linB) {
      lin = Side::priv(b.node, b.kind);
    } else {
      lin = new (env) Lin(env, 0);
    }
  } catch (...) {
    dropCell(a, ca);
    dropCell(b, cb);
    throw;
  }
  // Nothing below allocates but a part cell and a copy of a shared right side.
  try {
    if (linA) {
      if (cb) lin->append(cb);
      else if (linB) lin->appendNode(Side::priv(b.node, b.kind));
      else Side::addPart(lin, b.node);
    } else if (linB) {
      if (ca) lin->prepend(ca);
      else Side::addPart(lin, a.node);
    } else {
      if (ca) lin->append(ca);
      else Side::addPart(lin, a.node);
      if (cb) lin->append(cb);
      else Side::addPart(lin, b.node);
    }
  } catch (...) {
    if (!linA && !linB) delete lin;
    throw;
  }
  return lin;
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
  TavNumLinExprTermI* c = nullptr;
  Lin* lin;
  try {
    c = e.kind == Kind::Cell ? cellOf(e) : nullptr;
    lin = new (env) Lin(env, d);
  } catch (...) {
    dropCell(e, c);
    throw;
  }
  try {
    if (c) lin->append(c);
    else Side::addPart(lin, e.node);
  } catch (...) {
    delete lin;
    throw;
  }
  return lin;
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
typename Side::Lin* checkedSum(Operand a, Operand b, int message) {
  sameEnv(a.env(), b.env(), PlusMessages[message]);
  return sum<Side>(a, b);
}

TavNumExprArg numTimes(TavNumExprI* e, double d);
TavIntExprArg intTimes(TavIntExprI* e, TavInt k);

// Operand views of the handle kinds.
Operand op(const TavNumExprArg& e) { return nodeOperand(e.getImpl()); }
Operand op(TavNumLinExprTerm t) { return cellOperand(t.getImpl()); }
Operand op(TavIntLinExprTerm t) { return cellOperand(t.getImpl()); }

}  // namespace

// ------------------------------------------------------------------ terms

// Terms (variable times number) are inline in the header.

TavNumLinExprTerm operator-(TavNumLinExprTerm t) {
  need(t.getImpl())->_coef = -t.getImpl()->_coef;
  return t;
}
TavIntLinExprTerm operator-(TavIntLinExprTerm t) {
  need(t.getImpl())->_coef = -t.getImpl()->_coef;
  return t;
}
TavNumLinExprTerm operator-(const TavNumVar& x) { return x * -1.0; }
TavIntLinExprTerm operator-(const TavIntVar& x) { return x * (TavInt)-1; }
TavNumExprArg operator-(const TavNumExprArg& e) { return e * -1.0; }
TavIntExprArg operator-(const TavIntExprArg& e) { return e * (TavInt)-1; }

// ------------------------------------------------------------------ sums

// a + b by the table; a - b is a + (-b) and reports the sum's message.
#define TAV_SUM(Side, R, A, B, MSG)                                                          \
  R operator+(A a, B b) { return R(checkedSum<Side>(op(a), op(b), MSG)); }                  \
  R operator-(A a, B b) {                                                                    \
    sameEnv(op(a).env(), op(b).env(), PlusMessages[MSG]);                                    \
    return a + (-b);                                                                         \
  }
TAV_SUM(NumSide, TavNumExprArg, const TavNumExprArg&, const TavNumExprArg&, 0)
TAV_SUM(NumSide, TavNumExprArg, const TavNumExprArg&, TavNumLinExprTerm, 1)
TAV_SUM(NumSide, TavNumExprArg, const TavNumExprArg&, TavIntLinExprTerm, 2)
TAV_SUM(NumSide, TavNumExprArg, TavNumLinExprTerm, const TavNumExprArg&, 3)
TAV_SUM(NumSide, TavNumExprArg, TavIntLinExprTerm, const TavNumExprArg&, 4)
TAV_SUM(NumSide, TavNumExprArg, TavNumLinExprTerm, TavNumLinExprTerm, 5)
TAV_SUM(NumSide, TavNumExprArg, TavIntLinExprTerm, TavNumLinExprTerm, 6)
TAV_SUM(NumSide, TavNumExprArg, TavNumLinExprTerm, TavIntLinExprTerm, 7)
TAV_SUM(IntSide, TavIntExprArg, const TavIntExprArg&, const TavIntExprArg&, 8)
TAV_SUM(IntSide, TavIntExprArg, const TavIntExprArg&, TavIntLinExprTerm, 9)
TAV_SUM(IntSide, TavIntExprArg, TavIntLinExprTerm, const TavIntExprArg&, 10)
TAV_SUM(IntSide, TavIntExprArg, TavIntLinExprTerm, TavIntLinExprTerm, 11)
#undef TAV_SUM

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

TavNumExprArg numTimes(TavNumExprI* e, double d) {
  TavEnvI* env = e->getEnv();
  switch (kindOf(e)) {
    case Kind::Cell: {
      TavNumLinExprTermI* c = env->newTerm(static_cast<TavNumVarI*>(e), d);
      return TavNumExprArg(new (env) TavNumLinTermI(TavNumLinExprTerm(c)));
    }
    case Kind::NumLin:
    case Kind::IntLin: {
      TavNumLinTermI* lin = NumSide::priv(e, kindOf(e));
      lin->multiply(d);
      return TavNumExprArg(lin);
    }
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
    case Kind::Cell: {
      TavNumLinExprTermI* c = env->newTerm(static_cast<TavNumVarI*>(static_cast<TavNumExprI*>(e)), (double)k);
      return TavIntExprArg(new (env) TavIntLinTermI(TavIntLinExprTerm(c)));
    }
    case Kind::IntLin: {
      TavIntLinTermI* lin = IntSide::priv(e, Kind::IntLin);
      lin->multiply(k);
      return TavIntExprArg(lin);
    }
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
  double c;
  if (constantOf(x, c)) {
    TavNumExprArg r = numTimes(y, c);
    // c * c: the product may be x itself, changed in place.
    if (x != y) dropIfTemporary(x);
    return r;
  }
  if (constantOf(y, c)) {
    TavNumExprArg r = numTimes(x, c);
    dropIfTemporary(y);
    return r;
  }
  return TavNumExprArg(new (env) TavNumTimesI(env, x, y));
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
    case Kind::Cell: {
      TavNumLinExprTermI* c = env->newTerm(static_cast<TavNumVarI*>(x), 1.0 / d);
      return TavNumExprArg(new (env) TavNumLinTermI(TavNumLinExprTerm(c)));
    }
    case Kind::NumLin:
    case Kind::IntLin: {
      TavNumLinTermI* lin = NumSide::priv(x, kindOf(x));
      lin->divide(d);
      return TavNumExprArg(lin);
    }
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
