// The node protocol, written once: type identity, CP hooks and change-record
// hooks as CRTP bases. A node class states only its fields, construction,
// eval, display and operands:
//
//   class TavSinI final : public TavNode<TavSinI, TavNumExprI> {
//    public:
//     static constexpr const char* RttiName = "TavSinI";
//     ...
//   };
#ifndef TAV_EXPRESSION_PROTOCOL_H
#define TAV_EXPRESSION_PROTOCOL_H

#include "array.h"
#include "domain.h"
#include "env.h"

/// Type identity of Self, whose direct base is Base.
template <class Self, class Base>
class TavTyped : public Base {
 public:
  using Base::Base;

  static TavTypeInfo GetBaseTypeInfo() { return Base::GetTypeInfo(); }
  /// The class's token: the address of its own GetBaseTypeInfo.
  static TavTypeInfo GetTypeInfo() { return reinterpret_cast<TavTypeInfo>(&TavTyped::GetBaseTypeInfo); }
  static TavInt GetTypeIndex() {
    InitTypeIndex();
    return _rttiIndex;
  }
  static void InitTypeIndex() { TavAssignTypeIndex(_rttiIndex); }
  static const char* GetRttiTypeName() { return Self::RttiName; }
  static TavInt GetExtractableSize() { return sizeof(Self); }

  /// Reads the index without assigning it: 0 until GetTypeIndex() ran.
  TavInt getTypeIndex() const override { return _rttiIndex; }
  TavTypeInfo getTypeInfo() const override { return GetTypeInfo(); }
  bool isType(TavTypeInfo t) const override { return t == GetTypeInfo() || Base::isType(t); }
  const char* getRttiTypeName() const override { return Self::RttiName; }
  TavInt getExtractableSize() const override { return sizeof(Self); }
  TavTypeInfo getBaseTypeInfo() const override { return Base::GetTypeInfo(); }
  TavInt getBaseTypeIndex() const override { return Base::GetTypeIndex(); }

  static TavInt _rttiIndex;
};

template <class Self, class Base>
TavInt TavTyped<Self, Base>::_rttiIndex = 0;

/// Type identity plus the three CP hooks of a model-object class. A class
/// never falls back to its base's hooks.
template <class Self, class Base>
class TavNode : public TavTyped<Self, Base> {
 public:
  using TavTyped<Self, Base>::TavTyped;

  void* extractToCP(TavAlgorithm alg) const override {
    if (_extractCP == nullptr) throw TavAlgorithm::ExtractFailure();
    return _extractCP(alg, this);
  }
  void unextractFromCP(TavAlgorithm alg, void* obj) const override {
    if (_unextractCP == nullptr) throw TavAlgorithm::RemoveFailure();
    _unextractCP(alg, this, obj);
  }
  /// An unset modify hook fails as a remove failure.
  void modifyCP(TavAlgorithm alg, void* obj) const override {
    if (_modifyCP == nullptr) throw TavAlgorithm::RemoveFailure();
    _modifyCP(alg, this, obj);
  }

  static TavExtractableI::ExtractHook _extractCP;
  static TavExtractableI::ObjectHook _unextractCP;
  static TavExtractableI::ObjectHook _modifyCP;
};

template <class Self, class Base>
TavExtractableI::ExtractHook TavNode<Self, Base>::_extractCP = nullptr;
template <class Self, class Base>
TavExtractableI::ObjectHook TavNode<Self, Base>::_unextractCP = nullptr;
template <class Self, class Base>
TavExtractableI::ObjectHook TavNode<Self, Base>::_modifyCP = nullptr;

/// Type identity plus the apply hook of a change-record class.
template <class Self, class Base = TavChange>
class TavChangeNode : public TavTyped<Self, Base> {
 public:
  using TavTyped<Self, Base>::TavTyped;

  void applyToCP(TavAlgorithm alg, void* data) const override {
    if (_applyCP == nullptr) throw TavAlgorithm::CannotChangeException(alg.getImpl());
    _applyCP(alg, this, data);
  }

  static TavChange::ApplyHook _applyCP;
};

template <class Self, class Base>
TavChange::ApplyHook TavChangeNode<Self, Base>::_applyCP = nullptr;

/// Builds a stack record, hands it on, and lets it go even when delivery throws.
template <class Record, class... Args>
void TavNotify(const TavExtractableI* source, Args... args) {
  Record record(args...);
  source->notify(record);
}

#endif
