// Element expressions: the element of an array at a position that an integer
// expression gives, a[i], over arrays of numeric expressions, of integer
// expressions, of 64-bit integers and of doubles. The node keeps a private
// copy of the array, so later changes to the caller's array do not reach it.
//
// Example:
//   TavNumArray costs(env, {4.0, 2.5, 7.0});
//   TavIntVar k(env, 0, 2, "k");
//   TavNumExprArg c = costs[k];          // 2.5 when k is 1
//   TavNumExprArg d = costs[k + 1];      // any integer expression indexes
//   double first = costs[0];             // a number index still reads the number
//
// The index value is truncated toward zero (1.9 selects element 1, -0.5
// element 0). Building checks nothing against the array's size: an index
// that evaluates outside [0, size) is the caller's error, which evaluation
// reports with TavArrayError "TavElement: index out of range" instead of
// reading past the node's copy.
#ifndef TAV_EXPRESSION_ELEMENT_H
#define TAV_EXPRESSION_ELEMENT_H

#include "shapes.h"

// The four element nodes. Over expressions the node holds one reference on
// every element; over numbers only the index. The short syntax leaves the
// array out: nums[i] whatever the array holds.
//  class, base, builder (how, name), array, integrality, texts
#define TAV_ELEMENT_FAMILY(ELT)                                                                              \
  ELT(TavNumExprArrayElementI, TavNumExprI, HandWritten, TavElement, TavNumExprArray, FromOperands,          \
      TAV_TEXTS("TavNumExprArrayIndex(", ", ", ") ", "num-exprs[", "", "]"))                                 \
  ELT(TavIntExprArrayElementI, TavIntExprI, HandWritten, TavElement, TavIntExprArray, Always,                \
      TAV_TEXTS("TavIntExprArrayIndex(", ", ", ") ", "int-exprs[", "", "]"))                                 \
  ELT(TavIntArrayElementI, TavIntExprI, Generated, TavElement, TavIntArray, Always,                          \
      TAV_TEXTS("TavIntArrayIndex(", ", ", ") ", "ints[", "", "]"))                                          \
  ELT(TavNumArrayElementI, TavNumExprI, Generated, TavElement, TavNumArray, FromOperands,                    \
      TAV_TEXTS("TavNumArrayIndex(", ", ", ") ", "nums[", "", "]"))
TAV_ELEMENT_FAMILY(TAV_ELEMENT_NODE)

// Every form is a[index] for its array: the node is built in the array's
// environment over a private copy. An empty array or index handle, or a
// null element of an array of expressions or variables, throws
// TavEmptyHandleException before anything is made.
/// a[index] over an array of doubles: a numeric expression.
TavNumExprArg TavElement(const TavNumArray& a, const TavIntExprArg& index);
/// a[index] over an array of integers: an integer expression.
TavIntExprArg TavElement(const TavIntArray& a, const TavIntExprArg& index);
/// Over the variables themselves (uncounted): the node of an array of numeric expressions.
TavNumExprArg TavElement(const TavNumVarArray& a, const TavIntExprArg& index);
/// Over the variables themselves: the node of an array of integer expressions.
TavIntExprArg TavElement(const TavIntVarArray& a, const TavIntExprArg& index);
/// a[index] over an array of numeric expressions.
TavNumExprArg TavElement(const TavNumExprArray& a, const TavIntExprArg& index);
/// a[index] over an array of integer expressions: an integer expression.
TavIntExprArg TavElement(const TavIntExprArray& a, const TavIntExprArg& index);

/// numArray[index] for an integer-expression index (the value arrays find
/// it through the index's type; a number index still reads the number).
inline TavNumExprArg TavElementOf(const TavValueArray<double>& a, const TavIntExprArg& index) {
  return TavElement(TavNumArray(a.getImpl()), index);
}
/// intArray[index] for an integer-expression index.
inline TavIntExprArg TavElementOf(const TavValueArray<TavInt>& a, const TavIntExprArg& index) {
  return TavElement(TavIntArray(a.getImpl()), index);
}

namespace tav_detail {
/// The index of an element node; null when e is not an element node.
const TavIntExprI* elementIndexOf(const TavNumExprI* e);
}  // namespace tav_detail

#endif
