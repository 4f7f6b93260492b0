// General expressions: their statics, CP hooks and reference counting.
#include "any.h"

TavInt TavAnyExprI::_rttiIndex = 0;
TavExtractableI::ExtractHook TavAnyExprI::_extractCP = nullptr;
TavExtractableI::ObjectHook TavAnyExprI::_unextractCP = nullptr;
TavExtractableI::ObjectHook TavAnyExprI::_modifyCP = nullptr;

void* TavAnyExprI::extractToCP(TavAlgorithm alg) const { return TavRunHook(_extractCP, alg, this); }

void TavAnyExprI::unextractFromCP(TavAlgorithm alg, void* obj) const {
  TavRunHook<TavAlgorithm::RemoveFailure>(_unextractCP, alg, this, obj);
}

void TavAnyExprI::modifyCP(TavAlgorithm alg, void* obj) const {
  TavRunHook<TavAlgorithm::RemoveFailure>(_modifyCP, alg, this, obj);
}

void TavAnyExprI::end() {
  if (--_refCount > 0) return;
  // The deletion interceptor takes numeric nodes only: these go at once.
  TavExtractableI::end();
}

void TavAnyExprI::release() {
  if (!getEnv()->isEnding()) end();
}
