// Type conversions: construction, removal of variables with notification,
// cloning and display.
#include "conversion.h"

#include "checks.h"

TAV_DEFINE_NODE_STATICS(TavConversionI)
TAV_DEFINE_CHANGE_STATICS(TavConversionRemoveVar)

using tav_detail::need;

namespace {
/// env, once the handle is known to hold something: checked before the
/// base registers the object.
template <class H>
TavEnvI* checked(TavEnvI* env, const H& h) {
  need(h.getImpl());
  return env;
}

/// A new array of env holding var alone: one construction, which leaves
/// nothing behind when it fails.
TavNumVarArray oneVar(TavEnvI* env, TavNumVarI* var) {
  TavNumVarArray a(TavEnv(env), 1);
  a.setObject(0, var);
  return a;
}

/// A conversion over a copy of vars, both in the environment of vars's
/// memory; the copy goes again if the conversion cannot be made.
TavConversionI* overCopy(const TavArrayBase& vars, TavNumVar::Type type, const char* name) {
  const TavArrayI* source = need(vars.getImpl());
  TavEnvI* env = source->getEnv();
  TavNumVarArray copy(new (env) TavArrayI(source));
  try {
    return new (env) TavConversionI(env, copy, type, name);
  } catch (...) {
    copy.end();
    throw;
  }
}
}  // namespace

TavConversionI::TavConversionI(TavEnvI* env, TavNumVarArray vars, TavNumVar::Type type, const char* name)
    : TavNode(checked(env, vars), name), _vars(vars), _type(type) {}

TavConversionI::TavConversionI(TavEnvI* env, TavNumVar var, TavNumVar::Type type, const char* name)
    : TavNode(checked(env, var), name), _vars(oneVar(env, var.getImpl())), _type(type) {}

TavConversionI::~TavConversionI() { _vars.end(); }

void TavConversionI::removeVar(TavNumVar var) {
  TavNumVarI* v = need(var.getImpl());
  // An algorithm told of one removal may remove more: positions past the
  // current end are skipped.
  for (TavInt i = _vars.getSize() - 1; i >= 0; --i) {
    if (i >= _vars.getSize() || _vars.getElement(i) != v) continue;
    _vars.remove(i);
    TavNotify<TavConversionRemoveVar>(this, v, this);
  }
}

void TavConversionI::atRemove(TavExtractableI* removed, void*) {
  if (!getEnv()->isOneByOneRemoval()) {
    _vars.removeMarked();
  } else if (removed && removed->isType(TavNumVarI::GetTypeInfo())) {
    removeVar(TavNumVar(static_cast<TavNumVarI*>(removed)));
  }
}

void TavConversionI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  visitor->visitChildren(this, _vars);
  visitor->endVisit(this);
}

TavExtractableI* TavConversionI::makeClone(TavEnvI* env) const {
  // The array's replaceByClone, in an array that goes again when it cannot
  // be filled or the conversion cannot be made.
  TavNumVarArray vars = _vars.getClone(env);
  try {
    return new (env) TavConversionI(env, vars, _type, nullptr);
  } catch (...) {
    vars.end();
    throw;
  }
}

void TavConversionI::display(std::ostream& os) const {
  os << "TavConversionI" << " (";
  if (getName()) os << getName();
  else os << getId();
  os << ")" << std::endl;
  os << "  " << "vars" << " " << static_cast<const TavExtractableArray&>(_vars) << std::endl;
  os << "  " << "type" << " " << static_cast<int>(_type) << std::endl;
}

// ------------------------------------------------------------------ handle

// The variable is checked before its environment is read: an empty one
// fails with TavEmptyHandleException and nothing made.
TavConversion::TavConversion(TavEnv, TavNumVar var, TavNumVar::Type type, const char* name) : _impl(nullptr) {
  TavEnvI* env = need(var.getImpl())->getEnv();
  _impl = new (env) TavConversionI(env, var, type, name);
}

TavConversion::TavConversion(TavEnv, TavNumVarArray vars, TavNumVar::Type type, const char* name)
    : _impl(overCopy(vars, type, name)) {}

TavConversion::TavConversion(TavEnv, TavIntVarArray vars, TavNumVar::Type type, const char* name)
    : _impl(overCopy(vars, type, name)) {}

TavEnv TavConversion::getEnv() const { return TavEnv(need(_impl)->getEnv()); }

void TavConversion::end() {
  TavEndLive(_impl);
  _impl = nullptr;
}

void TavConversion::removeVar(TavNumVar var) const { need(_impl)->removeVar(var); }

void TavConversionRemoveVar::visitChange(TavEnvI*, TavExtractableI*, TavChangeVisitor* visitor) const {
  visitor->visitConversionRemoveVar(_conversion, _var);
}

std::ostream& operator<<(std::ostream& os, const TavConversion& c) { return TavPrintObject(os, c.getImpl()); }
