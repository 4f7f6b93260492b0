// Segmented arrays, ranges, columns and array printing.
#include "array.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "env.h"

namespace {
constexpr TavInt MinShift = 4;   // 16 elements
constexpr TavInt MaxShift = 12;  // 4096 elements (32 KiB blocks)

TavInt shiftFor(TavInt n) {
  TavInt s = MinShift;
  while (s < MaxShift && (TavInt(1) << s) < n) ++s;
  return s;
}
}  // namespace

TavArrayI::TavArrayI(TavEnvI* env, TavInt n, int blockShift)
    : _env(env), _blockCount(0), _tableCapacity(0), _capacity(0), _size(0), _mask(0), _shift(0), _blocks(nullptr) {
  if (n < 0) n = 0;
  _shift = blockShift >= 0 ? blockShift : shiftFor(n);
  _mask = (TavInt(1) << _shift) - 1;
  reserveExact(n);
  for (TavInt i = 0; i < n; i += TavInt(1) << _shift)
    std::memset(&at(i), 0, sizeof(TavArraySlot) * std::min(n - i, TavInt(1) << _shift));
  _size = n;
}

TavArrayI::TavArrayI(const TavArrayI* src)
    : _env(src->_env), _blockCount(0), _tableCapacity(0), _capacity(0), _size(0), _mask(src->_mask),
      _shift(src->_shift), _blocks(nullptr) {
  reserveExact(src->_size);
  for (TavInt i = 0; i < src->_size; ++i) at(i) = src->at(i);
  _size = src->_size;
}

TavArrayI::~TavArrayI() { freeBlocks(); }

void TavArrayI::freeBlocks() {
  for (TavInt b = 0; b < _blockCount; ++b) _env->free(_blocks[b]);
  _env->free(_blocks);
  _blocks = nullptr;
  _blockCount = _tableCapacity = _capacity = 0;
}

void TavArrayI::reserveExact(TavInt n) {
  if (n <= 0) return;
  const TavInt full = TavInt(1) << _shift;
  const TavInt blocks = (n + full - 1) >> _shift;
  try {
    _blocks = static_cast<TavArraySlot**>(_env->alloc(sizeof(TavArraySlot*) * blocks));
    _tableCapacity = blocks;
    for (TavInt b = 0; b < blocks; ++b) {
      const TavInt slots = std::min(full, n - (b << _shift));
      _blocks[b] = static_cast<TavArraySlot*>(_env->alloc(sizeof(TavArraySlot) * slots));
      ++_blockCount;
      _capacity += slots;
    }
  } catch (...) {
    freeBlocks();
    throw;
  }
}

void TavArrayI::grow() {
  const TavInt full = TavInt(1) << _shift;
  if (_capacity < (_blockCount << _shift)) {
    // The short last block becomes a full one.
    const TavInt last = _blockCount - 1;
    TavArraySlot* block = static_cast<TavArraySlot*>(_env->alloc(sizeof(TavArraySlot) * full));
    std::memcpy(block, _blocks[last], sizeof(TavArraySlot) * (_capacity - (last << _shift)));
    _env->free(_blocks[last]);
    _blocks[last] = block;
    _capacity = _blockCount << _shift;
    return;
  }
  if (_blockCount == _tableCapacity) {
    TavInt cap = _tableCapacity ? 2 * _tableCapacity : 4;
    TavArraySlot** table = static_cast<TavArraySlot**>(_env->alloc(sizeof(TavArraySlot*) * cap));
    if (_blockCount) std::memcpy(table, _blocks, sizeof(TavArraySlot*) * _blockCount);
    _env->free(_blocks, sizeof(TavArraySlot*) * _tableCapacity);
    _blocks = table;
    _tableCapacity = cap;
  }
  _blocks[_blockCount] = static_cast<TavArraySlot*>(_env->alloc(sizeof(TavArraySlot) * full));
  ++_blockCount;
  _capacity += full;
}

void TavArrayI::addArray(const TavArrayI* other) {
  TavInt n = other->_size;  // other may be this array
  for (TavInt i = 0; i < n; ++i) add(other->at(i));
}

void TavArrayI::remove(TavInt first, TavInt count) {
  if (first < 0 || count <= 0 || first >= _size) return;
  if (first + count > _size) count = _size - first;
  for (TavInt i = first; i + count < _size; ++i) at(i) = at(i + count);
  _size -= count;
}

