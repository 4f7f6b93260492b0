// Piecewise-linear and monotonic nodes: construction, evaluation, printing,
// visiting and cloning, and their builders.
#include "piecewise.h"

#include <limits>

#include "checks.h"

TAV_DEFINE_NODE_STATICS(TavExprPiecewiseLinearI)
TAV_DEFINE_NODE_STATICS(TavMonotonicNumExprI)

namespace tav_detail {

namespace {
constexpr double NotANumber = std::numeric_limits<double>::quiet_NaN();

/// a[i], or not-a-number past either end: sizes are not checked, and a
/// missing entry must not be read.
inline double entry(const TavNumArray& a, TavInt i) {
  return i >= 0 && i < a.getImpl()->getSize() ? a[i] : NotANumber;
}

/// Non-decreasing, and no not-a-number: then the walk's stopping tests hold
/// on a prefix (rightwards) or a suffix (leftwards) of the breakpoints.
bool sorted(const TavNumArray& p, TavInt n) {
  for (TavInt i = 0; i < n; ++i) {
    if (p[i] != p[i]) return false;
    if (i > 0 && !(p[i - 1] <= p[i])) return false;
  }
  return true;
}
}  // namespace

PiecewiseWalk::PiecewiseWalk(TavEnvI* env, TavInt form, const TavNumArray& breakpoints, const TavNumArray& second,
                             double first, double last)
    : _env(env),
      _breakpoints(breakpoints),
      _second(second),
      _slopeForm(form == 1),
      _n(breakpoints.getImpl()->getSize()),
      _start(0),
      _first(first),
      _last(last) {
  const TavNumArray& p = _breakpoints;
  const TavInt n = _n;
  // The scan compares with the first number in both forms; only a
  // breakpoint greater than it stops the scan.
  while (_start < n && !(p[_start] > first)) ++_start;
  const TavInt k = _start;

  if (!_slopeForm) {
    // The first and last segments use the end slopes (a division by 1 is
    // exact); any other start index the segment from P[k] to P[k+1].
    if (k == 0) {
      _base = entry(second, 0), _origin = entry(p, 0), _rise = first;
    } else if (k == n - 1) {
      _base = entry(second, n - 1), _origin = entry(p, n - 1), _rise = last;
    } else {
      _base = entry(second, k), _origin = entry(p, k);
      _rise = entry(second, k + 1) - entry(second, k);
      _run = entry(p, k + 1) - entry(p, k);
    }
    return;
  }
  if (!sorted(p, n)) return;

  _table = static_cast<double*>(env->alloc(sizeof(double) * (std::size_t)(3 * n + 2)));
  double* bp = _table;
  double* acc = bp + n;
  double* slope = acc + n + 1;
  for (TavInt i = 0; i < n; ++i) bp[i] = p[i];
  for (TavInt i = 0; i <= n; ++i) slope[i] = entry(second, i);
  // acc[t]: the running value when the walk ends on slope t. Rightwards a
  // walk that stops at breakpoint j ends on slope j; leftwards one that
  // stops below breakpoint t ends on slope t. Both start from acc[k].
  const double a = first;
  acc[k] = last;
  double value = last, cur = a;
  for (TavInt i = k; i < n; ++i) {
    if (i > 0 && bp[i - 1] == bp[i]) value += slope[i];
    else value += (bp[i] - cur) * slope[i];
    cur = bp[i];
    acc[i + 1] = value;
  }
  value = last, cur = a;
  for (TavInt i = k - 1; i >= 0; --i) {
    if (i < n - 1 && bp[i] == bp[i + 1]) value -= slope[i + 1];
    else value += (bp[i] - cur) * slope[i + 1];
    cur = bp[i];
    acc[i] = value;
  }
}

PiecewiseWalk::~PiecewiseWalk() {
  if (_table) _env->free(_table);
}

double PiecewiseWalk::valueAt(double x) const {
  if (!_slopeForm) return _base + (x - _origin) * _rise / _run;
  if (_table == nullptr) return walk(x);
  const TavInt n = _n, k = _start;
  const double* bp = _table;
  const double* acc = bp + n;
  const double* slope = acc + n + 1;
  const double a = _first;
  if (x >= a) {
    // The walk passes every breakpoint from k on that x reaches.
    TavInt lo = k, hi = n;
    while (lo < hi) {
      const TavInt mid = lo + (hi - lo) / 2;
      if (x >= bp[mid]) lo = mid + 1;
      else hi = mid;
    }
    const double cur = lo == k ? a : bp[lo - 1];
    return acc[lo] + (x - cur) * slope[lo];
  }
  // Leftwards it passes every breakpoint below k that is greater than x
  // (none when x is not-a-number).
  TavInt lo = 0, hi = k;
  while (lo < hi) {
    const TavInt mid = lo + (hi - lo) / 2;
    if (bp[mid] > x) hi = mid;
    else lo = mid + 1;
  }
  const double cur = lo == k ? a : bp[lo];
  return acc[lo] + (x - cur) * slope[lo];
}

double PiecewiseWalk::walk(double x) const {
  const TavNumArray& p = _breakpoints;
  const TavNumArray& s = _second;
  const TavInt n = _n;
  const double a = _first;
  double value = _last, cur = a;
  if (x >= a) {
    TavInt i = _start;
    for (; i < n && x >= p[i]; ++i) {
      if (i > 0 && p[i - 1] == p[i]) value += entry(s, i);
      else value += (p[i] - cur) * entry(s, i);
      cur = p[i];
    }
    return value + (x - cur) * entry(s, i);
  }
  TavInt i = _start - 1;
  for (; i >= 0 && p[i] > x; --i) {
    if (i < n - 1 && p[i] == p[i + 1]) value -= entry(s, i + 1);
    else value += (p[i] - cur) * entry(s, i + 1);
    cur = p[i];
  }
  return value + (x - cur) * entry(s, i + 1);
}

}  // namespace tav_detail

