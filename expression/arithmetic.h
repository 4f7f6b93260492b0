// Products, quotients, minimum and maximum: the nodes for what a linear
// expression cannot hold, and the builders that choose them.
#ifndef TAV_EXPRESSION_ARITHMETIC_H
#define TAV_EXPRESSION_ARITHMETIC_H

#include "operators.h"
#include "shapes.h"

namespace tav_detail {
/// Integer quotient of truncated values; the sign follows truncation toward zero.
inline double intQuotient(double a, double b) { return (double)(TavTrunc(a) / TavTrunc(b)); }
}  // namespace tav_detail

// Products and quotients. The constant is always the second field; in the
// RecDiv rows it is the dividend and prints first. Integer products stay in
// floating point while integer quotients go through 64-bit integers.
//  name, base, constant type, integrality, constant printed first, texts, value
#define TAV_PRODUCT_FAMILY(CST, BIN) \
  CST(TavNumTimesCstI, TavNumExprI, double, FromOperands, false, \
             TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * c) \
  CST(TavNumDivCstI, TavNumExprI, double, Never, false, \
             TAV_TEXTS("( ", "/ ", ") ", "", "/ ", ""), v / c) \
  CST(TavNumRecDivCstI, TavNumExprI, double, Never, true, \
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), c / v) \
  CST(TavIntTimesCstI, TavIntExprI, TavInt, Always, false, \
             TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * (double)c) \
  CST(TavIntDivCstI, TavIntExprI, TavInt, Always, false, \
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(TavTrunc(v) / c)) \
  CST(TavIntRecDivCstI, TavIntExprI, TavInt, Always, true, \
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(c / TavTrunc(v))) \
  BIN(TavNumTimesI, TavNumExprI, FromOperands, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), a * b) \
  BIN(TavNumDivI, TavNumExprI, Never, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), a / b) \
  BIN(TavIntTimesI, TavIntExprI, Always, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), a * b) \
  BIN(TavIntDivI, TavIntExprI, Always, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), \
                tav_detail::intQuotient(a, b))
TAV_PRODUCT_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE)

// Minimum and maximum. Ties and not-a-number comparisons give the constant
// (or the right operand). The texts are irregular on purpose: solvers and
// users parse them as they are.
#define TAV_MINMAX_FAMILY(CST, BIN, ARR) \
  CST(TavNumMinCstI, TavNumExprI, double, FromOperands, false, \
             TAV_TEXTS("TavMin( ", ", ", ") ", "min( ", ", ", ")"), c > v ? v : c) \
  CST(TavNumMaxCstI, TavNumExprI, double, FromOperands, false, \
             TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), v > c ? v : c) \
  CST(TavIntMinCstI, TavIntExprI, TavInt, Always, false, \
             TAV_TEXTS("( ", ", ", ") ", "min(", ", ", ")"), (double)c > v ? v : (double)c) \
  CST(TavIntMaxCstI, TavIntExprI, TavInt, Always, false, \
             TAV_TEXTS("( ", ", ", ") ", "max(", ", ", ")"), v > (double)c ? v : (double)c) \
  BIN(TavNumMinI, TavNumExprI, FromOperands, TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"), \
                b > a ? a : b) \
  BIN(TavNumMaxI, TavNumExprI, FromOperands, TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), \
                a > b ? a : b) \
  BIN(TavIntMinI, TavIntExprI, Always, TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"), \
                b > a ? a : b) \
  BIN(TavIntMaxI, TavIntExprI, Always, TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), \
                a > b ? a : b) \
  ARR(TavNumMinArrayI, TavNumExprI, TavNumExprArray, FromOperands, \
               TAV_TEXTS("TavMin( ", "", ") ", "min( ", "", ")"), "Array of size 0 in evaluation of TavMin", m > v) \
  ARR(TavNumMaxArrayI, TavNumExprI, TavNumExprArray, FromOperands, \
               TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m) \
  ARR(TavIntMinArrayI, TavIntExprI, TavIntExprArray, Always, \
               TAV_TEXTS("TavMin( ", "", ") ", "min(", "", ")"), "Array of size 0 in evaluation of TavMin", m > v) \
  ARR(TavIntMaxArrayI, TavIntExprI, TavIntExprArray, Always, \
               TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m)
TAV_MINMAX_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE, TAV_ARRAY_NODE)

// Integer quotients, never folded; a zero divisor is the caller's concern.
TavIntExprArg TavDiv(const TavIntExprArg& a, const TavIntExprArg& b);
TavIntExprArg TavDiv(const TavIntExprArg& x, TavInt c);
TavIntExprArg TavDiv(TavInt c, const TavIntExprArg& x);
TavIntExprArg TavDiv(const TavIntExprArg& x, int c);
TavIntExprArg TavDiv(int c, const TavIntExprArg& x);

// Minimum and maximum builders. No builder simplifies; the node builders
// over arrays accept an empty array (its node reports it when evaluated),
// while the number-array forms compute at once and reject it.
#define TAV_MINMAX_BUILDERS(F)                                 \
  TavNumExprArg F(const TavNumExprArg& a, const TavNumExprArg& b); \
  TavNumExprArg F(const TavNumExprArg& x, double c);           \
  TavNumExprArg F(double c, const TavNumExprArg& x);           \
  TavIntExprArg F(const TavIntExprArg& a, const TavIntExprArg& b); \
  TavIntExprArg F(const TavIntExprArg& x, TavInt c);           \
  TavIntExprArg F(const TavIntExprArg& x, int c);              \
  TavIntExprArg F(TavInt c, const TavIntExprArg& x);           \
  TavIntExprArg F(int c, const TavIntExprArg& x);              \
  TavNumExprArg F(const TavNumExprArray& a);                   \
  TavIntExprArg F(const TavIntExprArray& a);                   \
  TavNumExprArg F(const TavNumVarArray& a);                    \
  TavIntExprArg F(const TavIntVarArray& a);                    \
  double F(const TavNumArray& a);                              \
  TavInt F(const TavIntArray& a);
TAV_MINMAX_BUILDERS(TavMin)
TAV_MINMAX_BUILDERS(TavMax)
#undef TAV_MINMAX_BUILDERS
TAV_INT_EXPR_BINARY(TavDiv)
TAV_INT_EXPR_BINARY(TavMin)
TAV_INT_EXPR_BINARY(TavMax)

#endif
