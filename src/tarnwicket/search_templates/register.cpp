// The names of the root operations, records and constants as Python sees them:
// this file only registers.
#include "operations.hpp"

namespace tw {

void register_constants(handle m) {
    (void)m;
    set_global("SUPERVISOR_HEALTH_CHECK_INTERVAL", float_of(0.5));
    set_global("SYNC_POLL_INTERVAL", float_of(1.0));
    set_global("ERA_POLL_INTERVAL", float_of(1.0));
    set_global("SUBMISSION_POLL_INTERVAL", float_of(0.5));
    set_global("POLLING_INTERVAL", float_of(1.0));
    set_global("SUBMISSION_QUEUE_LEASE_SECONDS", float_of(300.0));
    set_global("_INFRASTRUCTURE_FAILURE_THRESHOLD", int_of(10));
    set_global("_NOT_AUTHENTICATED_MESSAGE", str_of("Not authenticated. Run register() or login(private_key) first."));
    set_global("_MANAGEMENT_ACTIVE_ERROR",
               str_of("Cannot delete evaluations while a search is running. Call handle.stop() first."));

    // Generator limits.
    set_global("_RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT", int_of(100));
    set_global("_RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT", int_of(1000));
    set_global("_RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES", int_of(20160));
    set_global("_RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH", int_of(128));
    set_global("_RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS", int_of(10000));
    set_global("_RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW", int_of(64));
    set_global("_RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES", int_of(4096));
    set_global("_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT", int_of(1000000000));
    set_global("_RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE", float_of(1000.0));
    set_global("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT", int_of(1000000000));
    set_global("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT", float_of(1000000000.0));

    // Submission payload tables.
    object frozenset_type = borrow(reinterpret_cast<PyObject*>(&PyFrozenSet_Type));
    auto fset = [&](std::initializer_list<const char*> items) {
        object l = new_list();
        for (auto s : items) list_append(l, str_of(s));
        return call(frozenset_type, {l});
    };
    auto tup = [&](std::initializer_list<const char*> items) {
        object l = new_list();
        for (auto s : items) list_append(l, str_of(s));
        return steal(PyList_AsTuple(l.ptr()));
    };
    set_global("_REQUIRED_ROW_PAYLOAD_KEYS", tup({"eval_id", "submission_type", "era_id"}));
    set_global("_SIGNAL_SUBMIT_KWARGS", tup({"graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
                                             "metaparameters", "expression_elapsed_seconds", "search_state",
                                             "idempotency_key"}));
    set_global("_STRATEGY_SUBMIT_KWARGS", tup({"graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
                                               "metaparameters", "expression_elapsed_seconds", "search_state",
                                               "idempotency_key", "referenced_signal_ids"}));
    object defaults = new_dict();
    dict_set(defaults, str_of("metaparameters"), none());
    dict_set(defaults, str_of("search_state"), none());
    dict_set(defaults, str_of("referenced_signal_ids"), new_list());
    set_global("_SUBMIT_KWARG_DEFAULTS", defaults);
    set_global("_SUBMISSION_ACCEPTED_STATUSES", fset({"found", "useful"}));
    set_global("_SUBMISSION_REJECTED_STATUSES",
               fset({"is_rejected", "not_useful", "os_failed", "useful_transition_failed"}));
    set_global("_SUBMISSION_TERMINAL_STATUSES", fset({"found", "useful", "is_rejected", "not_useful", "os_failed",
                                                      "useful_transition_failed"}));
}

void register_state(handle m) {
    (void)m;
    object threading = import_module("threading");
    object weakref = import_module("weakref");
    set_global("_search_active", bool_of(false));
    set_global("_search_active_lock", call(get_attr(threading, ID("Lock"))));
    set_global("_active_search_handle", none());
    set_global("_active_handles", call(get_attr(weakref, ID("WeakSet"))));
    set_global("_REPLACEMENT_ABORT_BOOTSTRAP_LOCK", call(get_attr(threading, ID("Lock"))));
    set_global("_EMPTY_FIELD_SET", steal(PyFrozenSet_New(nullptr)));
    ops::register_exit_hook();
}

void register_records(handle m) {
    using namespace ops;
    object status = make_record("SearchStatus",
                                {{"running", "False"},
                                 {"n_jobs", "0"},
                                 {"total_evaluated", "0"},
                                 {"total_found", "0"},
                                 {"signals_per_hour", "0.0"},
                                 {"elapsed_seconds", "0.0"},
                                 {"memory_usage_mb", "0.0"},
                                 {"batch_tier", "''"},
                                 {"t_batch", "0"},
                                 {"era", "''"},
                                 {"errors", "[]"},
                                 {"crash_count", "0"},
                                 {"sync_progress", "None"},
                                 {"error_code", "None"},
                                 {"recovery_advice", "None"},
                                 {"submission_queued", "0"},
                                 {"submission_pending", "0"},
                                 {"submission_accepted", "0"},
                                 {"submission_rejected", "0"},
                                 {"submission_retrying", "0"},
                                 {"submission_discarded", "0"},
                                 {"submission_backoff", "False"},
                                 {"last_poll_time", "None"}},
                                "Current search state snapshot (23 fields).");
    set_global("SearchStatus", status);

    object result = make_record("BacktestResult",
                                {{"expression", "{}"},
                                 {"passed", "False"},
                                 {"stats", "None"},
                                 {"factor_pnl", "None"},
                                 {"per_column_stats", "None"},
                                 {"portfolio_returns", "None"},
                                 {"processed_weights", "None"},
                                 {"mi_score", "None"},
                                 {"mi_passed", "None"},
                                 {"submitted", "False"},
                                 {"structural_failed", "False"}},
                                "Result from expression evaluation.");
    set_global("BacktestResult", result);

    object snapshot = make_record("_AnalyticsSnapshot", {{"total_evaluations", "0"}, {"rows", "[]"}});
    set_global("_AnalyticsSnapshot", snapshot);

    object search_error = make_exception("SearchError", handle(PyExc_Exception),
                                         "Raised when a fatal error occurs during search.");
    def_method<search_error_init>(search_error, "__init__($self, error_code, recovery_advice, message, status)");
    set_global("SearchError", search_error);

    set_global("TemplateSandboxViolation",
               make_exception("TemplateSandboxViolation", handle(PyExc_RuntimeError),
                              "Raised when template code attempts forbidden direct system access."));
    set_global("SubmissionProtocolError",
               make_exception("SubmissionProtocolError", handle(PyExc_RuntimeError),
                              "Raised when a successful submission response violates the client protocol."));

    object row_error = make_exception("RowSchemaError", handle(PyExc_ValueError),
                                      "A stored submission row whose payload lacks the keys a submission needs.");
    def_method<row_schema_error_init>(row_error, "__init__($self, source_kind, missing=_EMPTY_FIELD_SET, row_id=None, message=None)");
    set_global("RowSchemaError", row_error);

    // Receipt stand-in for a receipt read back from the journal.
    object receipt = make_class("_ReceiptRecord");
    def_method<receipt_record_init>(receipt, "__init__($self, submission_id)");
    set_global("_ReceiptRecord", receipt);
    (void)m;
}

void register_preflight(handle m) {
    using namespace ops;
    def_function<is_authed>(m, "_is_authed(mod)");
    def_function<check_memory>(m, "_check_memory()", "Check available memory. Raises SearchError if insufficient.");
    def_function<check_disk>(m, "_check_disk()", "Check available disk space. Raises SearchError if insufficient.");
    def_function<raise_if_management_blocked>(m, "_raise_if_management_blocked()");
}

void register_management(handle m) {
    using namespace ops;
    def_function<module_status>(m, "status()", "Return the active search's status snapshot.");
    def_function<delete_evaluations>(m, "delete_evaluations(eval_type=None, keep_last=50000)",
                                       "Delete old evaluations from tracking DB. Blocked while search active.");
    def_function<delete_failed_evaluations>(m, "delete_failed_evaluations(eval_type=None)",
                                              "Delete failed evaluations from tracking DB. Blocked while search active.");
    def_function<get_db_info>(m, "get_db_info()", "Return database size and row-count information.");
    def_function<inject_heartbeat>(m, "inject_heartbeat()", "Inject heartbeat during search startup.");
    def_function<safe_update_nudge>(m, "_safe_update_nudge(trigger, **context)");
    def_function<agent_onboarding_data_dir>(m, "_agent_onboarding_data_dir(default=None)");
    def_function<configured_tracking_data_dir>(m, "_configured_tracking_data_dir()");
    def_function<new_management_tracker>(m, "_new_management_tracker()");
    def_function<call_management_tracker>(m, "_call_management_tracker(method_name, *args, **kwargs)");
}

void register_lifecycle(handle m) {
    using namespace ops;
    def_function<search>(m, "search(template, n_jobs=1)",
                         "Start search with given template. Returns SearchHandle immediately.");
}

}  // namespace tw
