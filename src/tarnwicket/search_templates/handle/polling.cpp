// The polling thread: once a second it asks the service about every open
// submission (the store's pending rows, earlier processes' included, and this
// handle's receipts), writes what it learns through the status notifier, and
// closes a submission whose status is terminal, counting it accepted or
// rejected. A network failure ends the pass and backs off; a refused poll
// closes the submission as rejected.
//
// Lock order: `_poll_start_guard` (held across the request only), then
// `_tracker_write_lock`, then `_lock`. Every write checks for a replacement
// abort again once it holds the write lock.
#include "handle/pipeline.hpp"

#include "collaborators/signal_service.hpp"

namespace tw::hnd {

namespace {

bool polling_degraded(handle self) { return field_true(self, ID("_polling_degraded")); }

bool member(const char* set_name, handle value) {
    return contains(global(str_of(set_name)), value);
}

void remove_pending(handle self, handle submission_id) {
    call_method(field(self, ID("_pending_submissions")), ID("pop"), {submission_id, handle(Py_None)});
}

// The window of a failed poll: this one as long as the last, the next twice that, up to 300 s.
void start_polling_backoff(handle self) {
    with_lock(lock_of(self), [&] {
        object current = field(self, ID("_polling_backoff_seconds"));
        object doubled = steal(PyNumber_Multiply(current.ptr(), float_of(2.0).ptr()));
        object cap = float_of(300.0);
        bool over = check_int(PyObject_RichCompareBool(cap.ptr(), doubled.ptr(), Py_LT)) == 1;
        set_field(self, ID("_polling_backoff_seconds"), over ? cap : doubled);
        set_field(self, ID("_polling_backoff_until"), steal(PyNumber_Add(float_of(monotonic()).ptr(), current.ptr())));
    });
}

bool in_polling_backoff(handle self) {
    object now = float_of(monotonic());
    object until = field(self, ID("_polling_backoff_until"));
    return check_int(PyObject_RichCompareBool(now.ptr(), until.ptr(), Py_LT)) == 1;
}

// One poll of one open submission. Returns false when the pass must end.
bool poll_one(handle self, handle payload) {
    if (stop_set(self) || aborted(self)) return false;
    object result;
    bool abort_seen = false;
    object exc = caught([&] {
        with_lock(call_method(self, ID("_poll_start_guard")), [&] {
            if (aborted(self)) {
                abort_seen = true;
                return;
            }
            result = service::poll_status(payload_get(payload, "submission_id"));
        });
    });
    if (abort_seen || aborted(self)) return false;
    if (exc) {
        if (is_a(exc, PyExc_ConnectionError)) {
            start_polling_backoff(self);  // the other open submissions wait with this one
            return false;
        }
        if (is_refusal(exc)) {
            object details = refusal_details(exc);
            call_method(self, ID("_finalize_pending_error"),
                        {payload, get_attr_or_none(exc, ID("status_code")), refusal_reason(exc, details)});
        } else {
            call_method(self, ID("_append_error"), {ftext({str_of("poll failed: "), exc})});
        }
        return true;
    }
    call_method(self, ID("_apply_polled_status"), {payload, result});
    if (aborted(self)) return false;
    with_lock(lock_of(self), [&] {
        set_field(self, ID("_polling_backoff_seconds"), float_of(5.0));
        set_field(self, ID("_polling_backoff_until"), float_of(0.0));
    });
    return true;
}

// The record of a store row: its submission id, type (default "signal"), evaluation, era (default 1) and sim.
object pending_record(handle item) {
    object record = new_dict();
    object signal = str_of("signal");
    object era = int_of(1);
    dict_set(record, ID("submission_id"), get_attr(item, ID("submission_id")));
    dict_set(record, ID("submission_type"), get_attr_or(item, ID("eval_type"), signal));
    dict_set(record, ID("eval_id"), get_attr_or_none(item, ID("eval_id")));
    dict_set(record, ID("era_id"), get_attr_or(item, ID("era_id"), era));
    dict_set(record, ID("sim_id"), get_attr_or_none(item, ID("sim_id")));
    return record;
}

}  // namespace

object polling_loop(handle self) {
    while (!host_exiting() && !stop_set(self) && !polling_degraded(self)) {
        object exc = caught([&] { call_method(self, ID("_polling_loop_inner")); });
        if (!exc) return none();
        record_failure(self, "polling", "loop", exc, true);
        if (polling_degraded(self)) return none();
        call(global(ID("_submission_backoff_sleep")), {field(self, ID("_polling_backoff_seconds"))});
    }
    return none();
}

object polling_loop_inner(handle self) {
    while (!host_exiting() && !stop_set(self)) {
        if (polling_degraded(self) || aborted(self)) return none();
        call_method(self, ID("_interruptible_wait"), {stop_event_of(self), global(ID("POLLING_INTERVAL"))});
        if (stop_set(self) || aborted(self)) return none();
        if (in_polling_backoff(self)) continue;
        call_method(self, ID("_flush_pending_receipt_finalizations"));
        if (aborted(self)) return none();
        with_lock(lock_of(self), [&] { set_field(self, ID("_last_poll_time"), float_of(wall_time())); });
        object open = list_from(call_method(self, ID("_pending_payloads")));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(open.ptr()); ++i) {
            object payload = borrow(PyList_GET_ITEM(open.ptr(), i));
            if (!poll_one(self, payload)) break;
        }
    }
    return none();
}

