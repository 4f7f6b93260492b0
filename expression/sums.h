// Scalar products and sums over arrays: numbers at once, variables as term
// lists in array order, expressions as one product part per position.
#ifndef TAV_EXPRESSION_SUMS_H
#define TAV_EXPRESSION_SUMS_H

#include <vector>

#include "arrays.h"

/// Thrown when the two arrays of a scalar product differ in size.
class TavInvalidScalProdArraysException : public TavException {
 public:
  TavInvalidScalProdArraysException() : TavException("TavScalProd: arrays have different size", 0) {}
};

/// Σ c[i] * x[i] over coefficients and variables, either order: one linear
/// node with a term per position, in the variables' environment.
///@{
TavNumExprArg TavScalProd(TavNumArray c, TavNumVarArray x);
TavNumExprArg TavScalProd(TavNumVarArray x, TavNumArray c);
TavNumExprArg TavScalProd(TavNumArray c, TavIntVarArray x);
TavNumExprArg TavScalProd(TavIntVarArray x, TavNumArray c);
TavNumExprArg TavScalProd(TavIntArray c, TavNumVarArray x);
TavNumExprArg TavScalProd(TavNumVarArray x, TavIntArray c);
TavIntExprArg TavScalProd(TavIntArray c, TavIntVarArray x);
TavIntExprArg TavScalProd(TavIntVarArray x, TavIntArray c);
///@}
/// The scalar product of coefficients a reader holds (c[i] for x[i]) and a
/// variable array, read in place: the same node as the array forms give.
///@{
TavNumExprArg TavScalProd(const std::vector<double>& c, TavNumVarArray x);
TavNumExprArg TavScalProd(TavNumVarArray x, const std::vector<double>& c);
TavNumExprArg TavScalProd(const std::vector<double>& c, TavIntVarArray x);
TavNumExprArg TavScalProd(TavIntVarArray x, const std::vector<double>& c);
TavIntExprArg TavScalProd(const std::vector<TavInt>& c, TavIntVarArray x);
TavIntExprArg TavScalProd(TavIntVarArray x, const std::vector<TavInt>& c);
///@}
/// The same over n coefficients from c; TavWrongUsage for a negative n or a
/// null c with a positive n.
///@{
TavNumExprArg TavScalProd(const double* c, TavInt n, TavNumVarArray x);
TavNumExprArg TavScalProd(const double* c, TavInt n, TavIntVarArray x);
TavIntExprArg TavScalProd(const TavInt* c, TavInt n, TavIntVarArray x);
///@}
/// Σ a[i] * b[i] over two expression arrays: one product part per position.
///@{
TavNumExprArg TavScalProd(TavNumExprArray a, TavNumExprArray b);
TavIntExprArg TavScalProd(TavIntExprArray a, TavIntExprArray b);
///@}
/// Σ a[i] * b[i] over two number arrays, computed at once.
///@{
double TavScalProd(TavNumArray a, TavNumArray b);
double TavScalProd(TavIntArray a, TavNumArray b);
double TavScalProd(TavNumArray a, TavIntArray b);
TavInt TavScalProd(TavIntArray a, TavIntArray b);
///@}

/// The sum of an array's elements: a linear node over expressions or
/// variables (an empty array gives 0), a number over numbers.
///@{
TavNumExprArg TavSum(TavNumExprArray a);
TavNumExprArg TavSum(TavNumVarArray a);
TavIntExprArg TavSum(TavIntExprArray a);
TavIntExprArg TavSum(TavIntVarArray a);
double TavSum(TavNumArray a);
TavInt TavSum(TavIntArray a);
///@}

#endif
