// Where a payload goes after a failed attempt: back to its claimed row with a
// counted rejection (move from the queue, update of the retry row), deferred
// without a count after a network failure, to the handle's in-memory retry
// list, or, after the fifth rejection, finalised and discarded.
//
// The transactions work on a row this handle has claimed and prove the claim
// with _source_sql_predicates(..., require_owner=True).
#include "handle/pipeline.hpp"


namespace tw::hnd {

namespace {

object item(handle payload, const char* key) { return getitem(payload, str_of(key)); }

// (where, where_params) proving this handle's claim of the row.
std::pair<object, object> claim_predicates(handle self, handle payload, const char* id_name, handle id) {
    object pred = call_method_kw(self, ID("_source_sql_predicates"), {payload, str_of(id_name), id},
                                 {{ID("require_owner"), handle(Py_True)}});
    return {getitem(pred, int_of(0)), getitem(pred, int_of(1))};
}

// tracker.<method>(id, eval_id, type, payload_json, era_id, reason, count, retry_after=...) under the write lock
void tell_tracker(handle self, const char* method, std::initializer_list<handle> args, handle retry_after) {
    with_lock(tracker_write_lock(self), [&] {
        call_method_kw(field(self, ID("_tracker")), str_of(method), args, {{ID("retry_after"), retry_after}});
    });
}

}  // namespace

object enqueue_retry_payload(handle self, handle payload, handle rejection_reason, handle retry_after) {
    object one = int_of(1);
    object count = steal(PyNumber_Long(mapping_get(payload, ID("retry_count"), int_of(0)).ptr()));
    object next_count = steal(PyNumber_Add(count.ptr(), one.ptr()));
    object payload_json = storage_json(payload);

    if (check_int(PyObject_RichCompareBool(next_count.ptr(), int_of(5).ptr(), Py_GE)) == 1) {
        if (!truthy(call_method(self, ID("_finalize_retry_exhausted_payload"), {payload, rejection_reason}))) {
            update_counts(self);  // the row stays claimed: the next pass tries again
            return none();
        }
        with_lock(lock_of(self), [&] {
            add_int(self, ID("_submission_discarded"), 1);
            add_int(self, ID("_submission_rejected"), 1);
        });
        call_method(self, ID("_append_error"), {ftext({str_of("submission retry exhausted: "), rejection_reason})});
        call_method(self, ID("_delete_claimed_submission_source"), {payload});
        update_counts(self);
        return none();
    }

    bool persisted = false;
    object exc = caught([&] {
        object retry_id = payload_get(payload, "retry_id");
        object previous = steal(PyNumber_Subtract(next_count.ptr(), one.ptr()));
        persisted = true;
        if (!is_none(retry_id) && persistent(self)) {
            call_method(self, ID("_update_claimed_retry_payload"),
                        {payload, payload_json, rejection_reason, next_count, retry_after});
        } else if (!is_none(retry_id)) {
            tell_tracker(self, "increment_retry",
                         {retry_id, item(payload, "eval_id"), item(payload, "submission_type"), payload_json,
                          item(payload, "era_id"), rejection_reason, previous},
                         retry_after);
        } else if (!is_none(payload_get(payload, "_queue_id")) && persistent(self)) {
            call_method(self, ID("_move_claimed_queue_to_retry"), {payload, payload_json, rejection_reason, retry_after});
        } else if (check_int(PyObject_RichCompareBool(next_count.ptr(), one.ptr(), Py_EQ)) == 1) {
            tell_tracker(self, "enqueue_retry",
                         {item(payload, "eval_id"), item(payload, "submission_type"), payload_json,
                          item(payload, "era_id"), rejection_reason},
                         retry_after);
        } else if (!persistent(self)) {
            tell_tracker(self, "increment_retry",
                         {Py_None, item(payload, "eval_id"), item(payload, "submission_type"), payload_json,
                          item(payload, "era_id"), rejection_reason, previous},
                         retry_after);
        } else {
            persisted = false;  // persistent, no source row, a later rejection: nothing is written
        }
    });
    if (exc) {
        record_failure(self, "submission", "enqueue_retry", exc, true);
        if (persistent(self) && (!is_none(payload_get(payload, "_queue_id")) || !is_none(payload_get(payload, "retry_id")))) {
            update_counts(self);  // the claimed source row is still there, with its old count
            return none();
        }
        persisted = false;  // on to the in-memory retry
    }
    if (persisted && persistent(self)) {
        update_counts(self);
        return none();
    }

