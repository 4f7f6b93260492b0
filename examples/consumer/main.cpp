// Builds 2 x + 1 with the installed library and prints its value at x = 3,
// with the version the library was installed with.
#include <tavexpression.h>
#include <tavexpression_version.h>

#include <iostream>

int main() {
  std::cout << "tavexpression " << TAV_VERSION_STRING << "\n";
  TavEnv env;
  TavNumVar x(env, 0, 10, TavNumVar::Float, "x");
  TavExpr e(env, 1.0);
  e += 2 * x;
  TavSolution values(env);
  values.setValue(x, 3);
  std::cout << e << "= " << values.getValue(e) << "\n";
  env.end();
  return 0;
}
