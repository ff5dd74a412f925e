// The path of one expression graph: shape checks, time budget, backtest,
// rejection tiers, metric contract, record and durable enqueue.
#include "context/context.hpp"
#include "context/metric_contract.hpp"
#include "submission/payload.hpp"

namespace tw::ctx {

namespace {

// o == text for a str o (str's own comparison); `text` is interned, so a key
// written as a literal in the host's code matches by identity.
bool is_text(handle o, handle text) {
    return o.ptr() == text.ptr() || (is_str(o) && PyUnicode_Compare(o.ptr(), text.ptr()) == 0);
}

bool greater(handle a, handle b) { return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_GT)) == 1; }
bool less(handle a, handle b) { return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_LT)) == 1; }
bool is_number(handle o) { return is_int(o) || is_float(o); }

// `node in {name of each entry of functions}`, with the vocabulary read afresh
// at each call (the host may change an entry of the list in place). Every
// entry's name is read, as the set is built; a name that cannot be hashed is
// left out, and an unhashable node is in no set. Text against text compares
// directly; anything else is matched as a set matches it (equal hashes, then
// identity or equality). Neither a set nor its building is needed for that.
bool known_function(handle functions, handle node) {
    Py_hash_t node_hash = PyObject_Hash(node.ptr());
    if (node_hash == -1) PyErr_Clear();
    bool node_is_text = PyUnicode_CheckExact(node.ptr());
    bool found = false;
    object it = steal(PyObject_GetIter(functions.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object entry = steal(raw);
        object name = is_dict(entry) ? dict_get(entry, ID("name")) : get_attr_or_none(entry, ID("name"));
        if (found) continue;
        if (node_is_text && PyUnicode_CheckExact(name.ptr())) {
            found = PyUnicode_Compare(name.ptr(), node.ptr()) == 0;
            continue;
        }
        Py_hash_t h = PyObject_Hash(name.ptr());
        if (h == -1) {
            PyErr_Clear();
            continue;
        }
        if (node_hash != -1 && h == node_hash) {
            int eq = PyObject_RichCompareBool(name.ptr(), node.ptr(), Py_EQ);
            if (eq < 0) PyErr_Clear();  // a comparison that fails is no match
            found = eq == 1;
        }
    }
    if (PyErr_Occurred()) throw_py();
    return found;
}

bool cancelled(handle self) {
    Method m(self, ID("_submission_cancelled"));
    if (is_own<submission_cancelled>(m)) return submission_cancelled(self);
    return truthy(m());
}

// self._safe_record(graph, passed, rejection_reason=reason)
object record(handle self, handle graph, bool passed, handle reason) {
    handle flag(passed ? Py_True : Py_False);
    Method m(self, ID("_safe_record"));
    if (is_own<safe_record>(m)) return safe_record(self, graph, flag, reason, Py_None, Py_None);
    if (is_none(reason)) return m({graph, flag});
    return m.call_kw({graph, flag}, {{ID("rejection_reason"), reason}});
}

object reject(handle self, handle graph, handle reason) {
    record(self, graph, false, reason);
    return none();
}
object reject(handle self, handle graph, const char* reason) { return reject(self, graph, str_of(reason)); }

bool well_shaped(handle graph) {
    if (!is_dict(graph) || PyDict_GET_SIZE(graph.ptr()) == 0) return false;
    if (check_int(PyDict_Contains(graph.ptr(), ID("type").ptr())) == 0) return false;
    PyObject *k, *v;
    Py_ssize_t pos = 0;
    while (PyDict_Next(graph.ptr(), &pos, &k, &v)) {
        if (!is_text(k, ID("type")) && !is_text(k, ID("node")) && !is_text(k, ID("children"))) return false;
    }
    return true;
}

object budget_of(handle era_config) {
    if (is_none(era_config)) return none();
    if (is_dict(era_config)) return dict_get(era_config, ID("max_expression_generation_seconds"));
    return get_attr_or_none(era_config, ID("max_expression_generation_seconds"));
}

const LateFn k_collect("_collect_required_backtest_stats");
const LateFn k_factor_pnl("_normalize_factor_pnl");
const LateFn k_per_column("_normalize_per_column_stats");
const LateFn k_pnl_mi("_is_pnl_mi_from_backtest_stats");

// _collect_required_backtest_stats(bt_stats) as (record, reason).
std::pair<object, object> collect(handle bt_stats) {
    if (object f = k_collect.replaced()) {
        object collected = call(f, {bt_stats});
        return {getitem(collected, int_of(0)), getitem(collected, int_of(1))};
    }
    return metrics::collect_required(bt_stats);
}

}  // namespace

object evaluate(handle self, handle expr_graph) {
    handle graph = expr_graph;
    if (!well_shaped(graph)) return reject(self, graph, "invalid_input");
    object vocabulary = get_attr(self, ID("_vocabulary"));
    object empty = borrow(ID("").ptr());
    object type = dict_get(graph, ID("type"), empty);
    if (is_text(type, ID("rotation")) || is_text(type, ID("filtration")) || is_text(type, ID("reduction"))) {
        object functions = is_dict(vocabulary) ? dict_get(vocabulary, ID("functions"), new_list())
                                               : mapping_get(vocabulary, ID("functions"), new_list());
        if (truthy(functions)) {
            object node = dict_get(graph, ID("node"), empty);
            if (!known_function(functions, node)) return reject(self, graph, "unknown_function");
        }
    }

