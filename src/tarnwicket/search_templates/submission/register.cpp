// The names of this subsystem as Python sees them: this file only registers.
#include "submission/payload.hpp"

namespace tw {

void register_binding(handle m) {
    using namespace binding;
    def_function<f_entry>(m, "_pool_id_from_config_entry(pool)");
    def_function<f_first_pool>(m, "_first_signal_pool_id_from_era_config(era_config)");
    def_function<f_submit_signal>(m,
                                  "submit_signal(graph, universe_id, signal_pool_id, is_stats, is_pnl_mi, "
                                  "expression_elapsed_seconds, *, metaparameters=None, search_state=None)",
                                  "Submit one signal to the signal service; returns a SubmissionReceipt.");
    def_function<f_submit_payload>(m, "_submit_signal_payload(payload)");
}

void register_payload(handle m) {
    using namespace payload;
    def_function<f_serialize>(m, "_serialize_submission_payload(payload)");
    def_function<f_for_storage>(m, "_submission_payload_for_storage(payload)");
    def_function<f_load>(m, "_load_submission_payload(payload_json)");
    def_function<f_require_keys>(m, "_require_payload_typed_keys(payload, source_kind, row_id)");
    def_function<f_resolve_pools>(m, "_resolve_submission_pool_ids(conn, payload)");
    def_function<f_validate>(m, "_validate_submit_contract_kwargs(kwargs)");
    def_function<f_submit_kwargs>(m, "_submit_kwargs_from_payload(payload, allowed)");
    def_function<f_persistent>(m, "_tracker_uses_persistent_store(tracker)");
    def_function<f_backoff_sleep>(m, "_submission_backoff_sleep(seconds)");
}

}  // namespace tw
