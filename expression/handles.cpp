// Expression handles: counting, compound assignment, the in-place editing of
// TavExpr with copy on write, and term handles.
#include "arrays.h"
#include "operators.h"

namespace {
TavNumExprI* need(TavNumExprI* e) {
  if (e == nullptr) throw TavEmptyHandleException();
  return e;
}

bool isVar(TavNumExprI* e) { return e->isType(TavNumVarI::GetTypeInfo()); }
bool isNumLin(TavNumExprI* e) { return e->isType(TavNumLinTermI::GetTypeInfo()); }
bool isIntLin(TavNumExprI* e) { return e->isType(TavIntLinTermI::GetTypeInfo()); }

/// The numeric form of an integer linear node; a temporary source is ended.
TavNumLinTermI* numFromInt(TavNumExprI* e) {
  TavNumLinTermI* lin = static_cast<TavIntLinTermI*>(e)->toNumLinTermI();
  if (e->getRefCount() <= 0) e->end();
  return lin;
}
}  // namespace

// ------------------------------------------------------------------ TavNumExprArg

TavEnv TavNumExprArg::getEnv() const { return TavEnv(need(_impl)->getEnv()); }

void TavNumExprArg::end() {
  if (_impl) _impl->end();
  _impl = nullptr;
}

bool TavNumExprArg::isConstant() const {
  TavNumExprI* e = need(_impl);
  if (isNumLin(e)) return static_cast<TavNumLinTermI*>(e)->isConstantNode();
  if (isIntLin(e)) return static_cast<TavIntLinTermI*>(e)->isConstantNode();
  return false;
}

bool TavNumExprArg::isIndex() const {
  need(_impl);
  return false;  // no index node kinds exist in this library yet
}

double TavNumExprArg::getNumConstant() const {
  TavTestIsLinear(_impl);
  return _impl->getNumConstant();
}

TavIntExprArg::TavIntExprArg(TavIntExprI* impl) : TavNumExprArg(impl) {}
TavIntExprI* TavIntExprArg::getImpl() const { return static_cast<TavIntExprI*>(_impl); }

std::ostream& operator<<(std::ostream& os, const TavNumExprArg& e) {
  if (e.getImpl()) e.getImpl()->display(os);
  return os;
}

// ------------------------------------------------------------------ TavNumExpr

TavNumExpr::TavNumExpr(const TavNumExprArg& arg) : TavNumExprArg(arg.getImpl()) {
  if (_impl) _impl->lockRef();
}

TavNumExpr::TavNumExpr(TavEnv env, double c) : TavNumExprArg(new (env.getImpl()) TavNumLinTermI(env.getImpl(), c)) {
  _impl->lockRef();
}

TavNumExpr::TavNumExpr(TavNumLinExprTerm t) : TavNumExprArg(new (need(t.getImpl()->_var)->getEnv()) TavNumLinTermI(t)) {
  _impl->lockRef();
}

TavNumExpr::TavNumExpr(TavIntLinExprTerm t) : TavNumExprArg(new (need(t.getImpl()->_var)->getEnv()) TavNumLinTermI(t)) {
  _impl->lockRef();
}

void TavNumExpr::reassign(TavNumExprI* result) {
  result->lockRef();
  _impl = result;
}

namespace {
// e op= x: the handle's reference moves from the old node to the result;
// the old node is then held by the result or consumed into it.
template <class Build>
void compound(TavNumExpr& h, Build build) {
  TavNumExprI* old = need(h.getImpl());
  old->unlockRef();
  TavNumExprArg result;
  try {
    result = build(TavNumExprArg(old));
  } catch (...) {
    old->lockRef();
    throw;
  }
  h.reassign(result.getImpl());
}
}  // namespace

TavNumExpr& TavNumExpr::operator+=(const TavNumExprArg& arg) {
  if (need(_impl)->getEnv() != need(arg.getImpl())->getEnv())
    throw TavWrongUsage("TavNumExpr& TavNumExpr::operator += const TavNumExprArg arg : mixing mismatch Environments", 0);
  compound(*this, [&](TavNumExprArg e) { return e + arg; });
  return *this;
}

