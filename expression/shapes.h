// The three shapes of an operator node: one operand and a constant, two
// operands, or an array of operands. A shape holds its operands by shared
// reference and does the counting, cloning, visiting and printing; a node
// class is one table row giving its name, base, texts and scalar function.
#ifndef TAV_EXPRESSION_SHAPES_H
#define TAV_EXPRESSION_SHAPES_H

#include <ostream>

#include "arrays.h"
#include "linear.h"
#include "stack.h"

/// How a node's integrality follows from its operands.
enum class TavIntegrality {
  Never,         ///< never integer
  FromOperands,  ///< every operand integer and the constant integral
  Always,        ///< integer nodes
};

/// What a node prints around and between its operands, in the library
/// syntax and in the short syntax.
struct TavNodeTexts {
  const char* libOpen;
  const char* libMid;
  const char* libClose;
  const char* shortOpen;
  const char* shortMid;
  const char* shortClose;
};

namespace tav_detail {
inline bool integral(double c) { return TavNumIsInteger(c); }
inline bool integral(TavInt) { return true; }
/// The clone of an operand in the current pass, from the node's own
/// environment (which records every pair of the pass it runs).
inline TavNumExprI* cloneOf(const TavNumExprI* node, const TavNumExprI* e) {
  return static_cast<TavNumExprI*>(node->getEnv()->getClone(e));
}
/// Prints first, the middle text, then second, inside the syntax's texts.
template <class A, class B>
void displayPair(std::ostream& os, const TavEnvI* env, const TavNodeTexts& t, const A& first, const B& second);
inline void show(std::ostream& os, const TavNumExprI* e) { e->display(os); }
inline void show(std::ostream& os, double c) { os << c; }
inline void show(std::ostream& os, TavInt c) { os << c; }

template <class A, class B>
void displayPair(std::ostream& os, const TavEnvI* env, const TavNodeTexts& t, const A& first, const B& second) {
  const bool lib = env->isLibrarySyntaxDisplay();
  os << (lib ? t.libOpen : t.shortOpen);
  show(os, first);
  os << (lib ? t.libMid : t.shortMid);
  show(os, second);
  os << (lib ? t.libClose : t.shortClose);
}
}  // namespace tav_detail

/// An operand and a constant. Self supplies Apply(value, constant),
/// Integral, ConstantFirst (the constant prints first) and Texts.
template <class Self, class Base, class Constant>
class TavCstNode : public TavNode<Self, Base> {
 public:
  TavCstNode(TavEnvI* env, TavNumExprI* x, Constant c) : TavNode<Self, Base>(env, nullptr), _expr(x), _cst(c) {
    x->lockRef();
  }
  ~TavCstNode() override { this->getEnv()->release(_expr); }

  TavNumExprI* getExpr() const { return _expr; }
  Constant getConstant() const { return _cst; }

  double eval(TavAlgorithm alg) const override {
    return Self::Apply(TavDeepCall([this, alg] { return _expr->eval(alg); }), _cst);
  }
  bool isInteger() const override {
    if (Self::Integral == TavIntegrality::Always) return true;
    return Self::Integral == TavIntegrality::FromOperands && TavDeepCall([&] { return _expr->isInteger(); }) &&
           tav_detail::integral(_cst);
  }
  void display(std::ostream& os) const override {
    TavDeepCall([&] {
      if (Self::ConstantFirst) tav_detail::displayPair(os, this->getEnv(), Self::Texts, _cst, _expr);
      else tav_detail::displayPair(os, this->getEnv(), Self::Texts, _expr, _cst);
    });
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    visitor->visitChild(this, _expr);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    return new (env) Self(env, tav_detail::cloneOf(this, _expr), _cst);
  }

 private:
  TavNumExprI* _expr;
  Constant _cst;
};

/// Two operands. Self supplies Apply(left, right), Integral and Texts.
template <class Self, class Base>
class TavBinaryNode : public TavNode<Self, Base> {
 public:
  TavBinaryNode(TavEnvI* env, TavNumExprI* a, TavNumExprI* b)
      : TavNode<Self, Base>(env, nullptr), _left(a), _right(b) {
    a->lockRef();
    b->lockRef();
  }
  ~TavBinaryNode() override {
    this->getEnv()->release(_left);
    this->getEnv()->release(_right);
  }

  TavNumExprI* getLeft() const { return _left; }
  TavNumExprI* getRight() const { return _right; }

