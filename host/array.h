// Segmented arrays (block table, block shift, index mask) and their handles:
// value arrays of numbers, arrays of model objects, ranges and columns.
#ifndef TAV_HOST_ARRAY_H
#define TAV_HOST_ARRAY_H

#include <initializer_list>
#include <iterator>
#include <ostream>
#include <type_traits>
#include <utility>
#include <vector>

#include "base.h"
#include "object.h"

class TavExtractableI;

/// One element: every array holds 8-byte numbers or pointers.
union TavArraySlot {
  double num;
  TavInt integer;
  TavExtractableI* obj;
  void* ptr;
};

/// The storage behind every array handle. Element i lives at
/// blockTable[i >> blockShift][i & indexMask]; indexing checks no bounds.
/// An array made with a size, or as a copy, holds exactly that many slots:
/// its last block is short until the array grows past it.
class TavArrayI : public TavMemoryManagerObjectI {
 public:
  /// n zeroed elements; blockShift < 0 picks one from n.
  TavArrayI(TavEnvI* env, TavInt n = 0, int blockShift = -1);
  /// A copy of src, in src's memory.
  explicit TavArrayI(const TavArrayI* src);
  ~TavArrayI();
  TavArrayI(const TavArrayI&) = delete;
  TavArrayI& operator=(const TavArrayI&) = delete;

  TavEnvI* getEnv() const { return _env; }
  TavInt getSize() const { return _size; }
  TavInt getIndexMask() const { return _mask; }
  TavInt getBlockShift() const { return _shift; }
  TavArraySlot& at(TavInt i) const { return _blocks[i >> _shift][i & _mask]; }

  void add(TavArraySlot v) {
    if (TAV_UNLIKELY(_size == _capacity)) grow();
    at(_size++) = v;
  }
  void addArray(const TavArrayI* other);
  /// Removes count elements from first on; later elements move down.
  void remove(TavInt first, TavInt count = 1);
  void clear() { _size = 0; }
  /// Destroys the array and returns its memory.
  void end();

 private:
  void grow();
  /// Blocks for exactly n slots in an array that has none.
  void reserveExact(TavInt n);
  void freeBlocks();
  TavEnvI* _env;
  TavInt _blockCount;
  TavInt _tableCapacity;
  TavInt _capacity;  // slots in the blocks
  TavInt _size;
  TavInt _mask;
  TavInt _shift;
  TavArraySlot** _blocks;
};

/// Throws TavArrayError for an index outside [0, size).
[[noreturn]] void TavThrowOutOfRange(TavInt i, TavInt size);

/// Whether It is an iterator whose elements convert to T.
template <class It, class T>
using TavIfIteratorOf =
    std::enable_if_t<std::is_convertible<typename std::iterator_traits<It>::reference, T>::value, int>;

/// What every array handle shares: one pointer to its storage.
class TavArrayBase {
 public:
  TavArrayBase(TavArrayI* impl = nullptr) : _impl(impl) {}
  TavArrayI* getImpl() const { return _impl; }
  /// The array's environment; empty for an empty handle or an ended environment.
  TavEnv getEnv() const { return TavEnv(_impl ? TavMemory::EnvOf(_impl) : nullptr); }
  TavInt getSize() const { return TavNeed(_impl)->getSize(); }
  void remove(TavInt first, TavInt count = 1) { live()->remove(first, count); }
  void clear() { live()->clear(); }
  /// Frees the array (not its elements); nothing for an ended environment,
  /// which freed it already.
  void end() {
    TavEndLive(_impl);
    _impl = nullptr;
  }

