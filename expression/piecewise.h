// Piecewise-linear functions of an expression, given by breakpoints and
// slopes (with an anchor point) or by breakpoints and values (with the
// slopes before the first and after the last breakpoint), and monotonic
// functions of an expression supplied by the caller.
//
// Example:
//   TavNumArray points(env, {0, 10}), slopes(env, {1, 2, 3});
//   TavNumExpr f = TavPiecewiseLinear(x, points, slopes, 0, 0);  // 5 -> 10, 12 -> 26
#ifndef TAV_EXPRESSION_PIECEWISE_H
#define TAV_EXPRESSION_PIECEWISE_H

#include "shapes.h"

namespace tav_detail {

/// What a piecewise-linear node works out once, when it is made, so that an
/// evaluation does not walk the breakpoints. The start index depends on the
/// node's fields only. In the value form the segment follows from it, so an
/// evaluation is a few operations. In the slope form over non-decreasing
/// breakpoints, the running value of the walk at every breakpoint is taken
/// in advance, in the walk's own order of operations, and an evaluation
/// finds where its walk would stop by bisection: the result is the walk's,
/// bit for bit. Unsorted breakpoints (or a not-a-number among them) are
/// walked one by one. An entry read past the end of an array reads as
/// not-a-number.
class PiecewiseWalk {
 public:
  PiecewiseWalk(TavEnvI* env, TavInt form, const TavNumArray& breakpoints, const TavNumArray& second, double first,
                double last);
  ~PiecewiseWalk();
  PiecewiseWalk(const PiecewiseWalk&) = delete;
  PiecewiseWalk& operator=(const PiecewiseWalk&) = delete;

  /// The number of leading breakpoints before the first one greater than
  /// the first number.
  TavInt getStart() const { return _start; }
  /// Whether the slope form bisects (false: it walks).
  bool bisects() const { return _table != nullptr; }
  double valueAt(double x) const;

 private:
  double walk(double x) const;

  TavEnvI* _env;
  TavNumArray _breakpoints;  // the node's copies, read by the walk
  TavNumArray _second;
  bool _slopeForm;
  TavInt _n;
  TavInt _start;
  double _first;
  double _last;
  // Value form: value = _base + (x - _origin) * _rise / _run.
  double _base = 0, _origin = 0, _rise = 0, _run = 1;
  // Slope form, bisecting: breakpoints [0, n), running values [n, 2n + 1),
  // slopes [2n + 1, 3n + 2), in one block of the environment.
  double* _table = nullptr;
};

}  // namespace tav_detail

