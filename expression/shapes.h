// The shapes of a tabled node: one operand; one operand and a constant; two
// operands; an array of operands; an index into an array. A shape holds
// its parts (storage.h) and does the evaluation, integrality, printing,
// visiting and cloning; a node class is one table row giving its name,
// base, builder, integrality, texts and scalar function.
//
// A family is one X-macro list with one callback per shape; a row such as
//   UN(TavNumSquareI, TavNumExprI, Generated, TavSquare, TavNumExprArg, FromOperands,
//      TAV_TEXTS("TavSquare(", "", ") ", "square(", "", ")"), Apply(v * v))
// in a list TAV_SQUARE_FAMILY(UN) is expanded with TAV_UNARY_NODE in the
// header (the classes), and in the source with TAV_ROW_STATICS (their
// statics) and TAV_UNARY_BUILDER (builders.h: the generated builders).
#ifndef TAV_EXPRESSION_SHAPES_H
#define TAV_EXPRESSION_SHAPES_H

#include <ostream>
#include <type_traits>

#include "arrays.h"
#include "storage.h"

/// How a node's integrality follows from its operands.
enum class TavIntegrality {
  Never,         ///< never integer
  FromOperands,  ///< every operand (every array element) integer and the constant integral
  Always,        ///< integer nodes
};

/// Where the constant of a constant-operand node goes, in the builder's
/// arguments and in print.
enum class TavOrder {
  OperandFirst,   ///< F(x, c); prints x first
  ConstantFirst,  ///< F(c, x); prints c first
  Either,         ///< F(x, c) and F(c, x) build the same node; prints x first
};

/// What a node prints around and between its parts, in the library syntax
/// and in the short syntax.
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

/// A node's answer to isInteger for its integrality; operands() is asked
/// only when it matters.
template <class Operands>
bool integrality(TavIntegrality rule, Operands operands) {
  if (rule == TavIntegrality::Always) return true;
  return rule == TavIntegrality::FromOperands && operands();
}

/// The three texts of one syntax.
struct SyntaxTexts {
  const char* open;
  const char* mid;
  const char* close;
};
/// The texts of the syntax node's environment displays in.
inline SyntaxTexts syntaxOf(const TavExtractableI* node, const TavNodeTexts& t) {
  if (node->getEnv()->isLibrarySyntaxDisplay()) return {t.libOpen, t.libMid, t.libClose};
  return {t.shortOpen, t.shortMid, t.shortClose};
}

// What a part of a node prints: operands through their own display (a deep
// call), numbers and arrays through the stream.
inline void show(std::ostream& os, double c) { os << c; }
inline void show(std::ostream& os, TavInt c) { os << c; }
inline void show(std::ostream& os, const char* text) { os << text; }
inline void show(std::ostream& os, const TavNumExprI* e) {
  TavDeepCall([e, &os] { e->display(os); });
}
template <class E>
void show(std::ostream& os, const TavOperand<E>& e) {
  e.display(os);
}
template <class Array>
void show(std::ostream& os, const TavOwnedArray<Array>& a) {
  a.display(os);
}
/// An array handle as the array stream operator prints it: "[a, b]", the
/// separator before every tenth element a line break.
template <class Array, std::enable_if_t<std::is_base_of<TavArrayBase, Array>::value, int> = 0>
void show(std::ostream& os, const Array& a) {
  TavDeepCall([&] { os << a; });
}

/// The call form: open, the parts separated by mid, close, in the syntax of
/// node's environment. One part prints no mid.
template <class First, class... Rest>
void displayCall(std::ostream& os, const TavExtractableI* node, const TavNodeTexts& texts, const First& first,
                 const Rest&... rest) {
  const SyntaxTexts t = syntaxOf(node, texts);
  os << t.open;
  show(os, first);
  ((os << t.mid, show(os, rest)), ...);
  os << t.close;
}

/// Whether Self evaluates itself (static double Eval(const Shape&, TavAlgorithm)).
template <class Self, class = void>
struct HasOwnEval : std::false_type {};
template <class Self>
struct HasOwnEval<Self, std::void_t<decltype(&Self::Eval)>> : std::true_type {};
}  // namespace tav_detail

