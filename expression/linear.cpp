// Expression bases, linear nodes, their change records and number text.
#include "linear.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "element.h"
#include "stack.h"
#include "variables.h"

// ------------------------------------------------------------------ bases

TAV_DEFINE_NODE_STATICS(TavNumExprI)
TAV_DEFINE_NODE_STATICS(TavIntExprI)
TAV_DEFINE_NODE_STATICS(TavNumLinTermI)
TAV_DEFINE_NODE_STATICS(TavIntLinTermI)
TAV_DEFINE_CHANGE_STATICS(TavNumLinTermAddVar)
TAV_DEFINE_CHANGE_STATICS(TavNumLinTermRemoveVar)
TAV_DEFINE_CHANGE_STATICS(TavIntLinTermRemoveVar)

void TavNumExprI::end() {
  if (--_refCount > 0) return;
  TavEnvI* env = getEnv();
  if (TavDeletionInterceptor* i = env->getDeletionInterceptor()) i->takeNode(this);
  else if (env->isRemoveFromAllOnDestroy()) env->removeFromAllAndDestroy(this, 0);
  else env->destroy(this, 0);
}

void TavNumExprI::release() {
  if (!getEnv()->isEnding()) end();
}

namespace {
/// A new linear node of kind Lin holding e as its only part.
template <class Lin, class E>
Lin* wrapAsPart(E* e) {
  Lin* lin = new (e->getEnv()) Lin(e->getEnv(), 0);
  try {
    lin->append(e);
  } catch (...) {
    delete lin;
    throw;
  }
  return lin;
}
}  // namespace

TavNumLinTermI* TavNumExprI::toNumLinTermI() { return wrapAsPart<TavNumLinTermI>(this); }

TavNumExprI* TavIntExprI::copy() { return intCopy(); }

TavIntLinTermI* TavIntExprI::toIntLinTermI() { return wrapAsPart<TavIntLinTermI>(this); }

// ------------------------------------------------------------------ shared linear body

namespace {
// Writes a variable inside a sum: its name and a blank, else its display.
void displayVar(std::ostream& os, const TavNumVarI* v) {
  if (v->getName()) os << v->getName() << " ";
  else v->display(os);
}

TavNumVarI* asVar(TavExtractableI* e) {
  return e && e->isType(TavNumVarI::GetTypeInfo()) ? static_cast<TavNumVarI*>(e) : nullptr;
}
}  // namespace

void TavThrowUsedTerm() {
  throw TavWrongUsage("TavNumLinExprTerm: the term is already part of an expression; build a new one", 0);
}