 protected:
  static TavArrayI* Make(TavEnv env, TavInt n);
  /// A new array of env with put(slot, e) done for every e of [first, last)
  /// in order, sized once when the range can be counted. When put or an
  /// allocation throws, the array goes again: nothing is left behind.
  template <class It, class Put>
  static TavArrayI* MakeFrom(TavEnv env, It first, It last, Put put);
  /// The end of n elements from p; TavWrongUsage for a negative count or a
  /// null pointer with a positive one.
  template <class T>
  static const T* EndOf(const T* p, TavInt n) {
    CheckCount(p != nullptr, n);
    return n > 0 ? p + n : p;
  }
  static void CheckCount(bool hasData, TavInt n);
  /// The storage, refused when the handle is empty or its environment has ended.
  TavArrayI* live() const { return TavLive(_impl); }
  /// Element i of a handle: refused when the handle is empty, and outside
  /// [0, size) with TavArrayError (the storage itself does not check).
  TavArraySlot& slot(TavInt i) const {
    TavArrayI* a = TavNeed(_impl);
    if (TAV_UNLIKELY((unsigned long)i >= (unsigned long)a->getSize())) TavThrowOutOfRange(i, a->getSize());
    return a->at(i);
  }
  TavArrayI* _impl;
};

template <class It, class Put>
TavArrayI* TavArrayBase::MakeFrom(TavEnv env, It first, It last, Put put) {
  constexpr bool counted = std::is_base_of<std::forward_iterator_tag,
                                           typename std::iterator_traits<It>::iterator_category>::value;
  TavArrayI* a;
  if constexpr (counted) a = Make(env, (TavInt)std::distance(first, last));
  else a = Make(env, 0);
  try {
    if constexpr (counted) {
      for (TavInt i = 0; first != last; ++first, ++i) put(a->at(i), *first);
    } else {
      for (; first != last; ++first) {
        TavArraySlot s;
        put(s, *first);
        a->add(s);
      }
    }
  } catch (...) {
    a->end();
    throw;
  }
  return a;
}

/// Maps an element type to its slot member.
template <class T>
struct TavSlotOf;
/// Numbers are held in the slot's num member.
template <>
struct TavSlotOf<double> {
  static double& get(TavArraySlot& s) { return s.num; }
};
/// Integers are held in the slot's integer member.
template <>
struct TavSlotOf<TavInt> {
  static TavInt& get(TavArraySlot& s) { return s.integer; }
};

/// Arrays of numbers (TavNumArray, TavIntArray).
template <class T>
class TavValueArray : public TavArrayBase {
 public:
  TavValueArray(TavArrayI* impl = nullptr) : TavArrayBase(impl) {}
  /// n zeros in env.
  explicit TavValueArray(TavEnv env, TavInt n = 0) : TavArrayBase(Make(env, n)) {}
  TavValueArray(TavEnv env, std::initializer_list<T> values) : TavArrayBase(Make(env, 0)) {
    try {
      for (T v : values) add(v);
    } catch (...) {
      _impl->end();
      throw;
    }
  }
  /// The values of [first, last), converted to T, in env.
  template <class It, TavIfIteratorOf<It, T> = 0>
  TavValueArray(TavEnv env, It first, It last)
      : TavArrayBase(MakeFrom(env, first, last, [](TavArraySlot& s, const auto& v) { TavSlotOf<T>::get(s) = T(v); })) {}
  /// The n values from values, in env.
  TavValueArray(TavEnv env, const T* values, TavInt n) : TavValueArray(env, values, EndOf(values, n)) {}
  /// The vector's values, converted to T, in env.
  template <class U, class A, class = std::enable_if_t<std::is_convertible<const U&, T>::value>>
  TavValueArray(TavEnv env, const std::vector<U, A>& values) : TavValueArray(env, values.begin(), values.end()) {}
  T& operator[](TavInt i) const { return TavSlotOf<T>::get(slot(i)); }
  /// Element access by an index that is not a number (an integer
  /// expression): the layer that defines the index type supplies
  /// TavElementOf(array, index), found through the index's type, so the
  /// arrays need not know any node.
  template <class Index, class = std::enable_if_t<!std::is_arithmetic<Index>::value>>
  auto operator[](const Index& index) const -> decltype(TavElementOf(std::declval<const TavValueArray&>(), index)) {
    return TavElementOf(*this, index);
  }
  void add(T v) {
    TavArraySlot s;
    TavSlotOf<T>::get(s) = v;
    live()->add(s);
  }
  void add(TavValueArray other) { live()->addArray(TavLive(other._impl)); }
};

class TavNumArray : public TavValueArray<double> {
 public:
  using TavValueArray<double>::TavValueArray;
};

