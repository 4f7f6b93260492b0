// The conditional expressions `condition ? then : else`, integer and
// numeric. The logical layer builds them; each branch is an expression or a
// constant.
//
// Example (c a constraint or any 0-1 expression, x and y nodes):
//   new (env) TavConditionalNumExprI(env, c, x, 2.5);   // c ? x : 2.5
//   new (env) TavConditionalIntExprI(env, c, 0, y);     // c ? 0 : y
#ifndef TAV_EXPRESSION_CONDITIONAL_H
#define TAV_EXPRESSION_CONDITIONAL_H

#include <ostream>
#include <type_traits>

#include "checks.h"
#include "storage.h"

/// What the two conditional classes share. Fields in order: the condition,
/// the then- and else-expressions (null when the branch is a constant), the
/// then- and else-constants (0 when the branch is an expression). The node
/// holds one reference on each expression it has, the condition included,
/// and gives all of them back when it goes (for a constraint condition, as
/// usual, giving back does nothing: constraints are not counted).
///
/// A branch constant may be written as any number literal of the constant's
/// kind (integers only for an integer node): `0` then means the constant 0,
/// not a missing expression.
template <class Self, class Base, class E, class C>
class TavConditionalNode : public TavNode<Self, Base> {
  template <class N>
  using IfConstant = std::enable_if_t<std::is_arithmetic<N>::value &&
                                          (std::is_floating_point<C>::value || std::is_integral<N>::value),
                                      int>;

 public:
  /// cond ? thenExpr : elseExpr. TavEmptyHandleException for no condition.
  TavConditionalNode(TavEnvI* env, TavNumExprI* cond, E* thenExpr, E* elseExpr)
      : TavNode<Self, Base>(env, nullptr), _cond(tav_detail::need(cond)), _then(thenExpr), _else(elseExpr) {}
  /// cond ? thenExpr : elseCst.
  template <class N, IfConstant<N> = 0>
  TavConditionalNode(TavEnvI* env, TavNumExprI* cond, E* thenExpr, N elseCst)
      : TavNode<Self, Base>(env, nullptr), _cond(tav_detail::need(cond)), _then(thenExpr), _elseCst((C)elseCst) {}
  /// cond ? thenCst : elseExpr.
  template <class N, IfConstant<N> = 0>
  TavConditionalNode(TavEnvI* env, TavNumExprI* cond, N thenCst, E* elseExpr)
      : TavNode<Self, Base>(env, nullptr), _cond(tav_detail::need(cond)), _else(elseExpr), _thenCst((C)thenCst) {}
  /// cond ? thenCst : elseCst.
  template <class N, class M, IfConstant<N> = 0, IfConstant<M> = 0>
  TavConditionalNode(TavEnvI* env, TavNumExprI* cond, N thenCst, M elseCst)
      : TavNode<Self, Base>(env, nullptr),
        _cond(tav_detail::need(cond)),
        _thenCst((C)thenCst),
        _elseCst((C)elseCst) {}

  TavNumExprI* getCondition() const { return _cond.get(); }
  E* getThen() const { return _then.get(); }
  E* getElse() const { return _else.get(); }
  C getThenConstant() const { return _thenCst; }
  C getElseConstant() const { return _elseCst; }

  /// Only a condition of exactly 1 selects the then-branch (2 and NaN do not).
  double eval(TavAlgorithm alg) const override {
    if (_cond.eval(alg) == 1.0) return _then ? _then.eval(alg) : (double)_thenCst;
    return _else ? _else.eval(alg) : (double)_elseCst;
  }
  /// The same text in both syntaxes: Q " ? " [T " : " (E or ec)] tc " : " [E].
  /// The else-expression may print twice and, with two constants, the
  /// else-constant not at all: existing output is kept as it always was.
  void display(std::ostream& os) const override {
    _cond.display(os);
    os << " ? ";
    if (_then) {
      _then.display(os);
      os << " : ";
      if (_else) _else.display(os);
      else os << _elseCst;
    }
    os << _thenCst << " : ";
    if (_else) _else.display(os);
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _cond.visit(this, visitor);
    _then.visit(this, visitor);
    _else.visit(this, visitor);
    visitor->endVisit(this);
  }
  /// A node of the same form in env over the clones of the pass.
  TavExtractableI* makeClone(TavEnvI* env) const override {
    TavNumExprI* cond = _cond.clone(this);
    if (_then && _else) return new (env) Self(env, cond, _then.clone(this), _else.clone(this));
    if (_then) return new (env) Self(env, cond, _then.clone(this), _elseCst);
    if (_else) return new (env) Self(env, cond, _thenCst, _else.clone(this));
    return new (env) Self(env, cond, _thenCst, _elseCst);
  }

 private:
  TavOperand<> _cond;
  TavOperand<E> _then;
  TavOperand<E> _else;
  C _thenCst = 0;
  C _elseCst = 0;
};

/// cond ? then : else over integer branches; always integer.
class TavConditionalIntExprI final
    : public TavConditionalNode<TavConditionalIntExprI, TavIntExprI, TavIntExprI, TavInt> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConditionalIntExprI";
  using TavConditionalNode::TavConditionalNode;
  bool isInteger() const override { return true; }
};

/// cond ? then : else over numeric branches; never reported integer.
class TavConditionalNumExprI final
    : public TavConditionalNode<TavConditionalNumExprI, TavNumExprI, TavNumExprI, double> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavConditionalNumExprI";
  using TavConditionalNode::TavConditionalNode;
  bool isInteger() const override { return false; }
};

#endif
