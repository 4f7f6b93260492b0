// The environment layer: TavEnvI (memory, identifiers, flags, clone maps,
// mark arrays, destruction, change delivery), the model-object root
// TavExtractableI, the change-record root TavChange, visitors, algorithms and
// the model evaluator.
#ifndef TAV_HOST_ENV_H
#define TAV_HOST_ENV_H

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <ostream>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base.h"
#include "memory.h"
#include "object.h"

class TavExtractableI;
class TavExtractableArray;
class TavNumExprI;
class TavNumVarI;
class TavConstraintI;
class TavChange;
class TavAlgorithmI;
class TavAlgorithm;
class TavModelI;
class TavVarDomainI;
class TavNumRangeI;
class TavIntRangeI;
class TavModelEvaluator;
class TavTupleEncoderI;
class TavConversionI;

/// Assigns a class's type index on first request: the test is repeated under
/// a lock (and TavEnvI::Mutex when set), so indices follow the order of first
/// requests even when threads race.
void TavAssignTypeIndex(TavInt& index);
/// Reads a type index that another thread may be assigning.
inline TavInt TavLoadTypeIndex(const TavInt& index) { return __atomic_load_n(&index, __ATOMIC_ACQUIRE); }

/// The type-identity group of a root of the protocol (model objects, change
/// records): no base type, and its own index. Derived classes get theirs from
/// the expression layer's protocol templates.
#define TAV_ROOT_TYPE_IDENTITY(Class)                                                \
  static TavTypeInfo GetBaseTypeInfo() { return nullptr; }                          \
  static TavTypeInfo GetTypeInfo() { return &_rttiIndex; }                          \
  static TavInt GetTypeIndex() {                                                    \
    InitTypeIndex();                                                                \
    return TavLoadTypeIndex(_rttiIndex);                                            \
  }                                                                                 \
  static void InitTypeIndex() { TavAssignTypeIndex(_rttiIndex); }                   \
  static const char* GetRttiTypeName() { return #Class; }                           \
  static TavInt GetExtractableSize() { return sizeof(Class); }                      \
  virtual TavInt getTypeIndex() const { return TavLoadTypeIndex(_rttiIndex); }      \
  virtual TavTypeInfo getTypeInfo() const { return GetTypeInfo(); }                 \
  virtual bool isType(TavTypeInfo t) const { return t == GetTypeInfo(); }           \
  virtual const char* getRttiTypeName() const { return GetRttiTypeName(); }         \
  virtual TavInt getExtractableSize() const { return sizeof(Class); }               \
  virtual TavTypeInfo getBaseTypeInfo() const { return GetBaseTypeInfo(); }         \
  virtual TavInt getBaseTypeIndex() const { return 0; }

/// One cell of a linear sum: variable, next cell, coefficient (24 bytes).
/// In the non-linear part list of a linear node the first slot holds a node.
class TavNumLinExprTermI {
 public:
  TavNumVarI* getVar() const { return _var; }
  TavNumLinExprTermI* getNext() const { return _next; }
  double getCoef() const { return _coef; }
  void setCoef(double c) { _coef = c; }

  TavNumVarI* _var;
  TavNumLinExprTermI* _next;
  double _coef;
};
static_assert(sizeof(TavNumLinExprTermI) == 24, "term cells are three words");

/// The next-cell mark of a cell that no list holds yet. A term handle's cell
/// is taken by the first expression it enters; the mark lets a second use be
/// refused instead of linking one cell into two places.
inline TavNumLinExprTermI* TavFreshCell() { return reinterpret_cast<TavNumLinExprTermI*>(alignof(TavNumLinExprTermI)); }

/// The environment of a variable without reading the variable.
inline TavEnvI* TavVarEnv(const TavNumVarI* var);

/// Receives nodes whose reference count fell to zero instead of destroying them.
struct TavDeletionInterceptor {
  virtual ~TavDeletionInterceptor() = default;
  virtual void takeNode(TavNumExprI* node) = 0;
};

/// Walks the children of a node (visitSubExtractables).
class TavExtractableVisitor {
 public:
  virtual ~TavExtractableVisitor() = default;
  virtual void beginVisit(TavExtractableI* parent);
  virtual void visitChild(TavExtractableI* parent, TavExtractableI* child);
  /// By default one visitChild per element, in index order.
  virtual void visitChildren(TavExtractableI* parent, TavExtractableArray children);
  virtual void endVisit(TavExtractableI* parent);
};

/// Walks what a change record refers to (visitChange).
class TavChangeVisitor {
 public:
  virtual ~TavChangeVisitor() = default;
  virtual void visitChild(TavExtractableI* parent, TavExtractableI* child);
  /// A variable left a conversion (TavConversionRemoveVar); does nothing by default.
  virtual void visitConversionRemoveVar(TavConversionI* conversion, TavNumVarI* var);
};

/// Root of all model objects: environment, dense identifier, name.
class TavExtractableI : public TavMemoryManagerObjectI {
 public:
  TavExtractableI(TavEnvI* env, const char* name = nullptr);
  virtual ~TavExtractableI();
  TavExtractableI(const TavExtractableI&) = delete;
  TavExtractableI& operator=(const TavExtractableI&) = delete;

  TAV_ROOT_TYPE_IDENTITY(TavExtractableI)
  virtual TavExtractableI* makeClone(TavEnvI* env) const;
  virtual void* extractToCP(TavAlgorithm alg) const;
  virtual void unextractFromCP(TavAlgorithm alg, void* obj) const;
  virtual void modifyCP(TavAlgorithm alg, void* obj) const;
  virtual void atRemove(TavExtractableI* removed, void* data);
  virtual void visitSubExtractables(TavExtractableVisitor* visitor);
  virtual bool isRefCountedExpr() const { return false; }
  /// Destroys the object (through removeFromAllAndDestroy when the
  /// environment asks for it).
  virtual void end();
  virtual void expandTo(TavModelI* model, const char* prefix, const char* suffix) const;
  virtual void display(std::ostream& os) const;
  virtual void whenAddedToCP(TavAlgorithm alg, void* data) const;
  virtual void whenRemovedFromCP(TavAlgorithm alg, void* data) const;
  virtual bool hasNongroundType() const { return false; }
  virtual bool isDecisionExpr() const { return false; }
  /// False when no object of the environment can be holding this one, so
  /// that removing it need not tell them (a node whose count fell to zero).
  virtual bool mayBeHeld() const { return true; }

  TavEnvI* getEnv() const { return _env; }
  TavInt getId() const { return _id; }
  const char* getName() const { return _name; }
  void setName(const char* name);
  /// Hands a change record to every algorithm of the environment.
  void notify(const TavChange& change) const;

  typedef void* (*ExtractHook)(TavAlgorithm, const TavExtractableI*);
  typedef void (*ObjectHook)(TavAlgorithm, const TavExtractableI*, void*);
  static TavInt _rttiIndex;
  static ExtractHook _extractCP;
  static ObjectHook _unextractCP;
  static ObjectHook _modifyCP;

 protected:
  TavEnvI* _env;
  TavInt _id;
  char* _name;
};

/// Root of change records: short-lived values built on the stack.
class TavChange {
 public:
  explicit TavChange(TavExtractableI* changed = nullptr) : _changed(changed) {}
  virtual ~TavChange() = default;

  TAV_ROOT_TYPE_IDENTITY(TavChange)
  virtual void visitChange(TavEnvI* env, TavExtractableI* extractable, TavChangeVisitor* visitor) const;
  virtual void applyToCP(TavAlgorithm alg, void* data) const;
  virtual bool isApplyingOnArray() const { return false; }
  virtual TavExtractableArray getChangedExtractableArray() const;
  virtual TavExtractableI* getChangedExtractable() const { return _changed; }

  typedef void (*ApplyHook)(TavAlgorithm, const TavChange*, void*);
  static TavInt _rttiIndex;
  static ApplyHook _applyCP;

 private:
  TavExtractableI* _changed;
};

/// An algorithm: the source of variable values, told of every change.
class TavAlgorithmI {
 public:
  /// Registers with the environment; the destructor unregisters.
  explicit TavAlgorithmI(TavEnvI* env);
  virtual ~TavAlgorithmI();
  struct Detached {};
  /// An algorithm the environment does not deliver changes to.
  TavAlgorithmI(TavEnvI* env, Detached) : _env(env), _registered(false) {}
  TavAlgorithmI(const TavAlgorithmI&) = delete;
  TavAlgorithmI& operator=(const TavAlgorithmI&) = delete;
  virtual double getValue(const TavNumVarI* var) const = 0;
  /// The algorithm's own value of a constraint (its truth, 1 or 0), so that
  /// the constraint need not be evaluated again. By default there is none:
  /// TavAlgorithm::Exception.
  virtual double getValue(const TavConstraintI* ct) const;
  /// Adds coefficient times value of every cell from first on to sum, in
  /// list order, and returns true; returns false with sum unchanged when it
  /// cannot give every value at once (the caller then asks term by term).
  /// An algorithm with values in an array overrides it: one call per sum
  /// instead of one per term.
  virtual bool addTermValues(const TavNumLinExprTermI* first, double& sum) const {
    (void)first;
    (void)sum;
    return false;
  }
  virtual void notifyChange(const TavChange& change) { (void)change; }
  TavEnvI* getEnv() const { return _env; }

 private:
  friend class TavEnvI;
  TavEnvI* _env;
  bool _registered = true;
  bool _ownedByEnv = false;
};

/// Handle over an algorithm.
class TavAlgorithm {
 public:
  TavAlgorithm(TavAlgorithmI* impl = nullptr) : _impl(impl) {}
  TavAlgorithmI* getImpl() const { return _impl; }
  TavEnv getEnv() const;
  /// The value of a variable (TavNumVar) or of an expression (TavNumExprArg,
  /// evaluated) in the algorithm. Handles belong to the expression layer,
  /// which supplies the TavValueIn overloads that this call finds.
  template <class Handle>
  double getValue(const Handle& h) const {
    return TavValueIn(*this, h);
  }
  /// Deletes an algorithm made on the heap.
  void end();

  /// Base of the failures an algorithm reports.
  class Exception : public TavException {
   public:
    explicit Exception(const char* message = nullptr, long code = 0) : TavException(message, code) {}

   protected:
    const char* defaultText() const noexcept override { return "TavAlgorithm::Exception"; }
  };
  /// An object that the algorithm cannot take in (its class has no extraction hook).
  class ExtractFailure : public Exception {
   public:
    ExtractFailure() : Exception(nullptr, 0) {}

   protected:
    const char* defaultText() const noexcept override { return "TavAlgorithm::ExtractFailure"; }
  };
  /// An object that the algorithm cannot remove or modify (its class has no hook for it).
  class RemoveFailure : public Exception {
   public:
    RemoveFailure() : Exception(nullptr, 0) {}

   protected:
    const char* defaultText() const noexcept override { return "TavAlgorithm::RemoveFailure"; }
  };
  /// A change to the model that the algorithm cannot apply; getAlgorithm() names it.
  class CannotChangeException : public Exception {
   public:
    explicit CannotChangeException(const TavAlgorithmI* alg) : Exception(nullptr, 0), _alg(alg) {}
    const TavAlgorithmI* getAlgorithm() const { return _alg; }

   protected:
    const char* defaultText() const noexcept override { return "TavAlgorithm::CannotChangeException"; }

   private:
    const TavAlgorithmI* _alg;
  };

 protected:
  TavAlgorithmI* _impl;
};

/// Runs a class's extraction hook for obj; ExtractFailure when the class has none.
inline void* TavRunHook(TavExtractableI::ExtractHook hook, TavAlgorithm alg, const TavExtractableI* obj) {
  if (hook == nullptr) throw TavAlgorithm::ExtractFailure();
  return hook(alg, obj);
}
/// Runs a class's object hook for obj with data; Failure when the class has none.
template <class Failure>
void TavRunHook(TavExtractableI::ObjectHook hook, TavAlgorithm alg, const TavExtractableI* obj, void* data) {
  if (hook == nullptr) throw Failure();
  hook(alg, obj, data);
}

/// Evaluates integer expressions from values set on it, while active. The
/// value table and the reader are the host's; the members taking expression
/// handles forward to the expression layer (TavSetValueIn, TavEvaluateIn).
class TavModelEvaluator {
 public:
  /// An evaluation that reads a variable with no value set.
  class Unbound : public TavException {
   public:
    explicit Unbound(const char* message = "TavModelEvaluator::Unbound: variable without value")
        : TavException(message, 0) {}
  };
  explicit TavModelEvaluator(TavEnvI* env);
  ~TavModelEvaluator();
  void setActive(bool active) { _active = active; }
  bool isActive() const { return _active; }
  /// Sets the value of a variable handle (TavNumVar or one converting to it).
  template <class VarHandle>
  void setValue(const VarHandle& var, TavInt value) {
    TavSetValueIn(*this, var, value);
  }
  /// Forgets every value.
  void clear();
  /// The value of an integer expression handle; Unbound when a variable has none.
  template <class ExprHandle>
  TavInt evaluate(const ExprHandle& expr) const {
    return TavEvaluateIn(*this, expr);
  }
  /// Sets the value of a variable (what setValue does once the handle is checked).
  void setVarValue(const TavNumVarI* var, TavInt value);
  /// The value set for a variable; Unbound when there is none.
  TavInt getValue(const TavNumVarI* var) const;
  /// The evaluator as an algorithm: a variable's value is the one set here.
  TavAlgorithm getReader() const { return TavAlgorithm(_reader.get()); }
  TavEnvI* getEnv() const { return _env; }

 private:
  TavEnvI* _env;
  bool _active = false;
  std::unordered_map<const TavNumVarI*, TavInt> _values;
  std::unique_ptr<TavAlgorithmI> _reader;
};

/// Dense codes for tuples of integers.
class TavTupleEncoderI {
 public:
  /// The code of a tuple, assigning the next one on first sight.
  TavInt encode(const TavInt* values, TavInt n);
  TavInt getSize() const { return (TavInt)_codes.size(); }

 private:
  std::map<std::vector<TavInt>, TavInt> _codes;
};

/// The environment: owner of every object and every byte of a model.
class TavEnvI {
 public:
  TavEnvI();
  ~TavEnvI();
  TavEnvI(const TavEnvI&) = delete;
  TavEnvI& operator=(const TavEnvI&) = delete;

  // Flags.
  bool isLibrarySyntaxDisplay() const { return _librarySyntaxDisplay; }
  void setLibrarySyntaxDisplay(bool v) { _librarySyntaxDisplay = v; }
  bool isNormalizationSkipped() const { return _normalizationSkipped; }
  void setNormalizationSkipped(bool v) { _normalizationSkipped = v; }
  bool isOneByOneRemoval() const { return _oneByOneRemoval; }
  void setOneByOneRemoval(bool v) { _oneByOneRemoval = v; }
  bool isRemoveFromAllOnDestroy() const { return _removeFromAllOnDestroy; }
  void setRemoveFromAllOnDestroy(bool v) { _removeFromAllOnDestroy = v; }
  bool areMarkArraysAvailable() const { return _markArraysAvailable; }
  void setMarkArraysAvailable(bool v) { _markArraysAvailable = v; }
  bool isEnding() const { return _ending; }
  TavMutex* getMarkLock() const { return _markLock; }
  void setMarkLock(TavMutex* m) { _markLock = m; }
  TavDeletionInterceptor* getDeletionInterceptor() const { return _interceptor; }
  void setDeletionInterceptor(TavDeletionInterceptor* i) { _interceptor = i; }
  /// Guards type-index assignment across threads; null means no locking.
  static TavMutex* Mutex;
  /// The environment when exactly one is live (not ended), else null.
  static TavEnvI* Sole() { return _sole.load(std::memory_order_acquire); }

  // Memory.
  void* alloc(std::size_t bytes) { return _memory.alloc(bytes); }
  /// Returns memory from alloc (the size is known to the memory).
  void free(void* p, std::size_t = 0) { _memory.free(p); }
  TavMemory& getMemory() { return _memory; }
  /// A fresh term cell (var, coef), marked as held by no list (TavFreshCell).
  TavNumLinExprTermI* newTerm(TavNumVarI* var, double coef) {
    _memory.chargeAllocation();
    TavNumLinExprTermI* t = static_cast<TavNumLinExprTermI*>(_terms.allocateBlock(&_memory));
    t->_var = var;
    t->_next = TavFreshCell();
    t->_coef = coef;
    ++_liveTerms;
    return t;
  }
  void recycleTerm(TavNumLinExprTermI* t) {
    --_liveTerms;
    t->_next = nullptr;  // a stale term handle must not pass for a fresh one
    _terms.deallocate(t);
  }
  TavInt getLiveTermCount() const { return _liveTerms; }
  TavInt getLiveObjectCount() const { return _liveObjects; }

  // Identifiers and removal marks.
  /// A dense identifier for obj: a freed one when there is one.
  TavInt registerObject(TavExtractableI* obj) {
    if (TAV_LIKELY(!_freeIds.empty())) {
      const TavInt id = _freeIds.back();
      _freeIds.pop_back();
      _objects[(std::size_t)id] = obj;
      _idTable[(std::size_t)id] = id;
      ++_liveObjects;
      return id;
    }
    return registerNew(obj);
  }
  void unregisterObject(TavExtractableI* obj);
  /// One more than the largest identifier in use so far.
  TavInt getIdCapacity() const { return (TavInt)_objects.size(); }
  TavExtractableI* getObject(TavInt id) const { return _objects[id]; }
  TavInt getIdTableEntry(TavInt id) const { return _idTable[id]; }
  void setIdTableEntry(TavInt id, TavInt v) { _idTable[id] = v; }
  /// True for an object whose identifier, or its table entry, is all ones.
  bool isRemoved(const TavExtractableI* obj) const {
    TavInt id = obj->getId();
    return id == -1 || _idTable[id] == -1;
  }

  // Mark arrays: one entry per identifier, stale until written.
  void** getMarkArray();
  void releaseMarkArray(void** marks);

  // Clone maps.
  TavExtractableI* getClone(const TavExtractableI* source) const;
  void setClone(const TavExtractableI* source, TavExtractableI* clone);
  /// Ends the current cloning pass.
  void clearCloneMap() { _clones.clear(); }
  /// Clones obj and, first, every object below it into target; the pairs are
  /// recorded in both environments for the rest of the pass. A pass into
  /// another target starts with an empty map; a failed pass leaves no clone
  /// and no pair behind.
  TavExtractableI* cloneInto(TavExtractableI* obj, TavEnvI* target);

  // Destruction.
  void destroy(TavExtractableI* obj, long = 0);
  void removeFromAllAndDestroy(TavExtractableI* obj, long = 0);
  /// Drops one reference held on a node (nothing while the environment
  /// ends). The node's own release() counts, so the host need not know the
  /// node classes.
  template <class Node>
  void release(Node* node) {
    if (node) node->release();
  }

  // Algorithms and changes.
  void change(const TavChange& c) const;
  const std::vector<TavAlgorithmI*>& getAlgorithms() const { return _algorithms; }
  /// Makes the environment delete alg when it ends.
  void adoptAlgorithm(TavAlgorithmI* alg) { alg->_ownedByEnv = true; }

  // Domains (the table is kept with the domains, in domain.cpp).
  /// The environment's domain for these bounds; a new private one (the
  /// caller's to end) when a bound is not a number.
  TavVarDomainI* getOrMakeSharedDomain(double lb, double ub);
  TavVarDomainI* getOrMakeSharedDomain(TavInt lb, TavInt ub);
  TavVarDomainI* getOrMakeSharedDomain(const TavNumRangeI* range);
  TavVarDomainI* getOrMakeSharedDomain(const TavIntRangeI* range);

  TavModelEvaluator* getModelEvaluator();
  TavTupleEncoderI* getTupleEncoder();

  /// Frees every object and every byte of the environment.
  void end();

 private:
  friend class TavAlgorithmI;
  void destroyNow(TavExtractableI* obj);
  /// Drops every pair whose source or clone belongs to an ending environment.
  void forgetClonesOf(const TavEnvI* ended);
  void undoClones(const std::vector<std::pair<TavExtractableI*, TavExtractableI*>>& made, TavEnvI* target);

  bool _librarySyntaxDisplay = false;
  bool _normalizationSkipped = false;
  bool _oneByOneRemoval = false;
  bool _removeFromAllOnDestroy = false;
  bool _markArraysAvailable = true;
  bool _ending = false;
  bool _ended = false;
  bool _destroying = false;
  TavMutex* _markLock = nullptr;
  static std::atomic<TavEnvI*> _sole;
  friend void TavPublishLiveEnv(TavEnvI*, bool);
  TavDeletionInterceptor* _interceptor = nullptr;

  TavMemory _memory;
  TavFixedSizeAllocatorI _terms;
  TavInt _liveTerms = 0;
  TavInt _liveObjects = 0;

  std::vector<TavExtractableI*> _objects;
  std::vector<TavInt> _idTable;
  std::vector<TavInt> _freeIds;
  TavInt registerNew(TavExtractableI* obj);
  std::vector<TavExtractableI*> _pending;

  struct MarkArray {
    std::vector<void*> data;
    bool inUse = false;
  };
  std::deque<MarkArray> _markArrays;

  std::unordered_map<const TavExtractableI*, TavExtractableI*> _clones;
  TavEnvI* _cloneTarget = nullptr;                       // target of the current cloning pass
  std::unordered_set<TavExtractableI*>* _undone = nullptr;  // clones of a failed pass not yet freed
  std::vector<TavAlgorithmI*> _algorithms;
  std::map<std::pair<double, double>, TavVarDomainI*> _sharedNum;
  std::map<std::pair<TavInt, TavInt>, TavVarDomainI*> _sharedInt;
  std::unique_ptr<TavModelEvaluator> _evaluator;
  std::unique_ptr<TavTupleEncoderI> _tuples;
};

/// The owner of the variable's memory chunk tells, also when other
/// environments live: building a large sum then touches the cells and a few
/// lines of the owner table, not one scattered variable per term. Null for a
/// variable whose environment has ended.
inline TavEnvI* TavVarEnv(const TavNumVarI* var) { return TavMemory::EnvOf(var); }


/// An empty environment handle refuses here, before anything is built in it.
inline void* TavMemoryManagerObjectI::operator new(std::size_t bytes, TavEnvI* env) { return TavNeed(env)->alloc(bytes); }

#endif
