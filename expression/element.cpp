// The statics and builders of the element nodes, and indexing of the
// variable and expression arrays by an integer expression.
#include "element.h"

#include "builders.h"

TAV_ELEMENT_FAMILY(TAV_ROW_STATICS)
TAV_ELEMENT_FAMILY(TAV_ELEMENT_BUILDER)

namespace {
/// An element node over an array of expressions or variables. A null
/// element could be neither evaluated nor tested for integrality, so it is
/// refused as an empty handle, before anything is made.
template <class Node, class R, class Array>
R exprElement(const Array& a, const TavIntExprArg& index) {
  const TavInt n = tav_detail::need(a.getImpl())->getSize();
  for (TavInt k = 0; k < n; ++k) tav_detail::need(a.getObject(k));
  return tav_detail::elementNode<Node, R>(a, index);
}
}  // namespace

// Variables stand for the expressions they are: the node copies the
// variable array directly, the same elements a converted array would hold.
TavNumExprArg TavElement(const TavNumExprArray& a, const TavIntExprArg& index) {
  return exprElement<TavNumExprArrayElementI, TavNumExprArg>(a, index);
}
TavNumExprArg TavElement(const TavNumVarArray& a, const TavIntExprArg& index) {
  return exprElement<TavNumExprArrayElementI, TavNumExprArg>(a, index);
}
TavIntExprArg TavElement(const TavIntExprArray& a, const TavIntExprArg& index) {
  return exprElement<TavIntExprArrayElementI, TavIntExprArg>(a, index);
}
TavIntExprArg TavElement(const TavIntVarArray& a, const TavIntExprArg& index) {
  return exprElement<TavIntExprArrayElementI, TavIntExprArg>(a, index);
}

TavNumExprArg TavNumExprArray::operator[](const TavIntExprArg& index) const { return TavElement(*this, index); }
TavIntExprArg TavIntExprArray::operator[](const TavIntExprArg& index) const { return TavElement(*this, index); }
TavNumExprArg TavNumVarArray::operator[](const TavIntExprArg& index) const { return TavElement(*this, index); }
TavIntExprArg TavIntVarArray::operator[](const TavIntExprArg& index) const { return TavElement(*this, index); }
TavNumExprArg TavExprArray::operator[](const TavIntExprArg& index) const {
  return TavElement(TavNumExprArray(*this), index);
}

const TavIntExprI* tav_detail::elementIndexOf(const TavNumExprI* e) {
  const TavTypeInfo t = e->getTypeInfo();
#define TAV_INDEX_OF_ROW(Name, ...) \
  if (t == Name::GetTypeInfo()) return static_cast<const Name*>(e)->getIndex();
  TAV_ELEMENT_FAMILY(TAV_INDEX_OF_ROW)
#undef TAV_INDEX_OF_ROW
  return nullptr;
}
