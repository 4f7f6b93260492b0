// Numeric and integer expression bases, the linear nodes (a term list, a
// constant and a list of non-linear parts), their change records and the
// number-to-text conversion.
#ifndef TAV_EXPRESSION_LINEAR_H
#define TAV_EXPRESSION_LINEAR_H

#include <cstdint>
#include <ostream>

#include "protocol.h"

class TavNumLinTermI;
class TavIntLinTermI;
class TavIntExprI;
class TavNumVarI;
class TavNumVar;
class TavIntVar;
class TavNumVarArray;
class TavNumLinExprTerm;
class TavIntLinExprTerm;

/// Base of every numeric node: adds the reference count.
class TavNumExprI : public TavNode<TavNumExprI, TavExtractableI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavNumExprI";
  explicit TavNumExprI(TavEnvI* env, const char* name = nullptr) : TavNode(env, name) {}

  void visitSubExtractables(TavExtractableVisitor* visitor) override = 0;
  bool isRefCountedExpr() const override { return true; }
  /// Parents hold a node with one reference each: at zero nothing holds it.
  /// Variables are not counted and stay held.
  bool mayBeHeld() const override { return _refCount > 0 || !isRefCountedExpr(); }
  /// Drops one reference; at zero the node goes to the interceptor or is destroyed.
  void end() override;
  /// The node itself; linear nodes return a real copy.
  virtual TavNumExprI* copy() { return this; }
  /// end(), unless the environment is ending.
  virtual void release();
  /// A new linear node holding this one as its only non-linear part.
  virtual TavNumLinTermI* toNumLinTermI();
  virtual bool isInteger() const { return false; }
  virtual double eval(TavAlgorithm alg) const = 0;
  virtual double getNumConstant() const { return 0.0; }

  TavInt getRefCount() const { return _refCount; }
  /// Adds one reference.
  void lockRef() { ++_refCount; }
  /// Subtracts one reference without ending the node.
  void unlockRef() { --_refCount; }

  /// The linear node class of a node (None for every other class), which the
  /// operators that extend a temporary in place read without a virtual call.
  enum class LinKind : std::int32_t { None, Num, Int };
  LinKind getLinKind() const { return _linKind; }

 protected:
  // 32 bits: every reference is held by a parent or a part cell of 16 bytes
  // or more, so 2^31 of them would take 32 GiB. The kind shares the word.
  std::int32_t _refCount = 0;
  LinKind _linKind = LinKind::None;
};

/// Base of integer nodes (and of variables).
class TavIntExprI : public TavNode<TavIntExprI, TavNumExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavIntExprI";
  using TavNode::TavNode;
  TavNumExprI* copy() override;
  bool isInteger() const override { return true; }
  virtual TavIntExprI* intCopy() { return this; }
  /// A new integer linear node holding this one as its only part.
  virtual TavIntLinTermI* toIntLinTermI();
};

/// Throws TavWrongUsage for a term already taken by an expression (a term is used once).
[[noreturn]] void TavThrowUsedTerm();

/// A term handle's cell, checked before an expression takes it:
/// TavEmptyHandleException for none, TavWrongUsage when an expression
/// already holds it (one cell must never be linked into two places).
inline TavNumLinExprTermI* TavTakeCell(TavNumLinExprTermI* c) {
  if (TAV_UNLIKELY(c == nullptr)) throw TavEmptyHandleException();
  if (TAV_UNLIKELY(c->_next != TavFreshCell())) TavThrowUsedTerm();
  return c;
}

/// A non-linear summand of a linear node: the node (one reference) and the next cell.
struct TavNumLinPartI {
  TavNumExprI* _expr;
  TavNumLinPartI* _next;
};

/// What the numeric and integer linear nodes share: the term list, the
/// constant and the part list, in that field order, and every operation on
/// them that does not depend on the constant's type.
template <class Self, class Base, class Constant>
class TavLinNode : public TavNode<Self, Base> {
 public:
  TavLinNode(TavEnvI* env, Constant constant) : TavNode<Self, Base>(env, nullptr), _constant(constant) {
    this->_linKind = Self::OwnLinKind;
  }
  explicit TavLinNode(TavNumLinExprTermI* cell);
  ~TavLinNode() override { dropAll(); }

