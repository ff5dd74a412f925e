// Schema migration of the claim columns that the handle adds to the store's
// queue and retry tables.
#include "handle/handle.hpp"

namespace tw::hnd {

static object persistent_table_columns(Args& a) {
    handle self = a.me();
    handle table_name = a[0];
    object conn = get_attr(field(self, ID("_tracker")), ID("_conn"));
    object dialect = get_attr_or_none(conn, ID("dialect"));
    object columns = steal(PySet_New(nullptr));
    object rows;
    int column_index;
    if (is_str(dialect) && PyUnicode_CompareWithASCIIString(dialect.ptr(), "postgres") == 0) {
        object cur = call_method(
            conn, ID("execute"),
            {str_of("SELECT column_name FROM information_schema.columns WHERE table_schema = current_schema() AND "
                    "table_name = ?"),
             tuple_of({table_name})});
        rows = call_method(cur, ID("fetchall"));
        column_index = 0;
    } else {
        std::string quoted = "\"";
        for (char c : to_std(table_name)) {
            if (c == '"') quoted += '"';
            quoted += c;
        }
        quoted += "\"";
        object cur = call_method(conn, ID("execute"), {str_of("PRAGMA table_info(" + quoted + ")")});
        rows = call_method(cur, ID("fetchall"));
        column_index = 1;
    }
    object it = steal(PyObject_GetIter(rows.ptr()));
    object idx = int_of(column_index);
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object row = steal(raw);
        check_int(PySet_Add(columns.ptr(), getitem(row, idx).ptr()));
    }
    if (PyErr_Occurred()) throw_py();
    return columns;
}

static object ensure_claim_columns(handle self, handle ready_field, const char* table, const char* failure_name) {
    if (field_true(self, ready_field) || !field_true(self, ID("_tracker_uses_persistent_store")))
        return bool_of(true);
    try {
        Locked guard(field(self, ID("_tracker_write_lock")));
        object conn = get_attr(field(self, ID("_tracker")), ID("_conn"));
        object cols = call_method(self, ID("_persistent_table_columns"), {str_of(table)});
        if (!contains(cols, ID("in_flight_owner")))
            call_method(conn, ID("execute"),
                        {str_of(std::string("ALTER TABLE ") + table + " ADD COLUMN in_flight_owner TEXT")});
        if (!contains(cols, ID("in_flight_at")))
            call_method(conn, ID("execute"),
                        {str_of(std::string("ALTER TABLE ") + table + " ADD COLUMN in_flight_at REAL")});
        call_method(conn, ID("commit"));
        set_field(self, ready_field, bool_of(true));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        call_method_kw(self, ID("_record_background_failure"), {str_of("submission"), str_of(failure_name), exc_value(e)},
                       {{ID("backoff"), handle(Py_True)}});
        return bool_of(false);
    }
    return bool_of(true);
}

static object ensure_submission_claim_columns(Args& a) {
    return ensure_claim_columns(a.me(), ID("_submission_claim_columns_ready"), "submission_queue",
                                "submission_queue_claim_schema");
}

static object ensure_retry_claim_columns(Args& a) {
    return ensure_claim_columns(a.me(), ID("_retry_claim_columns_ready"), "submission_retry",
                                "submission_retry_claim_schema");
}

void register_claims(handle cls) {
    def_method<persistent_table_columns>(cls, "_persistent_table_columns($self, table_name)");
    def_method<ensure_submission_claim_columns>(cls, "_ensure_submission_claim_columns($self)");
    def_method<ensure_retry_claim_columns>(cls, "_ensure_retry_claim_columns($self)");
}

}  // namespace tw::hnd
