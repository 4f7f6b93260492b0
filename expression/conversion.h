// Type conversions: a model object recording a set of variables and the
// type an algorithm should give them. The variables themselves are left as
// they are; what the conversion means is the extracting algorithm's affair.
//
// Example:
//   TavConversion c(env, TavNumVarArray(env, 2, x, y), TavNumVar::Int, "relaxed");
//   c.removeVar(y);   // TavConversionRemoveVar (y, c) reaches the algorithms
#ifndef TAV_EXPRESSION_CONVERSION_H
#define TAV_EXPRESSION_CONVERSION_H

#include <ostream>

#include "arrays.h"

/// The implementation of a conversion: its own array of variables (ended
/// with it) and the target type.
class TavConversionI final : public TavNode<TavConversionI, TavExtractableI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConversionI";
  /// Takes vars over once constructed (a failed construction leaves vars
  /// to the caller); TavEmptyHandleException for an empty array.
  TavConversionI(TavEnvI* env, TavNumVarArray vars, TavNumVar::Type type, const char* name = nullptr);
  /// Over a new one-element array of env holding var; TavEmptyHandleException
  /// for an empty variable.
  TavConversionI(TavEnvI* env, TavNumVar var, TavNumVar::Type type, const char* name = nullptr);
  ~TavConversionI() override;

  /// The conversion's own array: read it, do not end it.
  TavNumVarArray getVars() const { return _vars; }
  TavNumVar::Type getType() const { return _type; }

  /// Removes every occurrence of var, last first, and sends one
  /// TavConversionRemoveVar per occurrence through notify.
  void removeVar(TavNumVar var);
  /// A removed variable leaves the conversion: with one-by-one removal
  /// through removeVar (one record per occurrence), otherwise silently
  /// with every other removed element.
  void atRemove(TavExtractableI* removed, void* data) override;
  /// The variables are the children, in array order.
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  /// An unnamed conversion of env over the variables' clones, same type.
  TavExtractableI* makeClone(TavEnvI* env) const override;
  /// Three lines: "TavConversionI (" name or id ")", "  vars " the array,
  /// "  type " the type as an integer.
  void display(std::ostream& os) const override;

 private:
  TavNumVarArray _vars;
  TavNumVar::Type _type;
};

/// Handle over a conversion. end() ends the conversion (and its array).
class TavConversion {
 public:
  TavConversion(TavConversionI* impl = nullptr) : _impl(impl) {}
  /// A conversion of var, in var's environment (env is not used).
  TavConversion(TavEnv env, TavNumVar var, TavNumVar::Type type, const char* name = nullptr);
  /// A conversion over a copy of vars, in the environment of vars's memory
  /// (env is not used).
  TavConversion(TavEnv env, TavNumVarArray vars, TavNumVar::Type type, const char* name = nullptr);
  TavConversion(TavEnv env, TavIntVarArray vars, TavNumVar::Type type, const char* name = nullptr);

  TavConversionI* getImpl() const { return _impl; }
  TavEnv getEnv() const;
  void end();
  /// TavConversionI::removeVar.
  void removeVar(TavNumVar var) const;

 private:
  TavConversionI* _impl;
};

/// Sent when a variable leaves a conversion; the conversion is the changed object.
class TavConversionRemoveVar final : public TavChangeNode<TavConversionRemoveVar> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "TavConversionRemoveVar";
  TavConversionRemoveVar(TavNumVarI* var, TavConversionI* conversion)
      : TavChangeNode(conversion), _var(var), _conversion(conversion) {}
  TavNumVar getVar() const { return TavNumVar(_var); }
  TavConversion getConversion() const { return TavConversion(_conversion); }
  /// Hands the conversion and the variable to visitConversionRemoveVar.
  void visitChange(TavEnvI* env, TavExtractableI* extractable, TavChangeVisitor* visitor) const override;

 private:
  TavNumVarI* _var;
  TavConversionI* _conversion;
};

/// Prints the conversion's display form; "<empty>" for an empty handle.
std::ostream& operator<<(std::ostream& os, const TavConversion& c);

#endif
