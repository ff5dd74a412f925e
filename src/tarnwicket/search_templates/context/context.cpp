// SearchContext: what a template sees — read-only views, the analytics
// snapshot, thresholds without silent defaults — and the fault-tolerant
// evaluation recorder.
#include "context/context.hpp"

namespace tw::ctx {

static const LateFn k_require_threshold("_require_search_threshold");
const LateFn k_class_require_threshold("SearchContext._require_search_threshold");

// ---------------------------------------------------------------- thresholds

object resolve_thresholds(handle thresholds, handle era_config) {
    if (is_dict(thresholds)) return dict_copy(thresholds);
    if (!is_none(thresholds)) raise(PyExc_ValueError, "SearchContext thresholds must be a dict");
    object value = none();
    if (is_dict(era_config))
        value = dict_get(era_config, ID("thresholds"));
    else if (!is_none(era_config))
        value = get_attr_or_none(era_config, ID("thresholds"));
    if (!is_dict(value)) raise(PyExc_ValueError, "SearchContext thresholds must be provided");
    return dict_copy(value);
}

object require_threshold(handle thresholds, handle name) {
    object value;
    if (PyDict_CheckExact(thresholds.ptr())) {
        // `name in d` and `d[name]` of a plain dict are one lookup.
        PyObject* v = PyDict_GetItemWithError(thresholds.ptr(), name.ptr());
        if (!v && PyErr_Occurred()) throw_py();
        if (v) value = borrow(v);
    } else if (check_int(PySequence_Contains(thresholds.ptr(), name.ptr())) == 1) {
        value = getitem(thresholds, name);
    }
    if (!value)
        raise_text(PyExc_ValueError,
                         ftext({str_of("SearchContext thresholds missing required threshold '"), name, str_of("'")}));
    if (is_bool(value) || !(is_int(value) || is_float(value)))
        raise_text(PyExc_ValueError,
                         ftext({str_of("SearchContext threshold '"), name, str_of("' must be numeric")}));
    return value;
}

object require_threshold_late(handle self, handle thresholds, handle name) {
    // The class's own static forwards to the module function; a replacement of
    // either is obeyed.
    object via_instance = get_attr(self, ID("_require_search_threshold"));
    if (!k_class_require_threshold.own(via_instance)) return call(via_instance, {thresholds, name});
    return k_require_threshold.run<require_threshold>(thresholds, name);
}

// ---------------------------------------------------------------- analytics

object build_search_analytics(handle tracker, handle era_config) {
    if (is_none(era_config)) return none();
    object analytics_cls, resolve;
    try {
        object mod = import_module("tarnwicket.search_analytics");
        analytics_cls = get_attr(mod, ID("SearchAnalytics"));
        resolve = get_attr(mod, ID("_resolve_pool_configs"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        return none();
    }
    object pool_configs;
    try {
        pool_configs = call_kw(resolve, {}, {{ID("era_config"), era_config}});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        return none();
    }
    if (!truthy(pool_configs)) return none();
    try {
        return call(analytics_cls, {tracker, pool_configs});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        return none();
    }
}

static object snapshot_from(handle raw) {
    object count = int_of(0);
    object rows = new_list();
    if (!is_none(raw)) {
        try {
            object te = get_attr_or(raw, ID("total_evaluations"), int_of(0));
            if (is_int(te)) count = te;
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to read total_evaluations from stats: %s", {exc_value(e)});
        }
        try {
            object r = get_attr_or(raw, ID("rows"), new_list());
            if (is_list(r) || is_tuple(r)) rows = list_from(r);
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to read rows from stats: %s", {exc_value(e)});
        }
    }
    return call_kw(global(ID("_AnalyticsSnapshot")), {}, {{ID("total_evaluations"), count}, {ID("rows"), rows}});
}

// ---------------------------------------------------------------- construction

object context_init(handle self, handle vocab, handle universe, handle metaparams, handle depth, handle tracker, handle sync_mgr, handle bt, handle thresholds, handle era_config, handle fatal_callback, handle submission_queue, handle tracker_write_lock, handle submission_wakeup, handle stop_event, handle submission_owner, handle replacement_abort_event) {
    set_attr(self, ID("_vocabulary"), vocab);
    set_attr(self, ID("_universe_id"), universe);
    set_attr(self, ID("_metaparameters"), metaparams);
    set_attr(self, ID("_max_depth"), depth);
    set_attr(self, ID("_tracker"), tracker);
    set_attr(self, ID("_sync_mgr"), sync_mgr);
    set_attr(self, ID("_backtester"), bt);

    object engine = none();
    object raw = none();
    object getter = get_attr_or_none(tracker, ID("get_search_stats"));
    if (PyCallable_Check(getter.ptr())) {
        try {
            raw = call(getter);
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to get search stats: %s", {exc_value(e)});
            raw = none();
        }
    } else {
        engine = call_method(self, ID("_build_search_analytics_from_era_config"), {tracker, era_config});
        if (!is_none(engine)) {
            try {
                raw = call_method(engine, ID("get_search_stats"));
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                log_warning("Failed to get search stats: %s", {exc_value(e)});
                raw = none();
            }
        } else {
            log_warning(
                "Failed to get search stats: tracker exposes no get_search_stats method and era_config has no "
                "usable signal_pools.");
        }
    }
    set_attr(self, ID("_analytics_engine"), engine);
    object result_cls = import_attr("tarnwicket.search_analytics", ID("SearchStatsResult"));
    if (is_instance(raw, result_cls))
        set_attr(self, ID("_analytics"), raw);
    else
        set_attr(self, ID("_analytics"), snapshot_from(raw));

    set_attr(self, ID("_thresholds"), call_method(self, ID("_resolve_search_thresholds"), {thresholds, era_config}));
    set_attr(self, ID("_era_config"), era_config);
    set_attr(self, ID("_fatal_callback"), fatal_callback);
    set_attr(self, ID("_submission_queue"), submission_queue);
    set_attr(self, ID("_submission_wakeup"), submission_wakeup);
    if (truthy(tracker_write_lock))
        set_attr(self, ID("_tracker_write_lock"), tracker_write_lock);
    else
        set_attr(self, ID("_tracker_write_lock"), call(import_attr("threading", ID("RLock"))));
    set_attr(self, ID("_stop_event"), stop_event);
    set_attr(self, ID("_submission_owner"), submission_owner);
    set_attr(self, ID("_replacement_abort_event"), replacement_abort_event);

    set_attr(self, ID("_signal_pool_id"), call(global(ID("_first_signal_pool_id_from_era_config")), {era_config}));
    object for_db = new_dict();
    object items = list_from(call_method(metaparams, ID("items")));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.ptr()); ++i) {
        object pair = borrow(PyList_GET_ITEM(items.ptr(), i));
        object key = getitem(pair, int_of(0));
        object value = getitem(pair, int_of(1));
        dict_set(for_db, key, is_none(value) ? str_of("none") : py_str(value));
    }
    set_attr(self, ID("_metaparams_for_db"), for_db);

