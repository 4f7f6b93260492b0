// Scalar products and sums.
#include "sums.h"

#include <type_traits>

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

/// Gives back a chain of cells from first (the last one's next is null).
void recycleChain(TavEnvI* env, TavNumLinExprTermI* first) {
  while (first) {
    TavNumLinExprTermI* next = first->_next;
    env->recycleTerm(first);
    first = next;
  }
}

/// The end of the run of positions from i (below end) that lie in one block
/// of a: within it, the elements are consecutive slots.
TavInt runEnd(const TavArrayI* a, TavInt i, TavInt end) {
  const TavInt blockEnd = ((i >> a->getBlockShift()) + 1) << a->getBlockShift();
  return blockEnd < end ? blockEnd : end;
}

/// Where the coefficients of a scalar product come from: at(i) points at
/// coefficient i, and the ones up to run(i, end) lie after it in memory.
template <class T>
struct ArrayCoefs {  // a number array: a run ends with its block
  const TavArrayI* a;
  TavInt run(TavInt i, TavInt end) const { return runEnd(a, i, end); }
  const TavArraySlot* at(TavInt i) const { return &a->at(i); }
  static double get(const TavArraySlot* s, TavInt k) {
    if constexpr (std::is_same<T, double>::value) return s[k].num;
    else return (double)s[k].integer;
  }
};
template <class T>
ArrayCoefs<T> coefsOf(const TavValueArray<T>& c) {
  return ArrayCoefs<T>{c.getImpl()};
}
template <class T>
struct RawCoefs {  // numbers the caller holds in one block of memory
  const T* p;
  TavInt run(TavInt, TavInt end) const { return end; }
  const T* at(TavInt i) const { return p + i; }
  static double get(const T* s, TavInt k) { return (double)s[k]; }
};
struct UnitCoefs {  // every coefficient 1
  TavInt run(TavInt, TavInt end) const { return end; }
  const void* at(TavInt) const { return nullptr; }
  static double get(const void*, TavInt) { return 1.0; }
};

/// Makes one new cell (x[i], c[i]) per position, chained in order, after
/// check(x[i]); returns the first and sets last. Only a failed check or a
/// failed allocation throws, and the cells made go back. With ChecksWin, a
/// failed allocation is passed on only after the remaining variables passed
/// their checks: the result of checking every variable before any cell. The
/// arrays are walked a block at a time.
template <bool ChecksWin, class Coefs, class Check>
TavNumLinExprTermI* chainTerms(TavEnvI* env, const TavArrayI* x, const Coefs& c, Check check,
                               TavNumLinExprTermI*& last) {
  TavNumLinExprTermI* first = nullptr;
  TavNumLinExprTermI** link = &first;
  TavNumLinExprTermI* tail = nullptr;  // a local, so that the loop keeps it in a register
  const TavInt n = x->getSize();
  try {
    for (TavInt start = 0; start < n;) {
      const TavInt end = c.run(start, runEnd(x, start, n));
      const TavArraySlot* xs = &x->at(start);
      const auto cs = c.at(start);
      for (TavInt k = 0; k < end - start; ++k) {
        TavNumVarI* v = static_cast<TavNumVarI*>(xs[k].obj);
        check(v);
        TavNumLinExprTermI* cell;
        try {
          cell = env->newTerm(v, Coefs::get(cs, k));
        } catch (...) {
          if (ChecksWin)
            for (TavInt j = start + k + 1; j < n; ++j) check(static_cast<TavNumVarI*>(x->at(j).obj));
          throw;
        }
        *link = tail = cell;
        link = &cell->_next;
      }
      start = end;
    }
  } catch (...) {
    *link = nullptr;
    recycleChain(env, first);
    last = nullptr;
    throw;
  }
  *link = nullptr;
  last = tail;
  return first;
}

/// The linear node of kind Lin of env, holding a chain from chainTerms (the
/// chain goes back if the node cannot be made).
template <class Lin>
Lin* nodeOfChain(TavEnvI* env, TavNumLinExprTermI* first, TavNumLinExprTermI* last) {
  Lin* lin;
  try {
    lin = new (env) Lin(env, 0);
  } catch (...) {
    recycleChain(env, first);
    throw;
  }
  if (first) lin->appendChain(first, last);
  return lin;
}

