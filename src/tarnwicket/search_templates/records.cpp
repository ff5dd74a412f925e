// Plain records of the module (SearchStatus, BacktestResult, _AnalyticsSnapshot)
// and its exception types.
#include "core/module.hpp"

namespace tw {

static object search_error_init(handle self, handle error_code, handle recovery_advice, handle message, handle status) {
    set_attr(self, ID("error_code"), error_code);
    set_attr(self, ID("recovery_advice"), recovery_advice);
    set_attr(self, ID("message"), message);
    set_attr(self, ID("status"), status);
    call(get_attr(handle(PyExc_Exception), ID("__init__")), {self, message});
    return none();
}

static object row_schema_error_init(handle self, handle source_kind_arg, handle missing_arg, handle row_id, handle message_arg) {
    object source_kind = py_str(source_kind_arg);
    object missing = steal(PyFrozenSet_New(missing_arg.ptr()));
    set_attr(self, ID("source_kind"), source_kind);
    set_attr(self, ID("missing"), missing);
    set_attr(self, ID("row_id"), row_id);
    object message = borrow(message_arg.ptr());
    if (is_none(message)) {
        message = ftext({source_kind, str_of(" row "), py_repr(row_id), str_of(" payload_json schema violation")});
        if (PySet_GET_SIZE(missing.ptr()) > 0) {
            object l = list_from(missing);
            check_int(PyList_Sort(l.ptr()));
            object sep = str_of(", ");
            object keys = steal(PyUnicode_Join(sep.ptr(), l.ptr()));
            message = ftext({message, str_of("; missing keys: "), keys});
        }
    }
    call(get_attr(handle(PyExc_ValueError), ID("__init__")), {self, message});
    return none();
}

static object receipt_record_init(handle self, handle submission_id) {
    set_attr(self, ID("submission_id"), submission_id);
    return none();
}

void register_records(handle m) {
    object status = make_record("SearchStatus",
                                {{"running", "False"},
                                 {"n_jobs", "0"},
                                 {"total_evaluated", "0"},
                                 {"total_found", "0"},
                                 {"signals_per_hour", "0.0"},
                                 {"elapsed_seconds", "0.0"},
                                 {"memory_usage_mb", "0.0"},
                                 {"batch_tier", "''"},
                                 {"t_batch", "0"},
                                 {"era", "''"},
                                 {"errors", "[]"},
                                 {"crash_count", "0"},
                                 {"sync_progress", "None"},
                                 {"error_code", "None"},
                                 {"recovery_advice", "None"},
                                 {"submission_queued", "0"},
                                 {"submission_pending", "0"},
                                 {"submission_accepted", "0"},
                                 {"submission_rejected", "0"},
                                 {"submission_retrying", "0"},
                                 {"submission_discarded", "0"},
                                 {"submission_backoff", "False"},
                                 {"last_poll_time", "None"}},
                                "Current search state snapshot (23 fields).");
    set_global("SearchStatus", status);

    object result = make_record("BacktestResult",
                                {{"expression", "{}"},
                                 {"passed", "False"},
                                 {"stats", "None"},
                                 {"factor_pnl", "None"},
                                 {"per_column_stats", "None"},
                                 {"portfolio_returns", "None"},
                                 {"processed_weights", "None"},
                                 {"mi_score", "None"},
                                 {"mi_passed", "None"},
                                 {"submitted", "False"},
                                 {"structural_failed", "False"}},
                                "Result from expression evaluation.");
    set_global("BacktestResult", result);

    object snapshot = make_record("_AnalyticsSnapshot", {{"total_evaluations", "0"}, {"rows", "[]"}});
    set_global("_AnalyticsSnapshot", snapshot);

    object search_error = make_exception("SearchError", handle(PyExc_Exception),
                                         "Raised when a fatal error occurs during search.");
    def_method<search_error_init>(search_error, "__init__($self, error_code, recovery_advice, message, status)");
    set_global("SearchError", search_error);

    set_global("TemplateSandboxViolation",
               make_exception("TemplateSandboxViolation", handle(PyExc_RuntimeError),
                              "Raised when template code attempts forbidden direct system access."));
    set_global("SubmissionProtocolError",
               make_exception("SubmissionProtocolError", handle(PyExc_RuntimeError),
                              "Raised when a successful submission response violates the client protocol."));

    object row_error = make_exception("RowSchemaError", handle(PyExc_ValueError));
    def_method<row_schema_error_init>(row_error, "__init__($self, source_kind, missing=_EMPTY_FIELD_SET, row_id=None, message=None)");
    set_global("RowSchemaError", row_error);

    // Receipt stand-in for a receipt read back from the journal.
    object receipt = make_class("_ReceiptRecord");
    def_method<receipt_record_init>(receipt, "__init__($self, submission_id)");
    set_global("_ReceiptRecord", receipt);
    (void)m;
}

}  // namespace tw
