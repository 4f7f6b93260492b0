// Numeric helpers, the type counter and the exception base.
#include "base.h"

#include <cmath>
#include <limits>

TavInt TavRtti::_counter = 0;

double TavGetInfinity() { return std::numeric_limits<double>::infinity(); }

TavInt TavTrunc(double x) {
  // Saturate: a cast of an out-of-range double is undefined.
  if (std::isnan(x)) return 0;
  if (x >= 9223372036854775807.0) return std::numeric_limits<TavInt>::max();
  if (x <= -9223372036854775808.0) return std::numeric_limits<TavInt>::min();
  return (TavInt)x;
}

double TavRound(double x) { return std::round(x); }

double TavVurRound(double x) { return std::floor(x + 0.5); }

TavException::TavException(const char* message, long code)
    : _message(message ? message : ""), _hasMessage(message != nullptr), _code(code) {}

void TavException::print(std::ostream& os) const { os << what(); }

const char* TavException::what() const noexcept { return _hasMessage ? _message.c_str() : defaultText(); }

std::ostream& operator<<(std::ostream& os, const TavException& e) {
  e.print(os);
  return os;
}
