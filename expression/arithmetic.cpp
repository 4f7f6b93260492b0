// Builders of the integer quotients and of minimum and maximum. Every check
// runs before anything is allocated, so a throw leaves the model unchanged.
#include "arithmetic.h"

#include "functions.h"

TAV_PRODUCT_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS)
TAV_MINMAX_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS, TAV_ROW_STATICS)
TAV_MODULO_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS)

namespace {

template <class H>
auto need(const H& h) -> decltype(h.getImpl()) {
  if (h.getImpl() == nullptr) throw TavEmptyHandleException();
  return h.getImpl();
}

template <class Node, class H>
H binaryNode(const H& a, const H& b, const char* mismatch) {
  auto x = need(a);
  auto y = need(b);
  TavEnvI* env = x->getEnv();
  if (y->getEnv() != env) throw TavWrongUsage(mismatch, 0);
  return H(new (env) Node(env, x, y));
}

template <class Node, class H, class C>
H cstNode(const H& a, C c) {
  auto x = need(a);
  return H(new (x->getEnv()) Node(x->getEnv(), x, c));
}

/// The array's environment, after checking every element against it.
template <class Array>
TavEnvI* checkedEnv(const Array& a, const char* mismatch) {
  const TavInt n = a.getSize();
  TavEnvI* env = a.getImpl()->getEnv();
  for (TavInt i = 0; i < n; ++i) {
    TavExtractableI* e = a.getObject(i);
    if (e == nullptr) throw TavEmptyHandleException();
    if (e->getEnv() != env) throw TavWrongUsage(mismatch, 0);
  }
  return env;
}

/// A node over a fresh array; the array goes if the node cannot be made.
template <class Node, class H, class Array>
H ownArrayNode(TavEnvI* env, Array fresh) {
  try {
    return H(new (env) Node(env, fresh));
  } catch (...) {
    fresh.end();
    throw;
  }
}

/// A node over a copy of the caller's array, which stays the caller's.
template <class Node, class H, class Array>
H arrayNode(const Array& a, const char* mismatch) {
  TavEnvI* env = checkedEnv(a, mismatch);
  Array copy(TavEnv(env), 0);
  try {
    copy.add(a);
  } catch (...) {
    copy.end();
    throw;
  }
  return ownArrayNode<Node, H>(env, copy);
}

template <class Node, class H, class VarArray, class Convert>
H varArrayNode(const VarArray& a, const char* mismatch, Convert convert) {
  TavEnvI* env = checkedEnv(a, mismatch);
  return ownArrayNode<Node, H>(env, convert(a));
}

/// The least (or, with Better = greater, the greatest) number of a, at once.
template <class T, class Better>
T pick(const TavValueArray<T>& a, const char* emptyMessage, Better better) {
  const TavInt n = a.getSize();
  if (n == 0) throw TavArrayError(emptyMessage, 0);
  T m = a[0];
  for (TavInt i = 0; i < n; ++i)
    if (better(a[i], m)) m = a[i];
  return m;
}

TavNumExprArray numExprs(const TavNumVarArray& a) { return a.toNumExprArray(); }
TavIntExprArray intExprs(const TavIntVarArray& a) { return a.toIntExprArray(); }

const char* const DivMismatch = "TavDiv: mixing mismatch Environments";

}  // namespace

TavIntExprArg TavDiv(const TavIntExprArg& a, const TavIntExprArg& b) {
  return binaryNode<TavIntDivI>(a, b, DivMismatch);
}
TavIntExprArg TavDiv(const TavIntExprArg& x, TavInt c) { return cstNode<TavIntDivCstI>(x, c); }
TavIntExprArg TavDiv(TavInt c, const TavIntExprArg& x) { return cstNode<TavIntRecDivCstI>(x, c); }
TavIntExprArg TavDiv(const TavIntExprArg& x, int c) { return TavDiv(x, (TavInt)c); }
TavIntExprArg TavDiv(int c, const TavIntExprArg& x) { return TavDiv((TavInt)c, x); }

// Minimum and maximum share every builder; only the node classes, the
// messages and the comparison differ. Kind is Min or Max; Better(v, m)
// tells when v replaces the running value m.
#define TAV_MINMAX_DEFINE(F, Kind, Better)                                                              \
  TavNumExprArg F(const TavNumExprArg& a, const TavNumExprArg& b) {                                     \
    return binaryNode<TavNum##Kind##I>(a, b, #F ": mixing mismatch Environments");                      \
  }                                                                                                     \
  TavNumExprArg F(const TavNumExprArg& x, double c) { return cstNode<TavNum##Kind##CstI>(x, c); }       \
  TavNumExprArg F(double c, const TavNumExprArg& x) { return cstNode<TavNum##Kind##CstI>(x, c); }       \
  TavIntExprArg F(const TavIntExprArg& a, const TavIntExprArg& b) {                                     \
    return binaryNode<TavInt##Kind##I>(a, b, #F ": mixing mismatch Environments");                      \
  }                                                                                                     \
  TavIntExprArg F(const TavIntExprArg& x, TavInt c) { return cstNode<TavInt##Kind##CstI>(x, c); }       \
  TavIntExprArg F(const TavIntExprArg& x, int c) { return F(x, (TavInt)c); }                            \
  TavIntExprArg F(TavInt c, const TavIntExprArg& x) { return F(x, c); }                                 \
  TavIntExprArg F(int c, const TavIntExprArg& x) { return F(x, (TavInt)c); }                            \
  TavNumExprArg F(const TavNumExprArray& a) {                                                           \
    return arrayNode<TavNum##Kind##ArrayI, TavNumExprArg>(a, #F ": mixing mismatch Environments");      \
  }                                                                                                     \
  TavIntExprArg F(const TavIntExprArray& a) {                                                           \
    return arrayNode<TavInt##Kind##ArrayI, TavIntExprArg>(a, #F ": mixing mismatch Environments");      \
  }                                                                                                     \
  TavNumExprArg F(const TavNumVarArray& a) {                                                            \
    return varArrayNode<TavNum##Kind##ArrayI, TavNumExprArg>(a, #F ": mixing mismatch Environments",    \
                                                             numExprs);                                 \
  }                                                                                                     \
  TavIntExprArg F(const TavIntVarArray& a) {                                                            \
    return varArrayNode<TavInt##Kind##ArrayI, TavIntExprArg>(a, #F ": mixing mismatch Environments",    \
                                                             intExprs);                                 \
  }                                                                                                     \
  double F(const TavNumArray& a) {                                                                      \
    return pick(a, "Array of size 0 in call to " #F, [](double v, double m) { return Better; });        \
  }                                                                                                     \
  TavInt F(const TavIntArray& a) {                                                                      \
    return pick(a, "Array of size 0 in call to " #F, [](TavInt v, TavInt m) { return Better; });        \
  }

TAV_MINMAX_DEFINE(TavMin, Min, m > v)
TAV_MINMAX_DEFINE(TavMax, Max, v > m)
#undef TAV_MINMAX_DEFINE
