// Decision variables, their change records, TavSolution and the model
// evaluator.
#include "arrays.h"

#include <cmath>

#include "checks.h"
#include "constraints.h"
#include "semicont.h"

using tav_detail::envOf;

namespace {

/// Bounds first: Int rounds both bounds up; Bool compares the doubles
/// before truncating (an upper bound above 0 gives 1).
TavVarDomainI* ruleA(TavEnvI* env, double lb, double ub, TavNumVar::Type type) {
  if (type == TavNumVar::Float) return env->getOrMakeSharedDomain(lb, ub);
  if (type == TavNumVar::Int) return env->getOrMakeSharedDomain(TavTrunc(std::ceil(lb)), TavTrunc(std::ceil(ub)));
  TavInt lower = lb < 0 ? 0 : lb > 1.0 ? 1 : TavTrunc(lb);
  TavInt upper = ub < 0 ? 0 : ub > 0.0 ? 1 : TavTrunc(ub);
  return env->getOrMakeSharedDomain(lower, upper);
}

/// Type first: Bool truncates, then clamps into [0, 1].
TavVarDomainI* ruleB(TavEnvI* env, double lb, double ub, TavNumVar::Type type) {
  if (type == TavNumVar::Float || type == TavNumVar::Int) return ruleA(env, lb, ub, type);
  TavInt lower = TavTrunc(lb);
  lower = lower < 0 ? 0 : lower >= 2 ? 1 : lower;
  TavInt upper = TavTrunc(ub);
  upper = upper < 0 ? 0 : upper > 0 ? 1 : upper;
  return env->getOrMakeSharedDomain(lower, upper);
}

/// A new array with the same elements, in the source array's memory.
template <class Array>
Array copyOf(const Array& a) {
  return Array(new (a.getImpl()->getEnv()) TavArrayI(a.getImpl()));
}

TavVarDomainI* numValuesDomain(TavEnvI* env, TavNumArray values, TavNumVar::Type type) {
  if (type == TavNumVar::Int)
    throw TavNotSupportedOperation("You cannot create a integer variable by giving it an array of double");
  if (type != TavNumVar::Float)
    throw TavNotSupportedOperation("You cannot create a boolean variable by giving it an array of values");
  TavNumArray copy = copyOf(values);
  try {
    return new (env) TavNumVarDomainI(copy);
  } catch (...) {
    copy.end();
    throw;
  }
}

TavVarDomainI* intValuesDomain(TavEnvI* env, TavIntArray values, TavNumVar::Type type) {
  if (type != TavNumVar::Int && type != TavNumVar::Float)
    throw TavNotImplemented("You cannot create a boolean variable by giving it an array of values");
  if (type == TavNumVar::Float) {
    TavNumArray converted = values.toNumArray();
    try {
      return new (env) TavNumVarDomainI(converted);
    } catch (...) {
      converted.end();
      throw;
    }
  }
  TavIntArray copy = copyOf(values);
  try {
    return new (env) TavIntVarDomainI(copy, 0);
  } catch (...) {
    copy.end();
    throw;
  }
}

}  // namespace

// ------------------------------------------------------------------ TavNumVarI

TAV_DEFINE_NODE_STATICS(TavNumVarI)
TAV_DEFINE_CHANGE_STATICS(TavSetNumVarBounds)
TAV_DEFINE_CHANGE_STATICS(TavSetNumVarPossibleValues)

TavNumVarI::TavNumVarI(TavEnvI* env, TavVarDomainI* domain, const char* name) : TavNode(env, name), _domain(domain) {}

TavNumVarI::TavNumVarI(TavEnvI* env, const char* name) : TavNode(env, name), _domain(nullptr) {}

TavNumVarI::TavNumVarI(TavEnvI* env, double lb, double ub, TavNumVar::Type type, const char* name)
    : TavNode(env, name), _domain(ruleA(env, lb, ub, type)) {}

TavNumVarI::TavNumVarI(TavEnvI* env, TavNumVar::Type type, double lb, double ub, const char* name)
    : TavNode(env, name), _domain(ruleB(env, lb, ub, type)) {}

