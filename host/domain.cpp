// Variable domains, and the environment's table of shared ones.
#include "domain.h"

#include <cmath>
#include <utility>

#include "env.h"

TavVarDomainI::~TavVarDomainI() = default;

bool TavVarDomainI::contains(double v) const { return v >= getLB() && v <= getUB(); }
TavInt TavVarDomainI::getValueCount() const { return 0; }
void TavVarDomainI::setNumValues(TavNumArray values) { values.end(); }
void TavVarDomainI::setIntValues(TavIntArray values) { values.end(); }

void TavVarDomainI::end(TavEnvI* env) {
  (void)env;
  delete this;
}

namespace {
template <class Array>
void boundsOf(const Array& values, double& lb, double& ub) {
  lb = TavGetInfinity();
  ub = -TavGetInfinity();
  for (TavInt i = 0; i < values.getSize(); ++i) {
    double v = (double)values[i];
    if (v < lb) lb = v;
    if (v > ub) ub = v;
  }
}

template <class Array>
bool listed(const Array& values, double v) {
  for (TavInt i = 0; i < values.getSize(); ++i)
    if ((double)values[i] == v) return true;
  return false;
}

template <class Array>
void printValues(std::ostream& os, const Array& values) {
  os << "{";
  for (TavInt i = 0; i < values.getSize(); ++i) os << (i ? ", " : "") << values[i];
  os << "} ";
}
}  // namespace

template <class T>
TavListDomainI<T>::TavListDomainI(Array values) : _values(values) {
  double lb, ub;
  boundsOf(values, lb, ub);
  _lb = TavDomainTraits<T>::of(lb);
  _ub = TavDomainTraits<T>::of(ub);
}

template <class T>
bool TavListDomainI<T>::contains(double v) const {
  return isEnumerated() ? listed(_values, v) : TavVarDomainI::contains(v);
}

template <class T>
void TavListDomainI<T>::replaceValues(Array values) {
  _values.end();
  _values = values;
  double lb, ub;
  boundsOf(values, lb, ub);
  _lb = TavDomainTraits<T>::of(lb);
  _ub = TavDomainTraits<T>::of(ub);
}

template <class T>
void TavListDomainI<T>::end(TavEnvI* env) {
  _values.end();
  TavVarDomainI::end(env);
}

template <class T>
void TavListDomainI<T>::display(std::ostream& os) const {
  if (isEnumerated()) printValues(os, _values);
  else os << "[" << _lb << " .. " << _ub << "] ";
}

template <class T>
template <class D, class... Extra>
TavVarDomainI* TavListDomainI<T>::copyAs(TavEnvI* env, Extra... extra) const {
  if (!isEnumerated()) return new (env) D(_lb, _ub, extra...);
  Array copy(TavEnv(env), 0);
  D* d;
  try {
    for (TavInt i = 0; i < _values.getSize(); ++i) copy.add(_values[i]);
    d = new (env) D(copy, extra...);
  } catch (...) {
    copy.end();
    throw;
  }
  d->_lb = _lb;
  d->_ub = _ub;
  return d;
}

template class TavListDomainI<double>;
template class TavListDomainI<TavInt>;
template TavVarDomainI* TavListDomainI<double>::copyAs<TavNumVarDomainI>(TavEnvI*) const;
template TavVarDomainI* TavListDomainI<TavInt>::copyAs<TavIntVarDomainI, TavInt>(TavEnvI*, TavInt) const;

void TavBoolVarDomainI::display(std::ostream& os) const { os << "[" << _lb << " .. " << _ub << "] "; }

TavVarDomainI* TavBoolVarDomainI::makeCopy(TavEnvI* env) const { return new (env) TavBoolVarDomainI(_lb, _ub); }

// ---------------------------------------------------------------- shared domains

TavVarDomainI* TavEnvI::getOrMakeSharedDomain(double lb, double ub) {
  // Not-a-number is unordered and would match every key of the table: such
  // bounds get a private domain, which the variable owns and ends.
  if (std::isnan(lb) || std::isnan(ub)) return new (this) TavNumVarDomainI(lb, ub);
  auto key = std::make_pair(lb, ub);
  auto it = _sharedNum.find(key);
  if (it != _sharedNum.end()) return it->second;
  TavVarDomainI* d = new (this) TavNumVarDomainI(lb, ub);
  d->setShared();
  try {
    _sharedNum.emplace(key, d);
  } catch (...) {
    delete d;
    throw;
  }
  return d;
}

TavVarDomainI* TavEnvI::getOrMakeSharedDomain(TavInt lb, TavInt ub) {
  auto key = std::make_pair(lb, ub);
  auto it = _sharedInt.find(key);
  if (it != _sharedInt.end()) return it->second;
  TavVarDomainI* d = new (this) TavIntVarDomainI(lb, ub, 0);
  d->setShared();
  try {
    _sharedInt.emplace(key, d);
  } catch (...) {
    delete d;
    throw;
  }
  return d;
}

TavVarDomainI* TavEnvI::getOrMakeSharedDomain(const TavNumRangeI* range) {
  return getOrMakeSharedDomain(range->getLB(), range->getUB());
}

TavVarDomainI* TavEnvI::getOrMakeSharedDomain(const TavIntRangeI* range) {
  return getOrMakeSharedDomain(range->getLB(), range->getUB());
}
