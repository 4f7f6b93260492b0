// Semi-continuous variables (zero, or a value between a threshold and the
// upper bound) with their handle, threshold record and array, and the
// indicator variable that stands for a constraint's truth.
//
// Example:
//   TavSemiContVar s(env, 2.0, 10.0);   // 0, or a value in [2, 10]
//   s.setSemiContinuousLb(3.0);         // algorithms get a TavSetSemiContBound
//   TavNumVar holds(ct);                // 1 while ct holds, else 0
#ifndef TAV_EXPRESSION_SEMICONT_H
#define TAV_EXPRESSION_SEMICONT_H

#include <ostream>

#include "constraints.h"

class TavSemiContVarI;

/// Handle over a semi-continuous variable; the threshold is not part of the
/// domain, which keeps the ordinary bounds [0, ub].
class TavSemiContVar : public TavNumVar {
 public:
  TavSemiContVar() : TavNumVar() {}
  TavSemiContVar(TavSemiContVarI* impl);
  /// A new variable with bounds [0, ub] (adjusted to the type, type first)
  /// and threshold sclb.
  TavSemiContVar(TavEnv env, double sclb, double ub, TavNumVar::Type type = TavNumVar::Float,
                 const char* name = nullptr);
  /// The same in the column's environment, installed into the column.
  TavSemiContVar(const TavAddNumVar& column, double sclb, double ub, TavNumVar::Type type = TavNumVar::Float,
                 const char* name = nullptr);

  TAV_HANDLE_POINTER TavSemiContVarI* getImpl() const;
  /// The threshold (semi-continuous lower bound).
  double getSemiContinuousLb() const;
  /// A new threshold, announced by a TavSetSemiContBound when it differs.
  void setSemiContinuousLb(double v) const;

  /// The clone registered for this variable in its own environment (empty
  /// when there is none); TavBadConversion when the registered object is not
  /// a semi-continuous variable.
  TavSemiContVar getClone() const;
  /// The clone registered for this variable in env.
  TavSemiContVar getClone(TavEnv env) const;
  /// Registers clone as this variable's clone in its own environment.
  void setClone(TavSemiContVar clone) const;
  /// Registers clone as this variable's clone in env.
  void setClone(TavSemiContVar clone, TavEnv env) const;
};

/// A variable whose value is 0 or lies between its threshold and its upper
/// bound. The threshold lives here, the bounds [0, ub] in the domain.
class TavSemiContVarI final : public TavNode<TavSemiContVarI, TavNumVarI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavSemiContVarI";

  /// No domain (bounds [0, infinity], type Float), only the threshold.
  TavSemiContVarI(TavEnvI* env, double threshold, const char* name = nullptr);
  /// Bounds (0, ub) by type first, as column-wise variables are made.
  TavSemiContVarI(TavEnvI* env, double threshold, double ub, TavNumVar::Type type, const char* name = nullptr);

  double getThreshold() const { return _threshold; }
  /// Stores a new threshold and notifies (old, new); an equal value changes
  /// nothing and sends nothing (not-a-number never equals, so it is stored).
  void setBd(double v);

  /// "TavSemiContI (" name or id ")", the variable's own text, then the
  /// threshold, each on a line of its own.
  void display(std::ostream& os) const override;
  /// The threshold only: no domain and no name.
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  double _threshold;
};

/// A new threshold of a semi-continuous variable, with the previous one.
class TavSetSemiContBound : public TavChangeNode<TavSetSemiContBound> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "TavSetSemiContBound";
  TavSetSemiContBound(TavSemiContVarI* var, double oldValue, double newValue)
      : TavChangeNode(var), _var(var), _old(oldValue), _new(newValue) {}
  TavSemiContVar getVar() const { return TavSemiContVar(_var); }
  double getOldValue() const { return _old; }
  double getNewValue() const { return _new; }

 private:
  TavSemiContVarI* _var;
  double _old, _new;
};

/// Arrays of semi-continuous variables; variables made in bulk have no name.
class TavSemiContVarArray : public TavHandleArray<TavSemiContVar, TavSemiContVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  static const char* const ListMessages[11];
  /// n new variables (none for n <= 0).
  TavSemiContVarArray(TavEnv env, TavInt n, double sclb, double ub, TavNumVar::Type type = TavNumVar::Float);
  /// One variable per threshold, upper bound ubs[i]. TavWrongUsage
  /// "TavSemiContVarArray::TavSemiContVarArray: upper bound array shorter
  /// than the threshold array" before anything is made when ubs is shorter.
  TavSemiContVarArray(TavEnv env, TavNumArray sclbs, TavNumArray ubs, TavNumVar::Type type = TavNumVar::Float);
  /// One variable per non-empty column, installed into it; null for an empty
  /// column. TavWrongUsage "TavSemiContVarArray::TavSemiContVarArray: bound
  /// arrays shorter than the column array" before anything is made when
  /// sclbs or ubs is shorter than cols. When a creation fails, the variables
  /// made so far leave their columns again.
  TavSemiContVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray sclbs, TavNumArray ubs,
                      TavNumVar::Type type = TavNumVar::Float);
  /// The listed variables, when n equals their count.
  template <class... E, class = std::enable_if_t<TavIsElementList<TavSemiContVar, E...>()>>
  TavSemiContVarArray(TavEnv env, TavInt n, const E&... es) : TavHandleArray(FromList(ListMessages, env, n, es...)) {}
};

/// A 0-1 integer variable standing for the truth of a constraint, which it
/// names but does not own: the constraint must outlive it.
class TavConstraintIndVarI final : public TavNode<TavConstraintIndVarI, TavNumVarI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConstraintIndVarI";

  /// Type Int over the environment's shared domain [0, 1], no name.
  TavConstraintIndVarI(TavEnvI* env, TavConstraintI* ct);

  TavConstraintI* getConstraint() const { return _ct; }
  /// Exactly the constraint's text.
  void display(std::ostream& os) const override;
  /// The constraint is the only child.
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  /// A new indicator in env over the constraint's clone registered in env;
  /// TavWrongUsage "TavConstraintIndVarI::makeClone: the constraint has no
  /// clone in the target environment" (nothing made) when env has none.
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  TavConstraintI* _ct;
};

inline TavSemiContVar::TavSemiContVar(TavSemiContVarI* impl) : TavNumVar(impl) {}
inline TAV_HANDLE_POINTER TavSemiContVarI* TavSemiContVar::getImpl() const {
  return static_cast<TavSemiContVarI*>(TavNumVar::getImpl());
}

#endif