  /// Writes one term in the plain form; false (nothing written) for a zero coefficient.
  virtual bool displayTerm(std::ostream& os, TavNumLinExprTermI* term) const;

  TavNumLinExprTermI* getFirstTerm() const { return _first; }
  TavNumLinExprTermI* getLastTerm() const { return _last; }
  TavNumLinPartI* getFirstPart() const { return _firstPart; }
  Constant getConstant() const { return _constant; }
  void setConstant(Constant c) { _constant = c; }
  bool hasParts() const { return _firstPart != nullptr; }
  /// No terms and no parts: the node is its constant.
  bool isConstantNode() const { return _first == nullptr && _firstPart == nullptr; }

  /// Adds a cell at the tail (a null tail means an empty list).
  void append(TavNumLinExprTermI* cell) {
    cell->_next = nullptr;
    if (_last) _last->_next = cell;
    else _first = cell;
    _last = cell;
    this->self()->termsChanged();
  }
  /// Adds the cells first .. last, already linked (last->_next null), at the tail.
  void appendChain(TavNumLinExprTermI* first, TavNumLinExprTermI* last) {
    if (_last) _last->_next = first;
    else _first = first;
    _last = last;
    this->self()->termsChanged();
  }
  /// Adds a cell at the head (it is also the tail when the tail is null).
  void prepend(TavNumLinExprTermI* cell);
  /// Files e as a non-linear part, with one more reference.
  void appendPart(TavNumExprI* e) { linkPart(newPart(), e); }
  /// Memory for one part cell: what appendPart allocates, taken ahead by
  /// operations that must not fail once they started changing the node.
  TavNumLinPartI* newPart() const {
    return static_cast<TavNumLinPartI*>(this->getEnv()->alloc(sizeof(TavNumLinPartI)));
  }
  /// Files e as a non-linear part in a cell from newPart(); cannot fail.
  void linkPart(TavNumLinPartI* part, TavNumExprI* e);
  /// Files the node make() returns as a part. The cell is taken first, so
  /// that a node make() builds (or consumes) always has somewhere to go; if
  /// make() fails the cell goes back and the node is as it was.
  template <class Make>
  void appendMadePart(Make make) {
    TavNumLinPartI* part = newPart();
    TavNumExprI* e;
    try {
      e = make();
    } catch (...) {
      this->getEnv()->free(part);
      throw;
    }
    linkPart(part, e);
  }
  /// Takes over other's terms, parts and constant, then ends other.
  void appendNode(Self* other);
  /// Drops every part and term; constant 0.
  void clear() {
    dropAll();
    this->self()->termsChanged();
  }
  /// Drops the first term of v; no change record.
  void remove(TavNumVarI* v);
  /// Drops the parts and terms of every object of the array.
  void remove(TavExtractableArray objects);
  /// Drops every part and term whose object the environment reports removed.
  void removeMarked();

  double eval(TavAlgorithm alg) const override;
  void display(std::ostream& os) const override;
  void visitSubExtractables(TavExtractableVisitor* visitor) override;
  void atRemove(TavExtractableI* removed, void* data) override;
  TavExtractableI* makeClone(TavEnvI* env) const override;

  /// Appends a copy of every term and part of this node to target.
  template <class Target>
  Target* copyInto(Target* target) const;

 protected:
  Self* self() { return static_cast<Self*>(this); }
  const Self* self() const { return static_cast<const Self*>(this); }
  void termsChanged() {}
  /// clear() without the notice to Self, which the destructor cannot reach.
  void dropAll();
  void dropPart(TavNumLinPartI* prev, TavNumLinPartI* part);
  /// Drops up to `left` removed parts and terms; clearTails empties a tail
  /// pointer whose cell goes instead of moving it back.
  void sweepRemoved(TavInt left, bool clearTails);

  TavNumLinExprTermI* _first = nullptr;
  TavNumLinExprTermI* _last = nullptr;
  Constant _constant;
  TavNumLinPartI* _firstPart = nullptr;
  TavNumLinPartI* _lastPart = nullptr;
};

/// Hands a record's variable to a change visitor (the variable class is not
/// complete here).
void TavVisitRecordVar(TavExtractableI* extractable, TavNumVarI* var, TavChangeVisitor* visitor);

