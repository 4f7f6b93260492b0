// The environment, the model-object and change-record roots, algorithms and
// the model evaluator's value table.
#include "env.h"

#include <algorithm>
#include <cstring>
#include <mutex>

TavMutex* TavEnvI::Mutex = nullptr;

void TavAssignTypeIndex(TavInt& index) {
  if (TavLoadTypeIndex(index) != 0) return;
  // Never destroyed: classes may be asked for their index during static destruction.
  static std::mutex* guard = new std::mutex;
  std::lock_guard<std::mutex> hold(*guard);
  TavMutex* m = TavEnvI::Mutex;
  if (m) m->lock();
  if (index == 0) __atomic_store_n(&index, ++TavRtti::_counter, __ATOMIC_RELEASE);
  if (m) m->unlock();
}

// ---------------------------------------------------------------- memory objects


// Called when a constructor throws: the object's bytes go back at once.
void TavMemoryManagerObjectI::operator delete(void* p, TavEnvI* env) { env->free(p); }

// An object of an ended environment has no memory left to give back.
void TavMemoryManagerObjectI::operator delete(void* p, std::size_t) {
  if (TavEnvI* env = p ? TavMemory::EnvOf(p) : nullptr) env->free(p);
}

// ---------------------------------------------------------------- visitors

void TavExtractableVisitor::beginVisit(TavExtractableI*) {}
void TavExtractableVisitor::visitChild(TavExtractableI*, TavExtractableI*) {}
void TavExtractableVisitor::endVisit(TavExtractableI*) {}
void TavChangeVisitor::visitChild(TavExtractableI*, TavExtractableI*) {}
void TavChangeVisitor::visitConversionRemoveVar(TavConversionI*, TavNumVarI*) {}

// ---------------------------------------------------------------- extractables

TavInt TavExtractableI::_rttiIndex = 0;
TavExtractableI::ExtractHook TavExtractableI::_extractCP = nullptr;
TavExtractableI::ObjectHook TavExtractableI::_unextractCP = nullptr;
TavExtractableI::ObjectHook TavExtractableI::_modifyCP = nullptr;


TavExtractableI::TavExtractableI(TavEnvI* env, const char* name) : _env(env), _id(-1), _name(nullptr) {
  TavNeed(env);
  if (name) setName(name);
  try {
    _id = env->registerObject(this);
  } catch (...) {
    setName(nullptr);
    throw;
  }
}

TavExtractableI::~TavExtractableI() {
  if (_env->isEnding()) return;
  setName(nullptr);
  _env->unregisterObject(this);
}

void TavExtractableI::setName(const char* name) {
  if (_name) _env->free(_name, std::strlen(_name) + 1);
  _name = nullptr;
  if (name) {
    std::size_t n = std::strlen(name) + 1;
    _name = static_cast<char*>(_env->alloc(n));
    std::memcpy(_name, name, n);
  }
}

void TavExtractableI::notify(const TavChange& change) const { _env->change(change); }

TavExtractableI* TavExtractableI::makeClone(TavEnvI*) const {
  throw TavNotImplemented("makeClone is not available for this object");
}

void* TavExtractableI::extractToCP(TavAlgorithm alg) const { return TavRunHook(_extractCP, alg, this); }
void TavExtractableI::unextractFromCP(TavAlgorithm alg, void* obj) const {
  TavRunHook<TavAlgorithm::RemoveFailure>(_unextractCP, alg, this, obj);
}
void TavExtractableI::modifyCP(TavAlgorithm alg, void* obj) const {
  TavRunHook<TavAlgorithm::RemoveFailure>(_modifyCP, alg, this, obj);
}

void TavExtractableI::atRemove(TavExtractableI*, void*) {}

void TavExtractableI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  visitor->endVisit(this);
}

void TavExtractableI::end() {
  if (_env->isRemoveFromAllOnDestroy()) _env->removeFromAllAndDestroy(this, 0);
  else _env->destroy(this, 0);
}

void TavExtractableI::expandTo(TavModelI*, const char*, const char*) const {}

void TavExtractableI::display(std::ostream& os) const {
  if (_name) os << _name;
  else os << getRttiTypeName() << "(" << _id << ")";
}

void TavExtractableI::whenAddedToCP(TavAlgorithm, void*) const {}
void TavExtractableI::whenRemovedFromCP(TavAlgorithm, void*) const {}