TavNumVarI::TavNumVarI(TavEnvI* env, TavNumArray values, TavNumVar::Type type, const char* name)
    : TavNode(env, name), _domain(numValuesDomain(env, values, type)) {}

TavNumVarI::TavNumVarI(TavEnvI* env, TavIntArray values, TavNumVar::Type type, const char* name)
    : TavNode(env, name), _domain(intValuesDomain(env, values, type)) {}

TavNumVarI::TavNumVarI(TavEnvI* env, TavAnyArray values, const char* name) : TavNode(env, name), _domain(nullptr) {
  TavIntArray copy = copyOf<TavIntArray>(values);
  try {
    _domain = new (env) TavIntVarDomainI(copy, 1);
  } catch (...) {
    copy.end();
    throw;
  }
}

TavNumVarI::TavNumVarI(const TavNumRangeI* range, const char* name)
    : TavNode(range->getEnv(), name), _domain(range->getEnv()->getOrMakeSharedDomain(range)) {}

TavNumVarI::TavNumVarI(const TavIntRangeI* range, const char* name)
    : TavNode(range->getEnv(), name), _domain(range->getEnv()->getOrMakeSharedDomain(range)) {}

TavNumVarI::~TavNumVarI() {
  if (_domain && !_domain->isShared()) _domain->end(getEnv());
  _domain = nullptr;
}

TavNumVar::Type TavNumVarI::getType() const {
  return _domain ? (TavNumVar::Type)_domain->getType() : TavNumVar::Float;
}
bool TavNumVarI::isInteger() const { return _domain && _domain->getType() != TavNumVar::Float; }
bool TavNumVarI::isEnumerated() const { return _domain && _domain->isEnumerated(); }
double TavNumVarI::getLB() const { return _domain ? _domain->getLB() : 0.0; }
double TavNumVarI::getUB() const { return _domain ? _domain->getUB() : TavGetInfinity(); }
TavNumArray TavNumVarI::getNumValues() const { return _domain ? _domain->getNumValues() : TavNumArray(); }
TavIntArray TavNumVarI::getIntValues() const { return _domain ? _domain->getIntValues() : TavIntArray(); }

void TavNumVarI::copyOnWrite() {
  if (_domain && _domain->isShared()) _domain = _domain->makeCopy(getEnv());
}

void TavNumVarI::setLB(double lb) {
  if (_domain) {
    copyOnWrite();
    _domain->setLB(lb);
  } else {
    _domain = getEnv()->getOrMakeSharedDomain(lb, TavGetInfinity());
  }
  TavNotify<TavSetNumVarBounds>(this, this, lb, getUB());
}

void TavNumVarI::setUB(double ub) {
  if (_domain) {
    copyOnWrite();
    _domain->setUB(ub);
  } else {
    _domain = getEnv()->getOrMakeSharedDomain(0.0, ub);
  }
  TavNotify<TavSetNumVarBounds>(this, this, getLB(), ub);
}

void TavNumVarI::setBounds(double lb, double ub) {
  if (_domain) {
    copyOnWrite();
    _domain->setLB(lb);
    _domain->setUB(ub);
  } else {
    _domain = getEnv()->getOrMakeSharedDomain(lb, ub);
  }
  TavNotify<TavSetNumVarBounds>(this, this, lb, ub);
}

void TavNumVarI::makeDomain(double lb, double ub) {
  TavEnvI* env = getEnv();
  TavVarDomainI* made;
  TavNumVar::Type type = getType();
  if (type == TavNumVar::Float) {
    made = new (env) TavNumVarDomainI(lb, ub);
  } else if (type == TavNumVar::Int) {
    made = new (env) TavIntVarDomainI(-TavIntMaxExact, TavIntMaxExact, 0);
    made->setLB(lb);
    made->setUB(ub);
  } else {
    TavInt lower = lb < 0 ? 0 : lb > 1.0 ? 1 : TavTrunc(lb);
    TavInt upper = ub < 0 ? 0 : ub > 0.0 ? 1 : TavTrunc(ub);
    made = new (env) TavBoolVarDomainI(lower, upper);
  }
  if (_domain && !_domain->isShared()) _domain->end(env);
  _domain = made;
}

