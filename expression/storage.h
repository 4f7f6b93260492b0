// How a node holds what it is made of: one counted operand, a private copy
// of an array, and the mix-in of objects that no count holds. The counting,
// cloning, visiting and deep calls into children are written here once; the
// shapes and hand-written node classes only use them.
#ifndef TAV_EXPRESSION_STORAGE_H
#define TAV_EXPRESSION_STORAGE_H

#include <ostream>
#include <type_traits>

#include "array.h"
#include "linear.h"
#include "stack.h"

namespace tav_detail {
/// The clone of an operand in the current pass, from the node's own
/// environment (which records every pair of the pass it runs).
inline TavNumExprI* cloneOf(const TavNumExprI* node, const TavNumExprI* e) {
  return static_cast<TavNumExprI*>(node->getEnv()->getClone(e));
}
}  // namespace tav_detail

/// One operand held with one reference: taken when set, released when the
/// holder goes. Every call into the operand is a deep call, so a chain of
/// nodes of any depth evaluates, tests and prints without exhausting the
/// stack. May be empty (an optional operand).
template <class E = TavNumExprI>
class TavOperand {
 public:
  TavOperand() = default;
  /// Holds e (null for none) and adds one reference to it; cannot fail.
  explicit TavOperand(E* e) : _e(e) {
    if (e) e->lockRef();
  }
  ~TavOperand() {
    if (_e) _e->getEnv()->release(_e);
  }
  TavOperand(const TavOperand&) = delete;
  TavOperand& operator=(const TavOperand&) = delete;

  /// Holds e instead: one reference on e first, then the previous operand
  /// released (so setting the same operand again keeps it alive).
  void set(E* e) {
    if (e) e->lockRef();
    E* old = _e;
    _e = e;
    if (old) old->getEnv()->release(old);
  }
  E* get() const { return _e; }
  explicit operator bool() const { return _e != nullptr; }

  double eval(TavAlgorithm alg) const {
    return TavDeepCall([e = _e, alg] { return e->eval(alg); });
  }
  bool isInteger() const {
    return TavDeepCall([e = _e] { return e->isInteger(); });
  }
  void display(std::ostream& os) const {
    TavDeepCall([e = _e, &os] { e->display(os); });
  }
  /// Reports the operand, when there is one, as a child of parent.
  void visit(TavExtractableI* parent, TavExtractableVisitor* visitor) const {
    if (_e) visitor->visitChild(parent, _e);
  }
  /// The operand's clone in the cloning pass of owner's environment (null for none).
  E* clone(const TavNumExprI* owner) const { return _e ? static_cast<E*>(tav_detail::cloneOf(owner, _e)) : nullptr; }

 private:
  E* _e = nullptr;
};

/// What a node's clone copies its array from: the source array with every
/// element replaced by its clone of the current pass (values are copied as
/// they are).
struct TavArrayClone {
  const TavArrayI* source;
  const TavNumExprI* owner;
};

/// A node's private copy of an array, in the node's environment. Over an
/// array of expressions (or variables) the node holds one reference on every
/// element; over an array of numbers there is nothing to count or visit.
/// The copy is taken whole before any element is locked, so a copy that
/// fails leaves nothing behind.
template <class Array>
class TavOwnedArray {
 public:
  /// Whether the elements are model objects (counted, visited, cloned).
  static constexpr bool HoldsExprs = std::is_base_of<TavExtractableArray, Array>::value;

  /// A copy of src (an array of the same element kind: variables may stand
  /// for expressions), with its layout.
  TavOwnedArray(TavEnvI* env, const TavArrayBase& src) : _array(copyOf(env, src.getImpl(), nullptr)) { lock(); }
  /// The array of a clone, in env.
  TavOwnedArray(TavEnvI* env, TavArrayClone src) : _array(copyOf(env, src.source, src.owner)) { lock(); }
  ~TavOwnedArray() {
    release();
    _array.end();
  }
  TavOwnedArray(const TavOwnedArray&) = delete;
  TavOwnedArray& operator=(const TavOwnedArray&) = delete;

  Array get() const { return _array; }
  TavInt getSize() const { return _array.getImpl()->getSize(); }
  /// What a clone of owner builds its array from.
  TavArrayClone clone(const TavNumExprI* owner) const { return TavArrayClone{_array.getImpl(), owner}; }

  /// The value of element k: its eval (a deep call) or the number itself.
  /// No bounds check.
  double valueAt(TavInt k, TavAlgorithm alg) const {
    if constexpr (HoldsExprs) {
      return TavDeepCall([e = _array.getElement(k), alg] { return e->eval(alg); });
    } else {
      return (double)_array[k];
    }
  }
  /// Every element an integer expression (an integral number); true when empty.
  bool allInteger() const {
    const TavInt n = getSize();
    if constexpr (HoldsExprs) {
      return TavDeepCall([&] {
        for (TavInt i = 0; i < n; ++i)
          if (!_array.getElement(i)->isInteger()) return false;
        return true;
      });
    } else {
      for (TavInt i = 0; i < n; ++i)
        if (!TavNumIsInteger((double)_array[i])) return false;
      return true;
    }
  }
  /// Reports the elements as children of parent (numbers are not children).
  void visit(TavExtractableI* parent, TavExtractableVisitor* visitor) const {
    if constexpr (HoldsExprs) visitor->visitChildren(parent, _array);
  }
  /// The array as the array stream operator prints it.
  void display(std::ostream& os) const {
    TavDeepCall([&] { os << _array; });
  }

 private:
  /// A new array of env with source's layout and slots; with an owner, every
  /// element is replaced by its clone. One allocation, nothing else can fail.
  static Array copyOf(TavEnvI* env, const TavArrayI* source, const TavNumExprI* owner) {
    if (TAV_UNLIKELY(source == nullptr)) throw TavEmptyHandleException();
    const TavInt n = source->getSize();
    TavArrayI* out = new (env) TavArrayI(env, n, (int)source->getBlockShift());
    for (TavInt i = 0; i < n; ++i) {
      TavArraySlot s = source->at(i);
      if constexpr (HoldsExprs) {
        if (owner && s.obj) s.obj = owner->getEnv()->getClone(s.obj);
      }
      out->at(i) = s;
    }
    return Array(out);
  }
  void lock() const {
    if constexpr (HoldsExprs) {
      const TavInt n = getSize();
      for (TavInt i = 0; i < n; ++i)
        if (TavNumExprI* e = _array.getElement(i)) e->lockRef();
    }
  }
  void release() const {
    if constexpr (HoldsExprs) {
      const TavInt n = getSize();
      for (TavInt i = 0; i < n; ++i)
        if (TavNumExprI* e = _array.getElement(i)) e->getEnv()->release(e);
    }
  }

  Array _array;
};

/// Base mix-in of the objects that no reference count holds (variables,
/// constraints): they live until ended explicitly, and releasing them does
/// nothing. Use as the Base of TavNode: TavNode<Self, TavUncounted<TavIntExprI>>.
template <class Base>
class TavUncounted : public Base {
 public:
  using Base::Base;
  bool isRefCountedExpr() const override { return false; }
  /// Always: a parent's count is never what keeps it.
  bool mayBeHeld() const override { return true; }
  void release() override {}
  /// Ends the object at once, whatever its count.
  void end() override { TavExtractableI::end(); }
};

#endif
