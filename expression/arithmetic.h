// Products, quotients, minimum and maximum: the nodes for what a linear
// expression cannot hold, and the builders that choose them.
#ifndef TAV_EXPRESSION_ARITHMETIC_H
#define TAV_EXPRESSION_ARITHMETIC_H

#include <cmath>

#include "operators.h"
#include "shapes.h"

namespace tav_detail {
/// Integer quotient of truncated values; the sign follows truncation toward zero.
inline double intQuotient(double a, double b) { return (double)(TavTrunc(a) / TavTrunc(b)); }
}  // namespace tav_detail

// Products and quotients. The constant is always the second field; in the
// RecDiv rows it is the dividend and prints first. Integer products stay in
// floating point while integer quotients go through 64-bit integers. The
// operators fold linear operands and constant factors, so their builders
// are hand-written (operators.cpp).
//  class, base, builder (how, name), [constant type,] integrality, [order,] texts, value
#define TAV_PRODUCT_FAMILY(CST, BIN)                                                                             \
  CST(TavNumTimesCstI, TavNumExprI, HandWritten, operator*, double, FromOperands, Either,                        \
      TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * c)                                                         \
  CST(TavNumDivCstI, TavNumExprI, HandWritten, operator/, double, Never, OperandFirst,                           \
      TAV_TEXTS("( ", "/ ", ") ", "", "/ ", ""), v / c)                                                          \
  CST(TavNumRecDivCstI, TavNumExprI, HandWritten, operator/, double, Never, ConstantFirst,                       \
      TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), c / v)                                                         \
  CST(TavIntTimesCstI, TavIntExprI, HandWritten, operator*, TavInt, Always, Either,                              \
      TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * (double)c)                                                 \
  CST(TavIntDivCstI, TavIntExprI, Generated, TavDiv, TavInt, Always, OperandFirst,                               \
      TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(TavTrunc(v) / c))                                     \
  CST(TavIntRecDivCstI, TavIntExprI, Generated, TavDiv, TavInt, Always, ConstantFirst,                           \
      TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(c / TavTrunc(v)))                                     \
  BIN(TavNumTimesI, TavNumExprI, HandWritten, operator*, FromOperands, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), \
      a * b)                                                                                                     \
  BIN(TavNumDivI, TavNumExprI, HandWritten, operator/, Never, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), a / b) \
  BIN(TavIntTimesI, TavIntExprI, HandWritten, operator*, Always, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), a * b) \
  BIN(TavIntDivI, TavIntExprI, Generated, TavDiv, Always, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""),           \
      tav_detail::intQuotient(a, b))
TAV_PRODUCT_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE)

// Minimum and maximum. Ties and not-a-number comparisons give the constant
// (or the right operand). The texts are irregular on purpose: solvers and
// users parse them as they are. Array rows: array type, texts, the message
// of an empty array at evaluation, when a value v replaces the running m.
#define TAV_MINMAX_FAMILY(CST, BIN, ARR)                                                                   \
  CST(TavNumMinCstI, TavNumExprI, Generated, TavMin, double, FromOperands, Either,                         \
      TAV_TEXTS("TavMin( ", ", ", ") ", "min( ", ", ", ")"), c > v ? v : c)                                \
  CST(TavNumMaxCstI, TavNumExprI, Generated, TavMax, double, FromOperands, Either,                         \
      TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), v > c ? v : c)                                 \
  CST(TavIntMinCstI, TavIntExprI, Generated, TavMin, TavInt, Always, Either,                               \
      TAV_TEXTS("( ", ", ", ") ", "min(", ", ", ")"), (double)c > v ? v : (double)c)                       \
  CST(TavIntMaxCstI, TavIntExprI, Generated, TavMax, TavInt, Always, Either,                               \
      TAV_TEXTS("( ", ", ", ") ", "max(", ", ", ")"), v > (double)c ? v : (double)c)                       \
  BIN(TavNumMinI, TavNumExprI, Generated, TavMin, FromOperands,                                            \
      TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"), b > a ? a : b)                                 \
  BIN(TavNumMaxI, TavNumExprI, Generated, TavMax, FromOperands,                                            \
      TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), a > b ? a : b)                                 \
  BIN(TavIntMinI, TavIntExprI, Generated, TavMin, Always, TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"), \
      b > a ? a : b)                                                                                       \
  BIN(TavIntMaxI, TavIntExprI, Generated, TavMax, Always, TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), \
      a > b ? a : b)                                                                                       \
  ARR(TavNumMinArrayI, TavNumExprI, Generated, TavMin, TavNumExprArray, FromOperands,                      \
      TAV_TEXTS("TavMin( ", "", ") ", "min( ", "", ")"), "Array of size 0 in evaluation of TavMin", m > v) \
  ARR(TavNumMaxArrayI, TavNumExprI, Generated, TavMax, TavNumExprArray, FromOperands,                      \
      TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m)  \
  ARR(TavIntMinArrayI, TavIntExprI, Generated, TavMin, TavIntExprArray, Always,                            \
      TAV_TEXTS("TavMin( ", "", ") ", "min(", "", ")"), "Array of size 0 in evaluation of TavMin", m > v)  \
  ARR(TavIntMaxArrayI, TavIntExprI, Generated, TavMax, TavIntExprArray, Always,                            \
      TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m)
