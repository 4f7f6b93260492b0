// Building a model: variables of each kind, a linear cost written term by
// term and from arrays, a non-linear part, printed in both syntaxes.
#include <iostream>

#include <tavexpression.h>

int main() {
  TavEnv env;
  TavNumVar flour(env, 0, 40, TavNumVar::Float, "flour");  // kilograms, continuous
  TavIntVar ovens(env, 1, 4, "ovens");                     // whole ovens
  TavBoolVar night(env, "night");                          // a night shift or not
  TavNumVarArray extras(env, 2, 0.0, 5.0);                 // two more ingredients
  extras[0].setName("sugar");
  extras[1].setName("butter");

  // The cost: e += c * x appends one term to the expression, in place.
  TavExpr cost(env, 50);                                   // a fixed cost of 50
  cost += 1.2 * flour;
  cost += 80 * ovens;
  cost += 40 * night;
  cost += TavScalProd(TavNumArray(env, {0.9, 6.5}), extras);

  // A non-linear part: flour shared among ovens, and a square penalty.
  TavNumExpr load = flour / ovens + TavSquare(extras[1] - 2);

  std::cout << "cost: " << cost << "\nload: " << load << "\n";
  env.getImpl()->setLibrarySyntaxDisplay(true);
  std::cout << "load, library syntax: " << load << "\n";
  std::cout << "objects in the environment: " << env.getImpl()->getLiveObjectCount() << "\n";
  env.end();  // frees every object at once
  return 0;
}
