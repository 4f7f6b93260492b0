// Arrays of variables and expressions: reference handling, conversions,
// cloning and the array-wide bound change.
#include "arrays.h"

#include <vector>

#include "checks.h"

TAV_DEFINE_CHANGE_STATICS(TavSetNumVarArrayBounds)

namespace {
template <class Array>
void lockAll(const Array& a) {
  for (TavInt i = 0; i < a.getSize(); ++i)
    if (TavNumExprI* e = a.getElement(i)) e->lockRef();
}

template <class Array>
void releaseAll(const Array& a) {
  for (TavInt i = 0; i < a.getSize(); ++i)
    if (TavNumExprI* e = a.getElement(i)) e->getEnv()->release(e);
}

template <class Array>
void endAll(const Array& a) {
  for (TavInt i = 0; i < a.getSize(); ++i) a.getElement(i)->end();
}

/// A new array of env (or of each element's own environment when env is
/// null) holding every element's registered clone, in order.
/// A new array of env filled with pick(i) for every index of a; the array
/// goes again if it cannot be filled.
template <class Out, class In, class Pick>
Out filled(TavEnv env, const In& a, Pick pick) {
  Out out(env, 0);
  try {
    for (TavInt i = 0; i < a.getSize(); ++i) out.addObject(pick(i));
  } catch (...) {
    out.end();
    throw;
  }
  return out;
}

template <class Array>
Array clonesOf(const Array& a, TavEnvI* env) {
  return filled<Array>(TavEnv(env ? env : a.getImpl()->getEnv()), a, [&](TavInt i) {
    TavExtractableI* e = a.getObject(i);
    return (env ? env : e->getEnv())->getClone(e);
  });
}

/// The same elements in an array of another kind.
template <class Out, class In>
Out sameElements(const In& a) {
  return filled<Out>(a.getEnv(), a, [&](TavInt i) { return a.getObject(i); });
}
}  // namespace

void TavNumExprArray::lockExprs() const { lockAll(*this); }
void TavNumExprArray::releaseExprs() const { releaseAll(*this); }
void TavNumExprArray::endElements() const { endAll(*this); }
void TavNumExprArray::replaceByClone(TavEnvI* env) { _impl = clonesOf(*this, env).getImpl(); }

void TavIntExprArray::lockExprs() const { lockAll(*this); }
void TavIntExprArray::releaseExprs() const { releaseAll(*this); }
void TavIntExprArray::endElements() const { endAll(*this); }
TavIntExprArray TavIntExprArray::getClone(TavEnvI* env) const { return clonesOf(*this, env); }
void TavIntExprArray::replaceByClone(TavEnvI* env) { _impl = getClone(env).getImpl(); }

TavNumVarArray TavNumVarArray::getClone(TavEnvI* env) const { return clonesOf(*this, env); }
TavIntVarArray TavIntVarArray::getClone(TavEnvI* env) const { return clonesOf(*this, env); }
TavBoolVarArray TavBoolVarArray::getClone(TavEnvI* env) const { return clonesOf(*this, env); }

TavNumExprArray TavNumVarArray::toNumExprArray() const { return sameElements<TavNumExprArray>(*this); }
TavIntExprArray TavIntVarArray::toIntExprArray() const { return sameElements<TavIntExprArray>(*this); }
TavNumVarArray TavIntVarArray::toNumVarArray() const { return sameElements<TavNumVarArray>(*this); }

void TavNumVarArray::setBounds(TavNumArray lbs, TavNumArray ubs) const {
  tav_detail::needAll(lbs, ubs);
  TavEnvI* env = nullptr;
  for (TavInt i = 0; i < getSize(); ++i) {
    TavNumVarI* var = getElement(i);
    if (var == nullptr) continue;
    // Upper bound first, on the domain as it stands: a shared domain
    // changes for every variable that shares it.
    if (TavVarDomainI* d = var->getDomain()) {
      d->setUB(ubs[i]);
      d->setLB(lbs[i]);
    } else {
      var->makeDomain(lbs[i], ubs[i]);
    }
    if (env == nullptr) env = var->getEnv();
  }
  if (env) env->change(TavSetNumVarArrayBounds(_impl, lbs.getImpl(), ubs.getImpl()));
}

// ------------------------------------------------------------------ bulk construction

// Only the numeric family's k = 1 message has a blank before the count.
const char* const TavNumVarArray::ListMessages[11] = {
    nullptr, "TavNumVarArray::TavNumVarArray: n != 1", "TavNumVarArray::TavNumVarArray: n !=2",
    "TavNumVarArray::TavNumVarArray: n !=3", "TavNumVarArray::TavNumVarArray: n !=4",
    "TavNumVarArray::TavNumVarArray: n !=5", "TavNumVarArray::TavNumVarArray: n !=6",
    "TavNumVarArray::TavNumVarArray: n !=7", "TavNumVarArray::TavNumVarArray: n !=8",
    "TavNumVarArray::TavNumVarArray: n !=9", "TavNumVarArray::TavNumVarArray: n !=10"};
