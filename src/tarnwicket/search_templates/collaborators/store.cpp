#include "collaborators/store.hpp"

namespace tw::store {

Dialect dialect_of(handle conn) {
    object dialect = get_attr_or_none(conn, ID("dialect"));
    if (is_str(dialect) && PyUnicode_CompareWithASCIIString(dialect.ptr(), "postgres") == 0) return Dialect::postgres;
    return Dialect::sqlite;
}

const char* table_name(Table t) {
    switch (t) {
        case Table::submission_queue: return "submission_queue";
        case Table::submission_retry: return "submission_retry";
    }
    return "";
}

std::string text(Stmt s, Dialect, Table t) {
    // Every statement below is the same in both dialects so far; one that is
    // not branches on the dialect here.
    const std::string table = table_name(t);
    switch (s) {
        case Stmt::begin_immediate: return "BEGIN IMMEDIATE";
        case Stmt::commit: return "COMMIT";
        case Stmt::rollback: return "ROLLBACK";
        case Stmt::select_claimable_queue:
            return "SELECT queue_id, eval_id, eval_type, payload_json, era_id, priority, created_at FROM submission_queue "
                   "WHERE in_flight_owner IS NULL OR in_flight_owner = ? OR in_flight_at IS NULL OR in_flight_at < ? "
                   "ORDER BY priority DESC, queue_id ASC LIMIT 1";
        case Stmt::claim_queue_row:
            return "UPDATE submission_queue SET in_flight_owner=?, in_flight_at=? WHERE queue_id=? AND (in_flight_owner "
                   "IS NULL OR in_flight_owner=? OR in_flight_at IS NULL OR in_flight_at < ?)";
        case Stmt::select_claimable_retry:
            return "SELECT retry_id, eval_id, eval_type, payload_json, era_id, retry_count, last_rejection_reason, "
                   "retry_after, created_at FROM submission_retry WHERE retry_count < 5 AND (retry_after IS NULL OR "
                   "retry_after <= ?) AND (in_flight_owner IS NULL OR in_flight_owner = ? OR in_flight_at IS NULL OR "
                   "in_flight_at < ?) ORDER BY created_at ASC LIMIT 1";
        case Stmt::claim_retry_row:
            return "UPDATE submission_retry SET in_flight_owner=?, in_flight_at=? WHERE retry_id=? AND (in_flight_owner "
                   "IS NULL OR in_flight_owner=? OR in_flight_at IS NULL OR in_flight_at < ?)";
        case Stmt::insert_retry_from_queue:
            return "INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id, retry_count, "
                   "last_rejection_reason, retry_after, created_at) VALUES (?, ?, ?, ?, ?, 0, ?, ?, ?)";
        case Stmt::open_submission_of_eval:
            return "SELECT submission_id FROM submission_status WHERE eval_id=? AND eval_type=? AND era_id=? AND "
                   "finalized_at IS NULL ORDER BY submitted_at DESC LIMIT 1";
        case Stmt::insert_pending_status:
            return "INSERT INTO submission_status (eval_id, eval_type, pool_id, signal_pool_id, submission_id, sim_id, "
                   "era_id, status, submitted_at) VALUES (?, ?, ?, ?, ?, ?, ?, 'pending', ?)";
        case Stmt::mark_signal_submitted: return "UPDATE signal_evaluations SET submitted=1 WHERE eval_id=?";
        case Stmt::mark_strategy_submitted: return "UPDATE strategy_evaluations SET submitted=1 WHERE eval_id=?";
        case Stmt::delete_claimed_queue: return "DELETE FROM submission_queue WHERE queue_id=? AND in_flight_owner=?";
        case Stmt::status_of_submission: return "SELECT status_id FROM submission_status WHERE submission_id=? LIMIT 1";
        case Stmt::source_identity:
            return "SELECT eval_id, eval_type, era_id, payload_json, created_at FROM " + table + " WHERE " +
                   (t == Table::submission_queue ? "queue_id" : "retry_id") + "=?";
        case Stmt::delete_queue_where: return "DELETE FROM submission_queue WHERE ";
        case Stmt::update_retry_after_rejection_where:
            return "UPDATE submission_retry SET payload_json=?, retry_count=?, last_rejection_reason=?, retry_after=?, "
                   "created_at=?, in_flight_owner=NULL, in_flight_at=NULL WHERE ";
        case Stmt::defer_retry_where:
            return "UPDATE submission_retry SET payload_json=?, last_rejection_reason=?, retry_after=?, "
                   "in_flight_owner=NULL, in_flight_at=NULL WHERE ";
        case Stmt::defer_queue_where:
            return "UPDATE submission_queue SET priority=1, in_flight_owner=NULL, in_flight_at=NULL WHERE ";
        case Stmt::delete_claimed_retry: return "DELETE FROM submission_retry WHERE retry_id=? AND in_flight_owner=?";
        case Stmt::delete_queue_item:
            return "DELETE FROM submission_queue WHERE queue_id=? AND (in_flight_owner IS NULL OR in_flight_owner=?)";
        case Stmt::delete_retry_item:
            return "DELETE FROM submission_retry WHERE retry_id=? AND (in_flight_owner IS NULL OR in_flight_owner=?)";
        case Stmt::add_in_flight_owner: return "ALTER TABLE " + table + " ADD COLUMN in_flight_owner TEXT";
        case Stmt::add_in_flight_at: return "ALTER TABLE " + table + " ADD COLUMN in_flight_at REAL";
        case Stmt::delete_owned_payloads: return "DELETE FROM " + table + " WHERE payload_json LIKE ?";
        case Stmt::delete_owned_payloads_or_claims:
            return "DELETE FROM " + table + " WHERE payload_json LIKE ? OR in_flight_owner = ?";
        case Stmt::count_status_from_to_open:
            return "SELECT COUNT(*) FROM submission_status WHERE submitted_at >= ? AND submitted_at < ?";
        case Stmt::count_status_from_to_closed:
            return "SELECT COUNT(*) FROM submission_status WHERE submitted_at >= ? AND submitted_at <= ?";
        case Stmt::strategy_pools_of_eval:
            return "SELECT strategy_pool_id, signal_pool_id FROM strategy_evaluations WHERE eval_id=?";
        case Stmt::signal_pool_of_eval: return "SELECT pool_id FROM signal_evaluations WHERE eval_id=?";
    }
    throw std::logic_error("unknown store statement");
}

static object run(handle conn, const std::string& sql, std::initializer_list<handle> params) {
    object statement = str_of(sql);
    if (params.size() == 0) return call_method(conn, ID("execute"), {statement});
    return call_method(conn, ID("execute"), {statement, tuple_of(params)});
}

object execute(handle conn, Stmt s, std::initializer_list<handle> params) {
    return run(conn, text(s, dialect_of(conn)), params);
}

object execute(handle conn, Stmt s, Table t, std::initializer_list<handle> params) {
    return run(conn, text(s, dialect_of(conn), t), params);
}

object execute_where(handle conn, Stmt s, handle where, std::initializer_list<handle> head, handle where_params) {
    object sql = ftext({str_of(text(s, dialect_of(conn))), where});
    object all = new_list();
    for (auto h : head) list_append(all, h);
    object rest = list_from(where_params);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rest.ptr()); ++i) list_append(all, PyList_GET_ITEM(rest.ptr(), i));
    return call_method(conn, ID("execute"), {sql, steal(PyList_AsTuple(all.ptr()))});
}