void TavArrayI::end() { delete this; }

TavArrayI* TavArrayBase::Make(TavEnv env, TavInt n) {
  TavEnvI* e = TavNeed(env.getImpl());
  return new (e) TavArrayI(e, n);
}

void TavArrayBase::CheckCount(bool hasData, TavInt n) {
  if (n < 0) throw TavWrongUsage("TavArray: negative element count", 0);
  if (n > 0 && !hasData) throw TavWrongUsage("TavArray: null element pointer", 0);
}

TavNumArray TavIntArray::toNumArray() const {
  TavNumArray out(getEnv(), getSize());
  for (TavInt i = 0; i < getSize(); ++i) out[i] = (double)(*this)[i];
  return out;
}

void TavThrowOutOfRange(TavInt i, TavInt size) {
  const std::string m = "TavArray: index " + std::to_string(i) + " out of range [0, " + std::to_string(size) + ")";
  throw TavArrayError(m.c_str(), 0);
}

TavEnv TavExtractable::getEnv() const { return TavEnv(TavLive(_impl)->getEnv()); }
TavInt TavExtractable::getId() const { return TavLive(_impl)->getId(); }
const char* TavExtractable::getName() const { return TavLive(_impl)->getName(); }
void TavExtractable::setName(const char* name) const { TavLive(_impl)->setName(name); }
void TavExtractable::end() {
  TavEndLive(_impl);
  _impl = nullptr;
}

void TavExtractableArray::endElements() {
  for (TavInt i = 0; i < getSize(); ++i) {
    TavExtractableI* e = _impl->at(i).obj;
    if (e) e->end();
  }
}

void TavExtractableArray::removeMarked() {
  TavInt out = 0;
  for (TavInt i = 0; i < getSize(); ++i) {
    TavExtractableI* e = _impl->at(i).obj;
    if (e && e->getEnv()->isRemoved(e)) continue;
    _impl->at(out++).obj = e;
  }
  _impl->remove(out, getSize() - out);
}

void TavExtractableArray::replaceByClone(TavEnvI* env) {
  TavExtractableArray clones(TavEnv(env), 0);
  try {
    for (TavInt i = 0; i < getSize(); ++i) {
      TavExtractableI* e = _impl->at(i).obj;
      clones.addObject(e ? env->getClone(e) : nullptr);
    }
  } catch (...) {
    clones.end();  // the handle keeps its array
    throw;
  }
  _impl = clones._impl;
}

// The defaults of the environment layer that work on arrays of model objects.

void TavExtractableVisitor::visitChildren(TavExtractableI* parent, TavExtractableArray children) {
  for (TavInt i = 0; i < children.getSize(); ++i) visitChild(parent, children.getObject(i));
}

TavExtractableArray TavChange::getChangedExtractableArray() const { return TavExtractableArray(); }

TavAddExtractableI::TavAddExtractableI(TavEnvI* env) : _env(env), _installed(TavEnv(env), 0) {}

TavAddExtractableI::~TavAddExtractableI() { _installed.end(); }

void TavAddExtractableI::install(TavExtractableI* obj) { _installed.addObject(obj); }

TavNumColumn::TavNumColumn(TavEnv env) : TavAddNumVar(new (env.getImpl()) TavAddExtractableI(env.getImpl())) {}

void TavNumColumn::end() {
  delete _impl;
  _impl = nullptr;
}

std::ostream& TavPrintObject(std::ostream& os, const TavExtractableI* obj) {
  if (obj == nullptr) return os << "<empty>";
  obj->display(os);
  return os;
}

std::ostream& operator<<(std::ostream& os, const TavExtractable& e) { return TavPrintObject(os, e.getImpl()); }

std::ostream& operator<<(std::ostream& os, const TavNumArray& a) {
  return TavPrintArray(os, a, [](std::ostream& o, double v) { o << v; });
}

std::ostream& operator<<(std::ostream& os, const TavIntArray& a) {
  return TavPrintArray(os, a, [](std::ostream& o, TavInt v) { o << v; });
}

std::ostream& operator<<(std::ostream& os, const TavExtractableArray& a) {
  return TavPrintArray(os, a, [](std::ostream& o, TavExtractable e) {
    if (e.getImpl()) e.getImpl()->display(o);
  });
}
