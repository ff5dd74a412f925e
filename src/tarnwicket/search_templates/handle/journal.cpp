// The receipt journal: one durable file per receipt that the service accepted
// and the store has not recorded yet. Written before the store is touched
// (temporary file, fsync, atomic rename, directory fsync), removed after the
// store write, replayed by a later pass while its source row still matches.
// File work goes through the host's own os, io and json modules.
#include "handle/pipeline.hpp"

namespace tw::hnd {

namespace {

object os_fn(const char* name) { return import_attr("os", str_of(name)); }
object path_fn(const char* name) { return import_attr("os.path", str_of(name)); }

// A part of a file name: alphanumerics and "-._" kept, anything else "_".
object sanitized(handle part) {
    object text = py_str(part);
    Py_ssize_t n = PyUnicode_GET_LENGTH(text.ptr());
    if (n == 0) return str_of("_");
    std::u32string out;
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        Py_UCS4 ch = PyUnicode_READ_CHAR(text.ptr(), i);
        out.push_back(Py_UNICODE_ISALNUM(ch) || ch == '-' || ch == '.' || ch == '_' ? ch : U'_');
    }
    return steal(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, out.data(), n));
}

// `try: body() finally: close()`: an error of close() wins, with the body's as its context.
template <class Body, class Close>
void finally_close(Body&& body, Close&& close) {
    object exc = caught(body);
    if (object close_exc = caught(close)) {
        if (exc) set_context(close_exc, exc);
        reraise(close_exc);
    }
    if (exc) reraise(exc);
}

// fsync of a directory: open read-only, sync, close in every case.
void sync_directory(handle dir) {
    object fd = call(os_fn("open"), {dir, get_attr(import_module("os"), ID("O_RDONLY"))});
    finally_close([&] { call(os_fn("fsync"), {fd}); }, [&] { call(os_fn("close"), {fd}); });
}

bool is_dir(handle path) { return truthy(call(path_fn("isdir"), {path})); }

// A host file object used as `with open(...) as f: body(f)`.
template <class F>
void with_file(handle path, const char* mode, F&& body) {
    object f = call_kw(import_attr("io", ID("open")), {path, str_of(mode)}, {{ID("encoding"), str_of("utf-8")}});
    finally_close([&] { body(f); }, [&] { call_method(f, ID("close")); });
}

}  // namespace

object receipt_journal_path(handle self) {
    object data_dir = get_attr_or_none(self, ID("_data_dir"));
    object tracker = field(self, ID("_tracker"));
    if (!truthy(data_dir)) data_dir = get_attr_or_none(tracker, ID("_data_dir"));
    if (!truthy(data_dir)) {
        object db_path = get_attr_or_none(tracker, ID("_db_path"));
        if (truthy(db_path)) data_dir = call(path_fn("dirname"), {db_path});
    }
    if (!truthy(data_dir)) return none();
    return call(path_fn("join"), {data_dir, str_of("submission_receipts_pending")});
}

object receipt_journal_entry(handle self, handle payload, handle receipt) {
    if (!persistent(self)) return none();
    object retry_id = payload_get(payload, "retry_id"), queue_id = payload_get(payload, "_queue_id");
    object kind, source_id;
    if (!is_none(retry_id)) {
        kind = str_of("retry");
        source_id = retry_id;
    } else if (!is_none(queue_id)) {
        kind = str_of("queue");
        source_id = queue_id;
    } else {
        return none();  // no source row, nothing to protect
    }
    object entry = new_dict();
    dict_set(entry, ID("source_kind"), kind);
    dict_set(entry, ID("source_id"), source_id);
    dict_set(entry, ID("submission_id"), get_attr(receipt, ID("submission_id")));
    dict_set(entry, ID("payload"), dict_copy(payload));
    dict_set(entry, ID("created_at"), float_of(wall_time()));
    return entry;
}

object receipt_journal_key(handle self, handle entry) {
    (void)self;
    if (is_none(entry)) return none();
    // An entry read back from disk may lack any field: its key must still name it, for its removal.
    return tuple_of({mapping_get(entry, ID("source_kind"), Py_None), py_str(mapping_get(entry, ID("source_id"), Py_None)),
                     py_str(mapping_get(entry, ID("submission_id"), Py_None))});
}

object receipt_journal_key_for_payload(handle self, handle payload, handle submission_id) {
    (void)self;
    object retry_id = payload_get(payload, "retry_id"), queue_id = payload_get(payload, "_queue_id");
    if (!is_none(retry_id)) return tuple_of({str_of("retry"), py_str(retry_id), py_str(submission_id)});
    if (!is_none(queue_id)) return tuple_of({str_of("queue"), py_str(queue_id), py_str(submission_id)});
    return none();
}

