// Scalars, numeric helpers, run-time type tokens and the exception family of
// the host layer. Everything else in the library builds on these names.
#ifndef TAV_HOST_BASE_H
#define TAV_HOST_BASE_H

#include <cstddef>
#include <exception>
#include <ostream>
#include <string>

/// The library's integer: signed 64 bits.
typedef long TavInt;
/// The library's floating-point number.
typedef double TavNum;
/// The library's Boolean.
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

/// A call the library refuses: bad arguments, objects of two environments, an ended object.
TAV_EXCEPTION_CLASS(TavWrongUsage, TavException)
/// A handle used while empty (it points to no object).
TAV_EXCEPTION_CLASS(TavEmptyHandleException, TavException)
/// A request the library does not carry out, such as cloning an object that has no clone.
TAV_EXCEPTION_CLASS(TavNotImplemented, TavException)
/// A request the object's kind does not allow, such as an integer variable from doubles.
TAV_EXCEPTION_CLASS(TavNotSupportedOperation, TavException)
/// An object that cannot be seen as the type asked, such as a continuous variable as Boolean.
TAV_EXCEPTION_CLASS(TavBadConversion, TavException)
/// An array unfit for its use: empty, with an empty element, or indexed out of range.
TAV_EXCEPTION_CLASS(TavArrayError, TavException)

/// The pointer behind a handle, or TavEmptyHandleException when it is null:
/// the one empty-handle check of every layer.
template <class P>
P* TavNeed(P* p) {
  if (TAV_UNLIKELY(p == nullptr)) throw TavEmptyHandleException();
  return p;
}

/// Prints the exception as its print() does.
std::ostream& operator<<(std::ostream& os, const TavException& e);

#endif