// ------------------------------------------------------------------ piecewise linear

template <class From>
TavExprPiecewiseLinearI::TavExprPiecewiseLinearI(TavEnvI* env, TavInt form, TavNumExprI* expr,
                                                 const From& breakpoints, const From& second, double first,
                                                 double last, int)
    : TavNode(env, nullptr),
      _form(form),
      _breakpoints(env, breakpoints),
      _second(env, second),
      _first(first),
      _last(last),
      _walk(env, form, _breakpoints.get(), _second.get(), first, last) {
  _expr.set(expr);
}

TavExprPiecewiseLinearI::TavExprPiecewiseLinearI(TavEnvI* env, TavNumExprI* expr, const TavNumArray& breakpoints,
                                                 const TavNumArray& slopes, double anchor, double anchorValue)
    : TavExprPiecewiseLinearI(env, SlopeForm, expr, breakpoints, slopes, anchor, anchorValue, 0) {}

TavExprPiecewiseLinearI::TavExprPiecewiseLinearI(TavEnvI* env, TavNumExprI* expr, double firstSlope,
                                                 const TavNumArray& breakpoints, const TavNumArray& values,
                                                 double lastSlope)
    : TavExprPiecewiseLinearI(env, ValueForm, expr, breakpoints, values, firstSlope, lastSlope, 0) {}

TavExprPiecewiseLinearI::TavExprPiecewiseLinearI(TavEnvI* env, TavInt form, TavNumExprI* expr,
                                                 const TavNumArray& breakpoints, const TavNumArray& second,
                                                 double first, double last)
    : TavExprPiecewiseLinearI(env, form, expr, breakpoints, second, first, last, 0) {}

// The same text in both syntaxes.
void TavExprPiecewiseLinearI::display(std::ostream& os) const {
  os << "piecewiselinear(";
  if (_expr) _expr.display(os);
  else os << "0 ";
  os << ", ";
  if (isSlopeForm()) {
    _breakpoints.display(os);
    os << ", ";
    _second.display(os);
    os << ", " << _first << ", " << _last;
  } else {
    os << _first << ", ";
    _breakpoints.display(os);
    os << ", ";
    _second.display(os);
    os << ", " << _last;
  }
  os << ")";
}

void TavExprPiecewiseLinearI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  _expr.visit(this, visitor);
  visitor->endVisit(this);
}

TavExtractableI* TavExprPiecewiseLinearI::makeClone(TavEnvI* env) const {
  return new (env) TavExprPiecewiseLinearI(env, _form, _expr.clone(this), _breakpoints.clone(this),
                                           _second.clone(this), _first, _last, 0);
}

// ------------------------------------------------------------------ monotonic

void TavMonotonicNumExprI::display(std::ostream& os) const {
  os << (_decreasing ? "TavMonotonicDecreasingNumExpr(" : "TavMonotonicIncreasingNumExpr(");
  _expr.display(os);
  os << ")";
}

void TavMonotonicNumExprI::visitSubExtractables(TavExtractableVisitor* visitor) {
  visitor->beginVisit(this);
  _expr.visit(this, visitor);
  visitor->endVisit(this);
}

TavExtractableI* TavMonotonicNumExprI::makeClone(TavEnvI* env) const {
  return new (env) TavMonotonicNumExprI(env, _expr.clone(this), _function, _secondFunction, _decreasing);
}

// ------------------------------------------------------------------ builders

TavNumExprArg TavPiecewiseLinear(const TavNumExprArg& x, const TavNumArray& breakpoints, const TavNumArray& slopes,
                                 double anchor, double anchorValue) {
  tav_detail::needAll(x, breakpoints, slopes);
  TavEnvI* env = x.getImpl()->getEnv();
  return TavNumExprArg(new (env) TavExprPiecewiseLinearI(env, x.getImpl(), breakpoints, slopes, anchor, anchorValue));
}

TavNumExprArg TavPiecewiseLinear(const TavNumExprArg& x, double firstSlope, const TavNumArray& breakpoints,
                                 const TavNumArray& values, double lastSlope) {
  tav_detail::needAll(x, breakpoints, values);
  TavEnvI* env = x.getImpl()->getEnv();
  return TavNumExprArg(
      new (env) TavExprPiecewiseLinearI(env, x.getImpl(), firstSlope, breakpoints, values, lastSlope));
}

namespace {
TavNumExprArg monotonic(const TavNumExprArg& x, TavMonotonicNumExprI::Function function,
                        TavMonotonicNumExprI::Function second, TavInt decreasing) {
  TavNumExprI* e = tav_detail::need(x);
  tav_detail::need(function);
  TavEnvI* env = e->getEnv();
  return TavNumExprArg(new (env) TavMonotonicNumExprI(env, e, function, second, decreasing));
}
}  // namespace

TavNumExprArg TavMonotonicDecreasingNumExpr(const TavNumExprArg& x, double (*function)(double),
                                            double (*second)(double)) {
  return monotonic(x, function, second, 1);
}

TavNumExprArg TavMonotonicIncreasingNumExpr(const TavNumExprArg& x, double (*function)(double),
                                            double (*second)(double)) {
  return monotonic(x, function, second, 0);
}