/// One operand. Self supplies Integral, Texts (open and close) and either
/// Apply(value) or, for a node that reads its operand more than once,
/// Eval(node, alg) using operandValue(alg).
template <class Self, class Base>
class TavUnaryNode : public TavNode<Self, Base> {
 public:
  TavUnaryNode(TavEnvI* env, TavNumExprI* x) : TavNode<Self, Base>(env, nullptr), _expr(x) {}

  TavNumExprI* getExpr() const { return _expr.get(); }
  /// One evaluation of the operand.
  double operandValue(TavAlgorithm alg) const { return _expr.eval(alg); }

  double eval(TavAlgorithm alg) const override {
    if constexpr (tav_detail::HasOwnEval<Self>::value) return Self::Eval(*this, alg);
    else return Self::Apply(_expr.eval(alg));
  }
  bool isInteger() const override {
    return tav_detail::integrality(Self::Integral, [this] { return _expr.isInteger(); });
  }
  void display(std::ostream& os) const override { tav_detail::displayCall(os, this, Self::Texts, _expr); }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _expr.visit(this, visitor);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override { return new (env) Self(env, _expr.clone(this)); }

 private:
  TavOperand<> _expr;
};

/// An operand and a constant. Self supplies Apply(value, constant),
/// Integral, Order (where the constant prints) and Texts.
template <class Self, class Base, class Constant>
class TavCstNode : public TavNode<Self, Base> {
 public:
  TavCstNode(TavEnvI* env, TavNumExprI* x, Constant c) : TavNode<Self, Base>(env, nullptr), _expr(x), _cst(c) {}

  TavNumExprI* getExpr() const { return _expr.get(); }
  Constant getConstant() const { return _cst; }

  double eval(TavAlgorithm alg) const override { return Self::Apply(_expr.eval(alg), _cst); }
  bool isInteger() const override {
    return tav_detail::integrality(Self::Integral,
                                   [this] { return _expr.isInteger() && tav_detail::integral(_cst); });
  }
  void display(std::ostream& os) const override {
    if (Self::Order == TavOrder::ConstantFirst) tav_detail::displayCall(os, this, Self::Texts, _cst, _expr);
    else tav_detail::displayCall(os, this, Self::Texts, _expr, _cst);
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _expr.visit(this, visitor);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override { return new (env) Self(env, _expr.clone(this), _cst); }

 private:
  TavOperand<> _expr;
  Constant _cst;
};

/// Two operands, evaluated left first. Self supplies Apply(left, right),
/// Integral and Texts.
template <class Self, class Base>
class TavBinaryNode : public TavNode<Self, Base> {
 public:
  TavBinaryNode(TavEnvI* env, TavNumExprI* a, TavNumExprI* b)
      : TavNode<Self, Base>(env, nullptr), _left(a), _right(b) {}

  TavNumExprI* getLeft() const { return _left.get(); }
  TavNumExprI* getRight() const { return _right.get(); }

  double eval(TavAlgorithm alg) const override {
    const double a = _left.eval(alg);
    return Self::Apply(a, _right.eval(alg));
  }
  bool isInteger() const override {
    return tav_detail::integrality(Self::Integral, [this] { return _left.isInteger() && _right.isInteger(); });
  }
  void display(std::ostream& os) const override { tav_detail::displayCall(os, this, Self::Texts, _left, _right); }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _left.visit(this, visitor);
    _right.visit(this, visitor);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    TavNumExprI* a = _left.clone(this);
    return new (env) Self(env, a, _right.clone(this));
  }

 private:
  TavOperand<> _left;
  TavOperand<> _right;
};

/// A private array of operands folded by a comparison. Self supplies
/// Better(candidate, current) (take the candidate when true), Integral,
/// EvalMessage (the empty-array error) and Texts (open and close only).
template <class Self, class Base, class Array>
class TavArrayNode : public TavNode<Self, Base> {
 public:
  /// Copies operands (an array, or TavOwnedArray::clone), one reference per element.
  template <class From>
  TavArrayNode(TavEnvI* env, const From& operands) : TavNode<Self, Base>(env, nullptr), _operands(env, operands) {}

