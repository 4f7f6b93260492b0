// Tuple sub-map expressions: the encoder and the indexer queries.
#include "submap.h"

#include "checks.h"
#include "variables.h"

TAV_DEFINE_NODE_STATICS(TavTupleSubMapExprI)

TavTupleEncoderI* TavTupleSubMapExprI::getEncoder() const { return getEnv()->getTupleEncoder(); }

bool TavTupleSubMapExprI::hasRangeIndex() const { return tav_detail::need(getIndexer())->hasRangeIndex(); }

TavArrayI* TavTupleSubMapExprI::copyIndexerArray(TavIndexerI::ArrayKind asked) const {
  const TavIndexerI* indexer = tav_detail::need(getIndexer());
  const TavIndexerI::ArrayKind held = indexer->getArrayKind();
  if (held != TavIndexerI::UnknownArray && held != asked) throw TavBadConversion();
  const TavArrayI* source = tav_detail::need(indexer->getArray());
  // In the source's memory: the copy lives and goes with the indexer's data.
  return new (source->getEnv()) TavArrayI(source);
}

TavIntArray TavTupleSubMapExprI::getIndexerIntArray() const {
  return TavIntArray(copyIndexerArray(TavIndexerI::IntArray));
}

TavNumArray TavTupleSubMapExprI::getIndexerNumArray() const {
  return TavNumArray(copyIndexerArray(TavIndexerI::NumArray));
}

TavAnyArray TavTupleSubMapExprI::getIndexerAnyArray() const {
  return TavAnyArray(copyIndexerArray(TavIndexerI::AnyArray));
}
