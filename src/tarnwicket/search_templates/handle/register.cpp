// The names of this subsystem as Python sees them: this file only registers.
#include "handle/handle.hpp"

namespace tw::hnd {
namespace {

void register_claims(handle cls) {
    def_method<persistent_table_columns>(cls, "_persistent_table_columns($self, table_name)");
    def_method<ensure_submission_claim_columns>(cls, "_ensure_submission_claim_columns($self)");
    def_method<ensure_retry_claim_columns>(cls, "_ensure_retry_claim_columns($self)");
    def_method<peek_submission_payload>(cls, "_peek_submission_payload($self)");
    def_method<peek_retry_payload>(cls, "_peek_retry_payload($self)");
    def_method<payload_from_tracker_item>(cls, "_payload_from_tracker_item($self, item)");
    def_method<source_sql_predicates>(cls, "_source_sql_predicates($self, payload, id_name, source_id, require_owner=False)");
    def_method<delete_claimed_submission_source>(cls, "_delete_claimed_submission_source($self, payload)");
    def_method<delete_submission_queue_payload>(cls, "_delete_submission_queue_payload($self, payload)");
    def_method<delete_submission_retry_payload>(cls, "_delete_submission_retry_payload($self, payload)");
    def_method<delete_submission_queue_item>(cls, "_delete_submission_queue_item($self, queue_id)");
    def_method<delete_submission_retry_item>(cls, "_delete_submission_retry_item($self, retry_id)");
    def_method<has_in_memory_submission_work>(cls, "_has_in_memory_submission_work($self)");
}

void register_retries(handle cls) {
    def_method<enqueue_retry_payload>(cls, "_enqueue_retry_payload($self, payload, rejection_reason, retry_after=None)");
    def_method<move_claimed_queue_to_retry>(
        cls, "_move_claimed_queue_to_retry($self, payload, payload_json, rejection_reason, retry_after)");
    def_method<update_claimed_retry_payload>(
        cls, "_update_claimed_retry_payload($self, payload, payload_json, rejection_reason, retry_count, retry_after)");
    def_method<defer_claimed_retry_payload>(cls, "_defer_claimed_retry_payload($self, payload, retry_after, rejection_reason)");
    def_method<defer_claimed_queue_payload>(cls, "_defer_claimed_queue_payload($self, payload)");
    def_method<retry_exhausted_submission_id>(cls, "_retry_exhausted_submission_id($self, payload)");
    def_method<finalize_retry_exhausted_payload>(cls, "_finalize_retry_exhausted_payload($self, payload, rejection_reason)");
}

void register_attempt(handle cls) {
    def_method<submit_payload>(cls, "_submit_payload($self, payload)");
    def_method<ensure_submission_idempotency_key>(cls, "_ensure_submission_idempotency_key($self, payload)");
    def_method<record_submission_attempt_started>(cls, "_record_submission_attempt_started($self, payload)");
    def_method<drop_replacement_aborted_payload>(cls, "_drop_replacement_aborted_payload($self, payload, journal_key=None)");
}

void register_receipts(handle cls) {
    def_method<record_submission_and_delete_queue>(cls, "_record_submission_and_delete_queue($self, payload, receipt)");
    def_method<finalize_persisted_receipt>(cls, "_finalize_persisted_receipt($self, payload, submission_id)");
}

void register_journal(handle cls) {
    def_method<receipt_journal_path>(cls, "_receipt_journal_path($self)");
    def_method<receipt_journal_entry>(cls, "_receipt_journal_entry($self, payload, receipt)");
    def_method<receipt_journal_key>(cls, "_receipt_journal_key($self, entry)");
    def_method<receipt_journal_key_for_payload>(cls, "_receipt_journal_key_for_payload($self, payload, submission_id)");
    def_method<receipt_journal_file_path>(cls, "_receipt_journal_file_path($self, key)");
    def_method<append_receipt_journal>(cls, "_append_receipt_journal($self, payload, receipt, required=False)");
    def_method<append_receipt_journal_until_durable>(cls, "_append_receipt_journal_until_durable($self, payload, receipt)");
    def_method<read_receipt_journal>(cls, "_read_receipt_journal($self)");
    def_method<rewrite_receipt_journal_without>(cls, "_rewrite_receipt_journal_without($self, completed_key)");
    def_method<submission_status_exists>(cls, "_submission_status_exists($self, submission_id)");
    def_method<journal_source_still_matches>(cls, "_journal_source_still_matches($self, payload)");
    def_method<replay_receipt_journal>(cls, "_replay_receipt_journal($self)");
}

void register_loop(handle cls) {
    def_method<submission_loop>(cls, "_submission_loop($self)");
    def_method<submission_loop_inner>(cls, "_submission_loop_inner($self)");
    def_method<dequeue_submission_payload>(cls, "_dequeue_submission_payload($self)");
    def_method<dequeue_retry_payload>(cls, "_dequeue_retry_payload($self)");
    def_method<flush_pending_receipt_finalizations>(cls, "_flush_pending_receipt_finalizations($self)");
    def_method<handle_submission_success>(cls, "_handle_submission_success($self, payload, receipt)");
}

void register_polling(handle cls) {
    def_method<polling_loop>(cls, "_polling_loop($self)");
    def_method<polling_loop_inner>(cls, "_polling_loop_inner($self)");
    def_method<pending_payloads>(cls, "_pending_payloads($self)");
    def_method<apply_polled_status>(cls, "_apply_polled_status($self, payload, poll_result)");
    def_method<finalize_pending_error>(cls, "_finalize_pending_error($self, payload, status_code, reason)");
}

void register_construction(handle cls) {
    def_method<handle_init>(cls,
                            "__init__($self, template, n_jobs, tracker, sync_mgr, bt, obf, era_cfg, auth_mock, "
                            "data_dir=None)");
    def_method<do_per_era_init>(cls, "_do_per_era_init($self)", "4-step per-era initialization.");
}

void register_shutdown(handle cls) {
    def_method<ensure_primitives>(cls, "_ensure_replacement_abort_primitives($self)");
    def_method<abort_event_handle>(cls, "_replacement_abort_event_handle($self)");
    def_method<submission_start_guard>(cls, "_submission_start_guard($self)");
    def_method<poll_start_guard>(cls, "_poll_start_guard($self)");
    def_method<abort_requested>(cls, "_replacement_abort_requested($self)");
    def_method<stop>(cls, "stop($self, join_timeout=2.0)", "Stop all workers. Blocks until clean shutdown.");
    def_method<abort_for_replacement>(cls, "_abort_for_replacement($self)",
                                      "Fast shutdown for a handle superseded by a new search().");
    def_method<finalize>(cls, "__del__($self)", "Cleanup on garbage collection.");
}

void register_status(handle cls) {
    def_method<status>(cls, "status($self)", "Return SearchStatus snapshot. Raises SearchError on fatal.");
    def_method<update_submission_counts>(cls, "_update_submission_counts($self)");
    def_method<discovery_rate_nudge>(cls, "_maybe_fire_discovery_rate_declining_nudge($self)");
}

void register_supervision(handle cls) {
    def_method<supervisor_loop>(cls, "_supervisor_loop($self)",
                                "Supervisor: monitors health, restarts dead components.");
    def_method<supervisor_loop_inner>(cls, "_supervisor_loop_inner($self)");
    def_method<set_fatal_error>(cls, "_set_fatal_error($self, error_code, recovery_advice, message)",
                                "Set fatal error state.");
    def_method<append_error>(cls, "_append_error($self, message)");
    def_method<record_background_failure>(cls,
                                          "_record_background_failure($self, component, operation, exc, backoff=True)",
                                          "Record a non-fatal background submission/polling failure.");
    def_method<reset_background_failures>(cls, "_reset_background_failures($self, component)");
}

void register_threads(handle cls, handle m) {
    def_method<start_all_threads>(cls, "_start_all_threads($self)");
    def_method<worker_loop>(cls, "_worker_loop($self, worker_id)");
    def_method<worker_loop_inner>(cls, "_worker_loop_inner($self, worker_id)");
    def_static<f_interruptible_wait>(cls, "_interruptible_wait(stop_event, timeout)",
                                     "Wait for stop_event or timeout using time.sleep to avoid shutdown deadlocks.");
    def_method<build_era_thread>(cls, "_build_era_thread($self)");
    def_method<era_loop>(cls, "_era_loop($self)");
    def_method<on_era_change>(cls, "_on_era_change($self, event_type, era_id)",
                              "Callback from SyncManager's EraThread on era state changes.");
    def_function<spawn_worker>(m, "_spawn_worker(handle, worker_id)", "Spawn a single worker. Can be monkeypatched.");
    def_function<restart_worker>(m, "_restart_worker(handle, count)", "Restart dead workers. Can be monkeypatched.");
}

}  // namespace
}  // namespace tw::hnd

namespace tw {

void register_handle(handle m) {
    object cls = make_class("_SearchHandleImpl", handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)),
                            "Concrete SearchHandle returned by search().");
    hnd::register_construction(cls);
    hnd::register_threads(cls, m);
    hnd::register_supervision(cls);
    hnd::register_shutdown(cls);
    hnd::register_status(cls);
    hnd::register_claims(cls);
    hnd::register_retries(cls);
    hnd::register_attempt(cls);
    hnd::register_receipts(cls);
    hnd::register_journal(cls);
    hnd::register_loop(cls);
    hnd::register_polling(cls);
    set_global("_SearchHandleImpl", cls);
    set_global("SearchHandle", cls);
}

}  // namespace tw
