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

// Once the host shuts its threads down, the pipeline's loops leave at their next pass.
inline bool host_exiting() { return g_interpreter_exiting.load(std::memory_order_relaxed); }

// _record_background_failure(component, operation, exc, backoff=backoff)
void record_failure(handle self, const char* component, const char* operation, handle exc, bool backoff);

// A refusal by the service: SubmissionRejectedError as tarnwicket.submit has it,
// or as this module's namespace has it now. Its details are a map (empty when
// it has none); its reason the exception's, else details["error"], else "unknown".
bool is_refusal(handle exc);
object refusal_details(handle exc);
object refusal_reason(handle exc, handle details);

// json.dumps(value, sort_keys=True, default=str)
object json_text(handle value);

// notify_submission_status(submission_id, status, tracker=_tracker, data_dir=_tracker._data_dir,
//                          **extra, require_tracker=True), through the module's namespace
void notify_status(handle self, handle submission_id, handle status,
                   std::initializer_list<std::pair<handle, handle>> extra);

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
