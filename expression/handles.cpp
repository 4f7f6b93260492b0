// Expression handles: counting, compound assignment, the in-place editing of
// TavExpr with copy on write, and term handles.
#include "arrays.h"
#include "checks.h"

using tav_detail::livesIn;
using tav_detail::isIntLin;
using tav_detail::isNumLin;
using tav_detail::need;
using tav_detail::numFromInt;
using tav_detail::sameEnv;

namespace {

}  // namespace

// ------------------------------------------------------------------ TavNumExprArg

TavEnv TavNumExprArg::getEnv() const { return TavEnv(need(_impl)->getEnv()); }

void TavNumExprArg::end() {
  // An ended environment has destroyed the node already.
  TavEndLive(_impl);
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


std::ostream& operator<<(std::ostream& os, const TavNumExprArg& e) { return TavPrintObject(os, e.getImpl()); }

// ------------------------------------------------------------------ TavNumExpr

TavNumExpr::TavNumExpr(const TavNumExprArg& arg) : TavNumExprArg(arg.getImpl()) {
  if (_impl) _impl->lockRef();
}

TavNumExpr::TavNumExpr(TavEnv env, double c) : TavNumExprArg(new (env.getImpl()) TavNumLinTermI(env.getImpl(), c)) {
  _impl->lockRef();
}

TavNumExpr::TavNumExpr(TavNumLinExprTerm t) : TavNumExprArg(t) { _impl->lockRef(); }

TavNumExpr::TavNumExpr(TavIntLinExprTerm t) : TavNumExprArg(t.toNum()) { _impl->lockRef(); }

void TavNumExpr::reassign(TavNumExprI* result) {
  result->lockRef();
  _impl = result;
}

TavNumExpr TavNumExpr::getClone() const {
  return TavNumExpr(static_cast<TavNumExprI*>(need(_impl)->getEnv()->getClone(_impl)));
}
TavNumExpr TavNumExpr::getClone(TavEnv other) const {
  return TavNumExpr(static_cast<TavNumExprI*>(need(other.getImpl())->getClone(need(_impl))));
}
void TavNumExpr::setClone(TavNumExpr clone) const { need(_impl)->getEnv()->setClone(_impl, clone.getImpl()); }
void TavNumExpr::setClone(TavNumExpr clone, TavEnv other) const {
  need(other.getImpl())->setClone(need(_impl), clone.getImpl());
}

// ------------------------------------------------------------------ TavExpr

TavExpr::TavExpr(TavNumLinTermI* impl) : TavNumExpr(static_cast<TavNumExprI*>(impl)) {}

TavExpr::TavExpr(TavEnv env, double c) : TavNumExpr(env, c) {}

TavExpr::TavExpr(const TavNumExprArg& arg) : TavNumExpr() {
  TavNumExprI* e = need(arg.getImpl());
  // An integer node is converted into a new node and left as it is: no copy first.
  TavNumExprI* node = e->getRefCount() < 1 || isIntLin(e) ? e : e->copy();
  TavNumLinTermI* lin = isIntLin(node) ? numFromInt(node) : node->toNumLinTermI();
  lin->lockRef();
  _impl = lin;
}

TavExpr::TavExpr(TavNumLinExprTerm t) : TavNumExpr(t) {}
TavExpr::TavExpr(TavIntLinExprTerm t) : TavNumExpr(t) {}

TavNumLinTermI* TavExpr::getImpl() const { return static_cast<TavNumLinTermI*>(_impl); }

void TavExpr::checkEnv(TavEnvI* other, const char* message) const {
  sameEnv(need(_impl)->getEnv(), other, message);
}

TavExpr& TavExpr::operator+=(double d) {
  return edit([d](TavNumLinTermI* lin) { lin->setConstant(lin->getConstant() + d); });
}
TavExpr& TavExpr::operator-=(double d) {
  return edit([d](TavNumLinTermI* lin) { lin->setConstant(lin->getConstant() - d); });
}
TavExpr& TavExpr::operator*=(double d) {
  return edit([d](TavNumLinTermI* lin) { lin->multiply(d); });
}
TavExpr& TavExpr::operator/=(double d) {
  return edit([d](TavNumLinTermI* lin) { lin->divide(d); });
}

namespace {
// Appends a cell (v, coef) for a variable handle after the environment check.
template <class V>
TavExpr& addVar(TavExpr& e, const V& v, double coef, const char* message) {
  TavNumVarI* var = v.getImpl();  // not cast back: the variable may be of an ended environment
  need(var);
  // The cell comes from the expression's environment: the variable's only
  // decides a branch, so the allocation need not wait for the owner look-up.
  TavEnvI* env = need(e.getImpl())->getEnv();
  sameEnv(TavVarEnv(var), env, message);
  return e.edit([&](TavNumLinTermI* lin) { lin->append(env->newTerm(var, coef)); });
}
}  // namespace

TavExpr& TavExpr::operator+=(const TavNumVar& v) {
  return addVar(*this, v, 1.0, "TavExpr& TavNumExpr::operator += const TavNumVar arg : mixing mismatch Environments");
}
TavExpr& TavExpr::operator+=(const TavIntVar& v) {
  return addVar(*this, v, 1.0, "TavExpr& TavNumExpr::operator += const TavIntVar arg : mixing mismatch Environments");
}
TavExpr& TavExpr::operator-=(const TavNumVar& v) {
  return addVar(*this, v, -1.0, "TavExpr& TavExpr::operator -= const TavNumVar arg : mixing mismatch Environments");
}
TavExpr& TavExpr::operator-=(const TavIntVar& v) {
  return addVar(*this, v, -1.0, "TavExpr& TavExpr::operator -= const TavIntVar arg : mixing mismatch Environments");
}

namespace {
// Appends a term handle's cell (negated for -=). On a failure the cell stays
// the handle's, so the environment's counters are as they were.
TavExpr& addCell(TavExpr& e, TavNumLinExprTermI* cell, bool negate, const char* message) {
  TavEnvI* env = TavVarEnv(TavTakeCell(cell)->_var);
  sameEnv(need(e.getImpl())->getEnv(), env, message);
  return e.edit([&](TavNumLinTermI* lin) {
    if (negate) cell->_coef = -cell->_coef;
    lin->append(cell);
  });
}
}  // namespace

TavExpr& TavExpr::addTermChecked(TavNumLinExprTerm t) {
  return addCell(*this, t.getImpl(), false,
                 "TavExpr& TavExpr::operator += const TavNumLinExprTerm term : mixing mismatch Environments");
}
TavExpr& TavExpr::operator+=(TavIntLinExprTerm t) {
  return addCell(*this, t.getImpl(), false,
                 "TavExpr& TavExpr::operator += const TavIntLinExprTerm arg : mixing mismatch Environments");
}
TavExpr& TavExpr::operator-=(TavNumLinExprTerm t) {
  return addCell(*this, t.getImpl(), true,
                 "TavExpr& TavExpr::operator -= const TavNumLinExprTerm arg : mixing mismatch Environments");
}
TavExpr& TavExpr::operator-=(TavIntLinExprTerm t) {
  return addCell(*this, t.getImpl(), true,
                 "TavExpr& TavExpr::operator -= const TavIntLinExprTerm arg : mixing mismatch Environments");
}

void TavExpr::clear() {
  edit([](TavNumLinTermI* lin) { lin->clear(); });
}

void TavExpr::setNumConstant(double c) {
  TavTestIsLinear(_impl);  // before the copy on write: a failure changes nothing
  edit([c](TavNumLinTermI* lin) { lin->setConstant(c); });
}

void TavExpr::setLinearCoef(const TavNumVar& v, double c) {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(need(_impl));
  livesIn(lin->getEnv(), need(v.getImpl()), "TavExpr::setLinearCoef const TavNumVar var : mixing mismatch Environments");
  edit([&](TavNumLinTermI* own) { own->setCoef(v, c); });
}

void TavExpr::setLinearCoefs(TavNumVarArray vars, TavNumArray coefs) {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(need(_impl));
  tav_detail::needAll(vars, coefs);
  if (coefs.getSize() < vars.getSize())
    throw TavWrongUsage("TavExpr::setLinearCoefs: fewer coefficients than variables", 0);
  for (TavInt i = 0; i < vars.getSize(); ++i) {
    livesIn(lin->getEnv(), need(vars.getElement(i)),
            "TavExpr::setLinearCoefs const TavNumVarArray vars : mixing mismatch Environments");
  }
  edit([&](TavNumLinTermI* own) { own->setCoef(vars, coefs, TavNumArray()); });
}

void TavExpr::remove(TavNumVarArray vars) { remove(TavExtractableArray(vars.getImpl())); }

void TavExpr::remove(TavExtractableArray objects) {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(need(_impl));
  need(objects);
  for (TavInt i = 0; i < objects.getSize(); ++i)
    livesIn(lin->getEnv(), objects.getObject(i), "TavExpr::remove const TavExtractableArray objects : mixing mismatch Environments");
  edit([&](TavNumLinTermI* own) { own->remove(objects); });
}

bool TavExpr::normalize() {
  TavInt merged = 0;
  edit([&](TavNumLinTermI* lin) { merged = lin->normalize(); });
  return merged == 0;
}

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

TavIntExpr::TavIntExpr(TavIntExprI* impl) : TavNumExpr(static_cast<TavNumExprI*>(impl)) {}

TavIntExpr::TavIntExpr(TavEnv env, TavInt c) : TavNumExpr(static_cast<TavNumExprI*>(new (env.getImpl()) TavIntLinTermI(env.getImpl(), c))) {
  _impl->lockRef();
}

TavIntExpr::TavIntExpr(TavIntLinExprTerm t) : TavNumExpr(static_cast<TavNumExprI*>(TavIntExprArg(t).getImpl())) {
  _impl->lockRef();
}

TavIntExpr::TavIntExpr(const TavIntExprArg& arg) : TavNumExpr(static_cast<TavNumExprI*>(arg.getImpl())) {
  if (_impl) _impl->lockRef();
}

// ------------------------------------------------------------------ terms

TavEnv TavNumLinExprTerm::getEnv() const { return TavEnv(_cell->_var->getEnv()); }
TavNumVar TavNumLinExprTerm::getVar() const { return TavNumVar(_cell->_var); }
TavNumLinExprTerm::operator TavNumExprArg() const {
  return TavNumExprArg(new (TavVarEnv(TavTakeCell(_cell)->_var)) TavNumLinTermI(*this));
}

TavEnv TavIntLinExprTerm::getEnv() const { return TavEnv(_cell->_var->getEnv()); }
TavIntVar TavIntLinExprTerm::getVar() const { return TavIntVar(_cell->_var); }
TavIntLinExprTerm::operator TavIntExprArg() const {
  return TavIntExprArg(new (TavVarEnv(TavTakeCell(_cell)->_var)) TavIntLinTermI(*this));
}
