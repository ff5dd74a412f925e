// The submission thread: the loop that survives faults, the drain order (one
// queue item, then one retry item), the dequeues, the success path with its
// crash-safe ordering (journal, store transaction, journal removal), and the
// flush of receipts whose recording failed.
#include "handle/pipeline.hpp"

namespace tw::hnd {

namespace {

bool degraded(handle self) { return field_true(self, ID("_submission_degraded")); }
bool has_work(handle self) { return truthy(call_method(self, ID("_has_in_memory_submission_work"))); }
bool stopping_idle(handle self) { return stop_set(self) && !has_work(self); }
bool in_backoff(handle self) { return field_true(self, ID("_submission_backoff")); }

bool is_empty_map(handle payload) { return is_dict(payload) && PyDict_GET_SIZE(payload.ptr()) == 0; }

// An item a tracker without a store handed out: a map is copied, anything else decoded.
// Returns a payload, or null to go on looking.
object from_tracker_item(handle self, handle item, bool& dropped) {
    object payload = is_dict(item) ? shallow_copy(item) : call_method(self, ID("_payload_from_tracker_item"), {item});
    if (is_none(payload)) return object();
    if (aborted(self)) {
        drop_aborted(self, is_dict(item) ? handle(item) : handle(payload));
        dropped = true;
        return object();
    }
    update_counts(self);
    return payload;
}

// Claims rows until one can be sent, one was consumed or nothing is left.
object claim_loop(handle self, const char* peek) {
    while (!(stop_set(self) || degraded(self) || aborted(self))) {
        object payload = call_method(self, str_of(peek));
        if (is_none(payload)) break;
        if (is_empty_map(payload)) continue;  // a row was consumed: look again
        if (aborted(self)) {
            drop_aborted(self, payload);
            update_counts(self);
            return none();
        }
        call_method(self, ID("_reset_background_failures"), {str_of("submission")});
        update_counts(self);
        return payload;
    }
    update_counts(self);
    return none();
}

// Steps shared by both dequeues: no new work during an abort or while a receipt is stuck.
bool may_take_work(handle self) {
    if (aborted(self) || !truthy(call_method(self, ID("_flush_pending_receipt_finalizations")))) {
        update_counts(self);
        return false;
    }
    return true;
}

object ask_tracker(handle self, const char* method, const char* failure_name) {
    object item = none();
    if (object exc = caught([&] { item = call_method(field(self, ID("_tracker")), str_of(method)); }))
        record_failure(self, "submission", failure_name, exc, true);
    return item;
}

}  // namespace

namespace {

// The shape of both dequeues: no new work during an abort or while a receipt
// is stuck; without a store, the tracker's own item first; then what memory
// holds (`from_memory` gives a null object for nothing); with a store, the
// claim of a row.
template <class FromMemory>
object dequeue(handle self, const char* tracker_method, const char* peek, FromMemory&& from_memory) {
    if (!may_take_work(self)) return none();
    bool pers = persistent(self);
    if (!pers) {
        object item = ask_tracker(self, tracker_method, tracker_method);
        if (!is_none(item)) {
            bool dropped = false;
            if (object payload = from_tracker_item(self, item, dropped)) return payload;
            if (dropped) return none();
        }
    }
    if (object item = from_memory(pers)) {
        if (aborted(self)) {
            drop_aborted(self, item);
            return none();
        }
        update_counts(self);
        return item;
    }
    if (!pers) {
        update_counts(self);
        return none();
    }
    return claim_loop(self, peek);
}

}  // namespace

object dequeue_submission_payload(handle self) {
    return dequeue(self, "dequeue_submission", "_peek_submission_payload", [&](bool pers) {
        object item;
        if (object exc = caught([&] { item = call_method(field(self, ID("_submission_queue")), ID("get_nowait")); })) {
            if (!is_a(exc, field(self, ID("_queue_empty")))) log_warning("Failed to get from submission queue: %s", {exc});
        }
        // With a store the in-memory queue is only a wake-up: the row is the truth.
        return pers ? object() : item;
    });
}

object dequeue_retry_payload(handle self) {
    return dequeue(self, "dequeue_retryable", "_peek_retry_payload", [&](bool) {
        object now = float_of(wall_time());
        object retry_queue = field(self, ID("_retry_queue"));
        object snapshot = list_from(retry_queue);
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(snapshot.ptr()); ++i) {
            object item = borrow(PyList_GET_ITEM(snapshot.ptr(), i));
            object retry_after = payload_get(item, "retry_after");
            if (is_none(retry_after) || check_int(PyObject_RichCompareBool(retry_after.ptr(), now.ptr(), Py_LE)) == 1) {
                call_method(retry_queue, ID("pop"), {int_of(i)});
                return item;
            }
        }
        return object();
    });
}

