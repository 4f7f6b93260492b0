// Arrays of variables and expressions: handles over the extractable array
// whose elements are the implementation objects (possibly null).
#ifndef TAV_EXPRESSION_ARRAYS_H
#define TAV_EXPRESSION_ARRAYS_H

#include "variables.h"

/// An extractable array whose elements read back as handles H over I.
template <class H, class I>
class TavHandleArray : public TavExtractableArray {
 public:
  TavHandleArray(TavArrayI* impl = nullptr) : TavExtractableArray(impl) {}
  /// n null elements.
  explicit TavHandleArray(TavEnv env, TavInt n = 0) : TavExtractableArray(env, n) {}
  H operator[](TavInt i) const { return H(static_cast<I*>(_impl->at(i).obj)); }
  I* getElement(TavInt i) const { return static_cast<I*>(_impl->at(i).obj); }
  void add(const H& h) { addObject(h.getImpl()); }
  void add(const TavHandleArray& other) { TavExtractableArray::add(other); }
};

class TavNumExprArray : public TavHandleArray<TavNumExprArg, TavNumExprI> {
 public:
  using TavHandleArray::TavHandleArray;
  /// Adds one reference to every non-null element.
  void lockExprs() const;
  /// Releases one reference of every non-null element.
  void releaseExprs() const;
  /// Ends every element (none may be null).
  void endElements() const;
  /// Points this handle at an array of env holding each element's clone.
  void replaceByClone(TavEnvI* env);
};

class TavIntExprArray : public TavHandleArray<TavIntExprArg, TavIntExprI> {
 public:
  using TavHandleArray::TavHandleArray;
  void lockExprs() const;
  void releaseExprs() const;
  void endElements() const;
  void replaceByClone(TavEnvI* env);
  TavIntExprArray getClone(TavEnvI* env) const;
};

class TavNumVarArray : public TavHandleArray<TavNumVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  /// New bounds for every variable, announced by one array record.
  void setBounds(TavNumArray lbs, TavNumArray ubs) const;
  TavNumExprArray toNumExprArray() const;
  TavNumVarArray getClone(TavEnvI* env) const;
};

class TavIntVarArray : public TavHandleArray<TavIntVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  TavIntExprArray toIntExprArray() const;
  TavNumVarArray toNumVarArray() const;
  TavIntVarArray getClone(TavEnvI* env) const;
};

class TavBoolVarArray : public TavHandleArray<TavBoolVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  TavBoolVarArray getClone(TavEnvI* env) const;
};

#endif
