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
// models match these texts exactly.
#define TAV_MODULO_FAMILY(CST, BIN)                                                                   \
  BIN(TavIntModuloI, TavIntExprI, Always, TAV_TEXTS("( ", "% ", ") ", "", " % ", ""),                  \
      tav_detail::intRemainder(a, b))                                                                  \
  CST(TavIntModuloCstI, TavIntExprI, TavInt, Always, false, TAV_TEXTS("( ", "% ", ") ", "", "% ", ""), \
      (double)(TavTrunc(v) % c))                                                                       \
  CST(TavIntRecModuloCstI, TavIntExprI, TavInt, Always, true, TAV_TEXTS("(", "% ", ")", "", " % ", ""), \
      (double)(c % TavTrunc(v)))
TAV_MODULO_FAMILY(TAV_CST_NODE, TAV_BINARY_NODE)

#endif
