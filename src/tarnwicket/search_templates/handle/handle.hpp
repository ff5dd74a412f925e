// Shared helpers of _SearchHandleImpl: field access, host locks and threads.
#pragma once

#include "collaborators/store.hpp"
#include "core/module.hpp"

namespace tw::hnd {

// self.<name>
inline object field(handle self, handle name) { return get_attr(self, name); }
inline void set_field(handle self, handle name, handle v) { set_attr(self, name, v); }
inline bool field_true(handle self, handle name) { return truthy(get_attr(self, name)); }

// The handle's `_lock` and `_stop_event`, read at each use: a host may replace them.
inline object lock_of(handle self) { return field(self, ID("_lock")); }
inline object stop_event_of(handle self) { return field(self, ID("_stop_event")); }
inline bool stop_set(handle self) { return event_is_set(stop_event_of(self)); }

// threading.Thread(target=target, name=name, args=args, daemon=True), not started.
object new_thread(handle target, handle name, std::initializer_list<handle> args = {});
inline object new_thread(handle target, const std::string& name, std::initializer_list<handle> args = {}) {
    return new_thread(target, str_of(name), args);
}
inline void start_thread(handle t) { call_method(t, ID("start")); }
inline bool thread_alive(handle t) { return truthy(call_method(t, ID("is_alive"))); }

// seq.append(v) on a field that a host may have set to any object.
inline void append_to(handle seq, handle v) {
    if (PyList_CheckExact(seq.ptr()))
        list_append(seq, v);
    else
        call_method(seq, ID("append"), {v});
}

// counter += delta under no lock (callers hold _lock).
void add_int(handle self, handle name, long long delta);

// Wait on the stop event for `seconds`, through the host's Event.wait.
bool wait_event(handle ev, double seconds);

// ---------------------------------------------------------------- the tracker's store

inline object tracker_conn(handle self) { return get_attr(field(self, ID("_tracker")), ID("_conn")); }
inline object tracker_write_lock(handle self) { return field(self, ID("_tracker_write_lock")); }

// ROLLBACK on the tracker's connection under the write lock; a failure of the
// store driver itself (sqlite3.Error) is logged at warning level with
// `message` (one %s) and passed over, any other propagates.
void rollback_quietly(handle self, const char* message);

// Under the write lock: BEGIN IMMEDIATE, body(conn), COMMIT. On any failure,
// ROLLBACK through rollback_quietly, and the failure goes on: an exception
// that is not an ordinary one (KeyboardInterrupt, SystemExit) too, else the
// transaction would stay open and every other user of the store would wait
// for it. Only a thread that the host unwinds at exit leaves it as it is.
template <class F>
auto immediate_transaction(handle self, const char* rollback_message, F&& body) -> decltype(body(handle())) {
    return with_lock(tracker_write_lock(self), [&] {
        object conn = tracker_conn(self);
        store::execute(conn, store::Stmt::begin_immediate);
        try {
            if constexpr (std::is_void_v<decltype(body(handle()))>) {
                body(conn);
                store::execute(conn, store::Stmt::commit);
            } else {
                auto r = body(conn);
                store::execute(conn, store::Stmt::commit);
                return r;
            }
        } catch (py::error_already_set&) {
            if (!may_touch_objects()) throw;
            rollback_quietly(self, rollback_message);
            throw;
        }
    });
}

}  // namespace tw::hnd


// ---------------------------------------------------------------- bound in register.cpp

