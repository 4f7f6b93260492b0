// The builders of one or two operands that programs call, one row each:
//   builder, shape, operand, result, isInteger of the node, reference value,
//   display in the plain syntax, display in the library syntax.
// The operand column says which handle the expression operands are made as
// (Num: any numeric one, Int: an integer one); the result is the handle the
// call must return, which the runner checks at compile time. The reference
// is written from what the builder computes, with a and b the values of the
// operands in call order (an expression's or a number's); Refused stands for
// an evaluation the library refuses. In the displays %0 and %1 stand for the
// operands in call order (a number as the stream writes a double). The base
// 2 and 10 logarithms are a logarithm node divided by ln 2 or ln 10, which
// the stream writes as 0.693147 and 2.30259. IncreasingCube and
// DecreasingNegExp stand for the monotonic builders over those functions
// (see the runner).
#ifndef TAV_TESTS_FUZZ_FUNCTIONS_H
#define TAV_TESTS_FUZZ_FUNCTIONS_H

#define TAV_FUZZ_FUNCTIONS(ROW)                                                                           \
  ROW(TavSquare,    FUnary,   Num, KNumArg, FromOperands, a * a,                  "square(%0)", "TavSquare(%0) ") \
  ROW(TavSquare,    FUnary,   Int, KIntArg, Always,       a * a,                  "square(%0)", "TavSquare(%0) ") \
  ROW(TavAbs,       FUnary,   Num, KNumArg, FromOperands, std::copysign(a, 1.0),  "abs(%0)", "TavAbs(%0) ")       \
  ROW(TavAbs,       FUnary,   Int, KIntArg, Always,       std::copysign(a, 1.0),  "abs(%0)", "TavAbs(%0) ")       \
  ROW(TavSgn,       FUnary,   Num, KIntArg, Always,       a > 0 ? 1.0 : a < 0 ? -1.0 : 0.0, "sgn(%0)", "TavSgn(%0) ") \
  ROW(TavSin,       FUnary,   Num, KNumArg, Never,        std::sin(a),            "sin(%0)", "TavSin(%0) ")       \
  ROW(TavCos,       FUnary,   Num, KNumArg, Never,        std::cos(a),            "cos(%0)", "TavCos(%0) ")       \
  ROW(TavTan,       FUnary,   Num, KNumArg, Never,        std::tan(a),            "tan(%0)", "TavTan(%0) ")       \
  ROW(TavArcSin,    FUnary,   Num, KNumArg, Never,        std::asin(a),           "arc-sin(%0)", "TavArcSin(%0) ") \
  ROW(TavArcCos,    FUnary,   Num, KNumArg, Never,        std::acos(a),           "arc-cos(%0)", "TavArcCos(%0) ") \
  ROW(TavArcTan,    FUnary,   Num, KNumArg, Never,        std::atan(a),           "arc-tan(%0)", "TavArcTan(%0) ") \
  ROW(TavLog,       FUnary,   Num, KNumArg, Never,        std::log(a),            "log(%0)", "TavLog(%0) ")       \
  ROW(TavExponent,  FUnary,   Num, KNumArg, Never,        std::exp(a),            "exp(%0)", "TavExponent(%0) ")  \
  ROW(TavLog2,      FUnary,   Num, KNumArg, Never,        std::log(a) / std::log(2.0),                            \
      "log(%0)/ 0.693147", "( TavLog(%0) / 0.693147) ")                                                             \
  ROW(TavLog10,     FUnary,   Num, KNumArg, Never,        std::log(a) / std::log(10.0),                           \
      "log(%0)/ 2.30259", "( TavLog(%0) / 2.30259) ")                                                               \
  ROW(TavCeil,      FUnary,   Num, KNumArg, FromOperands, std::ceil(a),           "ceil(%0)", "TavCeil(%0) ")     \
  ROW(TavFloor,     FUnary,   Num, KNumArg, FromOperands, std::floor(a),          "floor(%0)", "TavFloor(%0) ")   \
  ROW(TavTrunc,     FUnary,   Num, KNumArg, FromOperands, through64(a),           "trunc(%0)", "TavTrunc(%0) ")   \
  ROW(TavDistToInt, FUnary,   Num, KNumArg, FromOperands, std::fabs(TavRound(a) - a),                             \
      "distToInt(%0)", "TavDistToInt(%0) ")                                                                         \
  ROW(TavNumToInt,  FUnary,   Num, KIntArg, Always,       whole(a),               "numToInt(%0)", "TavNumToInt(%0) ") \
  ROW(TavFract,     FUnary,   Num, KNumArg, FromOperands, a - through64(a),       "fract(%0)", "TavFract(%0) ")   \
  ROW(TavVurRound,  FUnary,   Num, KNumArg, FromOperands, TavVurRound(a),         "round(%0)", "TavVurRound(%0) ") \
  ROW(TavPower,     FBinary,  Num, KNumArg, FromOperands, std::pow(a, b),         "%0 ^ %1", "( %0^ %1) ")        \
  ROW(TavPower,     FExprCst, Num, KNumArg, FromOperands, std::pow(a, b),         "%0 ^ %1", "( %0^ %1) ")        \
  ROW(TavPower,     FCstExpr, Num, KNumArg, FromOperands, std::pow(a, b),         "%0 ^ %1", "( %0^ %1) ")        \
  ROW(IncreasingCube,   FUnary, Num, KNumArg, Never,    a * a * a,                                                  \
      "TavMonotonicIncreasingNumExpr(%0)", "TavMonotonicIncreasingNumExpr(%0)")                                     \
  ROW(DecreasingNegExp, FUnary, Num, KNumArg, Never,    -std::exp(a),                                               \
      "TavMonotonicDecreasingNumExpr(%0)", "TavMonotonicDecreasingNumExpr(%0)")

#endif
