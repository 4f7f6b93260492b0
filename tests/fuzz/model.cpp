// The reference model: what a program computes, from the arithmetic of the
// operators and the documented layout of linear expressions (cells in list
// order, constant, non-linear parts), independent of the library's code.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <sstream>

#include "fuzz.h"

namespace tavfuzz {
namespace {

double finite(double v) { return std::isfinite(v) ? std::fabs(v) : 0; }
bool integralNumber(double x) { return std::isfinite(x) && std::floor(x) == x; }
Tri tri(bool b) { return b ? Yes : No; }
Tri both(Tri a, Tri b) { return a == No || b == No ? No : a == Maybe || b == Maybe ? Maybe : Yes; }

Ref number(double v) {
  Ref r;
  r.v = v;
  r.mag = finite(v);
  return r;
}

/// A node over a and b; its integrality is the caller's to set.
Ref opaque(double v, bool isInt, const Ref& a, const Ref& b) {
  Ref r;
  r.kind = isInt ? RIntNode : RNumNode;
  r.throws = a.throws || b.throws;
  r.v = r.throws ? 0 : v;
  r.mag = std::max({finite(r.v), a.mag, b.mag});
  r.approx = !a.exact() || !b.exact();
  r.integer = isInt ? Yes : Maybe;
  return r;
}

/// The linear node an operator works on: a private copy of a counted one,
/// a new node around anything else.
Ref lin(Ref r, bool isInt) {
  if (r.linear()) {
    if (r.kind == RIntLin && !isInt) r.counted = true;  // converted into a new numeric node
    r.kind = isInt ? RIntLin : RNumLin;
    if (r.counted) r.norm = No;
    else if (r.held && r.norm == Yes) r.norm = Maybe;  // copied only if a parent holds it
    r.counted = r.held = r.var = false;
    return r;
  }
  Ref l;
  l.kind = isInt ? RIntLin : RNumLin;
  l.throws = r.throws;
  l.unknown = r.unknown;
  l.approx = !r.exact();
  l.mag = r.mag;
  if (r.kind == RNumber) l.cst = r.v;
  else l.parts.push_back(r);
  return l;
}

Ref merge(Ref l, const Ref& r) {
  l.cells.insert(l.cells.end(), r.cells.begin(), r.cells.end());
  if (!r.cells.empty()) l.norm = No;
  l.cst += r.cst;
  l.parts.insert(l.parts.end(), r.parts.begin(), r.parts.end());
  l.throws = l.throws || r.throws;
  l.unknown = l.unknown || r.unknown;
  l.approx = l.approx || r.approx;
  l.mag += r.mag;
  return l;
}

/// No cells and no parts: a product with it folds into a multiple.
Tri isConstant(const Ref& r) {
  if (r.unknown) return Maybe;
  return r.linear() && r.cells.empty() && r.parts.empty() ? Yes : No;
}

std::int64_t trunc(double x) { return std::fabs(x) < 9e18 ? (std::int64_t)x : 0; }

bool sameDouble(double a, double b) {
  return std::isnan(a) ? std::isnan(b) : a == b && std::signbit(a) == std::signbit(b);
}

/// Moves each approx operand by far more than a reordered sum could and
/// sets r.fragile when f's value then leaves the tolerance or crosses a
/// refusal; clears r.approx when no such move changes the value at all (a
/// rounding away from its steps gives the library's double exactly).
void probe(Ref& r, const std::vector<const Ref*>& operands, const std::vector<double>& values,
           const std::function<double(const std::vector<double>&)>& f) {
  if (r.exact()) return;
  for (const Ref* o : operands)
    if (o->throws) return;
  auto at = [&f](const std::vector<double>& v, bool& refused) {
    refused = false;
    try {
      return f(v);
    } catch (const Refused&) {
      refused = true;
      return 0.0;
    }
  };
  bool refusedHere = false;
  const double here = at(values, refusedHere);
  const double tolerance = 1e-10 * std::max({1.0, finite(here), r.mag});
  bool moved = false;
  for (std::size_t i = 0; i < operands.size(); ++i) {
    if (operands[i]->exact()) continue;
    const double step = 1e-12 * std::max(1.0, operands[i]->mag);
    for (double s : {-step, step}) {
      std::vector<double> v = values;
      v[i] += s;
      bool refused = false;
      const double got = at(v, refused);
      const bool near = refused == refusedHere &&
                        (refused || (std::isnan(here) ? std::isnan(got)
                                     : std::isinf(here) ? got == here
                                                        : std::isfinite(got) && std::fabs(got - here) <= tolerance));
      if (!near) r.fragile = true;
      moved = moved || !near || !sameDouble(got, here);
    }
  }
  if (!moved) r.approx = false;
}

}  // namespace

// ------------------------------------------------------------- display

/// An operand of a display form: a node, the nodes of an array (printed in
/// brackets), or a fixed text (a number, an array of numbers).
struct DisplayArg {
  std::vector<const Ref*> nodes;
  bool array = false;
  std::string fixed;
};

namespace {
/// In a text: a variable operand, whose display is its current state's; the
/// next byte is its index.
constexpr char VarMark = '\x01';

/// As the stream writes a double (or a 64-bit integer) by default.
std::string num(double v, bool integer) {
  char s[32];
  if (integer) std::snprintf(s, sizeof s, "%lld", (long long)v);
  else std::snprintf(s, sizeof s, "%g", v);
  return s;
}
DisplayArg of(const Ref& r) { return {{&r}, false, ""}; }
DisplayArg fixed(std::string text) { return {{}, false, std::move(text)}; }
DisplayArg elements(const std::vector<Ref>& k, std::size_t from) {
  DisplayArg a{{}, true, ""};
  for (std::size_t i = from; i < k.size(); ++i) a.nodes.push_back(&k[i]);
  return a;
}
/// What arrays print before their i-th item: ", ", and ",\n" after every tenth.
const char* separator(std::size_t i) { return i == 0 ? "" : i % 10 ? ", " : ",\n"; }
DisplayArg numbers(const std::vector<double>& v, bool integer) {
  std::string s = "[";
  for (std::size_t i = 0; i < v.size(); ++i) s += separator(i) + num(v[i], integer);
  return fixed(s + "]");
}

// The displays of the operator and aggregate nodes; the builders' are in
// functions.h.
enum FormId {
  FTimes, FNumDivCst, FQuotient, FModulo, FModuloCst, FRecModuloCst, FNumMinCst, FNumMaxCst, FIntMinCst,
  FIntMaxCst, FMin, FMax, FNumMinArray, FIntMinArray, FMaxArray, FCount, FStdDev, FPiecewise, FElement
};
const Form Forms[] = {
    {"%0 * %1", "( %0* %1) "},      // every product, by a constant or not
    {"%0/ %1", "( %0/ %1) "},       // a numeric expression by a constant
    {"%0 / %1", "( %0/ %1) "},      // every other quotient
    {"%0 % %1", "( %0% %1) "},
    {"%0% %1", "( %0% %1) "},       // by a constant
    {"%0 % %1", "(%0% %1)"},        // of a constant
    {"min( %0, %1)", "TavMin( %0, %1) "},
    {"max(%0, %1)", "TavMax( %0, %1) "},
    {"min(%0, %1)", "( %0, %1) "},  // the integer ones with a constant have no name
    {"max(%0, %1)", "( %0, %1) "},
    {"min(%0, %1)", "TavMin( %0, %1) "},
    {"max(%0, %1)", "TavMax( %0, %1) "},
    {"min( %0)", "TavMin( %0) "},
    {"min(%0)", "TavMin( %0) "},
    {"max(%0)", "TavMax( %0) "},
    {"count(%0, %1)", "TavCount( %0, %1) "},
    {"stddev(%0)", "TavStandardDeviation( %0) "},
    {"piecewiselinear(%0, %1, %2, %3, %4)", "piecewiselinear(%0, %1, %2, %3, %4)"},
    // element, by ArrayKind: the short form leaves the array out
    {"num-exprs[%0]", "TavNumExprArrayIndex(%0, %1) "},
    {"int-exprs[%0]", "TavIntExprArrayIndex(%0, %1) "},
    {"num-exprs[%0]", "TavNumExprArrayIndex(%0, %1) "},
    {"int-exprs[%0]", "TavIntExprArrayIndex(%0, %1) "},
    {"nums[%0]", "TavNumArrayIndex(%0, %1) "},
    {"ints[%0]", "TavIntArrayIndex(%0, %1) "},
};
}  // namespace

bool Model::text(const Ref& r, bool lib, std::string& out) const {
  if (r.var) {
    out += VarMark;
    out += (char)r.cells[0].var;
    return true;
  }
  if (!r.linear()) {
    if (r.shown) out += (*r.shown)[lib];
    return r.shown != nullptr;
  }
  if (r.unknown) return false;
  auto term = [&](const Cell& c) {
    if (c.coef != 1.0) out += num(c.coef, false) + " * ";
    out += _p.varName(c.var) + " ";  // a named variable: its name and a blank
  };
  auto constant = [&] {
    if (r.kind == RIntLin) out += num(r.cst, true);
    else if (r.cst == 0.0) out += ZeroMark;
    else out += num(r.cst, false);
    out += " ";
  };
  bool wrote = false;  // plain: whether the last term wrote something
  if (lib) out += "( ";
  for (std::size_t i = 0; i < r.cells.size(); ++i) {
    if (lib ? i > 0 : wrote) out += " + ";
    wrote = r.cells[i].coef != 0.0;
    if (wrote) term(r.cells[i]);
    else if (lib) out += "0 ";
  }
  for (std::size_t i = 0; i < r.parts.size(); ++i) {
    if (i > 0 || (lib ? !r.cells.empty() : wrote)) out += " + ";
    if (!text(r.parts[i], lib, out)) return false;
    wrote = true;
  }
  if (r.cst != 0.0) {
    if (lib ? !r.cells.empty() || !r.parts.empty() : wrote) out += " + ";
    constant();
  } else if (!lib && !wrote) {
    constant();
  }
  if (lib) out += ") ";
  return true;
}

void Model::show(Ref& r, const Form& form, const std::vector<DisplayArg>& args) const {
  if (!texts) return;
  std::array<std::string, 2> out;
  for (bool lib : {false, true}) {
    std::string& t = out[lib];
    for (const char* c = lib ? form.library : form.plain; *c; ++c) {
      if (*c != '%' || c[1] < '0' || c[1] > '9') {
        t += *c;
        continue;
      }
      const DisplayArg& a = args[(std::size_t)(*++c - '0')];
      t += a.array ? "[" : a.fixed;
      for (std::size_t i = 0; i < a.nodes.size(); ++i)
        if (!text(*a.nodes[i], lib, t += separator(i))) return;  // r.shown stays null
      if (a.array) t += ']';
    }
  }
  r.shown = std::make_shared<const std::array<std::string, 2>>(std::move(out));
}

std::string Model::varDisplay(int v) const {
  const int b = v - _p.numVars - _p.intVars;
  if (b >= 0 && b % 2) return b % 4 == 1 ? "TrueConstraint " : "FalseConstraint ";  // a constraint's indicator
  // The name, then the domain as the host prints it: the list of possible
  // values in braces once one was set, else the bounds; integers for the
  // integer domains of every variable but the continuous ones.
  const VarState& x = vars[(std::size_t)v];
  const bool integer = v >= _p.numVars;
  const std::string name = _p.varName(v);
  std::string s = name;
  if (x.values.empty()) s += "[" + num(x.lb, integer) + " .. " + num(x.ub, integer) + "] ";
  for (std::size_t i = 0; i < x.values.size(); ++i)
    s += (i ? ", " : "{") + num(x.values[i], integer) + (i + 1 < x.values.size() ? "" : "} ");
  if (v < _p.numVars && v % 2) s = "TavSemiContI (" + name + ")\n" + s + "  _threshold " + num(x.threshold, false) + "\n";
  return s;
}

std::string Model::display(const Ref& r, bool librarySyntax) const {
  std::string t;
  if (!text(r, librarySyntax, t)) return "";
  std::string out;
  std::vector<std::string> once(vars.size());  // each variable's display, made once
  std::size_t from = 0;
  for (std::size_t at; (at = t.find(VarMark, from)) != std::string::npos; from = at + 2) {
    std::string& v = once[(unsigned char)t[at + 1]];
    if (v.empty()) v = varDisplay((unsigned char)t[at + 1]);
    out.append(t, from, at - from) += v;
  }
  return out.append(t, from, std::string::npos);
}

bool sameDisplay(const std::string& got, const std::string& want) {
  std::size_t g = 0;
  for (char w : want) {
    if (w == ZeroMark && g < got.size() && got[g] == '-') ++g;
    if (g >= got.size() || got[g] != (w == ZeroMark ? '0' : w)) return false;
    ++g;
  }
  return g == got.size();
}

Model::Model(const Program& p) : texts(p.display), _p(p) {
  for (int v = 0; v < (int)p.values.size(); ++v) {  // as the runner makes them, see Program::print
    VarState s;
    const bool semi = v < p.numVars && v % 2;
    s.lb = v < p.numVars + p.intVars && !semi ? -100 : 0;
    s.ub = v < p.numVars + p.intVars ? 100 : 1;
    s.threshold = semi ? 0.5 : 0;
    s.shared = v < p.numVars ? (int)semi : v < p.numVars + p.intVars ? 2 : 3;  // indicators share the 0-1 one
    vars.push_back(s);
  }
}

bool Model::removable(int var, bool oneByOne) const {
  for (const auto& s : slots) {
    if (!s) continue;
    if (!s->linear() || !s->parts.empty() || s->unknown) return false;
    if (oneByOne && std::count_if(s->cells.begin(), s->cells.end(), [var](const Cell& c) { return c.var == var; }) > 1)
      return false;
  }
  return true;
}

Tri Model::integral(const Ref& r) const {
  switch (r.kind) {
    case RNumber: return tri(integralNumber(r.v));
    case RIntLin:
    case RIntNode: return Yes;
    case RNumNode: return r.integer;
    case RNumLin: break;
  }
  if (r.unknown) return Maybe;  // zero cells may be gone, constant factors folded
  Tri t = tri(integralNumber(r.cst));
  for (const Cell& c : r.cells) t = both(t, tri(c.var >= _p.numVars && integralNumber(c.coef)));
  for (const Ref& part : r.parts) t = both(t, integral(part));
  return t;
}

double Model::value(const Ref& r) const {
  if (!r.linear()) return r.v;
  double s = 0;
  for (const Ref& part : r.parts) s += value(part);
  for (const Cell& c : r.cells) s += c.coef * _p.values[c.var];
  return r.cst + s;
}

namespace {
struct Ops {
  const Model& m;
  /// a + b; a node on the left goes after the parts of a linear right operand.
  Ref sum(const Ref& a, const Ref& b, bool isInt) const {
    if (!a.linear() && a.kind != RNumber && b.linear() && !b.var) return merge(lin(b, isInt), lin(a, isInt));
    return merge(lin(a, isInt), lin(b, isInt));
  }
  /// a times d (or divided by d), as the operators build it.
  Ref scale(const Ref& a, double d, bool isInt, bool divide) const {
    if (!a.linear()) return node(a, d, isInt, divide);
    Ref l = lin(a, isInt);
    for (Cell& c : l.cells) c.coef = divide ? c.coef / d : c.coef * d;
    if (!a.var) l.cst = divide ? l.cst / d : l.cst * d;  // a variable becomes a term: no constant to scale
    if (isInt) l.cst += 0.0;                              // an integer constant has no negative zero
    for (Ref& part : l.parts) part = scale(part, d, isInt, divide);
    l.mag = divide ? l.mag / std::fabs(d) : l.mag * std::fabs(d);
    return l;
  }
  /// The node of a non-linear a times d: a product by a constant takes d
  /// into its own constant; a quotient is a node of its own.
  Ref node(const Ref& a, double d, bool isInt, bool divide) const {
    if (divide) {
      Ref r = opaque(a.v / d, false, a, number(d));
      r.integer = No;
      m.show(r, Forms[FNumDivCst], {of(a), fixed(num(d, false))});
      return r;
    }
    const Ref x = a.inner.empty() ? a : a.inner[0];
    double f = a.inner.empty() ? d : a.factor * d;
    if (isInt) f += 0.0;  // an integer factor has no negative zero
    Ref r = opaque(m.value(x) * f, isInt, x, number(f));
    if (!isInt) r.integer = both(m.integral(x), tri(integralNumber(f)));
    r.inner = {x};
    r.factor = f;
    m.show(r, Forms[FTimes], {of(x), fixed(f == 0.0 && !isInt ? std::string(1, ZeroMark) : num(f, isInt))});
    return r;
  }
  Ref product(const Ref& a, const Ref& b, bool isInt) const {
    const double x = m.value(a), y = m.value(b);
    const Tri ca = isInt ? No : isConstant(a), cb = isInt ? No : isConstant(b);
    if (ca == Yes) return scale(b, a.cst, false, false);
    if (cb == Yes) return scale(a, b.cst, false, false);
    Ref r = opaque(x * y, isInt, a, b);
    if (isInt) return m.show(r, Forms[FTimes], {of(a), of(b)}), r;
    r.mag = std::max(r.mag, a.mag * b.mag);
    r.unknown = ca == Maybe || cb == Maybe;
    r.integer = r.unknown ? Maybe : both(m.integral(a), m.integral(b));
    if (!r.unknown) m.show(r, Forms[FTimes], {of(a), of(b)});  // else it may have folded
    return r;
  }
};

/// The display of an element, count, deviation, piecewise or conditional node.
void showSpecial(const Model& m, Ref& r, const Node& n, const std::vector<Ref>& k) {
  const bool isInt = n.kind == KIntArg;
  switch (n.op) {
    case OElement: {
      const bool values = n.array >= ANumValues;
      m.show(r, Forms[FElement + n.array], {of(k[0]), values ? numbers(n.numbers, n.array == AIntValues) : elements(k, 1)});
      return;
    }
    case OCount: m.show(r, Forms[FCount], {elements(k, 0), fixed(num(n.num, true))}); return;
    case OStdDev: m.show(r, Forms[FStdDev], {elements(k, 0)}); return;
    case OPiecewise:
      if (n.form) m.show(r, Forms[FPiecewise], {of(k[0]), numbers(n.numbers, false), numbers(n.numbers2, false),
                                                fixed(num(n.num, false)), fixed(num(n.num2, false))});
      else m.show(r, Forms[FPiecewise], {of(k[0]), fixed(num(n.num, false)), numbers(n.numbers, false),
                                         numbers(n.numbers2, false), fixed(num(n.num2, false))});
      return;
    default: {
      // The same in both syntaxes, in this sequence: the condition and " ? ";
      // with a then-expression, it, " : " and the else-expression or else
      // the else-constant; then always the then-constant, " : " and the
      // else-expression if there is one. A missing constant is 0.
      const std::string form = std::string("%0 ? ") + (n.thenNumber ? "" : n.elseNumber ? "%1 : %4" : "%1 : %2") + "%3 : " +
                               (n.elseNumber ? "" : "%2");
      m.show(r, Form{form.c_str(), form.c_str()},
             {n.form ? fixed(n.form == 1 ? "TrueConstraint " : "FalseConstraint ") : of(k[2]),
              n.thenNumber ? fixed("") : of(k[0]), n.elseNumber ? fixed("") : of(k[1]),
              fixed(num(n.thenNumber ? n.kids[0].num : 0, isInt)), fixed(num(n.elseNumber ? n.kids[1].num : 0, isInt))});
    }
  }
}
}  // namespace

Ref Model::eval(const Node& n) const {
  const Ops ops{*this};
  const bool isInt = n.kind == KIntArg || n.kind == KIntTerm || n.kind == KIntExpr;
  if (n.op == OLeaf) {
    if (n.kind <= KInt) return number(n.num);
    if (n.kind <= KBoolVar) {
      Ref r;
      r.kind = n.kind == KNumVar ? RNumLin : RIntLin;
      r.cells.push_back({n.index, 1.0});
      r.var = true;
      r.mag = std::fabs(_p.values[n.index]) + 1;
      return r;
    }
    Ref r = *slots[n.index];
    r.counted = true;
    return r;
  }
  std::vector<Ref> k;
  for (const Node& kid : n.kids) k.push_back(eval(kid));
  if (n.op == OTermTwice) return ops.sum(k[0], k[0], isInt);
  if (n.op == OScalProd) {
    Ref acc = lin(number(0), isInt);
    if (n.array == ANumVar || n.array == AIntVar) {
      for (std::size_t i = 0; i < k.size(); ++i) {
        acc.cells.push_back({n.kids[i].index, n.numbers[i]});
        acc.mag += std::fabs(n.numbers[i]) * k[i].mag;
      }
      return acc;
    }
    const std::size_t half = k.size() / 2;
    for (std::size_t i = 0; i < half; ++i) {
      Ref p = ops.product(k[i], k[half + i], isInt);
      acc.throws = acc.throws || p.throws;
      acc.approx = acc.approx || !p.exact();
      acc.mag += std::max(p.mag, finite(value(p)));
      acc.parts.push_back(p);
    }
    return acc;
  }
  if (n.op == OSum) {
    Ref acc = lin(number(0), isInt);
    for (const Ref& e : k) acc = ops.sum(acc, e, isInt);
    return acc;
  }
  if (n.op == OMinArr || n.op == OMaxArr) {
    Ref r = opaque(0, isInt, number(0), number(0));
    r.throws = k.empty();
    double best = k.empty() ? 0 : value(k[0]);
    Tri every = Yes;  // an empty array gives true
    for (const Ref& e : k) {
      const double v = value(e);
      if (n.op == OMinArr ? best > v : v > best) best = v;
      r.throws = r.throws || e.throws;
      r.approx = r.approx || !e.exact();
      r.mag = std::max(r.mag, e.mag);
      every = both(every, integral(e));
    }
    if (!isInt) r.integer = every;
    r.v = r.throws ? 0 : best;
    show(r, Forms[n.op == OMaxArr ? FMaxArray : isInt ? FIntMinArray : FNumMinArray], {elements(k, 0)});
    return r;
  }
  if (n.op == OCall) return call(n, k);
  if (n.op >= OElement) {
    Ref r = special(n, k);
    showSpecial(*this, r, n, k);
    return r;
  }
  Ref r = binary(n.op, isInt, k[0], k.size() > 1 ? k[1] : number(0));
  if (n.kind == KNumTerm || n.kind == KIntTerm) r.cst = 0.0;  // a term has no constant: its node starts at +0
  return r;
}

Ref Model::binary(Op op, bool isInt, const Ref& a, const Ref& b) const {
  const Ops ops{*this};
  const double x = value(a), y = value(b);
  const bool an = a.kind == RNumber, bn = b.kind == RNumber;
  // A node over a and b whose value is f of theirs, displayed by the form
  // (the one with a constant when either is a number).
  auto node = [&](Tri integer, double (*f)(double, double), FormId form, FormId withConstant) {
    Ref r = opaque(a.throws || b.throws ? 0 : f(x, y), isInt, a, b);
    if (!isInt) r.integer = integer;
    probe(r, {&a, &b}, {x, y}, [f](const std::vector<double>& v) { return f(v[0], v[1]); });
    const bool minMax = op == OMin || op == OMax;  // these keep the constant second
    if (an && minMax) show(r, Forms[withConstant], {of(b), fixed(num(x, isInt))});
    else show(r, Forms[an || bn ? withConstant : form], {an ? fixed(num(x, isInt)) : of(a), bn ? fixed(num(y, isInt)) : of(b)});
    return r;
  };
  const Tri fromBoth = both(integral(a), integral(b));
  switch (op) {
    case ONeg: return ops.scale(a, -1, isInt, false);
    case OAdd: return ops.sum(a, b, isInt);
    case OSub: return ops.sum(a, bn ? number(-y) : ops.scale(b, -1, isInt, false), isInt);
    case OMul:
      if (an) return ops.scale(b, x, isInt, false);
      if (bn) return ops.scale(a, y, isInt, false);
      return ops.product(a, b, isInt);
    case ODiv:
      if (bn) return ops.scale(a, y, false, true);
      return node(No, [](double p, double q) { return p / q; }, FQuotient, FQuotient);
    case OMod:  // a zero divisor is undefined: the generator keeps it out
      return node(Yes, [](double p, double q) { return trunc(q) == 0 ? NAN : (double)(trunc(p) % trunc(q)); }, FModulo,
                  an ? FRecModuloCst : FModuloCst);
    case OIDiv:
      return node(Yes, [](double p, double q) { return trunc(q) == 0 ? NAN : (double)(trunc(p) / trunc(q)); }, FQuotient,
                  FQuotient);
    case OMin: {  // a constant is always the second operand; ties go to it
      const FormId cst = isInt ? FIntMinCst : FNumMinCst;
      return an ? node(fromBoth, [](double p, double q) { return p > q ? q : p; }, FMin, cst)
                : node(fromBoth, [](double p, double q) { return q > p ? p : q; }, FMin, cst);
    }
    case OMax: {
      const FormId cst = isInt ? FIntMaxCst : FNumMaxCst;
      return an ? node(fromBoth, [](double p, double q) { return q > p ? q : p; }, FMax, cst)
                : node(fromBoth, [](double p, double q) { return p > q ? p : q; }, FMax, cst);
    }
    default: return number(0);
  }
}

Ref Model::call(const Node& n, const std::vector<Ref>& k) const {
  const Function& f = Functions[n.fn];
  const Ref& a = k[0];
  const Ref b = k.size() > 1 ? k[1] : number(0);
  const double x = value(a), y = value(b);
  Ref r = opaque(0, n.kind == KIntArg, a, b);
  if (!r.throws) {
    try {
      r.v = f.value(x, y);
    } catch (const Refused&) {
      r.throws = true;
    }
  }
  r.mag = std::max(r.mag, finite(r.v));
  r.integer = f.integer == Always ? Yes : f.integer == Never ? No : both(integral(a), integral(b));
  probe(r, {&a, &b}, {x, y}, [&f](const std::vector<double>& v) { return f.value(v[0], v[1]); });
  if (r.exact() && !r.throws) r.mag = finite(r.v);  // the library's own double: no error to allow for
  std::vector<DisplayArg> args;  // a number operand is written as a double
  for (std::size_t i = 0; i < k.size(); ++i) args.push_back(n.kids[i].kind <= KInt ? fixed(num(k[i].v, false)) : of(k[i]));
  show(r, f.form, args);
  return r;
}

namespace {
/// The i-th number, or not-a-number past the end of a short array.
double at(const std::vector<double>& a, long i) { return i >= 0 && i < (long)a.size() ? a[(std::size_t)i] : NAN; }

/// The piecewise-linear function's value at x, step by step: the start
/// index counts the breakpoints up to the first number; the slope form walks
/// from the anchor to x, adding each segment (or jump) it crosses; the value
/// form reads the segment of the start index, wherever x is.
double piecewise(const Node& n, double x) {
  const std::vector<double>& p = n.numbers;
  const std::vector<double>& s = n.numbers2;
  const long size = (long)p.size();
  long k = 0;
  while (k < size && p[(std::size_t)k] <= n.num) ++k;
  if (n.form == 0) {
    if (k == 0) return at(s, 0) + (x - at(p, 0)) * n.num;
    if (k == size - 1) return at(s, size - 1) + (x - at(p, size - 1)) * n.num2;
    return at(s, k) + (x - at(p, k)) * (at(s, k + 1) - at(s, k)) / (at(p, k + 1) - at(p, k));
  }
  double v = n.num2, cur = n.num;
  long i = k;
  if (x >= n.num) {
    for (; i < size && x >= at(p, i); ++i) {
      v += i > 0 && at(p, i - 1) == at(p, i) ? at(s, i) : (at(p, i) - cur) * at(s, i);
      cur = at(p, i);
    }
    return v + (x - cur) * at(s, i);
  }
  for (i = k - 1; i >= 0 && at(p, i) > x; --i) {
    if (i < size - 1 && at(p, i) == at(p, i + 1)) v -= at(s, i + 1);
    else v += (at(p, i) - cur) * at(s, i + 1);
    cur = at(p, i);
  }
  return v + (x - cur) * at(s, i + 1);
}
}  // namespace

Ref Model::special(const Node& n, const std::vector<Ref>& k) const {
  const bool isInt = n.kind == KIntArg;
  if (n.op == OElement) {  // only the chosen element is read
    const bool values = n.array >= ANumValues;
    const long size = values ? (long)n.numbers.size() : (long)k.size() - 1;
    Ref r = opaque(0, isInt, k[0], number(0));
    Tri every = Yes;
    for (long i = 0; i < size; ++i) {
      const double e = values ? n.numbers[(std::size_t)i] : value(k[(std::size_t)i + 1]);
      every = both(every, values ? tri(integralNumber(e)) : integral(k[(std::size_t)i + 1]));
      r.mag = std::max(r.mag, values ? finite(e) : k[(std::size_t)i + 1].mag);
    }
    if (!isInt) r.integer = every;
    if (r.throws) return r;
    const double index = value(k[0]);
    const long i = std::fabs(index) < 1e15 ? (long)index : -1;
    if (i < 0 || i >= size) {
      r.throws = true;
      return r;
    }
    if (values) {
      r.v = n.numbers[(std::size_t)i];
      return r;
    }
    const Ref& e = k[(std::size_t)i + 1];
    r.throws = e.throws;
    r.v = e.throws ? 0 : value(e);
    r.approx = r.approx || !e.exact();
    return r;
  }
  if (n.op == OCount || n.op == OStdDev) {  // every element is read
    Ref r = opaque(0, isInt, number(0), number(0));
    r.integer = tri(isInt);
    r.throws = k.empty();
    double sum = 0, count = 0;
    for (const Ref& e : k) {
      r.throws = r.throws || e.throws;
      r.approx = r.approx || !e.exact();
      r.mag = std::max(r.mag, e.mag);
      sum += value(e);
      count += value(e) == n.num;
    }
    if (n.op == OCount) {
      r.fragile = r.approx;  // an equality the reference cannot decide
      r.mag = std::max(r.mag, (double)k.size());
    }
    if (r.throws) return r;
    if (n.op == OCount) {
      r.v = count;
      return r;
    }
    const double mean = sum / (double)k.size();  // two passes: the mean, then the squares
    double squares = 0;
    for (const Ref& e : k) squares += (value(e) - mean) * (value(e) - mean);
    r.v = std::sqrt(squares / (double)k.size());
    return r;
  }
  if (n.op == OPiecewise) {
    const Ref& x = k[0];
    Ref r = opaque(x.throws ? 0 : piecewise(n, value(x)), false, x, number(0));
    r.integer = No;
    for (double d : n.numbers) r.mag = std::max(r.mag, finite(d));
    for (double d : n.numbers2) r.mag = std::max(r.mag, finite(d));
    r.mag = std::max({r.mag, finite(n.num), finite(n.num2)});
    r.mag += r.mag * r.mag * (double)(n.numbers.size() + 1);  // a sum of products along the walk
    probe(r, {&x}, {value(x)}, [&n](const std::vector<double>& v) { return piecewise(n, v[0]); });
    return r;
  }
  // conditional: only a condition of exactly 1 is true; only the chosen branch is read
  const Ref cond = n.form == 0 ? k[2] : number(n.form == 1 ? 1.0 : 0.0);
  const double c = value(cond);
  Ref r = opaque(0, isInt, cond, number(0));
  r.integer = tri(isInt);
  r.mag = std::max({r.mag, k[0].mag, k[1].mag});
  if (r.throws) return r;
  const Ref& chosen = c == 1.0 ? k[0] : k[1];
  r.throws = chosen.throws;
  r.v = chosen.throws ? 0 : value(chosen);
  r.approx = r.approx || !chosen.exact();
  const double then = value(k[0]), otherwise = value(k[1]);
  probe(r, {&cond}, {c}, [then, otherwise](const std::vector<double>& v) { return v[0] == 1.0 ? then : otherwise; });
  return r;
}

int Model::normalize(Ref& r) {
  if (r.norm == Yes) return 0;
  std::vector<Cell> out;
  int merges = 0;
  bool dirty = false;  // something a normalisation would change
  for (std::size_t i = 0; i < r.cells.size(); ++i) {
    const int var = r.cells[i].var;
    std::size_t last = i;
    for (std::size_t j = i + 1; j < r.cells.size(); ++j)
      if (r.cells[j].var == var) last = j;
    if (last != i) {
      ++merges;
      continue;
    }
    double c = r.cells[i].coef;  // the last occurrence gathers the earlier ones in list order
    for (std::size_t j = 0; j < i; ++j)
      if (r.cells[j].var == var) c += r.cells[j].coef;
    if (c == 0.0) dirty = true;
    else out.push_back({var, c});
  }
  if (r.norm == Maybe && (merges > 0 || dirty)) r.unknown = true;
  r.cells = out;
  r.norm = Yes;
  return merges;
}

Ref& Model::own(int slot) {
  std::shared_ptr<Ref>& s = slots[slot];
  if (s.use_count() > 1) {
    s = std::make_shared<Ref>(*s);
    s->norm = No;
    s->held = false;
  } else if (s->held) {
    if (s->norm == Yes) s->norm = Maybe;
    s->held = false;  // copied if a parent held it: private from now on either way
  }
  return *s;
}

namespace {
/// Slots used as operands inside a tree may from then on be held by a node.
void markHeld(const Node& n, std::vector<std::shared_ptr<Ref>>& slots, bool inside) {
  if (n.op == OLeaf && n.kind >= KNumExpr && inside && slots[n.index]) slots[n.index]->held = true;
  for (const Node& k : n.kids) markHeld(k, slots, true);
}
}  // namespace

bool Model::variableStatement(const Stmt& s) {
  if (s.kind < SVarBounds) return false;
  const int v = s.vars.empty() ? -1 : s.vars[0];
  auto record = [this, v](RecKind k) {
    Record r;
    r.kind = k;
    r.var = v;
    records.push_back(r);
    return &records.back();
  };
  switch (s.kind) {
    case SArrayBounds: {  // upper bound first, on the domain as it is: no copy for the one variable
      const std::size_t n = s.vars.size();
      for (std::size_t i = 0; i < n; ++i) {
        const int group = vars[s.vars[i]].shared;
        for (std::size_t w = 0; w < vars.size(); ++w)
          if (w == (std::size_t)s.vars[i] || (group >= 0 && vars[w].shared == group)) {
            vars[w].ub = s.coefs[n + i];
            vars[w].lb = s.coefs[i];
          }
      }
      Record* r = record(RArrayBounds);
      r->var = -1;
      r->vars = s.vars;
      r->values = s.coefs;
      break;
    }
    case SVarBounds: {
      VarState& x = vars[v];
      x.shared = -1;
      if (s.op != 'u') x.lb = s.coefs[0];
      if (s.op != 'l') x.ub = s.coefs.back();
      Record* r = record(RBounds);
      r->a = x.lb;
      r->b = x.ub;
      break;
    }
    case SValues: {
      VarState& x = vars[v];
      const bool intVar = v >= _p.numVars;
      if (intVar && s.op != 'i') break;  // refused: a continuous list for an integer variable
      x.shared = -1;
      x.values = s.coefs;
      x.intValues = intVar;
      x.lb = *std::min_element(s.coefs.begin(), s.coefs.end());  // the list's extremes become the bounds
      x.ub = *std::max_element(s.coefs.begin(), s.coefs.end());
      Record* r = record(RValues);
      r->values = s.coefs;
      r->intValues = intVar;
      break;
    }
    case SThreshold: {
      VarState& x = vars[v];
      if (x.threshold == s.coefs[0]) break;
      Record* r = record(RThreshold);
      r->a = x.threshold;
      r->b = x.threshold = s.coefs[0];
      break;
    }
    case SConvert: conversions.push_back(s.vars); break;
    case SConvRemove: {
      std::vector<int>& c = conversions[(std::size_t)s.slot];
      for (int i = (int)c.size() - 1; i >= 0; --i)
        if (c[(std::size_t)i] == v) {
          c.erase(c.begin() + i);
          record(RConvRemove)->slot = s.slot;
        }
      break;
    }
    default: {  // removal of v from every object
      const bool oneByOne = s.op == '1';
      std::vector<Ref*> done;
      for (std::size_t i = 0; i < slots.size(); ++i) {
        Ref* r = slots[i].get();
        if (!r || std::find(done.begin(), done.end(), r) != done.end()) continue;
        done.push_back(r);
        for (std::size_t k = 0; k < r->cells.size();) {
          if (r->cells[k].var != v) {
            ++k;
            continue;
          }
          r->cells.erase(r->cells.begin() + (long)k);
          if (oneByOne) break;
        }
        if (!oneByOne) continue;
        Record* rec = record(r->kind == RIntLin ? RIntRemoveVar : RRemoveVar);  // every linear node is told
        rec->slot = (int)i;
        rec->byId = true;
      }
      for (std::size_t c = 0; c < conversions.size(); ++c) {
        std::vector<int>& list = conversions[c];
        for (int i = (int)list.size() - 1; i >= 0; --i)
          if (list[(std::size_t)i] == v) {
            list.erase(list.begin() + i);
            if (!oneByOne) continue;
            Record* rec = record(RConvRemove);
            rec->slot = (int)c;
            rec->byId = true;
          }
      }
      vars[v].removed = true;
    }
  }
  return true;
}

int Model::apply(const Stmt& s) {
  if (variableStatement(s)) return 0;
  markHeld(s.rhs, slots, s.kind == SCompound);
  const Ops ops{*this};
  const Node& rhs = s.rhs;
  switch (s.kind) {
    case SDecl: {
      const bool shares = rhs.op == OLeaf && rhs.kind >= KNumExpr && s.handle != KExpr;
      std::shared_ptr<Ref> r = shares ? slots[rhs.index] : std::make_shared<Ref>(eval(rhs));
      if (s.handle == KExpr || rhs.kind <= KInt) *r = lin(*r, s.handle == KIntExpr);
      // An integer term taken by a numeric handle becomes a numeric node.
      if (s.handle == KNumExpr && rhs.kind == KIntTerm) r->kind = RNumLin;
      r->counted = true;
      slots.push_back(r);
      kinds.push_back(s.handle);
      return 0;
    }
    case SCopy: {
      auto r = std::make_shared<Ref>(*slots[s.rhs.index]);
      r->norm = No;
      r->held = false;
      slots.push_back(r);
      kinds.push_back(KExpr);
      return 0;
    }
    case SEnd: slots[s.slot] = nullptr; return 0;
    case SCompound: break;
    case STermTwice: {
      Ref& e = own(s.slot);
      const Ref t = eval(rhs);
      e = merge(e, t);  // the second += of the same handle is refused
      return 0;
    }
    case SEmptyAlg:
    case SDeep: return 0;
    default: {
      // The constant of a node with non-linear parts is refused, and nothing changes.
      if (s.kind == SSetConst && !slots[s.slot]->parts.empty()) return 0;
      Ref& e = own(s.slot);
      if (s.kind == SClear) {
        const bool held = e.held;
        e = lin(number(0), false);
        e.held = held;
      }
      if (s.kind == SSetConst) e.cst = s.coefs[0], e.mag += std::fabs(s.coefs[0]);
      if (s.kind == SNormalize) return normalize(e);
      if (s.kind == SSetCoef || s.kind == SSetCoefs) {
        normalize(e);
        std::vector<int> marked;  // cells present before the loop, by variable
        for (int v : s.vars) {
          auto it = std::find_if(e.cells.begin(), e.cells.end(), [v](const Cell& c) { return c.var == v; });
          marked.push_back(it == e.cells.end() ? -1 : (int)(it - e.cells.begin()));
        }
        for (std::size_t i = 0; i < s.vars.size(); ++i) {
          const double c = s.coefs[i];
          const double old = marked[i] >= 0 ? e.cells[marked[i]].coef : 0.0;
          // The single form reports any change of a present term as a removal;
          // the bulk form only a change from or to zero.
          const bool single = s.kind == SSetCoef;
          const bool removes = marked[i] >= 0 && old != 0.0 && (single || c == 0.0);
          const bool adds = c != 0.0 && (marked[i] < 0 || (!single && old == 0.0));
          if (removes || adds) {
            Record r;
            r.kind = removes ? RRemoveVar : RAddVar;
            r.var = s.vars[i];
            r.slot = s.slot;
            records.push_back(r);
          }
          if (marked[i] >= 0) e.cells[marked[i]].coef = c;
          else if (c != 0.0) e.cells.push_back({s.vars[i], c});
          e.mag += std::fabs(c);
        }
        if (s.kind == SSetCoef && marked[0] >= 0 && s.coefs[0] == 0.0) e.cells.erase(e.cells.begin() + marked[0]);
        e.norm = Yes;
      }
      if (s.kind == SRemove && !(e.cells.empty() && e.parts.empty())) {
        std::size_t budget = s.vars.size();  // the sweep stops after as many drops as the array has elements
        std::vector<Cell> out;
        for (const Cell& c : e.cells) {
          if (budget > 0 && std::count(s.vars.begin(), s.vars.end(), c.var) > 0) --budget;
          else out.push_back(c);
        }
        e.cells = out;
      }
      return 0;
    }
  }
  // Compound assignment: TavExpr changes its node in place, the others take
  // the result of the free operator.
  const bool self = rhs.op == OLeaf && rhs.kind >= KNumExpr && rhs.index == s.slot;
  Ref x = eval(rhs);
  const Op op = s.op == '+' ? OAdd : s.op == '-' ? OSub : s.op == '*' ? OMul : ODiv;
  if (s.handle != KExpr) {
    Ref h = *slots[s.slot];
    h.counted = slots[s.slot].use_count() > 1;
    if (self) x.counted = h.counted;  // the handle gives its own count back first
    slots[s.slot] = std::make_shared<Ref>(binary(op, s.handle == KIntExpr, h, x));
    return 0;
  }
  Ref& e = own(s.slot);
  Ref cur = e;
  cur.counted = cur.held = false;
  if (x.kind == RNumber && (op == OAdd || op == OSub)) {
    cur.cst += op == OAdd ? x.v : -x.v;
    cur.mag += x.mag;
  } else if (x.kind == RNumber) {
    cur = ops.scale(cur, x.v, false, op == ODiv);
  } else {
    const Ref y = op == OSub ? ops.scale(x, -1, false, false) : x;
    cur = merge(cur, lin(y, false));
  }
  cur.held = e.held;
  e = cur;
  return 0;
}

}  // namespace tavfuzz