/// An array of 64-bit integers.
class TavIntArray : public TavValueArray<TavInt> {
 public:
  using TavValueArray<TavInt>::TavValueArray;
  /// The same values as doubles, in a new array of the same environment.
  TavNumArray toNumArray() const;
};

/// Stores a handle's object in a slot of an array of model objects.
template <class H>
void TavStoreElement(TavArraySlot& slot, const H& h) {
  slot.obj = h.getImpl();
}

/// What operator[] of an array of handles returns: the element handle H
/// itself, so every handle operation and conversion applies, whose
/// assignment also stores the new object in the array.
template <class H>
class TavArrayElement : public H {
 public:
  TavArrayElement(const H& h, TavArraySlot& slot) : H(h), _slot(&slot) {}
  TavArrayElement(const TavArrayElement&) = default;
  TavArrayElement& operator=(const H& h) {
    H::operator=(h);
    TavStoreElement(*_slot, h);
    return *this;
  }
  TavArrayElement& operator=(const TavArrayElement& e) { return *this = static_cast<const H&>(e); }

 private:
  TavArraySlot* _slot;
};

/// Handle over one model object.
class TavExtractable {
 public:
  TavExtractable(TavExtractableI* impl = nullptr) : _impl(impl) {}
  TavExtractableI* getImpl() const { return _impl; }
  TavEnv getEnv() const;
  TavInt getId() const;
  const char* getName() const;
  void setName(const char* name) const;
  void end();

 private:
  TavExtractableI* _impl;
};

/// Arrays of model objects; elements may be null.
class TavExtractableArray : public TavArrayBase {
 public:
  TavExtractableArray(TavArrayI* impl = nullptr) : TavArrayBase(impl) {}
  explicit TavExtractableArray(TavEnv env, TavInt n = 0) : TavArrayBase(Make(env, n)) {}
  TavArrayElement<TavExtractable> operator[](TavInt i) const {
    TavArraySlot& s = slot(i);
    return TavArrayElement<TavExtractable>(TavExtractable(s.obj), s);
  }
  void add(TavExtractable e) { addObject(e.getImpl()); }
  void add(TavExtractableArray other) { live()->addArray(TavLive(other._impl)); }
  void addArray(TavExtractableArray other) { live()->addArray(TavLive(other._impl)); }
  TavExtractableI* getObject(TavInt i) const { return slot(i).obj; }
  void setObject(TavInt i, TavExtractableI* obj) const { slot(i).obj = obj; }
  void addObject(TavExtractableI* obj) {
    TavArraySlot s;
    s.obj = obj;
    live()->add(s);
  }
  /// Ends every non-null element.
  void endElements();
  /// Drops the elements that the environment reports removed.
  void removeMarked();
  /// Points this handle at a new array of env holding each element's clone.
  void replaceByClone(TavEnvI* env);
};

/// An interval of T, used to create variables over it.
template <class T>
class TavRangeI : public TavMemoryManagerObjectI {
 public:
  TavRangeI(TavEnvI* env, T lb, T ub) : _env(env), _lb(lb), _ub(ub) {}
  TavEnvI* getEnv() const { return _env; }
  T getLB() const { return _lb; }
  T getUB() const { return _ub; }

 private:
  TavEnvI* _env;
  T _lb, _ub;
};

class TavNumRangeI : public TavRangeI<double> {
 public:
  using TavRangeI::TavRangeI;
};

class TavIntRangeI : public TavRangeI<TavInt> {
 public:
  using TavRangeI::TavRangeI;
};

/// Handle over an interval of T (implementation Impl).
template <class Impl, class T>
class TavRangeHandle {
 public:
  TavRangeHandle(Impl* impl = nullptr) : _impl(impl) {}
  TavRangeHandle(TavEnv env, T lb, T ub) : _impl(new (TavNeed(env.getImpl())) Impl(env.getImpl(), lb, ub)) {}
  Impl* getImpl() const { return _impl; }
  TavEnv getEnv() const { return TavEnv(TavNeed(_impl)->getEnv()); }
  /// Frees the interval.
  void end() {
    delete _impl;
    _impl = nullptr;
  }

