// The submission payload: its stored JSON form, the row schema, the local
// contract gate before any request, and the small operations the pipeline
// shares.
#include "submission/payload.hpp"

#include "context/metric_contract.hpp"
#include "collaborators/store.hpp"

namespace tw::payload {

static const LateFn k_serialize("_serialize_submission_payload");
static const LateFn k_uses_persistent_store("_tracker_uses_persistent_store");
static const LateFn k_submit_kwargs("_submit_kwargs_from_payload");

object serialize(handle payload) {
    object dumps = import_attr("json", ID("dumps"));
    return call_kw(dumps, {payload}, {{ID("sort_keys"), handle(Py_True)}, {ID("default"), handle(reinterpret_cast<PyObject*>(&PyUnicode_Type))}});
}

object serialize_late(handle payload) {
    return k_serialize.run<serialize>(payload);
}

bool uses_persistent_store(handle tracker) {
    // An absent attribute and a None connection both mean "not persistent".
    return !is_none(get_attr_or_none(tracker, ID("_conn")));
}

bool uses_persistent_store_late(handle tracker) {
    if (object f = k_uses_persistent_store.replaced()) return truthy(call(f, {tracker}));
    return uses_persistent_store(tracker);
}

static const char* kTransient[] = {"_queue_id",       "retry_id",           "retry_count",         "retry_after",
                                   "_journal_replay", "_source_created_at", "_source_payload_json"};

object for_storage(handle payload) {
    object out = new_dict();
    // Storing a key hashes it, which can run code that changes `payload`: the
    // host's own iterator then raises, as a loop over the items would.
    object it = dict_items_iter(payload);
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object pair = steal(raw);
        handle k = PyTuple_GET_ITEM(pair.ptr(), 0), v = PyTuple_GET_ITEM(pair.ptr(), 1);
        bool transient = false;
        if (PyUnicode_Check(k.ptr()))
            for (auto t : kTransient)
                if (PyUnicode_CompareWithASCIIString(k.ptr(), t) == 0) transient = true;
        if (!transient) dict_set(out, k, v);
    }
    if (PyErr_Occurred()) throw_py();
    return out;
}

object load(handle payload_json) {
    if (!truthy(payload_json)) raise(PyExc_ValueError, "payload_json must not be empty");
    object decoded = call(import_attr("json", ID("loads")), {payload_json});
    if (!is_dict(decoded)) raise(PyExc_ValueError, "payload_json must decode to an object");
    return decoded;
}

[[noreturn]] static void raise_row_schema(handle source_kind, handle missing, handle row_id) {
    object exc = call_kw(global(ID("RowSchemaError")), {source_kind}, {{ID("missing"), missing}, {ID("row_id"), row_id}});
    raise_obj(exc);
}