/// A change record naming a linear node and one of its variables; the
/// variable is the record's sub-extractable.
template <class Self, class Node>
class TavLinRecord : public TavChangeNode<Self> {
 public:
  TavLinRecord(Node* expr, TavNumVarI* var) : TavChangeNode<Self>(expr), _expr(expr), _var(var) {}
  Node* getExpr() const { return _expr; }
  TavNumVarI* getVar() const { return _var; }
  void visitChange(TavEnvI*, TavExtractableI* extractable, TavChangeVisitor* visitor) const override {
    TavVisitRecordVar(extractable, _var, visitor);
  }

 private:
  Node* _expr;
  TavNumVarI* _var;
};

#define TAV_LIN_RECORD(Record, Node)                             \
  class Record final : public TavLinRecord<Record, Node> {       \
    TAV_CHANGE_STATICS                                           \
   public:                                                       \
    static constexpr const char* RttiName = #Record;             \
    using TavLinRecord::TavLinRecord;                            \
  };
/// Sent when an absent variable gets a non-zero coefficient.
TAV_LIN_RECORD(TavNumLinTermAddVar, TavNumLinTermI)
/// Sent when a present variable's coefficient changes or its term is dropped.
TAV_LIN_RECORD(TavNumLinTermRemoveVar, TavNumLinTermI)
/// Sent when an integer linear node drops a removed variable's term.
TAV_LIN_RECORD(TavIntLinTermRemoveVar, TavIntLinTermI)
#undef TAV_LIN_RECORD

/// Constant + Σ coefficient × variable + Σ non-linear parts.
class TavNumLinTermI : public TavLinNode<TavNumLinTermI, TavNumExprI, double> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavNumLinTermI";
  static constexpr LinKind OwnLinKind = LinKind::Num;
  typedef TavNumLinTermRemoveVar RemoveRecord;
  TavNumLinTermI(TavEnvI* env, double constant) : TavLinNode(env, constant) {}
  explicit TavNumLinTermI(TavNumLinExprTerm t);
  explicit TavNumLinTermI(TavIntLinExprTerm t);

  using TavLinNode::append;
  void append(TavNumExprI* e) { appendPart(e); }
  void append(TavNumLinTermI* other) { appendNode(other); }

  /// A real copy: same constant, parts shared, terms re-created in order.
  TavNumExprI* copy() override;
  TavNumLinTermI* toNumLinTermI() override { return this; }
  bool isInteger() const override;
  double getNumConstant() const override { return _constant; }

  void multiply(double d);
  void divide(double d);
  /// Merges duplicate terms (keeping each variable's last position) and
  /// drops zero ones; returns the number of merges.
  TavInt normalize();
  /// Returns the previous coefficient (0 when absent).
  double setCoef(TavNumVar v, double c);
  void setCoef(TavNumVarArray vars, TavNumArray coefs, TavNumArray previous);
  bool isNormalized() const { return _normalized != 0; }
  /// No non-linear parts, or only parts that are parameters.
  bool isLinear() const;

  void termsChanged() { _normalized = 0; }

 private:
  friend class TavLinNode<TavNumLinTermI, TavNumExprI, double>;
  TavInt _normalized = 0;
};

/// The integer linear node: integral coefficients, a 64-bit constant.
class TavIntLinTermI : public TavLinNode<TavIntLinTermI, TavIntExprI, TavInt> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavIntLinTermI";
  static constexpr LinKind OwnLinKind = LinKind::Int;
  typedef TavIntLinTermRemoveVar RemoveRecord;
  TavIntLinTermI(TavEnvI* env, TavInt constant) : TavLinNode(env, constant) {}
  explicit TavIntLinTermI(TavIntLinExprTerm t);

  using TavLinNode::append;
  void append(TavIntExprI* e);
  void append(TavIntLinTermI* other) { appendNode(other); }

  TavIntExprI* intCopy() override;
  TavIntLinTermI* toIntLinTermI() override { return this; }
  /// A new numeric node with the same terms, parts and constant.
  TavNumLinTermI* toNumLinTermI() override;
  double getNumConstant() const override { return (double)_constant; }
  void multiply(TavInt k);
};

/// Whether x has no fractional part.
bool TavNumIsInteger(double x);

/// Throws unless e is a linear node without non-linear parts.
void TavTestIsLinear(TavNumExprI* e);

/// Writes |x| as short text; returns its length (see the README for the rules).
int convertTavNum(char* out, double x, int precision, int* status);

#endif