object receipt_journal_file_path(handle self, handle key) {
    object dir = call_method(self, ID("_receipt_journal_path"));
    if (is_none(dir) || is_none(key)) return none();
    object parts = new_list();
    object it = steal(PyObject_GetIter(key.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) list_append(parts, sanitized(steal(raw)));
    if (PyErr_Occurred()) throw_py();
    object name = ftext({steal(PyUnicode_Join(str_of("__").ptr(), parts.ptr())), str_of(".json")});
    return call(path_fn("join"), {dir, name});
}

void append_receipt_journal(handle self, handle payload, handle receipt, handle required_arg) {
    bool required = truthy(required_arg);
    object entry = call_method(self, ID("_receipt_journal_entry"), {payload, receipt});
    if (is_none(entry)) return;
    object dir = call_method(self, ID("_receipt_journal_path"));
    object key = call_method(self, ID("_receipt_journal_key"), {entry});
    object path = call_method(self, ID("_receipt_journal_file_path"), {key});
    if (is_none(dir) || is_none(path)) {
        if (required) raise(PyExc_RuntimeError, "receipt journal path unavailable");
        return;
    }
    object exc = caught([&] {
        call_kw(os_fn("makedirs"), {dir}, {{ID("exist_ok"), handle(Py_True)}});
        object tmp = ftext({path, str_of("."), field(self, ID("_submission_owner")), str_of(".tmp")});
        // content on disk before the name exists; the rename replaces atomically; the directory sync keeps the name
        with_file(tmp, "w", [&](handle f) {
            call_method(f, ID("write"), {json_text(entry)});
            call_method(f, ID("write"), {str_of("\n")});
            call_method(f, ID("flush"));
            call(os_fn("fsync"), {call_method(f, ID("fileno"))});
        });
        call(os_fn("replace"), {tmp, path});
        sync_directory(dir);
    });
    if (!exc) return;
    if (required) reraise(exc);
    record_failure(self, "submission", "receipt_journal_write", exc, false);
}

void append_receipt_journal_until_durable(handle self, handle payload, handle receipt) {
    for (;;) {
        object exc = caught([&] {
            call_method_kw(self, ID("_append_receipt_journal"), {payload, receipt}, {{ID("required"), handle(Py_True)}});
        });
        if (!exc) return;
        record_failure(self, "submission", "receipt_journal_write", exc, true);
        call(global(ID("_submission_backoff_sleep")), {field(self, ID("_submission_backoff_seconds"))});
    }
}

object read_receipt_journal(handle self) {
    object entries = new_list();
    object dir = call_method(self, ID("_receipt_journal_path"));
    if (is_none(dir) || !is_dir(dir)) return entries;
    object exc = caught([&] {
        object names = list_from(call(os_fn("listdir"), {dir}));
        check_int(PyList_Sort(names.ptr()));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names.ptr()); ++i) {
            object name = borrow(PyList_GET_ITEM(names.ptr(), i));
            if (!truthy(call_method(name, ID("endswith"), {str_of(".json")}))) continue;
            object value;
            if (object bad = caught([&] {
                    with_file(call(path_fn("join"), {dir, name}), "r",
                              [&](handle f) { value = call(import_attr("json", ID("load")), {f}); });
                })) {
                record_failure(self, "submission", "receipt_journal_decode", bad, false);
                continue;
            }
            if (is_dict(value)) list_append(entries, value);
        }
    });
    if (exc) record_failure(self, "submission", "receipt_journal_read", exc, true);
    return entries;
}

void rewrite_receipt_journal_without(handle self, handle completed_key) {
    if (is_none(completed_key)) return;
    object path = call_method(self, ID("_receipt_journal_file_path"), {completed_key});
    if (is_none(path)) return;
    object exc = caught([&] {
        call(os_fn("remove"), {path});
        object dir = call_method(self, ID("_receipt_journal_path"));
        if (truthy(dir) && is_dir(dir)) {
            sync_directory(dir);
            object busy = caught([&] { call(os_fn("rmdir"), {dir}); });  // only once it is empty
            if (busy && !is_a(busy, PyExc_OSError)) reraise(busy);
        }
    });
    if (!exc || is_a(exc, PyExc_FileNotFoundError)) return;  // done, or the entry was gone already
    record_failure(self, "submission", "receipt_journal_compact", exc, false);
}

