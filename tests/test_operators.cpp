// The free operators: how sums, differences, negations, products and
// quotients fold into linear nodes or pick their node class, how they treat
// shared operands, and how they reject operands of two environments.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tavexpression.h"
#include "test_support.h"

namespace {

std::string nameOf(const TavNumExprI* n) { return n->getName() ? n->getName() : n->getRttiTypeName(); }

template <class Lin>
std::string linShape(const Lin* n) {
  std::ostringstream os;
  os << n->getRttiTypeName() << "{";
  for (TavNumLinExprTermI* t = n->getFirstTerm(); t; t = t->_next)
    os << (t == n->getFirstTerm() ? "" : " ") << t->_var->getName() << ":" << t->_coef;
  os << "|";
  for (TavNumLinPartI* p = n->getFirstPart(); p; p = p->_next)
    os << (p == n->getFirstPart() ? "" : " ") << nameOf(p->_expr);
  os << "|" << n->getConstant() << "}";
  return os.str();
}

template <class Node>
std::string cstShape(const TavNumExprI* n) {
  auto* c = static_cast<const Node*>(n);
  std::ostringstream os;
  os << n->getRttiTypeName() << "(" << nameOf(c->getExpr()) << "," << c->getConstant() << ")";
  return os.str();
}

// A compact picture of a result: terms, parts and constant of a linear node,
// operand and constant of a constant-factor node, else the class name.
std::string shape(const TavNumExprArg& e) {
  const TavNumExprI* n = e.getImpl();
  if (n == nullptr) return "<empty>";
  TavTypeInfo t = n->getTypeInfo();
  if (t == TavNumLinTermI::GetTypeInfo()) return linShape(static_cast<const TavNumLinTermI*>(n));
  if (t == TavIntLinTermI::GetTypeInfo()) return linShape(static_cast<const TavIntLinTermI*>(n));
  if (t == TavNumTimesCstI::GetTypeInfo()) return cstShape<TavNumTimesCstI>(n);
  if (t == TavIntTimesCstI::GetTypeInfo()) return cstShape<TavIntTimesCstI>(n);
  if (t == TavNumDivCstI::GetTypeInfo()) return cstShape<TavNumDivCstI>(n);
  return nameOf(n);
}

// Named variables and two named non-linear nodes: P = x*y, Q = y*x, N = i*j.
struct Model : NamedVars {
  TavNumExprArg named(TavNumExprArg e, const char* name) {
    e.getImpl()->setName(name);
    return e;
  }
  TavNumExprArg P() { return named(x * y, "P"); }
  TavNumExprArg Q() { return named(y * x, "Q"); }
  TavIntExprArg N() {
    TavIntExprArg n = i * j;
    n.getImpl()->setName("N");
    return n;
  }
  ~Model() { env.end(); }
};

struct Row {
  const char* label;
  std::function<TavNumExprArg(Model&)> build;
  const char* expected;
};

void checkRows(const std::vector<Row>& rows) {
  for (const Row& r : rows) {
    SCOPED_TRACE(r.label);
    Model m;
    EXPECT_EQ(shape(r.build(m)), r.expected);
  }
}

TEST(Operators, SumTableOverOperandKinds) {
  enum Kind { Var, NumLin, IntLin, Other };
  const char* kindNames[] = {"variable", "numeric linear", "integer linear", "other node"};
  // Left operands are built on x, i and P; right ones on y, j and Q.
  auto make = [](Model& m, int k, bool left) -> TavNumExprArg {
    switch (k) {
      case Var: return left ? TavNumExprArg(m.x) : TavNumExprArg(m.y);
      case NumLin: return left ? 2 * m.x + 1.0 : 3 * m.y + 2.0;
      case IntLin: return left ? TavIntExprArg(2 * m.i + 1) : TavIntExprArg(3 * m.j + 2);
      default: return left ? m.P() : m.Q();
    }
  };
  // 'a' or 'b': the unshared numeric linear operand becomes the result.
  struct Cell {
    const char* expected;
    char reuse;
  };
  const Cell table[4][4] = {
      {{"TavNumLinTermI{x:1 y:1||0}", '-'}, {"TavNumLinTermI{x:1 y:3||2}", 'b'},
       {"TavNumLinTermI{x:1 j:3||2}", '-'}, {"TavNumLinTermI{x:1|Q|0}", '-'}},
      {{"TavNumLinTermI{x:2 y:1||1}", 'a'}, {"TavNumLinTermI{x:2 y:3||3}", 'a'},
       {"TavNumLinTermI{x:2 j:3||3}", 'a'}, {"TavNumLinTermI{x:2|Q|1}", 'a'}},
      {{"TavNumLinTermI{i:2 y:1||1}", '-'}, {"TavNumLinTermI{i:2 y:3||3}", '-'},
       {"TavNumLinTermI{i:2 j:3||3}", '-'}, {"TavNumLinTermI{i:2|Q|1}", '-'}},
      {{"TavNumLinTermI{y:1|P|0}", '-'}, {"TavNumLinTermI{y:3|P|2}", 'b'},
       {"TavNumLinTermI{j:3|P|2}", '-'}, {"TavNumLinTermI{|P Q|0}", '-'}},
  };
  for (int ka = 0; ka < 4; ++ka) {
    for (int kb = 0; kb < 4; ++kb) {
      SCOPED_TRACE(std::string(kindNames[ka]) + " + " + kindNames[kb]);
      Model m;
      TavNumExprArg a = make(m, ka, true), b = make(m, kb, false);
      TavNumExprArg r = a + b;
      EXPECT_EQ(shape(r), table[ka][kb].expected);
      const char reuse = table[ka][kb].reuse;
      EXPECT_EQ(r.getImpl() == a.getImpl(), reuse == 'a');
      EXPECT_EQ(r.getImpl() == b.getImpl(), reuse == 'b');
      EXPECT_EQ(r.getImpl()->getRefCount(), 0);
    }
  }
}

// Sums, differences and negations of variables, term handles, linear
// operands and numbers are the fuzzer's (it compares values, both texts and
// integrality); here the ones that hold parts or add a temporary to itself,
// and one overload it does not reach.
TEST(Operators, TermsNumbersDifferencesAndNegation) {
  checkRows({
      {"node + term", [](Model& m) { return m.P() + 2 * m.x; }, "TavNumLinTermI{x:2|P|0}"},
      {"term + node", [](Model& m) { return 2 * m.x + m.P(); }, "TavNumLinTermI{x:2|P|0}"},
      {"integer term + fraction", [](Model& m) { return 2 * m.i + 0.5; }, "TavNumLinTermI{i:2||0.5}"},
      {"node + number", [](Model& m) { return m.P() + 1.5; }, "TavNumLinTermI{|P|1.5}"},
      {"number + node", [](Model& m) { return 1.5 + m.P(); }, "TavNumLinTermI{|P|1.5}"},
      {"temporary + itself", [](Model& m) {
         TavNumExprArg t = 2 * m.x + 1.0;
         return t + t;
       },
       "TavNumLinTermI{x:2 x:2||2}"},
      {"int temporary + itself", [](Model& m) {
         TavIntExprArg t = 2 * m.i + 1;
         return t + t;
       },
       "TavIntLinTermI{i:2 i:2||2}"},
      {"int temporary + itself as numbers", [](Model& m) {
         TavNumExprArg t = TavIntExprArg(2 * m.i + 1);
         return t + t;
       },
       "TavNumLinTermI{i:2 i:2||2}"},
      {"linear - node", [](Model& m) { return (2 * m.x + 1.0) - m.P(); },
       "TavNumLinTermI{x:2|TavNumTimesCstI|1}"},
      {"-node", [](Model& m) { return -m.P(); }, "TavNumTimesCstI(P,-1)"},
      {"int node + int variable", [](Model& m) { return m.N() + m.i; }, "TavIntLinTermI{i:1|N|0}"},
      {"int node + int node", [](Model& m) { return m.N() + m.N(); }, "TavIntLinTermI{|N N|0}"},
  });
}

TEST(Operators, TermNegationFlipsTheCellInPlace) {
  Model m;
  TavNumLinExprTerm t = 2.5 * m.x;
  TavIntLinExprTerm it = m.i * 3;
  EXPECT_EQ((-t).getImpl(), t.getImpl());
  EXPECT_EQ((-it).getImpl(), it.getImpl());
  EXPECT_EQ(t.getCoef(), -2.5);
  EXPECT_EQ(it.getCoef(), -3);
  EXPECT_EQ((-m.i).getCoef(), -1);
  EXPECT_EQ((-m.x).getCoef(), -1.0);
}

// Constant factors fold; the node classes of plain products and quotients
// are the family sweep's.
TEST(Operators, ProductsAndQuotientsByNumbersAndConstants) {
  checkRows({
      {"(x + y) * 0 keeps zero terms", [](Model& m) { return (m.x + m.y) * 0.0; },
       "TavNumLinTermI{x:0 y:0||0}"},
      {"int linear * fraction", [](Model& m) { return TavIntExprArg(2 * m.i + 1) * 1.5; },
       "TavNumLinTermI{i:3||1.5}"},
      {"int linear * integer", [](Model& m) { return TavIntExprArg(2 * m.i + 1) * (TavInt)3; },
       "TavIntLinTermI{i:6||3}"},
      {"node * 2 * 3 folds", [](Model& m) { return m.P() * 2.0 * 3.0; }, "TavNumTimesCstI(P,6)"},
      {"node * 1 still a node", [](Model& m) { return 1.0 * m.P(); }, "TavNumTimesCstI(P,1)"},
      {"node * 0 still a node", [](Model& m) { return m.P() * 0.0; }, "TavNumTimesCstI(P,0)"},
      {"int node * 2 * 3 folds", [](Model& m) { return m.N() * 2 * (TavInt)3; }, "TavIntTimesCstI(N,6)"},
      {"int factor then fraction", [](Model& m) { return m.N() * 2 * 1.5; }, "TavNumTimesCstI(N,3)"},
      {"node * constant expression", [](Model& m) { return m.P() * TavNumExpr(m.env, 4.0); },
       "TavNumTimesCstI(P,4)"},
      {"constant expression * node", [](Model& m) { return TavNumExpr(m.env, 4.0) * m.P(); },
       "TavNumTimesCstI(P,4)"},
      {"node * integer constant expression", [](Model& m) { return m.P() * TavNumExprArg(TavIntExpr(m.env, 3)); },
       "TavNumTimesCstI(P,3)"},
      {"constant * itself", [](Model& m) {
         TavNumExprArg c(new (m.env.getImpl()) TavNumLinTermI(m.env.getImpl(), 4.0));
         return c * c;
       },
       "TavNumLinTermI{||16}"},
      {"int constant * int node never folds", [](Model& m) { return TavIntExpr(m.env, 3) * m.N(); },
       "TavIntTimesI"},
  });
}

TEST(Operators, FoldingKeepsCountedFactorNode) {
  Model m;
  TavNumExpr twice = m.P() * 2.0;
  TavNumExprArg r = twice * 3.0;
  // The fold reaches through a shared x*c node without consuming it.
  EXPECT_EQ(shape(r), "TavNumTimesCstI(P,6)");
  EXPECT_EQ(shape(twice), "TavNumTimesCstI(P,2)");
  EXPECT_EQ(twice.getImpl()->getRefCount(), 1);
  TavIntExpr itwice = m.N() * 2;
  EXPECT_EQ(shape(itwice * (TavInt)3), "TavIntTimesCstI(N,6)");
  EXPECT_EQ(shape(itwice), "TavIntTimesCstI(N,2)");
  EXPECT_EQ(itwice.getImpl()->getRefCount(), 1);
}

TEST(Operators, ChainOverTemporaryStaysLinear) {
  Model m;
  TavNumVarArray xs(m.env, 100, 0.0, 1.0);
  const int n = 100000;
  TavNumExprArg e = TavNumExprArg(xs[0]) + 0.0;
  TavNumExprI* first = e.getImpl();
  for (int k = 1; k < n; ++k) e = e + xs[k % 100];
  EXPECT_EQ(e.getImpl(), first);
  TavInt terms = 0;
  for (TavNumLinExprTermI* t = static_cast<TavNumLinTermI*>(e.getImpl())->getFirstTerm(); t; t = t->_next) ++terms;
  EXPECT_EQ(terms, n);
}

// A term handle summed with a temporary linear node of its own kind is linked
// into that node and nothing else is made; a counted node is copied, and an
// integer node on the numeric side is converted and left as it is.
TEST(Operators, TermSumsLinkTheCellIntoAnUnsharedNodeOfTheirKind) {
  auto num = [](Model& m) -> TavNumExprArg { return 2 * m.x + 1.0; };
  auto intl = [](Model& m) -> TavNumExprArg { return TavIntExprArg(2 * m.i + 1); };
  auto asInt = [](const TavNumExprArg& e) { return TavIntExprArg(static_cast<TavIntExprI*>(e.getImpl())); };
  struct TermRow {
    const char* label;
    std::function<TavNumExprArg(Model&)> base;
    bool counted;  // a TavNumExpr holds the base
    std::function<TavNumExprArg(Model&, const TavNumExprArg&)> apply;
    const char* expected;
    bool inPlace;
  };
  const std::vector<TermRow> rows = {
      {"lin + term", num, false, [](Model& m, const TavNumExprArg& b) { return b + 3 * m.y; },
       "TavNumLinTermI{x:2 y:3||1}", true},
      {"lin - term", num, false, [](Model& m, const TavNumExprArg& b) { return b - 3 * m.y; },
       "TavNumLinTermI{x:2 y:-3||1}", true},
      {"term + lin", num, false, [](Model& m, const TavNumExprArg& b) { return 3 * m.y + b; },
       "TavNumLinTermI{y:3 x:2||1}", true},
      {"lin + int term", num, false, [](Model& m, const TavNumExprArg& b) { return b + 3 * m.j; },
       "TavNumLinTermI{x:2 j:3||1}", true},
      {"lin - int term", num, false, [](Model& m, const TavNumExprArg& b) { return b - 3 * m.j; },
       "TavNumLinTermI{x:2 j:-3||1}", true},
      {"int term + lin", num, false, [](Model& m, const TavNumExprArg& b) { return 3 * m.j + b; },
       "TavNumLinTermI{j:3 x:2||1}", true},
      {"int lin + int term", intl, false,
       [&](Model& m, const TavNumExprArg& b) -> TavNumExprArg { return asInt(b) + 3 * m.j; },
       "TavIntLinTermI{i:2 j:3||1}", true},
      {"int lin - int term", intl, false,
       [&](Model& m, const TavNumExprArg& b) -> TavNumExprArg { return asInt(b) - 3 * m.j; },
       "TavIntLinTermI{i:2 j:-3||1}", true},
      {"int term + int lin", intl, false,
       [&](Model& m, const TavNumExprArg& b) -> TavNumExprArg { return 3 * m.j + asInt(b); },
       "TavIntLinTermI{j:3 i:2||1}", true},
      {"counted lin + term", num, true, [](Model& m, const TavNumExprArg& b) { return b + 3 * m.y; },
       "TavNumLinTermI{x:2 y:3||1}", false},
      {"term + counted lin", num, true, [](Model& m, const TavNumExprArg& b) { return 3 * m.y + b; },
       "TavNumLinTermI{y:3 x:2||1}", false},
      {"counted int lin - int term", intl, true,
       [&](Model& m, const TavNumExprArg& b) -> TavNumExprArg { return asInt(b) - 3 * m.j; },
       "TavIntLinTermI{i:2 j:-3||1}", false},
      {"int lin as numbers + term", intl, false, [](Model& m, const TavNumExprArg& b) { return b + 3 * m.y; },
       "TavNumLinTermI{i:2 y:3||1}", false},
      {"term + int lin as numbers", intl, false, [](Model& m, const TavNumExprArg& b) { return 3.5 * m.y + b; },
       "TavNumLinTermI{y:3.5 i:2||1}", false},
  };
  for (const TermRow& r : rows) {
    SCOPED_TRACE(r.label);
    Model m;
    TavEnvI* env = m.env.getImpl();
    TavNumExprArg base = r.base(m);
    TavNumExpr holder;
    if (r.counted) holder = TavNumExpr(base);
    const std::string before = shape(base);
    const TavInt objects = env->getLiveObjectCount(), terms = env->getLiveTermCount();
    TavNumExprArg result = r.apply(m, base);
    EXPECT_EQ(shape(result), r.expected);
    EXPECT_EQ(result.getImpl() == base.getImpl(), r.inPlace);
    EXPECT_EQ(result.getImpl()->getRefCount(), 0);
    if (r.inPlace) {
      // The term's own cell, and no node.
      EXPECT_EQ(env->getLiveTermCount(), terms + 1);
      EXPECT_EQ(env->getLiveObjectCount(), objects);
    } else {
      EXPECT_EQ(shape(base), before);
      EXPECT_EQ(env->getLiveObjectCount(), objects + 1);
    }
  }
}

TEST(Operators, AUsedTermIsRefusedByATemporaryUntouched) {
  Model m;
  TavNumLinExprTerm t = 3 * m.y;
  TavIntLinExprTerm it = 3 * m.j;
  TavNumExprArg first = (2 * m.x + 1.0) + t;
  TavIntExprArg ifirst = TavIntExprArg(2 * m.i + 1) + it;
  const std::string used = "TavNumLinExprTerm: the term is already part of an expression; build a new one";
  const std::vector<std::pair<const char*, std::function<TavNumExprArg(TavNumExprArg, TavIntExprArg)>>> rows = {
      {"lin + term", [&](TavNumExprArg a, TavIntExprArg) { return a + t; }},
      {"lin - term", [&](TavNumExprArg a, TavIntExprArg) { return a - t; }},
      {"term + lin", [&](TavNumExprArg a, TavIntExprArg) { return t + a; }},
      {"lin + int term", [&](TavNumExprArg a, TavIntExprArg) { return a + it; }},
      {"int lin + int term", [&](TavNumExprArg, TavIntExprArg b) -> TavNumExprArg { return b + it; }},
      {"int term + int lin", [&](TavNumExprArg, TavIntExprArg b) -> TavNumExprArg { return it + b; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    TavNumExprArg a = 2 * m.x + 1.0;
    TavIntExprArg b = 2 * m.i + 1;
    const TavInt terms = m.env.getImpl()->getLiveTermCount();
    EXPECT_EQ(messageOf<TavWrongUsage>([&] { row.second(a, b); }), used);
    EXPECT_EQ(shape(a), "TavNumLinTermI{x:2||1}");
    EXPECT_EQ(shape(b), "TavIntLinTermI{i:2||1}");
    EXPECT_EQ(m.env.getImpl()->getLiveTermCount(), terms);
  }
  EXPECT_EQ(shape(first), "TavNumLinTermI{x:2 y:3||1}");
  EXPECT_EQ(shape(ifirst), "TavIntLinTermI{i:2 j:3||1}");
}

// Two models in two environments; each row mixes them in one operator.
struct Mixed {
  TavNumExprArg lin;
  TavIntExprArg ilin;
  TavNumLinExprTerm term;
  TavIntLinExprTerm iterm;
};

Mixed fresh(Model& m) { return {2 * m.x + 1.0, 2 * m.i + 1, 2 * m.x, 3 * m.i}; }

std::string picture(const Mixed& o) {
  std::ostringstream os;
  os << shape(o.lin) << shape(o.ilin) << o.term.getCoef() << "," << o.iterm.getCoef();
  return os.str();
}

TEST(Operators, MixingEnvironmentsIsRejectedUntouched) {
  auto msg = [](const char* r, const char* a, const char* b, const char* op = "+") {
    return std::string(r) + " operator " + op + " const " + a + " const " + b + ": mixing mismatch Environments";
  };
  const char *N = "TavNumExprArg", *I = "TavIntExprArg", *NT = "TavNumLinExprTerm", *IT = "TavIntLinExprTerm";
  typedef std::function<void(Mixed&, Mixed&)> Call;
  // A difference reports itself as a sum.
#define PLUS_MINUS(R, A, B, a, b)                                       \
  {msg(R, A, B), [](Mixed& x, Mixed& y) { x.a + y.b; }}, {msg(R, A, B), [](Mixed& x, Mixed& y) { x.a - y.b; }}
  const std::vector<std::pair<std::string, Call>> rows = {
      PLUS_MINUS(N, N, N, lin, lin),           PLUS_MINUS(N, N, NT, lin, term),
      PLUS_MINUS(N, N, IT, lin, iterm),        PLUS_MINUS(N, NT, N, term, lin),
      PLUS_MINUS(N, IT, N, iterm, lin),        PLUS_MINUS(N, NT, NT, term, term),
      PLUS_MINUS(N, IT, NT, iterm, term),      PLUS_MINUS(N, NT, IT, term, iterm),
      PLUS_MINUS(I, I, I, ilin, ilin),         PLUS_MINUS(I, I, IT, ilin, iterm),
      PLUS_MINUS(I, IT, I, iterm, ilin),       PLUS_MINUS(I, IT, IT, iterm, iterm),
      {msg(N, N, N, "*"), [](Mixed& a, Mixed& b) { a.lin * b.lin; }},
      {msg(I, I, I, "*"), [](Mixed& a, Mixed& b) { a.ilin * b.ilin; }},
      {msg(N, N, N, "/"), [](Mixed& a, Mixed& b) { a.lin / b.lin; }},
      {msg(I, I, I, "%"), [](Mixed& a, Mixed& b) { a.ilin % b.ilin; }},
      {"TavDiv: mixing mismatch Environments", [](Mixed& a, Mixed& b) { TavDiv(a.ilin, b.ilin); }},
      {"TavMin: mixing mismatch Environments", [](Mixed& a, Mixed& b) { TavMin(a.lin, b.lin); }},
      {"TavMin: mixing mismatch Environments", [](Mixed& a, Mixed& b) { TavMin(a.ilin, b.ilin); }},
      {"TavMax: mixing mismatch Environments", [](Mixed& a, Mixed& b) { TavMax(a.lin, b.lin); }},
      {"TavMax: mixing mismatch Environments", [](Mixed& a, Mixed& b) { TavMax(a.ilin, b.ilin); }},
  };
#undef PLUS_MINUS
  Model m1, m2;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    Mixed a = fresh(m1), b = fresh(m2);
    const std::string pa = picture(a), pb = picture(b);
    TavEnvI *e1 = m1.env.getImpl(), *e2 = m2.env.getImpl();
    const TavInt objects1 = e1->getLiveObjectCount(), objects2 = e2->getLiveObjectCount();
    const TavInt terms1 = e1->getLiveTermCount(), terms2 = e2->getLiveTermCount();
    EXPECT_EQ(messageOf<TavWrongUsage>([&] { row.second(a, b); }), row.first);
    EXPECT_EQ(e1->getLiveObjectCount(), objects1);
    EXPECT_EQ(e2->getLiveObjectCount(), objects2);
    EXPECT_EQ(e1->getLiveTermCount(), terms1);
    EXPECT_EQ(e2->getLiveTermCount(), terms2);
    EXPECT_EQ(picture(a), pa);
    EXPECT_EQ(picture(b), pb);
  }
}

}  // namespace
