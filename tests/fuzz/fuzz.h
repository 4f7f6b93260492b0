// Differential fuzzing of the expression layer: a generator of random
// programs over the public handles, a reference model of what each program
// computes (written from the arithmetic), and a runner that executes the
// program against the library and compares the two.
#ifndef TAV_TESTS_FUZZ_H
#define TAV_TESTS_FUZZ_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavfuzz {

/// Families of programs that touch known-fragile paths; each can be left out.
struct Options {
  bool aliasing = true;        ///< h op= x where x is or contains h itself
  bool termReuse = true;       ///< one term handle added twice
  bool intConversion = true;   ///< numeric or copying operations on counted integer linear nodes
  bool emptyAlgorithm = true;  ///< evaluation through an empty algorithm handle
  bool allocFailure = true;    ///< an allocation failing inside one operation
  bool deep = true;            ///< chains deep enough to overflow a recursive destructor
  bool varMods = true;         ///< bounds, possible values, thresholds and conversions of variables
  bool removal = true;         ///< a variable removed from every expression, in either removal mode
  bool display = true;         ///< every node printed in both syntaxes against a reference printer
  /// Reads "--no-aliasing" and the like; false for an unknown flag.
  bool parse(const char* arg);
};

/// Random choices from a seed, or from a fuzzer's bytes (zeros once used up).
class Source {
 public:
  explicit Source(std::uint64_t seed) : _state(seed) {}
  Source(const std::uint8_t* data, std::size_t size) : _data(data), _size(size) {}
  std::uint32_t below(std::uint32_t n);
  bool percent(std::uint32_t p) { return below(100) < p; }

 private:
  std::uint64_t _state = 0;
  const std::uint8_t* _data = nullptr;
  std::size_t _size = 0;
};

/// The C++ type of a value in a program, in the runner's variant order.
enum Kind : std::uint8_t {
  KDouble, KLong, KInt, KNumVar, KIntVar, KBoolVar, KNumTerm, KIntTerm,
  KNumArg, KIntArg, KNumExpr, KIntExpr, KExpr, KNone
};
enum Op : std::uint8_t {
  OLeaf, ONeg, OAdd, OSub, OMul, ODiv, OMod, OIDiv, OMin, OMax,  // the runner's operator table
  OTermTwice, OMinArr, OMaxArr, OSum, OScalProd,
  OCall,     ///< a builder of the function table (Node::fn)
  OElement,  ///< array[index]: kids are the index, then the elements (or Node::numbers)
  OCount,    ///< TavCount(kids, num)
  OStdDev,   ///< TavStandardDeviation(kids), with bounds num and num2 when form is 1
  OPiecewise,  ///< kids[0] through breakpoints (numbers) and slopes or values (numbers2)
  OCond      ///< kids are then, else and, when form is 0, the condition
};
constexpr int SpecialOps = OCond - OElement + 1;
constexpr int BinaryOps = OMax + 1;
enum ArrayKind : std::uint8_t { ANumExpr, AIntExpr, ANumVar, AIntVar, ANumValues, AIntValues };

// ------------------------------------------------------------ functions

/// The operands a builder takes: one expression, two, or an expression and a number.
enum Shape : std::uint8_t { FUnary, FBinary, FExprCst, FCstExpr };
/// isInteger of the node a builder makes; FromOperands: every expression
/// operand integer and every number operand integral.
enum Integrality : std::uint8_t { Never, FromOperands, Always };
/// Thrown by a reference function where the library refuses to evaluate.
struct Refused {};
/// How a node displays in the plain and the library syntax: %0, %1, ...
/// stand for its operands' displays or numbers, in the order given.
struct Form {
  const char* plain;
  const char* library;
};

/// One builder of the table in functions.h.
struct Function {
  const char* name;
  Shape shape;
  bool intOperand;      ///< its expression operands are integer ones
  Kind result;          ///< KNumArg or KIntArg
  Integrality integer;  ///< of the node it makes
  /// The value from the operands' values, in call order; may throw Refused.
  double (*value)(double a, double b);
  Form form;
};
extern const Function Functions[];
extern const int FunctionCount;

