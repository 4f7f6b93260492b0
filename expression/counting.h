// Aggregates over an array of integer expressions: how many of them take a
// value, and the standard deviation of their values. Each node keeps a
// private copy of the caller's array and one reference on every element.
//
// Example:
//   TavIntExprArray a(env);  a.add(i);  a.add(j);  a.add(i + j);
//   TavIntExpr threes = TavCount(a, 3);
//   TavNumExpr spread = TavStandardDeviation(a);
#ifndef TAV_EXPRESSION_COUNTING_H
#define TAV_EXPRESSION_COUNTING_H

#include "shapes.h"

/// The number of elements whose value equals the counted value exactly
/// (no tolerance: 2.0000001 is not 2).
class TavCountI final : public TavNode<TavCountI, TavIntExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavCountI";
  static constexpr TavNodeTexts Texts{"TavCount( ", ", ", ") ", "count(", ", ", ")"};

  /// Copies exprs (which stays the caller's) and holds every element.
  TavCountI(TavEnvI* env, const TavIntExprArray& exprs, TavInt value) : TavCountI(env, exprs, value, 0) {}

  /// The node's own copy of the array: read it, do not change it.
  TavIntExprArray getExprs() const { return _exprs.get(); }
  TavInt getValue() const { return _value; }

  /// TavArrayError when the array is empty.
  double eval(TavAlgorithm alg) const override;
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  template <class From>
  TavCountI(TavEnvI* env, const From& exprs, TavInt value, int)
      : TavNode(env, nullptr), _exprs(env, exprs), _value(value) {}

  TavOwnedArray<TavIntExprArray> _exprs;
  TavInt _value;
};

/// The population standard deviation of the elements' values (divisor n),
/// each element evaluated twice: once for the mean, once for the squares.
/// The bounds are carried for the solvers; evaluation ignores them.
class TavStandardDeviationI final : public TavNode<TavStandardDeviationI, TavNumExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavStandardDeviationI";
  static constexpr TavNodeTexts Texts{"TavStandardDeviation( ", "", ") ", "stddev(", "", ")"};

  /// Copies exprs (which stays the caller's) and holds every element.
  TavStandardDeviationI(TavEnvI* env, const TavIntExprArray& exprs, double lowerBound, double upperBound)
      : TavStandardDeviationI(env, exprs, lowerBound, upperBound, 0) {}

  /// The node's own copy of the array: read it, do not change it.
  TavIntExprArray getExprs() const { return _exprs.get(); }
  double getLowerBound() const { return _lowerBound; }
  double getUpperBound() const { return _upperBound; }

  /// TavArrayError when the array is empty.
  double eval(TavAlgorithm alg) const override;
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  template <class From>
  TavStandardDeviationI(TavEnvI* env, const From& exprs, double lowerBound, double upperBound, int)
      : TavNode(env, nullptr), _exprs(env, exprs), _lowerBound(lowerBound), _upperBound(upperBound) {}

  TavOwnedArray<TavIntExprArray> _exprs;
  double _lowerBound;
  double _upperBound;
};

///@{
/// How many elements of exprs equal value, in the array's environment. The
/// array must be non-empty with every element set and of that environment.
TavIntExprArg TavCount(const TavIntExprArray& exprs, TavInt value);
TavIntExprArg TavCount(const TavIntVarArray& vars, TavInt value);
///@}

///@{
/// The standard deviation of the elements' values, with bounds for solvers.
TavNumExprArg TavStandardDeviation(const TavIntExprArray& exprs, double lowerBound, double upperBound);
TavNumExprArg TavStandardDeviation(const TavIntVarArray& vars, double lowerBound, double upperBound);
///@}
///@{
/// The standard deviation with bounds minus and plus infinity.
TavNumExprArg TavStandardDeviation(const TavIntExprArray& exprs);
TavNumExprArg TavStandardDeviation(const TavIntVarArray& vars);
///@}

#endif
