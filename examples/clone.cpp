// Cloning into another environment: a model built in one environment is
// copied, with its variables, into a second one that evaluates it on its own.
#include <iostream>

#include <tavexpression.h>

int main() {
  TavEnv source;
  TavNumVar x(source, 0, 10, TavNumVar::Float, "x");
  TavIntVar n(source, 0, 5, "n");
  TavNumExpr model = TavMax(x * n, TavSquare(x)) + 3 * n;

  // One cloning pass: operands are cloned first, each once.
  TavEnv target;
  TavNumExpr copy(static_cast<TavNumExprI*>(source.getImpl()->cloneInto(model.getImpl(), target.getImpl())));
  TavNumVar cx(static_cast<TavNumVarI*>(source.getImpl()->getClone(x.getImpl())));
  TavIntVar cn(static_cast<TavNumVarI*>(source.getImpl()->getClone(n.getImpl())));
  source.getImpl()->clearCloneMap();

  TavSolution values(target);
  values.setValue(cx, 2);
  values.setValue(cn, 4);
  std::cout << "copy: " << copy << "= " << values.getValue(copy) << "\n";
  std::cout << "same variables, new objects: " << (cx.getImpl() != x.getImpl()) << "\n";

  source.end();  // the copy does not depend on its source
  std::cout << "after ending the source: " << values.getValue(copy) << "\n";
  target.end();
  return 0;
}