 private:
  Impl* _impl;
};

class TavNumRange : public TavRangeHandle<TavNumRangeI, double> {
 public:
  using TavRangeHandle::TavRangeHandle;
};

class TavIntRange : public TavRangeHandle<TavIntRangeI, TavInt> {
 public:
  using TavRangeHandle::TavRangeHandle;
};

/// What a column-wise variable is installed into.
class TavAddExtractableI : public TavMemoryManagerObjectI {
 public:
  explicit TavAddExtractableI(TavEnvI* env);
  virtual ~TavAddExtractableI();
  TavEnvI* getEnv() const { return _env; }
  virtual void install(TavExtractableI* obj);
  TavExtractableArray getInstalled() const { return _installed; }

 private:
  TavEnvI* _env;
  TavExtractableArray _installed;
};

/// Handle base of columns: the environment and the install operation.
class TavAddNumVar {
 public:
  TavAddNumVar(TavAddExtractableI* impl = nullptr) : _impl(impl) {}
  TavAddExtractableI* getImpl() const { return _impl; }
  TavEnv getEnv() const { return TavEnv(_impl->getEnv()); }
  bool isEmpty() const { return _impl == nullptr; }
  /// Records a variable created from this column.
  void install(TavExtractableI* obj) const { _impl->install(obj); }

 protected:
  TavAddExtractableI* _impl;
};

/// A column that records every variable installed into it.
class TavNumColumn : public TavAddNumVar {
 public:
  TavNumColumn() : TavAddNumVar(nullptr) {}
  TavNumColumn(TavAddExtractableI* impl) : TavAddNumVar(impl) {}
  explicit TavNumColumn(TavEnv env);
  TavInt getSize() const { return _impl ? _impl->getInstalled().getSize() : 0; }
  /// The i-th installed object; the column's record is not assignable.
  const TavExtractable operator[](TavInt i) const { return _impl->getInstalled()[i]; }
  void end();
};

/// Stores a column in an array slot (the element builder of column arrays).
inline void TavStoreElement(TavArraySlot& slot, const TavNumColumn& c) { slot.ptr = c.getImpl(); }

/// An array of columns, from which arrays of variables are made column-wise.
class TavNumColumnArray : public TavArrayBase {
 public:
  TavNumColumnArray(TavArrayI* impl = nullptr) : TavArrayBase(impl) {}
  explicit TavNumColumnArray(TavEnv env, TavInt n = 0) : TavArrayBase(Make(env, n)) {}
  TavArrayElement<TavNumColumn> operator[](TavInt i) const {
    TavArraySlot& s = _impl->at(i);
    return TavArrayElement<TavNumColumn>(TavNumColumn(static_cast<TavAddExtractableI*>(s.ptr)), s);
  }
  void add(TavNumColumn c) {
    TavArraySlot s;
    s.ptr = c.getImpl();
    _impl->add(s);
  }
};

/// "[" elements "]", separated by ", " with a line break for the blank after
/// every tenth element; "<empty>" for an empty handle.
template <class Array, class PrintElement>
std::ostream& TavPrintArray(std::ostream& os, const Array& a, PrintElement print) {
  if (a.getImpl() == nullptr) return os << "<empty>";
  os << "[";
  const TavInt n = a.getSize();
  for (TavInt i = 0; i < n; ++i) {
    if (i > 0) os << (i % 10 == 0 ? ",\n" : ", ");
    print(os, a[i]);
  }
  return os << "]";
}

/// Writes obj's display, or "<empty>" for none: how every handle prints.
std::ostream& TavPrintObject(std::ostream& os, const TavExtractableI* obj);

/// An empty handle prints "<empty>", any other its object's display or its
/// elements in brackets.
///@{
std::ostream& operator<<(std::ostream& os, const TavExtractable& e);
std::ostream& operator<<(std::ostream& os, const TavNumArray& a);
std::ostream& operator<<(std::ostream& os, const TavIntArray& a);
std::ostream& operator<<(std::ostream& os, const TavExtractableArray& a);
///@}

#endif