void require_typed_keys(handle payload, handle source_kind, handle row_id) {
    object required = global(ID("_REQUIRED_ROW_PAYLOAD_KEYS"));
    if (!is_dict(payload)) raise_row_schema(source_kind, required, row_id);
    object missing = new_list();
    object it = steal(PyObject_GetIter(required.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object key = steal(raw);
        if (check_int(PyDict_Contains(payload.ptr(), key.ptr())) == 0) list_append(missing, key);
    }
    if (PyErr_Occurred()) throw_py();
    if (PyList_GET_SIZE(missing.ptr()) > 0) raise_row_schema(source_kind, missing, row_id);
}

static object first_truthy(std::initializer_list<handle> values) {
    for (auto v : values)
        if (v && truthy(v)) return borrow(v.ptr());
    return none();
}

object resolve_pool_ids(handle conn, handle payload) {
    object submission_type = dict_get(payload, ID("submission_type"));
    object eval_id = dict_get(payload, ID("eval_id"));
    if (is_str(submission_type) && PyUnicode_CompareWithASCIIString(submission_type.ptr(), "strategy") == 0) {
        object cur = store::execute(conn, store::Stmt::strategy_pools_of_eval, {eval_id});
        object row = call_method(cur, ID("fetchone"));
        object row_pool = is_none(row) ? none() : getitem(row, int_of(0));
        object row_signal = is_none(row) ? none() : getitem(row, int_of(1));
        object pool_id = first_truthy({dict_get(payload, ID("pool_id")), dict_get(payload, ID("strategy_pool_id")), row_pool});
        object payload_signal = dict_get(payload, ID("signal_pool_id"));
        object signal_pool_id = truthy(payload_signal) ? payload_signal : row_signal;
        if (!truthy(signal_pool_id)) raise(PyExc_ValueError, "signal_pool_id must be a non-empty string");
        return tuple_of({pool_id, signal_pool_id});
    }
    object cur = store::execute(conn, store::Stmt::signal_pool_of_eval, {eval_id});
    object row = call_method(cur, ID("fetchone"));
    object row_pool = is_none(row) ? none() : getitem(row, int_of(0));
    object pool_id = first_truthy({dict_get(payload, ID("pool_id")), dict_get(payload, ID("signal_pool_id")), row_pool});
    return tuple_of({pool_id, none()});
}

static bool has_key(handle d, const char* key) {
    object k = str_of(key);
    return check_int(PyDict_Contains(d.ptr(), k.ptr())) == 1;
}

void validate_submit_contract(handle kwargs) {
    if (!is_dict(kwargs)) raise(PyExc_TypeError, "submission keyword arguments must be a dict");
    if (has_key(kwargs, "is_pnl_mi_values"))
        raise(PyExc_ValueError, "is_pnl_mi_values is no longer supported; provide is_pnl_mi as a scalar");
    if (has_key(kwargs, "is_mi_values"))
        raise(PyExc_ValueError, "is_mi_values is no longer supported; provide is_pnl_mi as a scalar");
    if (has_key(kwargs, "is_mi")) raise(PyExc_ValueError, "is_mi is no longer supported; provide is_pnl_mi as a scalar");
    if (!has_key(kwargs, "signal_pool_id")) raise(PyExc_ValueError, "signal_pool_id is required");
    object pool = dict_get(kwargs, ID("signal_pool_id"));
    if (!is_nonempty_str(pool)) raise(PyExc_ValueError, "signal_pool_id must be a non-empty string");
    if (!has_key(kwargs, "is_stats")) raise(PyExc_ValueError, "is_stats is required");
    object is_stats = dict_get(kwargs, ID("is_stats"));
    if (!is_dict(is_stats)) raise(PyExc_ValueError, "is_stats must be a dict");
    if (metrics::has_disallowed_mi_field_late(is_stats)) raise(PyExc_ValueError, "is_stats must not contain MI contract fields");
    if (metrics::has_non_finite_number_late(is_stats)) raise(PyExc_ValueError, "is_stats values must be finite numbers");
    if (!has_key(kwargs, "is_pnl_mi")) raise(PyExc_ValueError, "is_pnl_mi is required");
    if (!metrics::is_finite_number_late(dict_get(kwargs, ID("is_pnl_mi"))))
        raise(PyExc_ValueError, "is_pnl_mi must be a finite scalar number");
    if (!has_key(kwargs, "expression_elapsed_seconds")) raise(PyExc_ValueError, "expression_elapsed_seconds is required");
    object elapsed = dict_get(kwargs, ID("expression_elapsed_seconds"));
    if (!PyFloat_CheckExact(elapsed.ptr()) || !std::isfinite(PyFloat_AS_DOUBLE(elapsed.ptr())) ||
        PyFloat_AS_DOUBLE(elapsed.ptr()) <= 0.0)
        raise(PyExc_ValueError, "expression_elapsed_seconds must be a positive float");
}

// `mapping[key]` when `key in mapping`, else a null object. The value is held
// strongly: storing it elsewhere hashes the key again, which can run code.
static object lookup(handle mapping, handle key) {
    if (is_dict(mapping)) {
        PyObject* v = PyDict_GetItemWithError(mapping.ptr(), key.ptr());
        if (!v && PyErr_Occurred()) throw_py();
        return v ? borrow(v) : object();
    }
    if (!contains(mapping, key)) return object();
    return getitem(mapping, key);
}

object submit_kwargs(handle payload, handle allowed) {
    // dict(payload): any mapping (or iterable of pairs) as the host's dict() takes it.
    object source = dict_copy(payload);
    call(global(ID("_validate_submit_contract_kwargs")), {source});
    object defaults = global(ID("_SUBMIT_KWARG_DEFAULTS"));
    object out = new_dict();
    object it = steal(PyObject_GetIter(allowed.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object key = steal(raw);
        object value = lookup(source, key);
        if (!value) value = lookup(defaults, key);
        if (!value) raise_text(PyExc_ValueError, ftext({key, str_of(" is required")}));
        dict_set(out, key, value);
    }
    if (PyErr_Occurred()) throw_py();
    return out;
}

object call_submit_kwargs(handle payload, handle allowed) {
    return k_submit_kwargs.run<submit_kwargs>(payload, allowed);
}

void backoff_sleep(handle seconds) {
    double s = as_double(seconds);
    double cap = as_double(global(ID("SUBMISSION_POLL_INTERVAL")));
    call(import_attr("time", ID("sleep")), {float_of(std::min(s, cap))});
}

// ---------------------------------------------------------------- bindings

object f_for_storage(handle payload) {
    if (!is_dict(payload)) raise(PyExc_TypeError, "payload must be a dict");
    return for_storage(payload);
}

object recorded_pool_id(handle payload) {
    object type = getitem(payload, ID("submission_type"));
    object pool_id = none();
    if (check_int(PyObject_RichCompareBool(type.ptr(), ID("strategy").ptr(), Py_EQ)) == 1)
        pool_id = mapping_get(payload, ID("strategy_pool_id"), Py_None);
    if (is_none(pool_id)) {
        object plain = mapping_get(payload, ID("pool_id"), Py_None);
        pool_id = truthy(plain) ? plain : mapping_get(payload, ID("signal_pool_id"), Py_None);
    }
    return pool_id;
}

}  // namespace tw::payload
