// The three ways a handle ends: stop, the replacement abort and the finaliser.
#include "handle/handle.hpp"

#include "collaborators/store.hpp"

namespace tw::hnd {

// ---------------------------------------------------------------- abort primitives

object ensure_primitives(handle self) {
    static const char* names[] = {"_replacement_abort_event", "_submission_start_lock", "_poll_start_lock"};
    bool all = true;
    for (auto n : names)
        if (is_none(get_attr_or_none(self, str_of(n)))) all = false;
    if (all) return none();
    return with_lock(global(ID("_REPLACEMENT_ABORT_BOOTSTRAP_LOCK")), [&] {
        object threading = import_module("threading");
        if (is_none(get_attr_or_none(self, ID("_replacement_abort_event"))))
            set_field(self, ID("_replacement_abort_event"), call(get_attr(threading, ID("Event"))));
        if (is_none(get_attr_or_none(self, ID("_submission_start_lock"))))
            set_field(self, ID("_submission_start_lock"), call(get_attr(threading, ID("Lock"))));
        if (is_none(get_attr_or_none(self, ID("_poll_start_lock"))))
            set_field(self, ID("_poll_start_lock"), call(get_attr(threading, ID("Lock"))));
        return none();
    });
}

object abort_event_handle(handle self) {
    call_method(self, ID("_ensure_replacement_abort_primitives"));
    return field(self, ID("_replacement_abort_event"));
}

object submission_start_guard(handle self) {
    call_method(self, ID("_ensure_replacement_abort_primitives"));
    return field(self, ID("_submission_start_lock"));
}

object poll_start_guard(handle self) {
    call_method(self, ID("_ensure_replacement_abort_primitives"));
    return field(self, ID("_poll_start_lock"));
}

object abort_requested(handle self) {
    object ev = call_method(self, ID("_replacement_abort_event_handle"));
    return bool_of(event_is_set(ev));
}

// ---------------------------------------------------------------- shared steps

static void drain_queue(handle self, const char* failure_text) {
    try {
        object q = field(self, ID("_submission_queue"));
        object empty = field(self, ID("_queue_empty"));
        while (true) {
            try {
                call_method(q, ID("get_nowait"));
            } catch (py::error_already_set& e) {
                if (matches(e, empty)) break;
                throw;
            }
        }
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning(failure_text, {exc_value(e)});
    }
}

static void release_sync_manager(handle self, const char* failure_text) {
    object sync_mgr = field(self, ID("_sync_mgr"));
    if (is_none(sync_mgr)) return;
    try {
        call_method(sync_mgr, ID("unregister_era_callback"), {get_attr(self, ID("_on_era_change"))});
        call_method(sync_mgr, ID("release"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning(failure_text, {exc_value(e)});
    }
}

static void clear_tracker_active(handle self, const char* failure_text) {
    try {
        call_method(field(self, ID("_tracker")), ID("set_search_active"), {handle(Py_False)});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning(failure_text, {exc_value(e)});
    }
}

// The module no longer has this handle as its active search.
static void deactivate_module(handle self) {
    with_lock(global(ID("_search_active_lock")), [&] {
        set_global("_search_active", bool_of(false));
        if (global(ID("_active_search_handle")).ptr() == self.ptr()) set_global("_active_search_handle", none());
    });
}

static const char* kBackgroundThreads[] = {"_supervisor_thread", "_era_thread", "_submission_thread",
                                           "_polling_thread"};

// ---------------------------------------------------------------- stop

object stop(handle self, handle join_timeout) {
    if (field_true(self, ID("_stopped"))) return none();
    call_method(self, ID("_flush_pending_receipt_finalizations"));
    event_set(stop_event_of(self));
    object workers = list_from(field(self, ID("_worker_threads")));
    object five = float_of(5.0);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(workers.ptr()); ++i)
        call_method(PyList_GET_ITEM(workers.ptr(), i), ID("join"), {five});
    for (auto name : kBackgroundThreads) {
        object t = field(self, str_of(name));
        if (!is_none(t)) call_method(t, ID("join"), {join_timeout});
    }
    call_method(self, ID("_flush_pending_receipt_finalizations"));  // what the submission thread finished meanwhile
    release_sync_manager(self, "Failed to release sync manager during stop: %s");
    drain_queue(self, "Failed to drain submission queue during stop: %s");
    call_method(self, ID("_update_submission_counts"));
    {
        with_lock(lock_of(self), [&] {
            set_field(self, ID("_running"), bool_of(false));
            set_field(self, ID("_submission_backoff"), bool_of(false));
            set_field(self, ID("_submission_backoff_until"), float_of(0.0));
            set_field(self, ID("_submission_queued"), int_of(0));
        });
    }
    clear_tracker_active(self, "Failed to set search inactive: %s");
    set_field(self, ID("_stopped"), bool_of(true));
    deactivate_module(self);
    return none();
}

// ---------------------------------------------------------------- replacement abort

static void delete_owned_rows(handle self) {
    try {
        object owner = field(self, ID("_submission_owner"));
        object pattern = ftext({str_of("%\"_submission_owner\": \""), owner, str_of("\"%")});
        object conn = get_attr(field(self, ID("_tracker")), ID("_conn"));
        auto purge = [&](store::Table table, handle ensure) {
            if (truthy(call_method(self, ensure)))
                store::execute(conn, store::Stmt::delete_owned_payloads_or_claims, table, {pattern, owner});
            else
                store::execute(conn, store::Stmt::delete_owned_payloads, table, {pattern});
        };
        purge(store::Table::submission_queue, ID("_ensure_submission_claim_columns"));
        purge(store::Table::submission_retry, ID("_ensure_retry_claim_columns"));
        call_method(conn, ID("commit"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Failed to delete replacement-aborted persistent submissions: %s", {exc_value(e)});
    }
}

object abort_for_replacement(handle self) {
    if (field_true(self, ID("_stopped"))) return none();
    {
        with_lock(call_method(self, ID("_submission_start_guard")), [&] {
            with_lock(call_method(self, ID("_poll_start_guard")), [&] {
                with_lock(field(self, ID("_tracker_write_lock")), [&] {
                    event_set(call_method(self, ID("_replacement_abort_event_handle")));
                    drain_queue(self, "Failed to drain replacement-aborted submission queue: %s");
                    if (field_true(self, ID("_tracker_uses_persistent_store"))) delete_owned_rows(self);
                });
            });
        });
    }
    event_set(stop_event_of(self));
    try {
        event_set(field(self, ID("_submission_wakeup")));
    } catch (py::error_already_set& e) {
        if (!matches(e, tuple_of({handle(PyExc_AttributeError), handle(PyExc_RuntimeError),
                                  handle(PyExc_ReferenceError)})))
            throw;
        log_warning("Failed to wake replacement-aborted submission thread: %s", {exc_value(e)});
    }
    {
        with_lock(lock_of(self), [&] {
            set_field(self, ID("_running"), bool_of(false));
            set_field(self, ID("_submission_degraded"), bool_of(true));
            set_field(self, ID("_polling_degraded"), bool_of(true));
            set_field(self, ID("_submission_backoff"), bool_of(false));
            set_field(self, ID("_submission_backoff_until"), float_of(0.0));
            call_method(field(self, ID("_retry_queue")), ID("clear"));
            call_method(field(self, ID("_pending_submissions")), ID("clear"));
        });
    }
    object threads = list_from(field(self, ID("_worker_threads")));
    for (auto name : kBackgroundThreads) list_append(threads, field(self, str_of(name)));
    object pause = float_of(0.05);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(threads.ptr()); ++i) {
        handle t = PyList_GET_ITEM(threads.ptr(), i);
        if (is_none(t)) continue;
        try {
            call_method(t, ID("join"), {pause});
        } catch (py::error_already_set& e) {
            if (!matches(e, PyExc_RuntimeError)) throw;
        }
    }
    release_sync_manager(self, "Failed to release sync manager during replacement abort: %s");
    clear_tracker_active(self, "Failed to set search inactive during replacement abort: %s");
    call_method(self, ID("_update_submission_counts"));
    set_field(self, ID("_stopped"), bool_of(true));
    deactivate_module(self);
    return none();
}

// ---------------------------------------------------------------- finaliser

object finalize(handle self) {
    object quiet = tuple_of({handle(PyExc_AttributeError), handle(PyExc_RuntimeError), handle(PyExc_OSError),
                             handle(PyExc_ReferenceError)});
    object quiet_inner =
        tuple_of({handle(PyExc_AttributeError), handle(PyExc_RuntimeError), handle(PyExc_OSError)});
    try {
        event_set(stop_event_of(self));
        set_field(self, ID("_running"), bool_of(false));
        object sync_mgr = field(self, ID("_sync_mgr"));
        if (!is_none(sync_mgr)) {
            try {
                call_method(sync_mgr, ID("unregister_era_callback"), {get_attr(self, ID("_on_era_change"))});
                call_method(sync_mgr, ID("release"));
            } catch (py::error_already_set& e) {
                if (!matches(e, quiet_inner)) throw;
            }
        }
    } catch (py::error_already_set& e) {
        if (!matches(e, quiet)) throw;
    }
    return none();
}

}  // namespace tw::hnd
