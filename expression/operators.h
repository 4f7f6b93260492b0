// The arithmetic operators: + - * / % and negation over variables, terms,
// expressions and numbers. Linear operands fold into one linear node (in
// place when unshared); only genuinely non-linear combinations make nodes.
#ifndef TAV_EXPRESSION_OPERATORS_H
#define TAV_EXPRESSION_OPERATORS_H

#include <type_traits>
#include <utility>

#include "variables.h"

// Terms: variable times number. Inline: this is the model-building path.
#define TAV_TERM(R, X, N)                                                 \
  inline R operator*(const X& x, N c) {                                   \
    TavNumVarI* v = x.getImpl();                                          \
    if (TAV_UNLIKELY(v == nullptr)) throw TavEmptyHandleException();      \
    /* The sole live environment, when it owns v, comes from a global:  \
       the cell allocation then need not wait for the owner look-up. */ \
    TavEnvI* env = TavVarEnv(v);                                          \
    TavEnvI* sole = TavEnvI::Sole();                                      \
    if (TAV_LIKELY(env == sole && sole != nullptr))                       \
      return R(sole->newTerm(v, (double)c));                              \
    if (TAV_UNLIKELY(env == nullptr))                                     \
      throw TavWrongUsage(#R " operator * const " #X " " #N               \
                          ": variable of an ended Environment", 0);       \
    return R(env->newTerm(v, (double)c));                                 \
  }                                                                       \
  inline R operator*(N c, const X& x) { return x * c; }
///@{
/// c * x or x * c: a term of a linear expression, made in the variable's environment.
TAV_TERM(TavNumLinExprTerm, TavNumVar, double)
TAV_TERM(TavNumLinExprTerm, TavNumVar, TavInt)
TAV_TERM(TavNumLinExprTerm, TavNumVar, int)
TAV_TERM(TavNumLinExprTerm, TavIntVar, double)
TAV_TERM(TavIntLinExprTerm, TavIntVar, TavInt)
TAV_TERM(TavIntLinExprTerm, TavIntVar, int)
///@}
#undef TAV_TERM

// Negation.
///@{
/// -x: a term negates its coefficient, an expression becomes -1 times it.
TavNumLinExprTerm operator-(TavNumLinExprTerm t);
TavIntLinExprTerm operator-(TavIntLinExprTerm t);
TavNumLinExprTerm operator-(const TavNumVar& x);
TavIntLinExprTerm operator-(const TavIntVar& x);
TavNumExprArg operator-(const TavNumExprArg& e);
TavIntExprArg operator-(const TavIntExprArg& e);
///@}

namespace tav_detail {
/// The general sums of a node and a term handle, by their row of the sum
/// table in operators.cpp; the inline forms below call them when they cannot
/// link the cell in place.
TavNumExprI* sumNodeCell(int row, TavNumExprI* node, TavNumLinExprTermI* cell, bool negate);
TavNumExprI* sumCellNode(int row, TavNumLinExprTermI* cell, TavNumExprI* node);

/// e as the linear node of class Lin that a sum may extend in place with
/// cell: a temporary (count 0, so nothing holds it) of that class, in the
/// cell's environment, and a cell no list holds; else null. This is the test
/// the general sum makes before it appends, without its bookkeeping; the
/// class is read from a field, as a virtual call here costs a third of the
/// step in a long chain.
template <class Lin>
inline Lin* extensible(TavNumExprI* e, const TavNumLinExprTermI* cell) {
  if (TAV_LIKELY(e && cell && cell->_next == TavFreshCell() && e->getRefCount() <= 0 &&
                 e->getLinKind() == Lin::OwnLinKind && e->getEnv() == TavVarEnv(cell->_var)))
    return static_cast<Lin*>(e);
  return nullptr;
}

/// A node in the temporary handle kind R (TavNumExprArg or TavIntExprArg).
template <class R>
inline R asArg(TavNumExprI* e) {
  return R(static_cast<decltype(std::declval<const R&>().getImpl())>(e));
}
}  // namespace tav_detail

// Sums and differences. Each binary form A op B exists for + and -.
#define TAV_SUM_FORMS(R, A, B) \
  R operator+(A a, B b);       \
  R operator-(A a, B b);
