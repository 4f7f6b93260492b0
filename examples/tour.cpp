// The README's tour, compiled and run: every ```cpp block of the README's
// tour appears here line for line (ctest's readme_tour checks it), so the
// tour cannot fall behind the library. The printed values are those the
// README shows.
#include <iostream>
#include <tavexpression.h>

int main() {
  // [tour] environment
  TavEnv env;                                       // owns every object of a model
  TavNumVar x(env, 0, 10, TavNumVar::Float, "x");   // continuous in [0, 10]
  TavIntVar n(env, 0, 5, "n");                      // integer in [0, 5]
  TavBoolVar b(env, "b");                           // 0 or 1
  TavSolution sol(env);                             // an algorithm holding values
  sol.setValue(x, 2.5);
  sol.setValue(n, 3);
  sol.setValue(b, 1);

  // [tour] linear
  TavExpr cost(env);                                // a linear expression, edited in place
  cost += 2 * x;                                    // 2 * x is a term: one cell, linked
  cost += 3 * n - 1;
  cost += 4 * b;
  std::cout << cost << "= " << sol.getValue(cost) << "\n";
  // prints: 2 * x  + 3 * n  + 4 * b  + -1 = 17

  TavNumVarArray y(env, 3, 0.0, 1.0);               // three variables at once
  for (TavInt i = 0; i < 3; ++i) sol.setValue(y[i], 0.5);
  TavNumExpr dot = TavScalProd(TavNumArray(env, {1, 2, 3}), y);
  TavNumExpr all = TavSum(y);
  std::cout << sol.getValue(dot) << " " << sol.getValue(all) << "\n";
  // prints: 3 1.5

  // [tour] products
  TavNumExpr area = x * n;                          // product of two expressions
  TavNumExpr ratio = x / (n + 1);                   // quotient
  TavIntExpr half = TavDiv(n, 2);                   // integer division
  std::cout << sol.getValue(area) << " " << sol.getValue(ratio) << " " << sol.getValue(half) << "\n";
  // prints: 7.5 0.625 1

  // [tour] minmax
  TavNumExpr low = TavMin(x, n);
  TavNumExpr capped = TavMin(x, 2.0);
  TavNumExpr most = TavMax(y);                      // also over expression arrays
  std::cout << sol.getValue(low) << " " << sol.getValue(capped) << " " << sol.getValue(most) << "\n";
  // prints: 2.5 2 0.5

  // [tour] modulo
  TavIntExpr rest = n % 2;                          // integer remainder
  std::cout << rest << "= " << sol.getValue(rest) << "\n";
  // prints: n[0 .. 5] % 2= 1

  // [tour] unary
  TavNumExpr wave = TavSin(x) + TavCos(x) + TavTan(x / 4) + TavArcTan(x);
  TavNumExpr growth = TavExponent(x) + TavLog(x) + TavLog2(x) + TavLog10(x);
  TavNumExpr shape = TavSquare(x - 3) + TavAbs(x - 3) + TavSgn(x - 3);
  std::cout << sol.getValue(wave) << " " << sol.getValue(growth) << " " << sol.getValue(shape) << "\n";
  // prints: 1.7091 14.8187 -0.25

  // [tour] powers
  TavNumExpr root = TavPower(x, 0.5);               // x ^ 0.5
  TavNumExpr doubling = TavPower(2, n);             // 2 ^ n
  TavNumExpr general = TavPower(x, n);              // x ^ n
  std::cout << sol.getValue(root) << " " << sol.getValue(doubling) << " " << sol.getValue(general) << "\n";
  // prints: 1.58114 8 15.625

  // [tour] rounding
  TavNumExpr down = TavFloor(x);                    // also TavCeil, TavTrunc, TavVurRound
  TavNumExpr part = TavFract(x);                    // x - trunc(x)
  TavNumExpr gap = TavDistToInt(x);                 // distance to the nearest integer
  TavIntExpr whole = TavNumToInt(TavFloor(x));      // an integer expression
  std::cout << sol.getValue(down) << " " << sol.getValue(part) << " " << sol.getValue(gap) << " "
            << sol.getValue(whole) << "\n";
  // prints: 2 0.5 0.5 2

  // [tour] element
  TavIntArray rates(env, {10, 20, 30, 40});
  TavIntExpr rate = rates[n];                       // rates read at n
  std::cout << rate << "= " << sol.getValue(rate) << "\n";
  // prints: ints[n[0 .. 5] ]= 40

  // [tour] piecewise
  TavNumArray breaks(env, {2, 5});                  // slopes 1, then 2, then 4,
  TavNumArray slopes(env, {1, 2, 4});               // through the point (0, 0)
  TavNumExpr tariff = TavPiecewiseLinear(x, breaks, slopes, 0, 0);
  std::cout << sol.getValue(tariff) << "\n";
  // prints: 3

  // [tour] counting
  TavIntVarArray shifts(env, 4, 0, 3);
  for (TavInt i = 0; i < 4; ++i) sol.setValue(shifts[i], i % 2 == 0 ? 2 : 3);
  TavIntExpr twos = TavCount(shifts, 2);            // how many take the value 2
  TavNumExpr spread = TavStandardDeviation(shifts);
  std::cout << sol.getValue(twos) << " " << sol.getValue(spread) << "\n";
  // prints: 2 0.5

  // [tour] constraints
  TavConstraint open(new (env.getImpl()) TavConstConstraintI(env.getImpl(), "open", 1));
  TavNumVar isOpen(open);                           // the constraint as a 0-1 variable
  sol.setValue(open, 1);
  TavNumExpr fee(new (env.getImpl()) TavConditionalNumExprI(env.getImpl(), open.getImpl(), x.getImpl(), 7.5));
  std::cout << sol.getValue(fee) << "\n";
  // prints: 2.5

  // [tour] semicont
  TavSemiContVar lot(env, 2, 10, TavNumVar::Float, "lot");  // 0, or in [2, 10]
  lot.setSemiContinuousLb(3);                       // the threshold moves to 3

  // [tour] conversion
  TavConversion relaxed(env, shifts, TavNumVar::Float, "relaxed");  // recorded for algorithms

  // [tour] display
  std::cout << ratio << "\n";
  // prints: x[0 .. 10]  / n  + 1
  env.getImpl()->setLibrarySyntaxDisplay(true);
  std::cout << ratio << "\n";
  // prints: ( x[0 .. 10] / ( n  + 1 ) )
  env.getImpl()->setLibrarySyntaxDisplay(false);

  // [tour] changes
  cost.setLinearCoef(n, 4);                         // algorithms receive a change record
  x.setUB(8);                                       // TavSetNumVarBounds
  std::cout << cost << "= " << sol.getValue(cost) << "\n";
  // prints: 2 * x  + 4 * n  + 4 * b  + -1 = 20

  // [tour] cloning
  TavEnv other;
  TavExtractableI* copy = env.getImpl()->cloneInto(cost.getImpl(), other.getImpl());
  env.getImpl()->clearCloneMap();                   // ends the cloning pass
  std::cout << (copy->getEnv() == other.getImpl()) << "\n";
  // prints: 1

  // [tour] exceptions
  try {
    TavNumVar stranger(other, 0, 1, TavNumVar::Float, "stranger");
    cost += stranger;                               // operands from two environments
  } catch (const TavWrongUsage& e) {
    std::cout << e.what() << "\n";
    // prints: TavExpr& TavNumExpr::operator += const TavNumVar arg : mixing mismatch Environments
  }

  // [tour] end
  other.end();
  env.end();                                        // frees everything at once
}
