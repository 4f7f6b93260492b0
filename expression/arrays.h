// Arrays of variables and expressions: handles over the extractable array
// whose elements are the implementation objects (possibly null).
#ifndef TAV_EXPRESSION_ARRAYS_H
#define TAV_EXPRESSION_ARRAYS_H

#include <iterator>
#include <type_traits>
#include <vector>

#include "variables.h"

/// The fixed message of an element-list constructor given k elements:
/// Texts[k] is Prefix followed by k (written out, not formatted).
#define TAV_LIST_MESSAGES(Prefix)                                                                  \
  {                                                                                                \
    nullptr, Prefix "1", Prefix "2", Prefix "3", Prefix "4", Prefix "5", Prefix "6", Prefix "7",   \
        Prefix "8", Prefix "9", Prefix "10"                                                        \
  }

/// Whether every E is an element handle H (1 to 10 of them).
template <class H, class... E>
constexpr bool TavIsElementList() {
  return sizeof...(E) >= 1 && sizeof...(E) <= 10 && (std::is_convertible<const E&, H>::value && ...);
}

/// Whether an array of handles H can take an E as an element: E converts to
/// H without making a node (a term, or anything but a linear expression
/// going into an array of linear expressions, would make one).
template <class H, class E>
constexpr bool TavIsElementOf() {
  return std::is_convertible<const E&, H>::value && !std::is_same<E, TavNumLinExprTerm>::value &&
         !std::is_same<E, TavIntLinExprTerm>::value &&
         (!std::is_base_of<TavNumExpr, H>::value || std::is_base_of<H, E>::value);
}

/// An extractable array whose elements read back as handles H over I.
template <class H, class I>
class TavHandleArray : public TavExtractableArray {
 public:
  TavHandleArray(TavArrayI* impl = nullptr) : TavExtractableArray(impl) {}
  /// n null elements.
  explicit TavHandleArray(TavEnv env, TavInt n = 0) : TavExtractableArray(env, n) {}
  /// The handles of [first, last) in env, as add would store them one by one.
  template <class It, class = std::enable_if_t<TavIsElementOf<H, typename std::iterator_traits<It>::value_type>()>>
  TavHandleArray(TavEnv env, It first, It last)
      : TavExtractableArray(MakeFrom(env, first, last, [](TavArraySlot& s, const auto& e) {
          const H h = e;
          TavStoreElement(s, h);
        })) {}
  /// The n handles from handles, in env.
  TavHandleArray(TavEnv env, const H* handles, TavInt n) : TavHandleArray(env, handles, EndOf(handles, n)) {}
  /// The vector's handles, in env.
  template <class E, class A, class = std::enable_if_t<TavIsElementOf<H, E>()>>
  TavHandleArray(TavEnv env, const std::vector<E, A>& handles) : TavHandleArray(env, handles.begin(), handles.end()) {}
  /// Element i; assigning to it stores the new element in the array.
  TavArrayElement<H> operator[](TavInt i) const {
    TavArraySlot& s = slot(i);
    return TavArrayElement<H>(H(static_cast<I*>(s.obj)), s);
  }
  I* getElement(TavInt i) const { return static_cast<I*>(slot(i).obj); }
  void add(const H& h) { addObject(h.getImpl()); }
  void add(const TavHandleArray& other) { TavExtractableArray::add(other); }

 protected:
  /// An array of env holding e1 ... ek when n == k; else TavWrongUsage with
  /// the family's message for k.
  template <class... E>
  static TavArrayI* FromList(const char* const* messages, TavEnv env, TavInt n, const E&... es) {
    constexpr TavInt k = (TavInt)sizeof...(E);
    if (n != k) throw TavWrongUsage(messages[k], 0);
    TavHandleArray a(env, 0);
    try {
      (a.addObject(H(es).getImpl()), ...);
    } catch (...) {
      a.end();  // a failed growth leaves no array behind
      throw;
    }
    return a.getImpl();
  }
};

/// An array of numeric expressions (elements may be empty).
class TavNumExprArray : public TavHandleArray<TavNumExprArg, TavNumExprI> {
 public:
  using TavHandleArray::TavHandleArray;
  using TavHandleArray::operator[];
  /// The element at an integer expression's value (element.h).
  TavNumExprArg operator[](const TavIntExprArg& index) const;
  /// Adds one reference to every non-null element.
  void lockExprs() const;
  /// Releases one reference of every non-null element.
  void releaseExprs() const;
  /// Ends every element (none may be null).
  void endElements() const;
  /// Points this handle at an array of env holding each element's clone.
  void replaceByClone(TavEnvI* env);
};

