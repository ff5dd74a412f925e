// Thread start-up, the worker loop that runs templates, and the era thread.
#include "handle/handle.hpp"

namespace tw::hnd {

// ---------------------------------------------------------------- sandboxed template steps

// Runs `step` inside `with _template_sandbox():`, exceptions passing through.
template <class F>
static object in_sandbox(F&& step) {
    object guard = call(global(ID("_template_sandbox")));
    call_method(guard, ID("__enter__"));
    object result;
    try {
        result = step();
    } catch (py::error_already_set& e) {
        object t = e.type(), v = e.value(), tb = e.trace();
        call_method(guard, ID("__exit__"), {t, v, tb ? handle(tb) : handle(Py_None)});
        throw;
    }
    call_method(guard, ID("__exit__"), {handle(Py_None), handle(Py_None), handle(Py_None)});
    return result;
}

// ---------------------------------------------------------------- start-up

object start_all_threads(handle self) {
    if (!is_none(field(self, ID("_fatal_error")))) return none();
    if (is_none(field(self, ID("_backtester")))) {
        log_warning("Backtester unavailable during search startup; handle will remain running without worker threads.");
        return none();
    }
    object sup = new_thread(get_attr(self, ID("_supervisor_loop")), "supervisor");
    set_field(self, ID("_supervisor_thread"), sup);
    start_thread(sup);

    object sync_mgr = field(self, ID("_sync_mgr"));
    if (!is_none(sync_mgr)) {
        try {
            call_method(sync_mgr, ID("acquire"));
            call_method(sync_mgr, ID("register_era_callback"), {get_attr(self, ID("_on_era_change"))});
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to acquire sync manager: %s", {exc_value(e)});
        }
    }
    try {
        set_field(self, ID("_era_thread"), call_method(self, ID("_build_era_thread")));
        start_thread(field(self, ID("_era_thread")));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Failed to start era thread: %s", {exc_value(e)});
    }
    // Not guarded: a failure here leaves the constructor.
    object submission = new_thread(get_attr(self, ID("_submission_loop")), "submission_thread");
    set_field(self, ID("_submission_thread"), submission);
    start_thread(submission);
    object polling = new_thread(get_attr(self, ID("_polling_loop")), "polling_thread");
    set_field(self, ID("_polling_thread"), polling);
    start_thread(polling);

