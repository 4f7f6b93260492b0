// Arrays of variables and expressions: reference handling, conversions,
// cloning and the array-wide bound change.
#include "arrays.h"

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
template <class Array>
Array clonesOf(const Array& a, TavEnvI* env) {
  Array out(TavEnv(env ? env : a.getImpl()->getEnv()), 0);
  for (TavInt i = 0; i < a.getSize(); ++i) {
    TavExtractableI* e = a.getObject(i);
    TavEnvI* where = env ? env : e->getEnv();
    out.addObject(where->getClone(e));
  }
  return out;
}

/// The same elements in an array of another kind.
template <class Out, class In>
Out sameElements(const In& a) {
  Out out(a.getEnv(), 0);
  for (TavInt i = 0; i < a.getSize(); ++i) out.addObject(a.getObject(i));
  return out;
}
}  // namespace

void TavNumExprArray::lockExprs() const { lockAll(*this); }
void TavNumExprArray::releaseExprs() const { releaseAll(*this); }
void TavNumExprArray::endElements() const { endAll(*this); }
void TavNumExprArray::replaceByClone(TavEnvI* env) {
  TavNumExprArray out(TavEnv(env), 0);
  for (TavInt i = 0; i < getSize(); ++i) out.add(TavNumExpr(getElement(i)).getClone(TavEnv(env)));
  _impl = out.getImpl();
}

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
  if (lbs.getImpl() == nullptr || ubs.getImpl() == nullptr) throw TavEmptyHandleException();
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