template <class Lin, class Coefs, class Vars>
Lin* overVarsOf(const Coefs& c, const Vars& x) {
  TavEnvI* env = x.getImpl()->getEnv();
  TavNumLinExprTermI* last;
  TavNumLinExprTermI* first =
      chainTerms<true>(env, x.getImpl(), c, tav_detail::LivesInRun(env, Mismatch), last);
  return nodeOfChain<Lin>(env, first, last);
}

/// A linear node of the variables' environment with one cell (x[i], c[i])
/// per position, in order: nothing is merged. Each variable is checked (its
/// environment from its address, not read from it) as its cell is made.
template <class Lin, class Coefs, class Vars>
Lin* overVars(const Coefs& c, const Vars& x) {
  sameSize(c, x);
  return overVarsOf<Lin>(coefsOf(c), x);
}

/// The same from n coefficients the caller holds.
template <class Lin, class T, class Vars>
Lin* overVars(const T* c, TavInt n, const Vars& x) {
  tav_detail::need(x);
  if (n < 0 || (n > 0 && c == nullptr)) throw TavWrongUsage("TavScalProd: no coefficients", 0);
  if (n != x.getSize()) throw TavInvalidScalProdArraysException();
  return overVarsOf<Lin>(RawCoefs<T>{c}, x);
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

/// The sum of a variable array: a counted handle started at 0 takes one
/// cell (x[i], 1) per position, each variable checked as `e += x[i]` checks
/// it, then hands the node back as a temporary.
template <class Handle, class Lin, class Array>
typename Handle::ResultArg sumOfVars(const Array& a, const char* message) {
  tav_detail::need(a);
  Handle e(a.getEnv(), 0);
  Lin* lin = static_cast<Lin*>(e.getImpl());
  TavEnvI* env = lin->getEnv();
  TavNumLinExprTermI* last;
  TavNumLinExprTermI* first;
  try {
    first = chainTerms<false>(env, a.getImpl(), UnitCoefs{}, tav_detail::LivesInRun(env, message), last);
  } catch (...) {
    e.end();
    throw;
  }
  if (first) lin->appendChain(first, last);
  lin->unlockRef();
  return typename Handle::ResultArg(lin);
}

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

TavNumExprArg TavScalProd(const std::vector<double>& c, TavNumVarArray x) {
  return overVars<TavNumLinTermI>(c.data(), (TavInt)c.size(), x);
}
TavNumExprArg TavScalProd(TavNumVarArray x, const std::vector<double>& c) { return TavScalProd(c, x); }
TavNumExprArg TavScalProd(const std::vector<double>& c, TavIntVarArray x) {
  return overVars<TavNumLinTermI>(c.data(), (TavInt)c.size(), x);
}
TavNumExprArg TavScalProd(TavIntVarArray x, const std::vector<double>& c) { return TavScalProd(c, x); }
TavIntExprArg TavScalProd(const std::vector<TavInt>& c, TavIntVarArray x) {
  return overVars<TavIntLinTermI>(c.data(), (TavInt)c.size(), x);
}
TavIntExprArg TavScalProd(TavIntVarArray x, const std::vector<TavInt>& c) { return TavScalProd(c, x); }
TavNumExprArg TavScalProd(const double* c, TavInt n, TavNumVarArray x) { return overVars<TavNumLinTermI>(c, n, x); }
TavNumExprArg TavScalProd(const double* c, TavInt n, TavIntVarArray x) { return overVars<TavNumLinTermI>(c, n, x); }
TavIntExprArg TavScalProd(const TavInt* c, TavInt n, TavIntVarArray x) { return overVars<TavIntLinTermI>(c, n, x); }

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
// The messages are those of the compound assignment each element once went through.
TavNumExprArg TavSum(TavNumVarArray a) {
  return sumOfVars<NumSum, TavNumLinTermI>(
      a, "TavExpr& TavNumExpr::operator += const TavNumVar arg : mixing mismatch Environments");
}
TavIntExprArg TavSum(TavIntExprArray a) { return sumOf<IntSum, TavIntExprArray, TavIntExprArg>(a); }
TavIntExprArg TavSum(TavIntVarArray a) {
  return sumOfVars<IntSum, TavIntLinTermI>(
      a, "TavIntExprArg operator + const TavIntExprArg const TavIntExprArg: mixing mismatch Environments");
}

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
