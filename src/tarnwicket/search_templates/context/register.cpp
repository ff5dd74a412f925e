// The names of this subsystem as Python sees them: this file only registers.
#include "context/context.hpp"
#include "context/metric_contract.hpp"

namespace tw {

void register_context(handle m) {
    using namespace ctx;
    object cls = make_class("SearchContext", handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)),
                            "Context passed to template functions.");
    def_method<context_init>(cls,
                             "__init__($self, vocab, universe, metaparams, depth, tracker, sync_mgr, bt, "
                             "thresholds=None, era_config=None, fatal_callback=None, submission_queue=None, "
                             "tracker_write_lock=None, submission_wakeup=None, stop_event=None, "
                             "submission_owner=None, replacement_abort_event=None)");
    def_property<get_vocabulary, set_vocabulary>(cls, "vocabulary", "vocabulary(self)", "vocabulary(self, value)",
                                                 "The era's vocabulary: {'functions': [...], 'features': [...]} "
                                                 "(read-only).");
    def_property<get_universe_id, set_universe_id>(cls, "universe_id", "universe_id(self)", "universe_id(self, value)",
                                                   "The universe the expressions are evaluated on (read-only).");
    def_property<get_metaparameters, set_metaparameters>(cls, "metaparameters", "metaparameters(self)",
                                                         "metaparameters(self, value)",
                                                         "The era's metaparameters of the backtest (read-only).");
    def_property<get_max_depth, set_max_depth>(cls, "max_depth", "max_depth(self)", "max_depth(self, value)",
                                               "The deepest expression graph the era accepts (read-only).");
    def_property<get_analytics>(cls, "analytics", "analytics(self)",
                                "Search statistics as of the last refresh: yield rates of functions and features.");
    def_method<refresh_analytics>(cls, "refresh_analytics($self)",
                                  "Read fresh search statistics from the store; returns and keeps them.");
    def_method<submission_cancelled>(cls, "_submission_cancelled($self)");
    def_method<safe_record>(cls,
                            "_safe_record($self, graph, passed_thresholds, rejection_reason=None, stats=None, "
                            "per_column_stats=None)");
    def_method<evaluate>(cls, "evaluate($self, expr_graph)",
                         "Check, backtest, judge and record one expression graph; a pass is queued for "
                         "submission. Returns a BacktestResult, or None when the graph was rejected.");
    def_method<derive_rejection_reason>(cls, "_derive_rejection_reason($self, stats)");

    // Helpers that need no context: module functions, also reachable from the class.
    static const char* const k_resolve_thresholds_doc = "Resolve SearchContext thresholds without silent defaults.";
    def_function<build_search_analytics>(m, "_build_search_analytics_from_era_config(tracker, era_config)");
    def_function<resolve_thresholds>(m, "_resolve_search_thresholds(thresholds, era_config)", k_resolve_thresholds_doc);
    def_function<require_threshold>(m, "_require_search_threshold(thresholds, name)");
    def_static<c_build_analytics>(cls, "_build_search_analytics_from_era_config(tracker, era_config)");
    def_static<c_resolve_thresholds>(cls, "_resolve_search_thresholds(thresholds, era_config)", k_resolve_thresholds_doc);
    keep_original(k_class_require_threshold.name(),
                  def_static<c_require_threshold>(cls, "_require_search_threshold(thresholds, name)"));
    set_global("SearchContext", cls);
}

void register_metric_contract(handle m) {
    using namespace metrics;
    // A unique sentinel: an absent attribute and one holding None are told apart by identity.
    object sentinel_cls = make_class("_MissingBacktestMetric");
    set_global("_MISSING_BACKTEST_METRIC", call(sentinel_cls));
    register_required_metric_names();

    def_function<invalid_reason>(m, "_invalid_backtest_metric_reason(attr)");
    def_function<f_required_value>(m, "_required_backtest_metric_value(bt_stats, attr)");
    def_function<f_collect>(m, "_collect_required_backtest_stats(bt_stats)");
    def_function<normalize_factor_pnl>(m, "_normalize_factor_pnl(value)");
    def_function<normalize_per_column_stats>(m, "_normalize_per_column_stats(value)");
    def_function<is_pnl_mi_from_stats>(m, "_is_pnl_mi_from_backtest_stats(bt_stats)");
    def_function<is_finite_number>(m, "_is_finite_number(value)");
    def_function<has_non_finite_number>(m, "_has_non_finite_number(value)");
    def_function<has_disallowed_mi_field>(m, "_has_disallowed_mi_contract_field(value)");
}

}  // namespace tw
