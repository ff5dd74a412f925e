// One submission attempt and the routing of its outcome: a network failure
// starts a backoff window and defers the claimed row; a refusal goes to retry
// (401, or 403 with a ban expiry) or is final; any other failure discards.
//
// Lock order: `_submission_start_guard` (held across the request only), then
// `_tracker_write_lock`, then `_lock`. Every handler checks for a replacement
// abort again once it holds the write lock: the abort may have come during
// the request.
#include "handle/pipeline.hpp"

#include "submission/binding.hpp"
#include "submission/payload.hpp"

namespace tw::hnd {

namespace {

const LateFn k_submit_signal_payload("_submit_signal_payload");

// Final outcome without a send: counted, reported, the source deleted or, when
// that fails, its queue id remembered so that it is never sent again.
void discard(handle self, handle payload, handle error_text, bool reset_backoff) {
    with_lock(lock_of(self), [&] {
        add_int(self, ID("_submission_discarded"), 1);
        add_int(self, ID("_submission_rejected"), 1);
        if (reset_backoff) {
            set_field(self, ID("_submission_backoff"), bool_of(false));
            set_field(self, ID("_submission_backoff_seconds"), float_of(5.0));
            set_field(self, ID("_submission_backoff_until"), float_of(0.0));
        }
    });
    call_method(self, ID("_append_error"), {error_text});
    object queue_id = payload_get(payload, "_queue_id");
    if (!truthy(call_method(self, ID("_delete_claimed_submission_source"), {payload})) && !is_none(queue_id))
        with_lock(lock_of(self), [&] { call_method(field(self, ID("_finished_queue_ids")), ID("add"), {queue_id}); });
}

void on_network_failure(handle self, handle payload, handle submission_type) {
    object queue_id = payload_get(payload, "_queue_id");
    object current_backoff = field(self, ID("_submission_backoff_seconds"));
    bool dropped = with_lock(tracker_write_lock(self), [&] {
        if (aborted(self)) {
            drop_aborted(self, payload);
            return true;
        }
        with_lock(lock_of(self), [&] {
            set_field(self, ID("_submission_backoff"), bool_of(true));
            current_backoff = field(self, ID("_submission_backoff_seconds"));
            object doubled = steal(PyNumber_Multiply(current_backoff.ptr(), float_of(2.0).ptr()));
            object cap = float_of(300.0);
            bool over = check_int(PyObject_RichCompareBool(cap.ptr(), doubled.ptr(), Py_LT)) == 1;
            set_field(self, ID("_submission_backoff_seconds"), over ? cap : doubled);
            set_field(self, ID("_submission_backoff_until"),
                      steal(PyNumber_Add(float_of(monotonic()).ptr(), current_backoff.ptr())));
        });
        if (!is_none(payload_get(payload, "retry_id")) && persistent(self)) {
            object retry_after = steal(PyNumber_Add(float_of(wall_time()).ptr(), current_backoff.ptr()));
            call_method(self, ID("_defer_claimed_retry_payload"), {payload, retry_after, str_of("network_error")});
        } else if (!is_none(queue_id) && persistent(self)) {
            call_method(self, ID("_defer_claimed_queue_payload"), {payload});
        } else {
            object exc = caught([&] {
                call_method(field(self, ID("_tracker")), ID("requeue_submission"),
                            {getitem(payload, ID("eval_id")), submission_type, storage_json(payload),
                             getitem(payload, ID("era_id"))});
            });
            if (exc) record_failure(self, "submission", "requeue_submission", exc, true);
            object copy = shallow_copy(payload);
            call_method(field(self, ID("_submission_queue")), ID("put"), {copy});
            event_set(field(self, ID("_submission_wakeup")));
        }
        return false;
    });
    if (dropped) return;
    call(global(ID("_submission_backoff_sleep")), {current_backoff});
    update_counts(self);
}

void on_refusal(handle self, handle payload, handle exc) {
    object details = refusal_details(exc);
    object reason = refusal_reason(exc, details);
    with_lock(tracker_write_lock(self), [&] {
        if (aborted(self)) {
            drop_aborted(self, payload);
            return;
        }
        object status = get_attr_or_none(exc, ID("status_code"));
        auto status_is = [&](long code) {
            return check_int(PyObject_RichCompareBool(status.ptr(), int_of(code).ptr(), Py_EQ)) == 1;
        };
        object ban_expiry = mapping_get(details, ID("ban_expiry"), Py_None);
        if (status_is(401)) {
            call_method(self, ID("_enqueue_retry_payload"), {payload, reason});
        } else if (status_is(403) && !is_none(ban_expiry)) {
            call_method_kw(self, ID("_enqueue_retry_payload"), {payload, reason}, {{ID("retry_after"), ban_expiry}});
        } else {
            discard(self, payload, ftext({str_of("submission "), status, str_of(": "), reason}), true);
        }
    });
    update_counts(self);
}

void on_failure(handle self, handle payload, handle exc) {
    with_lock(tracker_write_lock(self), [&] {
        if (aborted(self)) {
            drop_aborted(self, payload);
            return;
        }
        discard(self, payload, ftext({str_of("submission failed: "), exc}), false);
    });
    update_counts(self);
}

}  // namespace

object submit_payload(handle self, handle payload) {
    object submission_type = getitem(payload, ID("submission_type"));
    object receipt;
    bool dropped = false;
    object exc = caught([&] {
        dropped = with_lock(call_method(self, ID("_submission_start_guard")), [&] {
            if (aborted(self)) {
                drop_aborted(self, payload);
                return true;
            }
            call_method(self, ID("_record_submission_attempt_started"), {payload});
            receipt = k_submit_signal_payload.run<binding::submit_signal_payload>(payload);
            return false;
        });
    });
    if (exc) {
        if (is_a(exc, PyExc_ConnectionError))
            on_network_failure(self, payload, submission_type);
        else if (is_refusal(exc))
            on_refusal(self, payload, exc);
        else
            on_failure(self, payload, exc);
        return none();
    }
    if (dropped) return none();
    if (aborted(self)) {
        drop_aborted(self, payload);  // an accepted receipt is then deliberately not recorded
        return none();
    }
    call_method(self, ID("_handle_submission_success"), {payload, receipt});
    return none();
}

object ensure_submission_idempotency_key(handle self, handle payload) {
    object known = payload_get(payload, "idempotency_key");
    if (truthy(known)) return getitem(payload, ID("idempotency_key"));
    object client = import_attr("tarnwicket.submit", ID("SignalServiceClient"));
    object body = new_dict();
    object names = list_from(global(ID("_SIGNAL_SUBMIT_KWARGS")));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names.ptr()); ++i) {
        object name = borrow(PyList_GET_ITEM(names.ptr(), i));
        if (check_int(PyObject_RichCompareBool(name.ptr(), ID("idempotency_key").ptr(), Py_EQ)) == 1) continue;
        if (contains(payload, name)) dict_set(body, name, getitem(payload, name));
    }
    object key = call_method(client, ID("_idempotency_key_for_body"), {body});
    setitem(payload, ID("idempotency_key"), key);
    return key;
}

void record_submission_attempt_started(handle self, handle payload) {
    object key = call_method(self, ID("_ensure_submission_idempotency_key"), {payload});
    if (!persistent(self)) return;
    object submission_type = getitem(payload, ID("submission_type"));
    object pool_id = payload::recorded_pool_id(payload);
    object payload_json = storage_json(payload);  // holds the key just set
    with_lock(tracker_write_lock(self), [&] {
        call_method_kw(field(self, ID("_tracker")), ID("record_submission_attempt_started"),
                       {getitem(payload, ID("eval_id")), submission_type, key, getitem(payload, ID("era_id")),
                        payload_json},
                       {{ID("pool_id"), pool_id}});
    });
}

void drop_replacement_aborted_payload(handle self, handle payload, handle journal_key) {
    if (!is_none(journal_key)) call_method(self, ID("_rewrite_receipt_journal_without"), {journal_key});
    call_method(self, ID("_delete_claimed_submission_source"), {payload});
    update_counts(self);
}

}  // namespace tw::hnd
