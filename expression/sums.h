// Scalar products and sums over arrays: numbers at once, variables as term
// lists in array order, expressions as one product part per position.
#ifndef TAV_EXPRESSION_SUMS_H
#define TAV_EXPRESSION_SUMS_H

#include "arrays.h"

/// Thrown when the two arrays of a scalar product differ in size.
class TavInvalidScalProdArraysException : public TavException {
 public:
  TavInvalidScalProdArraysException() : TavException("TavScalProd: arrays have different size", 0) {}
};

TavNumExprArg TavScalProd(TavNumArray c, TavNumVarArray x);
TavNumExprArg TavScalProd(TavNumVarArray x, TavNumArray c);
TavNumExprArg TavScalProd(TavNumArray c, TavIntVarArray x);
TavNumExprArg TavScalProd(TavIntVarArray x, TavNumArray c);
TavNumExprArg TavScalProd(TavIntArray c, TavNumVarArray x);
TavNumExprArg TavScalProd(TavNumVarArray x, TavIntArray c);
TavIntExprArg TavScalProd(TavIntArray c, TavIntVarArray x);
TavIntExprArg TavScalProd(TavIntVarArray x, TavIntArray c);
TavNumExprArg TavScalProd(TavNumExprArray a, TavNumExprArray b);
TavIntExprArg TavScalProd(TavIntExprArray a, TavIntExprArray b);
double TavScalProd(TavNumArray a, TavNumArray b);
double TavScalProd(TavIntArray a, TavNumArray b);
double TavScalProd(TavNumArray a, TavIntArray b);
TavInt TavScalProd(TavIntArray a, TavIntArray b);

TavNumExprArg TavSum(TavNumExprArray a);
TavNumExprArg TavSum(TavNumVarArray a);
TavIntExprArg TavSum(TavIntExprArray a);
TavIntExprArg TavSum(TavIntVarArray a);
double TavSum(TavNumArray a);
TavInt TavSum(TavIntArray a);

#endif