bool submission_status_exists(handle self, handle submission_id) {
    return with_lock(tracker_write_lock(self), [&] {
        object cur = store::execute(tracker_conn(self), store::Stmt::status_of_submission, {submission_id});
        return !is_none(call_method(cur, ID("fetchone")));
    });
}

bool journal_source_still_matches(handle self, handle payload) {
    object retry_id = payload_get(payload, "retry_id"), queue_id = payload_get(payload, "_queue_id");
    if (is_none(retry_id) && is_none(queue_id)) return false;
    bool retry = !is_none(retry_id);
    object row = with_lock(tracker_write_lock(self), [&] {
        object cur = store::execute(tracker_conn(self), store::Stmt::source_identity,
                                    retry ? store::Table::submission_retry : store::Table::submission_queue,
                                    {retry ? retry_id : queue_id});
        return call_method(cur, ID("fetchone"));
    });
    if (is_none(row)) return false;
    auto same_text = [](handle a, handle b) {
        return check_int(PyObject_RichCompareBool(py_str(a).ptr(), py_str(b).ptr(), Py_EQ)) == 1;
    };
    if (!same_text(getitem(row, int_of(0)), payload_get(payload, "eval_id")) ||
        !same_text(getitem(row, int_of(1)), payload_get(payload, "submission_type")) ||
        !same_text(getitem(row, int_of(2)), payload_get(payload, "era_id")))
        return false;
    object created = payload_get(payload, "_source_created_at");
    if (!is_none(created) && !same_text(getitem(row, int_of(4)), created)) return false;
    object stored = payload_get(payload, "_source_payload_json");
    if (!is_none(stored) && check_int(PyObject_RichCompareBool(getitem(row, int_of(3)).ptr(), stored.ptr(), Py_EQ)) != 1)
        return false;
    return true;
}

bool replay_receipt_journal(handle self) {
    if (!persistent(self)) return true;
    object entries = call_method(self, ID("_read_receipt_journal"));
    object it = steal(PyObject_GetIter(entries.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object entry = steal(raw);
        object key = call_method(self, ID("_receipt_journal_key"), {entry});
        object submission_id = mapping_get(entry, ID("submission_id"), Py_None);
        object stored = mapping_get(entry, ID("payload"), Py_None);
        auto forget = [&] { call_method(self, ID("_rewrite_receipt_journal_without"), {key}); };
        if (!truthy(submission_id) || !is_dict(stored)) {
            forget();
            continue;
        }
        object kind = mapping_get(entry, ID("source_kind"), Py_None);
        object source_id = mapping_get(entry, ID("source_id"), Py_None);
        object payload = dict_copy(stored);
        dict_set(payload, ID("_journal_replay"), handle(Py_True));
        auto is_kind = [&](const char* k) {
            return check_int(PyObject_RichCompareBool(kind.ptr(), str_of(k).ptr(), Py_EQ)) == 1;
        };
        const char* take_out;
        if (is_kind("retry")) {
            dict_set(payload, ID("retry_id"), source_id);
            take_out = "_queue_id";
        } else if (is_kind("queue")) {
            dict_set(payload, ID("_queue_id"), source_id);
            take_out = "retry_id";
        } else {
            forget();
            continue;
        }
        if (check_int(PyDict_Contains(payload.ptr(), str_of(take_out).ptr())) == 1)
            check_int(PyDict_DelItem(payload.ptr(), str_of(take_out).ptr()));
        bool dropped = false;
        object exc = caught([&] {
            if (truthy(call_method(self, ID("_submission_status_exists"), {submission_id}))) {
                forget();  // recorded already: only the removal was lost
                dropped = true;
                return;
            }
            if (!truthy(call_method(self, ID("_journal_source_still_matches"), {payload}))) {
                call_method(self, ID("_append_error"),
                            {str_of("submission receipt journal source row missing or mismatched; dropping stale entry")});
                forget();
                dropped = true;
                return;
            }
            call_method(self, ID("_record_submission_and_delete_queue"),
                        {payload, call(global(ID("_ReceiptRecord")), {submission_id})});
        });
        if (exc) {
            record_failure(self, "submission", "receipt_journal_replay", exc, true);
            return false;  // later entries wait for the next pass
        }
        if (dropped) continue;
        forget();
        call_method(self, ID("_finalize_persisted_receipt"), {payload, submission_id});
    }
    if (PyErr_Occurred()) throw_py();
    return true;
}

}  // namespace tw::hnd