namespace {
void putValues(TavVarDomainI* d, TavNumArray values) { d->setNumValues(values); }
void putValues(TavVarDomainI* d, TavIntArray values) { d->setIntValues(values); }
}  // namespace

template <class Domain, class Array, class... Extra>
void TavNumVarI::installValues(Array values, Extra... extra) {
  try {
    if (_domain) {
      copyOnWrite();
      putValues(_domain, values);
    } else {
      _domain = new (getEnv()) Domain(values, extra...);
    }
  } catch (...) {
    values.end();
    throw;
  }
}

void TavNumVarI::setPossibleValues(TavNumArray values) {
  if (getType() != TavNumVar::Float)
    throw TavNotSupportedOperation("You cannot change the domain of an integer variable by giving it a floating point variable");
  installValues<TavNumVarDomainI>(copyOf(values));
  TavNotify<TavSetNumVarPossibleValues>(this, this, values.getImpl(), (TavArrayI*)nullptr);
}

void TavNumVarI::setPossibleValues(TavIntArray values) {
  if (getType() != TavNumVar::Float) {
    installValues<TavIntVarDomainI>(copyOf(values), (TavInt)0);
    TavNotify<TavSetNumVarPossibleValues>(this, this, (TavArrayI*)nullptr, values.getImpl());
    return;
  }
  // The domain keeps the converted array, so the record may point at it.
  TavNumArray converted = values.toNumArray();
  installValues<TavNumVarDomainI>(converted);
  TavNotify<TavSetNumVarPossibleValues>(this, this, converted.getImpl(), (TavArrayI*)nullptr);
}

TavNumLinTermI* TavNumVarI::toNumLinTermI() {
  TavNumLinExprTermI* cell = getEnv()->newTerm(this, 1.0);
  return new (getEnv()) TavNumLinTermI(TavNumLinExprTerm(cell));
}

TavIntLinTermI* TavNumVarI::toIntLinTermI() {
  TavNumLinExprTermI* cell = getEnv()->newTerm(this, 1.0);
  return new (getEnv()) TavIntLinTermI(TavIntLinExprTerm(cell));
}

double TavNumVarI::evalFallback() const {
  // Called inside the handler of the algorithm's failure: `throw;` passes
  // that first failure on unchanged.
  TavModelEvaluator* evaluator = getEnv()->getModelEvaluator();
  if (evaluator->isActive()) {
    try {
      return (double)evaluator->evaluate(TavIntExprArg(const_cast<TavNumVarI*>(this)));
    } catch (...) {
    }
  }
  throw;
}

void TavNumVarI::display(std::ostream& os) const {
  if (_domain == nullptr) {
    if (_name) os << _name << "[0 .. " << TavGetInfinity() << "] ";
    else os << "TavNumVar(" << _id << ")[0 .. " << TavGetInfinity() << "] ";
    return;
  }
  if (_name) {
    os << _name;
  } else {
    if (_domain->getType() == TavNumVar::Float) os << "TavNumVar(";
    else if (_domain->isAnyDomain()) os << "TavAnyVar(";
    else os << "TavIntVar(";
    os << _id << ")";
  }
  _domain->display(os);
}

TavExtractableI* TavNumVarI::makeClone(TavEnvI* env) const {
  TavVarDomainI* domain = _domain ? _domain->makeCopy(env) : nullptr;
  try {
    return new (env) TavNumVarI(env, domain, _name);
  } catch (...) {
    if (domain) domain->end(env);
    throw;
  }
}

void TavNumVarI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  visitor->endVisit(this);
}

// ------------------------------------------------------------------ TavNumVar

TavNumVar::TavNumVar(TavEnv env, double lb, double ub, Type type, const char* name)
    : TavVarHandle(new (envOf(env)) TavNumVarI(env.getImpl(), lb, ub, type, name)) {}

TavNumVar::TavNumVar(TavEnv env, double lb, double ub, const char* name) : TavNumVar(env, lb, ub, Float, name) {}

TavNumVar::TavNumVar(const TavAddNumVar& column, double lb, double ub, Type type, const char* name)
    : TavVarHandle(tav_detail::installed(column, new (envOf(column)) TavNumVarI(envOf(column), type, lb, ub, name))) {}

