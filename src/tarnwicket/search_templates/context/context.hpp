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

}  // namespace tw::ctx

// The class's static `_require_search_threshold`: only its identity is tested.
namespace tw::ctx {
extern const LateFn k_class_require_threshold;
}  // namespace tw::ctx

// ---------------------------------------------------------------- bound in register.cpp

namespace tw::ctx {
object c_build_analytics(handle tracker, handle era_config);
object c_require_threshold(handle thresholds, handle name);
object c_resolve_thresholds(handle thresholds, handle era_config);
object context_init(handle self, handle vocab, handle universe, handle metaparams, handle depth, handle tracker, handle sync_mgr, handle bt, handle thresholds, handle era_config, handle fatal_callback, handle submission_queue, handle tracker_write_lock, handle submission_wakeup, handle stop_event, handle submission_owner, handle replacement_abort_event);
object get_analytics(handle self);
object get_max_depth(handle self);
object get_metaparameters(handle self);
object get_universe_id(handle self);
object get_vocabulary(handle self);
object refresh_analytics(handle self);
object safe_record(handle self, handle graph, handle passed_thresholds, handle rejection_reason, handle stats_arg, handle per_column_stats);
object set_max_depth(handle, handle);
object set_metaparameters(handle, handle);
object set_universe_id(handle, handle);
object set_vocabulary(handle, handle);
object derive_rejection_reason(handle self, handle stats);
object evaluate(handle self, handle expr_graph);
}  // namespace tw::ctx

namespace tw::metrics {
object f_collect(handle bt_stats);
object f_required_value(handle bt_stats, handle attr);
}  // namespace tw::metrics