struct Node {
  Op op = OLeaf;
  Kind kind = KNone;  ///< the C++ type of the result
  ArrayKind array = ANumExpr;
  double num = 0;               ///< number leaf
  int index = -1;               ///< variable or slot leaf
  int fn = -1;                  ///< OCall: the row in Functions
  bool numbersFirst = false;    ///< scalar product: number array first
  bool intNumbers = false;      ///< scalar product: TavIntArray
  std::vector<Node> kids;       ///< operands, or array elements (scalar product: a then b)
  std::vector<double> numbers;  ///< scalar product, element, piecewise breakpoints: a number array
  std::vector<double> numbers2; ///< piecewise: the slopes (slope form) or values (value form)
  double num2 = 0;              ///< piecewise: anchor value or last slope; deviation: upper bound
  /// Element: 1 for operator[], 0 for TavElement. Deviation: 1 with bounds.
  /// Piecewise: 1 for the slope form, 0 for the value form. Conditional: 0
  /// with an expression as condition, 1 or 2 with the true or false constraint.
  int form = 0;
  bool thenNumber = false, elseNumber = false;  ///< conditional: a number branch (the kid holds it)
};

enum StmtKind : std::uint8_t {
  SDecl, SCompound, SClear, SSetConst, SSetCoef, SSetCoefs, SRemove, SNormalize, SCopy, SEnd,
  STermTwice, SEmptyAlg, SDeep,
  SVarBounds,   ///< op 'l', 'u' or 'b': setLB, setUB or setBounds of vars[0] to coefs
  SArrayBounds, ///< TavNumVarArray(vars).setBounds(lbs, ubs): coefs holds the lbs, then the ubs
  SValues,      ///< setPossibleValues of vars[0] to coefs; op 'i' for an integer array
  SThreshold,   ///< setSemiContinuousLb(coefs[0]) of the semi-continuous vars[0]
  SConvert,     ///< a new conversion (number slot) of vars to the type op (1, 2 or 3)
  SConvRemove,  ///< conversion slot.removeVar(vars[0])
  SRemoveVar    ///< vars[0] ended with removal from every object; op '1' for one by one
};

struct Stmt {
  StmtKind kind = SDecl;
  Kind handle = KNone;  ///< declared handle type (KNumExpr, KIntExpr, KExpr)
  int slot = -1;        ///< the handle acted on (a new one for SDecl and SCopy)
  char op = 0;          ///< compound: '+', '-', '*', '/'
  Node rhs;
  std::vector<int> vars;
  std::vector<double> coefs;
  int failAfter = 0;    ///< first run with the k-th allocation failing
};

struct Program {
  int numVars = 0, intVars = 0, boolVars = 0;  ///< variables: numeric, then integer, then Boolean
  std::vector<double> values;
  int listenAt = 0;             ///< a change listener is attached before this statement
  bool removeFromAll = false;   ///< the environment ends every object through removal from all
  bool display = true;          ///< every node is printed in both syntaxes and compared
  std::vector<Stmt> stmts;
  std::string print() const;
  std::string varName(int v) const;
};

// ------------------------------------------------------------ reference

struct Cell {
  int var;
  double coef;
};
/// What the reference knows of one variable.
struct VarState {
  double lb = 0, ub = 0, threshold = 0;
  std::vector<double> values;  ///< possible values, when a list was set
  bool intValues = false;      ///< the list is an integer array
  bool removed = false;
  /// The shared domain the variable holds (by kind at creation), or -1 once
  /// it has a private one: a whole array's new bounds reach every sharer.
  int shared = -1;
};

/// A change record: its class, and the objects and numbers it carries.
enum RecKind : std::uint8_t {
  RAddVar, RRemoveVar, RIntRemoveVar, RBounds, RValues, RThreshold, RConvRemove, RArrayBounds
};
struct Record {
  RecKind kind;
  int var = -1;
  int slot = -1;  ///< linear records: the handle whose node it names; conversion: its number
  double a = 0, b = 0;           ///< bounds (lb, ub) or thresholds (old, new)
  std::vector<double> values;    ///< possible values; array bounds: the lower ones, then the upper ones
  std::vector<int> vars;         ///< array bounds: the variables
  bool intValues = false;
  /// Sent by a removal: ordered by the identifier of the object told, which
  /// the runner knows and the reference does not.
  bool byId = false;
  bool operator==(const Record& o) const {
    return kind == o.kind && var == o.var && slot == o.slot && a == o.a && b == o.b && values == o.values &&
           vars == o.vars && intValues == o.intValues;
  }
};

enum RefKind : std::uint8_t { RNumber, RNumLin, RIntLin, RNumNode, RIntNode };
enum Tri : std::uint8_t { No, Yes, Maybe };