template <class Self, class Base, class Constant>
TavLinNode<Self, Base, Constant>::TavLinNode(TavNumLinExprTermI* cell)
    : TavNode<Self, Base>(TavVarEnv(TavTakeCell(cell)->_var), nullptr), _first(cell), _last(cell), _constant(0) {
  this->_linKind = Self::OwnLinKind;
  cell->_next = nullptr;
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::prepend(TavNumLinExprTermI* cell) {
  if (_last == nullptr) {
    cell->_next = nullptr;
    _first = _last = cell;
  } else {
    cell->_next = _first;
    _first = cell;
  }
  self()->termsChanged();
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::linkPart(TavNumLinPartI* part, TavNumExprI* e) {
  part->_expr = e;
  part->_next = nullptr;
  e->lockRef();
  if (_lastPart) _lastPart->_next = part;
  else _firstPart = part;
  _lastPart = part;
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::appendNode(Self* other) {
  if (other->_first) {
    if (_last) _last->_next = other->_first;
    else _first = other->_first;
    _last = other->_last;
    self()->termsChanged();
  }
  if (other->_firstPart) {
    if (_lastPart) _lastPart->_next = other->_firstPart;
    else _firstPart = other->_firstPart;
    _lastPart = other->_lastPart;
  }
  _constant += other->_constant;
  other->_first = other->_last = nullptr;
  other->_firstPart = other->_lastPart = nullptr;
  other->_constant = 0;
  other->end();
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::dropAll() {
  TavEnvI* env = this->getEnv();
  TavNumLinPartI* part = _firstPart;
  _firstPart = _lastPart = nullptr;
  while (part) {
    TavNumLinPartI* next = part->_next;
    env->release(part->_expr);
    env->free(part);
    part = next;
  }
  TavNumLinExprTermI* t = _first;
  _first = _last = nullptr;
  while (t) {
    TavNumLinExprTermI* next = t->_next;
    env->recycleTerm(t);
    t = next;
  }
  _constant = 0;
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::remove(TavNumVarI* v) {
  TavNumLinExprTermI* prev = nullptr;
  for (TavNumLinExprTermI* t = _first; t; prev = t, t = t->_next) {
    if (t->_var != v) continue;
    if (prev) prev->_next = t->_next;
    else _first = t->_next;
    if (_last == t) _last = prev;
    this->getEnv()->recycleTerm(t);
    return;
  }
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::dropPart(TavNumLinPartI* prev, TavNumLinPartI* part) {
  if (prev) prev->_next = part->_next;
  else _firstPart = part->_next;
  TavEnvI* env = this->getEnv();
  TavNumExprI* e = part->_expr;
  env->free(part);
  env->release(e);
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::remove(TavExtractableArray objects) {
  if (_first == nullptr && _firstPart == nullptr) return;
  TavEnvI* env = this->getEnv();
  const TavInt n = objects.getSize();
  // Mark the objects removed in the identifier table for the sweep.
  // Identifiers, not objects: a dropped part may be destroyed by the sweep.
  std::vector<TavInt> marked;
  marked.reserve((std::size_t)n);
  for (TavInt i = 0; i < n; ++i) {
    TavExtractableI* o = objects.getObject(i);
    if (o == nullptr || env->isRemoved(o)) continue;
    marked.push_back(o->getId());
    env->setIdTableEntry(o->getId(), -1);
  }
  // At most n removals; the tail pointers are cleared, not moved back, when
  // the tail goes (the kept behaviour of removal by array).
  sweepRemoved(n, true);
  for (TavInt id : marked) env->setIdTableEntry(id, id);
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::removeMarked() {
  sweepRemoved(std::numeric_limits<TavInt>::max(), false);
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::sweepRemoved(TavInt left, bool clearTails) {
  TavEnvI* env = this->getEnv();
  TavNumLinPartI* pprev = nullptr;
  for (TavNumLinPartI* p = _firstPart; p && left > 0;) {
    TavNumLinPartI* next = p->_next;
    if (env->isRemoved(p->_expr)) {
      if (p == _lastPart) _lastPart = clearTails ? nullptr : pprev;
      dropPart(pprev, p);
      --left;
    } else {
      pprev = p;
    }
    p = next;
  }
  TavNumLinExprTermI* tprev = nullptr;
  for (TavNumLinExprTermI* t = _first; t && left > 0;) {
    TavNumLinExprTermI* next = t->_next;
    if (env->isRemoved(t->_var)) {
      if (tprev) tprev->_next = next;
      else _first = next;
      if (t == _last) _last = clearTails ? nullptr : tprev;
      env->recycleTerm(t);
      --left;
    } else {
      tprev = t;
    }
    t = next;
  }
}

template <class Self, class Base, class Constant>
double TavLinNode<Self, Base, Constant>::eval(TavAlgorithm alg) const {
  double sum = 0.0;
  if (_firstPart)
    sum = TavDeepCall([&] {
      double parts = 0.0;
      for (TavNumLinPartI* p = _firstPart; p; p = p->_next) parts += p->_expr->eval(alg);
      return parts;
    });
  if (alg.getImpl() && alg.getImpl()->addTermValues(_first, sum)) return (double)_constant + sum;
  // Every variable class evaluates as TavNumVarI does: call it directly.
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) sum += t->_coef * t->_var->TavNumVarI::eval(alg);
  return (double)_constant + sum;
}

template <class Self, class Base, class Constant>
bool TavLinNode<Self, Base, Constant>::displayTerm(std::ostream& os, TavNumLinExprTermI* t) const {
  if (t->_coef == 0.0) return false;
  if (t->_coef != 1.0) os << t->_coef << " * ";
  displayVar(os, t->_var);
  return true;
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::display(std::ostream& os) const {
  if (this->getEnv()->isLibrarySyntaxDisplay()) {
    os << "( ";
    bool any = false;
    for (TavNumLinExprTermI* t = _first; t; t = t->_next) {
      if (any) os << " + ";
      any = true;
      if (t->_coef == 0.0) {
        os << "0 ";
        continue;
      }
      if (t->_coef != 1.0) os << t->_coef << " * ";
      displayVar(os, t->_var);
    }
    bool hadTerms = any;
    if (_firstPart)
      TavDeepCall([&] {
        for (TavNumLinPartI* p = _firstPart; p; p = p->_next) {
          if (p != _firstPart || hadTerms) os << " + ";
          p->_expr->display(os);
          any = true;
        }
      });
    if (_constant != 0) {
      if (any) os << " + ";
      os << _constant << " ";
    }
    os << ") ";
    return;
  }
  // Plain form: a " + " goes before a term only when the previous one wrote
  // something, so zero terms leave no trace but the separator before them.
  bool wrote = false;
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) {
    if (wrote) os << " + ";
    wrote = self()->displayTerm(os, t);
  }
  if (_firstPart) {
    if (wrote) os << " + ";
    TavDeepCall([&] {
      for (TavNumLinPartI* p = _firstPart; p; p = p->_next) {
        if (p != _firstPart) os << " + ";
        p->_expr->display(os);
      }
    });
    wrote = true;
  }
  if (_constant == 0) {
    if (!wrote) os << _constant << " ";
  } else {
    if (wrote) os << " + ";
    os << _constant << " ";
  }
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  for (TavNumLinPartI* p = _firstPart; p; p = p->_next) visitor->visitChild(this, p->_expr);
  for (TavNumLinExprTermI* t = _first; t; t = t->_next)
    if (t->_coef != 0.0) visitor->visitChild(this, t->_var);
  visitor->endVisit(this);
}

template <class Self, class Base, class Constant>
void TavLinNode<Self, Base, Constant>::atRemove(TavExtractableI* removed, void*) {
  TavNumVarI* var = asVar(removed);
  if (var && this->getEnv()->isOneByOneRemoval()) {
    remove(var);
    TavNotify<typename Self::RemoveRecord>(this, self(), var);
  } else {
    removeMarked();
  }
}

template <class Self, class Base, class Constant>
template <class Target>
Target* TavLinNode<Self, Base, Constant>::copyInto(Target* target) const {
  TavEnvI* env = target->getEnv();
  try {
    for (TavNumLinPartI* p = _firstPart; p; p = p->_next) target->appendPart(p->_expr);
    for (TavNumLinExprTermI* t = _first; t; t = t->_next) target->append(env->newTerm(t->_var, t->_coef));
  } catch (...) {
    delete target;
    throw;
  }
  return target;
}

template <class Self, class Base, class Constant>
TavExtractableI* TavLinNode<Self, Base, Constant>::makeClone(TavEnvI* env) const {
  Self* clone = new (env) Self(env, _constant);
  try {
    for (TavNumLinPartI* p = _firstPart; p; p = p->_next)
      clone->appendPart(static_cast<TavNumExprI*>(env->getClone(p->_expr)));
    for (TavNumLinExprTermI* t = _first; t; t = t->_next) {
      // The visit skips zero terms, so their variables may have no clone:
      // such a term adds nothing and is left out of the clone.
      TavNumVarI* var = static_cast<TavNumVarI*>(env->getClone(t->_var));
      if (var == nullptr && t->_coef == 0.0) continue;
      clone->append(env->newTerm(var, t->_coef));
    }
  } catch (...) {
    delete clone;
    throw;
  }
  return clone;
}

template class TavLinNode<TavNumLinTermI, TavNumExprI, double>;
template class TavLinNode<TavIntLinTermI, TavIntExprI, TavInt>;

void TavVisitRecordVar(TavExtractableI* extractable, TavNumVarI* var, TavChangeVisitor* visitor) {
  visitor->visitChild(extractable, var);
}

// ------------------------------------------------------------------ numeric linear node

TavNumLinTermI::TavNumLinTermI(TavNumLinExprTerm t) : TavLinNode(t.getImpl()) {}
TavNumLinTermI::TavNumLinTermI(TavIntLinExprTerm t) : TavLinNode(t.getImpl()) {}

TavNumExprI* TavNumLinTermI::copy() { return copyInto(new (getEnv()) TavNumLinTermI(getEnv(), _constant)); }

bool TavNumLinTermI::isInteger() const {
  const bool partsInteger = TavDeepCall([&] {
    for (TavNumLinPartI* p = _firstPart; p; p = p->_next)
      if (!p->_expr->isInteger()) return false;
    return true;
  });
  if (!partsInteger) return false;
  for (TavNumLinExprTermI* t = _first; t; t = t->_next)
    if (!t->_var->isInteger() || !TavNumIsInteger(t->_coef)) return false;
  return TavNumIsInteger(_constant);
}


namespace {
// Per-variable scratch slots for one operation: the environment's mark array
// when it offers one, else each variable's own mark field under markLock.
class MarkScope {
 public:
  explicit MarkScope(TavEnvI* env) : _env(env), _lock(nullptr), _marks(nullptr) {
    if (env->areMarkArraysAvailable()) {
      _marks = env->getMarkArray();
    } else if ((_lock = env->getMarkLock()) != nullptr) {
      _lock->lock();
    }
  }
  ~MarkScope() {
    if (_marks) _env->releaseMarkArray(_marks);
    else if (_lock) _lock->unlock();
  }
  MarkScope(const MarkScope&) = delete;
  MarkScope& operator=(const MarkScope&) = delete;
  TavNumLinExprTermI*& slot(TavNumVarI* v) {
    return _marks ? reinterpret_cast<TavNumLinExprTermI*&>(_marks[v->getId()]) : v->_mark;
  }

 private:
  TavEnvI* _env;
  TavMutex* _lock;
  void** _marks;
};
}  // namespace

TavInt TavNumLinTermI::normalize() {
  TavEnvI* env = getEnv();
  if (_normalized || env->isNormalizationSkipped()) return 0;
  MarkScope marks(env);
  // The representative of a variable is its last term.
  for (TavNumLinExprTermI* t = _first; t; t = t->_next) marks.slot(t->_var) = t;
  TavInt merged = 0;
  TavNumLinExprTermI** link = &_first;
  TavNumLinExprTermI* last = nullptr;
  while (TavNumLinExprTermI* t = *link) {
    TavNumLinExprTermI*& rep = marks.slot(t->_var);
    if (rep != t) {
      rep->_coef += t->_coef;
      *link = t->_next;
      env->recycleTerm(t);
      ++merged;
    } else if (t->_coef == 0.0) {
      *link = t->_next;
      env->recycleTerm(t);
    } else {
      last = t;
      link = &t->_next;
    }
  }
  _last = last;
  _normalized = 1;
  return merged;
}

double TavNumLinTermI::setCoef(TavNumVar var, double c) {
  TavNumVarI* v = var.getImpl();
  TavEnvI* env = getEnv();
  // The cell an absent variable needs is made before anything changes.
  TavNumLinExprTermI* cell = c != 0.0 ? env->newTerm(v, c) : nullptr;
  try {
    normalize();
  } catch (...) {
    if (cell) env->recycleTerm(cell);
    throw;
  }
  TavNumLinExprTermI* prev = nullptr;
  for (TavNumLinExprTermI* t = _first; t; prev = t, t = t->_next) {
    if (t->_var != v) continue;
    if (cell) env->recycleTerm(cell);
    double old = t->_coef;
    if (c == 0.0) {
      if (prev) prev->_next = t->_next;
      else _first = t->_next;
      if (_last == t) _last = prev;
      getEnv()->recycleTerm(t);
    } else {
      t->_coef = c;
    }
    if (old == 0.0) return 0.0;
    TavNotify<TavNumLinTermRemoveVar>(this, this, v);
    return old;
  }
  if (cell) {
    append(cell);
    _normalized = 1;
    TavNotify<TavNumLinTermAddVar>(this, this, v);
  }
  _normalized = 1;
  return 0.0;
}

bool TavNumLinTermI::isLinear() const {
  // An element node is a parameter unless its index is a decision
  // expression; every other kind of part makes the node non-linear.
  for (const TavNumLinPartI* p = _firstPart; p; p = p->_next) {
    const TavIntExprI* index = tav_detail::elementIndexOf(p->_expr);
    if (index == nullptr || index->isDecisionExpr()) return false;
  }
  return true;
}

// ------------------------------------------------------------------ integer linear node

TavIntLinTermI::TavIntLinTermI(TavIntLinExprTerm t) : TavLinNode(t.getImpl()) {}

void TavIntLinTermI::append(TavIntExprI* e) { appendPart(e); }

TavIntExprI* TavIntLinTermI::intCopy() { return copyInto(new (getEnv()) TavIntLinTermI(getEnv(), _constant)); }

TavNumLinTermI* TavIntLinTermI::toNumLinTermI() {
  return copyInto(new (getEnv()) TavNumLinTermI(getEnv(), (double)_constant));
}

// ------------------------------------------------------------------ numbers

bool TavNumIsInteger(double x) { return std::isfinite(x) && std::floor(x) == x; }

void TavTestIsLinear(TavNumExprI* e) {
  if (e == nullptr) throw TavEmptyHandleException();
  if (e->isType(TavNumLinTermI::GetTypeInfo())) {
    if (!static_cast<TavNumLinTermI*>(e)->hasParts()) return;
  } else if (e->isType(TavIntLinTermI::GetTypeInfo())) {
    if (!static_cast<TavIntLinTermI*>(e)->hasParts()) return;
  }
  throw TavNumExprNonLinearExpression(e);
}

TavNumExprNonLinearExpression::TavNumExprNonLinearExpression(TavNumExprI* node)
    : TavException("Constant part cannot be set or queried", 0), _node(node) {}

void TavNumExprNonLinearExpression::print(std::ostream& os) const {
  os << "Expression ";
  if (_node) _node->display(os);
  os << " is non linear, setting or querying the constant part is forbidden";
}

namespace {
// Length of s without its trailing zeros (and the point when nothing follows it).
std::size_t stripZeros(const char* s, std::size_t n) {
  const char* dot = static_cast<const char*>(std::memchr(s, '.', n));
  if (dot == nullptr) return n;
  while (n > 0 && s[n - 1] == '0') --n;
  if (n > 0 && s[n - 1] == '.') --n;
  return n;
}
}  // namespace

int convertTavNum(char* out, double x, int precision, int* status) {
  int p = precision;
  if (precision > 14 || precision == -1) p = 14;
  else if (precision <= 0) p = 1;
  *status = 0;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%22.*e", p, x);
  std::size_t len = std::strlen(buf);
  std::size_t e = len;
  while (e > 0 && buf[e - 1] != 'e') --e;
  if (e <= 1) {  // no exponent, or nothing before it: inf and nan
    out[0] = '?';
    out[1] = '\0';
    *status = -1;
    return 1;
  }
  --e;  // index of the 'e'
  int exponent = std::atoi(buf + e + 1);
  std::size_t m = 0;
  while (m < e && !(buf[m] >= '0' && buf[m] <= '9')) ++m;
  // Mantissa digits: lead digit, then p fraction digits after the point.
  const char lead = buf[m];
  const char* frac = buf + m + 2;
  const std::size_t fracLen = e - (m + 2);
  std::string text;
  if (exponent > p || exponent < -6) {
    std::string mant(buf + m, e - m);
    mant.resize(stripZeros(mant.data(), mant.size()));
    char tail[32];
    std::snprintf(tail, sizeof tail, "%s%c%c%d", mant.c_str(), 'e', exponent < 0 ? '-' : '+',
                  exponent < 0 ? -exponent : exponent);
    text = tail;
  } else if (exponent == 0) {
    std::string mant(buf + m, e - m);
    mant.resize(stripZeros(mant.data(), mant.size()));
    text = mant;
  } else if (exponent < 0) {
    text = "0.";
    text.append((std::size_t)(-exponent - 1), '0');
    text.push_back(lead);
    std::string f(frac, fracLen);
    while (!f.empty() && f.back() == '0') f.pop_back();
    text += f;
  } else {
    text.push_back(lead);
    text.append(frac, (std::size_t)exponent);
    if (exponent < p) {
      std::string rest(frac + exponent, fracLen - (std::size_t)exponent);
      while (!rest.empty() && rest.back() == '0') rest.pop_back();
      if (!rest.empty()) text += "." + rest;
    }
  }
  std::memcpy(out, text.c_str(), text.size() + 1);
  return (int)text.size();
}
