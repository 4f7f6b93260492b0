// Product, quotient, minimum, maximum and remainder nodes, for what the
// family sweep checks only against the rows' own tables: the exact texts in
// both syntaxes, values at the edges (truncation, signs, ties, not-a-number)
// and integrality over mixed operands.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "test_support.h"

namespace {

const double NaN = std::numeric_limits<double>::quiet_NaN();

// Operands: x, y continuous; i, j integer; P = x*y and N = i*j for the
// builders that keep variables linear.
struct Model : NamedVars {
  Model() : NamedVars(-100, 100) {}
  TavNumExpr P{x * y};
  TavIntExpr N{i * j};
  TavSolution sol{env};
  ~Model() { env.end(); }

  // Replaces @x, @y, @i, @j, @P, @N by that operand's own display.
  std::string expand(const char* pattern) {
    std::string out;
    for (const char* p = pattern; *p; ++p) {
      if (*p != '@') {
        out += *p;
        continue;
      }
      switch (*++p) {
        case 'x': out += show(x); break;
        case 'y': out += show(y); break;
        case 'i': out += show(i); break;
        case 'j': out += show(j); break;
        case 'P': out += show(P); break;
        default: out += show(N); break;
      }
    }
    return out;
  }
  TavNumExprArray nums() { return TavNumVarArray(env, 2, x, y).toNumExprArray(); }
  TavIntExprArray ints() { return TavIntVarArray(env, 2, i, j).toIntExprArray(); }
  double eval(const TavNumExprArg& e, double vx, double vy) {
    sol.setValue(x, vx);
    sol.setValue(y, vy);
    sol.setValue(i, vx);
    sol.setValue(j, vy);
    return sol.getValue(e);
  }
};

typedef std::function<TavNumExprArg(Model&)> Build;

TEST(Arithmetic, BuilderClassesAndTexts) {
  struct Row {
    const char* cls;
    Build build;
    const char* shortText;
    const char* libText;
  };
  const std::vector<Row> rows = {
      {"TavNumTimesCstI", [](Model& m) { return m.P * 2.5; }, "@P * 2.5", "( @P* 2.5) "},
      {"TavNumDivCstI", [](Model& m) { return m.P / 4.0; }, "@P/ 4", "( @P/ 4) "},
      {"TavNumRecDivCstI", [](Model& m) { return 3.0 / TavNumExprArg(m.x); }, "3 / @x", "( 3/ @x) "},
      {"TavNumTimesI", [](Model& m) { return m.x * m.y; }, "@x * @y", "( @x* @y) "},
      {"TavNumDivI", [](Model& m) { return TavNumExprArg(m.x) / m.y; }, "@x / @y", "( @x/ @y) "},
      {"TavIntTimesCstI", [](Model& m) { return m.N * 3; }, "@N * 3", "( @N* 3) "},
      {"TavIntDivCstI", [](Model& m) { return TavDiv(m.i, 4); }, "@i / 4", "( @i/ 4) "},
      {"TavIntRecDivCstI", [](Model& m) { return TavDiv(7, m.i); }, "7 / @i", "( 7/ @i) "},
      {"TavIntTimesI", [](Model& m) { return m.i * m.j; }, "@i * @j", "( @i* @j) "},
      {"TavIntDivI", [](Model& m) { return TavDiv(m.i, m.j); }, "@i / @j", "( @i/ @j) "},
      {"TavNumMinCstI", [](Model& m) { return TavMin(m.x, 3.0); }, "min( @x, 3)", "TavMin( @x, 3) "},
      {"TavNumMaxCstI", [](Model& m) { return TavMax(m.x, 3.5); }, "max(@x, 3.5)", "TavMax( @x, 3.5) "},
      {"TavIntMinCstI", [](Model& m) { return TavMin(m.i, 5); }, "min(@i, 5)", "( @i, 5) "},
      {"TavIntMaxCstI", [](Model& m) { return TavMax(5, m.i); }, "max(@i, 5)", "( @i, 5) "},
      {"TavNumMinI", [](Model& m) { return TavMin(m.x, m.y); }, "min(@x, @y)", "TavMin( @x, @y) "},
      {"TavNumMaxI", [](Model& m) { return TavMax(m.x, m.y); }, "max(@x, @y)", "TavMax( @x, @y) "},
      {"TavIntMinI", [](Model& m) { return TavMin(m.i, m.j); }, "min(@i, @j)", "TavMin( @i, @j) "},
      {"TavIntMaxI", [](Model& m) { return TavMax(m.i, m.j); }, "max(@i, @j)", "TavMax( @i, @j) "},
      {"TavNumMinArrayI", [](Model& m) { return TavMin(m.nums()); }, "min( [@x, @y])", "TavMin( [@x, @y]) "},
      {"TavNumMaxArrayI", [](Model& m) { return TavMax(m.nums()); }, "max([@x, @y])", "TavMax( [@x, @y]) "},
      {"TavIntMinArrayI", [](Model& m) { return TavMin(m.ints()); }, "min([@i, @j])", "TavMin( [@i, @j]) "},
      {"TavIntMaxArrayI", [](Model& m) { return TavMax(m.ints()); }, "max([@i, @j])", "TavMax( [@i, @j]) "},
      {"TavIntModuloI", [](Model& m) { return m.i % m.j; }, "@i % @j", "( @i% @j) "},
      {"TavIntModuloCstI", [](Model& m) { return m.i % 4; }, "@i% 4", "( @i% 4) "},
      {"TavIntRecModuloCstI", [](Model& m) { return 7 % TavIntExprArg(m.i); }, "7 % @i", "(7% @i)"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.cls);
    Model m;
    TavNumExprArg e = r.build(m);
    EXPECT_STREQ(e.getImpl()->getRttiTypeName(), r.cls);
    for (bool lib : {false, true}) {
      m.env.getImpl()->setLibrarySyntaxDisplay(lib);
      EXPECT_EQ(show(e), m.expand(lib ? r.libText : r.shortText)) << (lib ? "library syntax" : "short syntax");
    }
  }
}

// Signs of whole quotients and remainders are the fuzzer's; these rows give
// integer operands fractional values, or meet ties and not-a-number.
TEST(Arithmetic, Values) {
  // The integer operands i and j take the same values as x and y.
  struct Row {
    const char* label;
    Build build;
    double a, b, expected;
  };
  const std::vector<Row> rows = {
      {"-7 div 2.9", [](Model& m) { return TavDiv(-7, m.j); }, 0, 2.9, -3},
      {"-7.9 div 2.9", [](Model& m) { return TavDiv(m.i, m.j); }, -7.9, 2.9, -3},
      {"7.9 mod 3.2", [](Model& m) { return m.i % m.j; }, 7.9, 3.2, 1},
      {"-7 mod 3 reversed", [](Model& m) { return (TavInt)-7 % TavIntExprArg(m.j); }, 0, 3, -1},
      {"7 mod -3 reversed", [](Model& m) { return 7 % TavIntExprArg(m.j); }, 0, -3.5, 1},
      {"2.5 * 2 in floating point", [](Model& m) { return m.i * m.j; }, 2.5, 2, 5},
      {"2.5 * 3 in floating point", [](Model& m) { return TavIntExprArg(m.i * m.j) * 3; }, 2.5, 1, 7.5},
      {"(x*y) * 0", [](Model& m) { return m.P * 0.0; }, 1, 3, 0},
      {"x / 0", [](Model& m) { return TavNumExprArg(m.x) / m.y; }, 1, 0, HUGE_VAL},
      // Ties and not-a-number give the right operand, or the constant.
      {"min tie", [](Model& m) { return TavMin(m.x, m.y); }, 0.0, -0.0, -0.0},
      {"min tie other way", [](Model& m) { return TavMin(m.x, m.y); }, -0.0, 0.0, 0.0},
      {"min left nan", [](Model& m) { return TavMin(m.x, m.y); }, NaN, 1, 1},
      {"min right nan", [](Model& m) { return TavMin(m.x, m.y); }, 1, NaN, NaN},
      {"max tie", [](Model& m) { return TavMax(m.x, m.y); }, 0.0, -0.0, -0.0},
      {"max left nan", [](Model& m) { return TavMax(m.x, m.y); }, NaN, 1, 1},
      {"max right nan", [](Model& m) { return TavMax(m.x, m.y); }, 1, NaN, NaN},
      {"min cst tie", [](Model& m) { return TavMin(m.x, 0.0); }, -0.0, 0, 0.0},
      {"min cst nan", [](Model& m) { return TavMin(0.0, m.x); }, NaN, 0, 0.0},
      {"max cst tie", [](Model& m) { return TavMax(m.x, 0.0); }, -0.0, 0, 0.0},
      {"max cst nan", [](Model& m) { return TavMax(m.x, 0.0); }, NaN, 0, 0.0},
      {"int min keeps fractions", [](Model& m) { return TavMin(m.i, m.j); }, 2.5, 3, 2.5},
      {"int min left nan", [](Model& m) { return TavMin(m.i, m.j); }, NaN, 1, 1},
      {"int max tie", [](Model& m) { return TavMax(m.i, m.j); }, 0.0, -0.0, -0.0},
      {"int min cst tie", [](Model& m) { return TavMin(m.i, 0); }, -0.0, 0, 0.0},
      {"int max cst", [](Model& m) { return TavMax(m.i, 2); }, 2.5, 0, 2.5},
      {"int max cst nan", [](Model& m) { return TavMax(m.i, 2); }, NaN, 0, 2},
      {"array min first nan stays", [](Model& m) { return TavMin(m.nums()); }, NaN, 1, NaN},
      {"array min later nan skipped", [](Model& m) { return TavMin(m.nums()); }, 1, NaN, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.label);
    Model m;
    expectSame(m.eval(r.build(m), r.a, r.b), r.expected);
  }
}

TEST(Arithmetic, IntegralityOfNumericNodes) {
  struct Row {
    const char* label;
    Build build;
    bool integer;
  };
  // The family rows are swept over operands that are all integer or all
  // not; these mix them, or divide by one.
  const std::vector<Row> rows = {
      {"int node / 1", [](Model& m) { return TavNumExprArg(m.N) / 1.0; }, false},
      {"int * float", [](Model& m) { return TavNumExprArg(m.i) * m.x; }, false},
      {"max(int, float)", [](Model& m) { return TavMax(TavNumExprArg(m.i), m.y); }, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.label);
    Model m;
    EXPECT_EQ(r.build(m).getImpl()->isInteger(), r.integer);
  }
}

TEST(Arithmetic, NodesHoldOneReferencePerOperand) {
  Model m;
  const TavInt before = m.P.getImpl()->getRefCount();
  {
    TavNumExpr a = m.P * 2.5;
    TavNumExpr b = TavMin(m.P, m.P);
    EXPECT_EQ(m.P.getImpl()->getRefCount(), before + 3);
    EXPECT_EQ(static_cast<TavNumMinI*>(b.getImpl())->getLeft(), m.P.getImpl());
    a.end();
    b.end();
  }
  EXPECT_EQ(m.P.getImpl()->getRefCount(), before);
}

}  // namespace
