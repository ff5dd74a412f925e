// The supervisor thread and the failure accounting that decides between a
// fatal error and a degraded capability.
#include "handle/handle.hpp"

namespace tw::hnd {

// count >= _INFRASTRUCTURE_FAILURE_THRESHOLD, whatever objects the two are.
static bool at_threshold(handle count) {
    object threshold = get_attr(st_module(), ID("_INFRASTRUCTURE_FAILURE_THRESHOLD"));
    return check_int(PyObject_RichCompareBool(count.ptr(), threshold.ptr(), Py_GE)) == 1;
}

static void fatal_infrastructure(handle self) {
    call_method(self, ID("_set_fatal_error"),
                {str_of("INFRASTRUCTURE_FAILURE"), str_of("register()"),
                 str_of("Background infrastructure failed permanently")});
}

// Restarts a dead submission or polling thread, counting its death.
static void watch_pipeline_thread(handle self, handle thread_field, handle degraded_field, const char* component,
                                  const char* exited_text, const char* thread_name, handle loop_name) {
    object thread = field(self, thread_field);
    if (is_none(thread) || field_true(self, degraded_field)) return;
    object record = get_attr(self, ID("_record_background_failure"));
    object comp = str_of(component), op = str_of("thread restart");
    if (!thread_alive(thread)) {
        object exc = call(handle(PyExc_RuntimeError), {str_of(exited_text)});
        call_kw(record, {comp, op, exc}, {{ID("backoff"), handle(Py_True)}});
    }
    if (!field_true(self, degraded_field) && !thread_alive(field(self, thread_field))) {
        try {
            object t = new_thread(get_attr(self, loop_name), thread_name);
            set_field(self, thread_field, t);
            start_thread(t);
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            call_kw(record, {comp, op, exc_value(e)}, {{ID("backoff"), handle(Py_True)}});
        }
    }
}

object supervisor_loop_inner(handle self) {
    long long consecutive_failures = 0;
    while (true) {
        if (stop_set(self) || !field_true(self, ID("_running"))) return none();
        call_method(self, ID("_interruptible_wait"), {stop_event_of(self), global(ID("SUPERVISOR_HEALTH_CHECK_INTERVAL"))});
        if (stop_set(self)) return none();

        // Workers: replace the dead, or probe that spawning still works.
        object threads = list_from(field(self, ID("_worker_threads")));
        Py_ssize_t alive = 0;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(threads.ptr()); ++i) {
            object t = borrow(PyList_GET_ITEM(threads.ptr(), i));
            if (thread_alive(t)) alive++;
        }
        // _n_jobs - len(alive), with the host's arithmetic: the field may hold any number.
        object dead_count = steal(PyNumber_Subtract(field(self, ID("_n_jobs")).ptr(), int_of(alive).ptr()));
        object zero = int_of(0);
        bool any_dead = check_int(PyObject_RichCompareBool(dead_count.ptr(), zero.ptr(), Py_GT)) == 1;
        try {
            object mod = st_module();
            if (any_dead)
                call(get_attr(mod, ID("_restart_worker")), {self, dead_count});
            else
                call(get_attr(mod, ID("_spawn_worker")), {self, int_of(-1)});
            consecutive_failures = 0;
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            consecutive_failures += 1;
            if (at_threshold(int_of(consecutive_failures))) {
                fatal_infrastructure(self);
                return none();
            }
        }

        // Era thread.
        object era_thread = field(self, ID("_era_thread"));
        if (!is_none(era_thread) && !thread_alive(era_thread)) {
            try {
                object t = call_method(self, ID("_build_era_thread"));
                set_field(self, ID("_era_thread"), t);
                start_thread(t);
                set_field(self, ID("_era_failures"), int_of(0));
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                add_int(self, ID("_era_failures"), 1);
                if (at_threshold(field(self, ID("_era_failures")))) {
                    fatal_infrastructure(self);
                    return none();
                }
            }
        }

        // Sync manager.
        object sync_mgr = field(self, ID("_sync_mgr"));
        if (!is_none(sync_mgr)) {
            try {
                if (!truthy(call_method(sync_mgr, ID("is_alive")))) {
                    object start = get_attr_or_none(sync_mgr, ID("start"));
                    if (PyCallable_Check(start.ptr()))
                        call(start);
                    else
                        call_method(sync_mgr, ID("_start_internal"));
                    set_field(self, ID("_sync_failures"), int_of(0));
                }
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                add_int(self, ID("_sync_failures"), 1);
                if (at_threshold(field(self, ID("_sync_failures")))) {
                    fatal_infrastructure(self);
                    return none();
                }
            }
        }

