// Values of variables and expressions in an algorithm, and the model
// evaluator's handle-taking members: the host holds the algorithms and the
// value table, the nodes are known here.
#include "variables.h"

double TavValueIn(const TavAlgorithm& alg, const TavNumVar& var) {
  if (var.getImpl() == nullptr || alg.getImpl() == nullptr) throw TavEmptyHandleException();
  return alg.getImpl()->getValue(var.getImpl());
}

double TavValueIn(const TavAlgorithm& alg, const TavNumExprArg& expr) {
  if (expr.getImpl() == nullptr || alg.getImpl() == nullptr) throw TavEmptyHandleException();
  return expr.getImpl()->eval(alg);
}

void TavSetValueIn(TavModelEvaluator& evaluator, const TavNumVar& var, TavInt value) {
  if (var.getImpl() == nullptr) throw TavEmptyHandleException();
  evaluator.setVarValue(var.getImpl(), value);
}

TavInt TavEvaluateIn(const TavModelEvaluator& evaluator, const TavIntExprArg& expr) {
  TavNumExprI* e = expr.getImpl();
  if (e == nullptr) throw TavEmptyHandleException();
  // A variable is looked up directly, so that its own fallback ends here.
  if (e->isType(TavNumVarI::GetTypeInfo())) return evaluator.getValue(static_cast<TavNumVarI*>(e));
  return TavTrunc(e->eval(evaluator.getReader()));
}
