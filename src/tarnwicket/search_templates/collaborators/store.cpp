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
