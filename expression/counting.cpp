// Count and standard deviation: the nodes and their builders.
#include "counting.h"

#include <cmath>

#include "checks.h"

TAV_DEFINE_NODE_STATICS(TavCountI)
TAV_DEFINE_NODE_STATICS(TavStandardDeviationI)

namespace {

/// The messages of one builder, in the order its checks run.
struct ArrayMessages {
  const char* empty;
  const char* emptyElement;
  const char* mismatch;
};
const ArrayMessages CountMessages = {"TavCount: array of size 0", "TavCount: empty handle in array",
                                     "TavCount: mixing mismatch Environments"};
const ArrayMessages DeviationMessages = {"TavStandardDeviation: array of size 0",
                                         "TavStandardDeviation: empty handle in array",
                                         "TavStandardDeviation: mixing mismatch Environments"};

/// The array's environment, once the array has elements and every element
/// is set and lives there. Both tests run per element, in index order, so
/// the first faulty element is the one reported.
template <class Array>
TavEnvI* checkedEnv(const Array& a, const ArrayMessages& messages) {
  TavEnvI* env = tav_detail::envOf(a);
  const TavInt n = a.getSize();
  if (n == 0) throw TavArrayError(messages.empty, 0);
  for (TavInt i = 0; i < n; ++i) {
    const TavExtractableI* e = a.getObject(i);
    if (e == nullptr) throw TavArrayError(messages.emptyElement, 0);
    tav_detail::sameEnv(e->getEnv(), env, messages.mismatch);
  }
  return env;
}

}  // namespace

// ------------------------------------------------------------------ count

double TavCountI::eval(TavAlgorithm alg) const {
  const TavInt n = _exprs.getSize();
  if (n == 0) throw TavArrayError("Array of size 0 in evaluation of TavCount", 0);
  const double value = (double)_value;
  TavInt count = 0;
  for (TavInt i = 0; i < n; ++i)
    if (_exprs.valueAt(i, alg) == value) ++count;
  return (double)count;
}

void TavCountI::display(std::ostream& os) const { tav_detail::displayCall(os, this, Texts, _exprs, _value); }

void TavCountI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  _exprs.visit(this, visitor);
  visitor->endVisit(this);
}

TavExtractableI* TavCountI::makeClone(TavEnvI* env) const {
  return new (env) TavCountI(env, _exprs.clone(this), _value, 0);
}

TavIntExprArg TavCount(const TavIntExprArray& exprs, TavInt value) {
  TavEnvI* env = checkedEnv(exprs, CountMessages);
  return TavIntExprArg(new (env) TavCountI(env, exprs, value));
}

TavIntExprArg TavCount(const TavIntVarArray& vars, TavInt value) {
  // Variables are integer expressions: a view of the same slots.
  return TavCount(TavIntExprArray(vars.getImpl()), value);
}

// ------------------------------------------------------------------ standard deviation

double TavStandardDeviationI::eval(TavAlgorithm alg) const {
  const TavInt n = _exprs.getSize();
  if (n == 0) throw TavArrayError("Array of size 0 in evaluation of TavStandardDeviation", 0);
  double sum = 0.0;
  for (TavInt i = 0; i < n; ++i) sum += _exprs.valueAt(i, alg);
  const double mean = sum / (double)n;
  // Every element is read again: a solver may count evaluations.
  double squares = 0.0;
  for (TavInt i = 0; i < n; ++i) {
    const double d = _exprs.valueAt(i, alg) - mean;
    squares += d * d;
  }
  return std::sqrt(squares / (double)n);
}

void TavStandardDeviationI::display(std::ostream& os) const { tav_detail::displayCall(os, this, Texts, _exprs); }

void TavStandardDeviationI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  _exprs.visit(this, visitor);
  visitor->endVisit(this);
}

TavExtractableI* TavStandardDeviationI::makeClone(TavEnvI* env) const {
  return new (env) TavStandardDeviationI(env, _exprs.clone(this), _lowerBound, _upperBound, 0);
}

TavNumExprArg TavStandardDeviation(const TavIntExprArray& exprs, double lowerBound, double upperBound) {
  TavEnvI* env = checkedEnv(exprs, DeviationMessages);
  return TavNumExprArg(new (env) TavStandardDeviationI(env, exprs, lowerBound, upperBound));
}

TavNumExprArg TavStandardDeviation(const TavIntVarArray& vars, double lowerBound, double upperBound) {
  return TavStandardDeviation(TavIntExprArray(vars.getImpl()), lowerBound, upperBound);
}

TavNumExprArg TavStandardDeviation(const TavIntExprArray& exprs) {
  return TavStandardDeviation(exprs, -TavGetInfinity(), TavGetInfinity());
}

TavNumExprArg TavStandardDeviation(const TavIntVarArray& vars) {
  return TavStandardDeviation(vars, -TavGetInfinity(), TavGetInfinity());
}
