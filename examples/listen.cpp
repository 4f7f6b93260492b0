// Listening to change records: an algorithm is told of every modification
// made to the model of its environment, and reads what changed.
#include <iostream>

#include <tavexpression.h>

namespace {

// A solver would update its own copy of the model here; this one prints.
class Listener : public TavAlgorithmI {
 public:
  explicit Listener(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI*) const override { throw TavAlgorithm::Exception("no values here"); }
  void notifyChange(const TavChange& change) override {
    std::cout << change.getRttiTypeName();
    if (change.isType(TavSetNumVarBounds::GetTypeInfo())) {
      const auto& bounds = static_cast<const TavSetNumVarBounds&>(change);
      std::cout << ": " << bounds.getVar().getName() << " in [" << bounds.getLB() << ", " << bounds.getUB() << "]";
    } else if (change.isType(TavNumLinTermAddVar::GetTypeInfo())) {
      std::cout << ": " << TavNumVar(static_cast<const TavNumLinTermAddVar&>(change).getVar()).getName() << " joins";
    } else if (change.isType(TavSetSemiContBound::GetTypeInfo())) {
      const auto& lot = static_cast<const TavSetSemiContBound&>(change);
      std::cout << ": " << lot.getOldValue() << " -> " << lot.getNewValue();
    }
    std::cout << "\n";
  }
};

}  // namespace

int main() {
  TavEnv env;
  TavNumVar x(env, 0, 10, TavNumVar::Float, "x");
  TavNumVar y(env, 0, 10, TavNumVar::Float, "y");
  TavSemiContVar lot(env, 2, 10, TavNumVar::Float, "lot");  // 0, or in [2, 10]
  TavExpr sum(env);
  sum += 2 * x;

  Listener listener(env.getImpl());  // registered for as long as it lives
  sum.setLinearCoef(y, 3);           // a new term
  sum.setLinearCoef(x, 5);           // the old term of x goes
  x.setUB(8);
  lot.setSemiContinuousLb(4);
  std::cout << "sum is now " << sum << "\n";
  env.end();
  return 0;
}