    object retry_payload = shallow_copy(payload);
    setitem(retry_payload, ID("retry_count"), next_count);
    setitem(retry_payload, ID("retry_after"), retry_after);
    append_to(field(self, ID("_retry_queue")), retry_payload);
    event_set(field(self, ID("_submission_wakeup")));
    update_counts(self);
    return none();
}

// ---------------------------------------------------------------- transactions on a claimed row

object move_claimed_queue_to_retry(handle self, handle payload, handle payload_json, handle rejection_reason,
                                   handle retry_after) {
    object queue_id = payload_get(payload, "_queue_id");
    if (is_none(queue_id)) raise(PyExc_ValueError, "queue_id required to move submission_queue row to retry");
    require_typed_keys(payload, "submission_queue", queue_id);
    return immediate_transaction(self, "ROLLBACK failed during retry-move: %s", [&](handle conn) {
        auto [where, where_params] = claim_predicates(self, payload, "queue_id", queue_id);
        object pool_id = getitem(resolve_pool_ids(conn, payload), int_of(0));
        if (!truthy(pool_id)) raise(PyExc_ValueError, "pool_id must be a non-empty string");
        object inserted = store::execute(conn, store::Stmt::insert_retry_from_queue,
                                         {item(payload, "eval_id"), item(payload, "submission_type"), pool_id,
                                          payload_json, item(payload, "era_id"), rejection_reason, retry_after,
                                          float_of(wall_time())});
        object deleted = store::execute_where(conn, store::Stmt::delete_queue_where, where, {}, where_params);
        require_rowcount_one(deleted, "claimed submission_queue row was not moved to retry");
        return get_attr(inserted, ID("lastrowid"));
    });
}

void update_claimed_retry_payload(handle self, handle payload, handle payload_json, handle rejection_reason,
                                  handle retry_count, handle retry_after) {
    object retry_id = payload_get(payload, "retry_id");
    if (is_none(retry_id)) raise(PyExc_ValueError, "retry_id required to update submission_retry row");
    require_typed_keys(payload, "submission_retry", retry_id);
    if (!truthy(call_method(self, ID("_ensure_retry_claim_columns"))))
        raise(PyExc_RuntimeError, "submission_retry claim columns unavailable");
    immediate_transaction(self, "ROLLBACK failed during retry-payload update: %s", [&](handle conn) {
        auto [where, where_params] = claim_predicates(self, payload, "retry_id", retry_id);
        object cur = store::execute_where(conn, store::Stmt::update_retry_after_rejection_where, where,
                                          {payload_json, retry_count, rejection_reason, retry_after,
                                           float_of(wall_time())},
                                          where_params);
        require_rowcount_one(cur, "claimed submission_retry row was not updated");
    });
}

void defer_claimed_retry_payload(handle self, handle payload, handle retry_after, handle rejection_reason) {
    object retry_id = payload_get(payload, "retry_id");
    if (is_none(retry_id)) raise(PyExc_ValueError, "retry_id required to defer submission_retry row");
    if (!truthy(call_method(self, ID("_ensure_retry_claim_columns"))))
        raise(PyExc_RuntimeError, "submission_retry claim columns unavailable");
    // Written back with the failed attempt's idempotency key: the next attempt sends the same key.
    object payload_json = storage_json(payload);
    immediate_transaction(self, "ROLLBACK failed during retry-defer: %s", [&](handle conn) {
        auto [where, where_params] = claim_predicates(self, payload, "retry_id", retry_id);
        object cur = store::execute_where(conn, store::Stmt::defer_retry_where, where,
                                          {payload_json, rejection_reason, retry_after}, where_params);
        require_rowcount_one(cur, "claimed submission_retry row stale or missing");
    });
}

void defer_claimed_queue_payload(handle self, handle payload) {
    object queue_id = payload_get(payload, "_queue_id");
    if (is_none(queue_id)) raise(PyExc_ValueError, "queue_id required to defer submission_queue row");
    if (!truthy(call_method(self, ID("_ensure_submission_claim_columns"))))
        raise(PyExc_RuntimeError, "submission_queue claim columns unavailable");
    immediate_transaction(self, "ROLLBACK failed during queue-defer: %s", [&](handle conn) {
        auto [where, where_params] = claim_predicates(self, payload, "queue_id", queue_id);
        object cur = store::execute_where(conn, store::Stmt::defer_queue_where, where, {}, where_params);
        require_rowcount_one(cur, "claimed submission_queue row stale or missing");
    });
}

// ---------------------------------------------------------------- exhaustion

object retry_exhausted_submission_id(handle self, handle payload) {
    object known = payload_get(payload, "submission_id");
    if (truthy(known)) return known;
    if (!persistent(self)) return none();
    object eval_id = payload_get(payload, "eval_id"), type = payload_get(payload, "submission_type"), era_id = payload_get(payload, "era_id");
    if (is_none(eval_id) || is_none(type) || is_none(era_id)) return none();
    object row = with_lock(tracker_write_lock(self), [&] {
        object cur = store::execute(tracker_conn(self), store::Stmt::open_submission_of_eval, {eval_id, type, era_id});
        return call_method(cur, ID("fetchone"));
    });
    if (is_none(row)) return none();
    object id = getitem(row, int_of(0));
    return truthy(id) ? id : none();
}

bool finalize_retry_exhausted_payload(handle self, handle payload, handle rejection_reason) {
    object submission_id = call_method(self, ID("_retry_exhausted_submission_id"), {payload});
    if (!truthy(submission_id)) return true;  // nothing to finalise: the caller discards
    object reason = truthy(rejection_reason) ? ftext({str_of("retry_exhausted: "), rejection_reason})
                                             : str_of("retry_exhausted");
    object exc = caught([&] {
        with_lock(tracker_write_lock(self), [&] {
            notify_status(self, submission_id, str_of("not_useful"), {{ID("rejection_reason"), reason}});
        });
    });
    if (!exc) return true;
    record_failure(self, "submission", "finalize_retry_exhausted", exc, true);
    return false;
}

}  // namespace tw::hnd
