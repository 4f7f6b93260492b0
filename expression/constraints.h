// Constraints as the expression layer sees them: the base TavConstraintI (an
// integer expression whose value is its truth, 1 or 0, and which no
// reference count holds), the constant constraint, the constraint handle and
// the constraint array.
//
// Example: a constraint kind of one's own supplies its children and
// (usually) its value, text and clone:
//   class AtMost final : public TavNode<AtMost, TavConstraintI> {
//     TAV_NODE_STATICS
//    public:
//     static constexpr const char* RttiName = "AtMost";
//     AtMost(TavEnvI* env, TavNumVarI* x, double ub) : TavNode(env, nullptr), _x(x), _ub(ub) {}
//     double eval(TavAlgorithm alg) const override { return _x->eval(alg) <= _ub ? 1.0 : 0.0; }
//     void visitSubExtractables(TavExtractableVisitor* v) override { ... }
//     ...
//   };
//   TAV_DEFINE_NODE_STATICS(AtMost)   // once, in a source file
#ifndef TAV_EXPRESSION_CONSTRAINTS_H
#define TAV_EXPRESSION_CONSTRAINTS_H

#include <ostream>

#include "arrays.h"

/// Base of every constraint. Not reference counted: a constraint lives until
/// it is ended, whatever holds it (release() does nothing). Besides the
/// three CP hooks of every class it has two of its own, shared by every
/// constraint kind: _addToCP and _removeFromCP.
class TavConstraintI : public TavNode<TavConstraintI, TavUncounted<TavIntExprI>> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConstraintI";
  explicit TavConstraintI(TavEnvI* env, const char* name = nullptr) : TavNode(env, name) {}

  /// Calls _addToCP; TavAlgorithm::ExtractFailure when it is unset.
  void whenAddedToCP(TavAlgorithm alg, void* data) const override;
  /// Calls _removeFromCP; TavAlgorithm::ExtractFailure when it is unset.
  void whenRemovedFromCP(TavAlgorithm alg, void* data) const override;
  /// The active model evaluator's value of the constraint; the algorithm's
  /// own value (TavAlgorithmI::getValue of the constraint) when the
  /// evaluator is inactive or fails otherwise than with Unbound, which
  /// passes.
  double eval(TavAlgorithm alg) const override;

  static ObjectHook _addToCP;
  static ObjectHook _removeFromCP;
};

/// The constraint that always holds (nonzero truth) or never does.
class TavConstConstraintI : public TavNode<TavConstConstraintI, TavConstraintI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConstConstraintI";
  TavConstConstraintI(TavEnvI* env, const char* name, TavInt truth) : TavNode(env, name), _truth(truth) {}

  virtual bool isTrue() const { return _truth != 0; }
  /// 1 or 0 by the truth; the algorithm is not asked.
  double eval(TavAlgorithm) const override { return isTrue() ? 1.0 : 0.0; }
  /// "TrueConstraint " or "FalseConstraint ", in both syntaxes.
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  /// An unnamed copy made in this constraint's own environment (env is not
  /// used), as the rest of the library expects of constant constraints.
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  TavInt _truth;
};

/// Handle over a constraint; as an integer expression it evaluates to the
/// constraint's truth. end() ends the constraint.
class TavConstraint : public TavIntExprArg {
 public:
  TavConstraint(TavConstraintI* impl = nullptr) : TavIntExprArg(impl) {}
  TAV_HANDLE_POINTER TavConstraintI* getImpl() const { return static_cast<TavConstraintI*>(_impl); }
};

/// An array of constraint handles, to add, remove or hand over many constraints at once.
class TavConstraintArray : public TavHandleArray<TavConstraint, TavConstraintI> {
 public:
  using TavHandleArray::TavHandleArray;
  static const char* const ListMessages[11];
  /// The listed constraints, when n equals their count (1 to 10);
  /// TavWrongUsage "TavConstraintArray::TavConstraintArray: n !=k" otherwise.
  template <class... E, class = std::enable_if_t<TavIsElementList<TavConstraint, E...>()>>
  TavConstraintArray(TavEnv env, TavInt n, const E&... es) : TavHandleArray(FromList(ListMessages, env, n, es...)) {}
};

#endif
