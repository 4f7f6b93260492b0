// The builders a family row can have made for it: check the operands, then
// make the node. A family's source expands its list with the callbacks
// below; a row whose builder is Generated gets its definitions there, a
// HandWritten one is defined elsewhere (it folds, simplifies or has a
// message of its own). Every check runs before anything is allocated, so a
// throw leaves the model unchanged.
#ifndef TAV_EXPRESSION_BUILDERS_H
#define TAV_EXPRESSION_BUILDERS_H

#include "checks.h"
#include "shapes.h"

namespace tav_detail {

/// The handle a builder returns for a node deriving from Base.
template <class Base>
struct ArgFor;
template <>
struct ArgFor<TavNumExprI> {
  using type = TavNumExprArg;
};
template <>
struct ArgFor<TavIntExprI> {
  using type = TavIntExprArg;
};
template <class Base>
using ArgOf = typename ArgFor<Base>::type;

/// The array of variables a builder also takes in place of an expression array.
template <class Array>
struct VarArrayFor;
template <>
struct VarArrayFor<TavNumExprArray> {
  using type = TavNumVarArray;
};
template <>
struct VarArrayFor<TavIntExprArray> {
  using type = TavIntVarArray;
};
template <class Array>
using VarArrayOf = typename VarArrayFor<Array>::type;

/// A node over one operand, in the operand's environment.
template <class Node, class R, class H>
R unaryNode(const H& x) {
  TavNumExprI* e = need(x);
  return R(new (e->getEnv()) Node(e->getEnv(), e));
}

/// A node over an operand and a constant, in the operand's environment.
template <class Node, class H, class C>
H cstNode(const H& x, C c) {
  auto e = need(x);
  return H(new (e->getEnv()) Node(e->getEnv(), e, c));
}

/// A node over two operands of one environment.
template <class Node, class H>
H binaryNode(const H& a, const H& b, const char* mismatch) {
  auto x = need(a);
  auto y = need(b);
  TavEnvI* env = x->getEnv();
  sameEnv(y->getEnv(), env, mismatch);
  return H(new (env) Node(env, x, y));
}

/// A node over a private copy of the caller's array (which stays the
/// caller's), after every element is checked against the array's environment.
template <class Node, class R, class Array>
R arrayNode(const Array& a, const char* mismatch) {
  TavEnvI* env = envOf(a);
  elementsIn(env, a, mismatch);
  return R(new (env) Node(env, a));
}

/// An element node over a private copy of the array, in the array's environment.
template <class Node, class R, class Array>
R elementNode(const Array& a, const TavIntExprArg& index) {
  TavEnvI* env = envOf(a);
  // The node lives in the array's environment and holds the index: an index
  // of another environment would outlive its own (or be outlived) unchecked.
  TavIntExprI* i = need(index.getImpl());
  sameEnv(i->getEnv(), env, "TavElement: index of another Environment");
  return R(new (env) Node(env, i, a));
}

}  // namespace tav_detail

// The builder callbacks, one per shape. They take a row as the shape's node
// macro does (shapes.h) and define its builder when it is Generated.

/// F(x) over the row's operand handle.
#define TAV_UNARY_BUILDER(Name, Base, How, ...) TAV_UNARY_BUILDER_##How(Name, Base, __VA_ARGS__)
#define TAV_UNARY_BUILDER_HandWritten(...)
#define TAV_UNARY_BUILDER_Generated(Name, Base, F, Operand, ...) \
  tav_detail::ArgOf<Base> F(const Operand& x) { return tav_detail::unaryNode<Name, tav_detail::ArgOf<Base>>(x); }

/// F(x, c), F(c, x) or both, by the row's order; a TavInt constant also
/// takes an int, so that a literal picks the integer form. The constant
/// type is spelt double or TavInt.
#define TAV_CST_BUILDER(Name, Base, How, ...) TAV_CST_BUILDER_##How(Name, Base, __VA_ARGS__)
#define TAV_CST_BUILDER_HandWritten(...)
#define TAV_CST_BUILDER_Generated(Name, Base, F, Constant, Integrality, Order, ...) \
  TAV_CST_FORMS_##Order(Name, tav_detail::ArgOf<Base>, F, Constant)               \
  TAV_INT_FORWARDS_##Constant(Order, tav_detail::ArgOf<Base>, F)
#define TAV_CST_FORMS_OperandFirst(Name, H, F, Constant) \
  H F(const H& x, Constant c) { return tav_detail::cstNode<Name>(x, c); }
#define TAV_CST_FORMS_ConstantFirst(Name, H, F, Constant) \
  H F(Constant c, const H& x) { return tav_detail::cstNode<Name>(x, c); }
#define TAV_CST_FORMS_Either(Name, H, F, Constant)  \
  TAV_CST_FORMS_OperandFirst(Name, H, F, Constant) \
  TAV_CST_FORMS_ConstantFirst(Name, H, F, Constant)
#define TAV_INT_FORWARDS_double(Order, H, F)
#define TAV_INT_FORWARDS_TavInt(Order, H, F) TAV_INT_FORWARD_##Order(H, F)
#define TAV_INT_FORWARD_OperandFirst(H, F) \
  H F(const H& x, int c) { return F(x, (TavInt)c); }
#define TAV_INT_FORWARD_ConstantFirst(H, F) \
  H F(int c, const H& x) { return F((TavInt)c, x); }
#define TAV_INT_FORWARD_Either(H, F) TAV_INT_FORWARD_OperandFirst(H, F) TAV_INT_FORWARD_ConstantFirst(H, F)

/// F(a, b); operands of two environments are refused with "F: mixing
/// mismatch Environments".
#define TAV_BINARY_BUILDER(Name, Base, How, ...) TAV_BINARY_BUILDER_##How(Name, Base, __VA_ARGS__)
#define TAV_BINARY_BUILDER_HandWritten(...)
#define TAV_BINARY_BUILDER_Generated(Name, Base, F, ...)                                            \
  tav_detail::ArgOf<Base> F(const tav_detail::ArgOf<Base>& a, const tav_detail::ArgOf<Base>& b) { \
    return tav_detail::binaryNode<Name>(a, b, #F ": mixing mismatch Environments");                 \
  }

/// F(expressions) and F(variables); the node copies the caller's array.
#define TAV_ARRAY_BUILDER(Name, Base, How, ...) TAV_ARRAY_BUILDER_##How(Name, Base, __VA_ARGS__)
#define TAV_ARRAY_BUILDER_HandWritten(...)
#define TAV_ARRAY_BUILDER_Generated(Name, Base, F, Array, ...)                                   \
  tav_detail::ArgOf<Base> F(const Array& a) {                                                    \
    return tav_detail::arrayNode<Name, tav_detail::ArgOf<Base>>(a, #F ": mixing mismatch Environments"); \
  }                                                                                              \
  tav_detail::ArgOf<Base> F(const tav_detail::VarArrayOf<Array>& a) {                           \
    return tav_detail::arrayNode<Name, tav_detail::ArgOf<Base>>(a, #F ": mixing mismatch Environments"); \
  }

/// F(array, index).
#define TAV_ELEMENT_BUILDER(Name, Base, How, ...) TAV_ELEMENT_BUILDER_##How(Name, Base, __VA_ARGS__)
#define TAV_ELEMENT_BUILDER_HandWritten(...)
#define TAV_ELEMENT_BUILDER_Generated(Name, Base, F, Array, ...)           \
  tav_detail::ArgOf<Base> F(const Array& a, const TavIntExprArg& index) { \
    return tav_detail::elementNode<Name, tav_detail::ArgOf<Base>>(a, index); \
  }

#endif
