// Scalar products and sums.
#include "sums.h"

#include "checks.h"
#include "operators.h"

namespace {
const char* const Mismatch = "TavScalProd: mixing mismatch environments";

template <class A, class B>
void sameSize(const A& a, const B& b) {
  tav_detail::needAll(a, b);
  if (a.getSize() != b.getSize()) throw TavInvalidScalProdArraysException();
}

/// A new linear node of env filled by fill(lin); it goes again if fill fails.
template <class Lin, class Fill>
Lin* filled(TavEnvI* env, Fill fill) {
  Lin* lin = new (env) Lin(env, 0);
  try {
    fill(lin);
  } catch (...) {
    delete lin;
    throw;
  }
  return lin;
}

/// A linear node of the variables' environment with one cell (x[i], c[i])
/// per position, in order: nothing is merged.
template <class Lin, class Coefs, class Vars>
Lin* overVars(const Coefs& c, const Vars& x) {
  sameSize(c, x);
  TavEnvI* env = x.getImpl()->getEnv();
  tav_detail::elementsIn(env, x, Mismatch);
  return filled<Lin>(env, [&](Lin* lin) {
    for (TavInt i = 0; i < x.getSize(); ++i) lin->append(env->newTerm(x.getElement(i), (double)c[i]));
  });
}

/// A linear node with the product a[i] * b[i] appended per position.
template <class Lin, class Arg, class Array>
Lin* overExprs(const Array& a, const Array& b) {
  sameSize(a, b);
  TavEnvI* env = a.getImpl()->getEnv();
  tav_detail::elementsIn(env, a, Mismatch);
  tav_detail::elementsIn(env, b, Mismatch);
  return filled<Lin>(env, [&](Lin* lin) {
    for (TavInt i = 0; i < a.getSize(); ++i)
      lin->appendMadePart([&] { return (Arg(a.getElement(i)) * Arg(b.getElement(i))).getImpl(); });
  });
}

template <class R, class A, class B>
R overNumbers(const A& a, const B& b) {
  sameSize(a, b);
  R sum = 0;
  for (TavInt i = 0; i < a.getSize(); ++i) sum += (R)a[i] * (R)b[i];
  return sum;
}

// Wrapping 64-bit arithmetic for the all-integer forms.
TavInt wrapAdd(TavInt a, TavInt b) { return (TavInt)((unsigned long)a + (unsigned long)b); }
TavInt wrapMul(TavInt a, TavInt b) { return (TavInt)((unsigned long)a * (unsigned long)b); }

/// Adds every element to a counted handle started at 0, then hands the node
/// back as a temporary.
template <class Handle, class Array, class Arg>
typename Handle::ResultArg sumOf(const Array& a) {
  tav_detail::need(a);
  Handle e(a.getEnv(), 0);
  try {
    for (TavInt i = 0; i < a.getSize(); ++i) e += Arg(a.getElement(i));
  } catch (...) {
    e.end();
    throw;
  }
  auto* node = e.getImpl();
  node->unlockRef();
  return typename Handle::ResultArg(node);
}

struct NumSum : TavExpr {
  typedef TavNumExprArg ResultArg;
  NumSum(TavEnv env, int) : TavExpr(env, 0.0) {}
};
struct IntSum : TavIntExpr {
  typedef TavIntExprArg ResultArg;
  IntSum(TavEnv env, int) : TavIntExpr(env, (TavInt)0) {}
};

}  // namespace

TavNumExprArg TavScalProd(TavNumArray c, TavNumVarArray x) { return overVars<TavNumLinTermI>(c, x); }
TavNumExprArg TavScalProd(TavNumVarArray x, TavNumArray c) { return overVars<TavNumLinTermI>(c, x); }
TavNumExprArg TavScalProd(TavNumArray c, TavIntVarArray x) { return overVars<TavNumLinTermI>(c, x); }
TavNumExprArg TavScalProd(TavIntVarArray x, TavNumArray c) { return overVars<TavNumLinTermI>(c, x); }
TavNumExprArg TavScalProd(TavIntArray c, TavNumVarArray x) { return overVars<TavNumLinTermI>(c, x); }
TavNumExprArg TavScalProd(TavNumVarArray x, TavIntArray c) { return overVars<TavNumLinTermI>(c, x); }
TavIntExprArg TavScalProd(TavIntArray c, TavIntVarArray x) { return overVars<TavIntLinTermI>(c, x); }
TavIntExprArg TavScalProd(TavIntVarArray x, TavIntArray c) { return overVars<TavIntLinTermI>(c, x); }

TavNumExprArg TavScalProd(TavNumExprArray a, TavNumExprArray b) {
  return overExprs<TavNumLinTermI, TavNumExprArg>(a, b);
}
TavIntExprArg TavScalProd(TavIntExprArray a, TavIntExprArray b) {
  return overExprs<TavIntLinTermI, TavIntExprArg>(a, b);
}

double TavScalProd(TavNumArray a, TavNumArray b) { return overNumbers<double>(a, b); }
double TavScalProd(TavIntArray a, TavNumArray b) { return overNumbers<double>(a, b); }
double TavScalProd(TavNumArray a, TavIntArray b) { return overNumbers<double>(a, b); }
TavInt TavScalProd(TavIntArray a, TavIntArray b) {
  sameSize(a, b);
  TavInt sum = 0;
  for (TavInt i = 0; i < a.getSize(); ++i) sum = wrapAdd(sum, wrapMul(a[i], b[i]));
  return sum;
}

TavNumExprArg TavSum(TavNumExprArray a) { return sumOf<NumSum, TavNumExprArray, TavNumExprArg>(a); }
TavNumExprArg TavSum(TavNumVarArray a) { return sumOf<NumSum, TavNumVarArray, TavNumVar>(a); }
TavIntExprArg TavSum(TavIntExprArray a) { return sumOf<IntSum, TavIntExprArray, TavIntExprArg>(a); }
TavIntExprArg TavSum(TavIntVarArray a) { return sumOf<IntSum, TavIntVarArray, TavIntExprArg>(a); }

double TavSum(TavNumArray a) {
  double s = 0;
  for (TavInt i = 0; i < a.getSize(); ++i) s += a[i];
  return s;
}

TavInt TavSum(TavIntArray a) {
  TavInt s = 0;
  for (TavInt i = 0; i < a.getSize(); ++i) s = wrapAdd(s, a[i]);
  return s;
}
