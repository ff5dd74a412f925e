// Submission payload operations shared by evaluation and the pipeline.
#pragma once

#include "core/module.hpp"

namespace tw::payload {

object serialize(handle payload);
// Through the module namespace, obeying a replaced `_serialize_submission_payload`.
object serialize_late(handle payload);
bool uses_persistent_store(handle tracker);
bool uses_persistent_store_late(handle tracker);
object for_storage(handle payload);
object load(handle payload_json);
void require_typed_keys(handle payload, handle source_kind, handle row_id);
object resolve_pool_ids(handle conn, handle payload);
void validate_submit_contract(handle kwargs);
object submit_kwargs(handle payload, handle allowed);
// Through the module namespace, obeying a replaced `_submit_kwargs_from_payload`.
object call_submit_kwargs(handle payload, handle allowed);
void backoff_sleep(handle seconds);
// The pool a payload is recorded under: `strategy_pool_id` for a strategy,
// else `pool_id` when truthy, else `signal_pool_id`.
object recorded_pool_id(handle payload);

}  // namespace tw::payload

// ---------------------------------------------------------------- bound in register.cpp

namespace tw::binding {
object f_submit_signal(handle graph, handle universe_id, handle signal_pool_id, handle is_stats, handle is_pnl_mi, handle expression_elapsed_seconds, handle metaparameters, handle search_state);
}  // namespace tw::binding

namespace tw::payload {
object f_for_storage(handle payload);
}  // namespace tw::payload
