// The program generator and printer. Generation runs the reference model
// alongside, so that it can keep integer divisions away from zero, integer
// values inside the 64-bit range, removals away from the dropped-tail
// layout that the linear node keeps on purpose, functions away from the
// steps of values the reference cannot know to the last bit, and removed
// variables away from every node but the linear ones, the only nodes that
// give a removed variable up.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "fuzz.h"

namespace tavfuzz {

bool Options::parse(const char* arg) {
  const std::string a(arg);
  bool Options::*flags[] = {&Options::aliasing,     &Options::termReuse,    &Options::intConversion,
                            &Options::emptyAlgorithm, &Options::allocFailure, &Options::deep,
                            &Options::varMods,      &Options::removal,      &Options::display};
  const char* names[] = {"aliasing", "term-reuse", "int-conversion", "empty-algorithm", "alloc-failure",
                         "deep",     "var-mods",   "removal",        "display"};
  for (int i = 0; i < 9; ++i) {
    if (a == std::string("--no-") + names[i]) this->*flags[i] = false;
    else if (a == std::string("--allow-") + names[i]) this->*flags[i] = true;
    else continue;
    return true;
  }
  return false;
}

std::uint32_t Source::below(std::uint32_t n) {
  if (n <= 1) return 0;
  if (_data == nullptr) {  // splitmix64
    std::uint64_t z = (_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return (std::uint32_t)((z ^ (z >> 31)) % n);
  }
  std::uint32_t r = 0;
  for (std::uint32_t span = 1; span < n && span < (1u << 24); span <<= 8) {
    r = (r << 8) | (_size ? *_data : 0);
    if (_size) ++_data, --_size;
  }
  return r % n;
}

namespace {

const double Numbers[] = {0, 1, -1, 2, -2, 0.5, -0.5, 3, -3, 0.25, 1.5, -4};
const double Divisors[] = {1, -1, 2, -2, 0.5, -0.5, 4, 0.25};
const double Powers[] = {0, 1, -1, 2, -2, 3, 0.5, -0.5, 1.5, 10};  // exponents and bases
const double IntLimit = 1099511627776.0;  // 2^40: integer values and constants stay far from overflow

bool isNumber(Kind k) { return k <= KInt; }
bool isTerm(Kind k) { return k == KNumTerm || k == KIntTerm; }
bool isIntKind(Kind k) {
  return k == KLong || k == KInt || k == KIntVar || k == KBoolVar || k == KIntTerm || k == KIntArg || k == KIntExpr;
}
bool isSlot(const Node& n) { return n.op == OLeaf && n.kind >= KNumExpr; }
bool mentions(const Node& n, int slot) {
  if (isSlot(n) && n.index == slot) return true;
  for (const Node& k : n.kids)
    if (mentions(k, slot)) return true;
  return false;
}

struct Gen {
  Source& src;
  const Options& o;
  Program& p;
  Model m;

  int pick(int n) { return (int)src.below((std::uint32_t)n); }
  template <std::size_t N>
  double from(const double (&pool)[N]) { return pool[pick((int)N)]; }

  Node number(bool integer, bool divisor) {
    Node n;
    n.kind = integer ? (pick(2) ? KLong : KInt) : (Kind)pick(3);
    n.num = divisor ? from(Divisors) : from(Numbers);
    if (n.kind != KDouble) n.num = divisor ? (pick(2) ? 2 : -3) : pick(8) - 3;
    return n;
  }
  /// A variable not removed (the first numeric and the first integer one never are).
  int anyVar(bool wantInt) {
    const int nv = (int)p.values.size();
    for (int tries = 0;; ++tries) {
      const int v = wantInt ? p.numVars + pick(nv - p.numVars) : pick(nv);
      if (!m.vars[v].removed) return v;
      if (tries == 4) return wantInt ? p.numVars : 0;
    }
  }
  Node var(bool wantInt) {
    Node n;
    n.index = anyVar(wantInt);
    if (n.index < p.numVars) n.kind = KNumVar;
    else if (n.index < p.numVars + p.intVars) n.kind = wantInt || pick(2) ? KIntVar : KNumVar;
    else n.kind = (Kind)(wantInt ? KIntVar + pick(2) : KNumVar + pick(3));
    return n;
  }
  std::vector<int> live(bool wantInt, bool exprOnly) {
    std::vector<int> out;
    for (std::size_t i = 0; i < m.slots.size(); ++i)
      if (m.slots[i] && (!wantInt || m.kinds[i] == KIntExpr) && (!exprOnly || m.kinds[i] == KExpr)) out.push_back((int)i);
    return out;
  }
  Node leaf(bool wantInt) {
    std::vector<int> slots = live(wantInt, false);
    const int choice = pick(3);
    if (choice == 0 && !slots.empty()) {
      Node n;
      n.index = slots[pick((int)slots.size())];
      n.kind = m.kinds[n.index];
      return n;
    }
    return choice == 2 ? number(wantInt, false) : var(wantInt);
  }
  /// Counted integer linear nodes, where copying or converting them is fragile.
  bool intLinSlot(const Node& n) const {
    return isSlot(n) && (m.slots[n.index]->kind == RIntLin || m.slots[n.index]->unknown);
  }
  bool acceptable(const Node& n) {
    if (n.kind == KNone) return false;
    const bool intResult = isIntKind(n.kind);
    for (const Node& k : n.kids) {
      if (intResult && k.kind == KDouble) return false;  // would be narrowed, not computed
      if (!o.intConversion && intLinSlot(k) &&
          !(n.op == OMod || n.op == OIDiv || n.op == OMin || n.op == OMax || n.op == OMinArr || n.op == OMaxArr ||
            n.op == OCall || (n.op == OMul && n.kind == KIntArg && !isNumber(n.kids[0].kind) && !isNumber(n.kids[1].kind))))
        return false;
    }
    const Ref r = m.eval(n);
    if (r.fragile) return false;
    if (!std::isfinite(r.mag)) return false;  // a tolerance that would let any value through
    if (intResult && !(r.mag < IntLimit)) return false;
    if (n.op == OMod || n.op == OIDiv) {  // truncated operands in range, divisor not zero
      const Ref a = m.eval(n.kids[0]), b = m.eval(n.kids[1]);
      const double x = m.value(a), y = m.value(b);
      if (a.throws || b.throws || !(std::fabs(x) < IntLimit) || !(std::fabs(y) < IntLimit) || (long long)y == 0)
        return false;
    }
    return true;
  }
  Node expr(int depth, bool wantInt) {
    if (depth <= 0 || src.percent(25)) return leaf(wantInt);
    for (int tries = 0; tries < 6; ++tries) {
      Node n;
      n.op = src.percent(30) ? OCall : src.percent(20) ? (Op)(OElement + pick(SpecialOps)) : (Op)(ONeg + pick(OScalProd));
      if (n.op == OTermTwice && !o.termReuse) continue;
      if (n.op == OCall) {
        if (!call(n, depth, wantInt)) continue;
      } else if (n.op >= OElement) {
        if (!special(n, depth, wantInt)) continue;
      } else if (n.op >= OMinArr) aggregate(n, depth, wantInt);
      else if (n.op == OTermTwice) {
        Node t;
        t.op = OMul;
        t.kids = {var(wantInt), number(wantInt, false)};
        t.kind = resultKind(OMul, t.kids[0].kind, t.kids[1].kind);
        if (!isTerm(t.kind)) continue;
        n.kind = resultKind(OAdd, t.kind, t.kind);
        n.kids = {t};
      } else {
        const bool intOp = n.op == OMod || n.op == OIDiv;
        n.kids.push_back(operandOf(n.op, depth, wantInt || intOp));
        if (n.op != ONeg)
          n.kids.push_back(n.op == ODiv && pick(2) ? number(false, true) : operandOf(n.op, depth, wantInt || intOp));
        n.kind = resultKind(n.op, n.kids[0].kind, n.op == ONeg ? KNone : n.kids[1].kind);
      }
      if (wantInt && !isIntKind(n.kind)) continue;
      if (acceptable(n)) return n;
    }
    return leaf(wantInt);
  }
  /// c * x (or x * c) where it makes a term handle, else a variable.
  Node term(bool wantInt) {
    Node t;
    t.op = OMul;
    t.kids = {var(wantInt), number(wantInt, false)};
    if (pick(2)) std::swap(t.kids[0], t.kids[1]);
    t.kind = resultKind(OMul, t.kids[0].kind, t.kids[1].kind);
    return isTerm(t.kind) ? t : var(wantInt);
  }
  /// An operand of an operator: often a term or a variable, so that the
  /// paths that extend a temporary linear node in place are taken.
  Node operandOf(Op op, int depth, bool wantInt) {
    if ((op == OAdd || op == OSub || op == ONeg || op == OMul) && src.percent(35)) return pick(3) ? term(wantInt) : var(wantInt);
    return expr(depth - 1, wantInt);
  }
  /// A call of a row of the function table; false when the operands found
  /// do not select the overload the row stands for.
  bool call(Node& n, int depth, bool wantInt) {
    std::vector<int> rows;
    for (int i = 0; i < FunctionCount; ++i)
      if (!wantInt || Functions[i].result == KIntArg) rows.push_back(i);
    n.fn = rows[pick((int)rows.size())];
    const Function& f = Functions[n.fn];
    auto operand = [&] {
      Node e = expr(depth - 1, f.intOperand);
      return isNumber(e.kind) ? var(f.intOperand) : e;
    };
    auto constant = [&] {
      Node c;
      c.num = from(Powers);
      c.kind = std::floor(c.num) == c.num && pick(2) ? (pick(2) ? KInt : KLong) : KDouble;
      return c;
    };
    if (f.shape == FCstExpr) n.kids.push_back(constant());
    n.kids.push_back(operand());
    if (f.shape == FBinary) n.kids.push_back(operand());
    if (f.shape == FExprCst) n.kids.push_back(constant());
    n.kind = callKind(n.fn, n.kids[0].kind, n.kids.size() > 1 ? n.kids[1].kind : KNone);
    return n.kind == f.result;
  }
  /// An expression operand of a builder: a number becomes a variable.
  Node operand(int depth, bool integer) {
    Node e = expr(depth - 1, integer);
    return isNumber(e.kind) ? var(integer) : e;
  }
  /// The elements of an array of the kind n.array, into n.kids (or n.numbers).
  void elements(Node& n, int depth, int size) {
    const bool intArray = n.array == AIntExpr || n.array == AIntVar || n.array == AIntValues;
    for (int i = 0; i < size; ++i) {
      if (n.array >= ANumValues) n.numbers.push_back(intArray ? pick(7) - 3 : from(Numbers));
      else n.kids.push_back(n.array == ANumVar || n.array == AIntVar ? var(intArray) : operand(depth, intArray));
    }
  }
  /// Breakpoints, some equal (the jumps of the slope form); now and then
  /// unsorted, which the library walks instead of bisecting.
  std::vector<double> breakpoints(int size) {
    std::vector<double> p;
    for (int i = 0; i < size; ++i) p.push_back(i > 0 && pick(5) == 0 ? p.back() : (pick(33) - 16) / 4.0);
    if (pick(8)) std::sort(p.begin(), p.end());
    return p;
  }
  /// An element, count, deviation, piecewise or conditional node; false when
  /// the kind asked for cannot be made.
  bool special(Node& n, int depth, bool wantInt) {
    switch (n.op) {
      case OElement: {
        n.array = (ArrayKind)(wantInt ? (pick(3) == 0 ? AIntValues : AIntExpr + 2 * pick(2)) : pick(6));
        n.form = pick(2);
        n.kids.push_back(operand(depth, true));
        for (int tries = 0; tries < 3; ++tries) {  // mostly an index inside the array
          const double i = m.value(m.eval(n.kids[0]));
          if (i >= 0 && i < 5) break;
          n.kids[0] = operand(depth, true);
        }
        elements(n, depth, 1 + pick(4));
        n.kind = n.array == AIntExpr || n.array == AIntVar || n.array == AIntValues ? KIntArg : KNumArg;
        return true;
      }
      case OCount:
      case OStdDev:
        if (wantInt && n.op == OStdDev) return false;
        n.array = (ArrayKind)(AIntExpr + 2 * pick(2));
        elements(n, depth, 1 + pick(4));  // the builders refuse an empty array
        n.num = pick(5) - 2;
        n.form = n.op == OStdDev && pick(2);
        if (n.form) n.num2 = n.num + pick(10);
        n.kind = n.op == OCount ? KIntArg : KNumArg;
        return true;
      case OPiecewise: {
        if (wantInt) return false;
        n.kids.push_back(operand(depth, false));
        n.form = pick(2);
        const int size = 1 + pick(5);
        n.numbers = breakpoints(size);
        const int second = size + n.form - (pick(10) == 0);  // now and then one short
        for (int i = 0; i < second; ++i) n.numbers2.push_back(from(Numbers));
        n.num = n.form ? (pick(33) - 16) / 4.0 : from(Numbers);
        n.num2 = from(Numbers);
        n.kind = KNumArg;
        return true;
      }
      default: {  // conditional
        const bool integer = wantInt || pick(2);
        n.form = pick(3);
        n.thenNumber = pick(3) == 0;
        n.elseNumber = pick(3) == 0;
        n.kids.push_back(n.thenNumber ? number(integer, false) : operand(depth, integer));
        n.kids.push_back(n.elseNumber ? number(integer, false) : operand(depth, integer));
        for (Node& b : n.kids)
          if (isNumber(b.kind)) b.kind = integer ? KLong : KDouble;
        if (n.form == 0) n.kids.push_back(pick(2) ? var(true) : operand(depth, false));
        n.kind = integer ? KIntArg : KNumArg;
        return true;
      }
    }
  }
  void aggregate(Node& n, int depth, bool wantInt) {
    n.array = (ArrayKind)(wantInt ? AIntExpr + 2 * pick(2) : pick(4));
    const bool intArray = n.array == AIntExpr || n.array == AIntVar;
    const bool vars = n.array == ANumVar || n.array == AIntVar;
    const int size = vars && pick(16) == 0 ? 11 : pick(4);  // now and then long enough for a line break
    for (int i = 0; i < size * (n.op == OScalProd && !vars ? 2 : 1); ++i) {
      Node e = vars ? var(intArray) : expr(depth - 1, intArray);
      if (isNumber(e.kind)) e = var(intArray);
      n.kids.push_back(e);
    }
    if (n.op == OScalProd && vars) {
      n.intNumbers = pick(2) == 0;
      n.numbersFirst = pick(2) == 0;
      for (int i = 0; i < size; ++i) n.numbers.push_back(n.intNumbers ? pick(7) - 3 : from(Numbers));
      n.kind = n.intNumbers && intArray ? KIntArg : KNumArg;
    } else {
      n.kind = intArray ? KIntArg : KNumArg;
    }
  }

  Node rhsFor(Kind h, char op) {
    if (op == '*' || op == '/') return number(h == KIntExpr, op == '/');
    if (src.percent(25)) return term(h == KIntExpr);
    return expr(1 + pick(2), h == KIntExpr);
  }

  Stmt statement() {
    Stmt s;
    std::vector<int> exprs = live(false, true), all = live(false, false);
    const int roll = pick(100);
    if (roll < 30 || all.empty()) {
      s.kind = SDecl;
      s.handle = (Kind)(KNumExpr + pick(3));
      for (int tries = 0; tries < 6; ++tries) {
        s.rhs = expr(pick(4), s.handle == KIntExpr);
        const Kind k = s.rhs.kind;
        const bool varRoot = k >= KNumVar && k <= KBoolVar;
        if ((varRoot && s.handle != KExpr) || (isSlot(s.rhs) && s.handle == KIntExpr && k != KIntExpr)) continue;
        if (!o.intConversion && s.handle == KExpr && intLinSlot(s.rhs)) continue;
        if (s.handle == KExpr && isNumber(k) && k != KDouble) s.rhs.kind = KDouble;
        return s;
      }
      s.rhs = number(s.handle == KIntExpr, false);
      return s;
    }
    s.slot = all[pick((int)all.size())];
    s.handle = m.kinds[s.slot];
    if (roll < 55) {
      s.kind = SCompound;
      const char ops[] = {'+', '-', '*', '/'};
      s.op = ops[pick(s.handle == KIntExpr ? 3 : 4)];
      if (!o.intConversion && m.slots[s.slot]->kind == RIntLin) return end(s);
      for (int tries = 0; tries < 6; ++tries) {
        s.rhs = rhsFor(s.handle, s.op);
        if (o.aliasing && (s.op == '+' || s.op == '-') && src.percent(15)) {
          s.rhs = Node();
          s.rhs.kind = s.handle;
          s.rhs.index = s.slot;
        }
        const bool self = mentions(s.rhs, s.slot);
        if (!assignable(s.handle, s.op, s.rhs.kind) || (!o.intConversion && intLinSlot(s.rhs)) || (self && !o.aliasing))
          continue;
        if (s.handle == KIntExpr) {
          Model probe = copyModel();
          probe.apply(s);
          if (!(probe.slots[s.slot]->mag < IntLimit)) continue;
        }
        return s;
      }
      return end(s);
    }
    if (roll < 80 && !exprs.empty()) return method(exprs[pick((int)exprs.size())]);
    if (roll < 84 && o.termReuse && !exprs.empty()) {
      s.kind = STermTwice;
      s.slot = exprs[pick((int)exprs.size())];
      s.rhs.op = OMul;
      s.rhs.kids = {var(false), number(false, false)};
      s.rhs.kind = resultKind(OMul, s.rhs.kids[0].kind, s.rhs.kids[1].kind);
      return isTerm(s.rhs.kind) ? s : end(s);
    }
    if (roll < 86 && o.emptyAlgorithm) return s.kind = SEmptyAlg, s;
    if (roll == 86 && o.deep && pick(8) == 0) return s.kind = SDeep, s;
    if (roll >= 87 && roll < 94 && o.varMods) return varStatement();
    if (roll >= 94 && roll < 96 && o.removal) return removal(s);
    return end(s);
  }
  /// A modification of a variable, or a conversion made or edited.
  Stmt varStatement() {
    Stmt s;
    const int roll = pick(100);
    const int v = anyVar(false);
    const bool isNum = v < p.numVars, isInt = !isNum && v < p.numVars + p.intVars;
    auto value = [&] { return isNum ? from(Numbers) : isInt ? (double)(pick(13) - 6) : (double)pick(2); };
    s.vars = {v};
    if (roll < 15 && !m.conversions.empty()) {
      s.kind = SConvRemove;
      s.slot = pick((int)m.conversions.size());
      const std::vector<int>& c = m.conversions[(std::size_t)s.slot];
      if (!c.empty() && pick(10) < 7) s.vars = {c[(std::size_t)pick((int)c.size())]};
      return s;
    }
    if (roll < 30) {
      s.kind = SConvert;
      s.slot = (int)m.conversions.size();
      s.op = (char)(1 + pick(3));
      for (int i = pick(3); i > 0; --i) s.vars.push_back(pick(3) ? anyVar(false) : s.vars[0]);
      return s;
    }
    if (roll < 45 && isNum && v % 2) {
      s.kind = SThreshold;
      s.coefs = {pick(5) ? from(Numbers) : m.vars[v].threshold};
      return s;
    }
    if (roll < 65 && (isNum || isInt)) {
      s.kind = SValues;
      s.op = isInt ? (pick(7) ? 'i' : 'n') : (pick(2) ? 'i' : 'n');
      for (int i = 1 + pick(4); i > 0; --i) s.coefs.push_back(s.op == 'i' ? pick(13) - 6 : from(Numbers));
      return s;
    }
    if (roll < 75) {  // integral bounds, which every kind of domain keeps as they are
      s.kind = SArrayBounds;
      for (int i = pick(3); i > 0; --i) s.vars.push_back(anyVar(false));
      bool boolean = false;
      for (int w : s.vars) boolean = boolean || w >= p.numVars + p.intVars;
      for (std::size_t i = 0; i < 2 * s.vars.size(); ++i) s.coefs.push_back(boolean ? pick(2) : pick(13) - 6);
      return s;
    }
    s.kind = SVarBounds;
    s.op = "lub"[pick(3)];
    s.coefs = {value()};
    if (s.op == 'b') s.coefs.push_back(value());
    return s;
  }
  /// A variable to remove from every object: not the first numeric or
  /// integer one (the generator's fallbacks) nor a constraint's indicator.
  Stmt removal(Stmt s) {
    std::vector<int> candidates;
    for (int v = 1; v < (int)p.values.size(); ++v) {
      const int b = v - p.numVars - p.intVars;
      if (v != p.numVars && !m.vars[v].removed && !(b >= 0 && b % 2)) candidates.push_back(v);
    }
    if (candidates.empty()) return end(s);
    s = Stmt();
    s.kind = SRemoveVar;
    s.vars = {candidates[(std::size_t)pick((int)candidates.size())]};
    s.op = pick(2) ? '1' : '0';
    return s;
  }
  Stmt end(Stmt s) {
    s.kind = SEnd;
    s.rhs = Node();
    return s;
  }
  /// A model whose entries are copies, for trying a statement out.
  Model copyModel() const {
    Model c(p);
    c.texts = false;
    for (const auto& r : m.slots) c.slots.push_back(r ? std::make_shared<Ref>(*r) : nullptr);
    for (std::size_t i = 0; i < m.slots.size(); ++i)  // keep the sharing, which decides copying
      for (std::size_t j = 0; j < i; ++j)
        if (m.slots[i] && m.slots[i] == m.slots[j]) c.slots[i] = c.slots[j];
    c.kinds = m.kinds;
    return c;
  }
  Stmt method(int slot) {
    Stmt s;
    s.slot = slot;
    s.handle = KExpr;
    s.kind = (StmtKind)(SClear + pick(SCopy - SClear + 1));
    Ref normalized = *m.slots[slot];
    Model::normalize(normalized);
    const Ref& now = *m.slots[slot];
    const int count = s.kind == SSetConst ? 1 : s.kind == SSetCoef ? 1 : 1 + pick(3);
    for (int i = 0; i < count; ++i) {
      s.vars.push_back(anyVar(false));
      s.coefs.push_back(from(Numbers));
    }
    if (s.kind != SSetCoefs && s.kind != SSetCoef && s.kind != SRemove) s.vars.clear();
    if (s.kind == SCopy) s.rhs.kind = KExpr, s.rhs.index = slot;
    if (s.kind != SSetConst && s.kind != SSetCoef && s.kind != SSetCoefs) s.coefs.clear();
    if (s.kind == SSetConst && now.unknown) return end(s);
    if ((s.kind == SNormalize || s.kind == SSetCoef || s.kind == SSetCoefs) && now.held && now.norm == Yes) {
      // Normalised, yet with zero cells a bulk change kept: whether a parent
      // still holds the node (and the edit works on a fresh copy) decides
      // whether they go, which the reference cannot know.
      Ref forced = now;
      forced.norm = No;
      Model::normalize(forced);
      bool same = forced.cells.size() == now.cells.size();
      for (std::size_t i = 0; same && i < now.cells.size(); ++i)
        same = forced.cells[i].var == now.cells[i].var && forced.cells[i].coef == now.cells[i].coef;
      if (!same) return end(s);
    }
    if (s.kind == SSetCoef || s.kind == SSetCoefs || s.kind == SRemove) {
      if (normalized.unknown || now.unknown) return end(s);
      for (int v : s.vars) {  // one cell per variable, so that the one that takes the value is clear
        int seen = 0;
        for (const Cell& c : (s.kind == SRemove ? now : normalized).cells) seen += c.var == v;
        if (seen > 1) return end(s);
      }
    }
    if (s.kind == SRemove && !now.cells.empty()) {
      bool lastKept = false;  // dropping the tail cell leaves a list that later appends lose
      std::size_t kept = 0;
      for (const Cell& c : now.cells) {
        bool dropped = false;
        for (int v : s.vars) dropped = dropped || c.var == v;
        lastKept = !dropped;
        kept += !dropped;
      }
      if (!lastKept && kept > 0) return end(s);
    }
    if (o.allocFailure && src.percent(15)) s.failAfter = 1 + pick(4);
    return s;
  }
};

/// Whether a failing allocation inside the statement can be checked for
/// atomicity: one library operation over operands that already exist.
bool singleOperation(const Stmt& s) {
  if (s.kind == SDecl && s.handle == KExpr) return s.rhs.op == OLeaf && isSlot(s.rhs);
  if (s.kind != SDecl && s.kind != SCompound) return false;
  if (s.rhs.op == OLeaf) return true;
  if (s.kind == SCompound) return false;  // the operand would be a temporary left behind
  if ((s.rhs.op > OMax && s.rhs.op < OCall) || isTerm(s.rhs.kind)) return false;
  for (const Node& k : s.rhs.kids)
    if (k.op != OLeaf) return false;
  return true;
}

}  // namespace

Program generate(Source& src, const Options& opts) {
  Program p;
  p.numVars = 1 + (int)src.below(3);
  p.intVars = 1 + (int)src.below(3);
  p.boolVars = (int)src.below(3);
  for (int i = 0; i < p.numVars; ++i) p.values.push_back(((int)src.below(33) - 16) / 4.0);
  for (int i = 0; i < p.intVars; ++i) p.values.push_back((int)src.below(13) - 6);
  for (int i = 0; i < p.boolVars; ++i) p.values.push_back(src.below(2));
  Gen g{src, opts, p, Model(p)};
  g.m.texts = false;  // generation does not print
  const int n = 3 + (int)src.below(18);
  p.listenAt = (int)src.below((std::uint32_t)n);
  p.removeFromAll = opts.removal && src.below(4) == 0;
  p.display = opts.display;
  for (int i = 0; i < n; ++i) {
    Stmt s = g.statement();
    if (s.kind == SRemoveVar) {
      // Only linear nodes give up a removed variable: every other handle is
      // ended first, and one by one only a node's first term goes.
      for (std::size_t k = 0; k < g.m.slots.size(); ++k) {
        const std::shared_ptr<Ref>& r = g.m.slots[k];
        if (!r || (r->linear() && r->parts.empty() && !r->unknown)) continue;
        Stmt e;
        e.kind = SEnd;
        e.slot = (int)k;
        g.m.apply(e);
        p.stmts.push_back(e);
      }
      if (!g.m.removable(s.vars[0], true)) s.op = '0';
    }
    if (opts.allocFailure && s.failAfter == 0 && singleOperation(s) && src.percent(15)) s.failAfter = 1 + (int)src.below(4);
    if (s.kind == SDecl || s.kind == SCopy) s.slot = (int)g.m.slots.size();
    g.m.apply(s);
    p.stmts.push_back(s);
  }
  return p;
}

// ------------------------------------------------------------- printing

std::string Program::varName(int v) const {
  if (v < numVars) return "x" + std::to_string(v);
  if (v < numVars + intVars) return "i" + std::to_string(v - numVars);
  return "b" + std::to_string(v - numVars - intVars);
}

namespace {
const char* const KindNames[] = {"double",       "TavInt",        "int",          "TavNumVar",
                                 "TavIntVar",    "TavBoolVar",    "TavNumLinExprTerm", "TavIntLinExprTerm",
                                 "TavNumExprArg", "TavIntExprArg", "TavNumExpr",   "TavIntExpr", "TavExpr"};
const char* const ArrayNames[] = {"TavNumExprArray", "TavIntExprArray", "TavNumVarArray",
                                  "TavIntVarArray",  "TavNumArray",     "TavIntArray"};

std::string num(double v, Kind k) {
  std::ostringstream os;
  os << v;
  if (k == KDouble && std::floor(v) == v && std::fabs(v) < 1e15) os << ".0";
  if (k == KLong) os << "L";
  return os.str();
}

struct Printer {
  const Program& p;
  std::string varLeaf(const Node& n) const {
    const int v = n.index;
    const Kind natural = v < p.numVars ? KNumVar : v < p.numVars + p.intVars ? KIntVar : KBoolVar;
    const std::string name = p.varName(v);
    return n.kind == natural ? name : std::string(KindNames[n.kind]) + "(" + name + ")";
  }
  std::string list(const char* type, const std::vector<Node>& kids, std::size_t from, std::size_t to) const {
    std::string s = std::string(type) + "{";
    for (std::size_t i = from; i < to; ++i) s += (i > from ? ", " : "") + node(kids[i]);
    return s + "}";
  }
  std::string node(const Node& n) const {
    static const char* const infix[] = {"", "-", " + ", " - ", " * ", " / ", " % "};
    static const char* const calls[] = {"TavDiv(", "TavMin(", "TavMax(", "", "TavMin(", "TavMax(", "TavSum("};
    if (n.op == OLeaf) {
      if (n.kind <= KInt) return num(n.num, n.kind);
      return n.kind <= KBoolVar ? varLeaf(n) : "h" + std::to_string(n.index);
    }
    if (n.op == ONeg) return "-" + node(n.kids[0]);
    if (n.op <= OMod) return "(" + node(n.kids[0]) + infix[n.op] + node(n.kids[1]) + ")";
    if (n.op <= OMax) return calls[n.op - OIDiv] + node(n.kids[0]) + ", " + node(n.kids[1]) + ")";
    if (n.op == OTermTwice) return "[&] { auto t = " + node(n.kids[0]) + "; return t + t; }()";
    if (n.op == OCall)
      return std::string(Functions[n.fn].name) + "(" + node(n.kids[0]) + (n.kids.size() > 1 ? ", " + node(n.kids[1]) : "") + ")";
    if (n.op >= OElement) return special(n);
    if (n.op != OScalProd) return calls[n.op - OIDiv] + list(ArrayNames[n.array], n.kids, 0, n.kids.size()) + ")";
    if (n.array == ANumExpr || n.array == AIntExpr) {
      const std::size_t half = n.kids.size() / 2;
      return "TavScalProd(" + list(ArrayNames[n.array], n.kids, 0, half) + ", " +
             list(ArrayNames[n.array], n.kids, half, n.kids.size()) + ")";
    }
    std::string numbers = n.intNumbers ? "TavIntArray{" : "TavNumArray{";
    for (std::size_t i = 0; i < n.numbers.size(); ++i)
      numbers += (i ? ", " : "") + num(n.numbers[i], n.intNumbers ? KInt : KDouble);
    numbers += "}";
    const std::string vars = list(ArrayNames[n.array], n.kids, 0, n.kids.size());
    return "TavScalProd(" + (n.numbersFirst ? numbers + ", " + vars : vars + ", " + numbers) + ")";
  }
  std::string numbers(const char* type, const std::vector<double>& v, Kind k) const {
    std::string out = std::string(type) + "{";
    for (std::size_t i = 0; i < v.size(); ++i) out += (i ? ", " : "") + num(v[i], k);
    return out + "}";
  }
  std::string special(const Node& n) const {
    const std::string array =
        n.array >= ANumValues ? numbers(ArrayNames[n.array], n.numbers, n.array == AIntValues ? KInt : KDouble)
                              : list(ArrayNames[n.array], n.kids, n.op == OElement, n.kids.size());
    switch (n.op) {
      case OElement:
        return n.form ? array + "[" + node(n.kids[0]) + "]" : "TavElement(" + array + ", " + node(n.kids[0]) + ")";
      case OCount: return "TavCount(" + array + ", " + num(n.num, KLong) + ")";
      case OStdDev:
        return "TavStandardDeviation(" + array + (n.form ? ", " + num(n.num, KDouble) + ", " + num(n.num2, KDouble) : "") + ")";
      case OPiecewise: {
        const std::string p = numbers("TavNumArray", n.numbers, KDouble), v = numbers("TavNumArray", n.numbers2, KDouble);
        const std::string a = num(n.num, KDouble), b = num(n.num2, KDouble);
        return "TavPiecewiseLinear(" + node(n.kids[0]) + ", " + (n.form ? p + ", " + v + ", " + a : a + ", " + p + ", " + v) +
               ", " + b + ")";
      }
      default: {
        const bool integer = n.kind == KIntArg;
        auto branch = [this](const Node& b) { return b.op == OLeaf && b.kind <= KInt ? node(b) : node(b) + ".getImpl()"; };
        const std::string c = n.form == 1 ? "yes" : n.form == 2 ? "no" : "TavNumExprArg(" + node(n.kids[2]) + ")";
        return std::string(integer ? "TavIntExprArg(new (env) TavConditionalIntExprI("
                                   : "TavNumExprArg(new (env) TavConditionalNumExprI(") +
               "env, " + c + ".getImpl(), " + branch(n.kids[0]) + ", " + branch(n.kids[1]) + "))";
      }
    }
  }
  std::string vars(const Stmt& s) const {
    std::string out = "TavNumVarArray{";
    for (std::size_t i = 0; i < s.vars.size(); ++i) out += (i ? ", " : "") + p.varName(s.vars[i]);
    return out + "}";
  }
  std::string stmt(const Stmt& s) const {
    const std::string h = "h" + std::to_string(s.slot);
    std::string coefs = "TavNumArray{";
    for (std::size_t i = 0; i < s.coefs.size(); ++i) coefs += (i ? ", " : "") + num(s.coefs[i], KDouble);
    coefs += "}";
    switch (s.kind) {
      case SDecl:
        if (s.rhs.op == OLeaf && s.rhs.kind <= KInt)
          return std::string(KindNames[s.handle]) + " " + h + "(env, " + node(s.rhs) + ");";
        if (isSlot(s.rhs))
          return std::string(KindNames[s.handle]) + " " + h + " = " + (s.handle == KIntExpr ? "TavIntExprArg(" : "TavNumExprArg(") +
                 node(s.rhs) + ");";
        return std::string(KindNames[s.handle]) + " " + h + " = " + node(s.rhs) + ";";
      case SCompound: return h + " " + s.op + "= " + node(s.rhs) + ";";
      case SClear: return h + ".clear();";
      case SSetConst: return h + ".setNumConstant(" + num(s.coefs[0], KDouble) + ");";
      case SSetCoef: return h + ".setLinearCoef(" + p.varName(s.vars[0]) + ", " + num(s.coefs[0], KDouble) + ");";
      case SSetCoefs: return h + ".setLinearCoefs(" + vars(s) + ", " + coefs + ");";
      case SRemove: return h + ".remove(" + vars(s) + ");";
      case SNormalize: return h + ".normalize();";
      case SCopy: return "TavExpr " + h + " = " + node(s.rhs) + ".copy();";
      case SEnd: return h + ".end();";
      case STermTwice: return "{ auto t = " + node(s.rhs) + "; " + h + " += t; " + h + " += t; }";
      case SEmptyAlg: return "TavAlgorithm().getValue(" + h + ");";
      case SDeep: return "{ TavNumExpr d = TavMin(x0, 1.0); 100000 times: d = TavMin(d, 1.0); d.end(); }";
      case SVarBounds: {
        const std::string v = p.varName(s.vars[0]);
        const bool integer = s.vars[0] >= p.numVars;
        const Kind k = integer ? KLong : KDouble;
        if (s.op == 'b') return "TavNumVar(" + v + ").setBounds(" + num(s.coefs[0], k) + ", " + num(s.coefs[1], k) + ");";
        return (integer ? "TavIntVar(" + v + (s.op == 'l' ? ").setMin(" : ").setMax(") : "TavNumVar(" + v + (s.op == 'l' ? ").setLB(" : ").setUB(")) +
               num(s.coefs[0], k) + ");";
      }
      case SValues:
        return "TavNumVar(" + p.varName(s.vars[0]) + ").setPossibleValues(" +
               (s.op == 'i' ? numbers("TavIntArray", s.coefs, KInt) : numbers("TavNumArray", s.coefs, KDouble)) + ");";
      case SThreshold: return p.varName(s.vars[0]) + ".setSemiContinuousLb(" + num(s.coefs[0], KDouble) + ");";
      case SArrayBounds: {
        const std::vector<double> lbs(s.coefs.begin(), s.coefs.begin() + (long)s.vars.size());
        const std::vector<double> ubs(s.coefs.begin() + (long)s.vars.size(), s.coefs.end());
        return vars(s) + ".setBounds(" + numbers("TavNumArray", lbs, KDouble) + ", " + numbers("TavNumArray", ubs, KDouble) +
               ");  // on the shared domains";
      }
      case SConvert:
        return "TavConversion c" + std::to_string(s.slot) + "(env, " + vars(s) + ", TavNumVar::Type(" + std::to_string((int)s.op) + "));";
      case SConvRemove: return "c" + std::to_string(s.slot) + ".removeVar(" + p.varName(s.vars[0]) + ");";
      case SRemoveVar:
        return std::string("env.getImpl()->setOneByOneRemoval(") + (s.op == '1' ? "true" : "false") +
               "); env.getImpl()->setRemoveFromAllOnDestroy(true); " + p.varName(s.vars[0]) +
               ".end(); /* then both flags back */";
    }
    return "";
  }
};
}  // namespace

std::string Program::print() const {
  std::ostringstream os;
  os << "TavEnv env;\n";
  os << "TavConstraint yes(new (env) TavConstConstraintI(env, 0, 1)), no(new (env) TavConstConstraintI(env, 0, 0));\n";
  for (int v = 0; v < (int)values.size(); ++v) {  // the variables read the same whatever their kind
    const int b = v - numVars - intVars;
    if (v < numVars) os << (v % 2 ? "TavSemiContVar " : "TavNumVar ") << varName(v) << (v % 2 ? "(env, 0.5, 100);\n" : "(env, -100, 100);\n");
    else if (b < 0) os << "TavIntVar " << varName(v) << "(env, -100, 100);\n";
    else if (b % 2) os << "TavNumVar " << varName(v) << (b % 4 == 1 ? "(yes);  // the constraint's indicator\n" : "(no);\n");
    else os << "TavBoolVar " << varName(v) << "(env);\n";
  }
  os << "// every variable is named as written here\n";
  if (removeFromAll) os << "env.getImpl()->setRemoveFromAllOnDestroy(true);\n";
  os << "TavSolution sol(env);\n";
  for (int v = 0; v < (int)values.size(); ++v) os << "sol.setValue(" << varName(v) << ", " << values[v] << ");\n";
  const Printer pr{*this};
  for (std::size_t i = 0; i < stmts.size(); ++i) {
    const Stmt& s = stmts[i];
    if ((int)i == listenAt) os << "Listener listener(env);  // records every change from here on\n";
    if (s.failAfter) os << "env.getImpl()->getMemory().failAfter(" << s.failAfter << ");  // once, then again\n";
    os << pr.stmt(s) << "\n";
  }
  os << "// each statement is followed by a check of every live handle; at the end all are ended\n";
  return os.str();
}

}  // namespace tavfuzz