// ---------------------------------------------------------------- changes

TavInt TavChange::_rttiIndex = 0;
TavChange::ApplyHook TavChange::_applyCP = nullptr;


void TavChange::visitChange(TavEnvI*, TavExtractableI*, TavChangeVisitor*) const {}

void TavChange::applyToCP(TavAlgorithm alg, void* data) const {
  if (_applyCP == nullptr) throw TavAlgorithm::CannotChangeException(alg.getImpl());
  _applyCP(alg, this, data);
}

// ---------------------------------------------------------------- algorithms

TavAlgorithmI::TavAlgorithmI(TavEnvI* env) : _env(env) {
  TavNeed(env)->_algorithms.push_back(this);
}

TavAlgorithmI::~TavAlgorithmI() {
  if (_registered && _env) {
    auto& list = _env->_algorithms;
    auto it = std::find(list.begin(), list.end(), this);
    if (it != list.end()) list.erase(it);
  }
}

double TavAlgorithmI::getValue(const TavConstraintI*) const {
  throw TavAlgorithm::Exception("TavAlgorithm: the constraint has no value");
}

TavEnv TavAlgorithm::getEnv() const { return TavEnv(_impl ? _impl->getEnv() : nullptr); }

void TavAlgorithm::end() {
  delete _impl;
  _impl = nullptr;
}

// ---------------------------------------------------------------- model evaluator

namespace {
// The evaluator's view as an algorithm: values come from the evaluator.
class EvaluatorReader : public TavAlgorithmI {
 public:
  EvaluatorReader(TavEnvI* env, const TavModelEvaluator* evaluator)
      : TavAlgorithmI(env, Detached()), _evaluator(evaluator) {}
  double getValue(const TavNumVarI* var) const override { return (double)_evaluator->getValue(var); }

 private:
  const TavModelEvaluator* _evaluator;
};
}  // namespace

TavModelEvaluator::TavModelEvaluator(TavEnvI* env) : _env(env), _reader(new EvaluatorReader(env, this)) {}

TavModelEvaluator::~TavModelEvaluator() = default;

void TavModelEvaluator::setVarValue(const TavNumVarI* var, TavInt value) { _values[var] = value; }

void TavModelEvaluator::clear() { _values.clear(); }

TavInt TavModelEvaluator::getValue(const TavNumVarI* var) const {
  auto it = _values.find(var);
  if (it == _values.end()) throw Unbound();
  return it->second;
}

// ---------------------------------------------------------------- tuple encoder

TavInt TavTupleEncoderI::encode(const TavInt* values, TavInt n) {
  std::vector<TavInt> key(values, values + n);
  auto it = _codes.find(key);
  if (it != _codes.end()) return it->second;
  TavInt code = (TavInt)_codes.size();
  _codes.emplace(std::move(key), code);
  return code;
}

// ---------------------------------------------------------------- environment

std::atomic<TavEnvI*> TavEnvI::_sole{nullptr};

namespace {
/// The live environments. Never destroyed: environments may end during
/// static destruction.
struct LiveEnvs {
  std::mutex lock;
  std::vector<TavEnvI*> envs;
};
LiveEnvs& liveEnvs() {
  static LiveEnvs* live = new LiveEnvs;
  return *live;
}
}  // namespace

/// Keeps the list of live environments and, from it, the sole one.
void TavPublishLiveEnv(TavEnvI* env, bool live) {
  LiveEnvs& l = liveEnvs();
  std::lock_guard<std::mutex> guard(l.lock);
  if (live) l.envs.push_back(env);
  else l.envs.erase(std::remove(l.envs.begin(), l.envs.end(), env), l.envs.end());
  TavEnvI::_sole.store(l.envs.size() == 1 ? l.envs.front() : nullptr, std::memory_order_release);
}

void TavEnvI::forgetClonesOf(const TavEnvI* ended) {
  if (_cloneTarget == ended) _cloneTarget = nullptr;
  // Read the owners from the chunk headers: a key may be an object destroyed since.
  for (auto it = _clones.begin(); it != _clones.end();) {
    if (TavMemory::EnvOf(it->first) == ended || TavMemory::EnvOf(it->second) == ended) it = _clones.erase(it);
    else ++it;
  }
}