const char* const TavIntVarArray::ListMessages[11] = TAV_LIST_MESSAGES("TavIntVarArray::TavIntVarArray: n !=");
const char* const TavBoolVarArray::ListMessages[11] = TAV_LIST_MESSAGES("TavBoolVarArray::TavBoolVarArray: n !=");

using tav_detail::envOf;
using tav_detail::needAll;

namespace {
const char* const NumPairMessage = "TavNumVarArray::TavNumVarArray: bounds arrays of different size";
const char* const NumColumnMessage = "TavNumVarArray::TavNumVarArray: bounds arrays shorter than the column array";
const char* const IntPairMessage = "TavIntVarArray::TavIntVarArray: bounds arrays of different size";
const char* const IntColumnMessage = "TavIntVarArray::TavIntVarArray: bounds arrays shorter than the column array";

}  // namespace

void tav_detail::uninstall(TavAddExtractableI* column, TavExtractableI* var) {
  TavExtractableArray record = column->getInstalled();
  const TavInt n = record.getImpl() ? record.getSize() : 0;
  if (n > 0 && record.getObject(n - 1) == var) record.remove(n - 1);
}

TavNumVarArray::TavNumVarArray(TavEnv env, TavInt n, double lb, double ub, TavNumVar::Type type)
    : TavHandleArray(tav_detail::buildArray<TavNumVarArray>(envOf(env), n, [&](TavInt) {
        return new (env.getImpl()) TavNumVarI(env.getImpl(), type, lb, ub);
      })) {}

TavNumVarArray::TavNumVarArray(TavEnv env, TavNumArray lbs, TavNumArray ubs, TavNumVar::Type type)
    : TavHandleArray((needAll(lbs, ubs), tav_detail::needLength(lbs.getSize(), NumPairMessage, ubs),
                      tav_detail::buildArray<TavNumVarArray>(envOf(env), lbs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), type, lbs[i], ubs[i]);
                      }))) {}

TavNumVarArray::TavNumVarArray(TavEnv env, double lb, TavNumArray ubs, TavNumVar::Type type)
    : TavHandleArray((needAll(ubs), tav_detail::buildArray<TavNumVarArray>(envOf(env), ubs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), type, lb, ubs[i]);
                      }))) {}

TavNumVarArray::TavNumVarArray(TavEnv env, TavNumArray lbs, double ub, TavNumVar::Type type)
    : TavHandleArray((needAll(lbs), tav_detail::buildArray<TavNumVarArray>(envOf(env), lbs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), type, lbs[i], ub);
                      }))) {}

TavNumVarArray::TavNumVarArray(TavEnv env, TavNumColumnArray cols, TavNumVar::Type type)
    : TavHandleArray(tav_detail::fromColumns<TavNumVarArray>(envOf(env), cols, [&](TavNumColumn c, TavInt) {
        return TavNumVar(c, 0.0, TavGetInfinity(), type).getImpl();
      })) {}

TavNumVarArray::TavNumVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray lbs, TavNumArray ubs,
                               TavNumVar::Type type)
    : TavHandleArray((needAll(cols, lbs, ubs), tav_detail::needLength(cols.getSize(), NumColumnMessage, lbs, ubs),
                      tav_detail::fromColumns<TavNumVarArray>(envOf(env), cols, [&](TavNumColumn c, TavInt i) {
                        return TavNumVar(c, lbs[i], ubs[i], type).getImpl();
                      }))) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavInt n, TavInt lb, TavInt ub)
    : TavHandleArray(tav_detail::buildArray<TavIntVarArray>(envOf(env), n, [&](TavInt) {
        return new (env.getImpl()) TavNumVarI(env.getImpl(), (double)lb, (double)ub, TavNumVar::Int);
      })) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavIntArray lbs, TavIntArray ubs)
    : TavHandleArray((needAll(lbs, ubs), tav_detail::needLength(lbs.getSize(), IntPairMessage, ubs),
                      tav_detail::buildArray<TavIntVarArray>(envOf(env), lbs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), (double)lbs[i], (double)ubs[i], TavNumVar::Int);
                      }))) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavInt lb, TavIntArray ubs)
    : TavHandleArray((needAll(ubs), tav_detail::buildArray<TavIntVarArray>(envOf(env), ubs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), (double)lb, (double)ubs[i], TavNumVar::Int);
                      }))) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavIntArray lbs, TavInt ub)
    : TavHandleArray((needAll(lbs), tav_detail::buildArray<TavIntVarArray>(envOf(env), lbs.getSize(), [&](TavInt i) {
                        return new (env.getImpl()) TavNumVarI(env.getImpl(), (double)lbs[i], (double)ub, TavNumVar::Int);
                      }))) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavNumColumnArray cols)
    : TavHandleArray(tav_detail::fromColumns<TavIntVarArray>(envOf(env), cols, [](TavNumColumn c, TavInt) {
        return TavIntVar(c, 0, TavIntMaxExact).getImpl();
      })) {}

