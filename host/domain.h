// Variable domains: bounds, type and value lists of decision variables,
// shared between variables through the environment or private to one.
#ifndef TAV_HOST_DOMAIN_H
#define TAV_HOST_DOMAIN_H

#include <ostream>

#include "array.h"
#include "base.h"
#include "object.h"

/// Variable kinds as the domains report them (the values of TavNumVar::Type).
enum TavDomainType { TavDomainInt = 1, TavDomainFloat = 2, TavDomainBool = 3 };

/// Largest integer a double holds exactly: the default integer bound.
constexpr TavInt TavIntMaxExact = 9007199254740991L;

/// The domain of a variable: an interval or a list of values, possibly shared by several variables.
class TavVarDomainI : public TavMemoryManagerObjectI {
 public:
  virtual ~TavVarDomainI();
  virtual double getLB() const = 0;
  virtual void setLB(double lb) = 0;
  virtual double getUB() const = 0;
  virtual void setUB(double ub) = 0;
  virtual int getType() const = 0;
  /// Whether v lies in the domain.
  virtual bool contains(double v) const;
  /// Number of listed values (0 for an interval).
  virtual TavInt getValueCount() const;
  virtual bool isEnumerated() const { return false; }
  virtual bool isAnyDomain() const { return false; }
  virtual TavNumArray getNumValues() const { return TavNumArray(); }
  virtual TavIntArray getIntValues() const { return TavIntArray(); }
  virtual void setNumValues(TavNumArray values);
  virtual void setIntValues(TavIntArray values);
  /// Destroys a private domain and its value list.
  virtual void end(TavEnvI* env);
  virtual void display(std::ostream& os) const = 0;
  virtual TavVarDomainI* makeCopy(TavEnvI* env) const = 0;
  virtual bool isShared() const { return _shared; }

  /// Marks a domain as owned by the environment.
  void setShared() { _shared = true; }

 protected:
  bool _shared = false;
};

/// What a domain of values of type T needs: its array type, its kind, a value of type T from a double.
template <class T>
struct TavDomainTraits;
/// The traits of a domain of doubles (a continuous variable).
template <>
struct TavDomainTraits<double> {
  typedef TavNumArray Array;
  static constexpr int Type = TavDomainFloat;
  static double of(double v) { return v; }
};
/// The traits of a domain of integers (truncated values).
template <>
struct TavDomainTraits<TavInt> {
  typedef TavIntArray Array;
  static constexpr int Type = TavDomainInt;
  static TavInt of(double v) { return TavTrunc(v); }
};

/// An interval, or a list of values of type T whose extremes are the bounds.
template <class T>
class TavListDomainI : public TavVarDomainI {
 public:
  typedef typename TavDomainTraits<T>::Array Array;
  TavListDomainI(T lb, T ub) : _lb(lb), _ub(ub) {}
  /// Takes the array over (callers pass a copy).
  explicit TavListDomainI(Array values);
  double getLB() const override { return (double)_lb; }
  void setLB(double lb) override { _lb = TavDomainTraits<T>::of(lb); }
  double getUB() const override { return (double)_ub; }
  void setUB(double ub) override { _ub = TavDomainTraits<T>::of(ub); }
  int getType() const override { return TavDomainTraits<T>::Type; }
  bool contains(double v) const override;
  TavInt getValueCount() const override { return _values.getImpl() ? _values.getSize() : 0; }
  bool isEnumerated() const override { return _values.getImpl() != nullptr; }
  void end(TavEnvI* env) override;
  void display(std::ostream& os) const override;

 protected:
  /// Ends the list in place and takes values over, with its extremes as bounds.
  void replaceValues(Array values);
  /// A domain D of env with a copy of the list (the bounds as they stand),
  /// built with the extra constructor arguments of D.
  template <class D, class... Extra>
  TavVarDomainI* copyAs(TavEnvI* env, Extra... extra) const;

  T _lb, _ub;
  Array _values;
};

/// Continuous domain: an interval, or a list of values.
class TavNumVarDomainI : public TavListDomainI<double> {
 public:
  using TavListDomainI::TavListDomainI;
  TavNumArray getNumValues() const override { return _values; }
  void setNumValues(TavNumArray values) override { replaceValues(values); }
  TavVarDomainI* makeCopy(TavEnvI* env) const override { return copyAs<TavNumVarDomainI>(env); }
};

/// Integer domain: an interval, a list of integers, or a list of arbitrary
/// objects coded as integers (anyFlag 1).
class TavIntVarDomainI : public TavListDomainI<TavInt> {
 public:
  TavIntVarDomainI(TavInt lb, TavInt ub, TavInt flag = 0) : TavListDomainI(lb, ub), _any(flag != 0) {}
  /// Takes the array over (callers pass a copy).
  TavIntVarDomainI(TavIntArray values, TavInt anyFlag) : TavListDomainI(values), _any(anyFlag != 0) {}
  bool isAnyDomain() const override { return _any; }
  TavIntArray getIntValues() const override { return _values; }
  void setIntValues(TavIntArray values) override { replaceValues(values); }
  TavVarDomainI* makeCopy(TavEnvI* env) const override { return copyAs<TavIntVarDomainI>(env, (TavInt)(_any ? 1 : 0)); }

 private:
  bool _any;
};

/// Boolean domain: bounds within {0, 1}.
class TavBoolVarDomainI : public TavVarDomainI {
 public:
  TavBoolVarDomainI(TavInt lb, TavInt ub) : _lb(lb), _ub(ub) {}
  double getLB() const override { return (double)_lb; }
  void setLB(double lb) override { _lb = TavTrunc(lb); }
  double getUB() const override { return (double)_ub; }
  void setUB(double ub) override { _ub = TavTrunc(ub); }
  int getType() const override { return TavDomainBool; }
  void display(std::ostream& os) const override;
  TavVarDomainI* makeCopy(TavEnvI* env) const override;

 private:
  TavInt _lb, _ub;
};

#endif
