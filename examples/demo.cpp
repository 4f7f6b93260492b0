// A first tour: build a small production model, print it in both syntaxes,
// evaluate it, modify it while an algorithm listens, and clone it.
#include <iostream>

#include <tavexpression.h>

namespace {

// An algorithm that only reports the change records it is told of.
class Listener : public TavAlgorithmI {
 public:
  explicit Listener(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI*) const override { throw TavAlgorithm::Exception("no values here"); }
  void notifyChange(const TavChange& change) override {
    std::cout << "  change received: " << change.getRttiTypeName() << "\n";
  }
};

void show(const char* label, TavEnv env, const TavNumExprArg& e, TavAlgorithm values) {
  env.getImpl()->setLibrarySyntaxDisplay(false);
  std::cout << label << ":\n  plain:   " << e << "\n";
  env.getImpl()->setLibrarySyntaxDisplay(true);
  std::cout << "  library: " << e << "\n";
  env.getImpl()->setLibrarySyntaxDisplay(false);
  std::cout << "  value:   " << values.getValue(e) << "\n";
}

}  // namespace

int main() {
  TavEnv env;

  // Decision variables of three kinds.
  TavNumVar steel(env, 0, 100, TavNumVar::Float, "steel");
  TavIntVar trucks(env, 0, 8, "trucks");
  TavBoolVar overtime(env, "overtime");
  TavNumVarArray parts(env, 3, 0.0, 50.0, TavNumVar::Float);
  for (TavInt i = 0; i < parts.getSize(); ++i) {
    static const char* names[] = {"bolts", "nuts", "plates"};
    parts[i].setName(names[i]);
  }

  // A linear cost built term by term, then non-linear pieces.
  TavExpr cost(env);
  cost += 2.5 * steel;
  cost += 120 * trucks;
  cost += 300 * overtime;
  cost += TavScalProd(TavNumArray(env, {0.2, 0.1, 1.5}), parts);
  TavNumExpr perTruck = steel / (trucks + 1);
  TavNumExpr wear = steel * steel / 1000.0;
  TavIntExpr leftover = trucks % 3;
  TavNumExpr peak = TavMax(parts);
  // A non-linear shape: a seasonal load, a rounded share and a decay.
  TavNumExpr load = TavAbs(TavSin(steel / 10.0)) * TavPower(parts[0] + 1, 0.5) + TavExponent(-0.1 * trucks) +
                    TavFloor(steel / 3.0) + TavLog10(parts[1] + 1);

  // Special nodes: a price list read at the number of trucks, how many
  // parts sit at their upper bound, their spread, and a tiered tariff.
  TavNumExpr price = TavNumArray(env, {0, 90, 85, 80, 78, 75, 74, 73, 72})[trucks];
  TavIntVarArray lots(env, 3, 0, 4);
  for (TavInt i = 0; i < lots.getSize(); ++i) {
    static const char* names[] = {"lotA", "lotB", "lotC"};
    lots[i].setName(names[i]);
  }
  TavNumExpr full = TavCount(lots, 4) + TavStandardDeviation(lots);
  TavNumExpr tariff = TavPiecewiseLinear(steel, TavNumArray(env, {20, 50}), TavNumArray(env, {1.0, 1.5, 2.5}), 0, 0);
  // Variables of the two other kinds: a semi-continuous order (0, or 5 to
  // 30) and a constraint standing as a 0-1 variable.
  TavSemiContVar order(env, 5, 30, TavNumVar::Float, "order");
  TavConstraint ready(new (env.getImpl()) TavConstConstraintI(env.getImpl(), "ready", 1));
  TavNumVar isReady(ready);
  TavNumExpr supply = order + 10 * isReady;

  TavSolution sol(env);
  sol.setValue(order, 12);
  sol.setValue(isReady, 1);
  for (TavInt i = 0; i < lots.getSize(); ++i) sol.setValue(lots[i], i == 1 ? 2 : 4);
  sol.setValue(steel, 40);
  sol.setValue(trucks, 5);
  sol.setValue(overtime, 1);
  sol.setValue(parts[0], 10);
  sol.setValue(parts[1], 20);
  sol.setValue(parts[2], 4);

  show("cost", env, cost, sol);
  show("steel per truck", env, perTruck, sol);
  show("wear", env, wear, sol);
  show("trucks left over", env, leftover, sol);
  show("busiest part", env, peak, sol);
  show("load", env, load, sol);
  show("price per truck", env, price, sol);
  show("full lots and their spread", env, full, sol);
  show("tariff", env, tariff, sol);
  show("supply", env, supply, sol);

  // Modifications are reported to every algorithm of the environment.
  Listener listener(env.getImpl());
  std::cout << "set the coefficient of trucks to 150, then the bounds of steel:\n";
  cost.setLinearCoef(trucks, 150);
  steel.setUB(80);
  order.setSemiContinuousLb(8);
  TavConversion(env, lots, TavNumVar::Float, "relaxed lots").removeVar(lots[0]);
  std::cout << "  steel is now " << steel << "\n";
  show("cost after the change", env, cost, sol);

  // Clone the cost into a second environment and evaluate it there.
  TavEnv other;
  TavNumExpr copy(static_cast<TavNumExprI*>(env.getImpl()->cloneInto(cost.getImpl(), other.getImpl())));
  copy.getImpl()->lockRef();
  TavSolution sol2(other);
  TavExpr::LinearIterator it = TavExpr(static_cast<TavNumLinTermI*>(copy.getImpl())).getLinearIterator();
  for (double v = 1; it.ok(); ++it, ++v) sol2.setValue(it.getVar(), v);
  show("cost cloned into a second environment (variables at 1, 2, 3, ...)", other, copy, sol2);

  other.end();
  env.end();
  return 0;
}