object delete_matching(handle conn, Table t, handle where, handle params, handle owner) {
    object sql = ftext({str_of(std::string("DELETE FROM ") + table_name(t) + " WHERE "), where,
                        str_of(" AND (in_flight_owner IS NULL OR in_flight_owner=?)")});
    object all = list_from(params);
    list_append(all, owner);
    return call_method(conn, ID("execute"), {sql, steal(PyList_AsTuple(all.ptr()))});
}

object delete_by_identity(handle conn, Table t, handle id, handle eval_id, handle eval_type, handle era_id,
                          handle created_at, handle payload_json) {
    std::string sql = std::string("DELETE FROM ") + table_name(t) + " WHERE " +
                      (t == Table::submission_queue ? "queue_id" : "retry_id") +
                      "=? AND eval_id=? AND eval_type=? AND era_id=?";
    object params = new_list();
    for (handle h : {id, eval_id, eval_type, era_id}) list_append(params, h);
    if (!is_none(created_at)) {
        sql += " AND created_at=?";
        list_append(params, created_at);
    }
    if (!is_none(payload_json)) {
        sql += " AND payload_json=?";
        list_append(params, payload_json);
    }
    return call_method(conn, ID("execute"), {str_of(sql), steal(PyList_AsTuple(params.ptr()))});
}

object table_columns(handle conn, handle table) {
    object rows;
    int column_index;
    if (dialect_of(conn) == Dialect::postgres) {
        object cur = run(conn,
                         "SELECT column_name FROM information_schema.columns WHERE table_schema = current_schema() AND "
                         "table_name = ?",
                         {table});
        rows = call_method(cur, ID("fetchall"));
        column_index = 0;
    } else {
        std::string quoted = "\"";
        for (char c : to_std(table)) {
            if (c == '"') quoted += '"';
            quoted += c;
        }
        quoted += "\"";
        object cur = run(conn, "PRAGMA table_info(" + quoted + ")", {});
        rows = call_method(cur, ID("fetchall"));
        column_index = 1;
    }
    object columns = steal(PySet_New(nullptr));
    object it = steal(PyObject_GetIter(rows.ptr()));
    object idx = int_of(column_index);
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object row = steal(raw);
        check_int(PySet_Add(columns.ptr(), getitem(row, idx).ptr()));
    }
    if (PyErr_Occurred()) throw_py();
    return columns;
}

}  // namespace tw::store