        watch_pipeline_thread(self, ID("_submission_thread"), ID("_submission_degraded"), "submission",
                              "submission_thread exited", "submission_thread", ID("_submission_loop"));
        watch_pipeline_thread(self, ID("_polling_thread"), ID("_polling_degraded"), "polling",
                              "polling_thread exited", "polling_thread", ID("_polling_loop"));
    }
}

object supervisor_loop(handle self) {
    try {
        call_method(self, ID("_supervisor_loop_inner"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_error_exc("supervisor_loop_crashed", e);
    }
    return none();
}

object set_fatal_error(handle self, handle error_code, handle recovery_advice, handle message) {
    handle code = error_code, advice = recovery_advice;
    {
        with_lock(lock_of(self), [&] {
            set_field(self, ID("_running"), bool_of(false));
            object status = new_record(global(ID("SearchStatus")),
                                    {{ID("running"), handle(Py_False)},
                                     {ID("error_code"), code},
                                     {ID("recovery_advice"), advice}});
            set_field(self, ID("_fatal_error"), search_error(code, advice, message, status));
        });
    }
    try {
        object callbacks = import_module("tarnwicket.callbacks");
        object payload = new_dict();
        dict_set(payload, ID("code"), code);
        dict_set(payload, ID("recovery"), advice);
        dict_set(payload, ID("message"), message);
        call_kw(get_attr(callbacks, ID("emit_event")), {},
                {{ID("data_dir"), field(self, ID("_data_dir"))},
                 {ID("event_type"), str_of("failure")},
                 {ID("severity"), str_of("fatal")},
                 {ID("payload"), payload}});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("callback dispatch failed during fatal-error: %s", {exc_value(e)});
    }
    return none();
}

object append_error(handle self, handle message) {
    return with_lock(lock_of(self), [&] {
        append_to(field(self, ID("_errors")), message);
        return none();
    });
}

// Backoff and degradation of one component, with _lock held.
static void account_component(handle self, handle failures, handle backoff_seconds, handle backoff_until,
                              handle degraded, const char* degraded_text, bool backoff, bool has_flag) {
    add_int(self, failures, 1);
    if (backoff) {
        object current = field(self, backoff_seconds);
        double cur = as_double(current);
        if (has_flag) set_field(self, ID("_submission_backoff"), bool_of(true));
        set_field(self, backoff_seconds, float_of(std::min(cur * 2.0, 300.0)));
        object until = steal(PyNumber_Add(float_of(monotonic()).ptr(), current.ptr()));
        set_field(self, backoff_until, until);
    }
    if (at_threshold(field(self, failures)) && !field_true(self, degraded)) {
        append_to(field(self, ID("_errors")), str_of(degraded_text));
        set_field(self, degraded, bool_of(true));
    }
}

object record_background_failure(handle self, handle component, handle operation, handle exc, handle backoff_arg) {
    bool backoff = truthy(backoff_arg);
    object cls_name = get_attr(borrow(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr()))), ID("__name__"));
    object message = ftext({component, str_of(" "), operation, str_of(" failed ("), cls_name, str_of("): "), exc});
    log_warning("%s", {message});
    return with_lock(lock_of(self), [&] {
        add_int(self, ID("_crash_count"), 1);
        append_to(field(self, ID("_errors")), message);
        if (is_str(component) && PyUnicode_CompareWithASCIIString(component.ptr(), "submission") == 0) {
            account_component(self, ID("_submission_failures"), ID("_submission_backoff_seconds"),
                              ID("_submission_backoff_until"), ID("_submission_degraded"),
                              "submission capability degraded after 10 consecutive failures; search continues without "
                              "submissions",
                              backoff, true);
        } else if (is_str(component) && PyUnicode_CompareWithASCIIString(component.ptr(), "polling") == 0) {
            account_component(self, ID("_polling_failures"), ID("_polling_backoff_seconds"), ID("_polling_backoff_until"),
                              ID("_polling_degraded"),
                              "polling capability degraded after 10 consecutive failures; search continues without polling",
                              backoff, false);
        }
        return none();
    });
}

object reset_background_failures(handle self, handle component) {
    return with_lock(lock_of(self), [&] {
        if (is_str(component) && PyUnicode_CompareWithASCIIString(component.ptr(), "submission") == 0)
            set_field(self, ID("_submission_failures"), int_of(0));
        else if (is_str(component) && PyUnicode_CompareWithASCIIString(component.ptr(), "polling") == 0)
            set_field(self, ID("_polling_failures"), int_of(0));
        return none();
    });
}

}  // namespace tw::hnd