    object era_id;
    if (is_none(era_config)) {
        era_id = int_of(1);
    } else if (is_dict(era_config)) {
        object raw_id = dict_get(era_config, ID("era_id"), int_of(1));
        era_id = truthy(raw_id) ? py_int(raw_id) : int_of(1);
    } else {
        era_id = get_attr(era_config, ID("era_id"));
    }
    set_attr(self, ID("_era_id"), era_id);
    return none();
}

// ---------------------------------------------------------------- views

object get_vocabulary(handle self) {
    return call(import_attr("copy", ID("deepcopy")), {get_attr(self, ID("_vocabulary"))});
}
object get_universe_id(handle self) { return get_attr(self, ID("_universe_id")); }
object get_metaparameters(handle self) { return get_attr(self, ID("_metaparameters")); }
object get_max_depth(handle self) { return get_attr(self, ID("_max_depth")); }
object get_analytics(handle self) { return get_attr(self, ID("_analytics")); }
object set_vocabulary(handle, handle) { raise(PyExc_AttributeError, "vocabulary is read-only"); }
object set_universe_id(handle, handle) { raise(PyExc_AttributeError, "universe_id is read-only"); }
object set_metaparameters(handle, handle) { raise(PyExc_AttributeError, "metaparameters is read-only"); }
object set_max_depth(handle, handle) { raise(PyExc_AttributeError, "max_depth is read-only"); }

object refresh_analytics(handle self) {
    object tracker = get_attr(self, ID("_tracker"));
    object getter = get_attr_or_none(tracker, ID("get_search_stats"));
    object result;
    if (PyCallable_Check(getter.ptr())) {
        result = call(getter);
    } else {
        if (is_none(get_attr(self, ID("_analytics_engine"))))
            set_attr(self, ID("_analytics_engine"),
                     call_method(self, ID("_build_search_analytics_from_era_config"),
                                 {tracker, get_attr(self, ID("_era_config"))}));
        object engine = get_attr(self, ID("_analytics_engine"));
        if (is_none(engine))
            raise(PyExc_AttributeError,
                  "Cannot refresh analytics: tracker has no get_search_stats method and era_config has no usable "
                  "signal_pools.");
        result = call_method(engine, ID("get_search_stats"));
    }
    set_attr(self, ID("_analytics"), result);
    return result;
}

bool submission_cancelled(handle self) {
    object stop = get_attr(self, ID("_stop_event"));
    if (!is_none(stop) && event_is_set(stop)) return true;
    object abort = get_attr(self, ID("_replacement_abort_event"));
    if (is_none(abort)) return false;
    return event_is_set(abort);
}


object safe_record(handle self, handle graph, handle passed_thresholds, handle rejection_reason, handle stats_arg, handle per_column_stats) {
    handle passed = passed_thresholds;
    object stats = borrow(stats_arg.ptr());
    try {
        if (is_none(stats)) stats = call(global(ID("_BacktestStats")));
        return with_lock(get_attr(self, ID("_tracker_write_lock")), [&] {
            return call_method_kw(get_attr(self, ID("_tracker")), ID("record_signal_evaluation"),
                                        {graph, stats, get_attr(self, ID("_era_id")), passed,
                                         get_attr(self, ID("_universe_id")), get_attr(self, ID("_metaparams_for_db"))},
                                        {{ID("pool_id"), get_attr(self, ID("_signal_pool_id"))},
                                         {ID("rejection_reason"), rejection_reason},
                                         {ID("per_column_stats"), per_column_stats}});
        });
    } catch (py::error_already_set& e) {
        if (!matches(e, PyExc_OSError)) throw;
        object callback = get_attr(self, ID("_fatal_callback"));
        if (truthy(callback))
            call(callback, {str_of("DATABASE_ERROR"),
                            str_of("Run get_db_info() to check database state. Consider restarting the search."),
                            ftext({str_of("Database write failed after retry: "), exc_value(e)})});
        return none();
    }
}

// ---------------------------------------------------------------- bindings


// Static methods of the class: they forward to the module functions of the same name.
object c_build_analytics(handle tracker, handle era_config) {
    return call(global(ID("_build_search_analytics_from_era_config")), {tracker, era_config});
}
object c_resolve_thresholds(handle thresholds, handle era_config) { return call(global(ID("_resolve_search_thresholds")), {thresholds, era_config}); }
object c_require_threshold(handle thresholds, handle name) {
    return k_require_threshold.run<require_threshold>(thresholds, name);
}

}  // namespace tw::ctx

