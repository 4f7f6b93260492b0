// The statics of the product, quotient, minimum, maximum, remainder and
// power rows, their generated builders (integer quotients, minimum, maximum,
// powers),
// and the number-array forms of minimum and maximum.
#include "arithmetic.h"

#include "builders.h"
#include "functions.h"

TAV_PRODUCT_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS)
TAV_MINMAX_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS, TAV_ROW_STATICS)
TAV_MODULO_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS)
TAV_POWER_FAMILY(TAV_ROW_STATICS, TAV_ROW_STATICS)

TAV_PRODUCT_FAMILY(TAV_CST_BUILDER, TAV_BINARY_BUILDER)
TAV_MINMAX_FAMILY(TAV_CST_BUILDER, TAV_BINARY_BUILDER, TAV_ARRAY_BUILDER)
TAV_MODULO_FAMILY(TAV_CST_BUILDER, TAV_BINARY_BUILDER)
TAV_POWER_FAMILY(TAV_CST_BUILDER, TAV_BINARY_BUILDER)

// The power's own message says "environments" in lower case.
TavNumExprArg TavPower(const TavNumExprArg& x, const TavNumExprArg& y) {
  return tav_detail::binaryNode<TavNumPowerI>(x, y, "TavPower: mixing mismatch environments");
}

namespace {
/// The first number of a for which better(it, running) never holds, at once.
template <class T, class Better>
T pick(const TavValueArray<T>& a, const char* emptyMessage, Better better) {
  const TavInt n = a.getSize();
  if (n == 0) throw TavArrayError(emptyMessage, 0);
  T m = a[0];
  for (TavInt i = 0; i < n; ++i)
    if (better(a[i], m)) m = a[i];
  return m;
}
// The same tests as the array rows' Better.
template <class T>
bool less(T v, T m) {
  return m > v;
}
template <class T>
bool greater(T v, T m) {
  return v > m;
}
}  // namespace

double TavMin(const TavNumArray& a) { return pick(a, "Array of size 0 in call to TavMin", less<double>); }
TavInt TavMin(const TavIntArray& a) { return pick(a, "Array of size 0 in call to TavMin", less<TavInt>); }
double TavMax(const TavNumArray& a) { return pick(a, "Array of size 0 in call to TavMax", greater<double>); }
TavInt TavMax(const TavIntArray& a) { return pick(a, "Array of size 0 in call to TavMax", greater<TavInt>); }