    object n_jobs_obj = field(self, ID("_n_jobs"));
    long long n_jobs = PyLong_AsLongLong(n_jobs_obj.ptr());
    if (n_jobs == -1 && PyErr_Occurred()) throw_py();
    object worker_loop = get_attr(self, ID("_worker_loop"));
    for (long long i = 0; i < n_jobs; ++i) {
        object idx = int_of(i);
        object t = new_thread(worker_loop, "worker_" + std::to_string(i), {idx});
        start_thread(t);
        append_to(field(self, ID("_worker_threads")), t);
    }
    if (n_jobs > 0) wait_event(field(self, ID("_worker_start_event")), 0.5);
    return none();
}

// ---------------------------------------------------------------- workers

object worker_loop(handle self, handle worker_id) {
    {
        with_lock(lock_of(self), [&] {
            add_int(self, ID("_worker_start_count"), 1);
            object count = field(self, ID("_worker_start_count"));
            object n_jobs = field(self, ID("_n_jobs"));
            if (check_int(PyObject_RichCompareBool(count.ptr(), n_jobs.ptr(), Py_GE)))
                event_set(field(self, ID("_worker_start_event")));
        });
    }
    try {
        call_method(self, ID("_worker_loop_inner"), {worker_id});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_error_exc("worker_loop_crashed", e);
    }
    return none();
}

static object build_context(handle self) {
    object ctx_cls = global(ID("SearchContext"));
    return call_kw(ctx_cls, {},
                   {{ID("vocab"), field(self, ID("_vocab"))},
                    {ID("universe"), str_of("universe_top50")},
                    {ID("metaparams"), field(self, ID("_metaparameters"))},
                    {ID("depth"), field(self, ID("_max_depth"))},
                    {ID("tracker"), field(self, ID("_tracker"))},
                    {ID("sync_mgr"), field(self, ID("_sync_mgr"))},
                    {ID("bt"), field(self, ID("_backtester"))},
                    {ID("thresholds"), field(self, ID("_thresholds"))},
                    {ID("era_config"), field(self, ID("_era_config"))},
                    {ID("fatal_callback"), get_attr(self, ID("_set_fatal_error"))},
                    {ID("submission_queue"), field(self, ID("_submission_queue"))},
                    {ID("tracker_write_lock"), field(self, ID("_tracker_write_lock"))},
                    {ID("submission_wakeup"), field(self, ID("_submission_wakeup"))},
                    {ID("stop_event"), stop_event_of(self)},
                    {ID("submission_owner"), field(self, ID("_submission_owner"))},
                    {ID("replacement_abort_event"), field(self, ID("_replacement_abort_event"))}});
}

object worker_loop_inner(handle self, handle worker_id) {
    int restart_count = 0;
    const int max_restarts = 20;
    while (true) {
        if (stop_set(self) || restart_count >= max_restarts || !field_true(self, ID("_running")))
            return none();
        object ctx = build_context(self);
        try {
            object tmpl = field(self, ID("_template"));
            object gen = in_sandbox([&] { return call(tmpl, {ctx}); });
            if (is_none(gen)) return none();
            object iterator = steal(PyObject_GetIter(gen.ptr()));
            while (true) {
                bool exhausted = false;
                object expr = in_sandbox([&] {
                    PyObject* item = PyIter_Next(iterator.ptr());
                    if (!item) {
                        if (PyErr_Occurred()) throw_py();
                        exhausted = true;
                        return none();
                    }
                    return steal(item);
                });
                if (exhausted) break;
                if (stop_set(self)) return none();
                try {
                    call_method(ctx, ID("evaluate"), {expr});
                } catch (py::error_already_set& e) {
                    if (!ordinary(e)) throw;
                    log_warning("Expression evaluation failed: %s", {exc_value(e)});
                }
                with_lock(lock_of(self), [&] {
                    add_int(self, ID("_total_evaluated"), 1);
                });
            }
            if (stop_set(self)) return none();
            log_info("%s", {ftext({str_of("Template exhausted in worker "), worker_id, str_of(" \xE2\x80\x94 restarting")})});
            restart_count += 1;
            if (wait_event(stop_event_of(self), 0.05)) return none();
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            {
                with_lock(lock_of(self), [&] {
                    add_int(self, ID("_crash_count"), 1);
                });
            }
            log_warning("%s", {ftext({str_of("Template sandbox violation in worker "), worker_id, str_of(": "),
                                      exc_value(e)})});
            if (stop_set(self)) return none();
            restart_count += 1;
            wait_event(stop_event_of(self), 0.05);
        }
    }
}

object spawn_worker(handle handle_, handle worker_id) {
    handle h = handle_;
    object zero = int_of(0);
    if (check_int(PyObject_RichCompareBool(worker_id.ptr(), zero.ptr(), Py_LT))) return none();
    object t = new_thread(get_attr(h, ID("_worker_loop")), ftext({str_of("worker_"), worker_id}), {worker_id});
    start_thread(t);
    append_to(field(h, ID("_worker_threads")), t);
    return none();
}

object restart_worker(handle handle_, handle count_arg) {
    handle h = handle_;
    long long count = PyLong_AsLongLong(count_arg.ptr());
    if (count == -1 && PyErr_Occurred()) throw_py();
    for (long long i = 0; i < count; ++i) {
        object threads = field(h, ID("_worker_threads"));
        Py_ssize_t len = PyObject_Length(threads.ptr());
        if (len < 0) throw_py();
        object wid = steal(PyNumber_Add(int_of(len).ptr(), int_of(i).ptr()));
        object t = new_thread(get_attr(h, ID("_worker_loop")), "worker_restart_" + std::to_string(i), {wid});
        start_thread(t);
        append_to(threads, t);
    }
    return none();
}

// ---------------------------------------------------------------- era thread

static bool interruptible_wait(handle stop_event, double timeout) {
    double deadline = monotonic() + timeout;
    object sleep = import_attr("time", ID("sleep"));
    object slice = float_of(0.05);
    while (!event_is_set(stop_event) && monotonic() < deadline) call(sleep, {slice});
    return event_is_set(stop_event);
}

object f_interruptible_wait(handle stop_event, handle timeout) { return bool_of(interruptible_wait(stop_event, as_double(timeout))); }

object build_era_thread(handle self) {
    object factory = st_attr_or_none(ID("_era_thread_factory"));
    if (PyCallable_Check(factory.ptr())) return call(factory);
    return new_thread(get_attr(self, ID("_era_loop")), "era_thread");
}

object era_loop(handle self) {
    object era_config = field(self, ID("_era_config"));
    object era_id = is_none(era_config) ? int_of(1) : get_attr_or(era_config, ID("era_id"), int_of(1));
    while (!stop_set(self) && field_true(self, ID("_running"))) {
        if (truthy(call_method(self, ID("_interruptible_wait"), {stop_event_of(self), global(ID("ERA_POLL_INTERVAL"))})))
            return none();
        if (stop_set(self) || field_true(self, ID("_stopped"))) return none();
        object sync_mgr = field(self, ID("_sync_mgr"));
        object transition = is_none(sync_mgr) ? none() : get_attr_or_none(sync_mgr, ID("run_handle_era_transition"));
        if (!PyCallable_Check(transition.ptr())) continue;
        if (field_true(self, ID("_era_transition_triggered"))) continue;
        try {
            object partial = import_attr("functools", ID("partial"));
            object on_change = get_attr(self, ID("_on_era_change"));
            object kill = call(partial, {on_change, str_of("kill"), era_id});
            object restart = call(partial, {on_change, str_of("restart"), era_id});
            call(transition, {era_id, kill, restart});
            set_field(self, ID("_era_transition_triggered"), bool_of(true));
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Era transition failed: %s", {exc_value(e)});
        }
    }
    return none();
}

object on_era_change(handle self, handle event_type, handle era_id) {
    auto is_kind = [&](const char* kind) {
        return is_str(event_type) && PyUnicode_CompareWithASCIIString(event_type.ptr(), kind) == 0;
    };
    if (is_kind("kill")) {
        object threads = list_from(field(self, ID("_worker_threads")));
        object timeout = float_of(5.0);
        Py_ssize_t n = PyList_GET_SIZE(threads.ptr());
        for (Py_ssize_t i = 0; i < n; ++i) {
            object t = borrow(PyList_GET_ITEM(threads.ptr(), i));
            if (thread_alive(t)) call_method(t, ID("join"), {timeout});
        }
        set_field(self, ID("_worker_threads"), new_list());
    } else if (is_kind("restart") || is_kind("abort")) {
        if (field_true(self, ID("_stopped"))) return none();
        set_field(self, ID("_worker_threads"), new_list());
        set_field(self, ID("_worker_start_event"), call(import_attr("threading", ID("Event"))));
        set_field(self, ID("_worker_start_count"), int_of(0));
        object n_jobs_obj = field(self, ID("_n_jobs"));
        long long n_jobs = PyLong_AsLongLong(n_jobs_obj.ptr());
        if (n_jobs == -1 && PyErr_Occurred()) throw_py();
        object loop = get_attr(self, ID("_worker_loop"));
        for (long long i = 0; i < n_jobs; ++i) {
            object idx = int_of(i);
            object t = new_thread(loop, "worker_" + std::to_string(i), {idx});
            start_thread(t);
            append_to(field(self, ID("_worker_threads")), t);
        }
    }
    return none();
}

}  // namespace tw::hnd