  double eval(TavAlgorithm alg) const override {
    const double a = TavDeepCall([this, alg] { return _left->eval(alg); });
    return Self::Apply(a, TavDeepCall([this, alg] { return _right->eval(alg); }));
  }
  bool isInteger() const override {
    if (Self::Integral == TavIntegrality::Always) return true;
    return Self::Integral == TavIntegrality::FromOperands &&
           TavDeepCall([&] { return _left->isInteger() && _right->isInteger(); });
  }
  void display(std::ostream& os) const override {
    TavDeepCall([&] { tav_detail::displayPair(os, this->getEnv(), Self::Texts, _left, _right); });
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    visitor->visitChild(this, _left);
    visitor->visitChild(this, _right);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    TavNumExprI* a = tav_detail::cloneOf(this, _left);
    return new (env) Self(env, a, tav_detail::cloneOf(this, _right));
  }

 private:
  TavNumExprI* _left;
  TavNumExprI* _right;
};

/// An owned array of operands folded by a comparison. Self supplies
/// Better(candidate, current) (take the candidate when true), Integral,
/// EvalMessage (the empty-array error) and Texts (open and close only).
template <class Self, class Base, class Array>
class TavArrayNode : public TavNode<Self, Base> {
 public:
  /// Takes over a fresh array and adds one reference to every element.
  TavArrayNode(TavEnvI* env, Array operands) : TavNode<Self, Base>(env, nullptr), _operands(operands) {
    _operands.lockExprs();
  }
  ~TavArrayNode() override {
    _operands.releaseExprs();
    _operands.end();
  }

  Array getOperands() const { return _operands; }

  double eval(TavAlgorithm alg) const override {
    const TavInt n = _operands.getSize();
    if (n == 0) throw TavArrayError(Self::EvalMessage, 0);
    return TavDeepCall([&] {
      double m = _operands.getElement(0)->eval(alg);
      if (n == 1) return m;
      // Element 0 is evaluated once more: a solver may count evaluations.
      for (TavInt i = 0; i < n; ++i) {
        const double v = _operands.getElement(i)->eval(alg);
        if (Self::Better(v, m)) m = v;
      }
      return m;
    });
  }
  bool isInteger() const override {
    if (Self::Integral == TavIntegrality::Always) return true;
    if (Self::Integral == TavIntegrality::Never) return false;
    const TavInt n = _operands.getSize();
    return TavDeepCall([&] {
      for (TavInt i = 0; i < n; ++i)
        if (!_operands.getElement(i)->isInteger()) return false;
      return true;
    });
  }
  void display(std::ostream& os) const override {
    const bool lib = this->getEnv()->isLibrarySyntaxDisplay();
    os << (lib ? Self::Texts.libOpen : Self::Texts.shortOpen);
    TavDeepCall([&] { os << static_cast<const TavExtractableArray&>(_operands); });
    os << (lib ? Self::Texts.libClose : Self::Texts.shortClose);
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    visitor->visitChildren(this, _operands);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    Array clones = _operands;
    clones.replaceByClone(env);
    return new (env) Self(env, clones);
  }

 private:
  Array _operands;
};

/// What every row states: its name, shape, integrality and texts.
#define TAV_ROW(Name, Shape, Args, Integrality, ...)                        \
  class Name final : public Shape<Args> {                                   \
    TAV_NODE_STATICS                                                        \
   public:                                                                  \
    static constexpr const char* RttiName = #Name;                          \
    static constexpr TavIntegrality Integral = TavIntegrality::Integrality; \
    static constexpr TavNodeTexts Texts = __VA_ARGS__;                      \
    using Shape::Shape;

/// One row of a constant-operand family.
#define TAV_CST_NODE(Name, Base, Constant, Integrality, ConstFirst, Texts_, Formula)   \
  TAV_ROW(Name, TavCstNode, Name TAV_COMMA Base TAV_COMMA Constant, Integrality, Texts_) \
  static constexpr bool ConstantFirst = ConstFirst;                                    \
  static double Apply(double v, Constant c) { return Formula; }                        \
  };

/// One row of a two-operand family.
#define TAV_BINARY_NODE(Name, Base, Integrality, Texts_, Formula)                \
  TAV_ROW(Name, TavBinaryNode, Name TAV_COMMA Base, Integrality, Texts_)         \
  static double Apply(double a, double b) { return Formula; }                    \
  };

/// One row of an array family.
#define TAV_ARRAY_NODE(Name, Base, Array, Integrality, Texts_, Message, Formula)           \
  TAV_ROW(Name, TavArrayNode, Name TAV_COMMA Base TAV_COMMA Array, Integrality, Texts_)    \
  static constexpr const char* EvalMessage = Message;                                      \
  static bool Better(double v, double m) { return Formula; }                               \
  };

#define TAV_COMMA ,

/// Defines the statics of one row, whatever its shape (in the family's source).
#define TAV_ROW_STATICS(Name, ...) TAV_DEFINE_NODE_STATICS(Name)

/// Display texts: library open, middle, close; short open, middle, close.
#define TAV_TEXTS(lo, lm, lc, so, sm, sc) \
  TavNodeTexts { lo, lm, lc, so, sm, sc }

#endif
