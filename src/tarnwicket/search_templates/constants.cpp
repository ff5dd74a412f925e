// Module constants: intervals, thresholds, fixed texts and status sets.
#include "core/module.hpp"

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

}  // namespace tw
