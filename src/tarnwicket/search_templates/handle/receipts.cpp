// Recording a receipt: the status row, the evaluation marked submitted and the
// source row deleted, in one transaction; then the handle's own bookkeeping.
#include "handle/pipeline.hpp"

#include "submission/payload.hpp"

namespace tw::hnd {

namespace {

object synthetic_sim_id(handle eval_id, handle submission_type) {
    return call(global(ID("_synthetic_submission_sim_id")), {eval_id, submission_type});
}

object sim_id_of(handle payload, handle eval_id, handle submission_type) {
    object sim_id = payload_get(payload, "sim_id");
    return truthy(sim_id) ? sim_id : synthetic_sim_id(eval_id, submission_type);
}

bool is_text(handle value, const char* text) {
    return check_int(PyObject_RichCompareBool(value.ptr(), str_of(text).ptr(), Py_EQ)) == 1;
}

void nudge(handle self) { call_method(self, ID("_maybe_fire_discovery_rate_declining_nudge")); }

}  // namespace

void record_submission_and_delete_queue(handle self, handle payload, handle receipt) {
    object queue_id = payload_get(payload, "_queue_id");
    object retry_id = payload_get(payload, "retry_id");

    if ((is_none(queue_id) && is_none(retry_id)) || !persistent(self)) {
        // The keys are read in the order of the steps: the evaluation's only for a synthetic sim id.
        object sim_id = payload_get(payload, "sim_id");
        if (!truthy(sim_id)) sim_id = synthetic_sim_id(getitem(payload, ID("eval_id")), getitem(payload, ID("submission_type")));
        object submission_type = getitem(payload, ID("submission_type"));
        object pool_id = payload::recorded_pool_id(payload);
        object signal_pool_id = payload_get(payload, "signal_pool_id");
        if (is_text(submission_type, "signal") && is_none(signal_pool_id)) signal_pool_id = pool_id;
        with_lock(tracker_write_lock(self), [&] {
            object eval_id = getitem(payload, ID("eval_id"));
            object submission_id = get_attr(receipt, ID("submission_id"));
            call_method_kw(field(self, ID("_tracker")), ID("record_submission"),
                           {eval_id, submission_type, submission_id, getitem(payload, ID("era_id"))},
                           {{ID("sim_id"), sim_id}, {ID("pool_id"), pool_id}, {ID("signal_pool_id"), signal_pool_id}});
        });
        nudge(self);
        return;
    }

    object submission_type = payload_get(payload, "submission_type");
    object eval_id = payload_get(payload, "eval_id");
    object era_id = payload_get(payload, "era_id");
    object sim_id = sim_id_of(payload, eval_id, submission_type);
    bool journal_replay = truthy(mapping_get(payload, ID("_journal_replay"), Py_False));
    immediate_transaction(self, "ROLLBACK failed during submission commit: %s", [&](handle conn) {
        object pools = resolve_pool_ids(conn, payload);
        object pool_id = getitem(pools, int_of(0));
        object signal_pool_id = getitem(pools, int_of(1));
        if (!truthy(pool_id)) raise(PyExc_ValueError, "pool_id must be a non-empty string");
        call(global(ID("_ensure_submission_sim_parent")), {conn, sim_id, era_id});
        store::execute(conn, store::Stmt::insert_pending_status,
                       {eval_id, submission_type, pool_id, signal_pool_id, get_attr(receipt, ID("submission_id")),
                        sim_id, era_id, float_of(wall_time())});
        bool strategy = is_text(submission_type, "strategy");
        object marked = store::execute(conn, strategy ? store::Stmt::mark_strategy_submitted : store::Stmt::mark_signal_submitted,
                                       {eval_id});
        if (!rowcount_is_one(marked))
            raise_text(PyExc_ValueError, ftext({str_of("eval_id="), eval_id, str_of(" not found in "),
                                                str_of(strategy ? "strategy_evaluations" : "signal_evaluations")}));
        // The retry row first: a payload may carry a stale queue id as well.
        object owner = field(self, ID("_submission_owner"));
        object deleted;
        if (!is_none(retry_id) && !journal_replay)
            deleted = store::execute(conn, store::Stmt::delete_claimed_retry, {retry_id, owner});
        else if (!is_none(retry_id))
            deleted = store::delete_by_identity(conn, store::Table::submission_retry, retry_id, eval_id, submission_type,
                                                era_id, payload_get(payload, "_source_created_at"),
                                                payload_get(payload, "_source_payload_json"));
        else if (!journal_replay)
            deleted = store::execute(conn, store::Stmt::delete_claimed_queue, {queue_id, owner});
        else
            deleted = store::delete_by_identity(conn, store::Table::submission_queue, queue_id, eval_id, submission_type,
                                                era_id, payload_get(payload, "_source_created_at"),
                                                payload_get(payload, "_source_payload_json"));
        require_rowcount_one(deleted, "claimed submission row was not deleted");
    });
    nudge(self);
}

void finalize_persisted_receipt(handle self, handle payload, handle submission_id) {
    object submission_type = payload_get(payload, "submission_type");
    object eval_id = payload_get(payload, "eval_id");
    object era_id = payload_get(payload, "era_id");
    object sim_id = sim_id_of(payload, eval_id, submission_type);
    object previous_total, new_total;
    with_lock(lock_of(self), [&] {
        object record = new_dict();
        dict_set(record, ID("submission_id"), submission_id);
        dict_set(record, ID("submission_type"), submission_type);
        dict_set(record, ID("eval_id"), eval_id);
        dict_set(record, ID("era_id"), era_id);
        dict_set(record, ID("sim_id"), sim_id);
        setitem(field(self, ID("_pending_submissions")), submission_id, record);
        set_field(self, ID("_submission_backoff"), bool_of(false));
        set_field(self, ID("_submission_backoff_seconds"), float_of(5.0));
        set_field(self, ID("_submission_backoff_until"), float_of(0.0));
        previous_total = field(self, ID("_total_found"));
        add_int(self, ID("_total_found"), 1);
        new_total = field(self, ID("_total_found"));
    });
    static const std::pair<long, const char*> milestones[] = {
        {1, "first_signal"}, {10, "10_signals"}, {100, "strategy_unlock"}};
    for (auto [count, trigger] : milestones) {
        object n = int_of(count);
        if (check_int(PyObject_RichCompareBool(previous_total.ptr(), n.ptr(), Py_LT)) == 1 &&
            check_int(PyObject_RichCompareBool(new_total.ptr(), n.ptr(), Py_GE)) == 1)
            call(global(ID("_safe_update_nudge")), {str_of(trigger)});
    }
    call_method(self, ID("_reset_background_failures"), {str_of("submission")});
}

}  // namespace tw::hnd
