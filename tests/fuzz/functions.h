// The builders of one or two operands that programs call, one row each:
//   builder, shape, operand, result, isInteger of the node, reference value.
// The operand column says which handle the expression operands are made as
// (Num: any numeric one, Int: an integer one); the result is the handle the
// call must return, which the runner checks at compile time. The reference
// is written from what the builder computes, with a and b the values of the
// operands in call order (an expression's or a number's); Refused stands for
// an evaluation the library refuses. IncreasingCube and DecreasingNegExp
// stand for the monotonic builders over those functions (see the runner).
#ifndef TAV_TESTS_FUZZ_FUNCTIONS_H
#define TAV_TESTS_FUZZ_FUNCTIONS_H

#define TAV_FUZZ_FUNCTIONS(ROW)                                                                   \
  ROW(TavSquare,    FUnary,   Num, KNumArg, FromOperands, a * a)                                  \
  ROW(TavSquare,    FUnary,   Int, KIntArg, Always,       a * a)                                  \
  ROW(TavAbs,       FUnary,   Num, KNumArg, FromOperands, std::copysign(a, 1.0))                  \
  ROW(TavAbs,       FUnary,   Int, KIntArg, Always,       std::copysign(a, 1.0))                  \
  ROW(TavSgn,       FUnary,   Num, KIntArg, Always,       a > 0 ? 1.0 : a < 0 ? -1.0 : 0.0)       \
  ROW(TavSin,       FUnary,   Num, KNumArg, Never,        std::sin(a))                            \
  ROW(TavCos,       FUnary,   Num, KNumArg, Never,        std::cos(a))                            \
  ROW(TavTan,       FUnary,   Num, KNumArg, Never,        std::tan(a))                            \
  ROW(TavArcSin,    FUnary,   Num, KNumArg, Never,        std::asin(a))                           \
  ROW(TavArcCos,    FUnary,   Num, KNumArg, Never,        std::acos(a))                           \
  ROW(TavArcTan,    FUnary,   Num, KNumArg, Never,        std::atan(a))                           \
  ROW(TavLog,       FUnary,   Num, KNumArg, Never,        std::log(a))                            \
  ROW(TavExponent,  FUnary,   Num, KNumArg, Never,        std::exp(a))                            \
  ROW(TavLog2,      FUnary,   Num, KNumArg, Never,        std::log(a) / std::log(2.0))            \
  ROW(TavLog10,     FUnary,   Num, KNumArg, Never,        std::log(a) / std::log(10.0))           \
  ROW(TavCeil,      FUnary,   Num, KNumArg, FromOperands, std::ceil(a))                           \
  ROW(TavFloor,     FUnary,   Num, KNumArg, FromOperands, std::floor(a))                          \
  ROW(TavTrunc,     FUnary,   Num, KNumArg, FromOperands, through64(a))                           \
  ROW(TavDistToInt, FUnary,   Num, KNumArg, FromOperands, std::fabs(TavRound(a) - a))             \
  ROW(TavNumToInt,  FUnary,   Num, KIntArg, Always,       whole(a))                               \
  ROW(TavFract,     FUnary,   Num, KNumArg, FromOperands, a - through64(a))                       \
  ROW(TavVurRound,  FUnary,   Num, KNumArg, FromOperands, TavVurRound(a))                         \
  ROW(TavPower,     FBinary,  Num, KNumArg, FromOperands, std::pow(a, b))                         \
  ROW(TavPower,     FExprCst, Num, KNumArg, FromOperands, std::pow(a, b))                         \
  ROW(TavPower,     FCstExpr, Num, KNumArg, FromOperands, std::pow(a, b))                         \
  ROW(IncreasingCube,   FUnary, Num, KNumArg, Never,    a * a * a)                                \
  ROW(DecreasingNegExp, FUnary, Num, KNumArg, Never,    -std::exp(a))

#endif