object pending_payloads(handle self) {
    if (aborted(self)) return new_list();
    object pending = new_dict();
    bool abort_seen = false;
    object exc = caught([&] {
        object rows = with_lock(tracker_write_lock(self), [&]() -> object {
            if (aborted(self)) {
                abort_seen = true;
                return object();
            }
            return call_method(field(self, ID("_tracker")), ID("get_pending_submissions"));
        });
        if (abort_seen) return;
        if (truthy(rows)) {
            object items = list_from(rows);
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.ptr()); ++i) {
                object item = borrow(PyList_GET_ITEM(items.ptr(), i));
                object record = pending_record(item);
                setitem(pending, getitem(record, ID("submission_id")), record);
            }
        }
        call_method(self, ID("_reset_background_failures"), {str_of("polling")});
    });
    if (abort_seen) return new_list();
    if (exc) record_failure(self, "polling", "get_pending_submissions", exc, true);
    if (aborted(self)) return new_list();
    object memory = with_lock(lock_of(self), [&] {
        return list_from(call_method(field(self, ID("_pending_submissions")), ID("items")));
    });
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(memory.ptr()); ++i) {
        object entry = borrow(PyList_GET_ITEM(memory.ptr(), i));
        setitem(pending, getitem(entry, int_of(0)), shallow_copy(getitem(entry, int_of(1))));
    }
    return list_from(call_method(pending, ID("values")));
}

namespace {

// A status write of the polling thread: under `_tracker_write_lock`, and nothing
// once a replacement abort is set; a failure is recorded and leaves the
// submission open; the counts follow either way.
template <class F>
void status_write(handle self, F&& write) {
    bool abort_seen = false;
    object exc = caught([&] {
        with_lock(tracker_write_lock(self), [&] {
            if (aborted(self)) {
                abort_seen = true;
                return;
            }
            write();
        });
    });
    if (abort_seen) return;
    if (exc) record_failure(self, "polling", "update_submission_status", exc, true);
    update_counts(self);
}

}  // namespace

void apply_polled_status(handle self, handle payload, handle poll_result) {
    object submission_id = payload_get(payload, "submission_id");
    object validating = str_of("is_validating");
    object status = get_attr_or(poll_result, ID("status"), validating);
    object payment = get_attr_or_none(poll_result, ID("payment"));
    status_write(self, [&] {
        object is_stats = get_attr_or_none(poll_result, ID("is_stats"));
        object stats_json = json_text(truthy(is_stats) ? is_stats : new_dict());
        object payment_json = is_none(payment) ? none() : json_text(payment);
        auto attr = [&](const char* name) { return get_attr_or_none(poll_result, str_of(name)); };
        notify_status(self, submission_id, status,
                      {{ID("is_stats_json"), stats_json},
                       {ID("payment_json"), payment_json},
                       {ID("payment"), payment},
                       {ID("rejection_reason"), attr("rejection_reason")},
                       {ID("signal_pool_id"), attr("signal_pool_id")},
                       {ID("is_correlation"), attr("is_correlation")},
                       {ID("is_pnl_mi"), attr("is_pnl_mi")},
                       {ID("agent_is_pnl_mi"), attr("agent_is_pnl_mi")},
                       {ID("is_weights_mi"), attr("is_weights_mi")},
                       {ID("failure_reason"), attr("failure_reason")},
                       {ID("failure_detail"), attr("failure_detail")}});
        if (member("_SUBMISSION_TERMINAL_STATUSES", status)) {
            bool accepted = member("_SUBMISSION_ACCEPTED_STATUSES", status);
            with_lock(lock_of(self), [&] {
                remove_pending(self, submission_id);
                add_int(self, accepted ? ID("_submission_accepted") : ID("_submission_rejected"), 1);
            });
        }
        call_method(self, ID("_reset_background_failures"), {str_of("polling")});
    });
}

void finalize_pending_error(handle self, handle payload, handle status_code, handle reason) {
    object submission_id = payload_get(payload, "submission_id");
    status_write(self, [&] {
        notify_status(self, submission_id, str_of("is_rejected"), {{ID("rejection_reason"), reason}});
        with_lock(lock_of(self), [&] {
            remove_pending(self, submission_id);
            add_int(self, ID("_submission_rejected"), 1);
        });
        call_method(self, ID("_append_error"),
                    {ftext({str_of("poll "), status_code, str_of(": "), submission_id, str_of(" "), reason})});
    });
}

}  // namespace tw::hnd