  Array getOperands() const { return _operands.get(); }

  double eval(TavAlgorithm alg) const override {
    const TavInt n = _operands.getSize();
    if (n == 0) throw TavArrayError(Self::EvalMessage, 0);
    double m = _operands.valueAt(0, alg);
    if (n == 1) return m;
    // Element 0 is evaluated once more: a solver may count evaluations.
    for (TavInt i = 0; i < n; ++i) {
      const double v = _operands.valueAt(i, alg);
      if (Self::Better(v, m)) m = v;
    }
    return m;
  }
  bool isInteger() const override {
    return tav_detail::integrality(Self::Integral, [this] { return _operands.allInteger(); });
  }
  void display(std::ostream& os) const override { tav_detail::displayCall(os, this, Self::Texts, _operands); }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _operands.visit(this, visitor);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override { return new (env) Self(env, _operands.clone(this)); }

 private:
  TavOwnedArray<Array> _operands;
};

/// The element of a private array at the position an integer expression
/// gives (truncated toward zero, not bounds-checked). Over expressions the
/// node holds every element; over numbers only the index. Self supplies
/// Integral (FromOperands: every element, not the index) and Texts: the
/// library syntax prints open, index, mid, array, close; the short syntax
/// open, index, close (no array).
template <class Self, class Base, class Array>
class TavElementNode : public TavNode<Self, Base> {
 public:
  /// Copies array (an array, or TavOwnedArray::clone) before it takes the index.
  template <class From>
  TavElementNode(TavEnvI* env, TavIntExprI* index, const From& array)
      : TavNode<Self, Base>(env, nullptr), _array(env, array), _index(index) {}

  TavIntExprI* getIndex() const { return _index.get(); }
  Array getArray() const { return _array.get(); }

  double eval(TavAlgorithm alg) const override {
    const TavInt k = TavTrunc(_index.eval(alg));
    // Keeping the index in range is the caller's part; one outside the copy
    // is refused rather than read, so the mistake cannot reach other memory.
    if (TAV_UNLIKELY(k < 0 || k >= _array.getSize())) throw TavArrayError("TavElement: index out of range");
    return _array.valueAt(k, alg);
  }
  bool isInteger() const override {
    return tav_detail::integrality(Self::Integral, [this] { return _array.allInteger(); });
  }
  void display(std::ostream& os) const override {
    if (this->getEnv()->isLibrarySyntaxDisplay()) tav_detail::displayCall(os, this, Self::Texts, _index, _array);
    else tav_detail::displayCall(os, this, Self::Texts, _index);
  }
  void visitSubExtractables(TavExtractableVisitor* visitor) override {
    visitor->beginVisit(this);
    _index.visit(this, visitor);
    _array.visit(this, visitor);
    visitor->endVisit(this);
  }
  TavExtractableI* makeClone(TavEnvI* env) const override {
    return new (env) Self(env, _index.clone(this), _array.clone(this));
  }

 private:
  // The array first: its copy is the only step that can fail, and it must
  // fail before the index is counted.
  TavOwnedArray<Array> _array;
  TavOperand<TavIntExprI> _index;
};

// ------------------------------------------------------------------ rows
//
// One macro per shape turns a row into a complete class. The columns every
// row shares: class, base, how the builder is made (Generated from the row
// by builders.h, or HandWritten elsewhere), the builder's name,
// integrality, texts; then what the shape needs (constant type and order,
// array type, message) and the scalar function.

/// What every row states beside its shape: class name, integrality, texts.
#define TAV_ROW_FACTS(Name, Integrality, Texts_)                          \
  static constexpr const char* RttiName = #Name;                          \
  static constexpr TavIntegrality Integral = TavIntegrality::Integrality; \
  static constexpr TavNodeTexts Texts = Texts_;

