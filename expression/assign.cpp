// Compound assignment of the counted handles: the handle's reference moves
// to the operator's result, and TavExpr merges into its own node in place.
#include "checks.h"
#include "operators.h"

using tav_detail::isIntLin;
using tav_detail::isNumLin;
using tav_detail::isVar;
using tav_detail::need;
using tav_detail::numFromInt;
using tav_detail::sameEnv;

namespace {
// e op= x: the handle's reference moves from the old node to the result;
// the old node is then held by the result or consumed into it (the operator
// may end it, so it is not read afterwards).
template <class Arg, class Handle, class Build>
void compound(Handle& h, Build build) {
  auto* old = need(h.getImpl());
  old->unlockRef();
  Arg result;
  try {
    result = build(Arg(old));
  } catch (...) {
    old->lockRef();
    throw;
  }
  h.reassign(result.getImpl());
}
}  // namespace

TavNumExpr& TavNumExpr::operator+=(const TavNumExprArg& arg) {
  sameEnv(need(_impl)->getEnv(), need(arg.getImpl())->getEnv(),
          "TavNumExpr& TavNumExpr::operator += const TavNumExprArg arg : mixing mismatch Environments");
  compound<TavNumExprArg>(*this, [&](TavNumExprArg e) { return e + arg; });
  return *this;
}

TavNumExpr& TavNumExpr::operator-=(const TavNumExprArg& arg) {
  sameEnv(need(_impl)->getEnv(), need(arg.getImpl())->getEnv(),
          "TavNumExpr& TavNumExpr::operator -= const TavNumExprArg arg : mixing mismatch Environments");
  compound<TavNumExprArg>(*this, [&](TavNumExprArg e) { return e - arg; });
  return *this;
}

TavNumExpr& TavNumExpr::operator+=(double d) {
  compound<TavNumExprArg>(*this, [d](TavNumExprArg e) { return e + d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator-=(double d) {
  compound<TavNumExprArg>(*this, [d](TavNumExprArg e) { return e - d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator*=(double d) {
  compound<TavNumExprArg>(*this, [d](TavNumExprArg e) { return e * d; });
  return *this;
}
TavNumExpr& TavNumExpr::operator/=(double d) {
  compound<TavNumExprArg>(*this, [d](TavNumExprArg e) { return e / d; });
  return *this;
}

namespace {
/// A linear operand to merge into another node: itself when it is a
/// temporary, else a copy (an integer one is converted and left as it is),
/// negated when asked. A failure leaves the operand as it was.
TavNumLinTermI* mergeable(TavNumExprI* e, bool negate) {
  TavNumLinTermI* other = isIntLin(e) ? numFromInt(e) : static_cast<TavNumLinTermI*>(e->getRefCount() > 0 ? e->copy() : e);
  if (negate) {
    try {
      other->multiply(-1.0);
    } catch (...) {
      if (other != e) other->end();
      throw;
    }
  }
  return other;
}

/// e += a (or e -= a): a variable as a cell, a linear node merged, any other
/// node filed as a non-linear part (negated through the operator for -=).
void addExpr(TavExpr& h, const TavNumExprArg& a, bool negate) {
  TavNumExprI* e = a.getImpl();
  h.edit([&](TavNumLinTermI* lin) {
    if (isVar(e)) {
      lin->append(e->getEnv()->newTerm(static_cast<TavNumVarI*>(e), negate ? -1.0 : 1.0));
    } else if (isNumLin(e) || isIntLin(e)) {
      lin->append(mergeable(e, negate));
    } else {
      // -a may consume a temporary a: the part cell is taken before it.
      lin->appendMadePart([&] { return negate ? (-a).getImpl() : e; });
    }
  });
}

}  // namespace

TavExpr& TavExpr::operator+=(const TavNumExprArg& a) {
  TavNumExprI* e = need(a.getImpl());
  checkEnv(e->getEnv(), "TavExpr& TavNumExpr::operator += const TavNumExprArg arg : mixing mismatch Environments");
  addExpr(*this, a, false);
  return *this;
}

TavExpr& TavExpr::operator-=(const TavNumExprArg& a) {
  TavNumExprI* e = need(a.getImpl());
  checkEnv(e->getEnv(), "TavExpr& TavExpr::operator -= const TavNumExprArg arg : mixing mismatch Environments");
  addExpr(*this, a, true);
  return *this;
}

TavIntExpr& TavIntExpr::operator+=(TavInt c) {
  compound<TavIntExprArg>(*this, [c](TavIntExprArg e) { return e + c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator-=(TavInt c) {
  compound<TavIntExprArg>(*this, [c](TavIntExprArg e) { return e - c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator*=(TavInt c) {
  compound<TavIntExprArg>(*this, [c](TavIntExprArg e) { return e * c; });
  return *this;
}
TavIntExpr& TavIntExpr::operator+=(const TavIntExprArg& a) {
  compound<TavIntExprArg>(*this, [&a](TavIntExprArg e) { return e + a; });
  return *this;
}
TavIntExpr& TavIntExpr::operator-=(const TavIntExprArg& a) {
  compound<TavIntExprArg>(*this, [&a](TavIntExprArg e) { return e - a; });
  return *this;
}