bool flush_pending_receipt_finalizations(handle self) {
    return with_lock(tracker_write_lock(self), [&] {
        object pending_map = field(self, ID("_pending_receipts_by_queue_id"));
        if (aborted(self)) {
            with_lock(lock_of(self), [&] { call_method(pending_map, ID("clear")); });
            return true;
        }
        object pending = with_lock(lock_of(self), [&] { return list_from(call_method(pending_map, ID("items"))); });
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(pending.ptr()); ++i) {
            object entry = borrow(PyList_GET_ITEM(pending.ptr(), i));
            object source_id = getitem(entry, int_of(0));
            object held = getitem(entry, int_of(1));
            object payload = getitem(held, int_of(0)), receipt = getitem(held, int_of(1));
            if (object exc = caught([&] { call_method(self, ID("_record_submission_and_delete_queue"), {payload, receipt}); })) {
                record_failure(self, "submission", "record_submission", exc, true);
                return false;  // the entries not yet tried stay
            }
            with_lock(lock_of(self), [&] { call_method(pending_map, ID("pop"), {source_id, Py_None}); });
            object submission_id = get_attr(receipt, ID("submission_id"));
            call_method(self, ID("_rewrite_receipt_journal_without"),
                        {call_method(self, ID("_receipt_journal_key_for_payload"), {payload, submission_id})});
            call_method(self, ID("_finalize_persisted_receipt"), {payload, submission_id});
        }
        return truthy(call_method(self, ID("_replay_receipt_journal")));  // the flush is also the journal's replay
    });
}

void handle_submission_success(handle self, handle payload, handle receipt) {
    object eval_id = payload_get(payload, "eval_id"), submission_type = payload_get(payload, "submission_type");
    object journal_key = none();
    bool dropped = false;
    object exc = caught([&] {
        dropped = with_lock(tracker_write_lock(self), [&] {
            if (aborted(self)) {
                drop_aborted(self, payload);
                return true;
            }
            // Durable before any store write. The key is kept only when the file
            // is there: a failed append makes the failure path write it durably.
            call_method(self, ID("_append_receipt_journal"), {payload, receipt});
            object submission_id = get_attr(receipt, ID("submission_id"));
            object key = call_method(self, ID("_receipt_journal_key_for_payload"), {payload, submission_id});
            object path = is_none(key) ? none() : call_method(self, ID("_receipt_journal_file_path"), {key});
            if (!is_none(path) && truthy(call(import_attr("os.path", ID("exists")), {path}))) journal_key = key;
            call_method(self, ID("_record_submission_and_delete_queue"), {payload, receipt});
            call_method(self, ID("_rewrite_receipt_journal_without"), {journal_key});
            if (is_none(payload_get(payload, "_queue_id")) || !persistent(self)) {
                object tracker = field(self, ID("_tracker"));
                object exc = caught([&] {
                    call_method_kw(tracker, ID("mark_submitted"), {eval_id}, {{ID("eval_type"), submission_type}});
                });
                if (exc && !is_a(exc, PyExc_TypeError)) reraise(exc);
                if (exc) call_method(tracker, ID("mark_submitted"), {eval_id, submission_type});
            }
            call_method(self, ID("_finalize_persisted_receipt"), {payload, submission_id});
            return false;
        });
    });
    if (!exc) {
        if (!dropped) update_counts(self);
        return;
    }
    with_lock(tracker_write_lock(self), [&] {
        if (aborted(self)) {
            call_method(self, ID("_drop_replacement_aborted_payload"), {payload, journal_key});
            return;
        }
        // The receipt of an accepted submission must not be lost.
        if (!is_none(call_method(self, ID("_receipt_journal_entry"), {payload, receipt})) && is_none(journal_key))
            call_method(self, ID("_append_receipt_journal_until_durable"), {payload, receipt});
        object queue_id = payload_get(payload, "_queue_id"), retry_id = payload_get(payload, "retry_id");
        object pending_key = !is_none(queue_id)   ? tuple_of({str_of("queue"), queue_id})
                             : !is_none(retry_id) ? tuple_of({str_of("retry"), retry_id})
                                                  : none();
        if (!is_none(pending_key))
            with_lock(lock_of(self), [&] {
                setitem(field(self, ID("_pending_receipts_by_queue_id")), pending_key,
                        tuple_of({shallow_copy(payload), receipt}));
            });
        record_failure(self, "submission", "record_submission", exc, true);
    });
    update_counts(self);
}

