// The expression handles users hold: temporary (TavNumExprArg,
// TavIntExprArg) and counted (TavNumExpr, TavIntExpr, TavExpr) handles on
// nodes, and the term handles a product of a variable and a number makes.
#ifndef TAV_EXPRESSION_HANDLES_H
#define TAV_EXPRESSION_HANDLES_H

#include <ostream>

#include "checks.h"
#include "linear.h"

/// Temporary handle on any numeric node; holds no reference.
class TavNumExprArg {
 public:
  TavNumExprArg(TavNumExprI* impl = nullptr) : _impl(impl) {}
  TavNumExprI* getImpl() const { return _impl; }
  TavEnv getEnv() const;
  /// Ends the node (drops one reference).
  void end();
  /// A linear node with no terms and no parts.
  bool isConstant() const;
  bool isIndex() const;
  /// The constant of a linear expression; NonLinearExpression otherwise.
  double getNumConstant() const;

 protected:
  TavNumExprI* _impl;
};

/// Temporary handle on an integer node.
class TavIntExprArg : public TavNumExprArg {
 public:
  TavIntExprArg(TavIntExprI* impl = nullptr) : TavNumExprArg(impl) {}
  TAV_HANDLE_POINTER TavIntExprI* getImpl() const { return static_cast<TavIntExprI*>(_impl); }
};

class TavNumExprNonLinearExpression;

/// Counted handle on any numeric node.
class TavNumExpr : public TavNumExprArg {
 public:
  /// Thrown when the constant part of a non-linear expression is set or read.
  typedef TavNumExprNonLinearExpression NonLinearExpression;

  TavNumExpr() : TavNumExprArg(nullptr) {}
  /// Stores the node; the count is not touched.
  TavNumExpr(TavNumExprI* impl) : TavNumExprArg(impl) {}
  /// Stores the node and adds one reference.
  TavNumExpr(const TavNumExprArg& arg);
  /// A new linear node with constant c, count 1.
  explicit TavNumExpr(TavEnv env, double c = 0.0);
  TavNumExpr(TavNumLinExprTerm t);
  TavNumExpr(TavIntLinExprTerm t);

  TavNumExpr& operator+=(const TavNumExprArg& arg);
  TavNumExpr& operator-=(const TavNumExprArg& arg);
  TavNumExpr& operator+=(double d);
  TavNumExpr& operator-=(double d);
  TavNumExpr& operator*=(double d);
  TavNumExpr& operator/=(double d);

  TavNumExpr getClone() const;
  TavNumExpr getClone(TavEnv other) const;
  void setClone(TavNumExpr clone) const;
  void setClone(TavNumExpr clone, TavEnv other) const;

  /// Moves this handle's reference from the old node to result.
  void reassign(TavNumExprI* result);
};

/// Counted handle on a numeric linear node, edited in place (copy on write).
class TavExpr : public TavNumExpr {
 public:
  TavExpr() : TavNumExpr() {}
  TavExpr(TavNumLinTermI* impl);
  explicit TavExpr(TavEnv env, double c = 0.0);
  TavExpr(const TavNumExprArg& arg);
  TavExpr(TavNumLinExprTerm t);
  TavExpr(TavIntLinExprTerm t);

  TavNumLinTermI* getImpl() const;

  TavExpr& operator+=(double d);
  TavExpr& operator-=(double d);
  TavExpr& operator*=(double d);
  TavExpr& operator/=(double d);
  TavExpr& operator+=(const TavNumVar& v);
  TavExpr& operator+=(const TavIntVar& v);
  TavExpr& operator-=(const TavNumVar& v);
  TavExpr& operator-=(const TavIntVar& v);
  /// Inline fast path for an unshared node and a term of its environment.
  inline TavExpr& operator+=(TavNumLinExprTerm t);
  TavExpr& operator+=(TavIntLinExprTerm t);
  TavExpr& operator-=(TavNumLinExprTerm t);
  TavExpr& operator-=(TavIntLinExprTerm t);
  TavExpr& operator+=(const TavNumExprArg& a);
  TavExpr& operator-=(const TavNumExprArg& a);

  void clear();
  void setNumConstant(double c);
  void setLinearCoef(const TavNumVar& v, double c);
  void setLinearCoefs(TavNumVarArray vars, TavNumArray coefs);
  void remove(TavNumVarArray vars);
  void remove(TavExtractableArray objects);
  /// True exactly when normalisation merged nothing.
  bool normalize();
  bool isNormalized() const;
  /// A new handle on a copy of the node (count 1).
  TavExpr copy() const;

