// Helpers shared by the test files: printing handles and nodes to text,
// recording a visit, and reading the message of an expected exception.
#ifndef TAV_TEST_SUPPORT_H
#define TAV_TEST_SUPPORT_H

#include <cmath>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tavexpression.h"

namespace tavtest {

/// What operator<< prints for h.
template <class H>
std::string show(const H& h) {
  std::ostringstream os;
  os << h;
  return os.str();
}

/// What a node's own display prints.
inline std::string showNode(const TavExtractableI* n) {
  std::ostringstream os;
  n->display(os);
  return os.str();
}

/// What a visit of n reports: n (begin), each child in order, n (end).
inline std::vector<const TavExtractableI*> visitOf(TavExtractableI* n) {
  struct Log : TavExtractableVisitor {
    std::vector<const TavExtractableI*> seen;
    void beginVisit(TavExtractableI* p) override { seen.push_back(p); }
    void visitChild(TavExtractableI*, TavExtractableI* c) override { seen.push_back(c); }
    void endVisit(TavExtractableI* p) override { seen.push_back(p); }
  } log;
  n->visitSubExtractables(&log);
  return log.seen;
}

/// The message of the E thrown by f, "<none>" for a message-less one, or a
/// marker telling what went wrong instead.
template <class E, class F>
std::string messageOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.getMessage() ? e.getMessage() : "<none>";
  } catch (const std::exception& e) {
    return std::string("<other: ") + e.what() + ">";
  }
  return "<no throw>";
}

/// A fresh environment with two continuous (x, y) and two integer (i, j)
/// named variables in [lo, hi].
struct NamedVars {
  explicit NamedVars(TavInt lo = 0, TavInt hi = 10)
      : x(env, (double)lo, (double)hi, TavNumVar::Float, "x"),
        y(env, (double)lo, (double)hi, TavNumVar::Float, "y"),
        i(env, lo, hi, "i"),
        j(env, lo, hi, "j") {}
  TavEnv env;
  TavNumVar x, y;
  TavIntVar i, j;
};

/// A change record class of the tests' own.
class NoteChange : public TavChangeNode<NoteChange> {
  TAV_CHANGE_STATICS
 public:
  static constexpr const char* RttiName = "NoteChange";
  using TavChangeNode::TavChangeNode;
};

/// An algorithm that values every variable at 0 and keeps the records it
/// gets, and their class names (the records themselves do not outlive the call).
struct RecordingAlg : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange& c) override {
    seen.push_back(&c);
    names.push_back(c.getRttiTypeName());
  }
  std::vector<const TavChange*> seen;
  std::vector<std::string> names;
};

/// An algorithm that refuses every change record.
struct RefusingAlg : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return 0.0; }
  void notifyChange(const TavChange&) override { throw TavWrongUsage("refused", 0); }
};

/// Gives 1, 2, 3, ... to successive reads of any variable.
struct CountingReads : TavAlgorithmI {
  using TavAlgorithmI::TavAlgorithmI;
  double getValue(const TavNumVarI*) const override { return ++reads; }
  mutable int reads = 0;
};

/// A lock that counts how often it is taken and given back.
struct CountingMutex : TavMutex {
  int locks = 0, unlocks = 0;
  void lock() override { ++locks; }
  void unlock() override { ++unlocks; }
};

}  // namespace tavtest

using tavtest::messageOf;
using tavtest::NamedVars;
using tavtest::NoteChange;
using tavtest::RecordingAlg;
using tavtest::show;
using tavtest::showNode;

/// Equal values, signed zeros and not-a-number compare bit for bit.
inline void expectSame(double got, double want) {
  if (std::isnan(want)) {
    EXPECT_TRUE(std::isnan(got)) << got;
    return;
  }
  EXPECT_EQ(got, want);
  EXPECT_EQ(std::signbit(got), std::signbit(want)) << got;
}

// How a row's builder is called, by its constant order.
#define CALL_XC(F, H, C) +[](const H& x, C c) -> TavNumExprArg { return F(x, c); }
#define CALL_CX(F, H, C) +[](const H& x, C c) -> TavNumExprArg { return F(c, x); }
#define CALLS_OperandFirst(F, H, C) {CALL_XC(F, H, C)}
#define CALLS_ConstantFirst(F, H, C) {CALL_CX(F, H, C)}
#define CALLS_Either(F, H, C) {CALL_XC(F, H, C), CALL_CX(F, H, C)}

#endif
