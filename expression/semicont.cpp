// Semi-continuous variables, their threshold record and array, and the
// constraint indicator variable.
#include "semicont.h"

#include "checks.h"

using tav_detail::envOf;
using tav_detail::need;
using tav_detail::needAll;

TAV_DEFINE_NODE_STATICS(TavSemiContVarI)
TAV_DEFINE_NODE_STATICS(TavConstraintIndVarI)
TAV_DEFINE_CHANGE_STATICS(TavSetSemiContBound)

// ------------------------------------------------------------------ TavSemiContVarI

TavSemiContVarI::TavSemiContVarI(TavEnvI* env, double threshold, const char* name)
    : TavNode(env, name), _threshold(threshold) {}

TavSemiContVarI::TavSemiContVarI(TavEnvI* env, double threshold, double ub, TavNumVar::Type type, const char* name)
    : TavNode(env, type, 0.0, ub, name), _threshold(threshold) {}

void TavSemiContVarI::setBd(double v) {
  if (v == _threshold) return;
  const double old = _threshold;
  _threshold = v;
  TavNotify<TavSetSemiContBound>(this, this, old, v);
}

void TavSemiContVarI::display(std::ostream& os) const {
  os << "TavSemiContI" << " (";
  if (_name) os << _name;
  else os << _id;
  os << ")" << '\n';
  TavNumVarI::display(os);
  os << "  " << "_threshold" << " " << _threshold << '\n';
}

TavExtractableI* TavSemiContVarI::makeClone(TavEnvI* env) const {
  return new (env) TavSemiContVarI(env, _threshold, nullptr);
}

// ------------------------------------------------------------------ TavSemiContVar

namespace {
/// The registered clone as a semi-continuous variable.
TavSemiContVar registered(TavExtractableI* clone) {
  if (clone && !clone->isType(TavSemiContVarI::GetTypeInfo())) throw TavBadConversion();
  return TavSemiContVar(static_cast<TavSemiContVarI*>(clone));
}
}  // namespace

TavSemiContVar::TavSemiContVar(TavEnv env, double sclb, double ub, TavNumVar::Type type, const char* name)
    : TavNumVar(new (envOf(env)) TavSemiContVarI(env.getImpl(), sclb, ub, type, name)) {}

TavSemiContVar::TavSemiContVar(const TavAddNumVar& column, double sclb, double ub, TavNumVar::Type type,
                               const char* name)
    : TavNumVar(tav_detail::installed(column, new (envOf(column)) TavSemiContVarI(envOf(column), sclb, ub, type, name))) {}

double TavSemiContVar::getSemiContinuousLb() const { return need(getImpl())->getThreshold(); }
void TavSemiContVar::setSemiContinuousLb(double v) const { need(getImpl())->setBd(v); }

TavSemiContVar TavSemiContVar::getClone() const {
  TavSemiContVarI* self = need(getImpl());
  return registered(self->getEnv()->getClone(self));
}

TavSemiContVar TavSemiContVar::getClone(TavEnv env) const {
  TavSemiContVarI* self = need(getImpl());
  return registered(envOf(env)->getClone(self));
}

void TavSemiContVar::setClone(TavSemiContVar clone) const {
  TavSemiContVarI* self = need(getImpl());
  self->getEnv()->setClone(self, clone.getImpl());
}

void TavSemiContVar::setClone(TavSemiContVar clone, TavEnv env) const {
  TavSemiContVarI* self = need(getImpl());
  envOf(env)->setClone(self, clone.getImpl());
}

// ------------------------------------------------------------------ TavSemiContVarArray

const char* const TavSemiContVarArray::ListMessages[11] =
    TAV_LIST_MESSAGES("TavSemiContVarArray::TavSemiContVarArray: n !=");

namespace {
const char* const PairMessage =
    "TavSemiContVarArray::TavSemiContVarArray: upper bound array shorter than the threshold array";
const char* const ColumnMessage =
    "TavSemiContVarArray::TavSemiContVarArray: bound arrays shorter than the column array";
}  // namespace

TavSemiContVarArray::TavSemiContVarArray(TavEnv env, TavInt n, double sclb, double ub, TavNumVar::Type type)
    : TavHandleArray(tav_detail::buildArray<TavSemiContVarArray>(envOf(env), n, [&](TavInt) {
        return new (env.getImpl()) TavSemiContVarI(env.getImpl(), sclb, ub, type);
      })) {}

namespace {
TavArrayI* fromBounds(TavEnv env, TavNumArray sclbs, TavNumArray ubs, TavNumVar::Type type) {
  TavEnvI* e = envOf(env);
  needAll(sclbs, ubs);
  const TavInt n = sclbs.getSize();
  tav_detail::needLength(n, PairMessage, ubs);
  return tav_detail::buildArray<TavSemiContVarArray>(
      e, n, [&](TavInt i) { return new (e) TavSemiContVarI(e, sclbs[i], ubs[i], type); });
}

TavArrayI* fromColumns(TavEnv env, TavNumColumnArray cols, TavNumArray sclbs, TavNumArray ubs,
                       TavNumVar::Type type) {
  TavEnvI* e = envOf(env);
  needAll(cols, sclbs, ubs);
  const TavInt n = cols.getSize();
  tav_detail::needLength(n, ColumnMessage, sclbs, ubs);
  return tav_detail::fromColumns<TavSemiContVarArray>(e, cols, [&](TavNumColumn c, TavInt i) {
    return TavSemiContVar(c, sclbs[i], ubs[i], type).getImpl();
  });
}
}  // namespace

TavSemiContVarArray::TavSemiContVarArray(TavEnv env, TavNumArray sclbs, TavNumArray ubs, TavNumVar::Type type)
    : TavHandleArray(fromBounds(env, sclbs, ubs, type)) {}

TavSemiContVarArray::TavSemiContVarArray(TavEnv env, TavNumColumnArray cols, TavNumArray sclbs, TavNumArray ubs,
                                         TavNumVar::Type type)
    : TavHandleArray(fromColumns(env, cols, sclbs, ubs, type)) {}

// ------------------------------------------------------------------ TavConstraintIndVarI

TavConstraintIndVarI::TavConstraintIndVarI(TavEnvI* env, TavConstraintI* ct)
    : TavNode(env, TavNumVar::Int, 0.0, 1.0, nullptr), _ct(ct) {}

void TavConstraintIndVarI::display(std::ostream& os) const {
  TavDeepCall([ct = _ct, &os] { ct->display(os); });
}

void TavConstraintIndVarI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  visitor->visitChild(this, _ct);
  visitor->endVisit(this);
}

TavExtractableI* TavConstraintIndVarI::makeClone(TavEnvI* env) const {
  TavExtractableI* clone = need(env)->getClone(_ct);
  if (clone == nullptr || !clone->isType(TavConstraintI::GetTypeInfo()))
    throw TavWrongUsage("TavConstraintIndVarI::makeClone: the constraint has no clone in the target environment", 0);
  return new (env) TavConstraintIndVarI(env, static_cast<TavConstraintI*>(clone));
}