// Rows arriving during a backoff are in-memory work, which skips the idle wait:
// without a sleep here the thread would spin until the window ends.
static void wait_in_backoff(handle left) { call(global(ID("_submission_backoff_sleep")), {left}); }

object submission_loop_inner(handle self) {
    for (;;) {
        if (host_exiting() || stopping_idle(self) || degraded(self) || aborted(self)) return none();
        if (!stop_set(self)) {
            object wakeup = field(self, ID("_submission_wakeup"));
            if (!has_work(self)) call_method(wakeup, ID("wait"), {global(ID("SUBMISSION_POLL_INTERVAL"))});
            call_method(wakeup, ID("clear"));
        }
        if (aborted(self) || stopping_idle(self)) return none();
        call_method(self, ID("_flush_pending_receipt_finalizations"));
        if (aborted(self)) return none();
        object left = with_lock(lock_of(self), [&]() -> object {
            if (!in_backoff(self)) return object();
            object now = float_of(monotonic());
            object until = field(self, ID("_submission_backoff_until"));
            if (check_int(PyObject_RichCompareBool(now.ptr(), until.ptr(), Py_LT)) == 1)
                return steal(PyNumber_Subtract(until.ptr(), now.ptr()));
            set_field(self, ID("_submission_backoff"), bool_of(false));
            return object();
        });
        if (left) {  // nothing is taken during a backoff
            wait_in_backoff(left);
            continue;
        }
        for (;;) {
            if (stopping_idle(self) || aborted(self)) break;
            bool processed = false;
            object item = call_method(self, ID("_dequeue_submission_payload"));
            if (!is_none(item)) {
                call_method(self, ID("_submit_payload"), {item});
                if (in_backoff(self)) break;
                processed = true;
            }
            object retry_item = call_method(self, ID("_dequeue_retry_payload"));
            // Taken while stopping, a retry item is left: claimed for the lease to free, or lost with memory.
            if (!is_none(retry_item) && !stop_set(self) && !aborted(self)) {
                call_method(self, ID("_submit_payload"), {retry_item});
                if (in_backoff(self)) break;
                processed = true;
            }
            if (!processed) break;
        }
    }
}

object submission_loop(handle self) {
    while (!host_exiting() && (!stop_set(self) || has_work(self))) {
        if (degraded(self)) return none();
        object exc = caught([&] { call_method(self, ID("_submission_loop_inner")); });
        if (!exc) return none();
        record_failure(self, "submission", "loop", exc, true);
        if (degraded(self)) return none();
        call(global(ID("_submission_backoff_sleep")), {field(self, ID("_submission_backoff_seconds"))});
    }
    return none();
}

}  // namespace tw::hnd