TavNumExpr& TavNumExpr::operator-=(const TavNumExprArg& arg) {
  if (need(_impl)->getEnv() != need(arg.getImpl())->getEnv())
    throw TavWrongUsage("TavNumExpr& TavNumExpr::operator -= const TavNumExprArg arg : mixing mismatch Environments", 0);
  compound(*this, [&](TavNumExprArg e) { return e - arg; });
  return *this;
}

TavNumExpr& TavNumExpr::operator+=(double d) {
  compound(*this, [d](TavNumExprArg e) { return e + d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator-=(double d) {
  compound(*this, [d](TavNumExprArg e) { return e - d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator*=(double d) {
  compound(*this, [d](TavNumExprArg e) { return e * d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator/=(double d) {
  compound(*this, [d](TavNumExprArg e) { return e / d; });
  return *this;
}

TavNumExpr TavNumExpr::getClone() const {
  return TavNumExpr(static_cast<TavNumExprI*>(need(_impl)->getEnv()->getClone(_impl)));
}
TavNumExpr TavNumExpr::getClone(TavEnv other) const {
  return TavNumExpr(static_cast<TavNumExprI*>(other.getImpl()->getClone(need(_impl))));
}
void TavNumExpr::setClone(TavNumExpr clone) const { need(_impl)->getEnv()->setClone(_impl, clone.getImpl()); }
void TavNumExpr::setClone(TavNumExpr clone, TavEnv other) const {
  other.getImpl()->setClone(need(_impl), clone.getImpl());
}

// ------------------------------------------------------------------ TavExpr

TavExpr::TavExpr(TavNumLinTermI* impl) : TavNumExpr(static_cast<TavNumExprI*>(impl)) {}

TavExpr::TavExpr(TavEnv env, double c) : TavNumExpr(env, c) {}

TavExpr::TavExpr(const TavNumExprArg& arg) : TavNumExpr() {
  TavNumExprI* e = need(arg.getImpl());
  TavNumExprI* node = e->getRefCount() < 1 ? e : e->copy();
  TavNumLinTermI* lin = isIntLin(node) ? numFromInt(node) : node->toNumLinTermI();
  lin->lockRef();
  _impl = lin;
}

TavExpr::TavExpr(TavNumLinExprTerm t) : TavNumExpr(t) {}
TavExpr::TavExpr(TavIntLinExprTerm t) : TavNumExpr(t) {}

TavNumLinTermI* TavExpr::getImpl() const { return static_cast<TavNumLinTermI*>(_impl); }

TavNumLinTermI* TavExpr::own() {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(need(_impl));
  if (lin->getRefCount() > 1) {
    TavNumLinTermI* copy = static_cast<TavNumLinTermI*>(lin->copy());
    lin->unlockRef();
    copy->lockRef();
    _impl = copy;
    return copy;
  }
  return lin;
}

void TavExpr::checkEnv(TavEnvI* other, const char* message) const {
  if (need(_impl)->getEnv() != other) throw TavWrongUsage(message, 0);
}

TavExpr& TavExpr::operator+=(double d) {
  TavNumLinTermI* lin = own();
  lin->setConstant(lin->getConstant() + d);
  return *this;
}
TavExpr& TavExpr::operator-=(double d) {
  TavNumLinTermI* lin = own();
  lin->setConstant(lin->getConstant() - d);
  return *this;
}
TavExpr& TavExpr::operator*=(double d) {
  own()->multiply(d);
  return *this;
}
TavExpr& TavExpr::operator/=(double d) {
  own()->divide(d);
  return *this;
}

namespace {
// Appends a cell (v, coef) for a variable handle after the environment check.
template <class V>
TavExpr& addVar(TavExpr& e, const V& v, double coef, const char* message, TavNumLinTermI* (TavExpr::*own)()) {
  TavNumVarI* var = static_cast<TavNumVarI*>(need(v.getImpl()));
  TavEnvI* env = TavVarEnv(var);
  if (need(e.getImpl())->getEnv() != env) throw TavWrongUsage(message, 0);
  TavNumLinExprTermI* cell = env->newTerm(var, coef);
  (e.*own)()->append(cell);
  return e;
}
}  // namespace

TavExpr& TavExpr::operator+=(const TavNumVar& v) {
  return addVar(*this, v, 1.0, "TavExpr& TavNumExpr::operator += const TavNumVar arg : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator+=(const TavIntVar& v) {
  return addVar(*this, v, 1.0, "TavExpr& TavNumExpr::operator += const TavIntVar arg : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator-=(const TavNumVar& v) {
  return addVar(*this, v, -1.0, "TavExpr& TavExpr::operator -= const TavNumVar arg : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator-=(const TavIntVar& v) {
  return addVar(*this, v, -1.0, "TavExpr& TavExpr::operator -= const TavIntVar arg : mixing mismatch Environments", &TavExpr::own);
}

namespace {
// Appends a term handle's cell (negated for -=); on a mismatch the cell goes
// back to its own environment.
TavExpr& addCell(TavExpr& e, TavNumLinExprTermI* cell, bool negate, const char* message,
                 TavNumLinTermI* (TavExpr::*own)()) {
  if (cell == nullptr) throw TavEmptyHandleException();
  TavEnvI* env = TavVarEnv(cell->_var);
  if (need(e.getImpl())->getEnv() != env) {
    env->recycleTerm(cell);
    throw TavWrongUsage(message, 0);
  }
  TavNumLinTermI* lin = (e.*own)();
  if (negate) cell->_coef = -cell->_coef;
  lin->append(cell);
  return e;
}
}  // namespace

TavExpr& TavExpr::addTermChecked(TavNumLinExprTerm t) {
  return addCell(*this, t.getImpl(), false,
                 "TavExpr& TavExpr::operator += const TavNumLinExprTerm term : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator+=(TavIntLinExprTerm t) {
  return addCell(*this, t.getImpl(), false,
                 "TavExpr& TavExpr::operator += const TavIntLinExprTerm arg : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator-=(TavNumLinExprTerm t) {
  return addCell(*this, t.getImpl(), true,
                 "TavExpr& TavExpr::operator -= const TavNumLinExprTerm arg : mixing mismatch Environments", &TavExpr::own);
}
TavExpr& TavExpr::operator-=(TavIntLinExprTerm t) {
  return addCell(*this, t.getImpl(), true,
                 "TavExpr& TavExpr::operator -= const TavIntLinExprTerm arg : mixing mismatch Environments", &TavExpr::own);
}

TavExpr& TavExpr::operator+=(const TavNumExprArg& a) {
  TavNumExprI* e = need(a.getImpl());
  checkEnv(e->getEnv(), "TavExpr& TavNumExpr::operator += const TavNumExprArg arg : mixing mismatch Environments");
  if (isVar(e)) {
    TavNumLinExprTermI* cell = e->getEnv()->newTerm(static_cast<TavNumVarI*>(e), 1.0);
    own()->append(cell);
  } else if (isNumLin(e)) {
    TavNumLinTermI* lin = own();
    TavNumLinTermI* other = static_cast<TavNumLinTermI*>(e->getRefCount() > 0 ? e->copy() : e);
    lin->append(other);
  } else if (isIntLin(e)) {
    TavNumLinTermI* lin = own();
    lin->append(numFromInt(e));
  } else {
    own()->append(e);
  }
  return *this;
}

TavExpr& TavExpr::operator-=(const TavNumExprArg& a) {
  TavNumExprI* e = need(a.getImpl());
  checkEnv(e->getEnv(), "TavExpr& TavExpr::operator -= const TavNumExprArg arg : mixing mismatch Environments");
  if (isVar(e)) {
    TavNumLinExprTermI* cell = e->getEnv()->newTerm(static_cast<TavNumVarI*>(e), -1.0);
    own()->append(cell);
  } else if (isNumLin(e) || isIntLin(e)) {
    TavNumLinTermI* lin = own();
    TavNumLinTermI* other =
        isIntLin(e) ? numFromInt(e) : static_cast<TavNumLinTermI*>(e->getRefCount() > 0 ? e->copy() : e);
    other->multiply(-1.0);
    lin->append(other);
  } else {
    TavNumLinTermI* lin = own();
    lin->append((-a).getImpl());
  }
  return *this;
}

void TavExpr::clear() { own()->clear(); }

void TavExpr::setNumConstant(double c) {
  TavTestIsLinear(_impl);  // before the copy on write: a failure changes nothing
  own()->setConstant(c);
}

void TavExpr::setLinearCoef(const TavNumVar& v, double c) {
  own()->setCoef(static_cast<TavNumVarI*>(need(v.getImpl())), c);
}

void TavExpr::setLinearCoefs(TavNumVarArray vars, TavNumArray coefs) { own()->setCoef(vars, coefs, TavNumArray()); }

void TavExpr::remove(TavNumVarArray vars) { own()->remove(TavExtractableArray(vars.getImpl())); }

void TavExpr::remove(TavExtractableArray objects) { own()->remove(objects); }

bool TavExpr::normalize() { return own()->normalize() == 0; }

bool TavExpr::isNormalized() const {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(need(_impl));
  if (!lin->getEnv()->isNormalizationSkipped()) return true;
  if (lin->hasParts()) return true;
  return lin->normalize() == 0;
}

TavExpr TavExpr::copy() const {
  TavNumLinTermI* c = static_cast<TavNumLinTermI*>(need(_impl)->copy());
  c->lockRef();
  return TavExpr(c);
}

TavExpr::LinearIterator TavExpr::getLinearIterator() const {
  return LinearIterator(static_cast<TavNumLinTermI*>(need(_impl))->getFirstTerm());
}

TavNumVar TavExpr::LinearIterator::getVar() const { return TavNumVar(_cell->_var); }

// ------------------------------------------------------------------ TavIntExpr

TavIntExpr::TavIntExpr(TavEnv env, TavInt c) : TavIntExprArg(new (env.getImpl()) TavIntLinTermI(env.getImpl(), c)) {
  _impl->lockRef();
}

TavIntExpr::TavIntExpr(TavIntLinExprTerm t)
    : TavIntExprArg(new (need(t.getImpl()->_var)->getEnv()) TavIntLinTermI(t)) {
  _impl->lockRef();
}

TavIntExpr::TavIntExpr(const TavIntExprArg& arg) : TavIntExprArg(arg.getImpl()) {
  if (_impl) _impl->lockRef();
}

void TavIntExpr::reassign(TavIntExprI* result) {
  result->lockRef();
  _impl = result;
}

namespace {
template <class Build>
void intCompound(TavIntExpr& h, Build build) {
  TavIntExprI* old = static_cast<TavIntExprI*>(need(h.getImpl()));
  old->unlockRef();
  TavIntExprArg result;
  try {
    result = build(TavIntExprArg(old));
  } catch (...) {
    old->lockRef();
    throw;
  }
  h = TavIntExpr(result);
}
}  // namespace

TavIntExpr& TavIntExpr::operator+=(TavInt c) {
  intCompound(*this, [c](TavIntExprArg e) { return e + c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator-=(TavInt c) {
  intCompound(*this, [c](TavIntExprArg e) { return e - c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator*=(TavInt c) {
  intCompound(*this, [c](TavIntExprArg e) { return e * c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator+=(const TavIntExprArg& a) {
  intCompound(*this, [&a](TavIntExprArg e) { return e + a; });
  return *this;
}
TavIntExpr& TavIntExpr::operator-=(const TavIntExprArg& a) {
  intCompound(*this, [&a](TavIntExprArg e) { return e - a; });
  return *this;
}

// ------------------------------------------------------------------ terms

TavEnv TavNumLinExprTerm::getEnv() const { return TavEnv(_cell->_var->getEnv()); }
TavNumVar TavNumLinExprTerm::getVar() const { return TavNumVar(_cell->_var); }
TavNumLinExprTerm::operator TavNumExprArg() const {
  TavNumLinExprTermI* c = _cell;
  if (c == nullptr) throw TavEmptyHandleException();
  return TavNumExprArg(new (c->_var->getEnv()) TavNumLinTermI(*this));
}

TavEnv TavIntLinExprTerm::getEnv() const { return TavEnv(_cell->_var->getEnv()); }
TavIntVar TavIntLinExprTerm::getVar() const { return TavIntVar(_cell->_var); }
TavIntLinExprTerm::operator TavIntExprArg() const {
  TavNumLinExprTermI* c = _cell;
  if (c == nullptr) throw TavEmptyHandleException();
  return TavIntExprArg(new (c->_var->getEnv()) TavIntLinTermI(*this));
}
