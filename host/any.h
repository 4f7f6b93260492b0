// General expressions of the host, whose values are arbitrary objects
// (TavAny), and the indexer through which a tuple sub-map selects its part.
#ifndef TAV_HOST_ANY_H
#define TAV_HOST_ANY_H

#include "array.h"
#include "env.h"

/// An arbitrary object, held as a 64-bit word.
using TavAny = TavInt;

/// A value array of arbitrary objects (TavAny), the shape of TavIntArray.
class TavAnyArray : public TavIntArray {
 public:
  using TavIntArray::TavIntArray;
};

/// What a sub-map expression selects through: an array of keys and whether
/// they form a range.
class TavIndexerI {
 public:
  /// What the indexer's array holds, for those who copy it out as values.
  enum ArrayKind { UnknownArray, IntArray, NumArray, AnyArray };

  virtual ~TavIndexerI() = default;
  virtual bool hasRangeIndex() const = 0;
  /// The indexer's array implementation.
  virtual TavArrayI* getArray() const = 0;
  /// The kind of getArray()'s elements. An indexer that does not say
  /// (UnknownArray) lets its array be read as any kind: every slot is one
  /// 8-byte word, so such a reading gives odd values but touches no memory
  /// outside the array.
  virtual ArrayKind getArrayKind() const { return UnknownArray; }
};

/// Base of the expressions whose values are arbitrary objects. Counted like
/// the numeric expressions: created with count 0, end() drops one reference
/// and destroys the expression when none is left.
class TavAnyExprI : public TavExtractableI {
 public:
  explicit TavAnyExprI(TavEnvI* env, const char* name = nullptr) : TavExtractableI(env, name) {}

  // Type identity, written out here: the protocol templates belong to the
  // expression layer, which the host does not see.
  static TavTypeInfo GetBaseTypeInfo() { return TavExtractableI::GetTypeInfo(); }
  static TavTypeInfo GetTypeInfo() { return &_rttiIndex; }
  static TavInt GetTypeIndex() {
    InitTypeIndex();
    return TavLoadTypeIndex(_rttiIndex);
  }
  static void InitTypeIndex() { TavAssignTypeIndex(_rttiIndex); }
  static const char* GetRttiTypeName() { return "TavAnyExprI"; }
  static TavInt GetExtractableSize() { return sizeof(TavAnyExprI); }
  /// Reads the index without assigning it: 0 until GetTypeIndex() ran.
  TavInt getTypeIndex() const override { return TavLoadTypeIndex(_rttiIndex); }
  TavTypeInfo getTypeInfo() const override { return GetTypeInfo(); }
  bool isType(TavTypeInfo t) const override { return t == GetTypeInfo() || TavExtractableI::isType(t); }
  const char* getRttiTypeName() const override { return GetRttiTypeName(); }
  TavInt getExtractableSize() const override { return sizeof(TavAnyExprI); }
  TavTypeInfo getBaseTypeInfo() const override { return GetBaseTypeInfo(); }
  TavInt getBaseTypeIndex() const override { return TavExtractableI::GetTypeIndex(); }

  void* extractToCP(TavAlgorithm alg) const override;
  void unextractFromCP(TavAlgorithm alg, void* obj) const override;
  /// An unset modify hook fails as a remove failure.
  void modifyCP(TavAlgorithm alg, void* obj) const override;

  void visitSubExtractables(TavExtractableVisitor* visitor) override = 0;
  /// The indexer of the expression; supplied by the concrete kinds.
  virtual TavIndexerI* getIndexer() const = 0;

  bool isRefCountedExpr() const override { return true; }
  bool mayBeHeld() const override { return _refCount > 0; }
  /// Drops one reference; at zero the expression is destroyed.
  void end() override;
  /// end(), unless the environment is ending.
  void release();
  TavInt getRefCount() const { return _refCount; }
  /// Adds one reference.
  void lockRef() { ++_refCount; }

  static TavInt _rttiIndex;
  static ExtractHook _extractCP;
  static ObjectHook _unextractCP;
  static ObjectHook _modifyCP;

 private:
  TavInt _refCount = 0;
};

#endif
