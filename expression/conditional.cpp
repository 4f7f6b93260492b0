// The conditional expressions: their per-class statics (the rest is in the header).
#include "conditional.h"

TAV_DEFINE_NODE_STATICS(TavConditionalIntExprI)
TAV_DEFINE_NODE_STATICS(TavConditionalNumExprI)
