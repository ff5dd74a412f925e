// Leased claims on the store's queue and retry tables: the claim-column
// migration, the claim of one row, the proof of a row's identity in later
// writes, the deletes, and the test for work held in memory.
//
// A claim writes the owner and the time into the row; a row is claimable when
// it is free, ours, or its lease (SUBMISSION_QUEUE_LEASE_SECONDS) has run out.
// Every statement runs under `_tracker_write_lock` on the tracker's `_conn`.
#include "handle/pipeline.hpp"


namespace tw::hnd {

namespace {

object row_at(handle row, long i) { return getitem(row, int_of(i)); }

// The claim of one row of `table`: BEGIN IMMEDIATE, select, owner-proving
// update, COMMIT. The row, or None when there is nothing to claim now.
struct ClaimSql {
    store::Table table;
    store::Stmt select, update;
    const char* lost_operation;  // recorded when another owner won the row
    const char* lost_text;
    const char* failed_operation;
    const char* rollback_message;
};

object claim_row(handle self, const ClaimSql& q) {
    object now = float_of(wall_time());
    object expired_before = steal(PyNumber_Subtract(now.ptr(), global(ID("SUBMISSION_QUEUE_LEASE_SECONDS")).ptr()));
    object row = none();
    object exc;
    try {
        exc = caught([&] {
            with_lock(tracker_write_lock(self), [&] {
                object conn = tracker_conn(self);
                object owner = field(self, ID("_submission_owner"));
                store::execute(conn, store::Stmt::begin_immediate);
                object cur = q.table == store::Table::submission_queue
                                 ? store::execute(conn, q.select, {owner, expired_before})
                                 : store::execute(conn, q.select, {now, owner, expired_before});
                object found = call_method(cur, ID("fetchone"));
                if (is_none(found)) {
                    store::execute(conn, store::Stmt::commit);
                    call_method(self, ID("_reset_background_failures"), {str_of("submission")});
                    return;
                }
                object claimed = store::execute(conn, q.update, {owner, now, row_at(found, 0), owner, expired_before});
                if (!rowcount_is_one(claimed)) {
                    store::execute(conn, store::Stmt::rollback);
                    record_failure(self, "submission", q.lost_operation, call(handle(PyExc_RuntimeError), {str_of(q.lost_text)}), true);
                    return;
                }
                store::execute(conn, store::Stmt::commit);
                row = found;
            });
        });
    } catch (py::error_already_set&) {
        // Not an ordinary exception: the transaction is ended all the same (see immediate_transaction).
        if (may_touch_objects()) rollback_quietly(self, q.rollback_message);
        throw;
    }
    if (exc) {
        rollback_quietly(self, q.rollback_message);
        record_failure(self, "submission", q.failed_operation, exc, true);
        return none();
    }
    return row;
}

template <class Run>
object delete_source(handle self, handle id, const char* failure_name, Run run) {
    if (is_none(id) || !persistent(self)) return bool_of(true);
    bool deleted = false;
    object exc = caught([&] {
        deleted = with_lock(tracker_write_lock(self), [&] {
            object conn = tracker_conn(self);
            object cur = run(conn, field(self, ID("_submission_owner")));
            call_method(conn, ID("commit"));
            return rowcount_is_one(cur);
        });
    });
    if (exc) record_failure(self, "submission", failure_name, exc, true);
    return bool_of(deleted && !exc);
}

// `id_key`: where the payload keeps the row's id; `id_name`: the table's id column.
object delete_payload(handle self, handle payload, const char* id_key, const char* id_name, store::Table table,
                      const char* failure_name) {
    object id = mapping_get(payload, str_of(id_key), Py_None);
    return delete_source(self, id, failure_name, [&](handle conn, handle owner) {
        object pred = call_method(self, ID("_source_sql_predicates"), {payload, str_of(id_name), id});
        return store::delete_matching(conn, table, getitem(pred, int_of(0)), getitem(pred, int_of(1)), owner);
    });
}

}  // namespace

// ---------------------------------------------------------------- schema

object persistent_table_columns(handle self, handle table_name) {
    return store::table_columns(tracker_conn(self), table_name);
}

static object ensure_claim_columns(handle self, handle ready_field, store::Table table, const char* failure_name) {
    if (field_true(self, ready_field) || !persistent(self)) return bool_of(true);
    object exc = caught([&] {
        with_lock(tracker_write_lock(self), [&] {
            object conn = tracker_conn(self);
            object cols = call_method(self, ID("_persistent_table_columns"), {str_of(store::table_name(table))});
            if (!contains(cols, ID("in_flight_owner"))) store::execute(conn, store::Stmt::add_in_flight_owner, table);
            if (!contains(cols, ID("in_flight_at"))) store::execute(conn, store::Stmt::add_in_flight_at, table);
            call_method(conn, ID("commit"));
            set_field(self, ready_field, bool_of(true));
        });
    });
    if (exc) record_failure(self, "submission", failure_name, exc, true);
    return bool_of(!exc);
}

object ensure_submission_claim_columns(handle self) {
    return ensure_claim_columns(self, ID("_submission_claim_columns_ready"), store::Table::submission_queue,
                                "submission_queue_claim_schema");
}

object ensure_retry_claim_columns(handle self) {
    return ensure_claim_columns(self, ID("_retry_claim_columns_ready"), store::Table::submission_retry,
                                "submission_retry_claim_schema");
}

// ---------------------------------------------------------------- claims

object peek_submission_payload(handle self) {
    if (!truthy(call_method(self, ID("_ensure_submission_claim_columns")))) return none();
    object row = claim_row(self, {store::Table::submission_queue, store::Stmt::select_claimable_queue,
                                  store::Stmt::claim_queue_row, "claim_submission_queue",
                                  "submission_queue claim lost", "dequeue_submission",
                                  "ROLLBACK failed during dequeue_submission: %s"});
    if (is_none(row)) return none();
    object queue_id = row_at(row, 0);
    object payload_json = row_at(row, 3);