/// An array of integer expressions (elements may be empty).
class TavIntExprArray : public TavHandleArray<TavIntExprArg, TavIntExprI> {
 public:
  using TavHandleArray::TavHandleArray;
  using TavHandleArray::operator[];
  /// The element at an integer expression's value (element.h).
  TavIntExprArg operator[](const TavIntExprArg& index) const;
  void lockExprs() const;
  void releaseExprs() const;
  void endElements() const;
  void replaceByClone(TavEnvI* env);
  TavIntExprArray getClone(TavEnvI* env) const;
};

/// An array of linear expressions; element i reads back as a TavExpr. It
/// is an array of numeric expressions too, over the same storage.
class TavExprArray : public TavHandleArray<TavExpr, TavNumLinTermI> {
 public:
  using TavHandleArray::TavHandleArray;
  using TavHandleArray::add;
  /// e (an expression, variable or term) as a linear expression: TavExpr's
  /// conversion, which holds one reference on the result. The slot is taken
  /// first, so nothing is converted, and nothing held, when the array
  /// cannot grow.
  template <class E, std::enable_if_t<std::is_convertible<const E&, TavExpr>::value &&
                                          !std::is_base_of<TavExpr, E>::value, int> = 0>
  void add(const E& e) {
    addObject(nullptr);
    const TavInt last = getSize() - 1;
    try {
      setObject(last, TavExpr(e).getImpl());
    } catch (...) {
      remove(last);
      throw;
    }
  }
  using TavHandleArray::operator[];
  /// The element at an integer expression's value (element.h).
  TavNumExprArg operator[](const TavIntExprArg& index) const;
  /// The same storage as an array of numeric expressions.
  operator TavNumExprArray() const { return TavNumExprArray(_impl); }
};

class TavIntVarArray;

/// Variables created in bulk get no name and follow rule B (type first).
class TavNumVarArray : public TavHandleArray<TavNumVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  static const char* const ListMessages[11];
  /// n new variables with bounds (lb, ub); n <= 0 gives an empty array.
  TavNumVarArray(TavEnv env, TavInt n, double lb, double ub, TavNumVar::Type type = TavNumVar::Float);
  TavNumVarArray(TavEnv env, TavNumArray lbs, TavNumArray ubs, TavNumVar::Type type = TavNumVar::Float);
  TavNumVarArray(TavEnv env, double lb, TavNumArray ubs, TavNumVar::Type type = TavNumVar::Float);
  TavNumVarArray(TavEnv env, TavNumArray lbs, double ub, TavNumVar::Type type = TavNumVar::Float);
  /// One variable per column, installed into it; null for an empty column.
  TavNumVarArray(TavEnv env, TavNumColumnArray cols, TavNumVar::Type type = TavNumVar::Float);
  TavNumVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray lbs, TavNumArray ubs,
                 TavNumVar::Type type = TavNumVar::Float);
  /// The listed variables, when n equals their count.
  template <class... E, class = std::enable_if_t<TavIsElementList<TavNumVar, E...>()>>
  TavNumVarArray(TavEnv env, TavInt n, const E&... es) : TavHandleArray(FromList(ListMessages, env, n, es...)) {}

  using TavHandleArray::operator[];
  /// The element at an integer expression's value (element.h).
  TavNumExprArg operator[](const TavIntExprArg& index) const;

  /// New bounds for every variable, announced by one array record.
  void setBounds(TavNumArray lbs, TavNumArray ubs) const;
  TavNumExprArray toNumExprArray() const;
  /// TavBadConversion if any element is continuous.
  TavIntExprArray toIntExprArray() const;
  TavIntVarArray toIntVarArray() const;
  TavNumVarArray getClone(TavEnvI* env) const;
};

