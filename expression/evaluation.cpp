// Values of variables and expressions in an algorithm, and the model
// evaluator's handle-taking members: the host holds the algorithms and the
// value table, the nodes are known here.
#include "variables.h"

double TavValueIn(const TavAlgorithm& alg, const TavNumVar& var) {
  TavNumVarI* v = tav_detail::need(var.getImpl());
  return tav_detail::need(alg.getImpl())->getValue(v);
}

double TavValueIn(const TavAlgorithm& alg, const TavNumExprArg& expr) {
  TavNumExprI* e = tav_detail::need(expr.getImpl());
  tav_detail::need(alg.getImpl());
  return e->eval(alg);
}

void TavSetValueIn(TavModelEvaluator& evaluator, const TavNumVar& var, TavInt value) {
  evaluator.setVarValue(tav_detail::need(var.getImpl()), value);
}

TavInt TavEvaluateIn(const TavModelEvaluator& evaluator, const TavIntExprArg& expr) {
  TavNumExprI* e = tav_detail::need(static_cast<const TavNumExprArg&>(expr).getImpl());
  // A variable is looked up directly, so that its own fallback ends here.
  if (e->isType(TavNumVarI::GetTypeInfo())) return evaluator.getValue(static_cast<TavNumVarI*>(e));
  return TavTrunc(e->eval(evaluator.getReader()));
}
