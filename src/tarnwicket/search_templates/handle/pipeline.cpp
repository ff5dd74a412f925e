#include "handle/pipeline.hpp"

#include "submission/payload.hpp"

namespace tw::hnd {

namespace {
const LateFn k_for_storage("_submission_payload_for_storage");
const LateFn k_load("_load_submission_payload");
const LateFn k_require_typed_keys("_require_payload_typed_keys");
const LateFn k_resolve_pool_ids("_resolve_submission_pool_ids");
}  // namespace

void record_failure(handle self, const char* operation, handle exc, bool backoff) {
    call_method_kw(self, ID("_record_background_failure"), {str_of("submission"), str_of(operation), exc},
                   {{ID("backoff"), bool_of(backoff)}});
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
