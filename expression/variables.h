// Decision variables: the one implementation class TavNumVarI with its
// numeric, integer and Boolean handles, the variable change records, the
// ready value algorithm TavSolution.
#ifndef TAV_EXPRESSION_VARIABLES_H
#define TAV_EXPRESSION_VARIABLES_H

#include "any.h"
#include "checks.h"
#include "handles.h"
#include "storage.h"

class TavConstraint;

/// What every variable handle has beside its kind's own members: the
/// implementation, the name and the identifier (and `end` from Arg).
template <class Arg>
class TavVarHandle : public Arg {
 public:
  using Arg::Arg;
  TAV_HANDLE_POINTER TavNumVarI* getImpl() const;
  /// The variable, refused when the handle is empty (TavEmptyHandleException)
  /// or its environment has ended (TavWrongUsage).
  TavNumVarI* live() const { return tav_detail::need(getImpl()); }
  const char* getName() const;
  void setName(const char* name) const;
  TavInt getId() const;
};

/// Handle over a numeric (continuous, integer or Boolean) variable.
class TavNumVar : public TavVarHandle<TavNumExprArg> {
 public:
  /// Variable kinds; any value other than 1 and 2 is Boolean.
  enum Type : int { Int = 1, Float = 2, Bool = 3 };

  TavNumVar() : TavVarHandle(nullptr) {}
  TavNumVar(TavNumVarI* impl);
  /// A new variable with the bounds adjusted to its type (rounded up for
  /// Int, clamped into [0, 1] for Bool).
  TavNumVar(TavEnv env, double lb = 0.0, double ub = TavGetInfinity(), Type type = Float, const char* name = nullptr);
  TavNumVar(TavEnv env, double lb, double ub, const char* name);
  /// A new variable installed into the column.
  TavNumVar(const TavAddNumVar& column, double lb = 0.0, double ub = TavGetInfinity(), Type type = Float,
            const char* name = nullptr);
  TavNumVar(const TavAddNumVar& column, TavNumArray values, Type type = Float, const char* name = nullptr);
  TavNumVar(TavNumRange range, const char* name = nullptr);
  /// A variable taking one of the values.
  TavNumVar(TavEnv env, TavNumArray values, Type type = Float, const char* name = nullptr);
  /// A new 0-1 integer variable standing for the constraint's truth
  /// (TavConstraintIndVarI). Explicit: every conversion would make a new one.
  explicit TavNumVar(TavConstraint ct);

  double getLB() const;
  double getUB() const;
  void setLB(double lb) const;
  void setUB(double ub) const;
  void setBounds(double lb, double ub) const;
  Type getType() const;
  /// Appends the variable's values to out.
  void getPossibleValues(TavNumArray out) const;
  void setPossibleValues(TavNumArray values) const;
};

/// Handle over an integer variable.
class TavIntVar : public TavVarHandle<TavIntExprArg> {
 public:
  TavIntVar() : TavVarHandle(nullptr) {}
  TavIntVar(TavNumVarI* impl);
  /// A new integer variable in [0, 2^53 - 1].
  explicit TavIntVar(TavEnv env, const char* name = nullptr);
  TavIntVar(TavEnv env, TavInt lb, TavInt ub, const char* name = nullptr);
  TavIntVar(TavIntRange range, const char* name = nullptr);
  TavIntVar(TavEnv env, TavIntArray values, const char* name = nullptr);
  TavIntVar(const TavAddNumVar& column, TavInt lb, TavInt ub, const char* name = nullptr);
  TavIntVar(const TavAddNumVar& column, TavIntArray values, const char* name = nullptr);
  /// The same variable; TavBadConversion for a continuous one.
  TavIntVar(const TavNumVar& var);
  operator TavNumVar() const { return TavNumVar(getImpl()); }

  TavInt getMin() const;
  TavInt getMax() const;
  double getLB() const;
  double getUB() const;
  void setMin(TavInt v) const;
  void setMax(TavInt v) const;
  void setBounds(TavInt lb, TavInt ub) const;
  TavNumVar::Type getType() const;
  void getPossibleValues(TavIntArray out) const;
  void setPossibleValues(TavIntArray values) const;
};

