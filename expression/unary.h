// Functions of one operand: square, absolute value and sign; the elementary
// functions; rounding and the conversion to an integer expression. No
// builder folds a constant or simplifies a composition (TavAbs(TavAbs(x))
// is two nodes), and domain errors come back as the IEEE value the maths
// function gives (log(0) is minus infinity, acos(2) not-a-number).
#ifndef TAV_EXPRESSION_UNARY_H
#define TAV_EXPRESSION_UNARY_H

#include <cmath>

#include "operators.h"
#include "shapes.h"

namespace tav_detail {
/// 1, -1 or 0; not-a-number and both zeros give 0.
inline double sign(double v) { return v > 0 ? 1.0 : v < 0 ? -1.0 : 0.0; }

/// |TavRound(first reading) - second reading|: the operand is read twice,
/// in this order, as solvers that count evaluations expect.
template <class Node>
double distToInt(const Node& self, TavAlgorithm alg) {
  const double first = self.operandValue(alg);
  const double second = self.operandValue(alg);
  return std::fabs(TavRound(first) - second);
}

/// The value when it is exactly whole; anything else (infinities and
/// not-a-number included) is refused.
inline double wholeOrThrow(double v) {
  if (!TavNumIsInteger(v)) throw TavWrongUsage("TavNumToIntI::eval : expr is not IntExpr");
  return (double)TavTrunc(v);
}
template <class Node>
double exactInt(const Node& self, TavAlgorithm alg) {
  return wholeOrThrow(self.operandValue(alg));
}
}  // namespace tav_detail

// Square, absolute value, sign. The integer square and absolute value do not
// truncate the value their operand reports. The sign is an integer
// expression over a numeric operand.
//  class, base, builder (how, name), operand handle, integrality, texts, value
#define TAV_SQUARE_FAMILY(UN)                                                                   \
  UN(TavNumSquareI, TavNumExprI, Generated, TavSquare, TavNumExprArg, FromOperands,             \
     TAV_TEXTS("TavSquare(", "", ") ", "square(", "", ")"), Apply(v * v))                       \
  UN(TavIntSquareI, TavIntExprI, Generated, TavSquare, TavIntExprArg, Always,                   \
     TAV_TEXTS("TavSquare(", "", ") ", "square(", "", ")"), Apply(v * v))                       \
  UN(TavNumAbsI, TavNumExprI, Generated, TavAbs, TavNumExprArg, FromOperands,                   \
     TAV_TEXTS("TavAbs(", "", ") ", "abs(", "", ")"), Apply(std::fabs(v)))                      \
  UN(TavIntAbsI, TavIntExprI, Generated, TavAbs, TavIntExprArg, Always,                         \
     TAV_TEXTS("TavAbs(", "", ") ", "abs(", "", ")"), Apply(std::fabs(v)))                      \
  UN(TavSgnI, TavIntExprI, Generated, TavSgn, TavNumExprArg, Always,                            \
     TAV_TEXTS("TavSgn(", "", ") ", "sgn(", "", ")"), Apply(tav_detail::sign(v)))
TAV_SQUARE_FAMILY(TAV_UNARY_NODE)

// The elementary functions of the maths library; never integer.
#define TAV_ELEMENTARY_FAMILY(UN)                                                               \
  UN(TavSinI, TavNumExprI, Generated, TavSin, TavNumExprArg, Never,                             \
     TAV_TEXTS("TavSin(", "", ") ", "sin(", "", ")"), Apply(std::sin(v)))                       \
  UN(TavCosI, TavNumExprI, Generated, TavCos, TavNumExprArg, Never,                             \
     TAV_TEXTS("TavCos(", "", ") ", "cos(", "", ")"), Apply(std::cos(v)))                       \
  UN(TavTanI, TavNumExprI, Generated, TavTan, TavNumExprArg, Never,                             \
     TAV_TEXTS("TavTan(", "", ") ", "tan(", "", ")"), Apply(std::tan(v)))                       \
  UN(TavArcSinI, TavNumExprI, Generated, TavArcSin, TavNumExprArg, Never,                       \
     TAV_TEXTS("TavArcSin(", "", ") ", "arc-sin(", "", ")"), Apply(std::asin(v)))               \
  UN(TavArcCosI, TavNumExprI, Generated, TavArcCos, TavNumExprArg, Never,                       \
     TAV_TEXTS("TavArcCos(", "", ") ", "arc-cos(", "", ")"), Apply(std::acos(v)))               \
  UN(TavArcTanI, TavNumExprI, Generated, TavArcTan, TavNumExprArg, Never,                       \
     TAV_TEXTS("TavArcTan(", "", ") ", "arc-tan(", "", ")"), Apply(std::atan(v)))               \
  UN(TavLogI, TavNumExprI, Generated, TavLog, TavNumExprArg, Never,                             \
     TAV_TEXTS("TavLog(", "", ") ", "log(", "", ")"), Apply(std::log(v)))                       \
  UN(TavExponentI, TavNumExprI, Generated, TavExponent, TavNumExprArg, Never,                   \
     TAV_TEXTS("TavExponent(", "", ") ", "exp(", "", ")"), Apply(std::exp(v)))
