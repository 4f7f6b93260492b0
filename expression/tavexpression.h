// tavexpression: the expression layer of an optimisation modelling library.
// One include gives every handle, free function, node class and the host.
//
// Example:
//   TavEnv env;
//   TavNumVar x(env, 0, 10, TavNumVar::Float, "x");
//   TavIntVar n(env, 0, 5, "n");
//   TavExpr cost(env);
//   cost += 2 * x;
//   cost += 3 * n;
//   TavSolution sol(env);
//   sol.setValue(x, 1.5);
//   sol.setValue(n, 2);
//   std::cout << cost << " = " << sol.getValue(cost) << "\n";
//   env.end();
#ifndef TAVEXPRESSION_H
#define TAVEXPRESSION_H

#include "any.h"
#include "array.h"
#include "base.h"
#include "domain.h"
#include "env.h"
#include "memory.h"
#include "stack.h"

#include "protocol.h"
#include "linear.h"
#include "handles.h"
#include "variables.h"
#include "arrays.h"
#include "operators.h"
#include "arithmetic.h"
#include "functions.h"
#include "unary.h"
#include "sums.h"
#include "piecewise.h"
#include "counting.h"
#include "constraints.h"
#include "conditional.h"
#include "element.h"
#include "semicont.h"
#include "conversion.h"
#include "submap.h"

#endif