/// Integer variables created in bulk follow rule A with type Int.
class TavIntVarArray : public TavHandleArray<TavIntVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  static const char* const ListMessages[11];
  TavIntVarArray(TavEnv env, TavInt n, TavInt lb, TavInt ub);
  TavIntVarArray(TavEnv env, TavIntArray lbs, TavIntArray ubs);
  TavIntVarArray(TavEnv env, TavInt lb, TavIntArray ubs);
  TavIntVarArray(TavEnv env, TavIntArray lbs, TavInt ub);
  TavIntVarArray(TavEnv env, TavNumColumnArray cols);
  TavIntVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray lbs, TavNumArray ubs);
  template <class... E, class = std::enable_if_t<TavIsElementList<TavIntVar, E...>()>>
  TavIntVarArray(TavEnv env, TavInt n, const E&... es) : TavHandleArray(FromList(ListMessages, env, n, es...)) {}

  using TavHandleArray::operator[];
  /// The element at an integer expression's value (element.h).
  TavIntExprArg operator[](const TavIntExprArg& index) const;

  TavIntExprArray toIntExprArray() const;
  TavNumVarArray toNumVarArray() const;
  TavIntVarArray getClone(TavEnvI* env) const;
};

/// An array of Boolean variables.
class TavBoolVarArray : public TavHandleArray<TavBoolVar, TavNumVarI> {
 public:
  using TavHandleArray::TavHandleArray;
  static const char* const ListMessages[11];
  /// One 0-1 variable per non-empty column; null for an empty column.
  TavBoolVarArray(TavEnv env, TavNumColumnArray cols);
  /// Shares a's storage, then checks that every element may be Boolean.
  TavBoolVarArray(const TavIntVarArray& a);
  template <class... E, class = std::enable_if_t<TavIsElementList<TavBoolVar, E...>()>>
  TavBoolVarArray(TavEnv env, TavInt n, const E&... es) : TavHandleArray(FromList(ListMessages, env, n, es...)) {}

  TavBoolVarArray getClone(TavEnvI* env) const;
};


/// New bounds of a whole array of variables.
class TavSetNumVarArrayBounds : public TavChangeNode<TavSetNumVarArrayBounds> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "TavSetNumVarArrayBounds";
  TavSetNumVarArrayBounds(TavArrayI* vars, TavArrayI* lbs, TavArrayI* ubs) : _vars(vars), _lbs(lbs), _ubs(ubs) {}
  TavNumVarArray getVars() const { return TavNumVarArray(_vars); }
  TavNumArray getLBs() const { return TavNumArray(_lbs); }
  TavNumArray getUBs() const { return TavNumArray(_ubs); }

 private:
  TavArrayI* _vars;
  TavArrayI* _lbs;
  TavArrayI* _ubs;
};

namespace tav_detail {
/// Bounds are read for every index below n: each bounds array must be at
/// least that long, checked before anything is made.
template <class... A>
void needLength(TavInt n, const char* message, const A&... bounds) {
  if (((bounds.getSize() < n) || ...)) throw TavWrongUsage(message, 0);
}

/// Takes var out of the column's record again when the record ends with it,
/// so that a failed array leaves no column naming a destroyed variable.
void uninstall(TavAddExtractableI* column, TavExtractableI* var);

/// An array of env filled with make(i) for i in [0, n) (null allowed). Its
/// slots are taken at once, so that a large array gets large blocks (an
/// array grown one element at a time keeps the small blocks it started
/// with). When one creation fails, the variables made so far are ended, the
/// last first, each after undo(i, var).
template <class Array, class Make, class Undo>
TavArrayI* buildArray(TavEnvI* env, TavInt n, Make make, Undo undo) {
  Array a(TavExtractableArray(TavEnv(env), n).getImpl());
  TavInt made = 0;
  try {
    for (; made < n; ++made) a.setObject(made, make(made));
  } catch (...) {
    for (TavInt i = made - 1; i >= 0; --i)
      if (auto* v = a.getElement(i)) undo(i, v), v->end();
    a.end();
    throw;
  }
  return a.getImpl();
}
template <class Array, class Make>
TavArrayI* buildArray(TavEnvI* env, TavInt n, Make make) {
  return buildArray<Array>(env, n, make, [](TavInt, TavExtractableI*) {});
}

/// Per column: null for an empty one, else make(column, i), which installs
/// the variable into the column; a failure takes the variables made so far
/// out of their columns again.
template <class Array, class Make>
TavArrayI* fromColumns(TavEnvI* env, TavNumColumnArray cols, Make make) {
  needAll(cols);
  return buildArray<Array>(
      env, cols.getSize(),
      [&](TavInt i) -> decltype(make(TavNumColumn(), i)) {
        TavNumColumn c = cols[i];
        return c.isEmpty() ? nullptr : make(c, i);
      },
      [&](TavInt i, TavExtractableI* v) { uninstall(cols[i].getImpl(), v); });
}
}  // namespace tav_detail

#endif
