// Evaluating a non-linear expression: a solver's values go through an
// algorithm; here a table of values for a growing x.
#include <iostream>

#include <tavexpression.h>

int main() {
  TavEnv env;
  TavNumVar x(env, 0, 10, TavNumVar::Float, "x");
  TavIntVar k(env, 0, 3, "k");
  // A damped wave, a rounded share and a tiered price read at k.
  TavNumExprArg wave = TavExponent(-0.2 * x) * TavCos(x) + TavPower(x, 0.5);
  TavIntExprArg share = TavNumToInt(TavFloor(x / 3));
  TavNumExprArg price = TavNumArray(env, {1.0, 0.8, 0.7, 0.65})[k] * x;
  TavNumExpr all = wave + share + price;

  std::cout << "f = " << all << "\n";
  TavSolution sol(env);
  sol.setValue(k, 2);
  for (double v : {0.0, 2.5, 5.0, 7.5}) {
    sol.setValue(x, v);
    std::cout << "  x = " << v << ": f = " << sol.getValue(all) << "\n";
  }
  env.end();
  return 0;
}
