// Special integer nodes: the remainders of a truncated integer division.
#ifndef TAV_EXPRESSION_FUNCTIONS_H
#define TAV_EXPRESSION_FUNCTIONS_H

#include "shapes.h"

namespace tav_detail {
/// Remainder with the sign of the dividend, on truncated values. A zero
/// divisor is not guarded: the caller keeps divisors away from zero.
inline double intRemainder(double a, double b) { return (double)(TavTrunc(a) % TavTrunc(b)); }
}  // namespace tav_detail

// The blanks differ between the three on purpose: readers of printed
// models match these texts exactly. The % operators build them
// (operators.cpp).
//  class, base, builder (how, name), [constant type,] integrality, [order,] texts, value
#define TAV_MODULO_FAMILY(CST, BIN)                                                                         \
  BIN(TavIntModuloI, TavIntExprI, HandWritten, operator%, Always, TAV_TEXTS("( ", "% ", ") ", "", " % ", ""), \
      tav_detail::intRemainder(a, b))                                                                        \
  CST(TavIntModuloCstI, TavIntExprI, HandWritten, operator%, TavInt, Always, OperandFirst,                  \
      TAV_TEXTS("( ", "% ", ") ", "", "% ", ""), (double)(TavTrunc(v) % c))                                 \
  CST(TavIntRecModuloCstI, TavIntExprI, HandWritten, operator%, TavInt, Always, ConstantFirst,              \
      TAV_TEXTS("(", "% ", ")", "", " % ", ""), (double)(c % TavTrunc(v)))
TAV_MODULO_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE)

#endif