/// Handle over a 0-1 variable.
class TavBoolVar : public TavIntVar {
 public:
  TavBoolVar() : TavIntVar() {}
  TavBoolVar(TavNumVarI* impl) : TavIntVar(impl) {}
  explicit TavBoolVar(TavEnv env, const char* name = nullptr);
  TavBoolVar(TavEnv env, TavInt lb, TavInt ub, const char* name = nullptr);
  explicit TavBoolVar(const TavAddNumVar& column, const char* name = nullptr);
  TavBoolVar(const TavNumVar& var);
  TavBoolVar(const TavIntVar& var);
};

/// The implementation of every decision variable; bounds, type and values
/// live in a domain, shared through the environment until first modified.
class TavNumVarI : public TavNode<TavNumVarI, TavUncounted<TavIntExprI>> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavNumVarI";

  TavNumVarI(TavEnvI* env, TavVarDomainI* domain, const char* name = nullptr);
  TavNumVarI(TavEnvI* env, const char* name = nullptr);
  /// Shared domain by type, bounds adjusted by rule A (bounds first).
  TavNumVarI(TavEnvI* env, double lb, double ub, TavNumVar::Type type, const char* name = nullptr);
  /// Shared domain by type, bounds adjusted by rule B (type first).
  TavNumVarI(TavEnvI* env, TavNumVar::Type type, double lb, double ub, const char* name = nullptr);
  TavNumVarI(TavEnvI* env, TavNumArray values, TavNumVar::Type type, const char* name = nullptr);
  TavNumVarI(TavEnvI* env, TavIntArray values, TavNumVar::Type type, const char* name = nullptr);
  TavNumVarI(TavEnvI* env, TavAnyArray values, const char* name = nullptr);
  TavNumVarI(const TavNumRangeI* range, const char* name = nullptr);
  TavNumVarI(const TavIntRangeI* range, const char* name = nullptr);
  ~TavNumVarI() override;

  TavNumVar::Type getType() const;
  bool isInteger() const override;
  bool isEnumerated() const;
  double getLB() const;
  double getUB() const;
  TavNumArray getNumValues() const;
  TavIntArray getIntValues() const;
  TavVarDomainI* getDomain() const { return _domain; }

  virtual void setLB(double lb);
  virtual void setUB(double ub);
  virtual void setBounds(double lb, double ub);
  /// A new private domain of the current type, without notification.
  void makeDomain(double lb, double ub);
  void setPossibleValues(TavNumArray values);
  void setPossibleValues(TavIntArray values);

  TavNumLinTermI* toNumLinTermI() override;
  TavIntLinTermI* toIntLinTermI() override;
  /// The algorithm's value; on failure (an empty algorithm included), the
  /// active model evaluator's.
  double eval(TavAlgorithm alg) const override {
    try {
      if (TAV_UNLIKELY(alg.getImpl() == nullptr)) throw TavEmptyHandleException();
      return alg.getImpl()->getValue(this);
    } catch (...) {
      return evalFallback();
    }
  }
  void display(std::ostream& os) const override;
  TavExtractableI* makeClone(TavEnvI* env) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  bool isDecisionExpr() const override { return true; }

  /// Scratch slot of the linear nodes when mark arrays are unavailable.
  TavNumLinExprTermI* _mark = nullptr;

 protected:
  /// Replaces a shared domain by a private copy.
  void copyOnWrite();
  /// Gives the (private) domain the list values, taken over; values goes
  /// if that fails, and the domain is as it was.
  template <class Domain, class Array, class... Extra>
  void installValues(Array values, Extra... extra);
  double evalFallback() const;
  TavVarDomainI* _domain;
};

// The handle operations on the model-building path, inline.
inline TavNumVar::TavNumVar(TavNumVarI* impl) : TavVarHandle(impl) {}
inline TavIntVar::TavIntVar(TavNumVarI* impl) : TavVarHandle(impl) {}
template <class Arg>
inline TAV_HANDLE_POINTER TavNumVarI* TavVarHandle<Arg>::getImpl() const {
  return static_cast<TavNumVarI*>(this->_impl);
}
template <class Arg>
const char* TavVarHandle<Arg>::getName() const {
  return tav_detail::need(getImpl())->getName();
}
template <class Arg>
void TavVarHandle<Arg>::setName(const char* name) const {
  tav_detail::need(getImpl())->setName(name);
}
template <class Arg>
TavInt TavVarHandle<Arg>::getId() const {
  return tav_detail::need(getImpl())->getId();
}