namespace tw::hnd {
object ensure_retry_claim_columns(handle self);
object ensure_submission_claim_columns(handle self);
object persistent_table_columns(handle self, handle table_name);
object peek_submission_payload(handle self);
object peek_retry_payload(handle self);
object payload_from_tracker_item(handle self, handle item);
object source_sql_predicates(handle self, handle payload, handle id_name, handle source_id, handle require_owner);
object delete_claimed_submission_source(handle self, handle payload);
object delete_submission_queue_payload(handle self, handle payload);
object delete_submission_retry_payload(handle self, handle payload);
object delete_submission_queue_item(handle self, handle queue_id);
object delete_submission_retry_item(handle self, handle retry_id);
bool has_in_memory_submission_work(handle self);
object enqueue_retry_payload(handle self, handle payload, handle rejection_reason, handle retry_after);
object move_claimed_queue_to_retry(handle self, handle payload, handle payload_json, handle rejection_reason,
                                   handle retry_after);
void update_claimed_retry_payload(handle self, handle payload, handle payload_json, handle rejection_reason,
                                  handle retry_count, handle retry_after);
void defer_claimed_retry_payload(handle self, handle payload, handle retry_after, handle rejection_reason);
void defer_claimed_queue_payload(handle self, handle payload);
object retry_exhausted_submission_id(handle self, handle payload);
bool finalize_retry_exhausted_payload(handle self, handle payload, handle rejection_reason);
object submit_payload(handle self, handle payload);
object ensure_submission_idempotency_key(handle self, handle payload);
void record_submission_attempt_started(handle self, handle payload);
void drop_replacement_aborted_payload(handle self, handle payload, handle journal_key);
void record_submission_and_delete_queue(handle self, handle payload, handle receipt);
void finalize_persisted_receipt(handle self, handle payload, handle submission_id);
object receipt_journal_path(handle self);
object receipt_journal_entry(handle self, handle payload, handle receipt);
object receipt_journal_key(handle self, handle entry);
object receipt_journal_key_for_payload(handle self, handle payload, handle submission_id);
object receipt_journal_file_path(handle self, handle key);
void append_receipt_journal(handle self, handle payload, handle receipt, handle required);
void append_receipt_journal_until_durable(handle self, handle payload, handle receipt);
object read_receipt_journal(handle self);
void rewrite_receipt_journal_without(handle self, handle completed_key);
bool submission_status_exists(handle self, handle submission_id);
bool journal_source_still_matches(handle self, handle payload);
bool replay_receipt_journal(handle self);
object dequeue_submission_payload(handle self);
object dequeue_retry_payload(handle self);
bool flush_pending_receipt_finalizations(handle self);
void handle_submission_success(handle self, handle payload, handle receipt);
object submission_loop_inner(handle self);
object submission_loop(handle self);
object polling_loop(handle self);
object polling_loop_inner(handle self);
object pending_payloads(handle self);
void apply_polled_status(handle self, handle payload, handle poll_result);
void finalize_pending_error(handle self, handle payload, handle status_code, handle reason);
object do_per_era_init(handle self);
object handle_init(handle self, handle template_, handle n_jobs, handle tracker, handle sync_mgr, handle bt, handle obf, handle era_cfg, handle auth_mock, handle data_dir);
object abort_event_handle(handle self);
object abort_for_replacement(handle self);
object abort_requested(handle self);
object ensure_primitives(handle self);
object finalize(handle self);
object poll_start_guard(handle self);
object stop(handle self, handle join_timeout);
object submission_start_guard(handle self);
object discovery_rate_nudge(handle self);
object status(handle self);
object update_submission_counts(handle self);
object append_error(handle self, handle message);
object record_background_failure(handle self, handle component, handle operation, handle exc, handle backoff_arg);
object reset_background_failures(handle self, handle component);
object set_fatal_error(handle self, handle error_code, handle recovery_advice, handle message);
object supervisor_loop(handle self);
object supervisor_loop_inner(handle self);
object build_era_thread(handle self);
object era_loop(handle self);
object f_interruptible_wait(handle stop_event, handle timeout);
object on_era_change(handle self, handle event_type, handle era_id);
object restart_worker(handle handle_, handle count_arg);
object spawn_worker(handle handle_, handle worker_id);
object start_all_threads(handle self);
object worker_loop(handle self, handle worker_id);
object worker_loop_inner(handle self, handle worker_id);
}  // namespace tw::hnd
