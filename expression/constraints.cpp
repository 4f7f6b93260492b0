// The constraint base, constant constraints and constraint arrays.
#include "constraints.h"

#include "checks.h"

TAV_DEFINE_NODE_STATICS(TavConstraintI)
TAV_DEFINE_NODE_STATICS(TavConstConstraintI)
TavExtractableI::ObjectHook TavConstraintI::_addToCP = nullptr;
TavExtractableI::ObjectHook TavConstraintI::_removeFromCP = nullptr;

void TavConstraintI::whenAddedToCP(TavAlgorithm alg, void* data) const {
  TavRunHook<TavAlgorithm::ExtractFailure>(_addToCP, alg, this, data);
}

void TavConstraintI::whenRemovedFromCP(TavAlgorithm alg, void* data) const {
  TavRunHook<TavAlgorithm::ExtractFailure>(_removeFromCP, alg, this, data);
}

double TavConstraintI::eval(TavAlgorithm alg) const {
  // The algorithm answers for the constraint as a whole: a solver knows the
  // truth of what it extracted without evaluating it again.
  auto own = [this, alg] { return tav_detail::need(alg.getImpl())->getValue(this); };
  TavModelEvaluator* evaluator = getEnv()->getModelEvaluator();
  // The evaluator evaluates through its own reader; asking the evaluator
  // again from there would never end, so the reader answers as any algorithm.
  if (!evaluator->isActive() || alg.getImpl() == evaluator->getReader().getImpl()) return own();
  try {
    return (double)evaluator->evaluate(TavIntExprArg(const_cast<TavConstraintI*>(this)));
  } catch (const TavModelEvaluator::Unbound&) {
    throw;
  } catch (...) {
    // Any other failure of the evaluator: the algorithm's value stands in.
  }
  return own();
}

void TavConstConstraintI::display(std::ostream& os) const { os << (isTrue() ? "TrueConstraint " : "FalseConstraint "); }

void TavConstConstraintI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  visitor->endVisit(this);
}

TavExtractableI* TavConstConstraintI::makeClone(TavEnvI*) const {
  TavEnvI* own = getEnv();
  return new (own) TavConstConstraintI(own, nullptr, _truth);
}

const char* const TavConstraintArray::ListMessages[11] =
    TAV_LIST_MESSAGES("TavConstraintArray::TavConstraintArray: n !=");