    // A row whose receipt was recorded already is never sent again: it is
    // deleted, or left claimed while its delete fails.
    bool finished = with_lock(lock_of(self), [&] { return contains(field(self, ID("_finished_queue_ids")), queue_id); });
    if (finished) {
        if (!truthy(call_method(self, ID("_delete_submission_queue_item"), {queue_id}))) return none();
        with_lock(lock_of(self), [&] { call_method(field(self, ID("_finished_queue_ids")), ID("discard"), {queue_id}); });
        return new_dict();
    }

    object payload;
    if (object exc = caught([&] { payload = load_payload(payload_json); })) {
        record_failure(self, "submission", "payload_json decode", exc, false);
        call_method(self, ID("_delete_submission_queue_item"), {queue_id});
        return new_dict();
    }
    // Outside every try: a row without its keys stays claimed and goes up to the loop.
    require_typed_keys(payload, "submission_queue", queue_id);
    setitem(payload, ID("_queue_id"), queue_id);
    setitem(payload, ID("_source_created_at"), row_at(row, 6));
    setitem(payload, ID("_source_payload_json"), payload_json);
    return payload;
}

object peek_retry_payload(handle self) {
    if (!truthy(call_method(self, ID("_ensure_retry_claim_columns")))) return none();
    object row = claim_row(self, {store::Table::submission_retry, store::Stmt::select_claimable_retry,
                                  store::Stmt::claim_retry_row, "claim_submission_retry",
                                  "submission_retry claim lost", "dequeue_retryable",
                                  "ROLLBACK failed during dequeue_retryable: %s"});
    if (is_none(row)) return none();
    object retry_id = row_at(row, 0);
    object payload_json = row_at(row, 3);

