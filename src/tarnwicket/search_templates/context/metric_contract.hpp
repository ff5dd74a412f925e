// The gate between a backtester's stats object and what is stored or sent.
#pragma once

#include "core/module.hpp"

namespace tw::metrics {

// (value, reason) — exactly one is null/None.
std::pair<object, object> required_value(handle bt_stats, handle attr);
// (record, reason) — exactly one is None.
std::pair<object, object> collect_required(handle bt_stats);
object normalize_factor_pnl(handle value);
object normalize_per_column_stats(handle value);
// Raises ValueError when `is_pnl_mi` is not a finite scalar.
object is_pnl_mi_from_stats(handle bt_stats);
bool is_finite_number(handle value);
bool has_non_finite_number(handle value);
bool has_disallowed_mi_field(handle value);
object invalid_reason(handle attr);
// The three checks as the module's own functions call them: through their
// names in the namespace, in C++ while the names hold ours.
bool is_finite_number_late(handle value);
bool has_non_finite_number_late(handle value);
bool has_disallowed_mi_field_late(handle value);
// Sets _REQUIRED_BACKTEST_METRICS (a tuple) and _REQUIRED_BACKTEST_COUNT_METRICS (a frozenset).
void register_required_metric_names();

}  // namespace tw::metrics
