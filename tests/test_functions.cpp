// The functions of one operand and the powers at the points where maths
// libraries and hand-written nodes usually differ: negatives, both zeros,
// infinities and not-a-number. Each row's value is checked against the
// function written here from its definition, not against the row's own
// formula, and every row of the lists must have such a function.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <type_traits>

#include "tavexpression.h"
#include "test_support.h"

namespace {

const double Inf = std::numeric_limits<double>::infinity();
const double NaN = std::numeric_limits<double>::quiet_NaN();
const double Points[] = {-2.75, -1.0, -0.5, -0.0, 0.0, 0.4, 2.5, 2.6, 3.0, 1e300, Inf, -Inf, NaN};

/// An exactly whole v through a 64-bit integer; anything else is refused.
double exactlyWhole(double v) {
  if (!(std::isfinite(v) && std::floor(v) == v)) throw TavWrongUsage("TavNumToIntI::eval : expr is not IntExpr");
  return (double)TavTrunc(v);
}

/// Each row's function, written from its definition.
const std::map<std::string, std::function<double(double)>>& definitions() {
  static const std::map<std::string, std::function<double(double)>> d = {
      {"TavNumSquareI", [](double v) { return v * v; }},
      {"TavIntSquareI", [](double v) { return v * v; }},
      {"TavNumAbsI", [](double v) { return std::copysign(v, 1.0); }},
      {"TavIntAbsI", [](double v) { return std::copysign(v, 1.0); }},
      {"TavSgnI", [](double v) { return v > 0 ? 1.0 : v < 0 ? -1.0 : 0.0; }},
      {"TavSinI", [](double v) { return std::sin(v); }},
      {"TavCosI", [](double v) { return std::cos(v); }},
      {"TavTanI", [](double v) { return std::tan(v); }},
      {"TavArcSinI", [](double v) { return std::asin(v); }},
      {"TavArcCosI", [](double v) { return std::acos(v); }},
      {"TavArcTanI", [](double v) { return std::atan(v); }},
      {"TavLogI", [](double v) { return std::log(v); }},
      {"TavExponentI", [](double v) { return std::exp(v); }},
      {"TavNumCeilI", [](double v) { return std::ceil(v); }},
      {"TavNumFloorI", [](double v) { return std::floor(v); }},
      {"TavNumTruncI", [](double v) { return (double)TavTrunc(v); }},
      {"TavDistToIntI", [](double v) { return std::fabs(TavRound(v) - v); }},
      {"TavNumToIntI", exactlyWhole},
      {"TavNumFractI", [](double v) { return v - (double)TavTrunc(v); }},
      {"TavNumRoundI", [](double v) { return TavVurRound(v); }},
  };
  return d;
}

struct Model : NamedVars {
  Model() : NamedVars(-100, 100) {}
  ~Model() { env.end(); }
  TavSolution sol{env};
};

/// Builds the row over x (or i) and checks its value at every point, then
/// over a counted node, and checks the count it takes and gives back.
template <class Node, class Operand>
void atPoints(const char* name, TavNumExprArg (*build)(const Operand&)) {
  SCOPED_TRACE(name);
  auto found = definitions().find(name);
  ASSERT_NE(found, definitions().end()) << "no definition for this row";
  Model m;
  constexpr bool integer = std::is_same<Operand, TavIntExprArg>::value;
  const TavNumVar var = integer ? TavNumVar(m.i) : m.x;
  TavNumExpr node(build(Operand(var.getImpl())));
  EXPECT_STREQ(node.getImpl()->getRttiTypeName(), name);
  for (double v : Points) {
    SCOPED_TRACE(v);
    m.sol.setValue(var, v);
    const std::string refusal = messageOf<TavException>([&] { found->second(v); });
    if (refusal != "<no throw>") EXPECT_EQ(messageOf<TavException>([&] { node.getImpl()->eval(m.sol); }), refusal);
    else expectSame(m.sol.getValue(node), found->second(v));
  }
  Operand arg;
  if constexpr (integer) arg = m.i + 0;
  else arg = m.x + 0.0;
  TavNumExpr operand(arg);
  TavNumExpr over(build(arg));
  EXPECT_EQ(operand.getImpl()->getRefCount(), 2);
  over.end();
  EXPECT_EQ(operand.getImpl()->getRefCount(), 1);
}

#define AT_POINTS(Name, Base, How, F, Operand, ...) \
  atPoints<Name>(#Name, +[](const Operand& x) -> TavNumExprArg { return F(x); });

}  // namespace

TEST(Functions, EveryRowAtSpecialPoints) {
  TAV_SQUARE_FAMILY(AT_POINTS)
  TAV_ELEMENTARY_FAMILY(AT_POINTS)
  TAV_ROUNDING_FAMILY(AT_POINTS)
}

TEST(Functions, PowersAtSpecialPoints) {
  Model m;
  for (double a : Points)
    for (double b : {-1.0, -0.5, 0.0, 0.5, 2.0, 2.5, Inf, NaN}) {
      SCOPED_TRACE(std::to_string(a) + " ^ " + std::to_string(b));
      m.sol.setValue(m.x, a), m.sol.setValue(m.y, b);
      expectSame(m.sol.getValue(TavPower(m.x, m.y)), std::pow(a, b));
      expectSame(m.sol.getValue(TavPower(m.x, b)), std::pow(a, b));
      expectSame(m.sol.getValue(TavPower(b, m.x)), std::pow(b, a));
    }
}

// What the rows promise beyond their values.
TEST(Functions, Rules) {
  Model m;
  TavIntExpr k(m.i + m.j);
  // No folding, no simplification.
  EXPECT_STREQ(TavAbs(TavAbs(m.x)).getImpl()->getRttiTypeName(), "TavNumAbsI");
  EXPECT_STREQ(TavPower(m.x, 2).getImpl()->getRttiTypeName(), "TavNumPowerCstI");
  EXPECT_STREQ(TavSin(TavNumExpr(m.env, 1.0)).getImpl()->getRttiTypeName(), "TavSinI");
  // Integer handles keep the integer forms; the sign is integer over a continuous operand.
  EXPECT_STREQ(TavSquare(k).getImpl()->getRttiTypeName(), "TavIntSquareI");
  EXPECT_STREQ(TavAbs(m.i).getImpl()->getRttiTypeName(), "TavIntAbsI");
  EXPECT_STREQ(TavSquare(m.x).getImpl()->getRttiTypeName(), "TavNumSquareI");
  EXPECT_TRUE(TavSgn(m.x).getImpl()->isInteger());
  // Integrality follows the operand, and the power ignores negative exponents.
  EXPECT_FALSE(TavCeil(m.x).getImpl()->isInteger());
  EXPECT_TRUE(TavCeil(m.i).getImpl()->isInteger());
  EXPECT_FALSE(TavSin(m.i).getImpl()->isInteger());
  EXPECT_TRUE(TavPower(m.i, -1.0).getImpl()->isInteger());
  EXPECT_FALSE(TavPower(m.i, 2.5).getImpl()->isInteger());
  EXPECT_TRUE(TavPower(3.0, m.i).getImpl()->isInteger());
  EXPECT_TRUE(TavPower(m.i, m.j).getImpl()->isInteger());
  EXPECT_FALSE(TavPower(m.i, m.x).getImpl()->isInteger());
  // The host's scalar forms are still there.
  EXPECT_EQ(TavTrunc(-2.5), -2);
  EXPECT_EQ(TavVurRound(2.5), 3.0);
  // The logarithms to bases 2 and 10 are quotients of the natural one.
  m.sol.setValue(m.x, 8.0);
  TavNumExpr l2(TavLog2(m.x));
  EXPECT_NE(std::string(l2.getImpl()->getRttiTypeName()), "TavLogI");
  EXPECT_NEAR(m.sol.getValue(l2), 3.0, 1e-12);
  m.sol.setValue(m.x, 1000.0);
  EXPECT_NEAR(m.sol.getValue(TavLog10(m.x)), 3.0, 1e-12);
  EXPECT_EQ(show(TavLog2(m.x)), show(TavLog(m.x) / std::log(2.0)));
}

// The power prints no parentheses in the short syntax; names as tabled.
TEST(Functions, Displays) {
  Model m;
  TavNumExprArg sum = m.x + m.y;
  const struct {
    TavNumExprArg e;
    std::function<std::string(const std::string&, const std::string&)> want;  // (sum, x) -> text
    const char* libText;
  } rows[] = {
      {TavPower(sum, 2), [](auto s, auto) { return s + " ^ 2"; }, "( %s^ 2) "},
      {TavPower(2.0, m.x), [](auto, auto x) { return "2 ^ " + x; }, "( 2^ %x) "},
      {TavVurRound(m.x), [](auto, auto x) { return "round(" + x + ")"; }, "TavVurRound(%x) "},
      {TavArcSin(m.x), [](auto, auto x) { return "arc-sin(" + x + ")"; }, "TavArcSin(%x) "},
  };
  for (bool lib : {false, true}) {
    m.env.getImpl()->setLibrarySyntaxDisplay(lib);
    for (const auto& r : rows) {
      std::string want = r.want(show(sum), show(m.x));
      if (lib) {
        want = r.libText;
        const std::string::size_type at = want.find('%');
        want.replace(at, 2, want[at + 1] == 's' ? show(sum) : show(m.x));
      }
      EXPECT_EQ(show(r.e), want);
    }
  }
}

// TavDistToInt reads its operand twice, in order; TavNumToInt refuses what is not whole.
TEST(Functions, OwnEvaluations) {
  Model m;
  struct Reads : TavAlgorithmI {
    using TavAlgorithmI::TavAlgorithmI;
    double getValue(const TavNumVarI*) const override { return values[n++ % 2]; }
    double values[2] = {2.4, 2.6};
    mutable int n = 0;
  } reads(m.env.getImpl());
  EXPECT_NEAR(TavDistToInt(m.x).getImpl()->eval(&reads), std::fabs(2.0 - 2.6), 1e-15);
  EXPECT_EQ(reads.n, 2);
  m.sol.setValue(m.x, 3.0);
  TavIntExprArg whole = TavNumToInt(m.x);
  EXPECT_EQ(m.sol.getValue(whole), 3.0);
  EXPECT_TRUE(whole.getImpl()->isInteger());
  for (double v : {3.5, Inf, NaN, -0.25}) {
    m.sol.setValue(m.x, v);
    EXPECT_EQ(messageOf<TavWrongUsage>([&] { m.sol.getValue(whole); }), "TavNumToIntI::eval : expr is not IntExpr");
  }
}

TEST(Functions, RefusedOperands) {
  Model m;
  TavEnv other;
  TavNumVar z(other, 0, 1);
  EXPECT_EQ(messageOf<TavWrongUsage>([&] { TavPower(m.x, z); }), "TavPower: mixing mismatch environments");
  const std::function<void()> empties[] = {
      [] { TavSin(TavNumExprArg()); },      [] { TavSquare(TavIntExprArg()); }, [] { TavSgn(TavNumExprArg()); },
      [] { TavNumToInt(TavNumExprArg()); }, [] { TavLog2(TavNumExprArg()); },   [] { TavPower(TavNumExprArg(), 2.0); },
      [&] { TavPower(m.x, TavNumExprArg()); }, [] { TavPower(2.0, TavNumExprArg()); },
  };
  const TavInt objects = m.env.getImpl()->getLiveObjectCount();
  for (const auto& f : empties) EXPECT_THROW(f(), TavEmptyHandleException);
  EXPECT_EQ(m.env.getImpl()->getLiveObjectCount(), objects);
  other.end();
}
