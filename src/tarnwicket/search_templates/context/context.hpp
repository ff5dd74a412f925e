// SearchContext internals shared by its construction and evaluation files.
#pragma once

#include "core/module.hpp"

namespace tw::ctx {

object resolve_thresholds(handle thresholds, handle era_config);
object require_threshold(handle thresholds, handle name);
// Through the module namespace, obeying a replaced `_require_search_threshold`.
object require_threshold_late(handle self, handle thresholds, handle name);
object build_search_analytics(handle tracker, handle era_config);
bool submission_cancelled(handle self);
// Adds evaluate() and _derive_rejection_reason() to the class.
void register_evaluate(handle cls);

}  // namespace tw::ctx