TAV_MINMAX_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE, TAV_ARRAY_NODE)

// Powers: pow of the standard library with no check (a negative base to a
// fractional exponent is not-a-number, zero to a negative exponent an
// infinity). No exponent is special: TavPower(x, 2) is not a square. Integer
// exactly when the operands are and the constant is integral, whatever the
// sign of the exponent. The short syntax prints no parentheses.
#define TAV_POWER_FAMILY(CST, BIN)                                                                   \
  CST(TavNumPowerCstI, TavNumExprI, Generated, TavPower, double, FromOperands, OperandFirst,         \
      TAV_TEXTS("( ", "^ ", ") ", "", " ^ ", ""), std::pow(v, c))                                    \
  CST(TavNumRecPowerCstI, TavNumExprI, Generated, TavPower, double, FromOperands, ConstantFirst,     \
      TAV_TEXTS("( ", "^ ", ") ", "", " ^ ", ""), std::pow(c, v))                                    \
  BIN(TavNumPowerI, TavNumExprI, HandWritten, TavPower, FromOperands, TAV_TEXTS("( ", "^ ", ") ", "", " ^ ", ""), \
      std::pow(a, b))
TAV_POWER_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE)

///@{
/// x to the power y; TavWrongUsage for operands of two environments.
TavNumExprArg TavPower(const TavNumExprArg& x, const TavNumExprArg& y);
TavNumExprArg TavPower(const TavNumExprArg& x, double c);
TavNumExprArg TavPower(double c, const TavNumExprArg& x);
///@}

///@{
/// Integer quotient truncated toward zero, never folded; a zero divisor is the caller's concern.
TavIntExprArg TavDiv(const TavIntExprArg& a, const TavIntExprArg& b);
TavIntExprArg TavDiv(const TavIntExprArg& x, TavInt c);
TavIntExprArg TavDiv(TavInt c, const TavIntExprArg& x);
TavIntExprArg TavDiv(const TavIntExprArg& x, int c);
TavIntExprArg TavDiv(int c, const TavIntExprArg& x);
///@}

// Minimum and maximum. No builder simplifies; the node builders over arrays
// accept an empty array (its node reports it when evaluated), while the
// number-array forms compute at once and reject it.
///@{
/// The smaller of two operands, or the smallest element of an array.
TavNumExprArg TavMin(const TavNumExprArg& a, const TavNumExprArg& b);
TavNumExprArg TavMin(const TavNumExprArg& x, double c);
TavNumExprArg TavMin(double c, const TavNumExprArg& x);
TavIntExprArg TavMin(const TavIntExprArg& a, const TavIntExprArg& b);
TavIntExprArg TavMin(const TavIntExprArg& x, TavInt c);
TavIntExprArg TavMin(const TavIntExprArg& x, int c);
TavIntExprArg TavMin(TavInt c, const TavIntExprArg& x);
TavIntExprArg TavMin(int c, const TavIntExprArg& x);
TavNumExprArg TavMin(const TavNumExprArray& a);
TavIntExprArg TavMin(const TavIntExprArray& a);
TavNumExprArg TavMin(const TavNumVarArray& a);
TavIntExprArg TavMin(const TavIntVarArray& a);
double TavMin(const TavNumArray& a);
TavInt TavMin(const TavIntArray& a);
///@}

///@{
/// The larger of two operands, or the largest element of an array.
TavNumExprArg TavMax(const TavNumExprArg& a, const TavNumExprArg& b);
TavNumExprArg TavMax(const TavNumExprArg& x, double c);
TavNumExprArg TavMax(double c, const TavNumExprArg& x);
TavIntExprArg TavMax(const TavIntExprArg& a, const TavIntExprArg& b);
TavIntExprArg TavMax(const TavIntExprArg& x, TavInt c);
TavIntExprArg TavMax(const TavIntExprArg& x, int c);
TavIntExprArg TavMax(TavInt c, const TavIntExprArg& x);
TavIntExprArg TavMax(int c, const TavIntExprArg& x);
TavNumExprArg TavMax(const TavNumExprArray& a);
TavIntExprArg TavMax(const TavIntExprArray& a);
TavNumExprArg TavMax(const TavNumVarArray& a);
TavIntExprArg TavMax(const TavIntVarArray& a);
double TavMax(const TavNumArray& a);
TavInt TavMax(const TavIntArray& a);
///@}

///@{
/// TavDiv, TavMin and TavMax with a TavIntExpr operand, forwarded to the integer forms.
TAV_INT_EXPR_BINARY(TavDiv)
TAV_INT_EXPR_BINARY(TavMin)
TAV_INT_EXPR_BINARY(TavMax)
///@}

#endif
