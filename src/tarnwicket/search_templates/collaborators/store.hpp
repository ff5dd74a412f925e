// Every statement the module runs on the tracker's store, in one place, in
// both dialects the store speaks: SQLite, and PostgreSQL for a store shared by
// several machines. A store connection says which through its `dialect`
// attribute ("sqlite" when absent); both take `?` placeholders.
//
//     object cur = store::execute(conn, store::Stmt::signal_pool_of_eval, {eval_id});
#pragma once

#include "core/module.hpp"

namespace tw::store {

enum class Dialect { sqlite, postgres };
Dialect dialect_of(handle conn);

enum class Table { submission_queue, submission_retry };
const char* table_name(Table t);

enum class Stmt {
    // transaction words, sent as plain statements
    begin_immediate,
    commit,
    rollback,
    // claim columns of the queue and retry tables
    add_in_flight_owner,          // table
    add_in_flight_at,             // table
    // leased claims: a row is claimable when free, ours, or its lease expired
    select_claimable_queue,       // (owner, expired_before) -> one queue row
    claim_queue_row,              // (owner, now, queue_id, owner, expired_before)
    select_claimable_retry,       // (now, owner, expired_before) -> one due retry row
    claim_retry_row,              // (owner, now, retry_id, owner, expired_before)
    delete_claimed_retry,         // (retry_id, owner): only while we hold the claim
    delete_queue_item,            // (queue_id, owner): free or ours
    delete_retry_item,            // (retry_id, owner): free or ours
    // retry scheduling
    insert_retry_from_queue,      // (eval_id, type, pool_id, payload_json, era_id, reason, retry_after, created_at)
    open_submission_of_eval,      // (eval_id, type, era_id) -> latest unfinalised submission_id
    // recording a receipt
    insert_pending_status,        // (eval_id, type, pool_id, signal_pool_id, submission_id, sim_id, era_id, submitted_at)
    mark_signal_submitted,        // (eval_id)
    mark_strategy_submitted,      // (eval_id)
    delete_claimed_queue,         // (queue_id, owner): only while we hold the claim
    // the receipt journal's checks before a replay
    status_of_submission,         // (submission_id) -> status_id
    source_identity,              // table; (id) -> eval_id, eval_type, era_id, payload_json, created_at
    // statements that end in the predicates of a claimed row (execute_where)
    delete_queue_where,           // where
    update_retry_after_rejection_where,  // (payload_json, retry_count, reason, retry_after, created_at) + where
    defer_retry_where,            // (payload_json, reason, retry_after) + where
    defer_queue_where,            // where
    // rows of a search stopped for its replacement
    delete_owned_payloads,        // table; (payload pattern)
    delete_owned_payloads_or_claims,  // table; (payload pattern, owner)
    // the discovery-rate windows
    count_status_from_to_open,    // (from, to): from <= submitted_at < to
    count_status_from_to_closed,  // (from, to): from <= submitted_at <= to
    // pool ids of an evaluation
    strategy_pools_of_eval,       // (eval_id) -> strategy_pool_id, signal_pool_id
    signal_pool_of_eval,          // (eval_id) -> pool_id
};

// The text of a statement in the connection's dialect.
std::string text(Stmt s, Dialect d, Table t = Table::submission_queue);

// conn.execute(text, params); returns the cursor.
object execute(handle conn, Stmt s, std::initializer_list<handle> params = {});
object execute(handle conn, Stmt s, Table t, std::initializer_list<handle> params = {});

// A statement of the *_where family followed by `where`, with `head` and then
// the parameters of `where`.
object execute_where(handle conn, Stmt s, handle where, std::initializer_list<handle> head, handle where_params);

// "DELETE FROM <table> WHERE <where> AND (in_flight_owner IS NULL OR
// in_flight_owner=?)" with `params` and then `owner`: a row proven by the
// predicates of its source that is free or ours.
object delete_matching(handle conn, Table t, handle where, handle params, handle owner);

// The source row of a receipt replayed from the journal, proven by its
// identity instead of a claim: "DELETE FROM <table> WHERE <id>=? AND eval_id=?
// AND eval_type=? AND era_id=?", then " AND created_at=?" and
// " AND payload_json=?" for each of the two that is not None.
object delete_by_identity(handle conn, Table t, handle id, handle eval_id, handle eval_type, handle era_id,
                          handle created_at, handle payload_json);

// The names of a table's columns, as a set.
object table_columns(handle conn, handle table);

}  // namespace tw::store