TavIntVarArray::TavIntVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray lbs, TavNumArray ubs)
    : TavHandleArray((needAll(cols, lbs, ubs), tav_detail::needLength(cols.getSize(), IntColumnMessage, lbs, ubs),
                      tav_detail::fromColumns<TavIntVarArray>(envOf(env), cols, [&](TavNumColumn c, TavInt i) {
                        return TavIntVar(c, TavTrunc(lbs[i]), TavTrunc(ubs[i])).getImpl();
                      }))) {}

TavBoolVarArray::TavBoolVarArray(TavEnv env, TavNumColumnArray cols)
    : TavHandleArray(tav_detail::fromColumns<TavBoolVarArray>(envOf(env), cols, [](TavNumColumn c, TavInt) {
        return TavBoolVar(TavNumVar(c, 0.0, 1.0, TavNumVar::Bool)).getImpl();
      })) {}

TavBoolVarArray::TavBoolVarArray(const TavIntVarArray& a) : TavHandleArray(a.getImpl()) {
  for (TavInt i = 0; i < getSize(); ++i) {
    TavNumVarI* v = getElement(i);
    if (v == nullptr) throw TavWrongUsage("Using empty variable", 0);
    TavCheckBoolFromNum(v);
  }
}

namespace {
/// The elements again, after every element's type was found integral.
template <class Out>
Out integralElements(const TavNumVarArray& a) {
  for (TavInt i = 0; i < a.getSize(); ++i)
    if (a[i].getType() == TavNumVar::Float) throw TavBadConversion();
  return sameElements<Out>(a);
}
}  // namespace

TavIntExprArray TavNumVarArray::toIntExprArray() const { return integralElements<TavIntExprArray>(*this); }
TavIntVarArray TavNumVarArray::toIntVarArray() const { return integralElements<TavIntVarArray>(*this); }

// ------------------------------------------------------------------ coefficients of many variables

void TavNumLinTermI::setCoef(TavNumVarArray vars, TavNumArray coefs, TavNumArray previous) {
  TavEnvI* env = getEnv();
  const TavInt n = vars.getSize();
  // Every cell the change may need is made before anything changes; the
  // ones a present variable does not use go back at the end.
  std::vector<TavNumLinExprTermI*> spare;
  try {
    for (TavInt i = 0; i < n; ++i)
      if (coefs[i] != 0.0) {
        if (spare.size() == spare.capacity()) spare.reserve(2 * spare.size() + 8);
        spare.push_back(env->newTerm(vars.getElement(i), coefs[i]));
      }
    normalize();
  } catch (...) {
    for (TavNumLinExprTermI* c : spare) env->recycleTerm(c);
    throw;
  }
  std::size_t used = 0;
  // Always the per-variable marks, under markLock.
  TavMutex* lock = env->getMarkLock();
  if (lock) lock->lock();
  try {
    for (TavInt i = 0; i < n; ++i) vars.getElement(i)->_mark = nullptr;
    for (TavNumLinExprTermI* t = _first; t; t = t->_next) t->_var->_mark = t;
    for (TavInt i = 0; i < n; ++i) {
      TavNumVarI* v = vars.getElement(i);
      double c = coefs[i];
      TavNumLinExprTermI* t = v->_mark;
      double old = 0.0;
      if (c != 0.0) ++used;
      if (t == nullptr) {
        if (c != 0.0) {
          append(spare[used - 1]);
          spare[used - 1] = nullptr;
          TavNotify<TavNumLinTermAddVar>(this, this, v);
        }
      } else {
        old = t->_coef;
        t->_coef = c;
        if (old != 0.0 && c == 0.0) TavNotify<TavNumLinTermRemoveVar>(this, this, v);
        else if (old == 0.0 && c != 0.0) TavNotify<TavNumLinTermAddVar>(this, this, v);
      }
      if (previous.getImpl()) previous[i] = old;
    }
  } catch (...) {
    _normalized = 1;
    if (lock) lock->unlock();
    for (TavNumLinExprTermI* c : spare)
      if (c) env->recycleTerm(c);
    throw;
  }
  _normalized = 1;
  if (lock) lock->unlock();
  for (TavNumLinExprTermI* c : spare)
    if (c) env->recycleTerm(c);
}