TavNumVar::TavNumVar(const TavAddNumVar& column, TavNumArray values, Type type, const char* name)
    : TavVarHandle(tav_detail::installed(column, new (envOf(column)) TavNumVarI(envOf(column), values, type, name))) {}

TavNumVar::TavNumVar(TavNumRange range, const char* name)
    : TavVarHandle(new (envOf(range)) TavNumVarI(range.getImpl(), name)) {}

TavNumVar::TavNumVar(TavEnv env, TavNumArray values, Type type, const char* name)
    : TavVarHandle(new (envOf(env)) TavNumVarI(env.getImpl(), values, type, name)) {}

TavNumVar::TavNumVar(TavConstraint ct)
    : TavVarHandle(new (envOf(ct)) TavConstraintIndVarI(envOf(ct), ct.getImpl())) {}

double TavNumVar::getLB() const { return live()->getLB(); }
double TavNumVar::getUB() const { return live()->getUB(); }
void TavNumVar::setLB(double lb) const { live()->setLB(lb); }
void TavNumVar::setUB(double ub) const { live()->setUB(ub); }
void TavNumVar::setBounds(double lb, double ub) const { live()->setBounds(lb, ub); }

TavNumVar::Type TavNumVar::getType() const {
  if (_impl == nullptr) throw TavWrongUsage("Using empty handle TavNumVar::getType", 0);
  return live()->getType();
}

namespace {
/// The messages of one handle kind for its possible-value calls.
struct ValueMessages {
  const char* emptyVarGet;
  const char* emptyVarSet;
  const char* emptyArray;
};
const ValueMessages NumValueMessages = {"Using empty handle TavNumVar", "Using empty TavNumVar handle.",
                                        "Using empty TavNumArray handle."};
const ValueMessages IntValueMessages = {"Using empty handle TavIntVar", "Using empty TavIntVar handle.",
                                        "Using empty TavIntArray handle."};

TavNumArray valuesOf(const TavNumVarI* v, const TavNumArray&) { return v->getNumValues(); }
TavIntArray valuesOf(const TavNumVarI* v, const TavIntArray&) { return v->getIntValues(); }

/// Appends the variable's values (if it has a list) to out.
template <class Array>
void appendValues(TavNumVarI* v, Array out, const ValueMessages& m) {
  if (v == nullptr) throw TavWrongUsage(m.emptyVarGet, 0);
  if (out.getImpl() == nullptr) throw TavWrongUsage(m.emptyArray, 0);
  Array values = valuesOf(v, out);
  if (values.getImpl()) out.add(values);
}

template <class Array>
void setValues(TavNumVarI* v, Array values, const ValueMessages& m) {
  if (v == nullptr) throw TavWrongUsage(m.emptyVarSet, 0);
  if (values.getImpl() == nullptr) throw TavWrongUsage(m.emptyArray, 0);
  v->setPossibleValues(values);
}
}  // namespace

void TavNumVar::getPossibleValues(TavNumArray out) const { appendValues(getImpl(), out, NumValueMessages); }
void TavNumVar::setPossibleValues(TavNumArray values) const { setValues(getImpl(), values, NumValueMessages); }


// ------------------------------------------------------------------ TavIntVar

namespace {
TavNumVarI* checkedIntVar(const TavNumVar& var) {
  TavNumVarI* v = var.getImpl();
  if (v == nullptr) throw TavEmptyHandleException();
  if (v->getType() == TavNumVar::Float) throw TavBadConversion();
  return v;
}

/// An Int-typed variable's bounds must each be exactly 0 or 1; Bool passes.
TavNumVarI* checkedBoolFromNum(TavNumVarI* v) {
  if (v == nullptr) throw TavEmptyHandleException();
  TavNumVar::Type type = v->getType();
  if (type == TavNumVar::Float) throw TavWrongUsage("Try to add a float variable to TavBoolVarArray", 0);
  if (type == TavNumVar::Int) {
    double lb = v->getLB(), ub = v->getUB();
    if (!(lb == 0.0 || lb == 1.0) || !(ub == 0.0 || ub == 1.0)) throw TavBadConversion();
  }
  return v;
}

/// Bounds within [0, 1], compared as doubles.
TavNumVarI* checkedBoolFromInt(TavNumVarI* v) {
  if (v == nullptr) throw TavEmptyHandleException();
  double lb = v->getLB(), ub = v->getUB();
  if (lb < 0 || lb > 1 || ub < 0 || ub > 1) throw TavBadConversion();
  return v;
}
}  // namespace

