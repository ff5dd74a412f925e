// Module-level status and the commands that inspect or trim the tracking
// database beside a search, plus the guarded path to the onboarding nudges.
//
// Each management command opens its own tracker on the configured data
// directory and closes it on every way out. The commands are refused while a
// search is active.
#include "operations.hpp"

#include "collaborators/onboarding.hpp"

namespace tw {

namespace ops {

constexpr const char* kNoActiveSearchAdvice = "Call tarnwicket.search(template) first to start one.";
constexpr const char* kNoActiveSearchMessage = "No active search. Call tarnwicket.search(template) first to start one.";

object module_status() {
    object lock = global(ID("_search_active_lock"));
    object active = with_lock(lock, [&] { return global(ID("_active_search_handle")); });
    if (!is_none(active)) return call_method(active, ID("status"));
    object code = str_of("NO_ACTIVE_SEARCH");
    object advice = str_of(kNoActiveSearchAdvice);
    object status = new_record(global(ID("SearchStatus")),
                            {{ID("running"), bool_of(false)}, {ID("error_code"), code}, {ID("recovery_advice"), advice}});
    raise_obj(search_error(code, advice, str_of(kNoActiveSearchMessage), status));
}

// ---------------------------------------------------------------- data directory and tracker

object agent_onboarding_data_dir(handle default_) {
    handle dflt = default_;
    object config;
    try {
        config = import_attr("tarnwicket.agent_onboarding", ID("_config"));
    } catch (py::error_already_set& e) {
        // Only the onboarding module itself being absent means "no configuration";
        // a failure among its own imports goes on.
        if (onboarding::is_absent(e)) return borrow(dflt.ptr());
        throw;
    }
    return call_method(config, ID("get"), {str_of("data_dir"), dflt});
}

object configured_tracking_data_dir() {
    object data_dir = call(global(ID("_agent_onboarding_data_dir")));
    if (is_none(data_dir))
        raise_obj(call(handle(PyExc_OSError), {str_of("data_dir is required for search tracking database management.")}));
    return call_method(import_module("os.path"), ID("expanduser"), {data_dir});
}

object new_management_tracker() {
    object tracker_cls = st_attr_or_none(ID("SearchTracker"));
    if (is_none(tracker_cls)) tracker_cls = import_attr("tarnwicket.search_tracking", ID("SearchTracker"));
    object data_dir = call(global(ID("_configured_tracking_data_dir")));
    return call(tracker_cls, {data_dir});
}

object call_management_tracker(handle method_name, handle args, handle kwargs) {
    object tracker = call(global(ID("_new_management_tracker")));
    // As a `finally`: a failing close replaces the command's error, which becomes its context.
    return closing(tracker, [&] {
        object method = steal(PyObject_GetAttr(tracker.ptr(), method_name.ptr()));
        return call_star(method, args, kwargs);
    });
}

// ---------------------------------------------------------------- commands

object delete_evaluations(handle eval_type, handle keep_last) {
    call(global(ID("_raise_if_management_blocked")));
    return call_kw(global(ID("_call_management_tracker")), {str_of("delete_evaluations")},
                   {{ID("eval_type"), eval_type}, {ID("keep_last"), keep_last}});
}

object delete_failed_evaluations(handle eval_type) {
    call(global(ID("_raise_if_management_blocked")));
    return call_kw(global(ID("_call_management_tracker")), {str_of("delete_failed_evaluations")},
                   {{ID("eval_type"), eval_type}});
}

object get_db_info() {
    call(global(ID("_raise_if_management_blocked")));
    return call(global(ID("_call_management_tracker")), {str_of("get_db_info")});
}

object inject_heartbeat() { return none(); }

object safe_update_nudge(handle trigger, handle context) {
    try {
        object update_nudge = import_attr("tarnwicket.agent_onboarding", ID("update_nudge"));
        object args = tuple_of({trigger});
        call_star(update_nudge, args, context);
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("update_nudge call failed: %s", {exc_value(e)});
    }
    return none();
}

}  // namespace ops

}  // namespace tw