/// f(x) for a piecewise-linear f; x is 0 for a node without expression.
/// Slope form (form 1): n breakpoints P, n + 1 slopes S (S[0] left of P[0],
/// S[n] right of P[n-1]) and f(anchor) = anchorValue; two equal
/// consecutive breakpoints make a jump whose height is the slope entry of
/// their zero-length segment. Value form (form 0): the values at the
/// breakpoints, the slope before the first and the slope after the last;
/// the segment used is chosen by comparing the breakpoints with the first
/// slope, not with x. Nothing is checked: sizes, order, equal breakpoints.
class TavExprPiecewiseLinearI final : public TavNode<TavExprPiecewiseLinearI, TavNumExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavExprPiecewiseLinearI";
  static constexpr TavInt SlopeForm = 1;
  static constexpr TavInt ValueForm = 0;

  /// The slope form. Both arrays are copied; expr (or null) gets one reference.
  TavExprPiecewiseLinearI(TavEnvI* env, TavNumExprI* expr, const TavNumArray& breakpoints, const TavNumArray& slopes,
                          double anchor, double anchorValue);
  /// The value form.
  TavExprPiecewiseLinearI(TavEnvI* env, TavNumExprI* expr, double firstSlope, const TavNumArray& breakpoints,
                          const TavNumArray& values, double lastSlope);
  /// Every field given as stored: form, expression, breakpoints, second
  /// array (slopes or values), first number (anchor or first slope), second
  /// number (anchor value or last slope). Form 1 is the slope form, any
  /// other the value form.
  TavExprPiecewiseLinearI(TavEnvI* env, TavInt form, TavNumExprI* expr, const TavNumArray& breakpoints,
                          const TavNumArray& second, double first, double last);

  /// The expression, or null when the function is taken at 0.
  TavNumExprI* getExpr() const { return _expr.get(); }
  TavInt getForm() const { return _form; }
  bool isSlopeForm() const { return _form == SlopeForm; }
  /// The node's own copy of the breakpoints: read it, do not change it.
  TavNumArray getBreakpoints() const { return _breakpoints.get(); }
  /// The node's own copy of the slopes (slope form) or values (value form).
  TavNumArray getSecondArray() const { return _second.get(); }
  /// The anchor (slope form) or the slope before the first breakpoint.
  double getFirstNumber() const { return _first; }
  /// The value at the anchor (slope form) or the slope after the last breakpoint.
  double getSecondNumber() const { return _last; }
  /// Where the segment search starts (see getPiecewiseLinearValue).
  TavInt getStartIndex() const { return _walk.getStart(); }
  /// Whether an evaluation in the slope form bisects rather than walks.
  bool isBisecting() const { return _walk.bisects(); }

  /// The function's value at x.
  double getPiecewiseLinearValue(double x) const { return _walk.valueAt(x); }

  double eval(TavAlgorithm alg) const override { return _walk.valueAt(_expr ? _expr.eval(alg) : 0.0); }
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  template <class From>
  TavExprPiecewiseLinearI(TavEnvI* env, TavInt form, TavNumExprI* expr, const From& breakpoints, const From& second,
                          double first, double last, int);

  // Copies first and the expression last: its reference is taken once
  // nothing can fail any more, and given back after the copies have gone.
  TavOperand<> _expr;
  TavInt _form;
  TavOwnedArray<TavNumArray> _breakpoints;
  TavOwnedArray<TavNumArray> _second;
  double _first;
  double _last;
  tav_detail::PiecewiseWalk _walk;
};

/// f(x) applied through a caller's function, declared increasing or
/// decreasing. The second function is carried (and cloned) for the solvers
/// that ask for it; evaluation applies the first.
class TavMonotonicNumExprI final : public TavNode<TavMonotonicNumExprI, TavNumExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavMonotonicNumExprI";
  typedef double (*Function)(double);

  /// decreasing is 1 for a decreasing function, 0 for an increasing one.
  TavMonotonicNumExprI(TavEnvI* env, TavNumExprI* expr, Function function, Function second, TavInt decreasing)
      : TavNode(env, nullptr), _expr(expr), _function(function), _secondFunction(second), _decreasing(decreasing) {}

  TavNumExprI* getExpr() const { return _expr.get(); }
  Function getFunction() const { return _function; }
  Function getSecondFunction() const { return _secondFunction; }
  bool isDecreasing() const { return _decreasing != 0; }

  double eval(TavAlgorithm alg) const override { return _function(_expr.eval(alg)); }
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  TavExtractableI* makeClone(TavEnvI* env) const override;

 private:
  TavOperand<> _expr;
  Function _function;
  Function _secondFunction;
  TavInt _decreasing;
};

/// The slope form over x (see TavExprPiecewiseLinearI); empty handles are refused.
TavNumExprArg TavPiecewiseLinear(const TavNumExprArg& x, const TavNumArray& breakpoints, const TavNumArray& slopes,
                                 double anchor, double anchorValue);
/// The value form over x.
TavNumExprArg TavPiecewiseLinear(const TavNumExprArg& x, double firstSlope, const TavNumArray& breakpoints,
                                 const TavNumArray& values, double lastSlope);

/// function(x), declared decreasing. A null function is refused as an empty
/// handle; second may be null.
TavNumExprArg TavMonotonicDecreasingNumExpr(const TavNumExprArg& x, double (*function)(double),
                                            double (*second)(double));
/// function(x), declared increasing.
TavNumExprArg TavMonotonicIncreasingNumExpr(const TavNumExprArg& x, double (*function)(double),
                                            double (*second)(double));

#endif
