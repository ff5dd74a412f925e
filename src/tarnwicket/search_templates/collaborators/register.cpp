// Names of the collaborators: those taken from the sibling modules when this
// module loads, and the signal service's face. This file only registers.
#include "core/module.hpp"

#include "collaborators/signal_service.hpp"

namespace tw {

void register_collaborators(handle m) {
    set_global("SyncManager", import_attr("tarnwicket.sync", ID("SyncManager")));
    object tracking = import_module("tarnwicket.search_tracking");
    set_global("_BacktestStats", get_attr(tracking, ID("BacktestStats")));
    set_global("_ensure_submission_sim_parent", get_attr(tracking, ID("_ensure_submission_sim_parent")));
    set_global("_synthetic_submission_sim_id", get_attr(tracking, ID("_synthetic_submission_sim_id")));
    set_global("ObfuscationManager", import_attr("tarnwicket.obfuscation", ID("ObfuscationManager")));
    set_global("SdkRuntimeNotReadyError", import_attr("tarnwicket.errors", ID("SdkRuntimeNotReadyError")));
    set_global("notify_submission_status",
               import_attr("tarnwicket.submission_status_notify", ID("notify_submission_status")));

    using namespace service;
    def_function<resolve_signal_service_url>(m, "_resolve_signal_service_url()");
    def_function<submission_auth_obj>(m, "_submission_auth_obj()");
    def_function<get_submission_token>(m, "_get_submission_token()");
    def_function<build_client>(m, "_build_signal_service_client(timeout=30.0)");
    def_function<poll_status>(m, "poll_status(submission_id)",
                              "Poll the signal service for a submission's status; returns a SubmissionStatus.");
    def_function<details_from_body>(m, "_details_from_body(body)");
    def_function<result_to_receipt>(
        m, "_result_to_receipt(result, submission_type, SubmissionReceipt, SubmissionRejectedError)");
    def_function<poll_status_internal>(m, "_poll_status_internal(submission_id)");
}

}  // namespace tw