/// What the reference knows of one value: a number, a linear node (its cells
/// in list order, constant and non-linear parts), or an opaque node.
struct Ref {
  RefKind kind = RNumber;
  double v = 0;                ///< number, or value of an opaque node
  std::vector<Cell> cells;
  double cst = 0;
  std::vector<Ref> parts;      ///< the non-linear parts, in list order
  Tri norm = No;               ///< the node's normalized flag
  bool counted = false;        ///< held by a counted handle: operators copy it
  bool held = false;           ///< may also be an operand of another node
  bool unknown = false;        ///< layout of cells and parts not predicted; the value is
  bool throws = false;         ///< evaluation throws
  bool var = false;            ///< a variable, not yet a linear node
  /// The value may differ from the library's in its last bits (summed in
  /// another order somewhere below); otherwise it must be the same double.
  bool approx = false;
  /// Near a point where the value jumps (a rounding step, a pole, the edge of
  /// a domain) with approx operands: not predictable, the generator avoids it.
  bool fragile = false;
  Tri integer = Maybe;         ///< isInteger of an opaque node
  double mag = 0;              ///< bound on every finite number inside
  /// A product by a constant, which further constant factors fold into:
  /// inner holds the operand, factor the constant.
  std::vector<Ref> inner;
  double factor = 0;
  /// The display of an opaque node, plain then library syntax, with a mark
  /// for each variable operand (its display changes with its bounds); null
  /// when the reference cannot say.
  std::shared_ptr<const std::array<std::string, 2>> shown;
  bool linear() const { return kind == RNumLin || kind == RIntLin; }
  bool exact() const { return !approx && !unknown; }
};

struct DisplayArg;

/// The reference state of a program: one entry per handle ever declared
/// (null once ended); handles declared as sharing a node share the entry.
class Model {
 public:
  explicit Model(const Program& p);
  double value(const Ref& r) const;
  /// isInteger of the node (of a number: whether it is integral).
  Tri integral(const Ref& r) const;
  Ref eval(const Node& n) const;
  /// Applies a statement; returns the merges of a normalisation.
  int apply(const Stmt& s);
  /// Merges duplicate cells as normalisation does; returns the merges.
  static int normalize(Ref& r);
  std::vector<std::shared_ptr<Ref>> slots;
  std::vector<Kind> kinds;
  std::vector<VarState> vars;
  std::vector<std::vector<int>> conversions;  ///< variables of each conversion, in array order
  std::vector<Record> records;                ///< sent by the statements applied, in order
  bool texts;                                 ///< whether show() keeps displays (not while generating)
  /// Whether a removal of var may run: every live handle on a linear node
  /// without parts (the only nodes that give a removed variable up), and
  /// with one-by-one removal at most one term of var per node (only the
  /// first goes).
  bool removable(int var, bool oneByOne) const;
  /// The text of the value's node in the plain or the library syntax, with
  /// ZeroMark for a zero constant of either sign; empty when the reference
  /// cannot say.
  std::string display(const Ref& r, bool librarySyntax) const;
  /// Appends r's display with a mark for each variable operand; false when
  /// the reference cannot say.
  bool text(const Ref& r, bool librarySyntax, std::string& out) const;
  /// Sets r.shown: the form over args (operands, arrays of them, numbers).
  void show(Ref& r, const Form& form, const std::vector<DisplayArg>& args) const;

 private:
  Ref binary(Op op, bool isInt, const Ref& a, const Ref& b) const;
  Ref call(const Node& n, const std::vector<Ref>& k) const;
  /// The element, count, deviation, piecewise and conditional nodes.
  Ref special(const Node& n, const std::vector<Ref>& k) const;
  Ref& own(int slot);
  std::string varDisplay(int v) const;
  /// Applies a statement on variables or conversions; false for the others.
  bool variableStatement(const Stmt& s);
  const Program& _p;
};

/// The runner's table: the result type of op over operands of types a and b
/// (b is KNone for negation), KNone when no overload applies.
Kind resultKind(Op op, Kind a, Kind b);
/// Whether h op= x compiles for a handle of type h and an operand of type x.
bool assignable(Kind h, char op, Kind x);
/// The result type of Functions[fn] over operands of types a and b (b is
/// KNone for one operand), KNone when no overload applies.
Kind callKind(int fn, Kind a, Kind b);

Program generate(Source& src, const Options& opts);
/// In an expected display: a zero that the library may write as 0 or -0, a
/// linear node's constant or a factor taken from one (the reference adds
/// constants where the library appends a term, which has none, and so may
/// turn a -0 into 0).
constexpr char ZeroMark = '\x02';
/// Whether a display matches the expected one.
bool sameDisplay(const std::string& got, const std::string& want);

/// Runs the program; empty when the library agreed with the reference.
std::string run(const Program& p);

}  // namespace tavfuzz

#endif
