// Helpers shared by the submission pipeline of a handle (claims, retries, the
// attempt, receipts, the journal and the loop).
#pragma once

#include "handle/handle.hpp"

namespace tw::hnd {

inline bool persistent(handle self) { return field_true(self, ID("_tracker_uses_persistent_store")); }
inline bool aborted(handle self) { return truthy(call_method(self, ID("_replacement_abort_requested"))); }
inline void drop_aborted(handle self, handle payload) {
    call_method(self, ID("_drop_replacement_aborted_payload"), {payload});
}
inline void update_counts(handle self) { call_method(self, ID("_update_submission_counts")); }

// payload.get(key)
inline object payload_get(handle payload, const char* key) { return mapping_get(payload, str_of(key), Py_None); }
// dict(payload)
inline object shallow_copy(handle payload) {
    return call(handle(reinterpret_cast<PyObject*>(&PyDict_Type)), {payload});
}

// _record_background_failure("submission", operation, exc, backoff=backoff)
void record_failure(handle self, const char* operation, handle exc, bool backoff);

// cursor.rowcount == 1; the second form raises RuntimeError(text) otherwise.
bool rowcount_is_one(handle cursor);
void require_rowcount_one(handle cursor, const char* text);

// The module's names, bound late.
// _serialize_submission_payload(_submission_payload_for_storage(payload))
object storage_json(handle payload);
object load_payload(handle payload_json);                                  // _load_submission_payload
void require_typed_keys(handle payload, const char* source_kind, handle row_id);  // _require_payload_typed_keys
object resolve_pool_ids(handle conn, handle payload);                      // _resolve_submission_pool_ids

}  // namespace tw::hnd