TavEnvI::TavEnvI() : _memory(this), _terms(sizeof(TavNumLinExprTermI)) { TavPublishLiveEnv(this, true); }

TavEnvI::~TavEnvI() { end(); }

TavInt TavEnvI::registerNew(TavExtractableI* obj) {
  const TavInt id = (TavInt)_objects.size();
  // Destruction must not allocate (it runs in destructors and in the undo
  // of failed operations): room for every identifier to be freed and every
  // object to wait for destruction is made here, where failing is allowed.
  if (_freeIds.capacity() <= (std::size_t)id) _freeIds.reserve(2 * (std::size_t)id + 16);
  if (_pending.capacity() <= (std::size_t)id) _pending.reserve(2 * (std::size_t)id + 16);
  _objects.push_back(obj);
  try {
    _idTable.push_back(id);
  } catch (...) {
    _objects.pop_back();
    throw;
  }
  ++_liveObjects;
  return id;
}

void TavEnvI::unregisterObject(TavExtractableI* obj) {
  TavInt id = obj->getId();
  if (id < 0 || id >= (TavInt)_objects.size() || _objects[id] != obj) return;
  _objects[id] = nullptr;
  _idTable[id] = id;
  --_liveObjects;
  _freeIds.push_back(id);  // cannot allocate: capacity is reserved by registerObject
}

void** TavEnvI::getMarkArray() {
  MarkArray* free = nullptr;
  for (MarkArray& m : _markArrays)
    if (!m.inUse) {
      free = &m;
      break;
    }
  if (free == nullptr) {
    _markArrays.emplace_back();
    free = &_markArrays.back();
  }
  if (free->data.size() < _objects.size()) free->data.resize(_objects.size());
  free->inUse = true;
  return free->data.data();
}

void TavEnvI::releaseMarkArray(void** marks) {
  for (MarkArray& m : _markArrays)
    if (m.data.data() == marks) m.inUse = false;
}

TavExtractableI* TavEnvI::getClone(const TavExtractableI* source) const {
  auto it = _clones.find(source);
  return it == _clones.end() ? nullptr : it->second;
}

void TavEnvI::setClone(const TavExtractableI* source, TavExtractableI* clone) { _clones[source] = clone; }

namespace {
// Collects the direct children of one object.
class ChildCollector : public TavExtractableVisitor {
 public:
  std::vector<TavExtractableI*> children;
  void visitChild(TavExtractableI*, TavExtractableI* child) override {
    if (child) children.push_back(child);
  }
};
}  // namespace

TavExtractableI* TavEnvI::cloneInto(TavExtractableI* root, TavEnvI* target) {
  TavNeed(target);
  if (TavMemory::EnvOf(TavNeed(root)) != this) throw TavWrongUsage("cloneInto: the object is not of this Environment", 0);
  // A pass into another target starts afresh: a clone of one target is never
  // handed to another.
  if (target != _cloneTarget) {
    _clones.clear();
    _cloneTarget = target;
  }
  // Post-order walk with an explicit stack: children are cloned before their
  // parents, and deep chains do not exhaust the call stack.
  struct Frame {
    TavExtractableI* obj;
    bool expanded;
  };
  std::vector<std::pair<TavExtractableI*, TavExtractableI*>> made;  // (source, clone)
  try {
    std::vector<Frame> stack{{root, false}};
    while (!stack.empty()) {
      Frame f = stack.back();
      stack.pop_back();
      if (getClone(f.obj)) continue;
      if (!f.expanded) {
        stack.push_back({f.obj, true});
        ChildCollector c;
        f.obj->visitSubExtractables(&c);
        for (auto it = c.children.rbegin(); it != c.children.rend(); ++it)
          if (!getClone(*it)) stack.push_back({*it, false});
        continue;
      }
      if (made.size() == made.capacity()) made.reserve(2 * made.size() + 16);  // room first: the clone must be recorded
      TavExtractableI* clone = f.obj->makeClone(target);
      made.emplace_back(f.obj, clone);
      setClone(f.obj, clone);
      if (target != this) target->setClone(f.obj, clone);
    }
  } catch (...) {
    undoClones(made, target);
    throw;
  }
  return getClone(root);
}

