// The status snapshot of a handle, the submission counters behind it and the
// discovery-rate nudge that a status read may fire.
#include "handle/handle.hpp"

#include "collaborators/store.hpp"

namespace tw::hnd {

static object copy_list(handle l) { return list_from(l); }

object status(handle self) {
    call_method(self, ID("_maybe_fire_discovery_rate_declining_nudge"));
    object snapshot;
    {
        with_lock(lock_of(self), [&] {
            object fatal = field(self, ID("_fatal_error"));
            if (!is_none(fatal)) {
                object code = get_attr(fatal, ID("error_code"));
                object advice = get_attr(fatal, ID("recovery_advice"));
                object message = get_attr(fatal, ID("message"));
                object st = new_record(global(ID("SearchStatus")),
                                    {{ID("running"), handle(Py_False)},
                                     {ID("n_jobs"), field(self, ID("_n_jobs"))},
                                     {ID("total_evaluated"), field(self, ID("_total_evaluated"))},
                                     {ID("error_code"), code},
                                     {ID("recovery_advice"), advice},
                                     {ID("errors"), copy_list(field(self, ID("_errors")))},
                                     {ID("crash_count"), field(self, ID("_crash_count"))}});
                raise_obj(search_error(code, advice, message, st));
            }
            double elapsed = monotonic() - as_double(field(self, ID("_start_time")));
            object total_evaluated = field(self, ID("_total_evaluated"));
            double rate = 0.0;
            if (elapsed > 0) rate = as_double(total_evaluated) / elapsed * 3600;
            object memory;
            try {
                object resource = import_module("resource");
                object usage = call(get_attr(resource, ID("getrusage")), {get_attr(resource, ID("RUSAGE_SELF"))});
                object maxrss = get_attr(usage, ID("ru_maxrss"));
                object kib = int_of(1024);
                memory = steal(PyNumber_TrueDivide(maxrss.ptr(), kib.ptr()));
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                log_warning("Failed to get memory usage: %s", {exc_value(e)});
                memory = float_of(1.0);
            }
            memory = float_of(as_double(memory));
            snapshot = new_record(global(ID("SearchStatus")),
                               {{ID("running"), field(self, ID("_running"))},
                                {ID("n_jobs"), field(self, ID("_n_jobs"))},
                                {ID("total_evaluated"), total_evaluated},
                                {ID("total_found"), field(self, ID("_total_found"))},
                                {ID("signals_per_hour"), float_of(rate)},
                                {ID("elapsed_seconds"), float_of(elapsed)},
                                {ID("memory_usage_mb"), memory},
                                {ID("batch_tier"), field(self, ID("_batch_tier"))},
                                {ID("t_batch"), field(self, ID("_t_batch"))},
                                {ID("era"), field(self, ID("_era"))},
                                {ID("errors"), copy_list(field(self, ID("_errors")))},
                                {ID("crash_count"), field(self, ID("_crash_count"))},
                                {ID("sync_progress"), field(self, ID("_sync_progress"))},
                                {ID("error_code"), handle(Py_None)},
                                {ID("recovery_advice"), handle(Py_None)},
                                {ID("submission_queued"), field(self, ID("_submission_queued"))},
                                {ID("submission_pending"), field(self, ID("_submission_pending"))},
                                {ID("submission_accepted"), field(self, ID("_submission_accepted"))},
                                {ID("submission_rejected"), field(self, ID("_submission_rejected"))},
                                {ID("submission_retrying"), field(self, ID("_submission_retrying"))},
                                {ID("submission_discarded"), field(self, ID("_submission_discarded"))},
                                {ID("submission_backoff"), field(self, ID("_submission_backoff"))},
                                {ID("last_poll_time"), field(self, ID("_last_poll_time"))}});
        });
    }
    return snapshot;
}

object update_submission_counts(handle self) {
    object queued;
    try {
        queued = call_method(field(self, ID("_submission_queue")), ID("qsize"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        queued = int_of(0);
    }
    return with_lock(lock_of(self), [&] {
        set_field(self, ID("_submission_queued"), py_int(queued));
        Py_ssize_t pending = PyObject_Length(field(self, ID("_pending_submissions")).ptr());
        if (pending < 0) throw_py();
        Py_ssize_t retrying = PyObject_Length(field(self, ID("_retry_queue")).ptr());
        if (retrying < 0) throw_py();
        set_field(self, ID("_submission_pending"), int_of(pending));
        set_field(self, ID("_submission_retrying"), int_of(retrying));
        return none();
    });
}

static double count_query(handle conn, store::Stmt sql, handle lo, handle hi) {
    object cur = store::execute(conn, sql, {lo, hi});
    object row = call_method(cur, ID("fetchone"));
    return as_double(getitem(row, int_of(0)));
}

object discovery_rate_nudge(handle self) {
    if (!field_true(self, ID("_tracker_uses_persistent_store"))) return none();
    object exc = caught([&] {
        object conn = get_attr(field(self, ID("_tracker")), ID("_conn"));
        double now = wall_time();
        object now_o = float_of(now), current_start = float_of(now - 21600), prior_start = float_of(now - 43200);
        double prior_count = 0, current_count = 0;
        with_lock(field(self, ID("_tracker_write_lock")), [&] {
            prior_count = count_query(conn, store::Stmt::count_status_from_to_open, prior_start, current_start);
            current_count = count_query(conn, store::Stmt::count_status_from_to_closed, current_start, now_o);
        });
        double prior_window = prior_count / 6.0;
        double current_window = current_count / 6.0;
        bool declining = prior_window > 0 && prior_window * 0.7 > current_window;
        bool should_fire = with_lock(lock_of(self), [&] {
            bool active = truthy(get_attr_or(self, ID("_discovery_rate_declining_nudge_active"), Py_False));
            if (!declining) set_field(self, ID("_discovery_rate_declining_nudge_active"), bool_of(false));
            if (!declining || active) return false;
            set_field(self, ID("_discovery_rate_declining_nudge_active"), bool_of(true));
            return true;
        });
        if (should_fire)
            call_kw(global(ID("_safe_update_nudge")), {str_of("discovery_rate_declining")},
                    {{ID("current_window"), float_of(current_window)}, {ID("prior_window"), float_of(prior_window)}});
    });
    if (exc) log_warning("discovery_rate_declining nudge evaluation failed: %s", {exc});
    return none();
}

}  // namespace tw::hnd
