#include "handle/pipeline.hpp"

#include "submission/payload.hpp"

namespace tw::hnd {

namespace {
const LateFn k_for_storage("_submission_payload_for_storage");
const LateFn k_load("_load_submission_payload");
const LateFn k_require_typed_keys("_require_payload_typed_keys");
const LateFn k_resolve_pool_ids("_resolve_submission_pool_ids");
}  // namespace

void record_failure(handle self, const char* component, const char* operation, handle exc, bool backoff) {
    call_method_kw(self, ID("_record_background_failure"), {str_of(component), str_of(operation), exc},
                   {{ID("backoff"), bool_of(backoff)}});
}

static bool is_instance(handle obj, handle cls) {
    return !is_none(cls) && check_int(PyObject_IsInstance(obj.ptr(), cls.ptr())) == 1;
}

bool is_refusal(handle exc) {
    return is_instance(exc, import_attr("tarnwicket.submit", ID("SubmissionRejectedError"))) ||
           is_instance(exc, global_or(ID("SubmissionRejectedError"), Py_None));
}

object refusal_details(handle exc) {
    object details = get_attr_or_none(exc, ID("details"));
    return is_dict(details) ? details : new_dict();
}

object refusal_reason(handle exc, handle details) {
    object reason = get_attr_or_none(exc, ID("reason"));
    if (!truthy(reason)) reason = mapping_get(details, ID("error"), Py_None);
    if (!truthy(reason)) reason = str_of("unknown");
    return reason;
}

object json_text(handle value) {
    return call_kw(import_attr("json", ID("dumps")), {value},
                   {{ID("sort_keys"), handle(Py_True)}, {ID("default"), handle(reinterpret_cast<PyObject*>(&PyUnicode_Type))}});
}

void notify_status(handle self, handle submission_id, handle status,
                   std::initializer_list<std::pair<handle, handle>> extra) {
    object tracker = field(self, ID("_tracker"));
    object kwargs = new_dict();
    dict_set(kwargs, ID("tracker"), tracker);
    dict_set(kwargs, ID("data_dir"), get_attr_or_none(tracker, ID("_data_dir")));
    for (const auto& [name, value] : extra) dict_set(kwargs, name, value);
    dict_set(kwargs, ID("require_tracker"), handle(Py_True));
    call_star(global(ID("notify_submission_status")), tuple_of({submission_id, status}), kwargs);
}

bool rowcount_is_one(handle cursor) {
    object n = get_attr(cursor, ID("rowcount"));
    return check_int(PyObject_RichCompareBool(n.ptr(), int_of(1).ptr(), Py_EQ)) == 1;
}

void require_rowcount_one(handle cursor, const char* text) {
    if (!rowcount_is_one(cursor)) raise(PyExc_RuntimeError, text);
}

object storage_json(handle payload) {
    return payload::serialize_late(k_for_storage.run<payload::f_for_storage>(payload));
}

object load_payload(handle payload_json) { return k_load.run<payload::load>(payload_json); }

void require_typed_keys(handle payload, const char* source_kind, handle row_id) {
    k_require_typed_keys.run<payload::require_typed_keys>(payload, str_of(source_kind), row_id);
}

object resolve_pool_ids(handle conn, handle payload) {
    return k_resolve_pool_ids.run<payload::resolve_pool_ids>(conn, payload);
}

}  // namespace tw::hnd
