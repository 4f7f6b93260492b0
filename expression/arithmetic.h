// Products, quotients, minimum and maximum: the nodes for what a linear
// expression cannot hold, and the builders that choose them.
#ifndef TAV_EXPRESSION_ARITHMETIC_H
#define TAV_EXPRESSION_ARITHMETIC_H

#include "shapes.h"

namespace tav_detail {
/// Integer quotient of truncated values; the sign follows truncation toward zero.
inline double intQuotient(double a, double b) { return (double)(TavTrunc(a) / TavTrunc(b)); }
}  // namespace tav_detail

// Products and quotients. The constant is always the second field; in the
// RecDiv rows it is the dividend and prints first. Integer products stay in
// floating point while integer quotients go through 64-bit integers.
//            name              base          constant  integrality   const first
TAV_CST_NODE(TavNumTimesCstI, TavNumExprI, double, FromOperands, false,
             TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * c)
TAV_CST_NODE(TavNumDivCstI, TavNumExprI, double, Never, false,
             TAV_TEXTS("( ", "/ ", ") ", "", "/ ", ""), v / c)
TAV_CST_NODE(TavNumRecDivCstI, TavNumExprI, double, Never, true,
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), c / v)
TAV_CST_NODE(TavIntTimesCstI, TavIntExprI, TavInt, Always, false,
             TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), v * (double)c)
TAV_CST_NODE(TavIntDivCstI, TavIntExprI, TavInt, Always, false,
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(TavTrunc(v) / c))
TAV_CST_NODE(TavIntRecDivCstI, TavIntExprI, TavInt, Always, true,
             TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), (double)(c / TavTrunc(v)))
TAV_BINARY_NODE(TavNumTimesI, TavNumExprI, FromOperands, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), a * b)
TAV_BINARY_NODE(TavNumDivI, TavNumExprI, Never, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""), a / b)
TAV_BINARY_NODE(TavIntTimesI, TavIntExprI, Always, TAV_TEXTS("( ", "* ", ") ", "", " * ", ""), a * b)
TAV_BINARY_NODE(TavIntDivI, TavIntExprI, Always, TAV_TEXTS("( ", "/ ", ") ", "", " / ", ""),
                tav_detail::intQuotient(a, b))

// Minimum and maximum. Ties and not-a-number comparisons give the constant
// (or the right operand). The texts are irregular on purpose: solvers and
// users parse them as they are.
TAV_CST_NODE(TavNumMinCstI, TavNumExprI, double, FromOperands, false,
             TAV_TEXTS("TavMin( ", ", ", ") ", "min( ", ", ", ")"), c > v ? v : c)
TAV_CST_NODE(TavNumMaxCstI, TavNumExprI, double, FromOperands, false,
             TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"), v > c ? v : c)
TAV_CST_NODE(TavIntMinCstI, TavIntExprI, TavInt, Always, false,
             TAV_TEXTS("( ", ", ", ") ", "min(", ", ", ")"), (double)c > v ? v : (double)c)
TAV_CST_NODE(TavIntMaxCstI, TavIntExprI, TavInt, Always, false,
             TAV_TEXTS("( ", ", ", ") ", "max(", ", ", ")"), v > (double)c ? v : (double)c)
TAV_BINARY_NODE(TavNumMinI, TavNumExprI, FromOperands, TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"),
                b > a ? a : b)
TAV_BINARY_NODE(TavNumMaxI, TavNumExprI, FromOperands, TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"),
                a > b ? a : b)
TAV_BINARY_NODE(TavIntMinI, TavIntExprI, Always, TAV_TEXTS("TavMin( ", ", ", ") ", "min(", ", ", ")"),
                b > a ? a : b)
TAV_BINARY_NODE(TavIntMaxI, TavIntExprI, Always, TAV_TEXTS("TavMax( ", ", ", ") ", "max(", ", ", ")"),
                a > b ? a : b)
TAV_ARRAY_NODE(TavNumMinArrayI, TavNumExprI, TavNumExprArray, FromOperands,
               TAV_TEXTS("TavMin( ", "", ") ", "min( ", "", ")"), "Array of size 0 in evaluation of TavMin", m > v)
TAV_ARRAY_NODE(TavNumMaxArrayI, TavNumExprI, TavNumExprArray, FromOperands,
               TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m)
TAV_ARRAY_NODE(TavIntMinArrayI, TavIntExprI, TavIntExprArray, Always,
               TAV_TEXTS("TavMin( ", "", ") ", "min(", "", ")"), "Array of size 0 in evaluation of TavMin", m > v)
TAV_ARRAY_NODE(TavIntMaxArrayI, TavIntExprI, TavIntExprArray, Always,
               TAV_TEXTS("TavMax( ", "", ") ", "max(", "", ")"), "Array of size 0 in evaluation of TavMax", v > m)

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

#endif