// A node plus a term handle: a chain s = s + c * x over a temporary links
// each cell into s as `e += c * x` does. ROW is the form's row in the table.
#define TAV_SUM_NODE_TERM(R, Lin, A, T, ROW)                                                  \
  inline R operator+(const A& a, T t) {                                                        \
    if (Lin* lin = tav_detail::extensible<Lin>(a.getImpl(), t.getImpl())) {                    \
      lin->append(t.getImpl());                                                                \
      return R(lin);                                                                           \
    }                                                                                          \
    return tav_detail::asArg<R>(tav_detail::sumNodeCell(ROW, a.getImpl(), t.getImpl(), false)); \
  }                                                                                            \
  inline R operator-(const A& a, T t) {                                                        \
    if (Lin* lin = tav_detail::extensible<Lin>(a.getImpl(), t.getImpl())) {                    \
      t.getImpl()->_coef = -t.getImpl()->_coef;                                                \
      lin->append(t.getImpl());                                                                \
      return R(lin);                                                                           \
    }                                                                                          \
    return tav_detail::asArg<R>(tav_detail::sumNodeCell(ROW, a.getImpl(), t.getImpl(), true)); \
  }
// A term handle plus a node: the cell goes first. The difference negates
// the node, so it takes the general path.
#define TAV_SUM_TERM_NODE(R, Lin, T, A, ROW)                                                  \
  inline R operator+(T t, const A& a) {                                                        \
    if (Lin* lin = tav_detail::extensible<Lin>(a.getImpl(), t.getImpl())) {                    \
      lin->prepend(t.getImpl());                                                               \
      return R(lin);                                                                           \
    }                                                                                          \
    return tav_detail::asArg<R>(tav_detail::sumCellNode(ROW, t.getImpl(), a.getImpl()));      \
  }                                                                                            \
  R operator-(T t, const A& a);
// Numeric.
///@{
/// a + b and a - b over numeric expressions, terms and numbers: linear operands fold into one linear expression.
TAV_SUM_FORMS(TavNumExprArg, const TavNumExprArg&, const TavNumExprArg&)
TAV_SUM_NODE_TERM(TavNumExprArg, TavNumLinTermI, TavNumExprArg, TavNumLinExprTerm, 1)
TAV_SUM_NODE_TERM(TavNumExprArg, TavNumLinTermI, TavNumExprArg, TavIntLinExprTerm, 2)
TAV_SUM_TERM_NODE(TavNumExprArg, TavNumLinTermI, TavNumLinExprTerm, TavNumExprArg, 3)
TAV_SUM_TERM_NODE(TavNumExprArg, TavNumLinTermI, TavIntLinExprTerm, TavNumExprArg, 4)
TAV_SUM_FORMS(TavNumExprArg, TavNumLinExprTerm, TavNumLinExprTerm)
TAV_SUM_FORMS(TavNumExprArg, TavIntLinExprTerm, TavNumLinExprTerm)
TAV_SUM_FORMS(TavNumExprArg, TavNumLinExprTerm, TavIntLinExprTerm)
TAV_SUM_FORMS(TavNumExprArg, const TavNumExprArg&, double)
TAV_SUM_FORMS(TavNumExprArg, double, const TavNumExprArg&)
TAV_SUM_FORMS(TavNumExprArg, TavNumLinExprTerm, double)
TAV_SUM_FORMS(TavNumExprArg, double, TavNumLinExprTerm)
TAV_SUM_FORMS(TavNumExprArg, TavIntLinExprTerm, double)
TAV_SUM_FORMS(TavNumExprArg, double, TavIntLinExprTerm)
TAV_SUM_FORMS(TavNumExprArg, const TavIntExprArg&, double)
TAV_SUM_FORMS(TavNumExprArg, double, const TavIntExprArg&)
///@}
// Integer.
///@{
/// a + b and a - b over integer expressions, terms and integers: an integer expression.
TAV_SUM_FORMS(TavIntExprArg, const TavIntExprArg&, const TavIntExprArg&)
TAV_SUM_NODE_TERM(TavIntExprArg, TavIntLinTermI, TavIntExprArg, TavIntLinExprTerm, 9)
TAV_SUM_TERM_NODE(TavIntExprArg, TavIntLinTermI, TavIntLinExprTerm, TavIntExprArg, 10)
TAV_SUM_FORMS(TavIntExprArg, TavIntLinExprTerm, TavIntLinExprTerm)
TAV_SUM_FORMS(TavIntExprArg, const TavIntExprArg&, TavInt)
TAV_SUM_FORMS(TavIntExprArg, TavInt, const TavIntExprArg&)
TAV_SUM_FORMS(TavIntExprArg, const TavIntExprArg&, int)
TAV_SUM_FORMS(TavIntExprArg, int, const TavIntExprArg&)
TAV_SUM_FORMS(TavIntExprArg, TavIntLinExprTerm, TavInt)
TAV_SUM_FORMS(TavIntExprArg, TavInt, TavIntLinExprTerm)
TAV_SUM_FORMS(TavIntExprArg, TavIntLinExprTerm, int)
TAV_SUM_FORMS(TavIntExprArg, int, TavIntLinExprTerm)
///@}
#undef TAV_SUM_FORMS
#undef TAV_SUM_NODE_TERM
#undef TAV_SUM_TERM_NODE