TavNumVarI* TavCheckBoolFromNum(TavNumVarI* v) { return checkedBoolFromNum(v); }

TavIntVar::TavIntVar(TavEnv env, const char* name)
    : TavVarHandle(new (envOf(env)) TavNumVarI(env.getImpl(), 0.0, (double)TavIntMaxExact, TavNumVar::Int, name)) {}

TavIntVar::TavIntVar(TavEnv env, TavInt lb, TavInt ub, const char* name)
    : TavVarHandle(new (envOf(env)) TavNumVarI(env.getImpl(), (double)lb, (double)ub, TavNumVar::Int, name)) {}

TavIntVar::TavIntVar(TavIntRange range, const char* name)
    : TavVarHandle(new (envOf(range)) TavNumVarI(range.getImpl(), name)) {}

TavIntVar::TavIntVar(TavEnv env, TavIntArray values, const char* name)
    : TavVarHandle(new (envOf(env)) TavNumVarI(env.getImpl(), values, TavNumVar::Int, name)) {}

TavIntVar::TavIntVar(const TavAddNumVar& column, TavInt lb, TavInt ub, const char* name)
    : TavVarHandle(tav_detail::installed(
          column, new (envOf(column)) TavNumVarI(envOf(column), (double)lb, (double)ub, TavNumVar::Int, name))) {}

TavIntVar::TavIntVar(const TavAddNumVar& column, TavIntArray values, const char* name)
    : TavVarHandle(tav_detail::installed(column, new (envOf(column)) TavNumVarI(envOf(column), values, TavNumVar::Int, name))) {}

TavIntVar::TavIntVar(const TavNumVar& var) : TavVarHandle(checkedIntVar(var)) {}

TavInt TavIntVar::getMin() const { return TavTrunc(live()->getLB()); }
TavInt TavIntVar::getMax() const { return TavTrunc(live()->getUB()); }
double TavIntVar::getLB() const { return live()->getLB(); }
double TavIntVar::getUB() const { return live()->getUB(); }

void TavIntVar::setMin(TavInt v) const {
  if (_impl == nullptr) throw TavWrongUsage("Using empty TavIntVar handle.", 0);
  live()->setLB((double)v);
}
void TavIntVar::setMax(TavInt v) const {
  if (_impl == nullptr) throw TavWrongUsage("Using empty TavIntVar handle.", 0);
  live()->setUB((double)v);
}
void TavIntVar::setBounds(TavInt lb, TavInt ub) const {
  if (_impl == nullptr) throw TavWrongUsage("Using empty handle TavIntVar", 0);
  live()->setBounds((double)lb, (double)ub);
}
TavNumVar::Type TavIntVar::getType() const {
  if (_impl == nullptr) throw TavWrongUsage("Using empty handle TavIntVar::getType", 0);
  return live()->getType();
}
void TavIntVar::getPossibleValues(TavIntArray out) const { appendValues(getImpl(), out, IntValueMessages); }
void TavIntVar::setPossibleValues(TavIntArray values) const { setValues(getImpl(), values, IntValueMessages); }

// ------------------------------------------------------------------ TavBoolVar

TavBoolVar::TavBoolVar(TavEnv env, const char* name)
    : TavIntVar(new (envOf(env)) TavNumVarI(env.getImpl(), env.getImpl()->getOrMakeSharedDomain((TavInt)0, (TavInt)1), name)) {}

TavBoolVar::TavBoolVar(TavEnv env, TavInt lb, TavInt ub, const char* name)
    : TavIntVar(new (envOf(env)) TavNumVarI(env.getImpl(), env.getImpl()->getOrMakeSharedDomain(lb, ub), name)) {}

