// The node protocol, written once: type identity, CP hooks and change-record
// hooks as CRTP bases. A node class states only its fields, construction,
// eval, display and operands:
//
//   class TavSinI final : public TavNode<TavSinI, TavNumExprI> {
//     TAV_NODE_STATICS
//    public:
//     static constexpr const char* RttiName = "TavSinI";
//     ...
//   };
//   TAV_DEFINE_NODE_STATICS(TavSinI)   // once, in the family's source file
#ifndef TAV_EXPRESSION_PROTOCOL_H
#define TAV_EXPRESSION_PROTOCOL_H

#include <type_traits>
#include <utility>

#include "array.h"
#include "domain.h"
#include "env.h"

/// Declares the statics every node class owns: its type index, whose address
/// is also the class's type token (a writable object, so no linker can fold
/// two classes into one), and its three CP hooks. Define them once, in a
/// source file, with TAV_DEFINE_NODE_STATICS.
#define TAV_NODE_STATICS                             \
 public:                                             \
  auto tavStaticsOwner() const -> decltype(this);    \
  static TavInt _rttiIndex;                          \
  static TavExtractableI::ExtractHook _extractCP;    \
  static TavExtractableI::ObjectHook _unextractCP;   \
  static TavExtractableI::ObjectHook _modifyCP;

#define TAV_DEFINE_NODE_STATICS(Class)                           \
  TavInt Class::_rttiIndex = 0;                                  \
  TavExtractableI::ExtractHook Class::_extractCP = nullptr;      \
  TavExtractableI::ObjectHook Class::_unextractCP = nullptr;     \
  TavExtractableI::ObjectHook Class::_modifyCP = nullptr;

/// The statics of a change-record class: type index (and token) and apply hook.
#define TAV_CHANGE_STATICS                         \
 public:                                           \
  auto tavStaticsOwner() const -> decltype(this);  \
  static TavInt _rttiIndex;                        \
  static TavChange::ApplyHook _applyCP;

#define TAV_DEFINE_CHANGE_STATICS(Class) \
  TavInt Class::_rttiIndex = 0;          \
  TavChange::ApplyHook Class::_applyCP = nullptr;

/// Type identity of Self, whose direct base is Base. Self declares its own
/// statics (TAV_NODE_STATICS or TAV_CHANGE_STATICS).
template <class Self, class Base>
class TavTyped : public Base {
 public:
  using Base::Base;

  static TavTypeInfo GetBaseTypeInfo() { return Base::GetTypeInfo(); }
  /// The class's token: the address of its own type-index static.
  static TavTypeInfo GetTypeInfo() {
    // tavStaticsOwner() names the class whose statics macro declared it.
    static_assert(std::is_same<decltype(std::declval<const Self&>().tavStaticsOwner()), const Self*>::value,
                  "a node class declares its own statics (TAV_NODE_STATICS or TAV_CHANGE_STATICS)");
    return &Self::_rttiIndex;
  }
  static TavInt GetTypeIndex() {
    InitTypeIndex();
    return TavLoadTypeIndex(Self::_rttiIndex);
  }
  static void InitTypeIndex() { TavAssignTypeIndex(Self::_rttiIndex); }
  static const char* GetRttiTypeName() { return Self::RttiName; }
  static TavInt GetExtractableSize() { return sizeof(Self); }

  /// Reads the index without assigning it: 0 until GetTypeIndex() ran.
  TavInt getTypeIndex() const override { return TavLoadTypeIndex(Self::_rttiIndex); }
  TavTypeInfo getTypeInfo() const override { return GetTypeInfo(); }
  bool isType(TavTypeInfo t) const override { return t == GetTypeInfo() || Base::isType(t); }
  const char* getRttiTypeName() const override { return Self::RttiName; }
  TavInt getExtractableSize() const override { return sizeof(Self); }
  TavTypeInfo getBaseTypeInfo() const override { return Base::GetTypeInfo(); }
  TavInt getBaseTypeIndex() const override { return Base::GetTypeIndex(); }
};

/// Type identity plus the three CP hooks of a model-object class. A class
/// never falls back to its base's hooks.
template <class Self, class Base>
class TavNode : public TavTyped<Self, Base> {
 public:
  using TavTyped<Self, Base>::TavTyped;

  void* extractToCP(TavAlgorithm alg) const override { return TavRunHook(Self::_extractCP, alg, this); }
  void unextractFromCP(TavAlgorithm alg, void* obj) const override {
    TavRunHook<TavAlgorithm::RemoveFailure>(Self::_unextractCP, alg, this, obj);
  }
  /// An unset modify hook fails as a remove failure.
  void modifyCP(TavAlgorithm alg, void* obj) const override {
    TavRunHook<TavAlgorithm::RemoveFailure>(Self::_modifyCP, alg, this, obj);
  }
};

/// Type identity plus the apply hook of a change-record class.
template <class Self, class Base = TavChange>
class TavChangeNode : public TavTyped<Self, Base> {
 public:
  using TavTyped<Self, Base>::TavTyped;

  void applyToCP(TavAlgorithm alg, void* data) const override {
    if (Self::_applyCP == nullptr) throw TavAlgorithm::CannotChangeException(alg.getImpl());
    Self::_applyCP(alg, this, data);
  }
};

/// Builds a stack record, hands it on, and lets it go even when delivery throws.
template <class Record, class... Args>
void TavNotify(const TavExtractableI* source, Args... args) {
  Record record(args...);
  source->notify(record);
}

#endif
