// Schema migration of the claim columns that the handle adds to the store's
// queue and retry tables.
#include "handle/handle.hpp"

#include "collaborators/store.hpp"

namespace tw::hnd {

object persistent_table_columns(handle self, handle table_name) {
    return store::table_columns(get_attr(field(self, ID("_tracker")), ID("_conn")), table_name);
}

static object ensure_claim_columns(handle self, handle ready_field, store::Table table, const char* failure_name) {
    if (field_true(self, ready_field) || !field_true(self, ID("_tracker_uses_persistent_store")))
        return bool_of(true);
    try {
        with_lock(field(self, ID("_tracker_write_lock")), [&] {
            object conn = get_attr(field(self, ID("_tracker")), ID("_conn"));
            object cols = call_method(self, ID("_persistent_table_columns"), {str_of(store::table_name(table))});
            if (!contains(cols, ID("in_flight_owner"))) store::execute(conn, store::Stmt::add_in_flight_owner, table);
            if (!contains(cols, ID("in_flight_at"))) store::execute(conn, store::Stmt::add_in_flight_at, table);
            call_method(conn, ID("commit"));
            set_field(self, ready_field, bool_of(true));
        });
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        call_method_kw(self, ID("_record_background_failure"), {str_of("submission"), str_of(failure_name), exc_value(e)},
                       {{ID("backoff"), handle(Py_True)}});
        return bool_of(false);
    }
    return bool_of(true);
}

object ensure_submission_claim_columns(handle self) {
    return ensure_claim_columns(self, ID("_submission_claim_columns_ready"), store::Table::submission_queue,
                                "submission_queue_claim_schema");
}

object ensure_retry_claim_columns(handle self) {
    return ensure_claim_columns(self, ID("_retry_claim_columns_ready"), store::Table::submission_retry,
                                "submission_retry_claim_schema");
}

}  // namespace tw::hnd
