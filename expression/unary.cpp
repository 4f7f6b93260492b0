// The statics and builders of the functions of one operand, and the
// logarithms to bases 2 and 10, which are quotients of the natural one.
#include "unary.h"

#include "builders.h"

TAV_SQUARE_FAMILY(TAV_ROW_STATICS)
TAV_ELEMENTARY_FAMILY(TAV_ROW_STATICS)
TAV_ROUNDING_FAMILY(TAV_ROW_STATICS)

TAV_SQUARE_FAMILY(TAV_UNARY_BUILDER)
TAV_ELEMENTARY_FAMILY(TAV_UNARY_BUILDER)
TAV_ROUNDING_FAMILY(TAV_UNARY_BUILDER)

namespace {
/// TavLog(x) / log(base), the constant taken before the node is made. One
/// call: if the quotient cannot be made, the logarithm goes again.
TavNumExprArg logToBase(const TavNumExprArg& x, double base) {
  const double divisor = std::log(base);
  TavNumExprArg ln = TavLog(x);
  try {
    return ln / divisor;
  } catch (...) {
    ln.end();
    throw;
  }
}
}  // namespace

TavNumExprArg TavLog2(const TavNumExprArg& x) { return logToBase(x, 2.0); }
TavNumExprArg TavLog10(const TavNumExprArg& x) { return logToBase(x, 10.0); }