void TavEnvI::undoClones(const std::vector<std::pair<TavExtractableI*, TavExtractableI*>>& made, TavEnvI* target) {
  for (const auto& m : made) {
    _clones.erase(m.first);
    target->_clones.erase(m.first);
  }
  // Parents were made after their children: ending the unheld clones from the
  // last one on frees every counted node once; what remains (variables, held
  // by no count) is destroyed after them.
  std::unordered_set<TavExtractableI*> alive;
  for (const auto& m : made) alive.insert(m.second);
  target->_undone = &alive;
  for (auto it = made.rbegin(); it != made.rend(); ++it)
    if (alive.count(it->second) && it->second->isRefCountedExpr() && !it->second->mayBeHeld()) it->second->end();
  for (auto it = made.rbegin(); it != made.rend(); ++it)
    if (alive.count(it->second)) target->destroy(it->second);
  target->_undone = nullptr;
}

void TavEnvI::destroy(TavExtractableI* obj, long) {
  if (_ending || obj == nullptr) return;
  if (_destroying) {
    // Destroying a parent releases its operands; queue them so that a long
    // chain is freed by this loop rather than by nested destructor calls.
    _pending.push_back(obj);
    return;
  }
  _destroying = true;
  try {
    destroyNow(obj);
    while (!_pending.empty()) {
      TavExtractableI* next = _pending.back();
      _pending.pop_back();
      destroyNow(next);
    }
  } catch (...) {
    _destroying = false;
    throw;
  }
  _destroying = false;
}

void TavEnvI::destroyNow(TavExtractableI* obj) {
  if (_undone) _undone->erase(obj);
  delete obj;
}

void TavEnvI::removeFromAllAndDestroy(TavExtractableI* obj, long) {
  if (_ending || obj == nullptr) return;
  TavInt id = obj->getId();
  // An object nothing can hold is destroyed at once: ending a chain of n
  // nodes then costs n steps, not n scans of the whole environment.
  if (id >= 0 && obj->mayBeHeld()) {
    _idTable[id] = -1;
    try {
      // Tell every other object; index-based since atRemove may destroy nodes.
      for (std::size_t i = 0; i < _objects.size(); ++i) {
        TavExtractableI* other = _objects[i];
        if (other && other != obj) other->atRemove(obj, nullptr);
      }
    } catch (...) {
      _idTable[id] = id;
      throw;
    }
    _idTable[id] = id;
  }
  destroy(obj, 0);
}

void TavEnvI::change(const TavChange& c) const {
  // Copy: an algorithm may unregister itself while being told.
  std::vector<TavAlgorithmI*> algs(_algorithms);
  for (TavAlgorithmI* a : algs) a->notifyChange(c);
}

TavModelEvaluator* TavEnvI::getModelEvaluator() {
  if (!_evaluator) _evaluator.reset(new TavModelEvaluator(this));
  return _evaluator.get();
}

TavTupleEncoderI* TavEnvI::getTupleEncoder() {
  if (!_tuples) _tuples.reset(new TavTupleEncoderI());
  return _tuples.get();
}

void TavEnvI::end() {
  if (_ended) return;
  _ending = true;
  TavPublishLiveEnv(this, false);
  {
    // No other environment keeps a pair that leads into this one.
    LiveEnvs& l = liveEnvs();
    std::lock_guard<std::mutex> guard(l.lock);
    for (TavEnvI* other : l.envs) other->forgetClonesOf(this);
  }
  // Algorithms made for the environment go with it; others are detached.
  std::vector<TavAlgorithmI*> algs;
  algs.swap(_algorithms);
  for (TavAlgorithmI* a : algs) {
    a->_registered = false;
    if (a->_ownedByEnv) delete a;
  }
  _evaluator.reset();
  _tuples.reset();
  // Every object lives in the environment's memory and holds nothing else,
  // so releasing the chunks frees them all without running destructors.
  _objects.clear();
  _idTable.clear();
  _freeIds.clear();
  _pending.clear();
  _markArrays.clear();
  _clones.clear();
  _sharedNum.clear();
  _sharedInt.clear();
  _terms.reset();
  _memory.releaseAll();
  _liveObjects = 0;
  _liveTerms = 0;
  _ended = true;
}

TavEnv::TavEnv() : _impl(new TavEnvI()) {}

void TavEnv::end() {
  delete _impl;
  _impl = nullptr;
}