    object payload;
    if (object exc = caught([&] { payload = load_payload(payload_json); })) {
        record_failure(self, "submission", "payload_json decode", exc, false);
        // No try of its own: a store failure here goes up to the loop.
        with_lock(tracker_write_lock(self), [&] {
            object conn = tracker_conn(self);
            store::execute(conn, store::Stmt::delete_claimed_retry, {retry_id, field(self, ID("_submission_owner"))});
            call_method(conn, ID("commit"));
        });
        return new_dict();
    }
    require_typed_keys(payload, "submission_retry", retry_id);
    // A stale queue id inside the stored text never travels with a retry.
    if (contains(payload, ID("_queue_id"))) check_int(PyObject_DelItem(payload.ptr(), ID("_queue_id").ptr()));
    setitem(payload, ID("retry_count"), row_at(row, 5));
    setitem(payload, ID("retry_after"), row_at(row, 7));
    setitem(payload, ID("retry_id"), retry_id);
    setitem(payload, ID("_source_created_at"), row_at(row, 8));
    setitem(payload, ID("_source_payload_json"), payload_json);
    return payload;
}

object payload_from_tracker_item(handle self, handle item) {
    object item_queue_id = get_attr_or_none(item, ID("queue_id"));
    object payload;
    object exc = caught([&] {
        payload = load_payload(get_attr_or_none(item, ID("payload_json")));
        require_typed_keys(payload, "tracker_item", item_queue_id);
        if (!contains(payload, ID("_queue_id")) && !is_none(item_queue_id))
            setitem(payload, ID("_queue_id"), item_queue_id);
    });
    if (!exc) return payload;
    record_failure(self, "submission", "payload_json decode", exc, false);
    return none();
}

// ---------------------------------------------------------------- proof of a row, deletes

object source_sql_predicates(handle self, handle payload, handle id_name, handle source_id, handle require_owner) {
    bool queue = check_int(PyObject_RichCompareBool(id_name.ptr(), ID("queue_id").ptr(), Py_EQ)) == 1;
    require_typed_keys(payload, queue ? "submission_queue" : "submission_retry", source_id);
    object clauses = new_list(), params = new_list();
    auto add = [&](handle clause, handle param) {
        list_append(clauses, clause);
        list_append(params, param);
    };
    add(ftext({id_name, str_of("=?")}), source_id);
    add(str_of("eval_id=?"), getitem(payload, ID("eval_id")));
    add(str_of("eval_type=?"), getitem(payload, ID("submission_type")));
    add(str_of("era_id=?"), getitem(payload, ID("era_id")));
    object created = mapping_get(payload, ID("_source_created_at"), Py_None);
    if (!is_none(created)) add(str_of("created_at=?"), created);
    object stored = mapping_get(payload, ID("_source_payload_json"), Py_None);
    if (!is_none(stored)) add(str_of("payload_json=?"), stored);
    if (truthy(require_owner)) add(str_of("in_flight_owner=?"), field(self, ID("_submission_owner")));
    object where = steal(PyUnicode_Join(str_of(" AND ").ptr(), clauses.ptr()));
    return tuple_of({where, params});
}

object delete_submission_queue_item(handle self, handle queue_id) {
    return delete_source(self, queue_id, "delete_submission_queue", [&](handle conn, handle owner) {
        return store::execute(conn, store::Stmt::delete_queue_item, {queue_id, owner});
    });
}

object delete_submission_retry_item(handle self, handle retry_id) {
    return delete_source(self, retry_id, "delete_submission_retry", [&](handle conn, handle owner) {
        return store::execute(conn, store::Stmt::delete_retry_item, {retry_id, owner});
    });
}

object delete_submission_queue_payload(handle self, handle payload) {
    return delete_payload(self, payload, "_queue_id", "queue_id", store::Table::submission_queue,
                          "delete_submission_queue");
}

object delete_submission_retry_payload(handle self, handle payload) {
    return delete_payload(self, payload, "retry_id", "retry_id", store::Table::submission_retry,
                          "delete_submission_retry");
}

object delete_claimed_submission_source(handle self, handle payload) {
    if (!is_none(mapping_get(payload, ID("retry_id"), Py_None)))
        return call_method(self, ID("_delete_submission_retry_payload"), {payload});
    return call_method(self, ID("_delete_submission_queue_payload"), {payload});
}

// ---------------------------------------------------------------- work in memory

bool has_in_memory_submission_work(handle self) {
    bool queued = false;
    object exc = caught([&] {
        object size = call_method(field(self, ID("_submission_queue")), ID("qsize"));
        queued = check_int(PyObject_RichCompareBool(size.ptr(), int_of(0).ptr(), Py_GT)) == 1;
    });
    if (queued) return true;
    if (exc) {
        object type_name = get_attr(handle(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr()))), ID("__name__"));
        if (is_a(exc, PyExc_NotImplementedError))
            log_debug("Submission queue size unavailable: %s", {type_name});
        else
            log_warning("Failed to inspect submission queue size: %s", {type_name});
    }
    return with_lock(lock_of(self), [&] {
        return truthy(field(self, ID("_retry_queue"))) || truthy(field(self, ID("_pending_receipts_by_queue_id")));
    });
}

}  // namespace tw::hnd
