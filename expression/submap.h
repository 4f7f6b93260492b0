// The base of tuple sub-map expressions: expressions over arbitrary objects
// that select part of a map indexed by tuples, through an indexer that the
// concrete kinds supply.
//
// Example: a kind of one's own supplies its indexer and its children:
//   class Slice final : public TavTupleSubMapExprI {
//    public:
//     Slice(TavEnvI* env, TavIndexerI* indexer) : TavTupleSubMapExprI(env), _indexer(indexer) {}
//     TavIndexerI* getIndexer() const override { return _indexer; }
//     void visitSubExtractables(TavExtractableVisitor* v) override { v->beginVisit(this); v->endVisit(this); }
//     ...
//   };
//   Slice* s = new (env) Slice(env, indexer);
#ifndef TAV_EXPRESSION_SUBMAP_H
#define TAV_EXPRESSION_SUBMAP_H

#include "any.h"
#include "protocol.h"


/// Abstract base of the tuple sub-map expressions. The indexer queries copy
/// the indexer's array into a new array of that array's own memory, which
/// the caller owns (and ends). A query of a kind that the indexer says its
/// array does not hold throws TavBadConversion; an indexer that does not say
/// (TavIndexerI::UnknownArray) is read as the kind asked. A missing indexer
/// or indexer array throws TavEmptyHandleException.
class TavTupleSubMapExprI : public TavNode<TavTupleSubMapExprI, TavAnyExprI> {
  TAV_NODE_STATICS
 public:
  static constexpr const char* RttiName = "TavTupleSubMapExprI";
  /// Unnamed, with reference count 0.
  explicit TavTupleSubMapExprI(TavEnvI* env) : TavNode(env, nullptr) {}

  /// The environment's tuple encoder.
  virtual TavTupleEncoderI* getEncoder() const;
  /// The indexer's own range-index test.
  virtual bool hasRangeIndex() const;
  /// A copy of the indexer's array of integers.
  virtual TavIntArray getIndexerIntArray() const;
  /// A copy of the indexer's array of numbers.
  virtual TavNumArray getIndexerNumArray() const;
  /// A copy of the indexer's array of arbitrary objects.
  virtual TavAnyArray getIndexerAnyArray() const;

 private:
  /// A copy of the indexer's array after the kind check.
  TavArrayI* copyIndexerArray(TavIndexerI::ArrayKind asked) const;
};

#endif