    object bt = get_attr(self, ID("_backtester"));
    double t0 = monotonic();
    try {
        call_method(bt, ID("evaluate_expression"), {graph});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_error_exc("evaluate_expression_failed", e);
        return reject(self, graph, "evaluate_expression_failed");
    }
    object elapsed = float_of(monotonic() - t0);
    object max_expr_secs = budget_of(get_attr(self, ID("_era_config")));
    if (is_none(max_expr_secs))
        raise(PyExc_ValueError, "era config missing required field: max_expression_generation_seconds");
    if (greater(elapsed, max_expr_secs)) {
        object extra = new_dict();
        dict_set(extra, ID("elapsed"), elapsed);
        dict_set(extra, ID("threshold"), max_expr_secs);
        dict_set(extra, ID("rejection_reason"), str_of("expression_too_slow"));
        call_method_kw(logger(), ID("warning"), {str_of("Expression rejected: timing breach")}, {{ID("extra"), extra}});
        return reject(self, graph, "expression_too_slow");
    }

    object bt_stats = none();
    object failure_reason = none();
    try {
        bt_stats = call_method(bt, ID("run_backtest"), {graph});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Backtest failed: %s", {exc_value(e)});
        failure_reason = ftext({str_of("backtest_failed: "), exc_value(e)});
    }
    if (is_none(bt_stats))
        return reject(self, graph, is_nonempty_str(failure_reason) ? handle(failure_reason) : handle(str_of("backtester_unavailable")));

    Method derive(self, ID("_derive_rejection_reason"));
    object reason = is_own<derive_rejection_reason>(derive) ? derive_rejection_reason(self, bt_stats) : derive({bt_stats});
    if (!is_none(reason)) return reject(self, graph, reason);
    object correlation = get_attr_or_none(bt_stats, ID("correlation"));
    if (is_number(correlation)) {
        object limit = require_threshold_late(self, get_attr(self, ID("_thresholds")), ID("correlation_max"));
        if (greater(correlation, limit)) return reject(self, graph, "correlation_exceeded");
    }

    object sync_mgr = get_attr(self, ID("_sync_mgr"));
    if (!is_none(sync_mgr)) {
        try {
            call_method(sync_mgr, ID("request_for_sync"));
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to request sync files: %s", {exc_value(e)});
        }
    }

    auto [stats_dict, stats_reason] = collect(bt_stats);
    if (!is_none(stats_reason)) return reject(self, graph, stats_reason);
    object factor_pnl = k_factor_pnl.run<metrics::normalize_factor_pnl>(get_attr_or_none(bt_stats, ID("factor_pnl")));
    object per_column = k_per_column.run<metrics::normalize_per_column_stats>(get_attr_or(bt_stats, ID("per_column_stats"), new_dict()));
    object result = new_record(global(ID("BacktestResult")),
                            {{ID("expression"), graph},
                             {ID("passed"), handle(Py_True)},
                             {ID("stats"), stats_dict},
                             {ID("factor_pnl"), factor_pnl},
                             {ID("per_column_stats"), per_column},
                             {ID("submitted"), handle(Py_False)}});

    if (cancelled(self)) return none();
    object recorded = record(self, graph, true, Py_None);
    if (cancelled(self)) return result;
    object eval_id = is_none(recorded) ? py_str(call(import_attr("uuid", ID("uuid4")))) : recorded;

    object era_id = get_attr(self, ID("_era_id"));
    object payload = steal(check(new_presized_dict_raw(13)));
    dict_set(payload, ID("eval_id"), eval_id);
    dict_set(payload, ID("submission_type"), ID("signal"));
    dict_set(payload, ID("graph"), graph);
    dict_set(payload, ID("universe_id"), get_attr(self, ID("_universe_id")));
    dict_set(payload, ID("signal_pool_id"), get_attr(self, ID("_signal_pool_id")));
    dict_set(payload, ID("is_stats"), stats_dict);
    dict_set(payload, ID("is_pnl_mi"), k_pnl_mi.run<metrics::is_pnl_mi_from_stats>(bt_stats));
    dict_set(payload, ID("metaparameters"), get_attr(self, ID("_metaparams_for_db")));
    dict_set(payload, ID("search_state"), new_dict());
    dict_set(payload, ID("era_id"), era_id);
    dict_set(payload, ID("expression_elapsed_seconds"), elapsed);
    object owner = get_attr(self, ID("_submission_owner"));
    if (!is_none(owner)) dict_set(payload, ID("_submission_owner"), owner);

