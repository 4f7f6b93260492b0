// The reference side of the function table: each row's value as a plain
// function of doubles. Rounding uses the host's scalar functions, which the
// builders are defined by.
#include <cmath>

#include "functions.h"
#include "fuzz.h"
#include "tavexpression.h"

namespace tavfuzz {
namespace {

/// Truncation toward zero through a 64-bit integer.
double through64(double a) { return (double)TavTrunc(a); }

/// An exactly whole value; anything else (infinities, not-a-number) is refused.
double whole(double a) {
  if (!(std::isfinite(a) && std::floor(a) == a)) throw Refused();
  return through64(a);
}

constexpr bool IntOperand_Num = false;
constexpr bool IntOperand_Int = true;

}  // namespace

#define TAV_FUZZ_REFERENCE_ROW(Name, Shape, Operand, Result, Integer, Value, Plain, Library) \
  {#Name, Shape, IntOperand_##Operand, Result, Integer, [](double a, double b) -> double { \
     (void)b;                                                                           \
     return Value;                                                                      \
   }, {Plain, Library}},
const Function Functions[] = {TAV_FUZZ_FUNCTIONS(TAV_FUZZ_REFERENCE_ROW)};
#undef TAV_FUZZ_REFERENCE_ROW
const int FunctionCount = (int)(sizeof Functions / sizeof Functions[0]);

}  // namespace tavfuzz
