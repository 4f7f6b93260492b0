// Scalars, numeric helpers, run-time type tokens and the exception family of
// the host layer. Everything else in the library builds on these names.
#ifndef TAV_HOST_BASE_H
#define TAV_HOST_BASE_H

#include <cstddef>
#include <exception>
#include <ostream>
#include <string>

typedef long TavInt;
typedef double TavNum;
typedef bool TavBool;

static_assert(sizeof(TavInt) == 8, "TavInt must be a signed 64-bit integer");

#if defined(__GNUC__)
#define TAV_LIKELY(x) __builtin_expect(!!(x), 1)
#define TAV_UNLIKELY(x) __builtin_expect(!!(x), 0)
#else
#define TAV_LIKELY(x) (x)
#define TAV_UNLIKELY(x) (x)
#endif

/// The value used for unbounded bounds (IEEE infinity).
double TavGetInfinity();
/// Rounds to the nearest integer, halves away from zero; not-a-number stays so.
double TavRound(double x);
/// Truncates towards zero; saturates outside the 64-bit range, NaN gives 0.
TavInt TavTrunc(double x);
/// Rounding of the modelling-language layer: nearest, halves towards +inf;
/// not-a-number stays so.
double TavVurRound(double x);

/// A type token: the address of a class's own type-index static, a writable
/// object, so that no linker folds the tokens of two classes into one.
typedef const void* TavTypeInfo;

/// Process-wide counter from which classes draw their type index.
struct TavRtti {
  static TavInt _counter;
};

/// Lock interface used for type-index assignment and per-variable marks.
class TavMutex {
 public:
  virtual ~TavMutex() = default;
  virtual void lock() {}
  virtual void unlock() {}
};

/// Base of every failure the library reports. what() is the message.
class TavException : public std::exception {
 public:
  explicit TavException(const char* message = nullptr, long code = 0);
  /// The message, or null for the failures that carry none.
  const char* getMessage() const { return _hasMessage ? _message.c_str() : nullptr; }
  long getCode() const { return _code; }
  virtual void print(std::ostream& os) const;
  void end() {}
  const char* what() const noexcept override;

 protected:
  /// Text for what() when there is no message.
  virtual const char* defaultText() const noexcept { return "TavException"; }

 private:
  std::string _message;
  bool _hasMessage;
  long _code;
};

#define TAV_EXCEPTION_CLASS(Name, Base)                                 \
  class Name : public Base {                                            \
   public:                                                              \
    explicit Name(const char* message = nullptr, long code = 0)         \
        : Base(message, code) {}                                        \
                                                                        \
   protected:                                                           \
    const char* defaultText() const noexcept override { return #Name; } \
  };

TAV_EXCEPTION_CLASS(TavWrongUsage, TavException)
TAV_EXCEPTION_CLASS(TavEmptyHandleException, TavException)
TAV_EXCEPTION_CLASS(TavNotImplemented, TavException)
TAV_EXCEPTION_CLASS(TavNotSupportedOperation, TavException)
TAV_EXCEPTION_CLASS(TavBadConversion, TavException)
TAV_EXCEPTION_CLASS(TavArrayError, TavException)

/// The pointer behind a handle, or TavEmptyHandleException when it is null:
/// the one empty-handle check of every layer.
template <class P>
P* TavNeed(P* p) {
  if (TAV_UNLIKELY(p == nullptr)) throw TavEmptyHandleException();
  return p;
}

std::ostream& operator<<(std::ostream& os, const TavException& e);

#endif
