// Module-level status and the commands that inspect or trim the tracking
// database beside a search; the onboarding hooks.
#include "core/module.hpp"

namespace tw {

namespace {

object onboarding_data_dir(Args& a) {
    object config;
    try {
        config = import_attr("tarnwicket.agent_onboarding", ID("_config"));
    } catch (py::error_already_set& e) {
        if (matches(e, PyExc_ModuleNotFoundError)) {
            object name = get_attr_or_none(exc_value(e), ID("name"));
            if (is_str(name) && PyUnicode_CompareWithASCIIString(name.ptr(), "tarnwicket.agent_onboarding") == 0)
                return borrow(a[0].ptr());
        }
        throw;
    }
    return call_method(config, ID("get"), {str_of("data_dir"), a[0]});
}

object configured_tracking_data_dir(Args&) {
    object data_dir = call(global(ID("_agent_onboarding_data_dir")));
    if (is_none(data_dir)) raise(PyExc_OSError, "data_dir is required for search tracking database management.");
    return call(import_attr("os.path", ID("expanduser")), {data_dir});
}

object new_management_tracker(Args&) {
    object cls = st_attr_or_none(ID("SearchTracker"));
    if (is_none(cls)) cls = import_attr("tarnwicket.search_tracking", ID("SearchTracker"));
    return call(cls, {call(global(ID("_configured_tracking_data_dir")))});
}

object call_management_tracker(Args& a) {
    object tracker = call(global(ID("_new_management_tracker")));
    object result;
    try {
        object method = get_attr(tracker, a[0]);
        result = call_star(method, a.varargs, a.varkw);
    } catch (...) {
        try {
            object close = get_attr_or_none(tracker, ID("close"));
            if (PyCallable_Check(close.ptr())) call(close);
        } catch (py::error_already_set&) {
        }
        throw;
    }
    object close = get_attr_or_none(tracker, ID("close"));
    if (PyCallable_Check(close.ptr())) call(close);
    return result;
}

object delete_evaluations(Args& a) {
    call(global(ID("_raise_if_management_blocked")));
    return call_kw(global(ID("_call_management_tracker")), {str_of("delete_evaluations")},
                   {{ID("eval_type"), a[0]}, {ID("keep_last"), a[1]}});
}

object delete_failed_evaluations(Args& a) {
    call(global(ID("_raise_if_management_blocked")));
    return call_kw(global(ID("_call_management_tracker")), {str_of("delete_failed_evaluations")},
                   {{ID("eval_type"), a[0]}});
}

object get_db_info(Args&) {
    call(global(ID("_raise_if_management_blocked")));
    return call(global(ID("_call_management_tracker")), {str_of("get_db_info")});
}

object inject_heartbeat(Args&) { return none(); }

object safe_update_nudge(Args& a) {
    try {
        object update = import_attr("tarnwicket.agent_onboarding", ID("update_nudge"));
        call_star(update, tuple_of({a[0]}), a.varkw);
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("update_nudge call failed: %s", {exc_value(e)});
    }
    return none();
}

object module_status(Args&) {
    object lock = global(ID("_search_active_lock"));
    call_method(lock, ID("acquire"));
    object active;
    try {
        active = global(ID("_active_search_handle"));
    } catch (...) {
        call_method(lock, ID("release"));
        throw;
    }
    call_method(lock, ID("release"));
    if (!is_none(active)) return call_method(active, ID("status"));
    object advice = str_of("Call tarnwicket.search(template) first to start one.");
    object code = str_of("NO_ACTIVE_SEARCH");
    object status = call_kw(global(ID("SearchStatus")), {},
                            {{ID("running"), handle(Py_False)}, {ID("error_code"), code}, {ID("recovery_advice"), advice}});
    raise_obj(call(global(ID("SearchError")),
                   {code, advice, str_of("No active search. Call tarnwicket.search(template) first to start one."),
                    status}));
}

}  // namespace

void register_management(handle m) {
    def_function<onboarding_data_dir>(m, "_agent_onboarding_data_dir(default=None)");
    def_function<configured_tracking_data_dir>(m, "_configured_tracking_data_dir()");
    def_function<new_management_tracker>(m, "_new_management_tracker()");
    def_function<call_management_tracker>(m, "_call_management_tracker(method_name, *args, **kwargs)");
    def_function<delete_evaluations>(m, "delete_evaluations(eval_type=None, keep_last=50000)",
                                     "Delete old evaluations from tracking DB. Blocked while search active.");
    def_function<delete_failed_evaluations>(m, "delete_failed_evaluations(eval_type=None)",
                                            "Delete failed evaluations from tracking DB. Blocked while search active.");
    def_function<get_db_info>(m, "get_db_info()", "Return database size and row-count information.");
    def_function<inject_heartbeat>(m, "inject_heartbeat()", "Inject heartbeat during search startup.");
    def_function<safe_update_nudge>(m, "_safe_update_nudge(trigger, **context)");
    def_function<module_status>(m, "status()", "Return the active search's status snapshot.");
}

}  // namespace tw