namespace {
TavNumVarI* columnBoolVar(const TavAddNumVar& column, const char* name) {
  TavEnvI* env = envOf(column);
  TavVarDomainI* domain = new (env) TavBoolVarDomainI(0, 1);
  TavNumVarI* var;
  try {
    var = new (env) TavNumVarI(env, domain, name);
  } catch (...) {
    domain->end(env);
    throw;
  }
  return tav_detail::installed(column, var);
}
}  // namespace

TavBoolVar::TavBoolVar(const TavAddNumVar& column, const char* name) : TavIntVar(columnBoolVar(column, name)) {}

TavBoolVar::TavBoolVar(const TavNumVar& var) : TavIntVar(checkedBoolFromNum(var.getImpl())) {}

TavBoolVar::TavBoolVar(const TavIntVar& var) : TavIntVar(checkedBoolFromInt(var.getImpl())) {}

// ------------------------------------------------------------------ change records

TavNumVar TavSetNumVarBounds::getVar() const { return TavNumVar(_var); }
TavNumVar TavSetNumVarPossibleValues::getVar() const { return TavNumVar(_var); }

// ------------------------------------------------------------------ algorithms

double TavSolutionI::getValue(const TavNumVarI* var) const {
  std::size_t id = (std::size_t)var->getId();
  if (id < _values.size() && _values[id].var == var) return _values[id].value;
  throw TavAlgorithm::Exception("TavSolution: the variable has no value");
}

bool TavSolutionI::addTermValues(const TavNumLinExprTermI* t, double& sum) const {
  const Slot* slots = _values.data();
  const std::size_t n = _values.size();
  double s = sum;
  // Large sums touch scattered variables and slots: fetch the variable
  // FarAhead cells ahead and its slot NearAhead cells ahead, so that the
  // memory latencies overlap instead of adding up.
  constexpr int FarAhead = 16, NearAhead = 8;
  const TavNumLinExprTermI* far = t;
  const TavNumLinExprTermI* near = t;
  for (int i = 0; i < FarAhead && far; ++i, far = far->_next) __builtin_prefetch(far->_var);
  for (int i = 0; i < NearAhead && near; ++i) near = near->_next;
  for (; t; t = t->_next) {
    if (far) {
      __builtin_prefetch(far->_var);
      far = far->_next;
    }
    if (near) {
      const std::size_t ahead = (std::size_t)near->_var->getId();
      if (ahead < n) __builtin_prefetch(slots + ahead);
      near = near->_next;
    }
    const TavNumVarI* var = t->_var;
    const std::size_t id = (std::size_t)var->getId();
    if (TAV_UNLIKELY(id >= n || slots[id].var != var)) return false;
    s += t->_coef * slots[id].value;
  }
  sum = s;
  return true;
}

void TavSolutionI::setValue(const TavNumVarI* var, double v) {
  std::size_t id = (std::size_t)var->getId();
  if (id >= _values.size()) _values.resize(id + 1, Slot{nullptr, 0.0});
  _values[id] = Slot{var, v};
}

double TavSolutionI::getValue(const TavConstraintI* ct) const {
  std::size_t id = (std::size_t)ct->getId();
  if (id < _constraintValues.size() && _constraintValues[id].ct == ct) return _constraintValues[id].value;
  throw TavAlgorithm::Exception("TavSolution: the constraint has no value");
}

void TavSolutionI::setValue(const TavConstraintI* ct, double v) {
  std::size_t id = (std::size_t)ct->getId();
  if (id >= _constraintValues.size()) _constraintValues.resize(id + 1, ConstraintSlot{nullptr, 0.0});
  _constraintValues[id] = ConstraintSlot{ct, v};
}

TavSolution::TavSolution(TavEnv env) : TavAlgorithm(new TavSolutionI(envOf(env))) {
  env.getImpl()->adoptAlgorithm(_impl);
}

void TavSolution::setValue(const TavNumVar& var, double v) const {
  getImpl()->setValue(tav_detail::need(var.getImpl()), v);
}

void TavSolution::setValue(const TavConstraint& ct, double v) const {
  getImpl()->setValue(tav_detail::need(ct.getImpl()), v);
}