// Products.
///@{
/// a * b: a constant factor scales a linear operand in place of a product node.
TavNumExprArg operator*(const TavNumExprArg& e, double d);
TavNumExprArg operator*(double d, const TavNumExprArg& e);
TavNumExprArg operator*(const TavNumExprArg& a, const TavNumExprArg& b);
TavNumExprArg operator*(const TavIntExprArg& e, double d);
TavNumExprArg operator*(double d, const TavIntExprArg& e);
TavIntExprArg operator*(const TavIntExprArg& e, TavInt k);
TavIntExprArg operator*(TavInt k, const TavIntExprArg& e);
TavIntExprArg operator*(const TavIntExprArg& e, int k);
TavIntExprArg operator*(int k, const TavIntExprArg& e);
TavIntExprArg operator*(const TavIntExprArg& a, const TavIntExprArg& b);
///@}

// Quotients.
///@{
/// a / b as a numeric expression; integer operands divide exactly here (TavDiv truncates).
TavNumExprArg operator/(const TavNumExprArg& e, double d);
TavNumExprArg operator/(double d, const TavNumExprArg& e);
TavNumExprArg operator/(const TavNumExprArg& a, const TavNumExprArg& b);
///@}

// Integer remainders (truncated division: the sign of the dividend).
///@{
/// a % b: the remainder of the truncated integer division, as an integer expression.
TavIntExprArg operator%(const TavIntExprArg& a, const TavIntExprArg& b);
TavIntExprArg operator%(const TavIntExprArg& e, TavInt k);
TavIntExprArg operator%(TavInt k, const TavIntExprArg& e);
TavIntExprArg operator%(const TavIntExprArg& e, int k);
TavIntExprArg operator%(int k, const TavIntExprArg& e);
///@}

// A TavIntExpr is a TavNumExpr; these templates hand it to the integer forms
// above, so that integer handles keep integer arithmetic. They apply only
// when an operand is exactly a TavIntExpr.
/// An integer expression handle as the integer operand of the forms above.
inline TavIntExprArg TavAsIntOperand(const TavIntExpr& e) { return e; }
/// Any other operand, passed on unchanged.
template <class T>
const T& TavAsIntOperand(const T& t) {
  return t;
}
/// Enables a template form when A or B is exactly TavIntExpr.
template <class A, class B = A>
using TavIfIntExpr =
    std::enable_if_t<std::is_same<A, TavIntExpr>::value || std::is_same<B, TavIntExpr>::value, int>;
#define TAV_INT_EXPR_BINARY(F)                                                 \
  template <class A, class B, TavIfIntExpr<A, B> = 0>                          \
  auto F(const A& a, const B& b)->decltype(F(TavAsIntOperand(a), TavAsIntOperand(b))) { \
    return F(TavAsIntOperand(a), TavAsIntOperand(b));                          \
  }
///@{
/// The operators with a TavIntExpr operand, forwarded to the integer forms.
TAV_INT_EXPR_BINARY(operator+)
TAV_INT_EXPR_BINARY(operator-)
TAV_INT_EXPR_BINARY(operator*)
TAV_INT_EXPR_BINARY(operator/)
TAV_INT_EXPR_BINARY(operator%)
template <class A, TavIfIntExpr<A> = 0>
TavIntExprArg operator-(const A& a) {
  return -TavAsIntOperand(a);
}
///@}

#endif