/// New bounds of one variable.
class TavSetNumVarBounds : public TavChangeNode<TavSetNumVarBounds> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "TavSetNumVarBounds";
  TavSetNumVarBounds(TavNumVarI* var, double lb, double ub) : TavChangeNode(var), _var(var), _lb(lb), _ub(ub) {}
  TavNumVar getVar() const;
  double getLB() const { return _lb; }
  double getUB() const { return _ub; }

 private:
  TavNumVarI* _var;
  double _lb, _ub;
};

/// A new list of possible values; exactly one of the two arrays is present.
class TavSetNumVarPossibleValues : public TavChangeNode<TavSetNumVarPossibleValues> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "TavSetNumVarPossibleValues";
  TavSetNumVarPossibleValues(TavNumVarI* var, TavArrayI* nums, TavArrayI* ints)
      : TavChangeNode(var), _var(var), _nums(nums), _ints(ints) {}
  TavNumVar getVar() const;
  TavNumArray getNumValues() const { return TavNumArray(_nums); }
  TavIntArray getIntValues() const { return TavIntArray(_ints); }

 private:
  TavNumVarI* _var;
  TavArrayI* _nums;
  TavArrayI* _ints;
};

/// A ready algorithm that holds values set by the user.
class TavSolutionI : public TavAlgorithmI {
 public:
  explicit TavSolutionI(TavEnvI* env) : TavAlgorithmI(env) {}
  double getValue(const TavNumVarI* var) const override;
  /// The value set for the constraint; TavAlgorithm::Exception when none is.
  double getValue(const TavConstraintI* ct) const override;
  bool addTermValues(const TavNumLinExprTermI* first, double& sum) const override;
  void setValue(const TavNumVarI* var, double v);
  void setValue(const TavConstraintI* ct, double v);

 private:
  struct Slot {
    const TavNumVarI* var;
    double value;
  };
  std::vector<Slot> _values;  // by variable identifier
  struct ConstraintSlot {
    const TavConstraintI* ct;
    double value;
  };
  std::vector<ConstraintSlot> _constraintValues;  // by constraint identifier
};

/// A ready algorithm that holds the values set on it, to evaluate expressions and constraints.
class TavSolution : public TavAlgorithm {
 public:
  /// A new solution in env, freed with it (or by end()).
  explicit TavSolution(TavEnv env);
  TavSolutionI* getImpl() const { return static_cast<TavSolutionI*>(_impl); }
  void setValue(const TavNumVar& var, double v) const;
  /// The value the solution gives the constraint (its truth, 1 or 0).
  void setValue(const TavConstraint& ct, double v) const;
};

/// The variable's value in alg: what TavAlgorithm::getValue(var) returns.
double TavValueIn(const TavAlgorithm& alg, const TavNumVar& var);
/// The expression evaluated in alg: what TavAlgorithm::getValue(expr) returns.
double TavValueIn(const TavAlgorithm& alg, const TavNumExprArg& expr);
/// Sets a variable's value in the evaluator (TavModelEvaluator::setValue).
void TavSetValueIn(TavModelEvaluator& evaluator, const TavNumVar& var, TavInt value);
/// The expression's value from the evaluator's table (TavModelEvaluator::evaluate).
TavInt TavEvaluateIn(const TavModelEvaluator& evaluator, const TavIntExprArg& expr);

/// The variable if it may be seen as Boolean: TavWrongUsage for a continuous
/// one, TavBadConversion for an integer one whose bounds are not 0 or 1.
TavNumVarI* TavCheckBoolFromNum(TavNumVarI* var);

// Variables print through their expression handle's operator<< (handles.h),
// which shows "<empty>" for an empty handle.

namespace tav_detail {
inline bool isVar(const TavNumExprI* e) { return e->isType(TavNumVarI::GetTypeInfo()); }
inline bool isNumLin(const TavNumExprI* e) { return e->isType(TavNumLinTermI::GetTypeInfo()); }
inline bool isIntLin(const TavNumExprI* e) { return e->isType(TavIntLinTermI::GetTypeInfo()); }
/// The numeric form of an integer linear node, which is left as it is: a
/// handle may still read it, so even a temporary waits for env.end().
inline TavNumLinTermI* numFromInt(TavNumExprI* e) { return static_cast<TavIntLinTermI*>(e)->toNumLinTermI(); }
/// Installs a new variable into its column; the variable goes if that fails.
template <class Var>
Var* installed(const TavAddNumVar& column, Var* var) {
  try {
    column.install(var);
  } catch (...) {
    var->end();
    throw;
  }
  return var;
}
}  // namespace tav_detail

#endif
