// The names of this subsystem as Python sees them: this file only registers.
#include "submission/binding.hpp"
#include "submission/payload.hpp"

namespace tw {

void register_binding(handle m) {
    using namespace binding;
    def_function<pool_id_from_config_entry>(m, "_pool_id_from_config_entry(pool)");
    def_function<first_signal_pool_id_from_era_config>(m, "_first_signal_pool_id_from_era_config(era_config)");
    def_function<f_submit_signal>(m,
                                  "submit_signal(graph, universe_id, signal_pool_id, is_stats, is_pnl_mi, "
                                  "expression_elapsed_seconds, *, metaparameters=None, search_state=None)",
                                  "Submit one signal to the signal service; returns a SubmissionReceipt.");
    def_function<submit_signal_payload>(m, "_submit_signal_payload(payload)");
}

void register_payload(handle m) {
    using namespace payload;
    def_function<serialize>(m, "_serialize_submission_payload(payload)");
    def_function<f_for_storage>(m, "_submission_payload_for_storage(payload)");
    def_function<load>(m, "_load_submission_payload(payload_json)");
    def_function<require_typed_keys>(m, "_require_payload_typed_keys(payload, source_kind, row_id)");
    def_function<resolve_pool_ids>(m, "_resolve_submission_pool_ids(conn, payload)");
    def_function<validate_submit_contract>(m, "_validate_submit_contract_kwargs(kwargs)");
    def_function<submit_kwargs>(m, "_submit_kwargs_from_payload(payload, allowed)");
    def_function<uses_persistent_store>(m, "_tracker_uses_persistent_store(tracker)");
    def_function<backoff_sleep>(m, "_submission_backoff_sleep(seconds)");
}

}  // namespace tw