TAV_ELEMENTARY_FAMILY(TAV_UNARY_NODE)

// Rounding. A rounding node is integer exactly when its operand is (a ceiling
// of a continuous variable is not an integer expression, though its value is
// whole); TavTrunc and TavFract go through a 64-bit integer. TavNumToInt is
// an integer expression that refuses a value that is not exactly whole.
#define TAV_ROUNDING_FAMILY(UN)                                                                 \
  UN(TavNumCeilI, TavNumExprI, Generated, TavCeil, TavNumExprArg, FromOperands,                 \
     TAV_TEXTS("TavCeil(", "", ") ", "ceil(", "", ")"), Apply(std::ceil(v)))                    \
  UN(TavNumFloorI, TavNumExprI, Generated, TavFloor, TavNumExprArg, FromOperands,               \
     TAV_TEXTS("TavFloor(", "", ") ", "floor(", "", ")"), Apply(std::floor(v)))                 \
  UN(TavNumTruncI, TavNumExprI, Generated, TavTrunc, TavNumExprArg, FromOperands,               \
     TAV_TEXTS("TavTrunc(", "", ") ", "trunc(", "", ")"), Apply((double)TavTrunc(v)))           \
  UN(TavDistToIntI, TavNumExprI, Generated, TavDistToInt, TavNumExprArg, FromOperands,          \
     TAV_TEXTS("TavDistToInt(", "", ") ", "distToInt(", "", ")"), Eval(tav_detail::distToInt(self, alg))) \
  UN(TavNumToIntI, TavIntExprI, Generated, TavNumToInt, TavNumExprArg, Always,                  \
     TAV_TEXTS("TavNumToInt(", "", ") ", "numToInt(", "", ")"), Eval(tav_detail::exactInt(self, alg)))    \
  UN(TavNumFractI, TavNumExprI, Generated, TavFract, TavNumExprArg, FromOperands,               \
     TAV_TEXTS("TavFract(", "", ") ", "fract(", "", ")"), Apply(v - (double)TavTrunc(v)))       \
  UN(TavNumRoundI, TavNumExprI, Generated, TavVurRound, TavNumExprArg, FromOperands,            \
     TAV_TEXTS("TavVurRound(", "", ") ", "round(", "", ")"), Apply(TavVurRound(v)))
TAV_ROUNDING_FAMILY(TAV_UNARY_NODE)

/// x * x.
TavNumExprArg TavSquare(const TavNumExprArg& x);
/// x * x as an integer expression.
TavIntExprArg TavSquare(const TavIntExprArg& x);
/// The absolute value |x|.
TavNumExprArg TavAbs(const TavNumExprArg& x);
/// The absolute value |x| as an integer expression.
TavIntExprArg TavAbs(const TavIntExprArg& x);
/// 1, -1 or 0 by the operand's sign, as an integer expression.
TavIntExprArg TavSgn(const TavNumExprArg& x);
/// An integer handle keeps the integer square.
inline TavIntExprArg TavSquare(const TavIntExpr& x) { return TavSquare(TavIntExprArg(x)); }
/// An integer handle keeps the integer absolute value.
inline TavIntExprArg TavAbs(const TavIntExpr& x) { return TavAbs(TavIntExprArg(x)); }

/// The sine of x, in radians.
TavNumExprArg TavSin(const TavNumExprArg& x);
/// The cosine of x, in radians.
TavNumExprArg TavCos(const TavNumExprArg& x);
/// The tangent of x, in radians.
TavNumExprArg TavTan(const TavNumExprArg& x);
/// The arc sine of x, in radians.
TavNumExprArg TavArcSin(const TavNumExprArg& x);
/// The arc cosine of x, in radians.
TavNumExprArg TavArcCos(const TavNumExprArg& x);
/// The arc tangent of x, in radians.
TavNumExprArg TavArcTan(const TavNumExprArg& x);
/// The natural logarithm.
TavNumExprArg TavLog(const TavNumExprArg& x);
/// e to the power x.
TavNumExprArg TavExponent(const TavNumExprArg& x);
/// TavLog(x) divided by log(2) through the division operator: no node of its own.
TavNumExprArg TavLog2(const TavNumExprArg& x);
/// TavLog(x) divided by log(10) through the division operator.
TavNumExprArg TavLog10(const TavNumExprArg& x);

/// The smallest whole number not below x.
TavNumExprArg TavCeil(const TavNumExprArg& x);
/// The largest whole number not above x.
TavNumExprArg TavFloor(const TavNumExprArg& x);
/// Truncation toward zero (through a 64-bit integer); the host's
/// TavTrunc(double) stays the scalar form.
TavNumExprArg TavTrunc(const TavNumExprArg& x);
/// |round(x) - x|, reading x twice.
TavNumExprArg TavDistToInt(const TavNumExprArg& x);
/// x as an integer expression; evaluating it throws unless x is exactly whole.
TavIntExprArg TavNumToInt(const TavNumExprArg& x);
/// x - trunc(x), negative for negative x.
TavNumExprArg TavFract(const TavNumExprArg& x);
/// The modelling language's rounding; TavVurRound(double) stays the scalar form.
TavNumExprArg TavVurRound(const TavNumExprArg& x);

#endif