    {
        with_lock(get_attr(self, ID("_tracker_write_lock")), [&] {
            if (!cancelled(self)) {
                object tracker = get_attr(self, ID("_tracker"));
                if (!payload::uses_persistent_store_late(tracker))
                    call_method(tracker, ID("enqueue_submission"), {payload});
                else
                    call_method(tracker, ID("enqueue_submission"),
                                {eval_id, dict_get(payload, ID("submission_type")), payload::serialize_late(payload), era_id});
                if (!cancelled(self)) {
                    object queue = get_attr(self, ID("_submission_queue"));
                    if (!is_none(queue)) {
                        call_method(queue, ID("put"), {dict_copy(payload)});
                        object wakeup = get_attr(self, ID("_submission_wakeup"));
                        if (!is_none(wakeup)) event_set(wakeup);
                    }
                }
            }
        });
    }
    return result;
}

// ---------------------------------------------------------------- rejection tiers

namespace {

// First failing entry of a metric record, or a null object.
std::pair<object, object> first_failed(handle record) {
    if (!is_dict(record) || PyDict_GET_SIZE(record.ptr()) == 0) return {object(), object()};
    // An entry's verdict can run code that changes the record: the host's own
    // iterator then raises, as a loop over the items would.
    object it = dict_items_iter(record);
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object pair = steal(raw);
        handle name = PyTuple_GET_ITEM(pair.ptr(), 0);
        handle entry = PyTuple_GET_ITEM(pair.ptr(), 1);
        if (!is_dict(entry)) continue;
        if (!truthy(dict_get(entry, ID("passed"), Py_True))) return {borrow(name.ptr()), borrow(entry.ptr())};
    }
    if (PyErr_Occurred()) throw_py();
    return {object(), object()};
}

// "<prefix><name>_below_min" or "_above_max" by the entry's limits.
object limit_reason(const char* prefix, handle name, handle entry) {
    object mn = dict_get(entry, ID("min"), Py_None);
    object mx = dict_get(entry, ID("max"), Py_None);
    object value = dict_get(entry, ID("value"), int_of(0));
    const char* suffix = "_below_min";
    if (!is_none(mn) && less(value, mn))
        suffix = "_below_min";
    else if (!is_none(mx) && greater(value, mx))
        suffix = "_above_max";
    return ftext({str_of(prefix), name, str_of(suffix)});
}

}  // namespace

object derive_rejection_reason(handle self, handle stats) {
    object thresholds = get_attr(self, ID("_thresholds"));
    bool passed = truthy(get_attr_or(stats, ID("passed"), Py_True));

    const handle tier1[][3] = {{ID("turnover"), ID("turnover_max"), ID("turnover_exceeded")},
                               {ID("delta_exposure"), ID("delta_exposure_max"), ID("delta_exposure_exceeded")},
                               {ID("max_weight"), ID("max_weight_max"), ID("max_weight_exceeded")}};
    object zero = float_of(0.0);
    for (auto& row : tier1) {
        object value = get_attr_or(stats, row[0], zero);
        object limit = require_threshold_late(self, thresholds, row[1]);
        if (is_number(value) && greater(value, limit)) return borrow(row[2].ptr());
    }

    // An absent record reads as an empty one: nothing in it failed.
    handle empty = Py_None;
    auto [wq_name, wq_entry] = first_failed(get_attr_or(stats, ID("weight_quality_metrics"), empty));
    if (wq_entry) {
        if (is_none(dict_get(wq_entry, ID("value"), Py_None))) return str_of("invalid_weights");
        return ftext({str_of("weight_quality_"), wq_name, str_of("_exceeded")});
    }
    auto [liq_name, liq_entry] = first_failed(get_attr_or(stats, ID("liquidity_metrics"), empty));
    if (liq_entry) return limit_reason("liquidity_", liq_name, liq_entry);

    object custom = get_attr_or(stats, ID("custom_stats"), empty);
    bool has_custom_failure = static_cast<bool>(first_failed(custom).second);
    object correlation = get_attr_or_none(stats, ID("correlation"));
    bool has_correlation_failure = false;
    if (is_number(correlation))
        has_correlation_failure = greater(correlation, require_threshold_late(self, thresholds, ID("correlation_max")));

    if (!passed && !has_custom_failure && !has_correlation_failure) {
        object era_config = get_attr(self, ID("_era_config"));
        if (!is_none(era_config)) {
            object rules = get_attr(era_config, ID("column_threshold_rules"));
            if (truthy(rules)) {
                object rule = getitem(rules, int_of(0));
                object column = mapping_get(rule, ID("column"), str_of("gross_returns"));
                object stat = mapping_get(rule, ID("stat"), str_of("sharpe"));
                return ftext({column, str_of("_"), stat, str_of("_below_min")});
            }
        }
        return str_of("gross_returns_sharpe_below_min");
    }
    // The record is walked again, as the rule reads: an entry may answer differently the second time.
    auto [custom_name, custom_entry] = first_failed(custom);
    if (custom_entry) return limit_reason("custom_stat_", custom_name, custom_entry);
    if (has_correlation_failure) return str_of("correlation_exceeded");
    if (!passed) return str_of("gross_returns_sharpe_below_min");
    return none();
}

}  // namespace tw::ctx