  /// Walks the term cells as they stand (not normalised).
  class LinearIterator {
   public:
    explicit LinearIterator(TavNumLinExprTermI* cell) : _cell(cell) {}
    bool ok() const { return _cell != nullptr; }
    TavNumVar getVar() const;
    double getCoef() const { return _cell->_coef; }
    LinearIterator& operator++() {
      _cell = _cell->_next;
      return *this;
    }

   private:
    TavNumLinExprTermI* _cell;
  };
  LinearIterator getLinearIterator() const;

  /// Applies f to the node made private to this handle (copy on write). The
  /// copy replaces the shared node only when f succeeds, and f itself changes
  /// nothing when it fails, so a failed edit leaves the model as it was.
  template <class F>
  TavExpr& edit(F f);

 private:
  TavExpr& addTermChecked(TavNumLinExprTerm t);
  void checkEnv(TavEnvI* other, const char* message) const;
};

/// Thrown when the constant part of a non-linear expression is set or read.
class TavNumExprNonLinearExpression : public TavException {
 public:
  explicit TavNumExprNonLinearExpression(TavNumExprI* node);
  TavNumExprI* getExpression() const { return _node; }
  /// "Expression " node " is non linear, ..."
  void print(std::ostream& os) const override;

 private:
  TavNumExprI* _node;
};

/// Counted handle on an integer node.
/// Counted handle on an integer node. It is a TavNumExpr: `TavNumExpr n = k`
/// shares k's reference, as copies of handles do. Integer operators take it
/// as an integer operand (see the forwarding templates of the operators).
class TavIntExpr : public TavNumExpr {
 public:
  TavIntExpr() : TavNumExpr() {}
  TavIntExpr(TavIntExprI* impl);
  explicit TavIntExpr(TavEnv env, TavInt c = 0);
  TavIntExpr(TavIntLinExprTerm t);
  /// Stores the node and adds one reference.
  TavIntExpr(const TavIntExprArg& arg);

  TAV_HANDLE_POINTER TavIntExprI* getImpl() const { return static_cast<TavIntExprI*>(_impl); }
  /// The same node as a temporary handle (no count).
  operator TavIntExprArg() const { return TavIntExprArg(getImpl()); }

  TavIntExpr& operator+=(TavInt c);
  TavIntExpr& operator-=(TavInt c);
  TavIntExpr& operator*=(TavInt c);
  TavIntExpr& operator+=(const TavIntExprArg& a);
  TavIntExpr& operator-=(const TavIntExprArg& a);
};

/// One term cell (variable × number), taken over by the node it goes into.
class TavNumLinExprTerm {
 public:
  explicit TavNumLinExprTerm(TavNumLinExprTermI* cell = nullptr) : _cell(cell) {}
  TavNumLinExprTermI* getImpl() const { return _cell; }
  TavEnv getEnv() const;
  TavNumVar getVar() const;
  double getCoef() const { return _cell->_coef; }
  /// A new linear node (count 0) holding the cell.
  operator TavNumExprArg() const;

 protected:
  TavNumLinExprTermI* _cell;
};

/// One term cell of an integer variable times an integer.
class TavIntLinExprTerm {
 public:
  explicit TavIntLinExprTerm(TavNumLinExprTermI* cell = nullptr) : _cell(cell) {}
  TavNumLinExprTermI* getImpl() const { return _cell; }
  TavEnv getEnv() const;
  TavIntVar getVar() const;
  TavInt getCoef() const { return (TavInt)_cell->_coef; }
  /// A new integer linear node (count 0) holding the cell.
  operator TavIntExprArg() const;
  /// The same cell as a numeric term.
  TavNumLinExprTerm toNum() const { return TavNumLinExprTerm(_cell); }

 private:
  TavNumLinExprTermI* _cell;
};

/// Any expression, variable or constraint handle: its display, "<empty>" for an empty handle.
std::ostream& operator<<(std::ostream& os, const TavNumExprArg& e);

inline TavExpr& TavExpr::operator+=(TavNumLinExprTerm t) {
  TavNumLinExprTermI* cell = t.getImpl();
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(_impl);
  if (TAV_LIKELY(cell && lin && cell->_next == TavFreshCell() && lin->getRefCount() == 1 &&
                 TavVarEnv(cell->_var) == lin->getEnv())) {
    lin->append(cell);
    return *this;
  }
  return addTermChecked(t);
}

template <class F>
TavExpr& TavExpr::edit(F f) {
  TavNumLinTermI* lin = static_cast<TavNumLinTermI*>(tav_detail::need(_impl));
  if (lin->getRefCount() <= 1) {
    f(lin);
    return *this;
  }
  TavNumLinTermI* copy = static_cast<TavNumLinTermI*>(lin->copy());
  try {
    f(copy);
  } catch (...) {
    copy->end();  // held by nothing yet
    throw;
  }
  lin->unlockRef();
  copy->lockRef();
  _impl = copy;
  return *this;
}

#endif