/// A unary row; Operand is the handle its builder takes (TavNumExprArg or
/// TavIntExprArg). Formula is Apply(expression of the operand's value v), or
/// Eval(expression of the node self and the algorithm alg) for a node that
/// reads its operand itself (self.operandValue(alg)).
#define TAV_UNARY_NODE(Name, Base, How, Builder, Operand, Integrality, Texts_, Formula) \
  /** The node that Builder builds in an expression tree, over an operand given as Operand. */ \
  class Name final : public TavUnaryNode<Name, Base> {                         \
    TAV_NODE_STATICS                                                           \
   public:                                                                     \
    TAV_ROW_FACTS(Name, Integrality, Texts_)                                   \
    TAV_UNARY_##Formula                                                        \
    using TavUnaryNode::TavUnaryNode;                                          \
  };
#define TAV_UNARY_Apply(Formula) \
  static double Apply(double v) { return Formula; }
#define TAV_UNARY_Eval(Formula)                                                                  \
  static double Eval([[maybe_unused]] const TavUnaryNode& self, [[maybe_unused]] TavAlgorithm alg) { \
    return Formula;                                                                              \
  }

/// A row with an operand and a constant: Formula of the operand's value v
/// and the constant c.
#define TAV_CST_NODE(Name, Base, How, Builder, Constant, Integrality, Order_, Texts_, Formula) \
  /** The node that Builder builds over an operand (value v) and a Constant constant c: the value Formula. */ \
  class Name final : public TavCstNode<Name, Base, Constant> {                                \
    TAV_NODE_STATICS                                                                          \
   public:                                                                                    \
    TAV_ROW_FACTS(Name, Integrality, Texts_)                                                  \
    static constexpr TavOrder Order = TavOrder::Order_;                                       \
    static double Apply(double v, Constant c) { return Formula; }                             \
    using TavCstNode::TavCstNode;                                                             \
  };

/// A two-operand row: Formula of the left value a and the right value b.
#define TAV_BINARY_NODE(Name, Base, How, Builder, Integrality, Texts_, Formula) \
  /** The node that Builder builds over two operands: the value Formula of their values a and b. */ \
  class Name final : public TavBinaryNode<Name, Base> {                         \
    TAV_NODE_STATICS                                                            \
   public:                                                                      \
    TAV_ROW_FACTS(Name, Integrality, Texts_)                                    \
    static double Apply(double a, double b) { return Formula; }                 \
    using TavBinaryNode::TavBinaryNode;                                         \
  };

/// An array row: Better is a test of the candidate v against the running
/// value m; Message is thrown when the array is empty at evaluation.
#define TAV_ARRAY_NODE(Name, Base, How, Builder, Array, Integrality, Texts_, Message, Better_) \
  /** The node that Builder builds over a Array, where an element's v replaces the running m when Better_. */ \
  class Name final : public TavArrayNode<Name, Base, Array> {                                  \
    TAV_NODE_STATICS                                                                           \
   public:                                                                                     \
    TAV_ROW_FACTS(Name, Integrality, Texts_)                                                   \
    static constexpr const char* EvalMessage = Message;                                        \
    static bool Better(double v, double m) { return Better_; }                                 \
    using TavArrayNode::TavArrayNode;                                                          \
  };

/// An element row over arrays of type Array.
#define TAV_ELEMENT_NODE(Name, Base, How, Builder, Array, Integrality, Texts_) \
  /** The node that Builder builds for a[index] over a Array a: the element at the index's value. */ \
  class Name final : public TavElementNode<Name, Base, Array> {                \
    TAV_NODE_STATICS                                                           \
   public:                                                                     \
    TAV_ROW_FACTS(Name, Integrality, Texts_)                                   \
    using TavElementNode::TavElementNode;                                      \
  };

/// Defines the statics of one row, whatever its shape (in the family's source).
#define TAV_ROW_STATICS(Name, ...) TAV_DEFINE_NODE_STATICS(Name)

/// Display texts: library open, middle, close; short open, middle, close.
/// Parenthesised, so that the texts pass through further macros as one argument.
#define TAV_TEXTS(lo, lm, lc, so, sm, sc) (TavNodeTexts{lo, lm, lc, so, sm, sc})

#endif
